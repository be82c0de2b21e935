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
#include <memory>
#include <stdexcept>
#include <string_view>
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

// No text of a header begins with a character that is not printed; a framed request does, with the
// length of the header block, unless that has more than 8 KiB.
std::size_t firstRequestLength(const std::string& bytes) {
  return completeRequestLength(bytes, !bytes.empty() && bytes.front() < ' ');
}

}  // namespace

std::size_t ConnectionLog::connections() const {
  const std::lock_guard lock(mutex_);
  return records_.size();
}

std::size_t ConnectionLog::requests() const {
  const std::lock_guard lock(mutex_);
  return countRequests();
}

std::size_t ConnectionLog::countRequests() const {
  std::size_t total = 0;
  for (const auto& record : records_) total += record.requests.size();
  return total;
}

ConnectionRecord ConnectionLog::connection(std::size_t index) const {
  const std::lock_guard lock(mutex_);
  return records_.at(index);
}

void ConnectionLog::awaitClientClose(std::size_t index) const {
  waitFor([&] { return index < records_.size() && records_[index].clientClosed; });
}

void ConnectionLog::awaitRequests(std::size_t index, std::size_t count) const {
  waitFor([&] { return index < records_.size() && records_[index].requests.size() >= count; });
}

void ConnectionLog::awaitRequests(std::size_t count) const {
  waitFor([&] { return countRequests() >= count; });
}

void ConnectionLog::waitFor(const std::function<bool()>& condition) const {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, condition);
}

std::size_t ConnectionLog::begin() {
  const std::lock_guard lock(mutex_);
  records_.emplace_back();
  changed_.notify_all();
  return records_.size() - 1;
}

void ConnectionLog::note(std::size_t index, const std::function<void(ConnectionRecord&)>& what) {
  const std::lock_guard lock(mutex_);
  what(records_[index]);
  changed_.notify_all();
}

/// The server's end of one connection.
class ScriptedServer::Conversation {
 public:
  explicit Conversation(int fd) : fd_(fd) {}
  ~Conversation() { ::close(fd_); }
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  int descriptor() const { return fd_; }

  /// What the client has sent before is part of the record.
  void enter(Line& line) {
    line_ = &line;
    index_ = line.log.begin();
    note([this](ConnectionRecord& record) { record.received = pending; });
  }
  Line* line() const { return line_; }
  const Script& script() const {
    return line_->meant.scripts[std::min(index_, line_->meant.scripts.size() - 1)];
  }

  void note(const std::function<void(ConnectionRecord&)>& what) {
    if (line_ != nullptr) line_->log.note(index_, what);
  }
  void noteClosed() {
    note([](ConnectionRecord& record) { record.clientClosed = true; });
  }

  /// What has come and was not expected yet.
  std::string pending;

 private:
  const int fd_;
  Line* line_ = nullptr;
  std::size_t index_ = 0;
};

ScriptedServer::ScriptedServer(std::vector<Script> scripts, std::vector<Aside> asides, bool ipv6) {
  for (Aside& each : asides) lines_.emplace_back(std::move(each));
  lines_.emplace_back(Aside{[](const auto&) { return true; }, std::move(scripts)});
  for (const Line& line : lines_) {
    if (line.meant.scripts.empty()) throw std::invalid_argument("a connection needs a script");
  }
  listener_ = bindLoopback(ipv6, port_);
  require(::listen(listener_, 64), "listen");
  stopEvent_ = newEvent();
  releaseEvent_ = newEvent();
  acceptor_ = std::thread([this] { acceptLoop(); });
}

ScriptedServer::~ScriptedServer() {
  stopping_ = true;
  raiseEvent(stopEvent_);
  acceptor_.join();
  for (auto& worker : workers_) worker.join();
  for (const int fd : {listener_, stopEvent_, releaseEvent_}) ::close(fd);
}

void ScriptedServer::release() { raiseEvent(releaseEvent_); }

