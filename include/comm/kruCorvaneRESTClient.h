#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "comm/kruClientRequest.h"
#include "comm/kruClientResponse.h"
#include "comm/kruCorvaneClient.h"
#include "comm/kruRESTException.h"

namespace tq::comm {

class Carry;
class RESTMessage;
class RESTResponse;
class RetryPolicy;

/// What is known of a request after its exchange, over all attempts together.
enum class RequestOutcome {
  /// The server has not seen all of it, and so has not acted on it. True as well of a message that
  /// batching still holds back.
  NotSent,
  /// All of it was handed to the system, and no verdict came back; for a kind without a reply the
  /// most that can be known.
  MayBeApplied,
  /// The server answered with an error.
  Rejected,
  /// The server answered.
  Answered,
};

/// What one operation may take, instead of what the client's setters say. The time-out of
/// `setTimeOut` counts beside them: a client that also makes calls without limit, such as an
/// UPDATE_INDEX, is given deadlines and no time-out. A pull of the reply's further portions is an
/// operation of its own: it has the client's deadline, and is never repeated.
struct OperationLimits {
  /// MILLISECONDS for all of it, as `setDeadline`; 0 for none.
  unsigned int deadlineMillis = 0;
  /// As `setNumRetries`.
  unsigned int retries = 0;
};

/// The client of the HTTP-style protocol: sends one request, reads its reply, repeats the exchange
/// when the communication failed, and hands out long replies portion by portion.
/// Calls on one object must not overlap; different objects are independent.
///
/// A failure is a RESTException whose first message has one of these ids and, where an id has
/// several causes, a text that tells them apart. The retry loop repeats on a fresh connection, up
/// to the retry count, after the pause of `setRetryPause`; "replaced" is: by the next exchange.
///
/// | id | when | arguments | repeated | the connection afterwards |
/// |---|---|---|---|---|
/// | ERR_CONNECT_SERVER | none can be made, or there is none | host, port | yes | none |
/// | ERR_SERVER_COMM_SEND | a write failed (binary protocol) | host, port | yes | replaced |
/// | ERR_SERVER_COMM_SEND | a queue lost its connection | host, port | no | a fresh one |
/// | ERR_SERVER_COMM_RECV | it ended before the reply did | host, port | yes | replaced |
/// | ERR_SERVER_COMM_TIMEOUT | time-out or deadline passed | host, port | till then | replaced |
/// | ERR_CLIENT_CANCELLED | the wait hook gave up | host, port | no | closed |
/// | ERR_SERVER_APP, ..._INVALID_AUTH, the server's own | it refused | none | no | kept |
/// | ERR_SERVER_PROTOCOL | another refusal (HTTP) | none | no | kept |
/// | ERR_SERVER_PROTOCOL | not a reply (binary protocol) | none or a text | no | replaced |
/// | none; success() of the response is false | no body (HTTP) | none | no | kept |
/// | ERR_CLIENT_RESP_PARSING | not a reply, or too large | none or host, port | no | see below |
/// | TQ_ERR_PROPERTY_MISSING | a record lacks a field (HTTP) | its name | no | see below |
/// | TQ_ERR_PROPERTY_NUMBER | a field is no number (HTTP) | name, value | no | see below |
/// | ERR_CLIENT_INTERNAL | the request cannot be sent | host, port | no | as it was |
/// | ERR_CLIENT_INTERNAL | a failed write (HTTP), others | none or a text | no | replaced |
/// | ERR_INVALID_STATE | misuse: `send`, `recv`, `recvMesg` | host, port or none | no | as it was |
///
/// "Kept" is: unless the reply says "Connection: close", or nothing says where it ends.
///
/// "See below" is: replaced, unless an HTTP reply had a length and was read to its end. An error of
/// the server that cannot be decoded, and a status over the binary protocol where none was asked
/// for, keep their connection when the reply was read to its end. Over the binary protocol a record
/// without a field that it needs is ERR_CLIENT_INTERNAL.
///
/// Three things are not a RESTException: over HTTP std::bad_alloc and tq::oss::NLSException
/// "TQ_ERR_OUT_OF_MEMORY", and tq::oss::SocketException from `send`, `sendMesg`,
/// `sendAndRecvMesgOnce` and the read operations of CorvaneClient.
///
/// Whatever an exchange leaves unread is never taken for a later reply: the next exchange then
/// starts on a fresh connection. So does one without a reply while the end of a chunked reply is
/// late. What is done by hand (`send`, `recvMesg`) can leave the connection in doubt and never
/// makes it sound again.
class KRU_EXPORT CorvaneRESTClient : public CorvaneClient {
 public:
  CorvaneRESTClient(const icu::UnicodeString& host, unsigned int port, bool persistent);
  CorvaneRESTClient(const icu::UnicodeString& host, unsigned int port,
                    const tq::oss::Socket::_AddrInfoExternal& addresses, bool persistent);

  /// Without an address and without `init()`: no retries until it or `setNumRetries` is called.
  CorvaneRESTClient();

  /// Closes the connection.
  ~CorvaneRESTClient() override;

