#include "comm/kruDrestoPerfClient.h"

#include <cxxabi.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "comm/kruBatch.h"
#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfResponse.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruKinds.h"
#include "comm/kruLine.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTMessage.h"
#include "comm/kruRaise.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruSocketException.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

namespace {

constexpr Raiser fail("kruDrestoPerfClient");

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

// The part of a large body that is not copied goes out in pieces of this size.
constexpr unsigned long kBodyPiece = 10000;

constexpr std::size_t kMaxHeader = 65535;

// Status, length and the longest payload. Whole envelopes are consumed, so a rest of this size has
// none at its start.
constexpr std::size_t kMaxEnvelope = 4 + 65535;

constexpr int kReplyHeader = 2;

constexpr int kStatusOnly = 5;
constexpr int kInvalidAuth = 401;

/// The server is named by the refusal of a message that cannot be sent.
Batch::Message messageOf(RESTMessage& message, const icu::UnicodeString& host, unsigned int port) {
  Batch::Message parts{};
  parts.answered = ClientResponse::isRespReqd(message.getRequest());
  parts.queued = message.getRequest() == ClientRequest::ASYNCH_ADD_DOCUMENT;
  parts.header = message.getSerializedHeader();
  if (parts.header.size() > kMaxHeader) {
    fail(StaticDefs::ERR_CLIENT_INTERNAL,
         Details(u"the header text of a request is longer than 65535 bytes").server(host, port));
  }
  if (message.getRequest() == ClientRequest::LAST_DOC_SENT) {
    unsigned int length = 0;
    const char* record = message.getTerminateRecord(length);
    if (length == 0) {
      fail(StaticDefs::ERR_CLIENT_INTERNAL,
           Details().argument(u"NULL terminator record in sendMesg"), kLineNoTerminator);
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

}  // namespace

/// Two parsers, one for the reply of the current exchange and room for the next one's, which is
/// made before that exchange begins to send.
class DrestoPerfClient::Parsers {
 public:
  /// In the place of the parser that is not `current`.
  DrestoPerfResponse& make(const DrestoPerfResponse* current, ClientRequest::REQUEST kind) {
    std::optional<Parser>& place = places_[places_[0] && &*places_[0] == current ? 1 : 0];
    return place.emplace(kind, ClientResponse::resultsExpected(kind));
  }

 private:
  // Nothing derives from it, so that it may be destroyed in place: the destructor of the parsers is
  // not virtual.
  class Parser final : public DrestoPerfResponse {
   public:
    using DrestoPerfResponse::DrestoPerfResponse;
  };

  std::optional<Parser> places_[2];
};

namespace {

/// Has the beginnings that were written sent when the rest is not going to be written.
class PushingOut {
 public:
  /// Null: nothing was written as a beginning.
  explicit PushingOut(tq::oss::Socket* socket) noexcept : socket_(socket) {}
  ~PushingOut() {
    if (socket_ != nullptr) socket_->pushOut();
  }
  PushingOut(const PushingOut&) = delete;
  PushingOut& operator=(const PushingOut&) = delete;
  void done() noexcept { socket_ = nullptr; }

 private:
  tq::oss::Socket* socket_;
};

void writeChunks(tq::oss::Socket& socket, std::string_view bytes, std::size_t size) {
  PushingOut pushing(&socket);
  std::size_t offset = 0;
  for (; bytes.size() - offset > size; offset += size) {
    socket.writeBeginning(bytes.data(), offset, size);
  }
  socket.write(bytes.data(), offset, bytes.size() - offset);
  pushing.done();
}

}  // namespace

DrestoPerfClient::DrestoPerfClient(const icu::UnicodeString& host, unsigned int port)
    : DrestoPerfClient(host, port, tq::oss::Socket::NullAddrInfoExternal) {}

DrestoPerfClient::DrestoPerfClient(const icu::UnicodeString& host, unsigned int port,
                                   const tq::oss::Socket::_AddrInfoExternal& addresses)
    : CorvaneRESTClient(host, port, addresses, true),
      parsers_(std::make_unique<Parsers>()),
      batch_(std::make_unique<Batch>()) {}

DrestoPerfClient::~DrestoPerfClient() { close(); }

void DrestoPerfClient::setReassembly(bool on) { reassembly_ = on; }

// The exchange.

void DrestoPerfClient::sendAndRecvMesgOnce(ClientRequest& request, ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::DrestoPerfClientSendAndRecvMesgOnce);
  const OperationScope operation(*this);
  try {
    exchange(request, response);
  } catch (const RESTException& e) {
    rethrow(e.getMessageList());
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    fail(StaticDefs::ERR_CLIENT_INTERNAL, Details().argument(kUnknownError), kLineExchangeUnknown);
  }
}

void DrestoPerfClient::exchange(ClientRequest& request, ClientResponse& response) {
  outcome_ = RequestOutcome::NotSent;
  refused_ = false;
  refuseUnsendable(request);
  beginExchange(response);
  requestKind_ = request.getRequest();
  batch_->dropInherited();
  sendHeldQuestions();
  openForSending(request.getRequest());
  if (!isConnected()) fail(StaticDefs::ERR_CONNECT_SERVER, atServer(), kLineNotConnected);
  refuseWithoutQueue(request.getRequest());
  ExchangeScope exchange(*this);
  RESTMessage message(host_, request);
  // The parser is made first. Were it to throw after sendMesg had put the message into the batch,
  // a later write would send the message and its reply would be read as that of another.
  DrestoPerfResponse& parser = parsers_->make(parser_, requestKind_);
  parser.setMaxReplyBytes(maxReplyBytes_);
  sendMesg(message);
  awaitReply();
  parser_ = &parser;
  recvMesg(response);
  receiveFirstResults(response);
  exchange.done();
  if (ClientResponse::isRespReqd(requestKind_)) outcome_ = RequestOutcome::Answered;
}

void DrestoPerfClient::receiveFirstResults(ClientResponse& response) {
  const bool estimate = requestKind_ == ClientRequest::SELECTIVITY;
  // An estimate adds no results that would end the loop, so that the peer could stretch it at will.
  std::optional<SharedTimeOutScope> timeOut;
  if (estimate) timeOut.emplace(*this);
  while (!endOfStream_ && response.getResultCount() == 0) {
    // An estimate's reply is over with its end mark, which may come later than its record.
    if (estimate && parser_->hasTakenRecords()) parser_->initState(true);
    recvStream(response);
  }
}

// Sending.

/// A message that is only held back needs no look at the connection; whoever writes it looks.
void DrestoPerfClient::openForSending(ClientRequest::REQUEST kind) {
  mayBeHeld_ = buffered_ && !ClientResponse::isRespReqd(kind) && persistent_ && isConnected() &&
               line_->state() != Line::State::Broken;
  if (!mayBeHeld_) openClean();
}

void DrestoPerfClient::sendMesg(RESTMessage& message) {
  const tq::oss::TraceScope trace(trace::DrestoPerfClientSendMesg);
  const OperationScope operation(*this);
  refuseOnBrokenLine();
  batch_->dropInherited();
  // Left over from an exchange that was refused, it says nothing of a message by hand.
  const bool lookFirst = std::exchange(mayBeHeld_, false) && exchange_ == Exchange::Running;
  try {
    Batch::Message parts = messageOf(message, host_, port_);
    parts.mayWait = buffered_;
    const std::string_view rest = batch_->append(parts);
    if (buffered_ && !batch_->isDue(parts)) return;
    if (lookFirst) openForWriting();
    writeBatch(rest);
  } catch (const RESTException&) {
    throw;
  } catch (const tq::oss::BaseException& e) {
    fail(StaticDefs::ERR_CLIENT_INTERNAL, Details().argument(host_).cause(e.getMessageList()),
         kLineSendInternal);
  }
}

/// The look at the connection that a message did not get while it might have been held back.
void DrestoPerfClient::openForWriting() {
  try {
    openClean();
    refuseWithoutQueue(requestKind_);
  } catch (...) {
    batch_->takeBack();
    throw;
  }
}

/// A message that was sent by hand and held back is answered before the one that an exchange is
/// about. It is written by itself, so that its reply is left with its connection.
void DrestoPerfClient::sendHeldQuestions() {
  if (batch_->questions() == 0) return;
  openClean();
  // The exchange has added nothing yet: whatever fails, all of it still waits.
  batch_->seal();
  writeBatch({});
  outcome_ = RequestOutcome::NotSent;
}

void DrestoPerfClient::writeBatch(std::string_view rest) {
  const unsigned int questions = batch_->questions();
  const bool queued = batch_->holdsQueued();
  Line::Sending sending(*line_);
  try {
    writeBatchAnd(rest);
  } catch (const tq::oss::SocketException& e) {
    batch_->takeBack();
    failIfWaitEnded(fail, e);
    fail(StaticDefs::ERR_SERVER_COMM_SEND, atServer(), kLineSendFailed);
  } catch (...) {
    // Otherwise it would go out before the next one, which would then get its reply.
    batch_->takeBack();
    throw;
  }
  sending.done(questions);
  noteOutcome(RequestOutcome::MayBeApplied);
  if (queued) noteQueueWritten();
}

/// Whole messages that were held back may stand in the batch, so that nothing of it may stay with
/// the kernel when the rest of the last one cannot be written. They stay in the batch until then,
/// too: a connection that breaks may take them along, and it is not known what the server has read.
void DrestoPerfClient::writeBatchAnd(std::string_view rest) {
  PushingOut pushing(rest.empty() ? nullptr : &socket_);
  const std::vector<char>& bytes = batch_->bytes();
  if (rest.empty()) {
    socket_.write(bytes.data(), 0, bytes.size());
  } else {
    socket_.writeBeginning(bytes.data(), 0, bytes.size());
  }
  sendBodyChunks(rest.data(), kBodyPiece, rest.size());
  batch_->written();
  pushing.done();
}

void DrestoPerfClient::sendBodyChunks(const char* data, unsigned long chunkSize,
                                      unsigned long total) {
  const tq::oss::TraceScope trace(trace::DrestoPerfClientSendBodyChunks);
  if (total == 0) return;
  const OperationScope operation(*this);
  // By hand these bytes belong to no message that the line knows of, so that it stays broken. A
  // message that is being written has covered them itself.
  const Line::Sending unaccounted(*line_);
  try {
    writeChunks(socket_, {data, total}, std::max(chunkSize, 1UL));
  } catch (const tq::oss::SocketException& e) {
    failIfWaitEnded(fail, e);
    throw;
  }
}

// Receiving.

/// The socket's failure passes, unless a reply that breaks off is to be told from others.
bool DrestoPerfClient::awaitBytes(std::size_t count) {
  try {
    return awaitReplyBytes(count);
  } catch (const tq::oss::SocketException&) {
    if (!reassembly_) throw;
    return false;
  }
}

void DrestoPerfClient::recvMesg(ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::DrestoPerfClientRecvMesg);
  const OperationScope operation(*this);
  if (!ClientResponse::isRespReqd(requestKind_)) return skipReply(response);
  if (parser_ == nullptr) fail(StaticDefs::ERR_INVALID_STATE, atServer(u"there was no exchange"));
  int need = 0;
  if (parser_->parseDone(need)) {
    fail(StaticDefs::ERR_CLIENT_INTERNAL, {}, kLineAlreadyFinished);
  }
  if (need != kReplyHeader) {
    fail(StaticDefs::ERR_INVALID_STATE,
         atServer(u"the reply header of the last exchange was read already"));
  }
  batch_->dropInherited();
  refuseReplyByHand(batch_->questions());
  if (exchange_ != Exchange::Running) {
    // An exchange that found no server has left the parser of the one before, of whatever kind.
    parser_ = &parsers_->make(parser_, requestKind_);
    parser_->setMaxReplyBytes(maxReplyBytes_);
  }
  if (!batch_->empty()) writeBatch({});
  beginReply(response);
  portionSize_ = 0;
  if (isStreamSearch(requestKind_)) response.setSearchResponse(SearchResponse());
  if (requestKind_ == ClientRequest::PARSE_RESULT) response.setParseResponse(ParseResponse());
  if (!awaitBytes(static_cast<std::size_t>(need))) {
    fail(StaticDefs::ERR_SERVER_COMM_RECV, atServer(), kLineNoReply);
  }
  const int leftover = parser_->parseMesg(socket_.peek().data(), need, response, endOfStream_);
  socket_.consume(static_cast<std::size_t>(need - leftover));
}

/// What an exchange that failed has left cannot be read on: the parser does not know where in the
/// reply it stands.
void DrestoPerfClient::refuseWithoutExchange() const {
  if (exchange_ == Exchange::Done || exchange_ == Exchange::Running) return;
  fail(StaticDefs::ERR_INVALID_STATE, {}, kLineRecvInProgress);
}

void DrestoPerfClient::recvStream(ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::DrestoPerfClientRecvStream);
  const OperationScope operation(*this);
  refuseWithoutExchange();
  const auto apart = claim(response);
  const bool parseResults = requestKind_ == ClientRequest::PARSE_RESULT;
  if (endOfStream_) {
    if (parseResults) {
      response.setParseResponse(ParseResponse());
    } else {
      response.setSearchResponse(SearchResponse());
    }
    return;
  }
  if (!streamLostItsConnection()) line_->readOn(exchangeNumber_);
  int need = 0;
  if (parser_->parseDone(need) && !ClientResponse::isStreaming(requestKind_)) endOfStream_ = true;
  if (requestKind_ == ClientRequest::STREAM_SEARCH) response.getSearchResponse().init();
  if (parseResults) response.getParseResponse().init();
  if (need > 0 && parser_->hasBody() && !awaitPortion(4 * static_cast<std::size_t>(need))) {
    breakStreamOff();
    if (reassembly_) fail(StaticDefs::ERR_SERVER_COMM_RECV, atServer(), kLineNoReply);
  }
  parseHeldPortion(response);
}

