#pragma once

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "infra/oss/kruSystemCalls.h"

namespace tq::test {

enum class Call {
  Socket,
  Connect,
  Poll,
  Recv,
  Sendmsg,
  Close,
  Setsockopt,
  Getsockopt,
  Fcntl,
  Getaddrinfo,
  Clock
};
inline constexpr std::size_t kCalls = 11;

/// Stands in front of the operating system while it lives: counts every call of the infrastructure
/// and makes the ones it was told to fail, fall short or stall; all others reach the system. One at
/// a time; may be used by several threads. The calls that a test itself makes are not seen.
class FakeSystemCalls {
 public:
  static constexpr std::uint64_t kMilli = 1000000;

  FakeSystemCalls() {
    current() = this;
    previous_ = tq::oss::replaceSystemCalls(&table());
  }
  ~FakeSystemCalls() {
    tq::oss::replaceSystemCalls(previous_);
    current() = nullptr;
  }
  FakeSystemCalls(const FakeSystemCalls&) = delete;
  FakeSystemCalls& operator=(const FakeSystemCalls&) = delete;

  // What shall go wrong.

  /// The nth such call from now on (the next one is 1) fails and does nothing.
  void fail(Call call, unsigned int nth, int errorNumber) {
    const std::lock_guard lock(mutex_);
    failures_[index(call)][counts_[index(call)] + nth] = errorNumber;
  }
  void failAll(Call call, int errorNumber) {
    const std::lock_guard lock(mutex_);
    failAll_[index(call)] = errorNumber;
  }
  /// The thread that makes the nth such call from now on is cancelled in it.
  void cancelIn(Call call, unsigned int nth) { fail(call, nth, kCancel); }
  /// The next `times` calls are interrupted by a signal.
  void interrupt(Call call, unsigned int times) {
    for (unsigned int i = 1; i <= times; ++i) fail(call, i, EINTR);
  }
  /// `Recv` or `Sendmsg` move at most this many bytes a call; 0 lifts the limit.
  void limitTransfer(Call call, std::size_t bytes) {
    const std::lock_guard lock(mutex_);
    limits_[index(call)] = bytes;
  }
  /// `Recv` and `Sendmsg`: nothing can be moved without waiting, and nothing becomes ready.
  /// `Connect`: the peer never answers. `Poll`: nothing ever becomes ready. In each case the wait
  /// lasts as long as poll was told to, on a clock that the test owns.
  void stall(Call call, bool on = true) {
    if (on) ownClock();
    const std::lock_guard lock(mutex_);
    stalled_[index(call)] = on;
  }
  /// Only this many of the next connects are stalled.
  void stallConnects(unsigned int times) {
    ownClock();
    const std::lock_guard lock(mutex_);
    connectsToStall_ = times;
  }

  // A clock that moves only when told to, or when a stalled poll waits.

  void ownClock() {
    const std::lock_guard lock(mutex_);
    if (now_ == 0) now_ = 1000 * kMilli;
  }
  void setClock(std::uint64_t nanos) {
    const std::lock_guard lock(mutex_);
    now_ = nanos;
  }
  std::uint64_t now() {
    const std::lock_guard lock(mutex_);
    return now_;
  }

  // The resolver.

  /// Every name resolves to these addresses in digits, in this order.
  void resolveTo(std::vector<std::string> hosts) {
    const std::lock_guard lock(mutex_);
    resolved_ = std::move(hosts);
  }
  /// Resolving gives this code; with EAI_SYSTEM errno is `errorNumber`.
  void failResolver(int code, int errorNumber = 0) {
    const std::lock_guard lock(mutex_);
    resolverCode_ = code;
    resolverError_ = errorNumber;
  }
  /// The next `times` answers are EAI_SYSTEM with EINTR.
  void interruptResolver(unsigned int times) {
    const std::lock_guard lock(mutex_);
    resolverInterrupts_ = times;
  }

  /// New descriptors are numbered from here on.
  void descriptorsFrom(int lowest) {
    const std::lock_guard lock(mutex_);
    lowestDescriptor_ = lowest;
  }

  // What happened.

  unsigned int count(Call call) {
    const std::lock_guard lock(mutex_);
    return counts_[index(call)];
  }
  void resetCounts() {
    const std::lock_guard lock(mutex_);
    counts_.fill(0);
    for (auto& planned : failures_) planned.clear();
    recvLengths_.clear();
    sendLengths_.clear();
  }
  int lastDescriptor() {
    const std::lock_guard lock(mutex_);
    return lastDescriptor_;
  }
  int lastFlags(Call call) {
    const std::lock_guard lock(mutex_);
    return flags_[index(call)];
  }
  std::vector<std::size_t> recvLengths() {
    const std::lock_guard lock(mutex_);
    return recvLengths_;
  }
  /// How much each `Sendmsg` was asked to send.
  std::vector<std::size_t> sendLengths() {
    const std::lock_guard lock(mutex_);
    return sendLengths_;
  }
  /// The time-out of each poll, in milliseconds.
  std::vector<int> pollTimeouts() {
    const std::lock_guard lock(mutex_);
    return pollTimeouts_;
  }

