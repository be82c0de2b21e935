#include "infra/oss/kruWaiting.h"

#include <cerrno>

#include "infra/oss/kruSystemCalls.h"

namespace tq::oss {

int pollUntil(pollfd* entries, nfds_t count, Deadline deadline) noexcept {
  for (;;) {
    const int millis = deadline.pollMillis();
    const int ready = systemCalls().poll(entries, count, millis);
    if (ready > 0) return ready;
    if (ready < 0 && errno != EINTR) return -1;
    // The longest wait that poll knows may be shorter than the one asked for.
    if (ready == 0 && millis == 0) return 0;
  }
}

}  // namespace tq::oss
