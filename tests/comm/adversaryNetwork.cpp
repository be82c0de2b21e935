#include "tests/comm/adversaryNetwork.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "infra/oss/kruSystemCalls.h"
#include "tests/support/script.h"

namespace tq::test {

namespace {

// Far above what the system hands out, so that a descriptor that slips through is refused by it.
constexpr int kFirstDescriptor = 1 << 30;
constexpr std::uint64_t kMicrosPerMilli = 1000;

struct Event {
  enum class Kind { Data, Close, Reset };
  Kind kind;
  std::uint64_t at;
  bool asked = true;
  std::string bytes{};
  std::size_t taken = 0;
};

struct Connection {
  bool open = false;
  bool nonBlocking = true;
  std::size_t index = 0;
  std::string pending{};  // from the client, not yet part of a complete request
  std::deque<Event> events{};
  std::uint64_t last = 0;  // when the last of the events happens
  bool ended = false;      // nothing comes behind them
  bool tookUnasked = false;
};

int failWith(int error) {
  errno = error;
  return -1;
}

}  // namespace

struct TimedNetwork::State {
  bool framed;
  bool joined;
  Answer answer;

  std::uint64_t now = 0;
  std::vector<Connection> descriptors{};
  std::vector<std::size_t> descriptorOf{};  // of each connection
  bool waitedForever = false;
  std::uint64_t longestWait = 0;
  std::uint64_t calls = 0;
  std::uint64_t bytesTaken = 0;

  bool connectFails = false;
  std::optional<std::size_t> writeFailsBehind{};

