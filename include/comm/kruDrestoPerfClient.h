#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "comm/kruCorvaneRESTClient.h"

namespace tq::comm {

class DrestoPerfResponse;

/// The client of the binary protocol, used like the HTTP client: same requests, same responses,
/// same retries. Its connection is persistent. One object serves one thread at a time; different
/// objects need no locking.
///
/// On the wire a request is a 2-byte big-endian length, that many bytes of header text, and then
/// what RESTMessage lists. A small one leaves in one write. Of a body above 10000 bytes only the
/// first 5000 are ever copied.
///
/// Batching: `useBufferedConnection(true)`, off by default, holds messages back until 10000 bytes
/// or 50 messages (counted over all clients of the process) are there, a terminate record or a
/// large body goes out, or a reply is awaited. It pays for ASYNCH_ADD_DOCUMENT, which has no reply.
/// What is still held back when the client is destroyed is not sent: send LAST_DOC_SENT first.
///
/// A failed write is ERR_SERVER_COMM_SEND and is repeated. Its message does not stay in the buffer;
/// messages held back before it do, and go out with the next write.
class KRU_EXPORT DrestoPerfClient : public CorvaneRESTClient {
 public:
  DrestoPerfClient(const icu::UnicodeString& host, unsigned int port);
  DrestoPerfClient(const icu::UnicodeString& host, unsigned int port,
                   const tq::oss::Socket::_AddrInfoExternal& addresses);

  /// Closes the connection; does not send what is held back.
  ~DrestoPerfClient() override;

  /// Off (the default): a first portion that holds neither a whole record nor the end mark fails
  /// with ERR_CLIENT_RESP_PARSING, and one that breaks off with ERR_SERVER_PROTOCOL. On: it is read
  /// on, however it is cut, and a reply that the server breaks off raises ERR_SERVER_COMM_RECV.
  void setReassembly(bool on);

  void sendAndRecvMesgOnce(ClientRequest& request, ClientResponse& response) override;
  void sendMesg(RESTMessage& message) override;

  /// Writes `total` bytes in pieces of at most `chunkSize`, each a write of its own.
  void sendBodyChunks(const char* data, unsigned long chunkSize, unsigned long total);

  /// Reads the reply header.
  void recvMesg(ClientResponse& response) override;
  /// Reads the next portion of the body.
  void recvStream(ClientResponse& response) override;

  /// The next portion of a streaming reply. Throws ERR_INVALID_STATE before the first exchange, and
  /// after a failed one until another succeeds.
  void recv(ClientResponse& response) override;

 private:
  struct Parts;

  void exchange(ClientRequest& request, ClientResponse& response);

  // Sending.
  Parts partsOf(RESTMessage& message) const;
  std::string_view append(const Parts& parts);
  void sendHeldQuestions();
  bool mustWrite(const Parts& parts) const;
  void writeBuffer(std::string_view rest, bool replyExpected);
  void dropLastMessage();

  // Receiving.
  bool takePortion(unsigned long size);
  bool appendReplyBytes(unsigned long length);
  bool mustReadOn() const;
  void parsePortion(ClientResponse& response);
  void settleFailure();
  void endReply(unsigned long leftover);

  std::unique_ptr<DrestoPerfResponse> parser_;
  std::vector<char> sendBuffer_;
  // Where the message appended last begins, so that a failed write can take it back.
  std::size_t lastMessage_ = 0;
  // Whether one of its messages will be answered, with the one appended last and without it.
  bool replyHeld_ = false;
  bool replyHeldBefore_ = false;
  bool reassembly_ = false;
  icu::UnicodeString requestString_;
};

}  // namespace tq::comm
