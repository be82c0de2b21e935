#include "comm/kruCorvaneRESTClient.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <random>
#include <utility>

#include "comm/kruChunkTail.h"
#include "comm/kruClientResponse.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruKinds.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTMessage.h"
#include "comm/kruRESTResponse.h"
#include "comm/kruRaise.h"
#include "comm/kruStaticDefs.h"
#include "comm/kruUnsendable.h"
#include "infra/oss/kruClock.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruSocketException.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

namespace {

constexpr const char* kFile = "kruCorvaneRESTClient";

// The most that is read at once while a header block or a chunk-size line is looked for.
constexpr unsigned long kFramingPiece = 256;
// Room for reply bytes is made in steps of at least this much, and at most doubled, so that memory
// follows what arrives and not what is announced.
constexpr unsigned long kSmallestSlice = 16384;
constexpr std::uint64_t kNanosPerMilli = 1000000;
constexpr std::size_t kKeptCarry = std::size_t{1} << 20;

bool isTimeOut(const RESTException& error) {
  const tq::oss::MessageList& messages = error.getMessageList();
  return !messages.empty() &&
         messages.front().getMessageId() == StaticDefs::ERR_SERVER_COMM_TIMEOUT;
}

}  // namespace

CorvaneRESTClient::CorvaneRESTClient(const icu::UnicodeString& host, unsigned int port,
                                     bool persistent)
    : CorvaneRESTClient(host, port, tq::oss::Socket::NullAddrInfoExternal, persistent) {}

CorvaneRESTClient::CorvaneRESTClient(const icu::UnicodeString& host, unsigned int port,
                                     const tq::oss::Socket::_AddrInfoExternal& addresses,
                                     bool persistent)
    : CorvaneClient(host, port, addresses, persistent, false),
      tail_(std::make_unique<ChunkTail>()) {
  init();
}

CorvaneRESTClient::CorvaneRESTClient() : tail_(std::make_unique<ChunkTail>()) {}

CorvaneRESTClient::~CorvaneRESTClient() { close(); }

void CorvaneRESTClient::init() {
  retries_ = 1;
  char name[32];
  std::snprintf(name, sizeof name, "CorvaneRESTClient%0x",
                static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(this)));
  clientName_ = icu::UnicodeString::fromUTF8(name);
}

void CorvaneRESTClient::setNumRetries(unsigned int count) { retries_ = count; }

bool CorvaneRESTClient::isCommnError(icu::UnicodeString& messageId) {
  return messageId == StaticDefs::ERR_SERVER_COMM_RECV ||
         messageId == StaticDefs::ERR_CONNECT_SERVER ||
         messageId == StaticDefs::ERR_SERVER_COMM_SEND ||
         messageId == StaticDefs::ERR_SERVER_COMM_TIMEOUT;
}

bool CorvaneRESTClient::isEndOfStream() const { return endOfStream_; }

bool CorvaneRESTClient::isTruncated() const { return truncated_; }

void CorvaneRESTClient::setRetryUnsafe(bool on) { retryUnsafe_ = on; }

void CorvaneRESTClient::setRetryPause(unsigned int first, unsigned int most) {
  firstPause_ = first;
  longestPause_ = std::max(first, most);
}

RequestOutcome CorvaneRESTClient::getRequestOutcome() const { return outcome_; }

bool CorvaneRESTClient::isRepeatable(ClientRequest::REQUEST kind) {
  return kindOf(kind).has(kRepeatable);
}

