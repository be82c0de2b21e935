#include "comm/kruDiagnostic.h"

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <iostream>
#include <streambuf>

#include "infra/oss/kruUncancellable.h"

namespace tq::comm {

namespace {

/// A reader that has gone, or reads nothing, must neither end the process nor hold up an exchange.
/// Where the host has no standard error, its stream may lead elsewhere.
bool mayBeWritten() noexcept {
  pollfd standardError{STDERR_FILENO, POLLOUT, 0};
  ::poll(&standardError, 1, 0);
  return standardError.revents == POLLOUT || standardError.revents == POLLNVAL;
}

sigset_t onlyPipeSignal() noexcept {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, SIGPIPE);
  return set;
}

bool pipeSignalIsPending() noexcept {
  sigset_t pending;
  ::sigpending(&pending);
  return ::sigismember(&pending, SIGPIPE) == 1;
}

/// The reader may go between the look and the write: this thread then gets no SIGPIPE. One that was
/// pending before stays the host's.
class WithoutPipeSignal {
 public:
  WithoutPipeSignal() noexcept { ::pthread_sigmask(SIG_BLOCK, &pipe_, &maskBefore_); }
  ~WithoutPipeSignal() {
    if (!wasPending_) takePipeSignal();
    ::pthread_sigmask(SIG_SETMASK, &maskBefore_, nullptr);
  }
  WithoutPipeSignal(const WithoutPipeSignal&) = delete;
  WithoutPipeSignal& operator=(const WithoutPipeSignal&) = delete;

 private:
  /// It does not wait, so that no other signal interrupts it.
  void takePipeSignal() const noexcept {
    const timespec atOnce{};
    ::sigtimedwait(&pipe_, nullptr, &atOnce);
  }

  const sigset_t pipe_ = onlyPipeSignal();
  const bool wasPending_ = pipeSignalIsPending();
  sigset_t maskBefore_;
};

/// The host's buffer need bear no two writers at a time: that of standard error does so only until
/// the host calls `sync_with_stdio(false)`. The second one tries a few times, since a line is soon
/// written, but does not wait: the first one may be writing to a pipe that is full.
class OnlyWriter {
 public:
  OnlyWriter() noexcept {
    for (int attempt = 0; attempt < kAttempts && !held_; ++attempt) {
      held_ = take();
      if (!held_) ::sched_yield();
    }
  }
  ~OnlyWriter() {
    if (held_) writer.store(kNobody, std::memory_order_release);
  }
  OnlyWriter(const OnlyWriter&) = delete;
  OnlyWriter& operator=(const OnlyWriter&) = delete;

  bool held() const noexcept { return held_; }

 private:
  static constexpr int kAttempts = 100;
  // The number of no process that writes.
  static constexpr pid_t kNobody = 0;

  /// A child that was forked meanwhile has a copy of its parent's mark, but not the thread that
  /// made it.
  static bool take() noexcept {
    const pid_t self = ::getpid();
    pid_t other = writer.load(std::memory_order_relaxed);
    return other != self && writer.compare_exchange_strong(other, self, std::memory_order_acquire);
  }

  // The process in which a diagnostic is being written.
  static std::atomic<pid_t> writer;
  bool held_ = false;
};

std::atomic<pid_t> OnlyWriter::writer{kNobody};

}  // namespace

void writeDiagnostic(std::string_view text) noexcept {
  // Nothing needs to unwind: the write and the look in front of it may cancel a thread.
  const tq::oss::Uncancellable whole;
  const WithoutPipeSignal noSignal;
  const OnlyWriter only;
  if (!only.held()) return;
  std::streambuf* out = std::cerr.rdbuf();
  if (out == nullptr || !mayBeWritten()) return;
  try {
    out->sputn(text.data(), static_cast<std::streamsize>(text.size()));
    out->pubsync();
  } catch (...) {
    // A host's own buffer may throw. No exchange fails for want of a diagnostic.
  }
}

}  // namespace tq::comm
