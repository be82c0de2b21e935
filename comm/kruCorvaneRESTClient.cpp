#include "comm/kruCorvaneRESTClient.h"

#include <cxxabi.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <limits>

#include "comm/kruCarry.h"
#include "comm/kruClientResponse.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruKinds.h"
#include "comm/kruLine.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTMessage.h"
#include "comm/kruRESTResponse.h"
#include "comm/kruRaise.h"
#include "comm/kruRetryPolicy.h"
#include "comm/kruStaticDefs.h"
#include "comm/kruUnsendable.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruSocketException.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

namespace {

constexpr Raiser fail("kruCorvaneRESTClient");

// The parser copies what it is offered of a header block, so it is not offered a whole body too.
constexpr std::size_t kFramingPiece = 256;

// The return code of a response before its reply.
constexpr int kUnfilled = -1;

constexpr int kOk = 200;
constexpr int kFirstRedirection = 300;
constexpr int kBadGateway = 502;
constexpr int kGatewayTimeOut = 504;

bool hasId(const RESTException& error, const icu::UnicodeString& id) {
  const tq::oss::MessageList& messages = error.getMessageList();
  return !messages.empty() && messages.front().getMessageId() == id;
}

/// Tells the responses of different clients apart, also when one lives where another has lived.
std::uint64_t nextClientNumber() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

class Exchanging {
 public:
  explicit Exchanging(bool& running) noexcept : running_(running) { running_ = true; }
  ~Exchanging() { running_ = false; }
  Exchanging(const Exchanging&) = delete;
  Exchanging& operator=(const Exchanging&) = delete;

 private:
  bool& running_;
};

/// True for a reply that leaves open what became of its request. An interim one says only that the
/// request has come. Without a length a 2xx other than 200 is no reply of this protocol, but
/// refuses nothing, and 502 or 504 comes from a gateway that has lost sight of the request.
bool leavesOpen(const RESTResponse& parser) {
  const int status = parser.getStatusCode();
  if (parser.isInterim()) return true;
  return parser.isUnmeasured() &&
         (status < kFirstRedirection || status == kBadGateway || status == kGatewayTimeOut);
}

/// What a whole reply says of its request.
RequestOutcome verdictOf(const RESTResponse& parser) {
  if (parser.getStatusCode() == kOk) return RequestOutcome::Answered;
  return leavesOpen(parser) ? RequestOutcome::MayBeApplied : RequestOutcome::Rejected;
}

bool isDefault(const SelectivityInfo& estimate) {
  return estimate.getFirst() == 1 && estimate.getSecond() == 1 && estimate.getThird() == 100;
}

/// Empties what a reply to this kind fills and no list holds. What an earlier reply put there would
/// stand as part of a success when this one does not bring it. Most responses hold nothing of it.
void forgetAnswer(ClientResponse& response, ClientRequest::REQUEST kind) {
  if (kind == ClientRequest::SELECTIVITY) {
    if (!isDefault(response.getSelectivityInfo())) {
      response.setSelectivityInfo(SelectivityInfo(false));
    }
  } else if (kind == ClientRequest::GET_STATUS) {
    // A text comes with a status other than 0.
    if (response.getStatusCode() != 0) {
      response.setGetStatusCode(0);
      response.setStatusMessage({});
    }
  } else if (kind == ClientRequest::GET_SERVER_VERSION) {
    if (!response.getContent().isEmpty()) response.setContent({});
  }
}

}  // namespace

CorvaneRESTClient::CorvaneRESTClient(const icu::UnicodeString& host, unsigned int port,
                                     bool persistent)
    : CorvaneRESTClient(host, port, tq::oss::Socket::NullAddrInfoExternal, persistent) {}

CorvaneRESTClient::CorvaneRESTClient(const icu::UnicodeString& host, unsigned int port,
                                     const tq::oss::Socket::_AddrInfoExternal& addresses,
                                     bool persistent)
    : CorvaneClient(host, port, addresses, persistent, false),
      retryPolicy_(std::make_unique<RetryPolicy>()),
      carry_(std::make_unique<Carry>()),
      clientNumber_(nextClientNumber()) {
  init();
}

