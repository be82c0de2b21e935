#pragma once

#include <poll.h>

#include "infra/oss/kruDeadline.h"

namespace tq::oss {

/// Polls until an entry is ready (their number), the deadline has passed (0) or the call fails (-1
/// with errno). Looks at least once however late it is. A signal only makes it poll again, for the
/// time that is left.
int pollUntil(pollfd* entries, nfds_t count, Deadline deadline) noexcept;

}  // namespace tq::oss
