#pragma once

#include <poll.h>

#include <cstdint>

namespace tq::oss {

/// A deadline that never comes.
inline constexpr std::uint64_t kNever = UINT64_MAX;

/// Now plus the time-out; `kNever` when that is beyond the end of the clock, and 0, which is over,
/// when the clock cannot be read.
std::uint64_t deadlineIn(unsigned long millis) noexcept;

/// Polls until an entry is ready (their number), the deadline has passed (0) or the call fails (-1
/// with errno). Looks at least once however late it is. A signal only makes it poll again, for the
/// time that is left.
int pollUntil(pollfd* entries, nfds_t count, std::uint64_t deadline) noexcept;

}  // namespace tq::oss
