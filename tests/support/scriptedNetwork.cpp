#include "tests/support/scriptedNetwork.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <stdexcept>
#include <utility>

#include "infra/oss/kruSystemCalls.h"

namespace tq::test {

namespace {

// Far above what the system hands out, so that a descriptor that slips through is refused by it.
constexpr int kFirstDescriptor = 1 << 30;

struct Peer {
  const Script* script = nullptr;
  std::size_t step = 0;
  std::string pending;               // from the client, not yet part of a complete request
  std::deque<std::string> segments;  // to the client
  bool arrived = false;              // the front segment, somebody having waited for it
  bool closed = false;
  bool broken = false;
};

struct Descriptor {
  bool nonBlocking = false;
  bool connected = false;
  bool connecting = false;
  std::size_t index = 0;  // of the connection
};

int failWith(int error) {
  errno = error;
  return -1;
}

}  // namespace

struct ScriptedNetwork::State {
  std::vector<Script> scripts;
  Arrival arrival;

  std::map<int, Descriptor> descriptors;
  std::deque<Peer> peers;
  std::deque<ConnectionRecord> records;
  int nextDescriptor = kFirstDescriptor;

  // What tests ask for.
  int connectError = 0;
  bool connectsIgnored = false;
  bool lookupsFail = false;
  int writeError = 0;
  std::size_t writesBeforeError = 0;
  std::size_t writeLimit = 0;
  bool released = false;

  // What tests ask about.
  std::size_t attempts = 0;
  std::size_t receives = 0;
  std::size_t writes = 0;
  std::vector<std::size_t> writeSizes;
  std::size_t polls = 0;
  bool waitedForever = false;
  std::uint64_t waitedMillis = 0;
  std::uint64_t ticks = 0;

