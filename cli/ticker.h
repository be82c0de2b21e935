#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace corvane {

/// Calls a function once a second, in a thread of its own, for as long as the object lives. The
/// destructor waits for a call that is under way.
class Ticker {
 public:
  /// `tick` is given the seconds that have passed, and must not throw.
  explicit Ticker(std::function<void(unsigned int)> tick);
  ~Ticker();
  Ticker(const Ticker&) = delete;
  Ticker& operator=(const Ticker&) = delete;

 private:
  void run();

  std::function<void(unsigned int)> tick_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool ended_ = false;  // Guarded by mutex_.
  std::thread thread_;
};

}  // namespace corvane