CorvaneRESTClient::CorvaneRESTClient()
    : retryPolicy_(std::make_unique<RetryPolicy>()),
      carry_(std::make_unique<Carry>()),
      clientNumber_(nextClientNumber()) {}

CorvaneRESTClient::~CorvaneRESTClient() { close(); }

void CorvaneRESTClient::init() {
  retryPolicy_->retries = 1;
  char name[32];
  std::snprintf(name, sizeof name, "CorvaneRESTClient%0x",
                static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(this)));
  clientName_ = icu::UnicodeString::fromUTF8(name);
}

void CorvaneRESTClient::setNumRetries(unsigned int count) { retryPolicy_->retries = count; }

bool CorvaneRESTClient::isCommnError(icu::UnicodeString& messageId) {
  return messageId == StaticDefs::ERR_SERVER_COMM_RECV ||
         messageId == StaticDefs::ERR_CONNECT_SERVER ||
         messageId == StaticDefs::ERR_SERVER_COMM_SEND ||
         messageId == StaticDefs::ERR_SERVER_COMM_TIMEOUT;
}

bool CorvaneRESTClient::isEndOfStream() { return endOfStream_; }

bool CorvaneRESTClient::isEndOfStream() const { return endOfStream_; }

bool CorvaneRESTClient::isTruncated() const { return truncated_; }

void CorvaneRESTClient::setRetryUnsafe(bool on) { retryPolicy_->retryUnsafe = on; }

void CorvaneRESTClient::setRetryPause(unsigned int first, unsigned int most) {
  retryPolicy_->firstPause = first;
  retryPolicy_->longestPause = std::max(first, most);
}

void CorvaneRESTClient::setQueueOnOneConnection(bool on) {
  queueOnOneConnection_ = on;
  queueConnection_ = 0;
}

RequestOutcome CorvaneRESTClient::getRequestOutcome() const { return outcome_; }

bool CorvaneRESTClient::isRepeatable(ClientRequest::REQUEST kind) {
  return kindOf(kind).has(kRepeatable);
}

// The exchange.

void CorvaneRESTClient::sendAndRecvMesg(ClientRequest& request, ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientSendAndRecvMesg);
  const OperationScope operation(*this);
  exchangeWithRetries(request, response, retryPolicy_->retries);
}

void CorvaneRESTClient::sendAndRecvMesg(ClientRequest& request, ClientResponse& response,
                                        const OperationLimits& limits) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientSendAndRecvMesg);
  const OperationScope operation(*this, limits.deadlineMillis);
  exchangeWithRetries(request, response, limits.retries);
}

void CorvaneRESTClient::exchangeWithRetries(ClientRequest& request, ClientResponse& response,
                                            unsigned int retries) {
  outcome_ = RequestOutcome::NotSent;
  refused_ = false;
  // Before anything is changed: a stream that is still open goes on as the kind that it has.
  if (isSendable(request)) requestKind_ = request.getRequest();
  const Exchanging exchanging(exchanging_);
  // What an earlier attempt may have done stays possible, whatever a later one finds.
  bool mayBeApplied = false;
  for (unsigned int attempt = 0;; ++attempt) {
    try {
      sendAndRecvMesgOnce(request, response);
      return;
    } catch (const RESTException& e) {
      const bool repeat = attempt < retries && mayRepeat(e);
      mayBeApplied = mayBeApplied || outcome_ == RequestOutcome::MayBeApplied;
      if (mayBeApplied) outcome_ = RequestOutcome::MayBeApplied;
      if (!repeat) rethrow(e.getMessageList());
      close();
      pauseBefore(attempt + 1);
      if (deadline().passed()) {
        // What the last attempt met follows as the cause.
        fail(StaticDefs::ERR_SERVER_COMM_TIMEOUT, atServer().cause(e.getMessageList()));
      }
    } catch (const tq::oss::BaseException&) {
      if (mayBeApplied) outcome_ = RequestOutcome::MayBeApplied;
      fail(StaticDefs::ERR_CLIENT_INTERNAL);
    } catch (abi::__forced_unwind&) {
      close();
      throw;
    } catch (...) {
      if (mayBeApplied) outcome_ = RequestOutcome::MayBeApplied;
      throw;
    }
  }
}

