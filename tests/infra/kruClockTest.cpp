#include <gtest/gtest.h>

#include "infra/oss/kruClock.h"
#include "infra/oss/kruWaiting.h"
#include "tests/support/fakeSystemCalls.h"

namespace {

using tq::oss::Deadline;
using tq::oss::pollUntil;
using tq::test::Call;
using tq::test::FakeSystemCalls;

TEST(Clock, NeverGoesBack) {
  const std::uint64_t first = tq::oss::monotonicNanos();
  EXPECT_GT(first, 0U);
  EXPECT_GE(tq::oss::monotonicNanos(), first);
}

TEST(Clock, CountsNanoseconds) {
  FakeSystemCalls fake;
  fake.setClock(5000000007U);
  EXPECT_EQ(tq::oss::monotonicNanos(), 5000000007U);
  EXPECT_EQ(fake.count(Call::Clock), 1U);
}

TEST(Clock, ThatCannotBeReadIsBehindEveryDeadline) {
  FakeSystemCalls fake;
  fake.failAll(Call::Clock, EPERM);
  EXPECT_EQ(tq::oss::monotonicNanos(), UINT64_MAX);
}

TEST(Clock, ThatCannotBeReadEndsAPause) {
  for (const unsigned int nth : {1U, 2U, 3U}) {
    FakeSystemCalls fake;
    fake.stall(Call::Poll);
    const std::uint64_t start = fake.now();
    fake.fail(Call::Clock, nth, EPERM);
    tq::oss::pauseFor(5000 * FakeSystemCalls::kMilli);
    EXPECT_LE(fake.now() - start, 5000 * FakeSystemCalls::kMilli);
  }
  FakeSystemCalls fake;
  fake.failAll(Call::Clock, EPERM);
  tq::oss::pauseFor(1);
  EXPECT_LE(fake.count(Call::Clock), 2U);
}

TEST(Waiting, WithoutAClockLooksOnce) {
  FakeSystemCalls fake;
  fake.stall(Call::Poll);
  fake.failAll(Call::Clock, EPERM);
  pollfd entry{-1, POLLIN, 0};
  EXPECT_EQ(pollUntil(&entry, 1, Deadline::at(fake.now() + 1000 * FakeSystemCalls::kMilli)), 0);
  EXPECT_EQ(fake.pollTimeouts(), std::vector<int>{0}) << "one look";
}

TEST(Waiting, RoundsUpToWholeMilliseconds) {
  FakeSystemCalls fake;
  fake.stall(Call::Poll);
  const std::uint64_t start = fake.now();
  pollfd entry{-1, POLLIN, 0};
  EXPECT_EQ(pollUntil(&entry, 1, Deadline::at(start + 1)), 0);
  EXPECT_EQ(fake.pollTimeouts(), (std::vector<int>{1, 0}));
}

TEST(Waiting, LooksOnceWhenTheDeadlineHasPassed) {
  FakeSystemCalls fake;
  fake.stall(Call::Poll);
  pollfd entry{-1, POLLIN, 0};
  EXPECT_EQ(pollUntil(&entry, 1, Deadline::at(1)), 0);
  EXPECT_EQ(fake.pollTimeouts(), std::vector<int>{0});
}

TEST(Waiting, ASignalLeavesOnlyTheRestOfTheTime) {
  FakeSystemCalls fake;
  fake.stall(Call::Poll);
  fake.interrupt(Call::Poll, 3);
  pollfd entry{-1, POLLIN, 0};
  EXPECT_EQ(pollUntil(&entry, 1, Deadline::at(fake.now() + 7 * FakeSystemCalls::kMilli)), 0);
  EXPECT_EQ(fake.count(Call::Poll), 5U);
  EXPECT_EQ(fake.pollTimeouts(), (std::vector<int>{7, 0}));
}

TEST(Waiting, ALongWaitIsMadeOfSeveralPolls) {
  FakeSystemCalls fake;
  fake.stall(Call::Poll);
  constexpr std::uint64_t kMonths = std::uint64_t{5000000000} * FakeSystemCalls::kMilli;
  pollfd entry{-1, POLLIN, 0};
  EXPECT_EQ(pollUntil(&entry, 1, Deadline::at(fake.now() + kMonths)), 0);
  EXPECT_EQ(fake.pollTimeouts(), (std::vector<int>{2147483647, 2147483647, 705032706, 0}));
}

TEST(Waiting, AFailureOfPollIsReported) {
  FakeSystemCalls fake;
  fake.fail(Call::Poll, 1, ENOMEM);
  pollfd entry{-1, POLLIN, 0};
  EXPECT_EQ(pollUntil(&entry, 1, Deadline::none()), -1);
  EXPECT_EQ(errno, ENOMEM);
}

TEST(SystemCalls, TheRealOnesComeBack) {
  { const FakeSystemCalls fake; }
  EXPECT_EQ(&tq::oss::systemCalls(), &tq::oss::realSystemCalls());
  const tq::oss::SystemCalls other = tq::oss::realSystemCalls();
  EXPECT_EQ(tq::oss::replaceSystemCalls(&other), &tq::oss::realSystemCalls());
  EXPECT_EQ(tq::oss::replaceSystemCalls(nullptr), &other);
  EXPECT_EQ(&tq::oss::systemCalls(), &tq::oss::realSystemCalls());
}

}  // namespace