/// Takes up to `size` further bytes into the portion, as many as there are. False: the peer closed
/// before enough was there.
bool DrestoPerfClient::awaitPortion(std::size_t size) {
  if (streamLostItsConnection()) {
    portionSize_ = 0;
    return false;
  }
  do {
    const std::size_t wanted = portionSize_ + size;
    if (socket_.buffered() == portionSize_) {
      if (!awaitBytes(portionSize_ + 1)) return false;
    } else if (socket_.buffered() < wanted && !holdsWholeUnit(wanted)) {
      // More may have arrived since the last receive. It is asked for only where the portion could
      // not be parsed without it.
      socket_.fillAtOnce();
    }
    portionSize_ = std::min<std::size_t>(socket_.buffered(), wanted);
  } while (mustReadOn());
  return true;
}

/// An error record is always read whole; a first portion of results where that was asked for.
bool DrestoPerfClient::mustReadOn() const {
  const bool firstPortion = exchange_ == Exchange::Running;
  return (beginsWithError() || (reassembly_ && firstPortion)) && !holdsWholeUnit(portionSize_);
}

/// Whether the first `size` bytes of the socket's buffer hold something that can be parsed.
bool DrestoPerfClient::holdsWholeUnit(std::size_t size) const {
  const std::string_view arrived = socket_.peek().substr(0, size);
  return parser_->holdsWholeUnit(arrived.data(), static_cast<int>(arrived.size()));
}

