#include "tests/support/scriptedServer.h"

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace tq::test {

namespace {

struct Address {
  sockaddr_storage storage{};
  socklen_t length = sizeof(sockaddr_storage);

  sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
  unsigned int port() const {
    // Both families keep the port at the same place.
    return ntohs(reinterpret_cast<const sockaddr_in*>(&storage)->sin_port);
  }
};

int require(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

Address loopback(bool ipv6) {
  Address address;
  if (ipv6) {
    auto* a = reinterpret_cast<sockaddr_in6*>(&address.storage);
    a->sin6_family = AF_INET6;
    a->sin6_addr = in6addr_loopback;
    address.length = sizeof(sockaddr_in6);
  } else {
    auto* a = reinterpret_cast<sockaddr_in*>(&address.storage);
    a->sin_family = AF_INET;
    a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.length = sizeof(sockaddr_in);
  }
  return address;
}

int bindLoopback(bool ipv6, unsigned int& port) {
  auto address = loopback(ipv6);
  const int fd =
      require(::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  require(::bind(fd, address.get(), address.length), "bind");
  require(::getsockname(fd, address.get(), &address.length), "getsockname");
  port = address.port();
  return fd;
}

int newEvent() { return require(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd"); }

void raiseEvent(int fd) {
  const std::uint64_t one = 1;
  if (::write(fd, &one, sizeof one) < 0) std::perror("eventfd write");
}

// True when `fd` is ready; false when the event came first.
bool waitReadable(int fd, int event) {
  std::array<pollfd, 2> fds{pollfd{event, POLLIN, 0}, pollfd{fd, POLLIN, 0}};
  while (::poll(fds.data(), fds.size(), -1) < 0) {
    if (errno != EINTR) return false;
  }
  return fds[0].revents == 0;
}

bool sameEnds(int fd, int peerOfFd) {
  Address mine;
  Address other;
  if (::getsockname(fd, mine.get(), &mine.length) != 0) return false;
  if (::getpeername(peerOfFd, other.get(), &other.length) != 0) return false;
  return mine.length == other.length && std::memcmp(mine.get(), other.get(), mine.length) == 0;
}

// The client's end of a connection whose server's end is `fd`, when the client lives in this very
// process, as in a test it does; otherwise -1.
int clientEndOf(int fd) {
  std::error_code none;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", none)) {
    const int candidate = std::atoi(entry.path().filename().c_str());
    if (candidate != fd && sameEnds(candidate, fd) && sameEnds(fd, candidate)) return candidate;
  }
  return -1;
}

}  // namespace

ScriptedServer::ScriptedServer(std::vector<Script> scripts, bool ipv6)
    : scripts_(std::move(scripts)) {
  if (scripts_.empty()) throw std::invalid_argument("a scripted server needs a script");
  listener_ = bindLoopback(ipv6, port_);
  require(::listen(listener_, 64), "listen");
  stopEvent_ = newEvent();
  releaseEvent_ = newEvent();
  noListenEvent_ = newEvent();
  acceptor_ = std::thread([this] { acceptLoop(); });
}

ScriptedServer::~ScriptedServer() {
  stopping_ = true;
  raiseEvent(stopEvent_);
  raiseEvent(noListenEvent_);
  acceptor_.join();
  for (auto& worker : workers_) worker.join();
  for (const int fd : {listener_, stopEvent_, releaseEvent_, noListenEvent_}) {
    if (fd >= 0) ::close(fd);
  }
}

void ScriptedServer::release() { raiseEvent(releaseEvent_); }

std::size_t ScriptedServer::connections() const {
  const std::lock_guard lock(mutex_);
  return records_.size();
}

std::size_t ScriptedServer::requests() const {
  const std::lock_guard lock(mutex_);
  return countRequests();
}

std::size_t ScriptedServer::countRequests() const {
  std::size_t total = 0;
  for (const auto& record : records_) total += record.requests.size();
  return total;
}

ConnectionRecord ScriptedServer::connection(std::size_t index) const {
  const std::lock_guard lock(mutex_);
  return records_.at(index);
}

void ScriptedServer::awaitClientClose(std::size_t index) const {
  waitFor([&] { return index < records_.size() && records_[index].clientClosed; });
}

void ScriptedServer::awaitRequests(std::size_t index, std::size_t count) const {
  waitFor([&] { return index < records_.size() && records_[index].requests.size() >= count; });
}

void ScriptedServer::awaitRequests(std::size_t count) const {
  waitFor([&] { return countRequests() >= count; });
}

void ScriptedServer::waitFor(const std::function<bool()>& condition) const {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, condition);
}

void ScriptedServer::stopListening() {
  raiseEvent(noListenEvent_);
  waitFor([&] { return !listening_; });
}

void ScriptedServer::acceptLoop() {
  while (waitReadable(listener_, noListenEvent_)) {
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const std::lock_guard lock(mutex_);
    records_.emplace_back();
    workers_.emplace_back([this, index = records_.size() - 1, fd] { serve(index, fd); });
    changed_.notify_all();
  }
  ::close(listener_);
  const std::lock_guard lock(mutex_);
  listener_ = -1;
  listening_ = false;
  changed_.notify_all();
}

const Script& ScriptedServer::scriptFor(std::size_t index) const {
  return scripts_[std::min(index, scripts_.size() - 1)];
}

void ScriptedServer::serve(std::size_t index, int fd) {
  std::string pending;
  for (const auto& step : scriptFor(index).steps()) {
    if (stopping_) break;
    play(index, fd, step, pending);
  }
  ::close(fd);
}

void ScriptedServer::play(std::size_t index, int fd, const Step& step, std::string& pending) {
  switch (step.kind) {
    case Step::Kind::ExpectRequest:
      return collect(index, fd, pending,
                     [](const auto& bytes) { return completeRequestLength(bytes, false); });
    case Step::Kind::ExpectFramedRequest:
      return collect(index, fd, pending,
                     [](const auto& bytes) { return completeRequestLength(bytes, true); });
    case Step::Kind::ExpectBytes:
      return collect(index, fd, pending, [&step](const auto& bytes) {
        return bytes.size() >= step.count ? step.count : 0;
      });
    case Step::Kind::Send:
      return sendSegments(index, fd, step);
    case Step::Kind::Stall:
      return stallUntilReleased(index, fd);
    case Step::Kind::AwaitClose:
      while (receiveSome(index, fd, pending)) {
      }
      return;
    case Step::Kind::Reset: {
      // Lingering for no time makes the close below a reset.
      const linger hard{1, 0};
      ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
      return;
    }
  }
}

void ScriptedServer::collect(std::size_t index, int fd, std::string& pending,
                             const std::function<std::size_t(const std::string&)>& complete) {
  std::size_t length = 0;
  while ((length = complete(pending)) == 0) {
    if (!receiveSome(index, fd, pending)) return;
  }
  const std::lock_guard lock(mutex_);
  records_[index].requests.push_back(pending.substr(0, length));
  pending.erase(0, length);
  changed_.notify_all();
}

bool ScriptedServer::receiveSome(std::size_t index, int fd, std::string& pending) {
  if (!waitReadable(fd, stopEvent_)) return false;
  std::array<char, 65536> buffer;
  const auto count = ::recv(fd, buffer.data(), buffer.size(), 0);
  if (count <= 0) {
    noteClosed(index);
    return false;
  }
  pending.append(buffer.data(), static_cast<std::size_t>(count));
  const std::lock_guard lock(mutex_);
  records_[index].received.append(buffer.data(), static_cast<std::size_t>(count));
  return true;
}

void ScriptedServer::noteClosed(std::size_t index) {
  const std::lock_guard lock(mutex_);
  records_[index].clientClosed = true;
  changed_.notify_all();
}

void ScriptedServer::sendSegments(std::size_t index, int fd, const Step& step) {
  const std::size_t segment = step.count == 0 ? step.bytes.size() : step.count;
  for (std::size_t at = 0; at < step.bytes.size() && !stopping_; at += segment) {
    if (at != 0) awaitDrained(fd);
    std::size_t sent = 0;
    const std::size_t length = std::min(segment, step.bytes.size() - at);
    while (sent < length) {
      const auto count =
          ::send(fd, step.bytes.data() + at + sent, length - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (count > 0) {
        sent += static_cast<std::size_t>(count);
        continue;
      }
      if (errno != EAGAIN && errno != EINTR) return noteClosed(index);
      std::array<pollfd, 2> fds{pollfd{stopEvent_, POLLIN, 0}, pollfd{fd, POLLOUT, 0}};
      ::poll(fds.data(), fds.size(), -1);
      if (fds[0].revents != 0) return;
    }
  }
}

// Only the receiving end knows what its program has taken: the kernel acknowledges to the sender
// what merely lies in its queue. What is not acknowledged may be on its way to that queue.
void ScriptedServer::awaitDrained(int fd) const {
  const int client = clientEndOf(fd);
  while (client >= 0 && !stopping_) {
    int unacknowledged = 0;
    if (!sameEnds(client, fd) || ::ioctl(fd, SIOCOUTQ, &unacknowledged) != 0) return;
    if (unacknowledged == 0) break;
    // The kernel would keep the acknowledgement back for a while.
    const int on = 1;
    ::setsockopt(client, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    std::this_thread::yield();
  }
  int unread = 1;
  while (client >= 0 && !stopping_ && unread > 0) {
    if (!sameEnds(client, fd) || ::ioctl(client, FIONREAD, &unread) != 0) return;
    if (unread > 0) std::this_thread::yield();
  }
}

void ScriptedServer::stallUntilReleased(std::size_t index, int fd) {
  // Bytes that arrive meanwhile stay unread; POLLRDHUP tells of the client's close without a read.
  std::array<pollfd, 3> fds{pollfd{stopEvent_, POLLIN, 0}, pollfd{releaseEvent_, POLLIN, 0},
                            pollfd{fd, POLLRDHUP, 0}};
  while (::poll(fds.data(), fds.size(), -1) < 0 && errno == EINTR) {
  }
  if (fds[2].revents != 0) noteClosed(index);
}

RefusedPort::RefusedPort() : fd_(bindLoopback(false, port_)) {}

RefusedPort::~RefusedPort() { ::close(fd_); }

}  // namespace tq::test
