#include "tests/support/simulatedKernel.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

#include "infra/oss/kruSystemCalls.h"

namespace tq::test {

namespace {

// Far above what the system hands out, so that a descriptor that slips through is refused by it.
constexpr int kFirstDescriptor = 1 << 30;
constexpr std::uint64_t kNanosPerMilli = 1000000;
constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

SimulatedKernel* active = nullptr;
void (*workListener)(bool) = nullptr;

class Work {
 public:
  Work() {
    if (workListener != nullptr) workListener(true);
  }
  ~Work() {
    if (workListener != nullptr) workListener(false);
  }
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;
};

int failWith(int error) {
  errno = error;
  return -1;
}

bool breaksConnection(int error) {
  return error == ECONNRESET || error == EPIPE || error == ETIMEDOUT || error == EHOSTUNREACH;
}

/// What a shortened call moves.
std::size_t lengthOf(const Fault& fault) {
  return fault.value > 1 ? static_cast<std::size_t>(fault.value) : 1;
}

bool is(const std::optional<Fault>& fault, Fault::Kind kind) {
  return fault && fault->kind == kind;
}

}  // namespace

void Wire::send(std::string_view bytes, std::uint64_t delay, bool extra) {
  if (!bytes.empty()) add({Arrival::Kind::Bytes, delay, extra, std::string(bytes)});
}

void Wire::close(std::uint64_t delay) { add({Arrival::Kind::Close, delay}); }
void Wire::reset(std::uint64_t delay) { add({Arrival::Kind::Reset, delay}); }

void Wire::add(Arrival arrival) {
  if (!open_ || ended_) return;
  ended_ = arrival.kind != Arrival::Kind::Bytes;
  if (arrival.at != kOnDemand) {
    arrival.at += *now_;
    // What comes on demand has no time, and leaves that of what follows as it is.
    if (!arrivals_.empty() && arrivals_.back().at != kOnDemand) {
      arrival.at = std::max(arrival.at, arrivals_.back().at);
    }
  }
  countOf(arrival) += arrival.bytes.size();
  arrivals_.push_back(std::move(arrival));
}

/// The client has received this many bytes of the first arrival.
void Wire::take(std::size_t count) {
  Arrival& front = arrivals_.front();
  extraReceived_ = extraReceived_ || front.extra;
  front.taken += count;
  countOf(front) -= count;
  if (front.taken != front.bytes.size()) return;
  arrivals_.pop_front();
  --arrived_;
}

/// Only for what has not arrived.
void Wire::drop(std::deque<Arrival>::iterator arrival) {
  countOf(*arrival) -= arrival->bytes.size() - arrival->taken;
  arrivals_.erase(arrival);
}

void Wire::dropFrom(std::size_t first) {
  arrived_ = std::min(arrived_, first);
  while (arrivals_.size() > first) drop(arrivals_.end() - 1);
}

void Wire::withdrawExtra(std::uint64_t delay) {
  for (std::size_t i = arrivals_.size(); i-- > arrived_;) {
    if (arrivals_[i].extra && arrivals_[i].at >= *now_ + delay) {
      drop(arrivals_.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }
}

bool Wire::extraArrived() const {
  const auto waits = [&](const Arrival& arrival) { return arrival.extra && arrival.at <= *now_; };
  return extraReceived_ || std::any_of(arrivals_.begin(), arrivals_.end(), waits);
}

std::size_t Wire::fingerprint() const {
  std::size_t all = 0;
  const auto mix = [&](std::size_t value) { all = (all ^ value) * 0x9E3779B97F4A7C15U; };
  mix(ended_ * 8U + closed_ * 4U + dead_ * 2U + (pendingError_ != 0));
  for (const Arrival& arrival : arrivals_) {
    mix(static_cast<std::size_t>(arrival.kind) * 2 + arrival.extra);
    mix(arrival.at > *now_ ? arrival.at - *now_ : 0);
    mix(arrival.bytes.size() - arrival.taken);
  }
  return all;
}

void Wire::die(int error) {
  dead_ = ended_ = true;
  pendingError_ = error;
  // What has arrived can still be read; what has not never will.
  dropFrom(arrived_);
}

/// The functions that stand in for the system's.
class SimulatedKernel::Calls {
 public:
  static const tq::oss::SystemCalls& table() {
    static const tq::oss::SystemCalls calls = [] {
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
      all.freeaddrinfo = forgetAddresses;
      all.clock_gettime = readClock;
      return all;
    }();
    return calls;
  }

 private:
  static std::optional<Fault> enter(Entry entry, Phase phase, std::size_t awaited = 0) {
    if (active->options_.beforeCall) active->options_.beforeCall();
    return active->faults_.enter(entry, phase, awaited);
  }

  static int openSocket(int, int type, int) {
    const Work work;
    const auto fault = enter(Entry::Socket, Phase::Connect);
    if (fault) return failWith(fault->value);
    if (active->sockets_.size() == active->options_.maxSockets) return failWith(EMFILE);
    Wire& wire = active->sockets_.emplace_back();
    wire.now_ = &active->now_;
    wire.nonBlocking_ = (type & SOCK_NONBLOCK) != 0;
    return kFirstDescriptor + static_cast<int>(active->sockets_.size()) - 1;
  }

  static int setOption(int fd, int level, int name, const void*, socklen_t) {
    const Work work;
    const auto fault = enter(Entry::Setsockopt, Phase::Connect);
    Wire* wire = active->find(fd);
    if (wire == nullptr) return failWith(EBADF);
    if (fault) return failWith(fault->value);
    if (level == IPPROTO_TCP && name == TCP_NODELAY) active->pushOut(*wire);
    return 0;
  }

  static int connectSocket(int fd, const sockaddr*, socklen_t) {
    const Work work;
    const auto fault = enter(Entry::Connect, Phase::Connect);
    Wire* wire = active->find(fd);
    if (wire == nullptr) return failWith(EBADF);
    if (wire->state_ == Wire::State::Established) {
      return std::exchange(wire->connectPending_, false) ? 0 : failWith(EISCONN);
    }
    active->connectTimes_.push_back(active->now_);
    if (is(fault, Fault::Kind::Error)) return failWith(fault->value);
    const bool stalls = is(fault, Fault::Kind::Stall) || active->options_.neverAccepts;
    const bool interrupted = is(fault, Fault::Kind::Interrupt);
    if (stalls || interrupted || active->options_.connectInBackground) {
      wire->state_ = Wire::State::Connecting;
      wire->neverConnects_ = stalls;
      return failWith(interrupted ? EINTR : EINPROGRESS);
    }
    if (active->options_.connectError != 0) return failWith(active->options_.connectError);
    active->establish(*wire);
    return 0;
  }

  static int getOption(int fd, int level, int name, void* value, socklen_t* length) {
    const Work work;
    const auto fault = enter(Entry::Getsockopt, Phase::Connect);
    Wire* wire = active->find(fd);
    if (wire == nullptr) return failWith(EBADF);
    if (is(fault, Fault::Kind::Error)) return failWith(fault->value);
    if (is(fault, Fault::Kind::SoError)) wire->die(fault->value);
    active->arrive(*wire, false);
    std::memset(value, 0, *length);
    if (level != SOL_SOCKET || name != SO_ERROR) return 0;
    const int error = std::exchange(wire->pendingError_, 0);
    std::memcpy(value, &error, sizeof error);
    return 0;
  }

  static int controlDescriptor(int fd, int command, int argument) {
    const Work work;
    const auto fault = enter(Entry::Fcntl, Phase::Connect);
    Wire* wire = active->find(fd);
    if (wire == nullptr) return failWith(EBADF);
    if (fault) return failWith(fault->value);
    if (command == F_SETFL) wire->nonBlocking_ = (argument & O_NONBLOCK) != 0;
    return command == F_GETFL && wire->nonBlocking_ ? O_NONBLOCK : 0;
  }

  static int pollSockets(pollfd* entries, nfds_t count, int timeout) {
    const Work work;
    Wire* wire = count == 1 ? active->find(entries[0].fd) : nullptr;
    Phase phase = Phase::Clock;
    std::size_t awaited = 0;
    if (wire != nullptr) {
      const bool writes = (entries[0].events & POLLOUT) != 0;
      const bool connects = wire->state_ != Wire::State::Established;
      phase = connects ? Phase::Connect : (writes ? Phase::Send : Phase::Receive);
      awaited = wire->awaited();
    }
    const auto fault = enter(Entry::Poll, phase, awaited);
    if (is(fault, Fault::Kind::Error)) return failWith(fault->value);
    if (is(fault, Fault::Kind::Interrupt)) return failWith(EINTR);
    if (is(fault, Fault::Kind::Stall) && wire != nullptr) {
      wire->stalled_ = wire->neverConnects_ = true;
    }
    return active->await(entries, count, timeout);
  }

  static ssize_t receive(int fd, void* buffer, size_t length, int flags) {
    const Work work;
    Wire* wire = active->find(fd);
    const bool quiet = wire == nullptr || wire->drained();
    const auto fault = enter(Entry::Recv, quiet ? Phase::Look : Phase::Receive,
                             wire != nullptr ? wire->awaited() : 0);
    if (wire == nullptr) return failWith(EBADF);
    if (wire->state_ == Wire::State::Fresh) return failWith(ENOTCONN);
    if (fault) {
      const int error = applyToReceive(*wire, *fault, length);
      if (error != 0) return failWith(error);
    }
    const bool waits = !wire->nonBlocking_ && (flags & MSG_DONTWAIT) == 0;
    if (!active->arrive(*wire, waits)) {
      if (!waits) return failWith(EAGAIN);
      pollfd entry{fd, POLLIN, 0};
      active->await(&entry, 1, -1);
    }
    const ssize_t count =
        active->deliver(*wire, static_cast<char*>(buffer), length, (flags & MSG_PEEK) != 0);
    if (count > 0) active->faults_.moved();
    return count;
  }

  /// The errno that the receive fails with; 0 when it goes on.
  static int applyToReceive(Wire& wire, const Fault& fault, size_t& length) {
    switch (fault.kind) {
      case Fault::Kind::Interrupt:
        return EINTR;
      case Fault::Kind::WouldBlock:
        return EAGAIN;
      case Fault::Kind::Short:
        length = std::min(length, lengthOf(fault));
        return 0;
      case Fault::Kind::Eof:
        wire.dropFrom(0);
        wire.closed_ = wire.ended_ = true;
        return 0;
      case Fault::Kind::Stall:
        wire.stalled_ = true;
        return 0;
      default:
        if (breaksConnection(fault.value)) {
          wire.dropFrom(0);
          wire.die(0);
        }
        return fault.value;
    }
  }

  static ssize_t sendPieces(int fd, const msghdr* message, int flags) {
    const Work work;
    const auto fault = enter(Entry::Sendmsg, Phase::Send);
    Wire* wire = active->find(fd);
    if (wire == nullptr) return failWith(EBADF);
    if (wire->state_ != Wire::State::Established) return failWith(EPIPE);
    std::size_t limit = active->options_.maxWrite;
    if (is(fault, Fault::Kind::Interrupt)) return failWith(EINTR);
    if (is(fault, Fault::Kind::WouldBlock)) return failWith(EAGAIN);
    if (is(fault, Fault::Kind::Stall)) wire->stalled_ = true;
    if (is(fault, Fault::Kind::Short)) limit = lengthOf(*fault);
    if (is(fault, Fault::Kind::Error)) {
      if (breaksConnection(fault->value)) wire->die(0);
      return failWith(fault->value);
    }
    active->arrive(*wire, false);
    if (wire->pendingError_ != 0) return failWith(std::exchange(wire->pendingError_, 0));
    if (wire->dead_) return failWith(EPIPE);
    return write(*wire, message, limit, flags);
  }

  static ssize_t write(Wire& wire, const msghdr* message, std::size_t limit, int flags) {
    const bool waits = !wire.nonBlocking_ && (flags & MSG_DONTWAIT) == 0;
    const std::size_t room = active->roomOf(wire);
    const bool unawaited =
        !waits && active->options_.writesWait && !std::exchange(wire.roomAwaited_, false);
    if (room == 0 || unawaited) {
      if (!waits) return failWith(EAGAIN);
      active->breakOff(wire);
      return failWith(std::exchange(wire.pendingError_, 0));
    }
    std::string bytes;
    for (size_t i = 0; i < message->msg_iovlen; ++i) {
      bytes.append(static_cast<const char*>(message->msg_iov[i].iov_base),
                   message->msg_iov[i].iov_len);
    }
    bytes.resize(std::min({bytes.size(), room, limit}));
    active->now_ += active->options_.writeMillis * kNanosPerMilli;
    if ((flags & MSG_MORE) != 0 && !wire.closed_) {
      active->holdBack(wire, bytes);
    } else {
      active->pushOut(wire);
      active->take(wire, bytes);
    }
    if (!bytes.empty()) active->faults_.moved();
    return static_cast<ssize_t>(bytes.size());
  }

  static int closeSocket(int fd) {
    const Work work;
    const auto fault = enter(Entry::Close, Phase::Close);
    Wire* wire = active->find(fd);
    if (wire == nullptr) return failWith(EBADF);
    // As the system does it: the descriptor is gone whatever the call reports.
    active->pushOut(*wire);
    wire->open_ = false;
    wire->dropFrom(0);
    if (wire->state_ == Wire::State::Established) active->peers_[wire->index_]->closed(*wire);
    if (is(fault, Fault::Kind::Interrupt)) return failWith(EINTR);
    return fault ? failWith(fault->value) : 0;
  }

  static int lookUp(const char* host, const char* service, const addrinfo* hints,
                    addrinfo** result) {
    const Work work;
    const auto fault = enter(Entry::Getaddrinfo, Phase::Resolve);
    active->now_ += active->options_.resolveMillis * kNanosPerMilli;
    if (is(fault, Fault::Kind::Interrupt)) {
      errno = EINTR;
      return EAI_SYSTEM;
    }
    if (fault) {
      errno = EMFILE;
      return fault->value;
    }
    if (active->options_.knowsNoName) return EAI_NONAME;
    const auto& real = tq::oss::realSystemCalls();
    if (active->options_.addresses.empty()) return real.getaddrinfo(host, service, hints, result);
    addrinfo** end = result;
    for (const auto& address : active->options_.addresses) {
      const int code = real.getaddrinfo(address.c_str(), service, hints, end);
      if (code != 0) return code;
      end = &(*end)->ai_next;
    }
    return 0;
  }

  static void forgetAddresses(addrinfo* addresses) {
    const Work work;
    tq::oss::realSystemCalls().freeaddrinfo(addresses);
  }

  static int readClock(clockid_t, timespec* out) {
    const Work work;
    const auto fault = enter(Entry::Clock, Phase::Clock);
    if (is(fault, Fault::Kind::Delay)) {
      active->now_ += static_cast<std::uint64_t>(fault->value) * kNanosPerMilli;
    } else if (fault) {
      return failWith(fault->value);
    }
    if (active->faults_.count(Entry::Clock) >= active->options_.clockFailsFrom) {
      return failWith(EPERM);
    }
    active->now_ += active->options_.clockStep;
    out->tv_sec = static_cast<time_t>(active->now_ / 1000000000U);
    out->tv_nsec = static_cast<long>(active->now_ % 1000000000U);
    return 0;
  }
};

SimulatedKernel::SimulatedKernel(const Options& options, Accept accept)
    : options_(options), accept_(std::move(accept)) {
  if (active != nullptr) throw std::logic_error("a simulated kernel must be alone");
  active = this;
  tq::oss::replaceSystemCalls(&Calls::table());
}

SimulatedKernel::~SimulatedKernel() {
  tq::oss::replaceSystemCalls(nullptr);
  active = nullptr;
}

void SimulatedKernel::tellOfWork(void (*listener)(bool begins)) { workListener = listener; }

std::size_t SimulatedKernel::openDescriptors() const {
  return static_cast<std::size_t>(
      std::count_if(sockets_.begin(), sockets_.end(), [](const Wire& w) { return w.open_; }));
}

Wire* SimulatedKernel::find(int fd) {
  if (fd < 0) return nullptr;
  const auto at = static_cast<std::size_t>(fd) - kFirstDescriptor;
  if (fd >= kFirstDescriptor && at < sockets_.size() && sockets_[at].open_) return &sockets_[at];
  ++misused_;
  return nullptr;
}

void SimulatedKernel::establish(Wire& wire) {
  wire.state_ = Wire::State::Established;
  wire.index_ = connections_.size();
  connections_.push_back(&wire);
  peers_.push_back(accept_(wire.index_));
  peers_.back()->accepted(wire);
}

/// Lets arrive what is due. True when a receive would return at once.
bool SimulatedKernel::arrive(Wire& wire, bool waits) {
  if (wire.stalled_) return false;
  while (wire.arrived_ < wire.arrivals_.size()) {
    const Wire::Arrival& next = wire.arrivals_[wire.arrived_];
    const bool onDemand = next.at == Wire::kOnDemand;
    if (onDemand ? !waits || wire.arrived_ != 0 : next.at > now_) break;
    if (next.kind == Wire::Arrival::Kind::Bytes) {
      ++wire.arrived_;
      continue;
    }
    const bool reset = next.kind == Wire::Arrival::Kind::Reset;
    wire.dropFrom(wire.arrived_);
    wire.closed_ = !reset;
    if (reset) wire.die(ECONNRESET);
  }
  return wire.arrived_ != 0 || wire.closed_ || wire.dead_;
}

short SimulatedKernel::readiness(Wire& wire, short events, bool waits) {
  if (wire.state_ == Wire::State::Connecting && waits && !wire.neverConnects_) {
    if (options_.connectError == 0) {
      wire.connectPending_ = true;
      establish(wire);
    } else {
      wire.die(options_.connectError);
    }
  }
  if (wire.state_ == Wire::State::Connecting && !wire.dead_) return 0;
  if (wire.state_ == Wire::State::Fresh) return static_cast<short>(POLLHUP | (events & POLLOUT));
  const bool readable = (events & POLLIN) != 0 && arrive(wire, waits);
  int ready = readable ? POLLIN : 0;
  if ((events & POLLOUT) != 0 && (wire.dead_ || roomOf(wire) != 0)) {
    wire.roomAwaited_ = true;
    ready |= POLLOUT;
  }
  if (wire.pendingError_ != 0) ready |= POLLERR;
  if (wire.dead_) ready |= POLLHUP | (events & POLLIN);
  return static_cast<short>(ready);
}

std::size_t SimulatedKernel::roomOf(const Wire& wire) const {
  return wire.stalled_ ? 0 : options_.window - std::min(options_.window, wire.taken_);
}

/// When the first of the sockets has something to receive; the largest value for never.
std::uint64_t SimulatedKernel::nextArrival(const pollfd* entries, nfds_t count) {
  std::uint64_t first = kNever;
  for (nfds_t i = 0; i < count; ++i) {
    const Wire* wire = find(entries[i].fd);
    if (wire == nullptr || wire->stalled_ || wire->arrivals_.empty()) continue;
    if ((entries[i].events & POLLIN) == 0) continue;
    first = std::min(first, wire->arrivals_.front().at);
  }
  return first;
}

int SimulatedKernel::await(pollfd* entries, nfds_t count, int timeout) {
  const std::uint64_t begun = now_;
  const int found = pass(entries, count, timeout);
  if (count != 0) longestWait_ = std::max(longestWait_, now_ - begun);
  return found;
}

/// Lets the time pass until something is found or the time is over.
int SimulatedKernel::pass(pollfd* entries, nfds_t count, int timeout) {
  const std::uint64_t end =
      timeout < 0 ? kNever : now_ + static_cast<std::uint64_t>(timeout) * kNanosPerMilli;
  for (;;) {
    int found = 0;
    for (nfds_t i = 0; i < count; ++i) {
      Wire* wire = find(entries[i].fd);
      entries[i].revents = POLLNVAL;
      if (entries[i].fd < 0) entries[i].revents = 0;
      if (wire != nullptr) entries[i].revents = readiness(*wire, entries[i].events, timeout != 0);
      if (entries[i].revents != 0) ++found;
    }
    if (found != 0 || timeout == 0) return found;
    const std::uint64_t arrival = nextArrival(entries, count);
    if (arrival != kNever && arrival <= end) {
      now_ = std::max(now_, arrival);
    } else if (timeout >= 0) {
      now_ = std::max(now_, end);
      return 0;
    } else if (count == 0) {
      throw std::logic_error("a wait for nothing, without a limit");
    } else {
      for (nfds_t i = 0; i < count; ++i) {
        if (Wire* wire = find(entries[i].fd)) breakOff(*wire);
      }
    }
  }
}

/// Ends a wait that nothing would end.
void SimulatedKernel::breakOff(Wire& wire) {
  ++waitsForever_;
  wire.stalled_ = false;
  wire.die(wire.state_ == Wire::State::Established ? ECONNRESET : ETIMEDOUT);
}

ssize_t SimulatedKernel::deliver(Wire& wire, char* out, std::size_t length, bool keep) {
  if (options_.maxReceive) length = std::min(length, options_.maxReceive());
  std::size_t count = 0;
  while (wire.arrived_ != 0 && count < length) {
    const auto& front = wire.arrivals_.front();
    const auto piece = std::min(length - count, front.bytes.size() - front.taken);
    std::copy_n(front.bytes.data() + front.taken, piece, out + count);
    count += piece;
    if (keep) break;
    wire.take(piece);
    bytesReceived_ += piece;
    if (!options_.receivesJoin) break;
  }
  if (count != 0 || wire.closed_) return static_cast<ssize_t>(count);
  if (wire.pendingError_ != 0) return failWith(std::exchange(wire.pendingError_, 0));
  return 0;
}

/// What was written as a beginning waits for the rest for ever, where a system would wait for a
/// while: whoever forgets the rest is found out.
void SimulatedKernel::holdBack(Wire& wire, std::string bytes) {
  wire.taken_ += bytes.size();
  wire.heldBack_.push_back(std::move(bytes));
}

void SimulatedKernel::pushOut(Wire& wire) {
  for (const std::string& bytes : std::exchange(wire.heldBack_, {})) {
    if (wire.dead_) return;
    wire.taken_ -= bytes.size();
    take(wire, bytes);
  }
}

void SimulatedKernel::take(Wire& wire, std::string_view bytes) {
  wire.taken_ += bytes.size();
  if (wire.closed_) {
    // The kernel takes what goes to a peer that has closed; the reset comes back for it.
    wire.die(EPIPE);
    peers_[wire.index_]->receivedAfterClose(wire, bytes);
  } else {
    peers_[wire.index_]->received(wire, bytes);
  }
}

}  // namespace tq::test