  /// Sets one retry and the client's name.
  void init();

  /// How often a failed exchange is repeated. 0 switches it off.
  virtual void setNumRetries(unsigned int count);

  /// Off: a request that may have been applied already, and of a kind that does not bear sending
  /// twice, is not sent again; the first failure is reported. Default on: every kind is repeated.
  void setRetryUnsafe(bool on);

  /// True when sending a request of this kind twice leaves the server as sending it once does, and
  /// the second answer says the same: searches, keyed additions and deletions, status queries.
  static bool isRepeatable(ClientRequest::REQUEST kind);

  /// MILLISECONDS to pause before an attempt is repeated: at random between half and all of
  /// `first`, doubled with each further attempt up to `most`. Default 0: no pause. A deadline ends
  /// a pause.
  void setRetryPause(unsigned int first, unsigned int most);

  /// What became of the last request that was exchanged, whether or not the exchange succeeded.
  /// What is sent and received by hand does not change it.
  RequestOutcome getRequestOutcome() const;
  /// True when the last reply to it was a refusal. The outcome may then still be "may be applied",
  /// by an attempt before.
  bool isRefused() const { return refused_; }

  /// The whole exchange. The request's key and content are read, not copied, and must live until
  /// the call returns. On a failure `response` holds what had been decoded before it. A response
  /// that is used again has return code -1 until the header of a success has come, and nothing of
  /// an earlier estimate, status or version once a reply to a request of that kind has begun; a
  /// request that cannot be sent leaves it unchanged. The hits of a SCALAR_SEARCH come after those
  /// that it holds and that are left to take; when all have been taken, these go away.
  void sendAndRecvMesg(ClientRequest& request, ClientResponse& response);

  /// The same with limits that hold for this call only.
  void sendAndRecvMesg(ClientRequest& request, ClientResponse& response,
                       const OperationLimits& limits);

  /// On: when the connection that queued documents were written to is gone, the documents queued
  /// later, the LAST_DOC_SENT, the UPDATE_INDEX and the PARSE_RESULT that follow them fail with
  /// ERR_SERVER_COMM_SEND, which is not repeated: the server may have lost what was queued. The
  /// queue begins with the first ASYNCH_ADD_DOCUMENT that is written. It is over when a later
  /// request was answered on its connection, or when this is called again. Default off: the queue
  /// goes on over a fresh connection.
  void setQueueOnOneConnection(bool on);

  /// Writes a request to the connection, which the caller has opened, and reads nothing. After a
  /// write that failed it throws ERR_INVALID_STATE, until the caller has closed and opened again.
  /// A kind without a reply is safe only on a connection that owes nothing: what of an earlier
  /// reply, or unasked, is unread when the client is closed can cost what the server has not yet
  /// taken.
  void send(ClientRequest& request);

  /// The next portion of the streaming reply of the last exchange. It replaces the hits of
  /// STREAM_SEARCH, adds to those of SCALAR_SEARCH, and is an empty search response when the stream
  /// has ended. Hits that were taken are not handed out again, whatever is added. A stream that
  /// breaks off ends without an error: ask `isTruncated()`. A time-out loses nothing: call again.
  ///
  /// A response belongs to the exchange that filled it. Given one that an earlier exchange of this
  /// client or any exchange of another client has filled, this and all other operations that read a
  /// stream on throw ERR_INVALID_STATE and change nothing. A new response can be given at any time.
  virtual void recv(ClientResponse& response);

  // The steps of an exchange, for clients of other protocols to replace.

  /// One attempt of an exchange. A broken write passes as tq::oss::SocketException.
  virtual void sendAndRecvMesgOnce(ClientRequest& request, ClientResponse& response);
  /// Writes a message to the connection. Throws tq::oss::SocketException when the connection broke,
  /// ERR_SERVER_COMM_TIMEOUT when a deadline passed.
  virtual void sendMesg(RESTMessage& message);
  /// Reads the reply to the request of the current exchange; of one that streams, the first
  /// portion. Called by hand, it reads the reply to the one request that was sent by hand, as if it
  /// were of the kind of the last exchange; the connection counts as in doubt from then on. Throws
  /// ERR_INVALID_STATE when no such reply is the next to arrive: nothing or more than one thing was
  /// asked, or a stream is still open.
  virtual void recvMesg(ClientResponse& response);
  /// Reads one further portion of a reply that streams.
  virtual void recvStream(ClientResponse& response);

  /// Pulls portions until the end of the stream. All of them together may hold no more bytes than
  /// `setMaxReplyBytes` says. Over HTTP only: see DrestoPerfClient.
  void recvMultResponse(ClientResponse& response);

  /// True for the four ids of a failed communication, which the retry loop repeats.
  static bool isCommnError(icu::UnicodeString& messageId);

  /// True when nothing of the present reply is left to receive.
  bool isEndOfStream();
  bool isEndOfStream() const;

  /// True when the last reply stopped before the server had ended it, or in the middle of a record:
  /// what was delivered is right, but not everything.
  bool isTruncated() const;

