#include "server/store/indexScheduler.h"

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/thread_pool.hpp>
#include <mutex>
#include <unordered_set>
#include <utility>

namespace corvaned {

// Timers need a lock of their own: one is cancelled by another thread than the one that it runs on.
class IndexScheduler::Threads {
 public:
  explicit Threads(unsigned count) : pool_(count) {}

  void stop() {
    {
      const std::lock_guard lock(mutex_);
      stopped_ = true;
      for (const auto& timer : timers_) timer->cancel();
      timers_.clear();
    }
    pool_.join();
  }

  // At the end of the queue, behind everybody else's next step.
  void run(Step step) {
    asio::post(pool_, [this, step = std::move(step)]() mutable {
      if (step()) run(std::move(step));
    });
  }

  void later(std::chrono::milliseconds time, std::function<void()> begin) {
    const std::lock_guard lock(mutex_);
    if (stopped_) return;
    const auto timer = std::make_shared<asio::steady_timer>(pool_, time);
    timers_.insert(timer);
    timer->async_wait([this, timer, begin = std::move(begin)](std::error_code error) {
      {
        const std::lock_guard removing(mutex_);
        timers_.erase(timer);
      }
      if (!error) begin();
    });
  }

 private:
  asio::thread_pool pool_;
  std::mutex mutex_;
  // Guarded by mutex_.
  bool stopped_ = false;
  std::unordered_set<std::shared_ptr<asio::steady_timer>> timers_;
};

IndexScheduler::IndexScheduler(unsigned threads) : threads_(std::make_unique<Threads>(threads)) {}

IndexScheduler::~IndexScheduler() { stop(); }

void IndexScheduler::stop() { threads_->stop(); }

void IndexScheduler::run(Step step) { threads_->run(std::move(step)); }

void IndexScheduler::later(std::chrono::milliseconds time, std::function<void()> begin) {
  threads_->later(time, std::move(begin));
}

}  // namespace corvaned
