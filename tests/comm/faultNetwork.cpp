#include "tests/comm/faultNetwork.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

#include "infra/oss/kruSystemCalls.h"
#include "tests/support/script.h"

namespace tq::test {

namespace {

// Far above what the system hands out, so that a descriptor that slips through is refused by it.
constexpr int kFirstDescriptor = 1 << 30;
constexpr std::uint64_t kNanosPerMilli = 1000000;
constexpr std::uint64_t kStartNanos = 1000000 * kNanosPerMilli;
constexpr std::uint64_t kClockStepNanos = 1000;

struct Segment {
  std::string bytes;
  bool tail = false;
  std::uint64_t arrivesAt = 0;  // 0: when somebody waits for it
  bool arrived = false;
};

struct Descriptor {
  bool nonBlocking = false;
  bool established = false;
  bool connecting = false;
  int connectError = 0;
  bool neverConnects = false;

  bool stalled = false;
  bool broken = false;      // a reset: nothing more goes in either direction
  bool peerClosed = false;  // behind the segments that are there
  bool roomAwaited = false;
  std::size_t taken = 0;
  std::string pending;
  std::deque<Segment> segments;
};

int failWith(int error) {
  errno = error;
  return -1;
}

bool breaksConnection(int error) {
  return error == ECONNRESET || error == EPIPE || error == ETIMEDOUT || error == EHOSTUNREACH;
}

}  // namespace

struct FaultNetwork::State {
  State(const Options& chosen, Answerer answers) : options(chosen), answerer(std::move(answers)) {}

  Options options;
  Answerer answerer;
  std::map<int, Descriptor> descriptors;
  int nextDescriptor = kFirstDescriptor;
  std::uint64_t now = kStartNanos;

  std::array<std::size_t, 11> counts{};
  struct Plan {
    Entry entry;
    std::size_t at;
    Fault fault;
  };
  std::vector<Plan> planned;

  std::vector<SeenCall> calls;
  std::vector<std::string> journal;
  std::vector<std::uint64_t> connectTimes;
  std::size_t misused = 0;
  bool waitedForever = false;

