#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "server/base/errors.h"

namespace corvaned {

/// Work that goes on in the background, for those who wait for its end: any number of them, with or
/// without a thread each. May be used from any thread.
class Ticket {
 public:
  /// Calls `call` when the work has ended; in here if it has already. Must not throw.
  void whenDone(std::function<void()> call);
  /// Returns when the work has ended. Throws the reason if it has failed.
  void wait();
  /// The same for work that has ended.
  void requireSuccess() const;
  bool isDone() const;

  /// A client waits for the end.
  void expect() noexcept { expected_ = true; }
  bool isExpected() const noexcept { return expected_; }

  /// The work has ended; it has failed if there is a reason. Called once.
  void finish(const std::optional<ServerError>& failure = std::nullopt) noexcept;

 private:
  std::atomic<bool> expected_ = false;
  mutable std::mutex mutex_;
  std::condition_variable ended_;
  // Guarded by mutex_.
  bool done_ = false;
  std::optional<ServerError> failure_;
  std::vector<std::function<void()>> calls_;
};

}  // namespace corvaned
