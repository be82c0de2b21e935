#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace corvaned {

/// Threads that bring indexes up to date. Work consists of steps of bounded size, and all work that
/// is under way takes turns: a small update waits for one step of each large one, not for its end.
///
/// May be used from any thread, also from a step.
class IndexScheduler {
 public:
  /// Returns whether there is another one. If it throws it is called again after a pause.
  using Step = std::function<bool()>;

  explicit IndexScheduler(unsigned threads);
  /// Stops.
  ~IndexScheduler();
  IndexScheduler(const IndexScheduler&) = delete;
  IndexScheduler& operator=(const IndexScheduler&) = delete;

  void run(Step step);
  /// Calls `begin` after that time. If it throws it is called again after a pause.
  void later(std::chrono::milliseconds time, std::function<void()> begin);

  /// Returns when all work has ended, which may still use this object until then. What was to begin
  /// later is forgotten.
  void stop();

 private:
  class Threads;
  std::unique_ptr<Threads> threads_;
};

}  // namespace corvaned
