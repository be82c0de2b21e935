#include "comm/kruRetryPolicy.h"

#include <algorithm>
#include <cstdint>
#include <random>

#include "infra/oss/kruClock.h"
#include "infra/oss/kruSocket.h"

namespace tq::comm {

namespace {
constexpr std::uint64_t kNanosPerMilli = 1000000;
}  // namespace

bool RetryPolicy::allows(const Failure& failure) const noexcept {
  return failure.ofCommunication && (retryUnsafe || !failure.mayBeApplied || failure.repeatable);
}

void RetryPolicy::pauseBefore(unsigned int attempt, tq::oss::Socket& socket,
                              const tq::oss::Deadline& deadline) const {
  if (firstPause == 0) return;
  std::uint64_t millis = firstPause;
  for (unsigned int i = 1; i < attempt && millis < longestPause; ++i) millis *= 2;
  const std::uint64_t nanos = std::min<std::uint64_t>(millis, longestPause) * kNanosPerMilli;
  // Clients that failed together must not come back together, hence the random half.
  std::minstd_rand random(static_cast<std::minstd_rand::result_type>(
      tq::oss::monotonicNanos() ^ reinterpret_cast<std::uintptr_t>(this)));
  std::uniform_int_distribution<std::uint64_t> share(nanos / 2, nanos);
  socket.pauseUntil(
      tq::oss::Deadline::earlier(deadline, tq::oss::Deadline::inNanos(share(random))));
}

}  // namespace tq::comm
