#include "infra/oss/kruDeadline.h"

#include <algorithm>

#include "infra/oss/kruClock.h"

namespace tq::oss {

namespace {

constexpr std::uint64_t kNanosPerMilli = 1000000;
constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();

}  // namespace

Deadline Deadline::in(unsigned long milliseconds) noexcept {
  const bool fits = milliseconds <= kLargest / kNanosPerMilli;
  return inNanos(fits ? milliseconds * kNanosPerMilli : kLargest);
}

Deadline Deadline::inNanos(std::uint64_t nanoseconds) noexcept {
  const std::uint64_t now = monotonicNanos();
  // An unreadable clock returns the largest value. That must not turn a limit into none.
  if (now == kLargest) return Deadline(0);
  return nanoseconds > kLargest - now ? none() : Deadline(now + nanoseconds);
}

bool Deadline::passed() const noexcept { return !isNone() && monotonicNanos() >= nanos_; }

std::uint64_t Deadline::left() const noexcept {
  if (isNone()) return kLargest;
  const std::uint64_t now = monotonicNanos();
  return now < nanos_ ? nanos_ - now : 0;
}

std::uint64_t Deadline::leftMillis() const noexcept {
  const std::uint64_t nanos = left();
  return nanos / kNanosPerMilli + (nanos % kNanosPerMilli != 0 ? 1 : 0);
}

int Deadline::pollMillis() const noexcept {
  if (isNone()) return -1;
  constexpr auto kLongest = static_cast<std::uint64_t>(std::numeric_limits<int>::max());
  return static_cast<int>(std::min(leftMillis(), kLongest));
}

Deadline Deadline::share(std::uint64_t parts) const noexcept {
  if (isNone()) return none();
  const std::uint64_t now = monotonicNanos();
  const std::uint64_t divisor = std::max<std::uint64_t>(parts, 1);
  return now < nanos_ ? Deadline(now + (nanos_ - now) / divisor) : *this;
}

}  // namespace tq::oss
