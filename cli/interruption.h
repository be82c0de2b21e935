#pragma once

#include <atomic>
#include <csignal>
#include <thread>

#include "cli/lastWords.h"
#include "cli/queuedOutput.h"

namespace corvane {

/// Blocks the signals by which a person or the system ends the program, in the calling thread and
/// in those that it starts. A signal that is ignored, as a shell does for a program in the
/// background, stays ignored. Returns what was blocked.
sigset_t blockEndingSignals();

/// Takes the signals that have been blocked, prints the last words and lets the signal do its work.
class Interruption {
 public:
  Interruption(const sigset_t& signals, const LastWords& words, QueuedOutput& out);
  ~Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

 private:
  void run();
  void end(int signal);

  const sigset_t signals_;
  const LastWords& words_;
  QueuedOutput& out_;
  std::atomic<bool> over_{false};
  std::thread thread_;
};

}  // namespace corvane
