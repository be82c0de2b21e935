#include "infra/oss/kruWaiting.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include "infra/oss/kruClock.h"
#include "infra/oss/kruSystemCalls.h"

namespace tq::oss {

namespace {

constexpr std::uint64_t kNanosPerMilli = 1000000;

// Rounded up: waking a little early would only mean a second poll of nothing.
int millisUntil(std::uint64_t deadline) noexcept {
  if (deadline == kNever) return -1;
  const std::uint64_t now = monotonicNanos();
  if (deadline <= now) return 0;
  const std::uint64_t left = deadline - now;
  const std::uint64_t millis = left / kNanosPerMilli + (left % kNanosPerMilli != 0 ? 1 : 0);
  constexpr auto kMost = static_cast<std::uint64_t>(std::numeric_limits<int>::max());
  return static_cast<int>(std::min(millis, kMost));
}

}  // namespace

std::uint64_t deadlineIn(unsigned long millis) noexcept {
  const std::uint64_t now = monotonicNanos();
  // Without a clock a limit cannot be kept, and the caller has asked not to wait without one.
  if (now == kNever) return 0;
  if (millis > (kNever - now) / kNanosPerMilli) return kNever;
  return now + millis * kNanosPerMilli;
}

int pollUntil(pollfd* entries, nfds_t count, std::uint64_t deadline) noexcept {
  for (;;) {
    const int millis = millisUntil(deadline);
    const int ready = systemCalls().poll(entries, count, millis);
    if (ready > 0) return ready;
    if (ready < 0 && errno != EINTR) return -1;
    // The longest wait that poll knows may be shorter than the one asked for.
    if (ready == 0 && millis == 0) return 0;
  }
}

}  // namespace tq::oss
