#include "infra/oss/kruClock.h"

#include <algorithm>
#include <limits>

#include "infra/oss/kruSystemCalls.h"

namespace tq::oss {

namespace {
constexpr std::uint64_t kNanosPerMilli = 1000000;
constexpr std::uint64_t kLongestPollMillis = 1000000;
constexpr std::uint64_t kUnreadable = std::numeric_limits<std::uint64_t>::max();
}  // namespace

std::uint64_t monotonicNanos() noexcept {
  timespec now{};
  if (systemCalls().clock_gettime(CLOCK_MONOTONIC, &now) != 0) return kUnreadable;
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000000U +
         static_cast<std::uint64_t>(now.tv_nsec);
}

void pauseFor(std::uint64_t nanoseconds) noexcept {
  // Without a clock the sum wraps to a time that is over, or not further ahead than was asked for.
  const std::uint64_t end = monotonicNanos() + nanoseconds;
  for (std::uint64_t now = monotonicNanos(); now < end; now = monotonicNanos()) {
    const std::uint64_t millis = (end - now + kNanosPerMilli - 1) / kNanosPerMilli;
    systemCalls().poll(nullptr, 0, static_cast<int>(std::min(millis, kLongestPollMillis)));
  }
}

}  // namespace tq::oss
