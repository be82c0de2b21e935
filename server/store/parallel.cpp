#include "server/store/parallel.h"

#include <atomic>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace corvaned {
namespace {

/// Lives until the last helper has looked at it, which may be long after the end of the work.
class Calls {
 public:
  Calls(std::size_t count, const std::function<void(std::size_t)>& work)
      : work_(work), failures_(count) {}

  // The work is looked at only if there is a call left, and whoever waits for that is there.
  void carryOut() {
    for (std::size_t number = next_++; number < failures_.size(); number = next_++) {
      try {
        work_(number);
      } catch (...) {
        failures_[number] = std::current_exception();
      }
      const std::lock_guard lock(mutex_);
      if (++ended_ == failures_.size()) allEnded_.notify_all();
    }
  }

  void await() {
    std::unique_lock lock(mutex_);
    allEnded_.wait(lock, [this] { return ended_ == failures_.size(); });
    std::exception_ptr first;
    for (std::exception_ptr& failure : failures_) {
      // Taken away: a helper that looks at this object later must not be the one who destroys it.
      const std::exception_ptr taken = std::exchange(failure, nullptr);
      if (!first) first = taken;
    }
    if (first) std::rethrow_exception(first);
  }

 private:
  const std::function<void(std::size_t)>& work_;
  std::vector<std::exception_ptr> failures_;
  std::atomic<std::size_t> next_ = 0;
  std::mutex mutex_;
  std::condition_variable allEnded_;
  std::size_t ended_ = 0;  // Guarded by mutex_.
};

}  // namespace

void inParallel(std::size_t count, const Helpers& helpers,
                const std::function<void(std::size_t)>& work) {
  if (count == 1) return work(0);
  const auto calls = std::make_shared<Calls>(count, work);
  try {
    for (std::size_t i = 1; helpers && i < count; ++i) helpers([calls] { calls->carryOut(); });
  } catch (const std::exception&) {
    // Then this thread does what is left to do.
  }
  calls->carryOut();
  calls->await();
}

}  // namespace corvaned
