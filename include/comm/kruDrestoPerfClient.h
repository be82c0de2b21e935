#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "comm/kruCorvaneRESTClient.h"

namespace tq::comm {

class Batch;
class DrestoPerfResponse;

/// The client of the binary protocol, used like the HTTP client: same requests, same responses,
/// same retries, same errors. Only `recvMultResponse` differs: when the exchange has brought
/// results, it takes no further portion of the reply, throws ERR_CLIENT_RESP_PARSING and gives the
/// rest up. Use `recv` or the pulling operations of ClientResponse. Its connection is persistent.
/// Calls on one object must not overlap; different objects are independent.
///
/// On the wire a request is a 2-byte big-endian length, that many bytes of header text, and then
/// what RESTMessage lists. A small one leaves in one write. A body above 10000 bytes is never
/// copied beyond its first 5000.
///
/// Batching: `useBufferedConnection(true)`, off by default, holds messages back until 10000 bytes
/// or 50 messages (counted over all clients of the process) are there, a terminate record or a
/// large body goes out, or a reply is awaited. It pays for ASYNCH_ADD_DOCUMENT, which has no reply.
/// What is still held back when the client is destroyed is not sent: send LAST_DOC_SENT first. The
/// copy of a forked child forgets what its parent holds back, which the parent alone sends; a host
/// whose child goes on in its place sends LAST_DOC_SENT before it forks.
///
/// A failed write is ERR_SERVER_COMM_SEND and is repeated. Its message does not stay in the buffer;
/// messages held back before it do, and go out with the next write: the server may get one of them
/// a second time, which replaces a document by itself.
class KRU_EXPORT DrestoPerfClient : public CorvaneRESTClient {
 public:
  DrestoPerfClient(const icu::UnicodeString& host, unsigned int port);
  DrestoPerfClient(const icu::UnicodeString& host, unsigned int port,
                   const tq::oss::Socket::_AddrInfoExternal& addresses);

  /// Closes the connection; does not send what is held back.
  ~DrestoPerfClient() override;

  /// Off (the default): the first portion must bring a whole record or the end mark. If it is cut
  /// before that, the exchange fails with ERR_CLIENT_RESP_PARSING; if the connection ends before
  /// that, with ERR_SERVER_PROTOCOL. On: it may be cut anywhere, and a reply whose connection ends
  /// too early is ERR_SERVER_COMM_RECV.
  void setReassembly(bool on);

  void sendAndRecvMesgOnce(ClientRequest& request, ClientResponse& response) override;
  void sendMesg(RESTMessage& message) override;

  /// Writes `total` bytes in pieces of at most `chunkSize`, each a write of its own. The kernel
  /// need not send them before it has the last one. By hand they are part of no message: the next
  /// exchange takes a fresh connection, and `send` refuses this one. Throws
  /// tq::oss::SocketException when the connection broke, ERR_SERVER_COMM_TIMEOUT when a deadline
  /// passed.
  void sendBodyChunks(const char* data, unsigned long chunkSize, unsigned long total);

  /// Reads the reply header. By hand after an exchange that read its own: ERR_CLIENT_INTERNAL.
  void recvMesg(ClientResponse& response) override;
  /// Reads the next portion of the body. Called by hand it throws what `recv` throws, except that a
  /// stream that lost its connection is ERR_SERVER_PROTOCOL, with reassembly ERR_SERVER_COMM_RECV.
  void recvStream(ClientResponse& response) override;

  /// One further portion of a reply that streams. Throws ERR_INVALID_STATE before the first
  /// exchange, and after a failed one until another succeeds.
  void recv(ClientResponse& response) override;

 private:
  class Parsers;

  void exchange(ClientRequest& request, ClientResponse& response);
  void receiveFirstResults(ClientResponse& response);

  // Sending.
  void openForSending(ClientRequest::REQUEST kind);
  void openForWriting();
  void sendHeldQuestions();
  void writeBatch(std::string_view rest);
  void writeBatchAnd(std::string_view rest);

  // Receiving.
  void refuseWithoutExchange() const;
  bool awaitBytes(std::size_t count);
  bool awaitPortion(std::size_t size);
  bool mustReadOn() const;
  bool holdsWholeUnit(std::size_t size) const;
  void parseHeldPortion(ClientResponse& response);
  bool beginsWithError() const;
  std::size_t errorSize() const;
  void settleFailure();
  void endReplyWith(std::size_t leftover);

  std::unique_ptr<Parsers> parsers_;
  // That of the last exchange; null before the first one.
  DrestoPerfResponse* parser_ = nullptr;
  // Bytes at the start of the socket's buffer that are being parsed, or were and are a partial
  // envelope.
  std::size_t portionSize_ = 0;
  std::unique_ptr<Batch> batch_;
  // The message that is about to be sent may be held back, so that its connection was not looked
  // at.
  bool mayBeHeld_ = false;
  bool reassembly_ = false;
};

}  // namespace tq::comm