void CorvaneRESTClient::sendAndRecvMesg(ClientRequest& request, ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientSendAndRecvMesg);
  const OperationScope operation(*this);
  outcome_ = RequestOutcome::NotSent;
  // Before anything is changed: a stream that is still open goes on as the kind that it has.
  refuseUnsendable(request);
  requestKind_ = request.getRequest();
  // What an earlier attempt may have done stays possible, whatever a later one finds.
  bool mayBeApplied = false;
  for (unsigned int attempt = 0;; ++attempt) {
    outcome_ = RequestOutcome::NotSent;
    try {
      sendAndRecvMesgOnce(request, response);
      return;
    } catch (const RESTException& e) {
      const bool repeat = mayRepeat(e.getMessageList(), attempt);
      mayBeApplied = mayBeApplied || outcome_ == RequestOutcome::MayBeApplied;
      if (mayBeApplied) outcome_ = RequestOutcome::MayBeApplied;
      if (!repeat) rethrow(e.getMessageList());
      close();
      pauseBefore(attempt + 1);
      if (deadlinePassed()) {
        // What the last attempt met follows as the cause.
        raise(StaticDefs::ERR_SERVER_COMM_TIMEOUT, kFile, __LINE__, host_, port_,
              e.getMessageList());
      }
    } catch (const tq::oss::BaseException&) {
      if (mayBeApplied) outcome_ = RequestOutcome::MayBeApplied;
      raise(StaticDefs::ERR_CLIENT_INTERNAL, kFile, __LINE__);
    } catch (...) {
      if (mayBeApplied) outcome_ = RequestOutcome::MayBeApplied;
      throw;
    }
  }
}

bool CorvaneRESTClient::mayRepeat(const tq::oss::MessageList& failure, unsigned int attempt) const {
  if (failure.empty() || attempt >= retries_) return false;
  icu::UnicodeString id = failure.front().getMessageId();
  if (!isCommnError(id)) return false;
  return retryUnsafe_ || outcome_ != RequestOutcome::MayBeApplied || isRepeatable(requestKind_);
}

/// Clients that failed together must not come back together, hence the random half.
void CorvaneRESTClient::pauseBefore(unsigned int attempt) const {
  if (firstPause_ == 0) return;
  std::uint64_t millis = firstPause_;
  for (unsigned int i = 1; i < attempt && millis < longestPause_; ++i) millis *= 2;
  const std::uint64_t nanos = std::min<std::uint64_t>(millis, longestPause_) * kNanosPerMilli;
  std::minstd_rand random(static_cast<std::minstd_rand::result_type>(
      tq::oss::monotonicNanos() ^ reinterpret_cast<std::uintptr_t>(this)));
  std::uniform_int_distribution<std::uint64_t> share(nanos / 2, nanos);
  tq::oss::pauseFor(std::min(share(random), nanosToDeadline()));
}

void CorvaneRESTClient::sendAndRecvMesgOnce(ClientRequest& request, ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientSendAndRecvMesgOnce);
  const OperationScope operation(*this);
  outcome_ = RequestOutcome::NotSent;
  refuseUnsendable(request);
  openClean();
  if (!connected_) raise(StaticDefs::ERR_CONNECT_SERVER, kFile, __LINE__, host_, port_);
  exchangeInProgress_ = true;
  RESTMessage message(host_, request);
  requestKind_ = request.getRequest();
  sendMesg(message);
  endOfStream_ = false;
  truncated_ = false;
  recvMesg(response);
  if (ClientResponse::isMultiResp(requestKind_)) recvRest(response);
  exchangeInProgress_ = false;
}

/// A reply counts as an answer when all of it has come.
void CorvaneRESTClient::recvRest(ClientResponse& response) {
  const RequestOutcome verdict = outcome_;
  outcome_ = RequestOutcome::MayBeApplied;
  recvMultResponse(response);
  if (!truncated_) outcome_ = verdict;
}

void CorvaneRESTClient::refuseUnsendable(ClientRequest& request) const {
  const char16_t* reason = whyUnsendable(request);
  if (reason != nullptr) raise(StaticDefs::ERR_CLIENT_INTERNAL, kFile, __LINE__, reason);
}

void CorvaneRESTClient::openClean() {
  leaveOldConnection();
  if (connected_ && persistent_ && !connectionIsClean()) close();
  open();
  leaveOldConnection();
}

/// A stream ends with its connection, even when the exchange that gave it up gets no further: it
/// would be read on from the new one.
void CorvaneRESTClient::leaveOldConnection() {
  if (streamLostItsConnection() && !endOfStream_) {
    endOfStream_ = true;
    truncated_ = true;
    carryCount_ = 0;
  }
  forgetOldConnection();
}