 private:
  using Lock = std::lock_guard<std::mutex>;

  static constexpr int kCancel = -1;  // no error number

  static constexpr std::size_t index(Call call) { return static_cast<std::size_t>(call); }
  static FakeSystemCalls*& current() {
    static FakeSystemCalls* fake = nullptr;
    return fake;
  }
  static const tq::oss::SystemCalls& real() { return tq::oss::realSystemCalls(); }

  /// Counts the call; true when it shall fail, with errno set.
  static bool fails(Call call, int flags = 0) {
    FakeSystemCalls& fake = *current();
    const Lock lock(fake.mutex_);
    const std::size_t i = index(call);
    ++fake.counts_[i];
    fake.flags_[i] = flags;
    int errorNumber = fake.failAll_[i];
    const auto planned = fake.failures_[i].find(fake.counts_[i]);
    if (planned != fake.failures_[i].end()) errorNumber = planned->second;
    if (errorNumber == kCancel) cancelThisThread();
    if (errorNumber != 0) errno = errorNumber;
    return errorNumber != 0;
  }

  [[noreturn]] static void cancelThisThread() {
    ::pthread_cancel(::pthread_self());
    ::pthread_testcancel();
    std::abort();
  }

  static bool stalls(Call call) {
    FakeSystemCalls& fake = *current();
    const Lock lock(fake.mutex_);
    return fake.stalled_[index(call)];
  }

  static std::size_t limited(Call call, std::size_t length) {
    FakeSystemCalls& fake = *current();
    const Lock lock(fake.mutex_);
    const std::size_t limit = fake.limits_[index(call)];
    return limit == 0 ? length : std::min(limit, length);
  }

  static int socket(int domain, int type, int protocol) {
    if (fails(Call::Socket, type)) return -1;
    FakeSystemCalls& fake = *current();
    int fd = real().socket(domain, type, protocol);
    const Lock lock(fake.mutex_);
    if (fd >= 0 && fake.lowestDescriptor_ > 0) {
      const int raised = ::fcntl(fd, F_DUPFD_CLOEXEC, fake.lowestDescriptor_);
      ::close(fd);
      fd = raised;
    }
    fake.lastDescriptor_ = fd;
    return fd;
  }

  static int connect(int fd, const sockaddr* address, socklen_t length) {
    if (fails(Call::Connect)) {
      // As the system does it: a connect that a signal interrupts has begun and goes on.
      if (errno == EINTR) {
        real().connect(fd, address, length);
        errno = EINTR;
      }
      return -1;
    }
    {
      FakeSystemCalls& fake = *current();
      const Lock lock(fake.mutex_);
      const bool once = fake.connectsToStall_ != 0;
      if (once) --fake.connectsToStall_;
      fake.connecting_ = once || fake.stalled_[index(Call::Connect)] ? fd : -1;
      if (fake.connecting_ == fd) {
        errno = EINPROGRESS;
        return -1;
      }
    }
    return real().connect(fd, address, length);
  }

  static int poll(pollfd* entries, nfds_t count, int timeoutMillis) {
    if (fails(Call::Poll)) return -1;
    FakeSystemCalls& fake = *current();
    {
      const Lock lock(fake.mutex_);
      fake.pollTimeouts_.push_back(timeoutMillis);
      const bool waitsForPeer = count == 1 && entries[0].fd == fake.connecting_;
      if (waitsForPeer || fake.stalled_[index(Call::Poll)] || fake.stalled_[index(Call::Recv)] ||
          fake.stalled_[index(Call::Sendmsg)]) {
        if (timeoutMillis > 0) fake.now_ += static_cast<std::uint64_t>(timeoutMillis) * kMilli;
        return 0;
      }
    }
    return real().poll(entries, count, timeoutMillis);
  }

  static ssize_t recv(int fd, void* buffer, size_t length, int flags) {
    {
      FakeSystemCalls& fake = *current();
      const Lock lock(fake.mutex_);
      fake.recvLengths_.push_back(length);
    }
    if (fails(Call::Recv, flags)) return -1;
    if (stalls(Call::Recv)) {
      errno = EAGAIN;
      return -1;
    }
    return real().recv(fd, buffer, limited(Call::Recv, length), flags);
  }

