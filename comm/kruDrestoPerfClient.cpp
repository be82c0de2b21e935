#include "comm/kruDrestoPerfClient.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "comm/kruBytes.h"
#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfResponse.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruKinds.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTMessage.h"
#include "comm/kruRaise.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruSocketException.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

namespace {

constexpr const char* kFile = "kruDrestoPerfClient";

// Support tools recognise these failures by their line, which therefore never changes.
constexpr unsigned long kLineNotConnected = 68;
constexpr unsigned long kLineExchangeUnknown = 113;
constexpr unsigned long kLineRecvNotConnected = 132;
constexpr unsigned long kLineRecvInProgress = 138;
constexpr unsigned long kLineRecvUnknown = 147;
constexpr unsigned long kLineNoTerminator = 192;
constexpr unsigned long kLineSendFailed = 281;
constexpr unsigned long kLineSendInternal = 286;
constexpr unsigned long kLineAlreadyFinished = 357;
constexpr unsigned long kLineNoReply = 383;

constexpr char16_t kUnknownError[] = u"unknown error from sendandrecvMesgOnce";

// A body above this goes out behind the buffer, in pieces of this size.
constexpr unsigned long kLargeBody = 10000;
constexpr unsigned long kBodyPiece = 10000;
// A message this small takes as many bytes of its large body along.
constexpr unsigned long kBodyStart = 5000;

// Batching: the buffer is written when it holds this much.
constexpr std::size_t kBatchBytes = 10000;
constexpr int kBatchMessages = 50;

constexpr std::size_t kHeaderLengthField = 2;
constexpr std::size_t kMaxHeader = 65535;

// An envelope with the largest payload; as much as that left over begins with no envelope.
constexpr unsigned long kMaxEnvelope = 4 + 65535;

constexpr int kStatusOnly = 5;
constexpr int kInvalidAuth = 401;

/// Messages held in the send buffers of all clients of the process.
std::atomic<int>& messagesInBuffer() {
  static std::atomic<int> messages{0};
  return messages;
}

}  // namespace

DrestoPerfClient::DrestoPerfClient(const icu::UnicodeString& host, unsigned int port)
    : DrestoPerfClient(host, port, tq::oss::Socket::NullAddrInfoExternal) {}

DrestoPerfClient::DrestoPerfClient(const icu::UnicodeString& host, unsigned int port,
                                   const tq::oss::Socket::_AddrInfoExternal& addresses)
    : CorvaneRESTClient(host, port, addresses, true) {}

DrestoPerfClient::~DrestoPerfClient() { close(); }

void DrestoPerfClient::setReassembly(bool on) { reassembly_ = on; }

void DrestoPerfClient::sendAndRecvMesgOnce(ClientRequest& request, ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::DrestoPerfClientSendAndRecvMesgOnce);
  const OperationScope operation(*this);
  try {
    exchange(request, response);
  } catch (const RESTException& e) {
    rethrow(e.getMessageList());
  } catch (...) {
    raise(StaticDefs::ERR_CLIENT_INTERNAL, kFile, kLineExchangeUnknown, kUnknownError);
  }
}

void DrestoPerfClient::exchange(ClientRequest& request, ClientResponse& response) {
  outcome_ = RequestOutcome::NotSent;
  refuseUnsendable(request);
  sendHeldQuestions();
  openClean();
  if (!connected_) {
    raise(StaticDefs::ERR_CONNECT_SERVER, kFile, kLineNotConnected, host_, port_);
  }
  exchangeInProgress_ = true;
  requestKind_ = request.getRequest();
  requestString_ = request.getRequestString();
  RESTMessage message(host_, request);
  // Nothing may fail between holding a message back and sending it: it would still go out with a
  // later one, and take that one's reply.
  auto parser = std::make_unique<DrestoPerfResponse>(requestKind_,
                                                     ClientResponse::resultsExpected(requestKind_));
  parser->setMaxReplyBytes(maxReplyBytes_);
  sendMesg(message);
  carryCount_ = 0;
  endOfStream_ = false;
  truncated_ = false;
  parser_ = std::move(parser);
  recvMesg(response);
  while (!endOfStream_ && response.getResultCount() == 0) {
    // An estimate adds no results: its reply is over with its end mark, which may come later.
    if (requestKind_ == ClientRequest::SELECTIVITY && parser_->hasTakenRecords()) {
      parser_->initState(true);
    }
    recvStream(response);
  }
  exchangeInProgress_ = false;
  if (ClientResponse::isRespReqd(requestKind_)) outcome_ = RequestOutcome::Answered;
}

