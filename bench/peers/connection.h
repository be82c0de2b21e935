#pragma once

// What peers without a client library of their own talk to the canned server with: one socket, and
// requests as the library sends them.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

#include "bench/peers/peer.h"

namespace bench {

class RawConnection {
 public:
  explicit RawConnection(const Options& options)
      : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(options.number("port", 0)));
    const int on = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot connect");
    }
  }
  ~RawConnection() { ::close(fd_); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  void send(std::string_view bytes, int flags = 0) const {
    while (!bytes.empty()) {
      const ssize_t count = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | flags);
      if (count <= 0) throw std::runtime_error("cannot send");
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
  }

  /// Both in one write, which a blocking socket does not leave half done.
  void send(std::string& header, std::string& body) const {
    iovec pieces[] = {{header.data(), header.size()}, {body.data(), body.size()}};
    if (::writev(fd_, pieces, 2) != static_cast<ssize_t>(header.size() + body.size())) {
      throw std::runtime_error("cannot send");
    }
  }

  bool hasArrived(char* buffer, std::size_t size) const {
    return ::recv(fd_, buffer, size, MSG_DONTWAIT) >= 0;
  }

  std::size_t receive(char* buffer, std::size_t size) const {
    const ssize_t count = ::recv(fd_, buffer, size, 0);
    if (count <= 0) throw std::runtime_error("cannot receive");
    return static_cast<std::size_t>(count);
  }

 private:
  int fd_;
};

/// A header block, for the binary protocol after its length.
inline std::string headerOf(bool binary, const std::string& lines, std::size_t bodyBytes) {
  const std::string length = bodyBytes == 0 ? "" : std::to_string(bodyBytes);
  const std::string block = "Content-Length  : " + length + "\n" + lines + "\r\n";
  if (!binary) return block;
  return {std::string{static_cast<char>(block.size() >> 8), static_cast<char>(block.size())} +
          block};
}

inline std::string statusLines() {
  std::string lines = "action: getStatus\nactionType: monitor\n";
  for (const Field& field : kStatusFields) {
    lines += std::string(field.name) + ": " + field.value + "\n";
  }
  return lines;
}

inline std::string documentLines(const char* action, const char* actionType) {
  return std::string("action: ") + action + "\nactionType: " + actionType +
         "\nindex: c1\nver: 1.1\n";
}

/// What stands in front of a document's text: its key and metadata.
inline constexpr std::size_t kMetadataBytes = 70;

inline std::string searchLines(std::uint64_t count) {
  return "action: search\nactionType: select\nindex: c1\nmode: streaming\nquery: " +
         std::to_string(count) + "\nscoreWanted: true\nver: 1.1\n";
}

}  // namespace bench