  Connection& connection(std::size_t index) { return descriptors[descriptorOf[index]]; }
  void add(std::size_t index, Event event);
  bool ready(const Connection& peer) const {
    return !peer.events.empty() && peer.events.front().at <= now;
  }
  void awaitEvent(Connection& peer);
  void waitUntil(std::uint64_t time) {
    if (time <= now) return;
    longestWait = std::max(longestWait, time - now);
    now = time;
  }
  ssize_t deliver(Connection& peer, char* out, size_t length);
  void take(Connection& peer, std::string bytes);
  void dropUnasked(Connection& peer, std::uint64_t from);
};

namespace {

TimedNetwork::State* active = nullptr;

Connection* find(int fd) {
  const auto at = static_cast<std::size_t>(fd - kFirstDescriptor);
  const bool known = fd >= kFirstDescriptor && at < active->descriptors.size();
  return known && active->descriptors[at].open ? &active->descriptors[at] : nullptr;
}

int openSocket(int, int, int) {
  active->descriptors.push_back({.open = true});
  return kFirstDescriptor + static_cast<int>(active->descriptors.size()) - 1;
}

int connectSocket(int fd, const sockaddr*, socklen_t) {
  auto* peer = find(fd);
  if (peer == nullptr) return failWith(EBADF);
  if (std::exchange(active->connectFails, false)) return failWith(ECONNREFUSED);
  peer->index = active->descriptorOf.size();
  active->descriptorOf.push_back(static_cast<std::size_t>(fd - kFirstDescriptor));
  return 0;
}

int pollSockets(pollfd* entries, nfds_t count, int timeout) {
  ++active->calls;
  // A pause between two attempts.
  if (count == 0) {
    active->now += static_cast<std::uint64_t>(timeout) * kMicrosPerMilli;
    return 0;
  }
  if (count != 1) return failWith(EINVAL);
  auto* peer = find(entries->fd);
  if (peer == nullptr) return failWith(EBADF);
  entries->revents = entries->events & POLLOUT;
  if ((entries->events & POLLIN) != 0 && !active->ready(*peer)) {
    const auto limit = active->now + static_cast<std::uint64_t>(timeout) * kMicrosPerMilli;
    if (timeout < 0) {
      active->awaitEvent(*peer);
    } else if (peer->events.empty() || peer->events.front().at > limit) {
      active->waitUntil(limit);
      return entries->revents != 0 ? 1 : 0;
    } else {
      active->waitUntil(peer->events.front().at);
    }
  }
  entries->revents = static_cast<short>(entries->revents | (entries->events & POLLIN));
  return entries->revents != 0 ? 1 : 0;
}

ssize_t receive(int fd, void* buffer, size_t length, int flags) {
  ++active->calls;
  auto* peer = find(fd);
  if (peer == nullptr) return failWith(ENOTCONN);
  if (!active->ready(*peer)) {
    if (peer->nonBlocking || (flags & MSG_DONTWAIT) != 0) return failWith(EAGAIN);
    active->awaitEvent(*peer);
  }
  return active->deliver(*peer, static_cast<char*>(buffer), length);
}

ssize_t sendPieces(int fd, const msghdr* message, int) {
  ++active->calls;
  auto* peer = find(fd);
  if (peer == nullptr) return failWith(ENOTCONN);
  std::string bytes;
  for (size_t i = 0; i < message->msg_iovlen; ++i) {
    bytes.append(static_cast<const char*>(message->msg_iov[i].iov_base),
                 message->msg_iov[i].iov_len);
  }
  auto& failsBehind = active->writeFailsBehind;
  if (failsBehind) {
    if (*failsBehind == 0) {
      failsBehind.reset();
      return failWith(ECONNRESET);
    }
    bytes.resize(std::min(bytes.size(), std::exchange(*failsBehind, 0)));
  }
  const auto count = static_cast<ssize_t>(bytes.size());
  active->take(*peer, std::move(bytes));
  return count;
}

int closeSocket(int fd) {
  auto* peer = find(fd);
  if (peer == nullptr) return failWith(EBADF);
  peer->open = false;
  peer->events.clear();
  return 0;
}

int setOption(int fd, int, int, const void*, socklen_t) {
  return find(fd) == nullptr ? failWith(EBADF) : 0;
}

int controlDescriptor(int fd, int command, int argument) {
  auto* peer = find(fd);
  if (peer == nullptr) return failWith(EBADF);
  if (command == F_SETFL) peer->nonBlocking = (argument & O_NONBLOCK) != 0;
  return 0;
}

int lookUp(const char*, const char*, const addrinfo*, addrinfo** result) {
  static sockaddr_in address = [] {
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return loopback;
  }();
  static addrinfo found = [] {
    addrinfo info{};
    info.ai_family = AF_INET;
    info.ai_socktype = SOCK_STREAM;
    info.ai_addrlen = sizeof address;
    info.ai_addr = reinterpret_cast<sockaddr*>(&address);
    return info;
  }();
  *result = &found;
  return 0;
}

void forgetAddresses(addrinfo*) {}

int readClock(clockid_t, timespec* now) {
  now->tv_sec = static_cast<time_t>(1000 + active->now / 1000000);
  now->tv_nsec = static_cast<long>(active->now % 1000000) * 1000;
  return 0;
}

const tq::oss::SystemCalls& table() {
  static const tq::oss::SystemCalls calls = [] {
    auto all = tq::oss::realSystemCalls();
    all.socket = openSocket;
    all.connect = connectSocket;
    all.poll = pollSockets;
    all.recv = receive;
    all.sendmsg = sendPieces;
    all.close = closeSocket;
    all.setsockopt = setOption;
    all.fcntl = controlDescriptor;
    all.getaddrinfo = lookUp;
    all.freeaddrinfo = forgetAddresses;
    all.clock_gettime = readClock;
    return all;
  }();
  return calls;
}

}  // namespace

void TimedNetwork::State::add(std::size_t index, Event event) {
  Connection& peer = connection(index);
  if (!peer.open || peer.ended) return;
  event.at = peer.last = std::max(event.at + now, peer.last);
  peer.ended = event.kind != Event::Kind::Data;
  peer.events.push_back(std::move(event));
}

void TimedNetwork::State::awaitEvent(Connection& peer) {
  if (peer.events.empty()) {
    waitedForever = true;
    peer.events.push_back({Event::Kind::Reset, now});
    peer.ended = true;
  }
  waitUntil(peer.events.front().at);
}

ssize_t TimedNetwork::State::deliver(Connection& peer, char* out, size_t length) {
  size_t count = 0;
  while (ready(peer) && count < length) {
    Event& event = peer.events.front();
    if (event.kind != Event::Kind::Data) {
      // The end stays, for whoever asks again.
      if (count != 0) break;
      return event.kind == Event::Kind::Close ? 0 : failWith(ECONNRESET);
    }
    const size_t piece = std::min(length - count, event.bytes.size() - event.taken);
    std::memcpy(out + count, event.bytes.data() + event.taken, piece);
    count += piece;
    if (!event.asked) peer.tookUnasked = true;
    event.taken += piece;
    if (event.taken == event.bytes.size()) peer.events.pop_front();
    if (!joined) break;
  }
  bytesTaken += count;
  return static_cast<ssize_t>(count);
}

void TimedNetwork::State::take(Connection& peer, std::string bytes) {
  const std::size_t index = peer.index;
  if (ready(peer) && peer.events.back().kind == Event::Kind::Close && peer.last <= now) {
    // The system takes what goes to a peer that has closed; the reset comes back for it.
    peer.events.back().kind = Event::Kind::Reset;
  }
  if (peer.pending.empty()) {
    dropUnasked(peer, now + 1);
  }
  peer.pending += bytes;
  while (const std::size_t length = completeRequestLength(connection(index).pending, framed)) {
    const std::string request = connection(index).pending.substr(0, length);
    connection(index).pending.erase(0, length);
    answer(index, request);
    // The next request has begun already: there is no time for anything unasked.
    if (!connection(index).pending.empty()) dropUnasked(connection(index), now);
  }
}

void TimedNetwork::State::dropUnasked(Connection& peer, std::uint64_t from) {
  std::erase_if(peer.events, [&](const Event& e) { return !e.asked && e.at >= from; });
  peer.last = peer.events.empty() ? now : peer.events.back().at;
}

TimedNetwork::TimedNetwork(bool framed, bool joined, Answer answer)
    : state_(std::make_unique<State>(State{framed, joined, std::move(answer)})) {
  if (active != nullptr) throw std::logic_error("a network in memory needs to be alone");
  active = state_.get();
  tq::oss::replaceSystemCalls(&table());
}

TimedNetwork::~TimedNetwork() {
  tq::oss::replaceSystemCalls(nullptr);
  active = nullptr;
}

void TimedNetwork::send(std::size_t connection, std::string bytes, std::uint64_t delay) {
  if (bytes.empty()) return;
  state_->add(connection, {Event::Kind::Data, delay, true, std::move(bytes)});
}

void TimedNetwork::sendUnasked(std::size_t connection, std::string bytes, std::uint64_t delay) {
  if (bytes.empty()) return;
  state_->add(connection, {Event::Kind::Data, delay, false, std::move(bytes)});
}

void TimedNetwork::close(std::size_t connection, std::uint64_t delay) {
  state_->add(connection, {Event::Kind::Close, delay});
}

void TimedNetwork::reset(std::size_t connection, std::uint64_t delay) {
  state_->add(connection, {Event::Kind::Reset, delay});
}

void TimedNetwork::fallSilent(std::size_t connection) {
  state_->connection(connection).ended = true;
}

void TimedNetwork::idle(std::uint64_t micros) { state_->now += micros; }

void TimedNetwork::failNextConnect() { state_->connectFails = true; }
void TimedNetwork::failNextWrite(std::size_t behind) { state_->writeFailsBehind = behind; }

void TimedNetwork::heal() {
  state_->connectFails = false;
  state_->writeFailsBehind.reset();
}

std::size_t TimedNetwork::connections() const { return state_->descriptorOf.size(); }
std::uint64_t TimedNetwork::nowMicros() const { return state_->now; }
bool TimedNetwork::takeWaitedForever() { return std::exchange(state_->waitedForever, false); }
std::uint64_t TimedNetwork::takeLongestWait() { return std::exchange(state_->longestWait, 0); }
std::uint64_t TimedNetwork::calls() const { return state_->calls; }
std::uint64_t TimedNetwork::bytesTaken() const { return state_->bytesTaken; }

bool TimedNetwork::holdsUnasked(std::size_t connection) const {
  const Connection& peer = state_->connection(connection);
  const auto waits = [&](const Event& e) { return !e.asked && e.at <= state_->now; };
  return peer.tookUnasked || std::any_of(peer.events.begin(), peer.events.end(), waits);
}

std::size_t TimedNetwork::fingerprint() const {
  std::size_t all = 0;
  const auto mix = [&](std::size_t value) { all = (all ^ value) * 0x9E3779B97F4A7C15U; };
  for (const Connection& peer : state_->descriptors) {
    if (!peer.open) continue;
    mix(peer.pending.size());
    mix(peer.ended);
    for (const Event& event : peer.events) {
      mix(static_cast<std::size_t>(event.kind) * 2 + event.asked);
      mix(event.at > state_->now ? event.at - state_->now : 0);
      mix(event.bytes.size() - event.taken);
    }
  }
  return all;
}

}  // namespace tq::test