/// What of a message is sent: the body only behind a prefix, the terminate record only for its
/// kind.
struct DrestoPerfClient::Parts {
  std::string_view header;
  std::string_view terminator;
  std::string_view prefix;
  std::string_view body;

  bool largeBody() const { return body.size() > kLargeBody; }
};

DrestoPerfClient::Parts DrestoPerfClient::partsOf(RESTMessage& message) const {
  Parts parts;
  parts.header = message.getSerializedHeader();
  if (parts.header.size() > kMaxHeader) {
    raise(StaticDefs::ERR_CLIENT_INTERNAL, kFile, __LINE__,
          u"the header text of a request is longer than 65535 bytes");
  }
  if (message.getRequest() == ClientRequest::LAST_DOC_SENT) {
    unsigned int length = 0;
    const char* record = message.getTerminateRecord(length);
    if (length == 0) {
      raise(StaticDefs::ERR_CLIENT_INTERNAL, kFile, kLineNoTerminator,
            u"NULL terminator record in sendMesg");
    }
    parts.terminator = {record, length};
  } else if (message.getMsgPrefixLen() != 0) {
    parts.prefix = {message.getMsgPrefix(), message.getMsgPrefixLen()};
    if (message.getMsgBodyLength() != 0) {
      parts.body = {message.getMsgBody(), message.getMsgBodyLength()};
    }
  }
  return parts;
}

void DrestoPerfClient::sendMesg(RESTMessage& message) {
  const tq::oss::TraceScope trace(trace::DrestoPerfClientSendMesg);
  try {
    const Parts parts = partsOf(message);
    const std::string_view rest = append(parts);
    replyHeldBefore_ = replyHeld_;
    replyHeld_ = replyHeld_ || ClientResponse::isRespReqd(message.getRequest());
    if (mustWrite(parts)) writeBuffer(rest, replyHeld_);
  } catch (const RESTException&) {
    throw;
  } catch (const tq::oss::BaseException& e) {
    raise(StaticDefs::ERR_CLIENT_INTERNAL, kFile, kLineSendInternal, host_, e.getMessageList());
  }
}

/// A message that was sent by hand and held back is answered before the one that an exchange is
/// about. It goes out by itself, so that its reply is left with its connection.
void DrestoPerfClient::sendHeldQuestions() {
  if (!replyHeld_) return;
  openClean();
  // The exchange has added nothing yet: whatever fails, all of it still waits.
  lastMessage_ = sendBuffer_.size();
  replyHeldBefore_ = true;
  writeBuffer({}, true);
  outcome_ = RequestOutcome::NotSent;
}

/// Adds a message to the send buffer and returns the part of its body that is not copied.
std::string_view DrestoPerfClient::append(const Parts& parts) {
  const std::size_t start = sendBuffer_.size();
  const std::size_t fixed =
      kHeaderLengthField + parts.header.size() + parts.terminator.size() + parts.prefix.size();
  std::string_view copied = parts.body;
  if (parts.largeBody()) {
    copied = start + fixed < kBodyStart ? parts.body.substr(0, kBodyStart) : std::string_view();
  }
  sendBuffer_.resize(start + fixed + copied.size());
  bytes::Writer out(sendBuffer_.data() + start);
  out.putShort(static_cast<std::uint16_t>(parts.header.size()));
  for (const std::string_view part : {parts.header, parts.terminator, parts.prefix, copied}) {
    out.putBytes(part.data(), part.size());
  }
  lastMessage_ = start;
  messagesInBuffer().fetch_add(1);
  return parts.body.substr(copied.size());
}

bool DrestoPerfClient::mustWrite(const Parts& parts) const {
  return !buffered_ || sendBuffer_.size() >= kBatchBytes || !parts.terminator.empty() ||
         parts.largeBody() || messagesInBuffer().load() >= kBatchMessages;
}