/// A connection that was made since knows nothing of the stream.
bool CorvaneRESTClient::streamLostItsConnection() const {
  return tailConnection_ != 0 && tailConnection_ != connectionNumber_;
}

/// What is known of a connection holds for that one only; the caller may have made another.
void CorvaneRESTClient::forgetOldConnection() {
  if (tailConnection_ == connectionNumber_) return;
  tailConnection_ = connectionNumber_;
  replyOutstanding_ = false;
  tail_->clear();
}

/// Looks that do not wait. A peer that has closed in the meantime would cost an attempt, or a
/// message that nobody answers, and bytes that nobody asked for would be taken for the next reply.
/// They may stand behind what is still to be skipped, and are seen only when that is out of the
/// way.
bool CorvaneRESTClient::connectionIsClean() {
  if (replyOutstanding_) return false;
  for (;;) {
    const tq::oss::Socket::Look look = socket_.look();
    if (look != tq::oss::Socket::Look::Data) {
      return look == tq::oss::Socket::Look::Quiet && !tail_->undecided();
    }
    skipTail();
    if (tail_->broken() || socket_.buffered() != 0) return false;
  }
}

/// Skips what of the old reply is in the socket's buffer.
void CorvaneRESTClient::skipTail() {
  char piece[kFramingPiece];
  while (tail_->active() && socket_.buffered() != 0) {
    const unsigned long count =
        socket_.readOnce(piece, 0, std::min<unsigned long>(socket_.buffered(), sizeof piece));
    const std::size_t skipped = tail_->skip(piece, count);
    socket_.pushBack(piece + skipped, count - skipped);
    const std::string_view begun = tail_->reclaim();
    socket_.pushBack(begun.data(), begun.size());
  }
}

bool CorvaneRESTClient::markReplyOutstanding(bool outstanding) {
  forgetOldConnection();
  return std::exchange(replyOutstanding_, outstanding);
}

void CorvaneRESTClient::send(ClientRequest& request) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientSend);
  const OperationScope operation(*this);
  refuseUnsendable(request);
  RESTMessage message(host_, request);
  sendMesg(message);
}

void CorvaneRESTClient::sendMesg(RESTMessage& message) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientSendMesg);
  tq::oss::Socket::Piece pieces[3];
  unsigned int count = 0;
  const char* header = message.getSerializedHeader();
  pieces[count++] = {header, std::strlen(header)};
  if (message.getRequest() == ClientRequest::LAST_DOC_SENT) {
    unsigned int length = 0;
    const char* record = message.getTerminateRecord(length);
    pieces[count++] = {record, length};
  } else if (message.getMsgPrefixLen() != 0) {
    pieces[count++] = {message.getMsgPrefix(), message.getMsgPrefixLen()};
    if (message.getMsgBodyLength() != 0) {
      pieces[count++] = {message.getMsgBody(), message.getMsgBodyLength()};
    }
  }
  // Half a message on the connection spoils it as much as a reply that nobody reads.
  const bool stillOutstanding = markReplyOutstanding(true);
  try {
    socket_.write(pieces, count);
  } catch (const tq::oss::SocketTimeoutException&) {
    raise(StaticDefs::ERR_SERVER_COMM_TIMEOUT, kFile, __LINE__, host_, port_);
  }
  outcome_ = RequestOutcome::MayBeApplied;
  markReplyOutstanding(stillOutstanding || ClientResponse::isRespReqd(message.getRequest()));
}

/// A reply of unusual size does not keep its memory for ever.
void CorvaneRESTClient::startCarry() {
  carryCount_ = 0;
  if (carry_.capacity() > kKeptCarry) carry_.resize(0);
}

