#pragma once

#include <compare>
#include <cstdint>
#include <limits>

#include "infra/oss/kruExport.h"

namespace tq::oss {

/// The time by which something has to be done, as a point on `monotonicNanos()`, or none. A value;
/// safe from any thread.
///
/// When the clock cannot be read, a limit counts as one that has passed: a caller that asked for a
/// limit must not wait without one. A deadline without a limit never reads the clock and never
/// passes.
class KRU_EXPORT Deadline {
 public:
  /// None.
  constexpr Deadline() noexcept = default;
  static constexpr Deadline none() noexcept { return {}; }
  /// That many MILLISECONDS from now; 0 is over at once. None when that lies beyond the clock's
  /// end.
  static Deadline in(unsigned long milliseconds) noexcept;
  /// The same in NANOSECONDS.
  static Deadline inNanos(std::uint64_t nanoseconds) noexcept;
  /// This point of `monotonicNanos()`; the largest value means none.
  static constexpr Deadline at(std::uint64_t monotonicNanos) noexcept {
    return Deadline(monotonicNanos);
  }

  constexpr bool isNone() const noexcept { return nanos_ == kNone; }
  bool passed() const noexcept;
  /// NANOSECONDS until then: 0 when it has passed, the largest value for none.
  std::uint64_t left() const noexcept;
  /// What is left in MILLISECONDS, rounded up, so that a wait does not end just before the
  /// deadline.
  std::uint64_t leftMillis() const noexcept;
  /// The same as `poll` wants it: at most INT_MAX; -1 for none.
  int pollMillis() const noexcept;
  /// The end of the first of `parts` equal parts of the time that is left; 0 counts as 1. None has
  /// no parts.
  Deadline share(std::uint64_t parts) const noexcept;

  static constexpr Deadline earlier(Deadline a, Deadline b) noexcept { return b < a ? b : a; }

  /// Earlier is less; none is greater than every other.
  // clang-tidy 14 takes the comparison with zero that the compiler writes for a null pointer.
  // NOLINTNEXTLINE(modernize-use-nullptr)
  friend constexpr auto operator<=>(Deadline, Deadline) noexcept = default;

 private:
  static constexpr std::uint64_t kNone = std::numeric_limits<std::uint64_t>::max();

  constexpr explicit Deadline(std::uint64_t nanos) noexcept : nanos_(nanos) {}

  std::uint64_t nanos_ = kNone;
};

}  // namespace tq::oss