void DrestoPerfClient::parseHeldPortion(ClientResponse& response) {
  const char* bytes = socket_.peek().data();
  std::size_t leftover = 0;
  try {
    leftover = static_cast<std::size_t>(
        parser_->parseMesg(bytes, static_cast<int>(portionSize_), response, endOfStream_));
  } catch (...) {
    settleFailure();
    throw;
  }
  if (beginsWithError()) leftover = portionSize_ - errorSize();
  if (endOfStream_ && !truncated_) {
    endReplyWith(leftover);
    return;
  }
  if (leftover >= kMaxEnvelope) {
    settleFailure();
    fail(StaticDefs::ERR_CLIENT_RESP_PARSING,
         atServer(u"the reply goes on without a whole envelope"));
  }
  socket_.consume(portionSize_ - leftover);
  portionSize_ = leftover;
}

bool DrestoPerfClient::beginsWithError() const {
  return parser_->beginsWithError(socket_.peek().data(), static_cast<int>(portionSize_));
}

std::size_t DrestoPerfClient::errorSize() const {
  return static_cast<std::size_t>(
      parser_->errorLength(socket_.peek().data(), static_cast<int>(portionSize_)));
}

/// The reply is over. Bytes after it were not asked for, so that nothing on this connection is sure
/// any more.
void DrestoPerfClient::endReplyWith(std::size_t leftover) {
  socket_.consume(portionSize_ - leftover);
  portionSize_ = 0;
  endReply();
  if (leftover != 0) line_->doubt();
}