  std::optional<Fault> enter(Entry entry, Phase phase, std::size_t awaited = 0);
  Descriptor* find(int fd);
  bool ready(Descriptor& descriptor, short events, short& revents, bool waits) const;
  std::uint64_t nextArrival(const pollfd* entries, nfds_t count);
  int wait(pollfd* entries, nfds_t count, int timeout);
  int waitForNothing(pollfd* entries, nfds_t count);
  void takeBytes(Descriptor& descriptor, const std::string& bytes);
  void answer(Descriptor& descriptor, const std::string& request);
  ssize_t deliver(Descriptor& descriptor, void* buffer, std::size_t length) const;
  ssize_t breakOff(Descriptor& descriptor);
};

namespace {

FaultNetwork::State* active = nullptr;

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

std::size_t awaitedOn(const Descriptor& descriptor) {
  std::size_t bytes = 0;
  for (const auto& segment : descriptor.segments) {
    if (!segment.tail) bytes += segment.bytes.size();
  }
  return bytes;
}

Phase phaseOfReceive(const Descriptor& descriptor) {
  return descriptor.segments.empty() ? Phase::Look : Phase::Receive;
}

int openSocket(int, int type, int) {
  const Work work;
  const auto fault = active->enter(Entry::Socket, Phase::Connect);
  if (fault) return failWith(fault->value);
  const int fd = active->nextDescriptor++;
  active->descriptors[fd].nonBlocking = (type & SOCK_NONBLOCK) != 0;
  return fd;
}

int setOption(int fd, int, int, const void*, socklen_t) {
  const Work work;
  const auto fault = active->enter(Entry::Setsockopt, Phase::Connect);
  if (active->find(fd) == nullptr) return failWith(EBADF);
  return fault ? failWith(fault->value) : 0;
}

int connectSocket(int fd, const sockaddr*, socklen_t) {
  const Work work;
  const auto fault = active->enter(Entry::Connect, Phase::Connect);
  auto* descriptor = active->find(fd);
  if (descriptor == nullptr) return failWith(EBADF);
  active->connectTimes.push_back(active->now);
  if (active->options.refuses) return failWith(ECONNREFUSED);
  if (fault && fault->kind == Fault::Kind::Error) return failWith(fault->value);
  const bool stalls = (fault && fault->kind == Fault::Kind::Stall) || active->options.neverAccepts;
  descriptor->connecting = true;
  descriptor->neverConnects = stalls;
  if (fault && fault->kind == Fault::Kind::Interrupt) return failWith(EINTR);
  if (stalls || active->options.connectInBackground) return failWith(EINPROGRESS);
  descriptor->connecting = false;
  descriptor->established = true;
  return 0;
}

int getOption(int fd, int level, int name, void* value, socklen_t* length) {
  const Work work;
  const auto fault = active->enter(Entry::Getsockopt, Phase::Connect);
  auto* descriptor = active->find(fd);
  if (descriptor == nullptr) return failWith(EBADF);
  if (fault && fault->kind == Fault::Kind::Error) return failWith(fault->value);
  std::memset(value, 0, *length);
  if (fault && fault->kind == Fault::Kind::SoError && level == SOL_SOCKET && name == SO_ERROR) {
    descriptor->established = false;
    std::memcpy(value, &fault->value, sizeof fault->value);
  }
  return 0;
}

int controlDescriptor(int fd, int command, int argument) {
  const Work work;
  const auto fault = active->enter(Entry::Fcntl, Phase::Connect);
  auto* descriptor = active->find(fd);
  if (descriptor == nullptr) return failWith(EBADF);
  if (fault) return failWith(fault->value);
  if (command == F_SETFL) descriptor->nonBlocking = (argument & O_NONBLOCK) != 0;
  return command == F_GETFL && descriptor->nonBlocking ? O_NONBLOCK : 0;
}

int pollSockets(pollfd* entries, nfds_t count, int timeout) {
  const Work work;
  auto* descriptor = count == 1 ? active->find(entries[0].fd) : nullptr;
  Phase phase = Phase::Clock;
  std::size_t awaited = 0;
  if (descriptor != nullptr) {
    const bool writes = (entries[0].events & POLLOUT) != 0;
    phase = !descriptor->established ? Phase::Connect : (writes ? Phase::Send : Phase::Receive);
    awaited = awaitedOn(*descriptor);
  }
  const auto fault = active->enter(Entry::Poll, phase, awaited);
  if (fault && fault->kind == Fault::Kind::Error) return failWith(fault->value);
  if (fault && fault->kind == Fault::Kind::Interrupt) return failWith(EINTR);
  if (fault && fault->kind == Fault::Kind::Stall && descriptor != nullptr) {
    descriptor->stalled = true;
    descriptor->neverConnects = true;
  }
  return active->wait(entries, count, timeout);
}

ssize_t receive(int fd, void* buffer, size_t length, int flags) {
  const Work work;
  auto* descriptor = active->find(fd);
  const auto fault = descriptor == nullptr ? active->enter(Entry::Recv, Phase::Look)
                                           : active->enter(Entry::Recv, phaseOfReceive(*descriptor),
                                                           awaitedOn(*descriptor));
  if (descriptor == nullptr || !descriptor->established) return failWith(ENOTCONN);
  const bool waits = !descriptor->nonBlocking && (flags & MSG_DONTWAIT) == 0;
  if (fault) {
    switch (fault->kind) {
      case Fault::Kind::Interrupt:
        return failWith(EINTR);
      case Fault::Kind::WouldBlock:
        return failWith(EAGAIN);
      case Fault::Kind::Short:
        length = std::min<size_t>(length, 1);
        break;
      case Fault::Kind::Eof:
        descriptor->segments.clear();
        descriptor->peerClosed = true;
        break;
      case Fault::Kind::Stall:
        descriptor->stalled = true;
        break;
      default:
        descriptor->broken = breaksConnection(fault->value);
        return failWith(fault->value);
    }
  }
  if (descriptor->broken) return 0;
  if (descriptor->stalled) return waits ? active->breakOff(*descriptor) : failWith(EAGAIN);
  short revents = 0;
  if (waits && !active->ready(*descriptor, POLLIN, revents, true)) {
    pollfd entry{fd, POLLIN, 0};
    active->wait(&entry, 1, -1);
    if (descriptor->broken) return failWith(ECONNRESET);
  }
  if (!active->ready(*descriptor, POLLIN, revents, waits)) return failWith(EAGAIN);
  const ssize_t count = active->deliver(*descriptor, buffer, length);
  active->calls.back().moved = count > 0;
  return count;
}

ssize_t sendPieces(int fd, const msghdr* message, int flags) {
  const Work work;
  const auto fault = active->enter(Entry::Sendmsg, Phase::Send);
  auto* descriptor = active->find(fd);
  if (descriptor == nullptr || !descriptor->established) return failWith(ENOTCONN);
  const bool waits = !descriptor->nonBlocking && (flags & MSG_DONTWAIT) == 0;
  std::string bytes;
  for (size_t i = 0; i < message->msg_iovlen; ++i) {
    bytes.append(static_cast<const char*>(message->msg_iov[i].iov_base),
                 message->msg_iov[i].iov_len);
  }
  if (fault) {
    if (fault->kind == Fault::Kind::Interrupt) return failWith(EINTR);
    if (fault->kind == Fault::Kind::WouldBlock) return failWith(EAGAIN);
    if (fault->kind == Fault::Kind::Stall) descriptor->stalled = true;
    if (fault->kind == Fault::Kind::Short) bytes.resize(std::min<size_t>(bytes.size(), 1));
    if (fault->kind == Fault::Kind::Error) {
      descriptor->broken = breaksConnection(fault->value);
      return failWith(fault->value);
    }
  }
  if (descriptor->broken) return failWith(EPIPE);
  const std::size_t room =
      active->options.window - std::min(active->options.window, descriptor->taken);
  if (descriptor->stalled || room == 0) {
    return waits ? active->breakOff(*descriptor) : failWith(EAGAIN);
  }
  if (!waits && active->options.writesWait && !std::exchange(descriptor->roomAwaited, false)) {
    return failWith(EAGAIN);
  }
  bytes.resize(std::min({bytes.size(), room, active->options.writeMost}));
  active->now += active->options.writeMillis * kNanosPerMilli;
  active->takeBytes(*descriptor, bytes);
  active->calls.back().moved = !bytes.empty();
  return static_cast<ssize_t>(bytes.size());
}

int closeSocket(int fd) {
  const Work work;
  const auto fault = active->enter(Entry::Close, Phase::Close);
  if (active->find(fd) == nullptr) return failWith(EBADF);
  // As the system does it: the descriptor is gone whatever the call reports.
  active->descriptors.erase(fd);
  if (fault && fault->kind == Fault::Kind::Interrupt) return failWith(EINTR);
  return fault ? failWith(fault->value) : 0;
}

int lookUp(const char*, const char* service, const addrinfo* hints, addrinfo** result) {
  const Work work;
  const auto fault = active->enter(Entry::Getaddrinfo, Phase::Resolve);
  active->now += active->options.resolveMillis * kNanosPerMilli;
  if (fault && fault->kind == Fault::Kind::Interrupt) {
    errno = EINTR;
    return EAI_SYSTEM;
  }
  if (fault) {
    errno = EMFILE;
    return fault->value;
  }
  addrinfo** end = result;
  for (const auto& address : active->options.addresses) {
    const int code = tq::oss::realSystemCalls().getaddrinfo(address.c_str(), service, hints, end);
    if (code != 0) return code;
    end = &(*end)->ai_next;
  }
  return 0;
}

int readClock(clockid_t, timespec* out) {
  const Work work;
  const auto fault = active->enter(Entry::Clock, Phase::Clock);
  if (fault && fault->kind == Fault::Kind::Delay) {
    active->now += static_cast<std::uint64_t>(fault->value) * kNanosPerMilli;
  } else if (fault) {
    return failWith(fault->value);
  }
  const auto looks = active->counts[static_cast<std::size_t>(Entry::Clock)];
  if (looks >= active->options.clockFailsFrom) return failWith(EPERM);
  // A step a look: whoever spins until a deadline gets there.
  active->now += kClockStepNanos;
  out->tv_sec = static_cast<time_t>(active->now / 1000000000U);
  out->tv_nsec = static_cast<long>(active->now % 1000000000U);
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
    all.getsockopt = getOption;
    all.fcntl = controlDescriptor;
    all.getaddrinfo = lookUp;
    all.clock_gettime = readClock;
    return all;
  }();
  return calls;
}

}  // namespace

