#include "server/store/openingRetries.h"

#include <algorithm>

namespace corvaned {

OpeningRetries::Retry OpeningRetries::failed(const std::string& collection,
                                             const ServerError& failure) {
  // Far beyond the most.
  constexpr std::size_t kMostDoublings = 16;
  const std::lock_guard lock(mutex_);
  Failures& failures = failures_[collection];
  const bool isNews = failures.reason != failure.what();
  if (isNews) failures.reason = failure.what();
  const std::size_t before = std::min(failures.count++, kMostDoublings);
  const bool lacksMemory = failure.kind() == ErrorKind::OutOfMemory;
  if (!lacksMemory && failure.kind() != ErrorKind::TryAgain) return {kMost, isNews};
  return {std::min(kFirst * (1U << before), lacksMemory ? kMostWithoutMemory : kMost), isNews};
}

void OpeningRetries::forget(const std::string& collection) noexcept {
  const std::lock_guard lock(mutex_);
  failures_.erase(collection);
}

}  // namespace corvaned
