#pragma once

#include <cstddef>
#include <functional>

namespace corvaned {

/// Called again and again during long work; throws to end it.
using StopCheck = std::function<void()>;

/// Work in steps that are too short for each of them to ask whether it has to end.
class StoppableSteps {
 public:
  /// `stop` must outlive it.
  explicit StoppableSteps(const StopCheck& stop) : stop_(stop) {}

  void next() {
    constexpr std::size_t kAskEvery = 1024;
    if (++steps_ % kAskEvery == 0 && stop_) stop_();
  }

 private:
  const StopCheck& stop_;
  std::size_t steps_ = 0;
};

}  // namespace corvaned
