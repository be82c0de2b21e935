#pragma once

#include <cstdint>

#include "infra/oss/kruExport.h"

namespace tq::oss {

/// Nanoseconds on a clock that only ever goes forward, from a start that means nothing: good for
/// deadlines and durations, not for the time of day. The largest value when the clock cannot be
/// read: every deadline counts as over then, so that nobody waits for one without end. Safe from
/// any thread.
KRU_EXPORT std::uint64_t monotonicNanos() noexcept;

/// Holds the calling thread for this long, signals or not; not at all, or no longer, when the clock
/// cannot be read. Safe from any thread.
KRU_EXPORT void pauseFor(std::uint64_t nanoseconds) noexcept;

}  // namespace tq::oss