  static ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    {
      FakeSystemCalls& fake = *current();
      const Lock lock(fake.mutex_);
      std::size_t length = 0;
      for (std::size_t i = 0; i < message->msg_iovlen; ++i) length += message->msg_iov[i].iov_len;
      fake.sendLengths_.push_back(length);
    }
    if (fails(Call::Sendmsg, flags)) return -1;
    if (stalls(Call::Sendmsg)) {
      errno = EAGAIN;
      return -1;
    }
    const std::size_t limit = limited(Call::Sendmsg, SIZE_MAX);
    if (limit == SIZE_MAX || message->msg_iovlen == 0) return real().sendmsg(fd, message, flags);
    iovec first = message->msg_iov[0];
    first.iov_len = std::min(first.iov_len, limit);
    msghdr cut = *message;
    cut.msg_iov = &first;
    cut.msg_iovlen = 1;
    return real().sendmsg(fd, &cut, flags);
  }

  static int close(int fd) {
    // As the system does it: the descriptor is gone even when the call reports a failure.
    const int result = real().close(fd);
    return fails(Call::Close) ? -1 : result;
  }

  static int setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
    return fails(Call::Setsockopt) ? -1 : real().setsockopt(fd, level, name, value, length);
  }
  static int getsockopt(int fd, int level, int name, void* value, socklen_t* length) {
    return fails(Call::Getsockopt) ? -1 : real().getsockopt(fd, level, name, value, length);
  }
  static int fcntl(int fd, int command, int argument) {
    if (fails(Call::Fcntl)) return -1;
    const int result = real().fcntl(fd, command, argument);
    if (command == F_DUPFD_CLOEXEC && result >= 0) {
      FakeSystemCalls& fake = *current();
      const Lock lock(fake.mutex_);
      fake.lastDescriptor_ = result;
    }
    return result;
  }

  static int getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                         addrinfo** result) {
    fails(Call::Getaddrinfo);
    FakeSystemCalls& fake = *current();
    const Lock lock(fake.mutex_);
    if (fake.resolverInterrupts_ != 0) {
      --fake.resolverInterrupts_;
      errno = EINTR;
      return EAI_SYSTEM;
    }
    if (fake.resolverCode_ != 0) {
      errno = fake.resolverError_;
      return fake.resolverCode_;
    }
    if (fake.resolved_.empty() || (hints->ai_flags & AI_NUMERICHOST) != 0) {
      return real().getaddrinfo(host, service, hints, result);
    }
    return fake.answer(service, hints, result);
  }

  /// One answer of the system's for each address, linked into a list that the system can free.
  int answer(const char* service, const addrinfo* hints, addrinfo** result) const {
    addrinfo** end = result;
    for (const std::string& host : resolved_) {
      const int code = real().getaddrinfo(host.c_str(), service, hints, end);
      if (code != 0) return code;
      end = &(*end)->ai_next;
    }
    return 0;
  }

  static void freeaddrinfo(addrinfo* result) { real().freeaddrinfo(result); }

  static int clock(clockid_t id, timespec* now) {
    if (fails(Call::Clock)) return -1;
    FakeSystemCalls& fake = *current();
    const Lock lock(fake.mutex_);
    if (fake.now_ == 0) return real().clock_gettime(id, now);
    now->tv_sec = static_cast<time_t>(fake.now_ / 1000000000U);
    now->tv_nsec = static_cast<long>(fake.now_ % 1000000000U);
    return 0;
  }

  static const tq::oss::SystemCalls& table() {
    static const tq::oss::SystemCalls calls{socket,  connect,     poll,         recv,
                                            sendmsg, close,       setsockopt,   getsockopt,
                                            fcntl,   getaddrinfo, freeaddrinfo, clock};
    return calls;
  }

  const tq::oss::SystemCalls* previous_ = nullptr;

  std::mutex mutex_;
  std::array<unsigned int, kCalls> counts_{};
  std::array<int, kCalls> flags_{};
  std::array<std::map<unsigned int, int>, kCalls> failures_;
  std::array<int, kCalls> failAll_{};
  std::array<std::size_t, kCalls> limits_{};
  std::array<bool, kCalls> stalled_{};
  unsigned int connectsToStall_ = 0;
  int connecting_ = -1;
  std::uint64_t now_ = 0;
  std::vector<std::string> resolved_;
  int resolverCode_ = 0;
  int resolverError_ = 0;
  unsigned int resolverInterrupts_ = 0;
  int lowestDescriptor_ = 0;
  int lastDescriptor_ = -1;
  std::vector<std::size_t> recvLengths_;
  std::vector<std::size_t> sendLengths_;
  std::vector<int> pollTimeouts_;
};

}  // namespace tq::test