void DrestoPerfClient::writeBuffer(std::string_view rest, bool replyExpected) {
  // Half a message on the connection spoils it as much as a reply that nobody reads.
  const bool stillOutstanding = markReplyOutstanding(true);
  try {
    socket_.write(sendBuffer_.data(), 0, sendBuffer_.size());
    sendBuffer_.clear();
    lastMessage_ = 0;
    messagesInBuffer().store(0);
    sendBodyChunks(rest.data(), kBodyPiece, rest.size());
  } catch (const tq::oss::SocketTimeoutException&) {
    dropLastMessage();
    raise(StaticDefs::ERR_SERVER_COMM_TIMEOUT, kFile, __LINE__, host_, port_);
  } catch (const tq::oss::SocketException&) {
    dropLastMessage();
    raise(StaticDefs::ERR_SERVER_COMM_SEND, kFile, kLineSendFailed, host_, port_);
  } catch (...) {
    // Otherwise it would go out in front of the next one, which would then get its reply.
    dropLastMessage();
    throw;
  }
  replyHeld_ = false;
  outcome_ = RequestOutcome::MayBeApplied;
  markReplyOutstanding(stillOutstanding || replyExpected);
}

/// A repeated attempt appends the message anew; what was held back before it still waits.
void DrestoPerfClient::dropLastMessage() {
  const bool dropped = lastMessage_ < sendBuffer_.size();
  sendBuffer_.resize(lastMessage_);
  replyHeld_ = replyHeldBefore_ && !sendBuffer_.empty();
  if (!dropped) return;
  // Another client may have reset the count in the meantime.
  int held = messagesInBuffer().load();
  while (held > 0 && !messagesInBuffer().compare_exchange_weak(held, held - 1)) {
  }
}

void DrestoPerfClient::sendBodyChunks(const char* data, unsigned long chunkSize,
                                      unsigned long total) {
  const tq::oss::TraceScope trace(trace::DrestoPerfClientSendBodyChunks);
  unsigned long offset = 0;
  while (offset < total) {
    const unsigned long piece = std::min(std::max(chunkSize, 1UL), total - offset);
    socket_.write(data, offset, piece);
    offset += piece;
  }
}

void DrestoPerfClient::recvMesg(ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::DrestoPerfClientRecvMesg);
  response.resetResultCount();
  if (!ClientResponse::isRespReqd(requestKind_)) {
    response.setReturnCode(0);
    endOfStream_ = true;
    return;
  }
  if (parser_ == nullptr) raise(StaticDefs::ERR_INVALID_STATE, kFile, __LINE__);
  if (!sendBuffer_.empty()) writeBuffer({}, true);
  if (isStreamSearch(requestKind_)) response.setSearchResponse(SearchResponse());
  if (requestKind_ == ClientRequest::PARSE_RESULT) response.setParseResponse(ParseResponse());
  int need = 0;
  if (parser_->parseDone(need)) {
    raise(StaticDefs::ERR_CLIENT_INTERNAL, kFile, kLineAlreadyFinished);
  }
  startCarry();
  const auto wanted = static_cast<unsigned long>(need);
  while (carryCount_ < wanted) {
    if (!appendReplyBytes(wanted - carryCount_)) {
      raise(StaticDefs::ERR_SERVER_COMM_RECV, kFile, kLineNoReply, host_, port_);
    }
  }
  const int leftover =
      parser_->parseMesg(carry_.data(), static_cast<int>(carryCount_), response, endOfStream_);
  keepLeftover(carryCount_, static_cast<unsigned long>(leftover));
}

void DrestoPerfClient::recvStream(ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::DrestoPerfClientRecvStream);
  if (parser_ == nullptr) raise(StaticDefs::ERR_INVALID_STATE, kFile, __LINE__);
  const bool parseResults = requestKind_ == ClientRequest::PARSE_RESULT;
  if (endOfStream_) {
    if (parseResults) {
      response.setParseResponse(ParseResponse());
    } else {
      response.setSearchResponse(SearchResponse());
    }
    return;
  }
  int need = 0;
  if (parser_->parseDone(need) && !ClientResponse::isStreaming(requestKind_)) endOfStream_ = true;
  if (requestKind_ == ClientRequest::STREAM_SEARCH) response.getSearchResponse().init();
  if (parseResults) response.getParseResponse().init();
  if (need > 0 && parser_->hasBody() && !takePortion(4 * static_cast<unsigned long>(need))) {
    endOfStream_ = true;
    truncated_ = true;
    if (reassembly_) raise(StaticDefs::ERR_SERVER_COMM_RECV, kFile, kLineNoReply, host_, port_);
  }
  parsePortion(response);
}