/// An answer of the server that was read to its end leaves the connection in order. After anything
/// else it is not known where the next record would begin: nothing more can come of the stream.
void DrestoPerfClient::settleFailure() {
  const int code = parser_->getStatusCode();
  const bool wholeError = beginsWithError() && holdsWholeUnit(portionSize_);
  if (wholeError || code == kStatusOnly || code == kInvalidAuth) {
    // A status that was not asked for says nothing of the request.
    if (code != kStatusOnly) noteOutcome(RequestOutcome::Rejected);
    endReplyWith(portionSize_ - (wholeError ? errorSize() : 0));
    return;
  }
  portionSize_ = 0;
  if (exchange_ != Exchange::Running) breakStreamOff();
}

void DrestoPerfClient::recv(ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::DrestoPerfClientRecv);
  const OperationScope operation(*this);
  if (!isConnected()) {
    fail(StaticDefs::ERR_CONNECT_SERVER, atServer(), kLineRecvNotConnected);
  }
  refuseWithoutExchange();
  const auto apart = claim(response);
  try {
    // Past the end there is nothing to parse, and the parser has to know that it is finished.
    if (!endOfStream_) parser_->initState(true);
    recvStream(response);
  } catch (const RESTException& e) {
    rethrow(e.getMessageList());
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    fail(StaticDefs::ERR_CLIENT_INTERNAL, Details().argument(kUnknownError), kLineRecvUnknown);
  }
}

}  // namespace tq::comm