void ScriptedServer::acceptLoop() {
  while (waitReadable(listener_, stopEvent_)) {
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ++accepted_;
    auto conversation = std::make_shared<Conversation>(fd);
    // Where all are of one kind they are numbered as they come, also if they send nothing.
    if (lines_.size() == 1) conversation->enter(lines_.front());
    workers_.emplace_back([this, conversation = std::move(conversation)] { serve(*conversation); });
  }
}

void ScriptedServer::serve(Conversation& conversation) {
  if (conversation.line() == nullptr && !findLine(conversation)) return;
  for (const auto& step : conversation.script().steps()) {
    if (stopping_) break;
    play(conversation, step);
  }
}

bool ScriptedServer::findLine(Conversation& conversation) {
  std::size_t length = 0;
  while ((length = firstRequestLength(conversation.pending)) == 0) {
    if (!receiveSome(conversation)) return false;
  }
  const std::string request = conversation.pending.substr(0, length);
  conversation.enter(*std::find_if(lines_.begin(), lines_.end(),
                                   [&](const Line& line) { return line.meant.isMeant(request); }));
  return true;
}

void ScriptedServer::play(Conversation& conversation, const Step& step) {
  switch (step.kind) {
    case Step::Kind::ExpectRequest:
      return collect(conversation,
                     [](const auto& bytes) { return completeRequestLength(bytes, false); });
    case Step::Kind::ExpectFramedRequest:
      return collect(conversation,
                     [](const auto& bytes) { return completeRequestLength(bytes, true); });
    case Step::Kind::ExpectBytes:
      return collect(conversation, [&step](const auto& bytes) {
        return bytes.size() >= step.count ? step.count : 0;
      });
    case Step::Kind::Send:
      return sendSegments(conversation, step);
    case Step::Kind::Stall:
      return stallUntilReleased(conversation);
    case Step::Kind::AwaitClose:
      while (receiveSome(conversation)) {
      }
      return;
    case Step::Kind::Reset: {
      // Lingering for no time makes the close at the end a reset.
      const linger hard{1, 0};
      ::setsockopt(conversation.descriptor(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
      return;
    }
  }
}

void ScriptedServer::collect(Conversation& conversation,
                             const std::function<std::size_t(const std::string&)>& complete) {
  std::string& pending = conversation.pending;
  std::size_t length = 0;
  while ((length = complete(pending)) == 0) {
    if (!receiveSome(conversation)) return;
  }
  conversation.note([&](ConnectionRecord& record) {
    record.requests.push_back(pending.substr(0, length));
    pending.erase(0, length);
  });
}

bool ScriptedServer::receiveSome(Conversation& conversation) const {
  if (!waitReadable(conversation.descriptor(), stopEvent_)) return false;
  std::array<char, 65536> buffer;
  const auto count = ::recv(conversation.descriptor(), buffer.data(), buffer.size(), 0);
  if (count <= 0) {
    conversation.noteClosed();
    return false;
  }
  const std::string_view bytes(buffer.data(), static_cast<std::size_t>(count));
  conversation.pending.append(bytes);
  conversation.note([&](ConnectionRecord& record) { record.received.append(bytes); });
  return true;
}

void ScriptedServer::sendSegments(Conversation& conversation, const Step& step) {
  const int fd = conversation.descriptor();
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
      if (errno != EAGAIN && errno != EINTR) return conversation.noteClosed();
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

void ScriptedServer::stallUntilReleased(Conversation& conversation) const {
  // Bytes that arrive meanwhile stay unread; POLLRDHUP tells of the client's close without a read.
  std::array<pollfd, 3> fds{pollfd{stopEvent_, POLLIN, 0}, pollfd{releaseEvent_, POLLIN, 0},
                            pollfd{conversation.descriptor(), POLLRDHUP, 0}};
  while (::poll(fds.data(), fds.size(), -1) < 0 && errno == EINTR) {
  }
  if (fds[2].revents != 0) conversation.noteClosed();
}

RefusedPort::RefusedPort() : fd_(bindLoopback(false, port_)) {}

RefusedPort::~RefusedPort() { ::close(fd_); }

}  // namespace tq::test
