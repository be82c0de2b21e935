#include "server/base/ticket.h"

#include <spdlog/spdlog.h>

#include <exception>
#include <new>
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

// A copy shares its text with the original, which ends on this thread, and counts who has it in a
// library that no sanitizer looks into. It takes no memory, though, of which there may be none:
// that may be the failure.
void Ticket::keep(const std::optional<ServerError>& failure) noexcept {
  if (!failure) return;
  try {
    failure_.emplace(failure->kind(), failure->what());
  } catch (const std::bad_alloc&) {
    failure_ = failure;
  }
}

void Ticket::finish(const std::optional<ServerError>& failure) noexcept {
  std::vector<std::function<void()>> calls;
  {
    const std::lock_guard lock(mutex_);
    done_ = true;
    keep(failure);
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
