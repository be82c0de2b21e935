#pragma once

#include <atomic>
#include <mutex>
#include <shared_mutex>

namespace corvaned {

/// Lets readers of a database hold up its next commit. A snapshot of the engine only lasts until
/// the second commit after it, so a reader that takes longer than that has to begin again, and with
/// commits one after the other it would never end.
///
/// May be used from any thread. Commits come in turn with those who hold them up: a commit that
/// waits goes before whoever comes later.
class CommitGate {
 public:
  using Hold = std::shared_lock<std::shared_mutex>;
  using Passage = std::unique_lock<std::shared_mutex>;

  /// No commit is made while it lives. Whoever has it must not wait for one.
  Hold hold() {
    const std::lock_guard turn(turn_);
    return Hold(commits_);
  }

  /// A commit may be made while it lives.
  Passage pass() {
    const std::lock_guard turn(turn_);
    Passage passage(commits_, std::try_to_lock);
    if (passage) return passage;
    waits_ = true;
    passage.lock();
    waits_ = false;
    return passage;
  }

  /// Whether a commit waits for those who hold it up.
  bool isAwaited() const { return waits_; }

 private:
  std::mutex turn_;
  std::shared_mutex commits_;
  std::atomic<bool> waits_ = false;
};

}  // namespace corvaned
