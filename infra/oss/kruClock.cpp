#include "infra/oss/kruClock.h"

#include <limits>

#include "infra/oss/kruDeadline.h"
#include "infra/oss/kruSystemCalls.h"
#include "infra/oss/kruWaiting.h"

namespace tq::oss {

namespace {
constexpr std::uint64_t kUnreadable = std::numeric_limits<std::uint64_t>::max();
}  // namespace

std::uint64_t monotonicNanos() noexcept {
  timespec now{};
  if (systemCalls().clock_gettime(CLOCK_MONOTONIC, &now) != 0) return kUnreadable;
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000000U +
         static_cast<std::uint64_t>(now.tv_nsec);
}

void pauseFor(std::uint64_t nanoseconds) { Waiter().pause(Deadline::inNanos(nanoseconds)); }

}  // namespace tq::oss
