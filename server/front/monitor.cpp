#include "server/front/monitor.h"

#include <fmt/format.h>
#include <netinet/in.h>
#include <poll.h>
#include <spdlog/spdlog.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace corvaned {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxRequest = 8192;
constexpr int kBacklog = 64;

sockaddr generic(const sockaddr_in& address) {
  sockaddr result{};
  static_assert(sizeof result == sizeof address);
  std::memcpy(&result, &address, sizeof address);
  return result;
}

std::string httpReply(const char* status, const std::string& body) {
  return fmt::format(
      "HTTP/1.1 {}\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"
      "Content-Length: {}\r\nConnection: close\r\n\r\n{}",
      status, body.size(), body);
}

}  // namespace

Monitor::Monitor(std::uint16_t port, Sources sources, std::chrono::milliseconds patience)
    : sources_(std::move(sources)),
      patience_(patience),
      listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      stop_(::eventfd(0, EFD_CLOEXEC)) {
  const int yes = 1;
  ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sockaddr bound = generic(address);
  socklen_t size = sizeof bound;
  if (stop_ < 0 || ::bind(listener_, &bound, size) != 0 || ::listen(listener_, kBacklog) != 0 ||
      ::getsockname(listener_, &bound, &size) != 0) {
    const std::string reason = std::generic_category().message(errno);
    ::close(listener_);
    ::close(stop_);
    throw std::runtime_error(
        fmt::format("cannot listen for monitoring on 127.0.0.1 port {}: {}; choose another port",
                    port, reason));
  }
  std::memcpy(&address, &bound, sizeof address);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { run(); });
}

Monitor::~Monitor() {
  const std::uint64_t one = 1;
  while (::write(stop_, &one, sizeof one) < 0 && errno == EINTR) {
  }
  thread_.join();
  ::close(listener_);
  ::close(stop_);
}

void Monitor::run() {
  for (;;) {
    std::array<pollfd, 2> waiting{{{listener_, POLLIN, 0}, {stop_, POLLIN, 0}}};
    if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) return;
    if (waiting[1].revents != 0) return;
    if (waiting[0].revents == 0) continue;
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
      // Out of descriptors: the client stays in the queue, and the next look must not come at once.
      ::poll(&waiting[1], 1, 100);
      continue;
    }
    serve(client);
    ::close(client);
  }
}

// False if the client is not ready for that when its time is over and another one has come, or when
// the monitor is to end. What is ready counts however late it is: the machine may have been busy
// with other work in the meantime.
bool Monitor::await(int client, short event, Clock::time_point end) const {
  std::array<pollfd, 3> waiting{{{client, event, 0}, {stop_, POLLIN, 0}, {listener_, POLLIN, 0}}};
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
  if (::poll(waiting.data(), 2, std::max(0, static_cast<int>(left.count()))) == 0) {
    ::poll(waiting.data(), waiting.size(), -1);
  }
  return waiting[0].revents != 0;
}

std::string Monitor::receiveRequest(int client, Clock::time_point end) const {
  std::string request;
  std::array<char, 1024> buffer{};
  while (request.size() < kMaxRequest && request.find("\r\n\r\n") == std::string::npos) {
    if (!await(client, POLLIN, end)) break;
    const ssize_t count = ::recv(client, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count <= 0) break;
    request.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return request;
}

void Monitor::sendAll(int client, std::string_view bytes, Clock::time_point end) const {
  while (!bytes.empty() && await(client, POLLOUT, end)) {
    const ssize_t count = ::send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

// One that is slow, or silent, must not keep the others waiting for long, at whatever pace it moves
// its bytes.
void Monitor::serve(int client) const {
  const Clock::time_point end = Clock::now() + patience_;
  try {
    sendAll(client, reply(receiveRequest(client, end)), end);
  } catch (const std::exception& error) {
    spdlog::warn("monitoring: {}", error.what());
  }
}

std::string Monitor::reply(const std::string& request) const {
  constexpr std::string_view kHead = "HEAD ";
  if (!request.starts_with(kHead)) return replyToGet(request);
  const std::string reply = replyToGet("GET " + request.substr(kHead.size()));
  return reply.substr(0, reply.find("\r\n\r\n") + 4);
}

std::string Monitor::replyToGet(const std::string& request) const {
  const std::string line = request.substr(0, request.find("\r\n"));
  // Probes may put a query behind the path, to which nothing here answers.
  const std::size_t query = line.find('?');
  const std::size_t version = line.rfind(' ');
  const bool hasQuery = query != std::string::npos && version != std::string::npos;
  const std::string asked = hasQuery ? line.substr(0, query) + line.substr(version) : line;
  const auto asks = [&](const char* path) {
    return asked.starts_with(fmt::format("GET {} HTTP/", path));
  };
  if (asks("/health")) return httpReply("200 OK", "alive\n");
  if (asks("/metrics")) return httpReply("200 OK", sources_.metrics());
  if (asks("/ready")) {
    const std::string obstacle = sources_.obstacle();
    if (!obstacle.empty()) return httpReply("503 Service Unavailable", obstacle + "\n");
    return httpReply("200 OK", "ready\n" + (sources_.notice ? sources_.notice() : std::string()));
  }
  if (!line.starts_with("GET "))
    return httpReply("405 Method Not Allowed", "only GET and HEAD are known\n");
  return httpReply("404 Not Found", "there are /metrics, /health and /ready\n");
}

}  // namespace corvaned