 protected:
  /// What has become of the last exchange. An ExchangeScope covers it while it runs.
  enum class Exchange { None, Running, Failed, Done };

  /// Covers one attempt of an exchange, which counts as failed unless `done()` is called.
  class ExchangeScope {
   public:
    explicit ExchangeScope(CorvaneRESTClient& client);
    ~ExchangeScope();
    ExchangeScope(const ExchangeScope&) = delete;
    ExchangeScope& operator=(const ExchangeScope&) = delete;
    void done();

   private:
    CorvaneRESTClient& client_;
  };

  /// Refuses a request that could not be sent as its caller means it.
  void refuseUnsendable(ClientRequest& request) const;

  /// A new exchange begins, whose response this is. It ends the stream of the one before.
  void beginExchange(ClientResponse& response);

  /// Brings up a connection on which nothing of an earlier exchange can be taken for a reply.
  void openClean();

  /// Refuses a message that is sent by hand and could not be read as one.
  void refuseOnBrokenLine() const;
  /// Refuses a request that needs the queue's connection when that is gone.
  void refuseWithoutQueue(ClientRequest::REQUEST kind) const;
  /// What became of the last exchange's request. A request by hand is another one: while no
  /// exchange runs, this changes nothing.
  void noteOutcome(RequestOutcome outcome);
  /// A queued document was written to the present connection.
  void noteQueueWritten();

  /// The request was sent: its reply comes over the present connection.
  void awaitReply();
  /// Refuses to receive by hand when it cannot be told which reply comes next. `questionsHeld`: how
  /// many requests with a reply wait to be written first.
  void refuseReplyByHand(unsigned int questionsHeld) const;
  /// Begins to read a reply into the response. Throws ERR_INVALID_STATE when it is called by hand
  /// and cannot be told which reply comes next.
  void beginReply(ClientResponse& response);
  /// Fills the response for a kind without a reply. Throws ERR_INVALID_STATE when it is called by
  /// hand although a reply was asked for.
  void skipReply(ClientResponse& response);
  /// Refuses a response that another exchange has filled, and makes it this exchange's. As long as
  /// the returned object lives, new results follow those that have been taken.
  ClientResponse::TakenApart claim(ClientResponse& response);
  /// The reply was read to its end.
  void endReply();
  /// Nothing more can come of this stream.
  void breakStreamOff();

  /// True when the stream's connection is closed or was replaced.
  bool streamLostItsConnection() const;

  bool endOfStream_ = false;
  bool truncated_ = false;
  Exchange exchange_ = Exchange::None;
  RequestOutcome outcome_ = RequestOutcome::NotSent;
  bool refused_ = false;
  ClientRequest::REQUEST requestKind_{};
  /// The current exchange; 0 before the first one.
  std::uint64_t exchangeNumber_ = 0;

 private:
  // The pulling operations ask whose a response is.
  friend class ClientResponse;

  /// Bounds one call of a pulling operation, which may take several portions.
  class PullScope {
   public:
    explicit PullScope(CorvaneRESTClient& client);

   private:
    OperationScope operation_;
    std::optional<SharedTimeOutScope> estimate_;
  };

  bool lineIsReusable();
  void refuseForeign(const ClientResponse& response) const;
  bool isSendable(ClientRequest& request) const;
  void exchangeWithRetries(ClientRequest& request, ClientResponse& response, unsigned int retries);
  bool mayRepeat(const RESTException& failure) const;
  void pauseBefore(unsigned int attempt);
  void recvRest(ClientResponse& response);
  bool takeFirstReply(RESTResponse& parser, ClientResponse& response);
  bool takeFraming(RESTResponse& parser, ClientResponse& response, std::size_t& offset);
  std::optional<std::string_view> takeBody(const RESTResponse& parser, std::size_t offset);
  void parseFirstBody(RESTResponse& parser, ClientResponse& response, std::string_view body);
  void settleError(RESTResponse& parser);
  void settleFirstReply(const RESTResponse& parser);
  bool takePortion(RESTResponse& parser, ClientResponse& response);
  void parsePortion(RESTResponse& parser, ClientResponse& response, std::string_view portion);
  void settleChunked(const RESTResponse& parser);

  // Part of the class as it has always been; nothing reads them.
  icu::UnicodeString clientName_;
  icu::UnicodeString spareText_;

  std::unique_ptr<RetryPolicy> retryPolicy_;
  std::unique_ptr<Carry> carry_;

  // The retry loop runs, also for a protocol whose attempts have no ExchangeScope.
  bool exchanging_ = false;

  // The connection that the current exchange's reply comes over; 0: none yet.
  std::uint64_t clientNumber_;
  std::uint64_t replyConnection_ = 0;
  // The first portion of its reply was read, so that further portions can follow it.
  bool firstReplyRead_ = false;

  // The queue of documents: whether it must stay on one connection, and which one (0: no queue).
  bool queueOnOneConnection_ = false;
  std::uint64_t queueConnection_ = 0;

  // Bytes of the portions that one call collects.
  std::size_t collected_ = 0;
};

}  // namespace tq::comm
