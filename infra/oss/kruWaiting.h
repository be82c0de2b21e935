#pragma once

#include <poll.h>

#include "infra/oss/kruDeadline.h"
#include "infra/oss/kruWaitHook.h"

namespace tq::oss {

// Nothing that waits is noexcept: a thread that is cancelled while it waits unwinds from there.

/// Polls until an entry is ready (their number), the deadline has passed (0) or the call fails (-1
/// with errno). Looks at least once however late it is. A signal only makes it poll again, for the
/// time that is left.
int pollUntil(pollfd* entries, nfds_t count, Deadline deadline);

enum class Waited {
  Ready,
  Late,
  GivenUp,
  Failed,  // errno says why
};

/// How a connection waits: in poll, or in the hook of the process that the library is a guest of.
class Waiter {
 public:
  constexpr Waiter() noexcept = default;
  constexpr Waiter(WaitHook hook, void* host) noexcept : hook_(hook), host_(host) {}

  bool hooked() const noexcept { return hook_ != nullptr; }

  /// For callers that have looked and found nothing, and look again when this returns `Ready`: a
  /// hook may answer so although nothing has come. Since they have looked, a hook is not called
  /// once the deadline has passed.
  Waited untilReady(int fd, short events, Deadline deadline) const;

  /// For callers that cannot look themselves: `Ready` only when poll says so.
  Waited untilPolled(pollfd& entry, Deadline deadline) const;

  /// Waits for nothing but the deadline or the hook: `Late` or `GivenUp`.
  Waited pause(Deadline deadline) const;

 private:
  Waited callHook(int fd, short events, Deadline deadline) const;

  WaitHook hook_ = nullptr;
  void* host_ = nullptr;
};

}  // namespace tq::oss
