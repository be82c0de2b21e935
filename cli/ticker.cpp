#include "cli/ticker.h"

#include <chrono>
#include <utility>

namespace corvane {

Ticker::Ticker(std::function<void(unsigned int)> tick)
    : tick_(std::move(tick)), thread_([this] { run(); }) {}

Ticker::~Ticker() {
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

void Ticker::run() {
  const auto start = std::chrono::steady_clock::now();
  std::unique_lock lock(mutex_);
  for (unsigned int seconds = 1;; ++seconds) {
    if (changed_.wait_until(lock, start + std::chrono::seconds(seconds), [&] { return ended_; })) {
      return;
    }
    // The owner must be able to say that it is done meanwhile.
    lock.unlock();
    tick_(seconds);
    lock.lock();
  }
}

}  // namespace corvane
