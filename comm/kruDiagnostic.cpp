#include "comm/kruDiagnostic.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <iostream>
#include <streambuf>

namespace tq::comm {

namespace {

/// A reader that has gone, or reads nothing, must neither end the process nor hold up an exchange.
/// Where the host has no standard error, its stream may lead elsewhere.
bool mayBeWritten() noexcept {
  pollfd standardError{STDERR_FILENO, POLLOUT, 0};
  ::poll(&standardError, 1, 0);
  return standardError.revents == POLLOUT || standardError.revents == POLLNVAL;
}

/// The reader may go between the look and the write: this thread then gets no SIGPIPE. Nor can the
/// thread be cancelled meanwhile, so that nothing needs to unwind.
class Undisturbed {
 public:
  Undisturbed() noexcept {
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelStateBefore_);
    ::sigemptyset(&pipe_);
    ::sigaddset(&pipe_, SIGPIPE);
    sigset_t pending;
    ::sigpending(&pending);
    wasPending_ = ::sigismember(&pending, SIGPIPE) == 1;
    ::pthread_sigmask(SIG_BLOCK, &pipe_, &maskBefore_);
  }
  ~Undisturbed() {
    if (!wasPending_) takePipeSignal();
    ::pthread_sigmask(SIG_SETMASK, &maskBefore_, nullptr);
    ::pthread_setcancelstate(cancelStateBefore_, nullptr);
  }
  Undisturbed(const Undisturbed&) = delete;
  Undisturbed& operator=(const Undisturbed&) = delete;

 private:
  void takePipeSignal() const noexcept {
    const timespec atOnce{};
    while (::sigtimedwait(&pipe_, nullptr, &atOnce) < 0 && errno == EINTR) {
    }
  }

  int cancelStateBefore_ = PTHREAD_CANCEL_ENABLE;
  sigset_t pipe_;
  sigset_t maskBefore_;
  bool wasPending_ = false;
};

/// The host's buffer need bear no two writers at a time: that of standard error does so only until
/// the host calls `sync_with_stdio(false)`. The second one tries a few times, since a line is soon
/// written, but does not wait: the first one may be writing to a pipe that is full.
class OnlyWriter {
 public:
  OnlyWriter() noexcept {
    const pid_t self = ::getpid();
    for (int attempt = 0; attempt < kAttempts && !held_; ++attempt) {
      if (attempt > 0) ::sched_yield();
      pid_t other = 0;
      held_ = writer.compare_exchange_strong(other, self, std::memory_order_acquire);
      // A child that was forked meanwhile has a copy of the mark, but not the thread that made it.
      if (!held_ && other != self) {
        held_ = writer.compare_exchange_strong(other, self, std::memory_order_acquire);
      }
    }
  }
  ~OnlyWriter() {
    if (held_) writer.store(0, std::memory_order_release);
  }
  OnlyWriter(const OnlyWriter&) = delete;
  OnlyWriter& operator=(const OnlyWriter&) = delete;

  bool held() const noexcept { return held_; }

 private:
  static constexpr int kAttempts = 100;
  // The process in which a diagnostic is being written; 0: none.
  static std::atomic<pid_t> writer;
  bool held_ = false;
};

std::atomic<pid_t> OnlyWriter::writer{0};

}  // namespace

void writeDiagnostic(std::string_view text) noexcept {
  const Undisturbed undisturbed;
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
