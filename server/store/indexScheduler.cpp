#include "server/store/indexScheduler.h"

#include <spdlog/spdlog.h>

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/thread_pool.hpp>
#include <exception>
#include <mutex>
#include <thread>
#include <unordered_set>
#include <utility>

#include "server/base/errors.h"

namespace corvaned {
namespace {

// Something that was missing for a step, memory for instance, may be there again after it.
constexpr std::chrono::milliseconds kPause{100};

}  // namespace

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

  void run(Step step) { append(std::make_shared<Step>(std::move(step))); }

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
      if (!error) carryOut(begin);
    });
  }

 private:
  // At the end of the queue, behind everybody else's next step.
  void append(const std::shared_ptr<Step>& step) {
    asio::post(pool_, [this, step] {
      carryOut([&] {
        if ((*step)()) append(step);
      });
    });
  }

  // An exception that left this thread would end the process; and work that was given up would
  // leave those who wait for its end without an answer.
  static void carryOut(const std::function<void()>& work) {
    for (;;) {
      try {
        return work();
      } catch (const std::exception& error) {
        spdlog::error("failure: action=\"index\" reason={} next=\"another attempt\"",
                      logged(error.what(), 600));
      }
      std::this_thread::sleep_for(kPause);
    }
  }

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
