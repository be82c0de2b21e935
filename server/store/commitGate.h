#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "server/store/stopCheck.h"

namespace corvaned {

/// Lets readers of a database hold up its next commit. A snapshot of the engine only lasts until
/// the second commit after it, so a reader that takes longer than that has to begin again, and with
/// commits one after the other it would never end.
///
/// May be used from any thread, though a thread that holds commits up must not do so again. Commits
/// come in turn with those who hold them up: a commit that waits goes before whoever comes later.
class CommitGate {
 public:
  using Hold = std::shared_lock<std::shared_mutex>;
  using Passage = std::unique_lock<std::shared_mutex>;

  /// No commit waits longer: the thread that makes it has other collections to update, too.
  static constexpr std::chrono::milliseconds kPatience{1000};

  explicit CommitGate(std::chrono::milliseconds patience = kPatience) : patience_(patience) {}

  /// No commit is made while it lives, but for those that have waited long enough.
  Hold hold() {
    const std::lock_guard turn(turn_);
    return Hold(commits_);
  }

  /// A commit may be made while it lives; it owns nothing if others still hold commits up. `stop`
  /// throws to end the waiting.
  Passage pass(const StopCheck& stop) {
    const std::lock_guard turn(turn_);
    Passage passage(commits_, std::try_to_lock);
    if (!passage) await(passage, stop);
    return passage;
  }

  /// Whether a commit waits for those who hold it up.
  bool isAwaited() const { return waits_; }

 private:
  using Clock = std::chrono::steady_clock;

  struct Waiting {
    explicit Waiting(std::atomic<bool>& flag) : waits(flag) { waits = true; }
    ~Waiting() { waits = false; }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

    std::atomic<bool>& waits;
  };

  void await(Passage& passage, const StopCheck& stop) {
    const Waiting waiting(waits_);
    const Clock::time_point end = Clock::now() + patience_;
    while (!passage.try_lock() && Clock::now() < end) {
      stop();
      std::this_thread::sleep_for(kLookAgain);
    }
  }

  static constexpr std::chrono::milliseconds kLookAgain{5};

  const std::chrono::milliseconds patience_;
  std::mutex turn_;
  std::shared_mutex commits_;
  std::atomic<bool> waits_ = false;
};

}  // namespace corvaned
