#include "tests/server/rawClient.h"

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <thread>
#include <utility>

namespace corvaned::test {
namespace {

[[noreturn]] void fail(const char* what) { throw std::runtime_error(what); }

void setOption(int socket, int option, const void* value, socklen_t size) {
  if (::setsockopt(socket, SOL_SOCKET, option, value, size) != 0) fail("setsockopt");
}

}  // namespace

RawClient::RawClient(std::uint16_t port, int receiveBuffer)
    : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  // Much longer than any answer takes, also in a sanitized build on a machine full of compilers.
  const timeval limit{120, 0};
  setOption(socket_, SO_RCVTIMEO, &limit, sizeof limit);
  setOption(socket_, SO_SNDTIMEO, &limit, sizeof limit);
  if (receiveBuffer > 0) setOption(socket_, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sockaddr generic{};
  static_assert(sizeof generic == sizeof address);
  __builtin_memcpy(&generic, &address, sizeof address);
  if (::connect(socket_, &generic, sizeof generic) != 0) fail("connect");
}

RawClient::RawClient(RawClient&& other) noexcept : socket_(std::exchange(other.socket_, -1)) {}

RawClient::~RawClient() {
  if (socket_ >= 0) ::close(socket_);
}

bool RawClient::send(const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count < 0) return false;
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

std::size_t RawClient::sendSome(const std::string& bytes) {
  const ssize_t count = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  return count < 0 ? 0 : static_cast<std::size_t>(count);
}

void RawClient::awaitDelivery() const {
  int underWay = 1;
  while (underWay > 0) {
    if (::ioctl(socket_, SIOCOUTQ, &underWay) != 0) fail("SIOCOUTQ");
    std::this_thread::yield();
  }
}

void RawClient::endSending() { ::shutdown(socket_, SHUT_WR); }

void RawClient::reset() {
  const linger abrupt{1, 0};
  setOption(socket_, SO_LINGER, &abrupt, sizeof abrupt);
  ::close(std::exchange(socket_, -1));
}

std::size_t RawClient::receiveInto(char* buffer, std::size_t size) {
  const ssize_t count = ::recv(socket_, buffer, size, 0);
  if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) fail("the server does not answer");
  return count < 0 ? 0 : static_cast<std::size_t>(count);
}

bool RawClient::hasBytes() const {
  pollfd waiting{socket_, POLLIN, 0};
  return ::poll(&waiting, 1, 0) > 0;
}

std::string RawClient::receive(std::size_t count) {
  std::string bytes(count, '\0');
  std::size_t received = 0;
  while (received < count) {
    const std::size_t part = receiveInto(bytes.data() + received, count - received);
    if (part == 0) break;
    received += part;
  }
  bytes.resize(received);
  return bytes;
}

std::string RawClient::receiveAll() {
  std::string bytes;
  std::array<char, 65536> buffer{};
  while (const std::size_t part = receiveInto(buffer.data(), buffer.size())) {
    bytes.append(buffer.data(), part);
  }
  return bytes;
}

std::string RawClient::receiveLine() {
  std::string line;
  while (!line.ends_with("\r\n")) {
    const std::string byte = receive(1);
    if (byte.empty()) fail("the connection ended inside a line");
    line += byte;
  }
  return line.substr(0, line.size() - 2);
}

std::string RawClient::receiveHttp() {
  std::string reply = receiveLine() + "\n";
  std::size_t length = 0;
  bool chunked = false;
  for (std::string line = receiveLine(); !line.empty(); line = receiveLine()) {
    if (line.starts_with("Content-Length: ")) length = std::stoul(line.substr(16));
    chunked = chunked || line == "Transfer-Encoding: chunked";
  }
  if (!chunked) return reply + receive(length);
  while (const std::size_t size = std::stoul(receiveLine(), nullptr, 16)) {
    reply += receive(size);
    if (receiveLine() != "") fail("a chunk is not followed by an empty line");
  }
  if (receiveLine() != "") fail("the last chunk is not followed by an empty line");
  return reply;
}

bool RawClient::wasReset() {
  char byte = 0;
  return ::recv(socket_, &byte, 1, 0) < 0 && errno == ECONNRESET;
}

bool RawClient::ended() {
  char byte = 0;
  return receiveInto(&byte, 1) == 0;
}

}  // namespace corvaned::test
