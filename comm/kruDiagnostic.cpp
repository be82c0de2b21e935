#include "comm/kruDiagnostic.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

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

}  // namespace

void writeDiagnostic(std::string_view text) noexcept {
  const Undisturbed undisturbed;
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