bool CorvaneRESTClient::mayRepeat(const RESTException& failure) const {
  if (failure.getMessageList().empty()) return false;
  // A repeated attempt takes a fresh connection, which a queue under way must not do.
  if (queueOnOneConnection_ && queueConnection_ != 0 && kindOf(requestKind_).has(kUsesQueue)) {
    return false;
  }
  icu::UnicodeString id = failure.getMessageList().front().getMessageId();
  return retryPolicy_->allows(
      {isCommnError(id), outcome_ == RequestOutcome::MayBeApplied, isRepeatable(requestKind_)});
}

void CorvaneRESTClient::pauseBefore(unsigned int attempt) {
  try {
    retryPolicy_->pauseBefore(attempt, socket_, deadline());
  } catch (const tq::oss::SocketException& e) {
    failIfWaitEnded(fail, e);
    throw;
  }
}

void CorvaneRESTClient::sendAndRecvMesgOnce(ClientRequest& request, ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientSendAndRecvMesgOnce);
  const OperationScope operation(*this);
  outcome_ = RequestOutcome::NotSent;
  refused_ = false;
  refuseUnsendable(request);
  beginExchange(response);
  requestKind_ = request.getRequest();
  openClean();
  if (!isConnected()) fail(StaticDefs::ERR_CONNECT_SERVER, atServer());
  refuseWithoutQueue(request.getRequest());
  ExchangeScope exchange(*this);
  RESTMessage message(host_, request);
  sendMesg(message);
  awaitReply();
  recvMesg(response);
  if (ClientResponse::isMultiResp(requestKind_)) recvRest(response);
  exchange.done();
}

/// Until the last portion is there, a failure leaves the outcome at "may be applied".
void CorvaneRESTClient::recvRest(ClientResponse& response) {
  const RequestOutcome verdict = outcome_;
  outcome_ = RequestOutcome::MayBeApplied;
  recvMultResponse(response);
  if (!truncated_) outcome_ = verdict;
}

void CorvaneRESTClient::refuseUnsendable(ClientRequest& request) const {
  const char16_t* reason = whyUnsendable(request);
  if (reason != nullptr) fail(StaticDefs::ERR_CLIENT_INTERNAL, atServer(reason));
}

/// Throws for a request that cannot be sent. False: a derived request has thrown. The attempt,
/// which asks it again before anything else, says so in the way of its protocol.
bool CorvaneRESTClient::isSendable(ClientRequest& request) const {
  try {
    refuseUnsendable(request);
    return true;
  } catch (const RESTException&) {
    throw;
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    return false;
  }
}

CorvaneRESTClient::ExchangeScope::ExchangeScope(CorvaneRESTClient& client) : client_(client) {
  client_.exchange_ = Exchange::Running;
  client_.replyConnection_ = client_.line_->connectionNumber();
}

CorvaneRESTClient::ExchangeScope::~ExchangeScope() {
  if (client_.exchange_ == Exchange::Running) {
    client_.exchange_ = Exchange::Failed;
    client_.line_->abandonReply();
  }
  // The server takes the requests of a connection in their order: an answer to this one means that
  // it has what was queued before.
  const bool verdict =
      client_.outcome_ == RequestOutcome::Answered || client_.outcome_ == RequestOutcome::Rejected;
  if (verdict && client_.queueConnection_ == client_.replyConnection_) client_.queueConnection_ = 0;
}

void CorvaneRESTClient::ExchangeScope::done() { client_.exchange_ = Exchange::Done; }

