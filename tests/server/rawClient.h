#pragma once

#include <cstdint>
#include <string>

namespace corvaned::test {

/// A plain socket to a server on the loopback interface. Every wait is bounded, so that a server
/// that does not answer is a failure and not a hang.
class RawClient {
 public:
  /// Connects. `receiveBuffer` in bytes, 0: the system's choice.
  explicit RawClient(std::uint16_t port, int receiveBuffer = 0);
  ~RawClient();
  RawClient(RawClient&& other) noexcept;
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  /// Sends everything; false when the server takes no more.
  bool send(const std::string& bytes);
  /// Sends what can be sent without waiting and returns how much that was.
  std::size_t sendSome(const std::string& bytes);
  /// Returns when the other side's system has all that was sent.
  void awaitDelivery() const;
  void endSending();
  void reset();

  /// Whether something has come that was not received yet, or the connection has ended.
  bool hasBytes() const;
  /// Exactly that many bytes, fewer when the connection ends first.
  std::string receive(std::size_t count);
  /// Everything up to the end of the connection.
  std::string receiveAll();
  /// One reply in the HTTP-style protocol, its chunks joined.
  std::string receiveHttp();
  /// True when the server has ended the connection, orderly or not.
  bool ended();
  /// The same, and true only when it was not orderly.
  bool wasReset();

 private:
  std::string receiveLine();
  std::size_t receiveInto(char* buffer, std::size_t size);

  int socket_;
};

}  // namespace corvaned::test