/// Counts the call and tells whether it is the one that goes wrong.
std::optional<Fault> FaultNetwork::State::enter(Entry entry, Phase phase, std::size_t awaited) {
  if (entry != Entry::Clock) calls.push_back({entry, phase, awaited});
  const auto count = ++counts[static_cast<std::size_t>(entry)];
  const auto due = std::find_if(planned.begin(), planned.end(), [&](const Plan& plan) {
    return plan.entry == entry && plan.at == count;
  });
  if (due == planned.end()) return std::nullopt;
  const Fault fault = due->fault;
  planned.erase(due);
  return fault;
}

Descriptor* FaultNetwork::State::find(int fd) {
  if (fd < 0) return nullptr;
  const auto at = descriptors.find(fd);
  if (at != descriptors.end()) return &at->second;
  ++misused;
  return nullptr;
}

bool FaultNetwork::State::ready(Descriptor& descriptor, short events, short& revents,
                                bool waits) const {
  revents = 0;
  if (descriptor.broken) {
    revents = static_cast<short>(POLLERR | (events & (POLLIN | POLLOUT)));
    return true;
  }
  if (descriptor.stalled || descriptor.neverConnects) return false;
  if (descriptor.connecting && waits) {
    descriptor.connecting = false;
    descriptor.established = true;
  }
  if (!descriptor.established) return false;
  if (descriptor.taken < options.window) {
    descriptor.roomAwaited = descriptor.roomAwaited || (events & POLLOUT) != 0;
    revents = static_cast<short>(events & POLLOUT);
  }
  if (!descriptor.segments.empty()) {
    auto& front = descriptor.segments.front();
    if (front.arrivesAt == 0 ? waits : front.arrivesAt <= now) front.arrived = true;
    if (front.arrived) revents = static_cast<short>(revents | (events & POLLIN));
  } else if (descriptor.peerClosed) {
    revents = static_cast<short>(revents | (events & POLLIN));
  }
  return revents != 0;
}