/// The exchange before has no say any more: its stream can be read no further. Each attempt is an
/// exchange of its own, and the response is the last one's even when it gets nothing.
void CorvaneRESTClient::beginExchange(ClientResponse& response) {
  ++exchangeNumber_;
  response.fillFrom(clientNumber_, exchangeNumber_);
  // What an earlier reply said of its request says nothing of this one.
  response.setReturnCode(kUnfilled);
  if (replyConnection_ != 0 && !endOfStream_) {
    endOfStream_ = true;
    truncated_ = true;
  }
  replyConnection_ = 0;
}

void CorvaneRESTClient::openClean() {
  if (isConnected() && persistent_ && !lineIsReusable()) close();
  open();
}

bool CorvaneRESTClient::lineIsReusable() {
  try {
    if (!line_->isReusable(socket_)) return false;
    // Nobody reads what comes after such a message. Bytes that the system still has when the
    // connection is closed would reset it, and what the server has not taken by then would be lost.
    return !line_->hasTail() || ClientResponse::isRespReqd(requestKind_);
  } catch (const tq::oss::BaseException&) {
    return false;
  }
}

void CorvaneRESTClient::refuseWithoutQueue(ClientRequest::REQUEST kind) const {
  if (!queueOnOneConnection_ || queueConnection_ == 0 || !kindOf(kind).has(kUsesQueue)) return;
  if (queueConnection_ == line_->connectionNumber()) return;
  fail(StaticDefs::ERR_SERVER_COMM_SEND,
       atServer(u"the connection of the documents queued before is gone; queue them again"));
}

void CorvaneRESTClient::noteQueueWritten() {
  if (queueOnOneConnection_ && queueConnection_ == 0) {
    queueConnection_ = line_->connectionNumber();
  }
}

// Sending.

void CorvaneRESTClient::send(ClientRequest& request) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientSend);
  const OperationScope operation(*this);
  refuseUnsendable(request);
  RESTMessage message(host_, request);
  sendMesg(message);
}

void CorvaneRESTClient::refuseOnBrokenLine() const {
  if (exchange_ == Exchange::Running || line_->state() != Line::State::Broken) return;
  fail(StaticDefs::ERR_INVALID_STATE,
       atServer(u"an earlier request was written in part; close the connection first"));
}

void CorvaneRESTClient::noteOutcome(RequestOutcome outcome) {
  if (!exchanging_ && exchange_ != Exchange::Running) return;
  outcome_ = outcome;
  refused_ = outcome == RequestOutcome::Rejected;
}

void CorvaneRESTClient::sendMesg(RESTMessage& message) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientSendMesg);
  const OperationScope operation(*this);
  refuseOnBrokenLine();
  const ClientRequest::REQUEST kind = message.getRequest();
  tq::oss::Socket::Piece pieces[3];
  unsigned int count = 0;
  const char* header = message.getSerializedHeader();
  pieces[count++] = {header, std::strlen(header)};
  if (kind == ClientRequest::LAST_DOC_SENT) {
    unsigned int length = 0;
    const char* record = message.getTerminateRecord(length);
    pieces[count++] = {record, length};
  } else if (message.getMsgPrefixLen() != 0) {
    pieces[count++] = {message.getMsgPrefix(), message.getMsgPrefixLen()};
    if (message.getMsgBodyLength() != 0) {
      pieces[count++] = {message.getMsgBody(), message.getMsgBodyLength()};
    }
  }
  Line::Sending sending(*line_);
  try {
    socket_.write(pieces, count);
  } catch (const tq::oss::SocketException& e) {
    failIfWaitEnded(fail, e);
    throw;
  }
  noteOutcome(RequestOutcome::MayBeApplied);
  sending.done(ClientResponse::isRespReqd(kind) ? 1 : 0);
  if (kind == ClientRequest::ASYNCH_ADD_DOCUMENT) noteQueueWritten();
}

// Whose reply, and whose response.

