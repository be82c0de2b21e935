#pragma once

#include <poll.h>

#include <cstddef>

#include "infra/oss/kruSystemCalls.h"
#include "infra/oss/kruWaitHook.h"

namespace tq::test {

/// A host that waits as the system does, until it is told to give up.
struct WaitingHost {
  std::size_t waits = 0;
  std::size_t giveUpAt = 0;  // the wait of this number; 0: none

  static tq::oss::WaitResult wait(void* host, int fd, short events, int timeoutMillis) noexcept {
    auto& self = *static_cast<WaitingHost*>(host);
    if (++self.waits == self.giveUpAt) return tq::oss::WaitResult::GiveUp;
    pollfd entry{fd, events, 0};
    const int ready = tq::oss::systemCalls().poll(&entry, fd < 0 ? 0U : 1U, timeoutMillis);
    return ready > 0 ? tq::oss::WaitResult::Ready : tq::oss::WaitResult::TimedOut;
  }
};

}  // namespace tq::test