  void advance(std::size_t index);
  bool play(Peer& peer, ConnectionRecord& record, const Step& step);
  bool hasArrived(const Peer& peer) const {
    return !peer.segments.empty() && (arrival == Arrival::AllThere || peer.arrived);
  }
  void giveUpOn(Peer& peer);
  short readiness(const pollfd& entry, int timeout);
  ssize_t deliver(Peer& peer, void* buffer, size_t length, bool peek);
};

namespace {

ScriptedNetwork::State* active = nullptr;

Descriptor* find(int fd) {
  const auto at = active->descriptors.find(fd);
  return at == active->descriptors.end() ? nullptr : &at->second;
}

int openSocket(int, int type, int) {
  const int fd = active->nextDescriptor++;
  active->descriptors[fd].nonBlocking = (type & SOCK_NONBLOCK) != 0;
  return fd;
}

int connectSocket(int fd, const sockaddr*, socklen_t) {
  auto* descriptor = find(fd);
  if (descriptor == nullptr) return failWith(EBADF);
  ++active->attempts;
  if (active->connectError != 0) return failWith(active->connectError);
  if (active->connectsIgnored) {
    descriptor->connecting = true;
    if (descriptor->nonBlocking) return failWith(EINPROGRESS);
    active->waitedForever = true;
    return failWith(ETIMEDOUT);
  }
  descriptor->connected = true;
  descriptor->index = active->peers.size();
  auto& peer = active->peers.emplace_back();
  peer.script = &active->scripts[std::min(descriptor->index, active->scripts.size() - 1)];
  active->records.emplace_back();
  active->advance(descriptor->index);
  return 0;
}

int pollSockets(pollfd* entries, nfds_t count, int timeout) {
  ++active->polls;
  int ready = 0;
  for (nfds_t i = 0; i < count; ++i) {
    entries[i].revents = active->readiness(entries[i], timeout);
    if (entries[i].revents != 0) ++ready;
  }
  if (ready != 0 || timeout == 0) return ready;
  if (timeout > 0) {
    active->waitedMillis += static_cast<std::uint64_t>(timeout);
    return 0;
  }
  // Nothing will ever come. Breaking the connections ends the wait, and the test is told.
  active->waitedForever = true;
  for (nfds_t i = 0; i < count; ++i) {
    auto* descriptor = find(entries[i].fd);
    if (descriptor != nullptr && descriptor->connected) {
      active->giveUpOn(active->peers[descriptor->index]);
    }
    entries[i].revents = POLLERR;
  }
  return static_cast<int>(count);
}

ssize_t receive(int fd, void* buffer, size_t length, int flags) {
  auto* descriptor = find(fd);
  if (descriptor == nullptr || !descriptor->connected) return failWith(ENOTCONN);
  ++active->receives;
  auto& peer = active->peers[descriptor->index];
  const bool waits = !descriptor->nonBlocking && (flags & MSG_DONTWAIT) == 0;
  if (waits && !peer.segments.empty()) peer.arrived = true;
  if (active->hasArrived(peer)) return active->deliver(peer, buffer, length, flags & MSG_PEEK);
  if (peer.segments.empty() && peer.broken) return failWith(ECONNRESET);
  if (peer.segments.empty() && peer.closed) return 0;
  if (!waits) return failWith(EAGAIN);
  active->giveUpOn(peer);
  return failWith(ECONNRESET);
}

ssize_t sendPieces(int fd, const msghdr* message, int) {
  auto* descriptor = find(fd);
  if (descriptor == nullptr || !descriptor->connected) return failWith(ENOTCONN);
  ++active->writes;
  if (active->writeError != 0 && active->writesBeforeError-- == 0) {
    return failWith(std::exchange(active->writeError, 0));
  }
  auto& peer = active->peers[descriptor->index];
  if (peer.broken) return failWith(EPIPE);
  std::string bytes;
  for (size_t i = 0; i < message->msg_iovlen; ++i) {
    bytes.append(static_cast<const char*>(message->msg_iov[i].iov_base),
                 message->msg_iov[i].iov_len);
  }
  if (active->writeLimit != 0 && bytes.size() > active->writeLimit)
    bytes.resize(active->writeLimit);
  // The kernel takes what goes to a peer that has closed; the reset comes back for it.
  if (peer.closed) peer.broken = true;
  active->writeSizes.push_back(bytes.size());
  active->records[descriptor->index].received += bytes;
  peer.pending += bytes;
  active->advance(descriptor->index);
  return static_cast<ssize_t>(bytes.size());
}

int closeSocket(int fd) {
  auto* descriptor = find(fd);
  if (descriptor == nullptr) return failWith(EBADF);
  if (descriptor->connected) active->records[descriptor->index].clientClosed = true;
  active->descriptors.erase(fd);
  return 0;
}

int setOption(int fd, int, int, const void*, socklen_t) {
  return find(fd) == nullptr ? failWith(EBADF) : 0;
}

int getOption(int fd, int level, int name, void* value, socklen_t* length) {
  const auto* descriptor = find(fd);
  if (descriptor == nullptr) return failWith(EBADF);
  std::memset(value, 0, *length);
  if (level == SOL_SOCKET && name == SO_ERROR && descriptor->connecting) {
    const int error = ETIMEDOUT;
    std::memcpy(value, &error, sizeof error);
  }
  return 0;
}

int controlDescriptor(int fd, int command, int argument) {
  auto* descriptor = find(fd);
  if (descriptor == nullptr) return failWith(EBADF);
  if (command == F_SETFL) descriptor->nonBlocking = (argument & O_NONBLOCK) != 0;
  return command == F_GETFL && descriptor->nonBlocking ? O_NONBLOCK : 0;
}

int lookUp(const char* host, const char* service, const addrinfo* hints, addrinfo** result) {
  if (active->lookupsFail) return EAI_NONAME;
  return tq::oss::realSystemCalls().getaddrinfo(host, service, hints, result);
}

int readClock(clockid_t, timespec* now) {
  // A microsecond a look: whoever spins until a deadline gets there.
  ++active->ticks;
  const auto micros = active->waitedMillis * 1000 + active->ticks;
  now->tv_sec = static_cast<time_t>(1000 + micros / 1000000);
  now->tv_nsec = static_cast<long>(micros % 1000000) * 1000;
  return 0;
}

const tq::oss::SystemCalls& table() {
  static const tq::oss::SystemCalls calls = [] {
    // What is not replaced leaves no trace outside this process.
    auto all = tq::oss::realSystemCalls();
    all.socket = openSocket;
    all.connect = connectSocket;
    all.poll = pollSockets;
    all.recv = receive;
    all.sendmsg = sendPieces;
    all.close = closeSocket;
    all.setsockopt = setOption;
    all.getsockopt = getOption;
    all.fcntl = controlDescriptor;
    all.getaddrinfo = lookUp;
    all.clock_gettime = readClock;
    return all;
  }();
  return calls;
}

}  // namespace

void ScriptedNetwork::State::advance(std::size_t index) {
  auto& peer = peers[index];
  const auto& steps = peer.script->steps();
  while (peer.step < steps.size() && !peer.closed) {
    if (!play(peer, records[index], steps[peer.step])) return;
    ++peer.step;
  }
  peer.closed = true;
}

// True when the step is done.
bool ScriptedNetwork::State::play(Peer& peer, ConnectionRecord& record, const Step& step) {
  std::size_t complete = 0;
  switch (step.kind) {
    case Step::Kind::ExpectRequest:
    case Step::Kind::ExpectFramedRequest:
      complete = completeRequestLength(peer.pending, step.kind == Step::Kind::ExpectFramedRequest);
      break;
    case Step::Kind::ExpectBytes:
      complete = peer.pending.size() >= step.count ? step.count : 0;
      break;
    case Step::Kind::Send: {
      const auto segment = step.count == 0 ? step.bytes.size() : step.count;
      for (std::size_t at = 0; at < step.bytes.size(); at += segment) {
        peer.segments.push_back(step.bytes.substr(at, segment));
      }
      return true;
    }
    case Step::Kind::Stall:
      return released;
    case Step::Kind::AwaitClose:
      return false;
    case Step::Kind::Reset:
      peer.broken = true;
      return true;
  }
  if (complete == 0) return false;
  record.requests.push_back(peer.pending.substr(0, complete));
  peer.pending.erase(0, complete);
  return true;
}

void ScriptedNetwork::State::giveUpOn(Peer& peer) {
  waitedForever = true;
  peer.broken = true;
}

short ScriptedNetwork::State::readiness(const pollfd& entry, int timeout) {
  auto* descriptor = find(entry.fd);
  if (descriptor == nullptr) return POLLNVAL;
  if (!descriptor->connected) return 0;
  auto& peer = peers[descriptor->index];
  short ready = static_cast<short>(entry.events & POLLOUT);
  if (timeout != 0 && !peer.segments.empty()) peer.arrived = true;
  const bool ended = peer.segments.empty() && (peer.closed || peer.broken);
  if (hasArrived(peer) || ended) ready = static_cast<short>(ready | (entry.events & POLLIN));
  return ready;
}

ssize_t ScriptedNetwork::State::deliver(Peer& peer, void* buffer, size_t length, bool peek) {
  auto& front = peer.segments.front();
  const auto count = std::min(length, front.size());
  std::memcpy(buffer, front.data(), count);
  if (peek) return static_cast<ssize_t>(count);
  front.erase(0, count);
  if (front.empty()) {
    peer.segments.pop_front();
    peer.arrived = false;
  }
  return static_cast<ssize_t>(count);
}

ScriptedNetwork::ScriptedNetwork(std::vector<Script> scripts, Arrival arrival)
    : state_(std::make_unique<State>()) {
  if (scripts.empty() || active != nullptr) {
    throw std::logic_error("a scripted network needs a script, and to be alone");
  }
  state_->scripts = std::move(scripts);
  state_->arrival = arrival;
  active = state_.get();
  tq::oss::replaceSystemCalls(&table());
}

ScriptedNetwork::~ScriptedNetwork() {
  tq::oss::replaceSystemCalls(nullptr);
  active = nullptr;
}

void ScriptedNetwork::failConnects(int error) { state_->connectError = error; }
void ScriptedNetwork::ignoreConnects() { state_->connectsIgnored = true; }
void ScriptedNetwork::failLookups() { state_->lookupsFail = true; }
void ScriptedNetwork::failNextWrite(int error, std::size_t behind) {
  state_->writeError = error;
  state_->writesBeforeError = behind;
}
void ScriptedNetwork::limitWrites(std::size_t bytes) { state_->writeLimit = bytes; }

void ScriptedNetwork::release() {
  state_->released = true;
  for (std::size_t i = 0; i < state_->peers.size(); ++i) state_->advance(i);
}

std::size_t ScriptedNetwork::connections() const { return state_->peers.size(); }
std::size_t ScriptedNetwork::connectAttempts() const { return state_->attempts; }
std::size_t ScriptedNetwork::receives() const { return state_->receives; }
std::size_t ScriptedNetwork::writes() const { return state_->writes; }
const std::vector<std::size_t>& ScriptedNetwork::writeSizes() const { return state_->writeSizes; }
std::size_t ScriptedNetwork::polls() const { return state_->polls; }
bool ScriptedNetwork::waitedForever() const { return state_->waitedForever; }
std::uint64_t ScriptedNetwork::elapsedMillis() const { return state_->waitedMillis; }

std::size_t ScriptedNetwork::requests() const {
  std::size_t total = 0;
  for (const auto& record : state_->records) total += record.requests.size();
  return total;
}

const ConnectionRecord& ScriptedNetwork::connection(std::size_t index) const {
  return state_->records.at(index);
}

}  // namespace tq::test