void CorvaneRESTClient::awaitReply() {
  endOfStream_ = false;
  truncated_ = false;
  firstReplyRead_ = false;
  replyConnection_ = line_->connectionNumber();
}

void CorvaneRESTClient::refuseReplyByHand(unsigned int questionsHeld) const {
  if (exchange_ == Exchange::Running) return;
  if (!isConnected()) fail(StaticDefs::ERR_CONNECT_SERVER, atServer());
  const Line::State state = line_->state();
  const bool sound = state == Line::State::Clean || state == Line::State::Tail;
  if (questionsHeld == 0 ? state == Line::State::Asked : sound && questionsHeld == 1) return;
  fail(StaticDefs::ERR_INVALID_STATE,
       atServer(u"it is not known whose reply would arrive next; only the one to a single request "
                u"that was sent by hand on a sound connection can be received by hand"));
}

void CorvaneRESTClient::beginReply(ClientResponse& response) {
  if (exchange_ == Exchange::Running) {
    line_->beginReply(exchangeNumber_);
  } else {
    refuseReplyByHand(0);
    beginExchange(response);
    awaitReply();
    line_->doubt();
  }
  carry_->clear();
  response.resetResultCount();
  forgetAnswer(response, requestKind_);
  // The lists of the other kinds that bring results are emptied whatever was taken.
  if (requestKind_ == ClientRequest::SCALAR_SEARCH) response.dropTakenHits();
}

void CorvaneRESTClient::skipReply(ClientResponse& response) {
  if (exchange_ != Exchange::Running && line_->state() == Line::State::Asked) {
    fail(StaticDefs::ERR_INVALID_STATE,
         atServer(u"the request that was sent by hand has a reply, and requests of the kind of the "
                  u"last exchange have none"));
  }
  if (exchange_ != Exchange::Running) beginExchange(response);
  response.resetResultCount();
  response.setReturnCode(0);
  endOfStream_ = true;
}

void CorvaneRESTClient::refuseForeign(const ClientResponse& response) const {
  if (response.isFree() || response.isFilledFrom(clientNumber_, exchangeNumber_)) return;
  fail(
      StaticDefs::ERR_INVALID_STATE,
      atServer(u"another exchange has filled this response; the stream of the last exchange can be "
               u"read only into its own"));
}

ClientResponse::TakenApart CorvaneRESTClient::claim(ClientResponse& response) {
  refuseForeign(response);
  response.fillFrom(clientNumber_, exchangeNumber_);
  return ClientResponse::TakenApart(response);
}

bool CorvaneRESTClient::streamLostItsConnection() const {
  return replyConnection_ != 0 &&
         (replyConnection_ != line_->connectionNumber() || !isConnected() || line_->isDisturbed());
}

void CorvaneRESTClient::endReply() { line_->endReply(exchangeNumber_); }

void CorvaneRESTClient::breakStreamOff() {
  endOfStream_ = true;
  truncated_ = true;
  carry_->clear();
  // A connection that was made since knows nothing of the stream.
  if (!streamLostItsConnection()) line_->doubt();
}

// Receiving.

void CorvaneRESTClient::recvMesg(ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientRecvMesg);
  const OperationScope operation(*this);
  if (!ClientResponse::isRespReqd(requestKind_)) return skipReply(response);
  beginReply(response);
  RESTResponse parser(requestKind_, false);
  parser.setMaxReplyBytes(maxReplyBytes_);
  if (isStreamSearch(requestKind_)) response.setSearchResponse(SearchResponse());
  if (requestKind_ == ClientRequest::PARSE_RESULT) response.setParseResponse(ParseResponse());
  bool complete = false;
  try {
    complete = takeFirstReply(parser, response);
  } catch (const tq::oss::SocketException&) {
    // A broken connection and a closed one say the same of the reply.
  }
  if (!complete) fail(StaticDefs::ERR_SERVER_COMM_RECV, atServer());
  settleFirstReply(parser);
}