/// When the first of the sockets gets a byte; the largest value for never.
std::uint64_t FaultNetwork::State::nextArrival(const pollfd* entries, nfds_t count) {
  auto first = std::numeric_limits<std::uint64_t>::max();
  for (nfds_t i = 0; i < count; ++i) {
    const auto* descriptor = find(entries[i].fd);
    if (descriptor == nullptr || descriptor->stalled || descriptor->segments.empty()) continue;
    if ((entries[i].events & POLLIN) == 0) continue;
    first = std::min(first, descriptor->segments.front().arrivesAt);
  }
  return first;
}

int FaultNetwork::State::wait(pollfd* entries, nfds_t count, int timeout) {
  const std::uint64_t end = timeout < 0
                                ? std::numeric_limits<std::uint64_t>::max()
                                : now + static_cast<std::uint64_t>(timeout) * kNanosPerMilli;
  for (;;) {
    int found = 0;
    for (nfds_t i = 0; i < count; ++i) {
      auto* descriptor = find(entries[i].fd);
      entries[i].revents = POLLNVAL;
      if (descriptor != nullptr) {
        ready(*descriptor, entries[i].events, entries[i].revents, timeout != 0);
      }
      if (entries[i].revents != 0) ++found;
    }
    if (found != 0 || timeout == 0) return found;
    const auto arrival = nextArrival(entries, count);
    if (arrival > end || arrival == std::numeric_limits<std::uint64_t>::max()) {
      if (timeout < 0) return waitForNothing(entries, count);
      now = std::max(now, end);
      return 0;
    }
    now = std::max(now, arrival);
  }
}

/// Breaking the connections ends a wait that nothing would end, and the test is told.
int FaultNetwork::State::waitForNothing(pollfd* entries, nfds_t count) {
  waitedForever = true;
  for (nfds_t i = 0; i < count; ++i) {
    auto* descriptor = find(entries[i].fd);
    if (descriptor != nullptr) descriptor->broken = true;
    entries[i].revents = POLLERR;
  }
  return static_cast<int>(count);
}

ssize_t FaultNetwork::State::breakOff(Descriptor& descriptor) {
  waitedForever = true;
  descriptor.broken = true;
  return failWith(ECONNRESET);
}

