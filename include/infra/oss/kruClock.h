#pragma once

#include <cstdint>

#include "infra/oss/kruExport.h"

namespace tq::oss {

/// Nanoseconds on a clock that never goes back, counted from an unspecified start: fit for
/// deadlines and durations, not for the time of day. Returns the largest value when the clock
/// cannot be read, so that every deadline counts as passed. Safe from any thread.
KRU_EXPORT std::uint64_t monotonicNanos() noexcept;

/// Holds the calling thread for this long, whether signals arrive or not. Returns at once when the
/// clock cannot be read. Safe from any thread.
KRU_EXPORT void pauseFor(std::uint64_t nanoseconds);

}  // namespace tq::oss