/// False: the peer has closed before enough was there.
bool DrestoPerfClient::takePortion(unsigned long size) {
  if (streamLostItsConnection()) return false;
  do {
    if (!appendReplyBytes(size)) return false;
  } while (mustReadOn());
  return true;
}

/// Takes up to `length` bytes behind those carried. False: the peer has closed.
bool DrestoPerfClient::appendReplyBytes(unsigned long length) {
  if (!carry_.grow(carryCount_ + length, carryCount_)) throw std::bad_alloc();
  unsigned long count = 0;
  try {
    count = takeReplyBytes(carry_.data() + carryCount_, length);
  } catch (const tq::oss::SocketException&) {
    if (!reassembly_) throw;
  }
  carryCount_ += count;
  return count != 0;
}

/// An error record is always read whole; a first portion of results where that was asked for.
bool DrestoPerfClient::mustReadOn() const {
  const bool wholeUnit = parser_->isErrorReply() || (reassembly_ && exchangeInProgress_);
  return wholeUnit && !parser_->holdsWholeUnit(carry_.data(), static_cast<int>(carryCount_));
}

void DrestoPerfClient::parsePortion(ClientResponse& response) {
  const unsigned long total = carryCount_;
  unsigned long leftover = 0;
  try {
    leftover = static_cast<unsigned long>(
        parser_->parseMesg(carry_.data(), static_cast<int>(total), response, endOfStream_));
  } catch (...) {
    settleFailure();
    throw;
  }
  if (parser_->isErrorReply()) {
    leftover = total - static_cast<unsigned long>(DrestoPerfResponse::errorRecordLength(
                           carry_.data(), static_cast<int>(total)));
  }
  if (endOfStream_ && !truncated_) {
    endReply(leftover);
    return;
  }
  if (leftover >= kMaxEnvelope) {
    settleFailure();
    raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
  }
  keepLeftover(total, leftover);
}

/// The reply is over. Bytes behind it were not asked for: the next exchange finds them, and drops
/// them with the connection.
void DrestoPerfClient::endReply(unsigned long leftover) {
  socket_.pushBack(carry_.data() + (carryCount_ - leftover), leftover);
  carryCount_ = 0;
  markReplyOutstanding(false);
}

/// An answer of the server that was read to its end leaves the connection in order. After anything
/// else nobody knows where the next record would begin: nothing more can come of the stream.
void DrestoPerfClient::settleFailure() {
  const int code = parser_->getStatusCode();
  const bool wholeError = parser_->isErrorReply() &&
                          parser_->holdsWholeUnit(carry_.data(), static_cast<int>(carryCount_));
  if (wholeError || code == kStatusOnly || code == kInvalidAuth) {
    // A status that was not asked for says nothing of the request.
    if (code != kStatusOnly) outcome_ = RequestOutcome::Rejected;
    endReply(carryCount_ - (wholeError
                                ? static_cast<unsigned long>(DrestoPerfResponse::errorRecordLength(
                                      carry_.data(), static_cast<int>(carryCount_)))
                                : 0));
    return;
  }
  carryCount_ = 0;
  if (exchangeInProgress_) return;
  endOfStream_ = true;
  truncated_ = true;
}

void DrestoPerfClient::recv(ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::DrestoPerfClientRecv);
  const OperationScope operation(*this);
  if (!connected_) {
    raise(StaticDefs::ERR_CONNECT_SERVER, kFile, kLineRecvNotConnected, host_, port_);
  }
  if (exchangeInProgress_ || parser_ == nullptr) {
    raise(StaticDefs::ERR_INVALID_STATE, kFile, kLineRecvInProgress);
  }
  try {
    parser_->initState(true);
    recvStream(response);
  } catch (const RESTException& e) {
    rethrow(e.getMessageList());
  } catch (...) {
    raise(StaticDefs::ERR_CLIENT_INTERNAL, kFile, kLineRecvUnknown, kUnknownError);
  }
}

}  // namespace tq::comm
