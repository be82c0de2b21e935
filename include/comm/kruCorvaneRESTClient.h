#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "comm/kruClientRequest.h"
#include "comm/kruClientResponse.h"
#include "comm/kruCorvaneClient.h"
#include "comm/kruRESTException.h"
#include "infra/oss/kruSizeableBuffer.h"

namespace tq::oss {
class MessageList;
}

namespace tq::comm {

class ChunkTail;
class RESTMessage;
class RESTResponse;

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

/// The client of the HTTP-style protocol: sends one request, reads its reply, repeats the exchange
/// when the communication failed, and hands out long replies portion by portion.
/// One object serves one thread at a time; different objects need no locking.
///
/// Failures are RESTExceptions. The id of the first message tells what happened:
/// ERR_CONNECT_SERVER, ERR_SERVER_COMM_SEND, ERR_SERVER_COMM_RECV, ERR_SERVER_COMM_TIMEOUT
/// (communication; repeated up to the retry count on a fresh connection, without a pause),
/// ERR_SERVER_PROTOCOL, ERR_SERVER_INVALID_AUTH, ERR_SERVER_APP or the server's own id (refused),
/// ERR_CLIENT_RESP_PARSING (not a reply), ERR_CLIENT_INTERNAL, ERR_INVALID_STATE (misuse).
/// Whatever an exchange leaves unread is never taken for a later reply: the next exchange then
/// starts on a fresh connection.
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
  RequestOutcome getRequestOutcome() const;

  /// The whole exchange. The request's key and content are read, not copied, and must live until
  /// the call returns. On a failure `response` holds what had been decoded before it.
  void sendAndRecvMesg(ClientRequest& request, ClientResponse& response);

  /// Writes a request to the connection, which the caller has opened, and reads nothing. Looks at
  /// nothing either: after a failed write the caller closes before anything else is sent.
  void send(ClientRequest& request);

  /// The next portion of a streaming reply. It replaces the hits of STREAM_SEARCH, adds to those of
  /// SCALAR_SEARCH, and is an empty search response when the stream has ended. A stream that breaks
  /// off ends without an error: ask `isTruncated()`. A time-out loses nothing: call again.
  virtual void recv(ClientResponse& response);

  // The steps of an exchange, for clients of other protocols to replace.

  /// One attempt of an exchange. A broken write passes as tq::oss::SocketException.
  virtual void sendAndRecvMesgOnce(ClientRequest& request, ClientResponse& response);
  /// Writes a message to the connection. Throws tq::oss::SocketException when the connection broke,
  /// ERR_SERVER_COMM_TIMEOUT when a deadline passed.
  virtual void sendMesg(RESTMessage& message);
  /// Reads the reply to the request of the current exchange; of one that streams, the first
  /// portion.
  virtual void recvMesg(ClientResponse& response);
  /// Reads the next portion of a streaming reply.
  virtual void recvStream(ClientResponse& response);

  /// Pulls portions until the end of the stream.
  void recvMultResponse(ClientResponse& response);

  /// True for the four ids of a failed communication, which the retry loop repeats.
  static bool isCommnError(icu::UnicodeString& messageId);

  /// True when the current reply has been delivered completely.
  bool isEndOfStream() const;

  /// True when the last reply ended by a partial record, a short portion or a close before the
  /// server's end mark: what was delivered is right, but not everything.
  bool isTruncated() const;

 protected:
  /// Refuses a request that could not be sent as its caller means it.
  void refuseUnsendable(ClientRequest& request) const;

  /// Brings up a connection on which nothing of an earlier exchange can be taken for a reply.
  void openClean();

  /// Notes that bytes of a reply may be on their way from now on, or that none are any more.
  /// Returns what was noted before.
  bool markReplyOutstanding(bool outstanding);

  /// True when the connection was made after the one that the current stream began on.
  bool streamLostItsConnection() const;

  /// Empties the carry for a new reply.
  void startCarry();
  /// Keeps the last `leftover` of the `total` bytes that were carried.
  void keepLeftover(unsigned long total, unsigned long leftover);

  bool endOfStream_ = false;
  bool exchangeInProgress_ = false;
  bool truncated_ = false;
  RequestOutcome outcome_ = RequestOutcome::NotSent;
  ClientRequest::REQUEST requestKind_{};
  // Reply bytes that a parser has left for the next portion.
  tq::oss::SizeableBuffer<char, 16384> carry_;
  unsigned long carryCount_ = 0;

 private:
  void leaveOldConnection();
  void forgetOldConnection();
  bool connectionIsClean();
  void skipTail();
  bool mayRepeat(const tq::oss::MessageList& failure, unsigned int attempt) const;
  void pauseBefore(unsigned int attempt) const;
  void recvRest(ClientResponse& response);
  bool takeFraming(RESTResponse& parser, ClientResponse& response, std::string* taken);
  bool appendReplyBytes(unsigned long length);
  void parseFirstBody(RESTResponse& parser, ClientResponse& response);
  void settleFirstReply(const RESTResponse& parser);
  bool takePortion(RESTResponse& parser, ClientResponse& response);
  void parsePortion(RESTResponse& parser, ClientResponse& response);
  void settleChunked(const RESTResponse& parser);
  void breakStreamOff();

  icu::UnicodeString clientName_;
  icu::UnicodeString spareText_;
  unsigned int retries_ = 0;
  bool retryUnsafe_ = true;
  unsigned int firstPause_ = 0;
  unsigned int longestPause_ = 0;
  // What the connection still carries of the last reply, and which connection that is.
  bool replyOutstanding_ = false;
  std::unique_ptr<ChunkTail> tail_;
  std::uint64_t tailConnection_ = 0;
};

}  // namespace tq::comm