void CorvaneRESTClient::recvMesg(ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientRecvMesg);
  startCarry();
  response.resetResultCount();
  if (!ClientResponse::isRespReqd(requestKind_)) {
    response.setReturnCode(0);
    endOfStream_ = true;
    return;
  }
  RESTResponse parser(requestKind_, false);
  parser.setMaxReplyBytes(maxReplyBytes_);
  if (isStreamSearch(requestKind_)) response.setSearchResponse(SearchResponse());
  if (requestKind_ == ClientRequest::PARSE_RESULT) response.setParseResponse(ParseResponse());
  bool closed = false;
  int need = 0;
  try {
    while (!closed && !parser.parseDone(need)) {
      if (!parser.wantsWholeBody()) {
        closed = !takeFraming(parser, response, nullptr);
      } else {
        closed = !appendReplyBytes(static_cast<unsigned long>(need));
        if (!closed) parseFirstBody(parser, response);
      }
    }
  } catch (const tq::oss::SocketException&) {
    closed = true;
  }
  if (closed) raise(StaticDefs::ERR_SERVER_COMM_RECV, kFile, __LINE__, host_, port_);
  settleFirstReply(parser);
}

/// Feeds the parser what is there of a header block or a chunk-size line, and puts back what is
/// none of it. False: the peer has closed. What was consumed is added to `taken` where one is
/// given: a portion that does not arrive in time is put back as a whole.
bool CorvaneRESTClient::takeFraming(RESTResponse& parser, ClientResponse& response,
                                    std::string* taken) {
  int need = 0;
  parser.parseDone(need);
  char piece[kFramingPiece];
  const unsigned long count = takeReplyBytes(
      piece, std::min<unsigned long>(static_cast<unsigned long>(need), sizeof piece));
  if (count == 0) return false;
  const std::size_t skipped = tail_->skip(piece, count);
  if (tail_->broken()) raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
  const std::string_view begun = tail_->reclaim();
  if (!begun.empty()) {
    parser.parseMesg(begun.data(), static_cast<int>(begun.size()), response, endOfStream_);
  }
  const auto offered = static_cast<int>(count - skipped);
  if (offered == 0) return true;
  const int leftover = parser.parseMesg(piece + skipped, offered, response, endOfStream_);
  const auto behind = static_cast<unsigned long>(leftover);
  socket_.pushBack(piece + count - behind, behind);
  if (taken != nullptr) taken->append(piece, count - behind);
  return true;
}

/// Takes `length` reply bytes behind those carried. False: the peer closed before they were there.
/// When they do not arrive in time they are put back.
bool CorvaneRESTClient::appendReplyBytes(unsigned long length) {
  // The parsers count in ints.
  constexpr unsigned long kMost = std::numeric_limits<int>::max();
  if (length > kMost - std::min(carryCount_, kMost)) raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
  unsigned long got = 0;
  try {
    while (got < length) {
      const unsigned long held = carryCount_ + got;
      const unsigned long slice = std::min(length - got, std::max(held, kSmallestSlice));
      if (!carry_.grow(held + slice, held)) throw std::bad_alloc();
      const unsigned long count = takeReplyBytes(carry_.data() + held, slice);
      if (count == 0) return false;
      got += count;
    }
  } catch (const RESTException&) {
    socket_.pushBack(carry_.data() + carryCount_, got);
    throw;
  }
  carryCount_ += length;
  return true;
}

void CorvaneRESTClient::parseFirstBody(RESTResponse& parser, ClientResponse& response) {
  // Whatever ends the parsing, no byte is parsed twice.
  const unsigned long total = std::exchange(carryCount_, 0UL);
  int leftover = 0;
  try {
    leftover = parser.parseMesg(carry_.data(), static_cast<int>(total), response, endOfStream_);
  } catch (const RESTException&) {
    int need = 0;
    const bool serverError = parser.parseDone(need);
    if (serverError) outcome_ = RequestOutcome::Rejected;
    if (!parser.isChunked()) {
      markReplyOutstanding(false);
    } else if (serverError) {
      settleChunked(parser);
    }
    throw;
  }
  keepLeftover(total, static_cast<unsigned long>(leftover));
}

void CorvaneRESTClient::keepLeftover(unsigned long total, unsigned long leftover) {
  if (leftover != 0 && leftover != total) {
    std::memmove(carry_.data(), carry_.data() + (total - leftover), leftover);
  }
  carryCount_ = leftover;
}