/// False: the peer has closed before the parser was done.
bool CorvaneRESTClient::takeFirstReply(RESTResponse& parser, ClientResponse& response) {
  int need = 0;
  while (!parser.parseDone(need)) {
    if (parser.wantsWholeBody()) {
      const auto body = takeBody(parser, 0);
      if (!body) return false;
      parseFirstBody(parser, response, *body);
    } else {
      std::size_t taken = 0;
      if (!takeFraming(parser, response, taken)) return false;
      socket_.consume(taken);
    }
  }
  return true;
}

/// Feeds the parser header or chunk-size bytes that stand `offset` bytes into the socket's buffer,
/// and moves the offset past those that it took. False: the peer has closed.
bool CorvaneRESTClient::takeFraming(RESTResponse& parser, ClientResponse& response,
                                    std::size_t& offset) {
  if (!awaitReplyBytes(offset + 1)) return false;
  if (offset == 0 && line_->skipArrivedTail(socket_)) {
    if (!line_->tailIsBroken()) return true;
    fail(StaticDefs::ERR_CLIENT_RESP_PARSING,
         atServer(u"the rest of the reply before is not a chunked reply's, or has no end"));
  }
  const std::string_view arrived = socket_.peek().substr(offset);
  const std::size_t offered = std::min(arrived.size(), kFramingPiece);
  const int leftover =
      parser.parseMesg(arrived.data(), static_cast<int>(offered), response, endOfStream_);
  offset += offered - static_cast<std::size_t>(leftover);
  return true;
}

/// The body or chunk that the parser wants, after what was carried. It stays in the socket's buffer
/// until it has been parsed: a portion that does not arrive in time is lost in no part. Nothing:
/// the peer closed before all of it came.
std::optional<std::string_view> CorvaneRESTClient::takeBody(const RESTResponse& parser,
                                                            std::size_t offset) {
  const auto size = static_cast<std::size_t>(parser.getContentLength());
  // The parsers count in ints.
  constexpr std::size_t kMax = std::numeric_limits<int>::max();
  if (size > kMax - std::min(carry_->size(), kMax)) {
    fail(StaticDefs::ERR_CLIENT_RESP_PARSING, atServer(u"a record is longer than any reply"));
  }
  if (!awaitReplyBytes(offset + size)) return std::nullopt;
  return carry_->join(socket_.peek().substr(offset, size));
}

void CorvaneRESTClient::parseFirstBody(RESTResponse& parser, ClientResponse& response,
                                       std::string_view body) {
  const std::size_t arrived = body.size() - carry_->size();
  try {
    const int leftover =
        parser.parseMesg(body.data(), static_cast<int>(body.size()), response, endOfStream_);
    carry_->keepLast(body, static_cast<std::size_t>(leftover));
  } catch (...) {
    // Whatever ends the parsing, no byte is parsed twice.
    carry_->clear();
    socket_.consume(arrived);
    settleError(parser);
    throw;
  }
  socket_.consume(arrived);
}

/// What the connection holds after a body that was no success.
void CorvaneRESTClient::settleError(RESTResponse& parser) {
  int need = 0;
  // A success of which the rest could not be kept for want of memory was parsed to its end as well.
  const bool serverError = parser.parseDone(need) && parser.getStatusCode() != kOk;
  if (serverError) noteOutcome(verdictOf(parser));
  if (parser.isChunked() && !serverError) return;
  if (parser.endsConnection()) line_->noteLastReply();
  // All of the reply was read, so that a receive finds its end and does not wait for more.
  endOfStream_ = true;
  truncated_ = !serverError;
  if (parser.isChunked()) {
    settleChunked(parser);
  } else {
    endReply();
  }
}

