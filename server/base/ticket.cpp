#include "server/base/ticket.h"

#include <spdlog/spdlog.h>

#include <exception>
#include <utility>

#include "server/base/errors.h"

namespace corvaned {

void Ticket::whenDone(std::function<void()> call) {
  {
    const std::lock_guard lock(mutex_);
    if (!done_) return calls_.push_back(std::move(call));
  }
  call();
}

void Ticket::wait() {
  {
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [&] { return done_; });
  }
  requireSuccess();
}

// Each of those who wait gets an error of its own: exceptions are not made to be shared.
void Ticket::requireSuccess() const {
  const std::lock_guard lock(mutex_);
  if (failure_) throw ServerError(failure_->kind(), failure_->what());
}

bool Ticket::isDone() const {
  const std::lock_guard lock(mutex_);
  return done_;
}

void Ticket::finish(const std::optional<ServerError>& failure) noexcept {
  std::vector<std::function<void()>> calls;
  {
    const std::lock_guard lock(mutex_);
    done_ = true;
    // A copy takes no memory, of which there may be none: that may be the failure.
    failure_ = failure;
    calls.swap(calls_);
    ended_.notify_all();
  }
  for (const auto& call : calls) {
    // Those after it wait, too.
    try {
      call();
    } catch (const std::exception& error) {
      spdlog::error("failure: action=\"await\" reason={}", logged(error.what(), 600));
    }
  }
}

}  // namespace corvaned