/// The parser is done with the first body: is the reply over, and what does the connection hold?
void CorvaneRESTClient::settleFirstReply(const RESTResponse& parser) {
  constexpr int kOk = 200;
  outcome_ = parser.getStatusCode() == kOk ? RequestOutcome::Answered : RequestOutcome::Rejected;
  const bool streaming = ClientResponse::isStreaming(requestKind_);
  const bool bodyEnded = !parser.isChunked() || parser.lastChunkSeen();
  if (isSearch(requestKind_) && bodyEnded) {
    truncated_ = carryCount_ != 0 && !parser.endMarkSeen();
  }
  if (!streaming || bodyEnded) endOfStream_ = true;
  if (!parser.isChunked()) {
    markReplyOutstanding(false);
  } else if (endOfStream_ || requestKind_ == ClientRequest::SELECTIVITY) {
    // The one record of an estimate is all of it, though its stream counts as open.
    settleChunked(parser);
  }
  if (endOfStream_) carryCount_ = 0;
}

void CorvaneRESTClient::settleChunked(const RESTResponse& parser) {
  markReplyOutstanding(false);
  if (parser.lastChunkSeen()) {
    tail_->startBehindLastChunk();
  } else {
    tail_->startBehindData(maxReplyBytes_);
  }
}

void CorvaneRESTClient::recvStream(ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientRecvStream);
  const OperationScope operation(*this);
  if (endOfStream_) {
    response.setSearchResponse(SearchResponse());
    return;
  }
  if (isStreamSearch(requestKind_)) response.getSearchResponse().init();
  if (streamLostItsConnection()) {
    breakStreamOff();
    return;
  }
  const bool parseResults = requestKind_ == ClientRequest::PARSE_RESULT;
  RESTResponse parser(parseResults ? ClientRequest::PARSE_RESULT : ClientRequest::STREAM_SEARCH,
                      true);
  parser.setMaxReplyBytes(maxReplyBytes_);
  tail_->clear();
  markReplyOutstanding(true);
  try {
    if (takePortion(parser, response)) {
      parsePortion(parser, response);
    } else {
      breakStreamOff();
    }
  } catch (const RESTException& e) {
    if (!isTimeOut(e)) breakStreamOff();
    throw;
  } catch (...) {
    breakStreamOff();
    throw;
  }
}

/// Takes a chunk-size line and its data. False: the connection broke off before all of it came.
bool CorvaneRESTClient::takePortion(RESTResponse& parser, ClientResponse& response) {
  std::string line;
  try {
    while (!parser.wantsWholeBody()) {
      if (!takeFraming(parser, response, &line)) return false;
    }
    int need = 0;
    parser.parseDone(need);
    return appendReplyBytes(static_cast<unsigned long>(need));
  } catch (const tq::oss::SocketException&) {
    return false;
  } catch (const RESTException& e) {
    if (isTimeOut(e)) socket_.pushBack(line.data(), line.size());
    throw;
  }
}

void CorvaneRESTClient::parsePortion(RESTResponse& parser, ClientResponse& response) {
  const unsigned long total = carryCount_;
  const int leftover =
      parser.parseMesg(carry_.data(), static_cast<int>(total), response, endOfStream_);
  if (!endOfStream_) {
    keepLeftover(total, static_cast<unsigned long>(leftover));
    return;
  }
  // What an estimate has carried is its end mark.
  truncated_ = isSearch(requestKind_) && parser.lastChunkSeen() && total != 0;
  carryCount_ = 0;
  settleChunked(parser);
}

/// Nothing more can come of this stream. What its connection still carries stays outstanding.
void CorvaneRESTClient::breakStreamOff() {
  endOfStream_ = true;
  truncated_ = true;
  carryCount_ = 0;
}

void CorvaneRESTClient::recv(ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientRecv);
  if (!connected_) raise(StaticDefs::ERR_CONNECT_SERVER, kFile, __LINE__, host_, port_);
  // An exchange that ended by an exception does not stand in the way: what it left can be read.
  recvStream(response);
}

void CorvaneRESTClient::recvMultResponse(ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientRecvMultResponse);
  const OperationScope operation(*this);
  while (!endOfStream_) recvStream(response);
}

}  // namespace tq::comm
