#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "comm/kruRetryPolicy.h"
#include "infra/oss/kruSocket.h"
#include "tests/support/fakeSystemCalls.h"

namespace tq::comm {
namespace {

using tq::oss::Deadline;
using tq::test::Call;
using tq::test::FakeSystemCalls;

constexpr std::uint64_t kMilli = FakeSystemCalls::kMilli;

TEST(RetryPolicy, RepeatsWhatFailedInCommunicationUnlessThatIsUnsafe) {
  for (const bool unsafe : {false, true}) {
    RetryPolicy policy;
    policy.retryUnsafe = unsafe;
    for (const bool applied : {false, true}) {
      for (const bool repeatable : {false, true}) {
        EXPECT_FALSE(policy.allows({false, applied, repeatable}));
        EXPECT_EQ(policy.allows({true, applied, repeatable}), unsafe || !applied || repeatable);
      }
    }
  }
}

TEST(RetryPolicy, RepeatsUnsafelyAndDoesNotPauseUntilToldOtherwise) {
  const RetryPolicy policy;
  EXPECT_EQ(policy.retries, 0U);
  EXPECT_TRUE(policy.allows({true, true, false}));
  FakeSystemCalls fake;
  fake.stall(Call::Poll);
  tq::oss::Socket socket;
  policy.pauseBefore(1, socket, Deadline::none());
  EXPECT_EQ(fake.count(Call::Poll), 0U);
  EXPECT_EQ(fake.count(Call::Clock), 0U);
}

class RetryPause : public testing::Test {
 protected:
  RetryPause() {
    fake.stall(Call::Poll);
    policy.firstPause = 100;
    policy.longestPause = 1000;
  }

  /// How long one pause took.
  std::uint64_t paused(unsigned int attempt, Deadline deadline = Deadline::none()) {
    const std::uint64_t start = fake.now();
    policy.pauseBefore(attempt, socket, deadline);
    return fake.now() - start;
  }

  FakeSystemCalls fake;
  tq::oss::Socket socket;
  RetryPolicy policy;
};

// The clock is part of the seed, so that many pauses come near both ends of their range.
TEST_F(RetryPause, IsDrawnFromTheUpperHalfOfATimeThatDoublesUpToTheLongest) {
  const struct {
    unsigned int attempt;
    std::uint64_t most;
  } cases[] = {{1, 100}, {2, 200}, {3, 400}, {4, 800}, {5, 1000}, {6, 1000}, {100, 1000}};
  for (const auto& c : cases) {
    const std::uint64_t most = c.most * kMilli;
    std::uint64_t shortest = UINT64_MAX;
    std::uint64_t longest = 0;
    for (int i = 0; i < 500; ++i) {
      const std::uint64_t pause = paused(c.attempt);
      shortest = std::min(shortest, pause);
      longest = std::max(longest, pause);
    }
    EXPECT_GE(shortest, most / 2) << c.attempt;
    EXPECT_LE(shortest, most * 6 / 10) << c.attempt;
    EXPECT_GE(longest, most * 9 / 10) << c.attempt;
    EXPECT_LE(longest, most) << c.attempt;
  }
}

TEST_F(RetryPause, EndsWithTheDeadline) {
  EXPECT_EQ(paused(5, Deadline::at(fake.now() + 10 * kMilli)), 10 * kMilli);
  EXPECT_LE(paused(1, Deadline::at(fake.now() + 5000 * kMilli)), 100 * kMilli);
}

}  // namespace
}  // namespace tq::comm
