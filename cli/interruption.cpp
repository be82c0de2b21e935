#include "cli/interruption.h"

#include <pthread.h>
#include <unistd.h>

#include <string>

namespace corvane {

namespace {

constexpr int kEndingSignals[] = {SIGINT, SIGTERM};

// A reader that takes nothing must not keep the program alive.
constexpr std::chrono::milliseconds kPatience{1000};

void say(const std::string& text) {
  // Progress may stand in the line.
  const std::string line = ::isatty(STDERR_FILENO) != 0 ? "\r\x1b[K" + text : text;
  if (::write(STDERR_FILENO, line.data(), line.size()) < 0) {
    // The program ends either way.
  }
}

}  // namespace

sigset_t blockEndingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : kEndingSignals) {
    struct sigaction present {};
    ::sigaction(signal, nullptr, &present);
    if (present.sa_handler != SIG_IGN) sigaddset(&signals, signal);
  }
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

Interruption::Interruption(const sigset_t& signals, const LastWords& words, QueuedOutput& out)
    : signals_(signals), words_(words), out_(out) {
  // Nothing ends a wait for no signal at all.
  if (sigisemptyset(&signals_) == 0) thread_ = std::thread([this] { run(); });
}

Interruption::~Interruption() {
  if (!thread_.joinable()) return;
  over_ = true;
  for (const int signal : kEndingSignals) {
    if (sigismember(&signals_, signal) == 1) ::pthread_kill(thread_.native_handle(), signal);
  }
  thread_.join();
}

void Interruption::run() {
  int signal = 0;
  if (::sigwait(&signals_, &signal) == 0 && !over_) end(signal);
}

void Interruption::end(int signal) {
  const LastWords::Text text = words_.get();
  out_.sputn(text.out.data(), static_cast<std::streamsize>(text.out.size()));
  out_.drain(kPatience);
  say(text.err);
  std::signal(signal, SIG_DFL);
  ::pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);
  ::raise(signal);
}

}  // namespace corvane
