#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tq::test {

/// One thing that a scripted peer does on a connection.
struct Step {
  enum class Kind {
    ExpectRequest,        // a header block, then as many bytes as its length line says
    ExpectFramedRequest,  // the same after a 2-byte length of the header block
    ExpectBytes,          // exactly `count` bytes
    Send,                 // `bytes`, in segments of `count` bytes, 0 for one segment
    Stall,                // until released, or until the client has closed
    AwaitClose,           // collects what comes until the client has closed
    Reset,                // breaks the connection
  };
  Kind kind;
  std::string bytes{};
  std::size_t count = 0;
};

/// What a peer does on one connection, verb after verb. At the script's end it closes. Scripts
/// drive both the loopback server and the network in memory.
class Script {
 public:
  Script& expectRequest() { return add({Step::Kind::ExpectRequest}); }
  Script& expectFramedRequest() { return add({Step::Kind::ExpectFramedRequest}); }
  Script& expectBytes(std::size_t count) { return add({Step::Kind::ExpectBytes, {}, count}); }
  Script& send(std::string bytes, std::size_t segment = 0) {
    return add({Step::Kind::Send, std::move(bytes), segment});
  }
  Script& stall() { return add({Step::Kind::Stall}); }
  Script& awaitClose() { return add({Step::Kind::AwaitClose}); }
  Script& reset() { return add({Step::Kind::Reset}); }

  const std::vector<Step>& steps() const { return steps_; }

 private:
  Script& add(Step step) {
    steps_.push_back(std::move(step));
    return *this;
  }

  std::vector<Step> steps_;
};

/// What one connection has seen.
struct ConnectionRecord {
  std::vector<std::string> requests;  // the complete requests and byte runs that were expected
  std::string received;               // every byte, expected or not
  bool clientClosed = false;
};

/// The length of the request at the start of `bytes`, or 0 while it is not complete. `framed` tells
/// that a 2-byte length of the header block stands in front.
std::size_t completeRequestLength(std::string_view bytes, bool framed);

/// What the length line of a request's header block says; 0 when it is empty or missing.
std::size_t announcedLength(std::string_view headerBlock);

}  // namespace tq::test
