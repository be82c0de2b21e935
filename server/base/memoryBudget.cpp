#include "server/base/memoryBudget.h"

#include <malloc.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <exception>

namespace corvaned {
namespace {

// Freed memory stays with the process unless it is asked to return it. Asking takes a walk through
// the whole heap, so it is done once for this much, not for every request.
constexpr std::size_t kTrimAfter = std::size_t{64} << 20U;

}  // namespace

bool MemoryBudget::Share::resize(std::size_t bytes, Use use) {
  if (budget_ && bytes > bytes_ && !budget_->take(bytes - bytes_, use)) return false;
  if (budget_ && bytes < bytes_) budget_->giveBack(bytes_ - bytes);
  bytes_ = bytes;
  return true;
}

void MemoryBudget::Share::force(std::size_t bytes) {
  if (budget_ && bytes > bytes_) budget_->takeAnyway(bytes - bytes_);
  if (budget_ && bytes < bytes_) budget_->giveBack(bytes_ - bytes);
  bytes_ = bytes;
}

MemoryBudget::Share MemoryBudget::Share::split(std::size_t bytes) {
  const std::size_t taken = std::min(bytes, bytes_);
  bytes_ -= taken;
  return {budget_, taken};
}

std::size_t MemoryBudget::used() const {
  const std::lock_guard lock(mutex_);
  return used_;
}

bool MemoryBudget::take(std::size_t bytes, Use use) {
  const std::lock_guard lock(mutex_);
  // A large share must not overtake those that wait for one.
  if (use == Use::Large && !waiters_.empty()) return false;
  const std::size_t limit = limitOf(use);
  if (used_ > limit || bytes > limit - used_) return false;
  used_ += bytes;
  return true;
}

void MemoryBudget::takeAnyway(std::size_t bytes) {
  const std::lock_guard lock(mutex_);
  used_ += bytes;
}

void MemoryBudget::giveBack(std::size_t bytes) {
  std::list<Waiter> served;
  bool trim = false;
  {
    const std::lock_guard lock(mutex_);
    used_ -= bytes;
    givenBack_ += bytes;
    trim = givenBack_ >= kTrimAfter;
    if (trim) givenBack_ = 0;
    served = grantable();
  }
  if (trim) ::malloc_trim(0);
  callGranted(std::move(served));
}

std::list<MemoryBudget::Waiter> MemoryBudget::grantable() {
  std::list<Waiter> served;
  const std::size_t limit = limitOf(Use::Large);
  while (!waiters_.empty() && used_ <= limit && waiters_.front().bytes <= limit - used_) {
    used_ += waiters_.front().bytes;
    served.splice(served.end(), waiters_, waiters_.begin());
  }
  return served;
}

// Whoever gives memory back does so while cleaning up, and has no use for another's failure. The
// share of a waiter that fails comes back at once.
void MemoryBudget::callGranted(std::list<Waiter> waiters) noexcept {
  for (Waiter& waiter : waiters) {
    try {
      waiter.granted(Share(this, waiter.bytes));
    } catch (const std::exception& error) {
      spdlog::warn("memory could not be passed on: {}", error.what());
    }
  }
}

MemoryBudget::Ticket MemoryBudget::await(std::size_t bytes, Granted granted) {
  std::list<Waiter> served;
  Ticket ticket = 0;
  {
    const std::lock_guard lock(mutex_);
    ticket = ++lastTicket_;
    waiters_.push_back({ticket, bytes, std::move(granted)});
    served = grantable();
  }
  callGranted(std::move(served));
  return ticket;
}

void MemoryBudget::withdraw(Ticket ticket) {
  std::list<Waiter> served;
  {
    const std::lock_guard lock(mutex_);
    waiters_.remove_if([&](const Waiter& waiter) { return waiter.ticket == ticket; });
    // Those behind it may need less.
    served = grantable();
  }
  callGranted(std::move(served));
}

}  // namespace corvaned