/// The parser is done with the first body: is the reply over, and what does the connection hold?
void CorvaneRESTClient::settleFirstReply(const RESTResponse& parser) {
  firstReplyRead_ = true;
  if (parser.endsConnection()) line_->noteLastReply();
  noteOutcome(verdictOf(parser));
  const bool streaming = ClientResponse::isStreaming(requestKind_);
  const bool bodyEnded = !parser.isChunked() || parser.lastChunkSeen();
  if (isSearch(requestKind_) && bodyEnded) {
    truncated_ = carry_->size() != 0 && !parser.endMarkSeen();
  }
  if (!streaming || bodyEnded) endOfStream_ = true;
  if (!parser.isChunked()) {
    endReply();
  } else if (endOfStream_ || requestKind_ == ClientRequest::SELECTIVITY) {
    // The one record of an estimate is all of it, though its stream counts as open.
    settleChunked(parser);
  }
  if (endOfStream_) carry_->clear();
}

void CorvaneRESTClient::settleChunked(const RESTResponse& parser) {
  line_->endChunkedReply(exchangeNumber_, parser.lastChunkSeen(), maxReplyBytes_);
}

void CorvaneRESTClient::recvStream(ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientRecvStream);
  const OperationScope operation(*this);
  const auto apart = claim(response);
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
  line_->readOn(exchangeNumber_);
  try {
    if (!takePortion(parser, response)) breakStreamOff();
  } catch (const RESTException& e) {
    if (!hasId(e, StaticDefs::ERR_SERVER_COMM_TIMEOUT)) breakStreamOff();
    throw;
  } catch (...) {
    breakStreamOff();
    throw;
  }
}

/// Takes a chunk-size line and its data. False: the connection ended before all of it came.
bool CorvaneRESTClient::takePortion(RESTResponse& parser, ClientResponse& response) {
  std::size_t offset = 0;
  std::optional<std::string_view> portion;
  try {
    while (!parser.wantsWholeBody()) {
      if (!takeFraming(parser, response, offset)) return false;
    }
    portion = takeBody(parser, offset);
  } catch (const tq::oss::SocketException&) {
    return false;
  }
  if (!portion) return false;
  const std::size_t arrived = offset + portion->size() - carry_->size();
  parsePortion(parser, response, *portion);
  socket_.consume(arrived);
  collected_ += arrived;
  return true;
}

void CorvaneRESTClient::parsePortion(RESTResponse& parser, ClientResponse& response,
                                     std::string_view portion) {
  const int leftover =
      parser.parseMesg(portion.data(), static_cast<int>(portion.size()), response, endOfStream_);
  if (!endOfStream_) {
    carry_->keepLast(portion, static_cast<std::size_t>(leftover));
    return;
  }
  // What an estimate carries is its end mark: no result is lost with it. After an exchange that
  // failed before it had read the first portion something is missing in any case.
  truncated_ =
      !firstReplyRead_ || (isSearch(requestKind_) && parser.lastChunkSeen() && !portion.empty());
  carry_->clear();
  settleChunked(parser);
}

/// An estimate brings no results that would end the loop before the stream's end, so that the peer
/// could stretch it at will.
CorvaneRESTClient::PullScope::PullScope(CorvaneRESTClient& client) : operation_(client) {
  if (client.requestKind_ == ClientRequest::SELECTIVITY) estimate_.emplace(client);
}

void CorvaneRESTClient::recv(ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientRecv);
  if (!isConnected()) fail(StaticDefs::ERR_CONNECT_SERVER, atServer());
  // An exchange that ended by an exception does not stand in the way: what it left can be read.
  recvStream(response);
}

void CorvaneRESTClient::recvMultResponse(ClientResponse& response) {
  const tq::oss::TraceScope trace(trace::CorvaneRESTClientRecvMultResponse);
  const PullScope pull(*this);
  refuseForeign(response);
  collected_ = 0;
  while (!endOfStream_) {
    recvStream(response);
    if (collected_ <= maxReplyBytes_) continue;
    breakStreamOff();
    fail(StaticDefs::ERR_CLIENT_RESP_PARSING,
         atServer(u"the portions of the reply exceed the limit on its size"));
  }
}

}  // namespace tq::comm
