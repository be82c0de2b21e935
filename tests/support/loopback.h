#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace tq::test {

/// The server's end of a connection, driven by hand.
class Peer {
 public:
  explicit Peer(int fd) : fd_(fd) {}
  Peer(Peer&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Peer& operator=(Peer&&) = delete;
  ~Peer() { close(); }

  int descriptor() const { return fd_; }

  void send(std::string_view bytes, int flags = 0) {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), flags | MSG_NOSIGNAL);
      if (sent < 0) throw std::runtime_error("the peer could not send");
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

  /// Waits for exactly this many bytes; fewer when the other side closes.
  std::string receive(std::size_t count) {
    std::string bytes(count, '\0');
    std::size_t got = 0;
    while (got < count) {
      const ssize_t n = ::recv(fd_, bytes.data() + got, count - got, 0);
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    bytes.resize(got);
    return bytes;
  }

  /// Waits until the other side has closed; false when it sent bytes instead.
  bool seesClose() {
    char byte = 0;
    return ::recv(fd_, &byte, 1, 0) <= 0;
  }
  /// True when the other side has neither closed nor sent anything yet.
  bool isQuiet() {
    char byte = 0;
    return ::recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN;
  }

  void close() {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }
  /// Ends the connection with a reset instead of an orderly close.
  void reset() {
    const linger now{1, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    close();
  }

 private:
  int fd_;
};

/// Listens on a free port of the loopback interface.
class Listener {
 public:
  Listener() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (::bind(fd_, generic, length) != 0 || ::listen(fd_, 64) != 0 ||
        ::getsockname(fd_, generic, &length) != 0) {
      throw std::runtime_error("no port to listen on");
    }
    port_ = ntohs(address.sin_port);
  }
  ~Listener() { close(); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  unsigned int port() const { return port_; }
  Peer accept() { return Peer(::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)); }
  void close() {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }

 private:
  int fd_;
  unsigned int port_ = 0;
};

/// A port on which nothing listens, held for as long as the object lives so that nothing will.
class DeadPort {
 public:
  DeadPort() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (::bind(fd_, generic, length) != 0 || ::getsockname(fd_, generic, &length) != 0) {
      throw std::runtime_error("no port to hold");
    }
    port_ = ntohs(address.sin_port);
  }
  ~DeadPort() { ::close(fd_); }
  DeadPort(const DeadPort&) = delete;
  DeadPort& operator=(const DeadPort&) = delete;

  unsigned int port() const { return port_; }

 private:
  int fd_;
  unsigned int port_ = 0;
};

/// Waits until the descriptor has something to receive, an end included.
inline void awaitReadable(int fd) {
  pollfd entry{fd, POLLIN, 0};
  while (::poll(&entry, 1, -1) < 0 && errno == EINTR) {
  }
}

}  // namespace tq::test