void FaultNetwork::State::takeBytes(Descriptor& descriptor, const std::string& bytes) {
  descriptor.taken += bytes.size();
  if (descriptor.peerClosed) {
    // The kernel takes what goes to a peer that has closed; the reset comes back for it.
    descriptor.broken = true;
    return;
  }
  descriptor.pending += bytes;
  while (const auto length = completeRequestLength(descriptor.pending, options.framed)) {
    const auto request = descriptor.pending.substr(0, length);
    descriptor.pending.erase(0, length);
    journal.push_back(request);
    if (!options.silent) answer(descriptor, request);
  }
}

void FaultNetwork::State::answer(Descriptor& descriptor, const std::string& request) {
  const Answer reply = answerer(request);
  auto& segments = descriptor.segments;
  if (options.dripMillis == 0) {
    for (const auto& bytes : reply.segments) segments.push_back({bytes});
    if (!reply.tail.empty()) segments.push_back({reply.tail, true});
    return;
  }
  std::string whole;
  for (const auto& bytes : reply.segments) whole += bytes;
  const std::size_t needed = whole.size();
  whole += reply.tail;
  std::uint64_t at = now;
  for (std::size_t i = 0; i < whole.size(); ++i) {
    at += options.dripMillis * kNanosPerMilli;
    segments.push_back({whole.substr(i, 1), i >= needed, at});
  }
}

ssize_t FaultNetwork::State::deliver(Descriptor& descriptor, void* buffer,
                                     std::size_t length) const {
  if (descriptor.segments.empty()) return 0;
  auto& front = descriptor.segments.front();
  const auto count = std::min(length, front.bytes.size());
  std::memcpy(buffer, front.bytes.data(), count);
  front.bytes.erase(0, count);
  if (front.bytes.empty()) descriptor.segments.pop_front();
  return static_cast<ssize_t>(count);
}

void FaultNetwork::tellOfWork(void (*listener)(bool begins)) { workListener = listener; }

FaultNetwork::FaultNetwork(const Options& options, Answerer answerer)
    : state_(std::make_unique<State>(options, std::move(answerer))) {
  if (active != nullptr) throw std::logic_error("a network in memory must be alone");
  active = state_.get();
  tq::oss::replaceSystemCalls(&table());
}

FaultNetwork::~FaultNetwork() {
  tq::oss::replaceSystemCalls(nullptr);
  active = nullptr;
}

FaultNetwork::Options& FaultNetwork::options() { return state_->options; }

void FaultNetwork::plan(Entry entry, std::size_t nth, const Fault& fault) {
  state_->planned.push_back({entry, count(entry) + nth, fault});
}

bool FaultNetwork::planIsOver() const { return state_->planned.empty(); }
const std::vector<SeenCall>& FaultNetwork::calls() const { return state_->calls; }
std::size_t FaultNetwork::count(Entry entry) const {
  return state_->counts[static_cast<std::size_t>(entry)];
}
void FaultNetwork::forgetCalls() { state_->calls.clear(); }
std::size_t FaultNetwork::openDescriptors() const { return state_->descriptors.size(); }
const std::vector<std::uint64_t>& FaultNetwork::connectTimes() const {
  return state_->connectTimes;
}
std::size_t FaultNetwork::misusedDescriptors() const { return state_->misused; }
const std::vector<std::string>& FaultNetwork::journal() const { return state_->journal; }
bool FaultNetwork::waitedForever() const { return state_->waitedForever; }
std::uint64_t FaultNetwork::nowNanos() const { return state_->now; }

const char* nameOf(Entry entry) {
  static constexpr const char* kNames[] = {"socket", "setsockopt",  "connect", "getsockopt",
                                           "fcntl",  "poll",        "recv",    "sendmsg",
                                           "close",  "getaddrinfo", "clock"};
  return kNames[static_cast<std::size_t>(entry)];
}

std::string nameOf(const Fault& fault) {
  static constexpr const char* kNames[] = {"error",       "interrupt", "would block", "one byte",
                                           "end of file", "SO_ERROR",  "stall",       "delay"};
  std::string name = kNames[static_cast<std::size_t>(fault.kind)];
  if (fault.value != 0) name.append(" ").append(std::to_string(fault.value));
  return name;
}

}  // namespace tq::test
