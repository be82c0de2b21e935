#include <gtest/gtest.h>

#include <climits>

#include "infra/oss/kruDeadline.h"
#include "tests/support/fakeSystemCalls.h"

namespace {

using tq::oss::Deadline;
using tq::test::Call;
using tq::test::FakeSystemCalls;

constexpr std::uint64_t kMilli = FakeSystemCalls::kMilli;
constexpr std::uint64_t kLargest = UINT64_MAX;

TEST(Deadline, NoneIsLaterThanEveryOtherAndNeverReadsTheClock) {
  FakeSystemCalls fake;
  const Deadline none;
  EXPECT_EQ(none, Deadline::none());
  EXPECT_TRUE(none.isNone());
  EXPECT_FALSE(none.passed());
  EXPECT_EQ(none.left(), kLargest);
  EXPECT_EQ(none.leftMillis(), kLargest / kMilli + 1);
  EXPECT_EQ(none.pollMillis(), -1);
  EXPECT_EQ(none.share(3), none);
  EXPECT_GT(none, Deadline::at(kLargest - 1));
  EXPECT_EQ(Deadline::at(kLargest), none);
  EXPECT_EQ(fake.count(Call::Clock), 0U);
}

TEST(Deadline, CountsFromNow) {
  FakeSystemCalls fake;
  fake.setClock(1000);
  EXPECT_EQ(Deadline::in(0), Deadline::at(1000));
  EXPECT_EQ(Deadline::in(3), Deadline::at(3001000));
  EXPECT_EQ(Deadline::inNanos(7), Deadline::at(1007));
}

TEST(Deadline, BeyondTheClocksEndIsNone) {
  FakeSystemCalls fake;
  fake.setClock(1000 * kMilli);
  EXPECT_EQ(Deadline::in(~0UL), Deadline::none());
  constexpr unsigned long kLast = kLargest / kMilli - 1000;
  EXPECT_EQ(Deadline::in(kLast), Deadline::at((kLast + 1000) * kMilli));
  EXPECT_EQ(Deadline::in(kLast + 1), Deadline::none());
  EXPECT_EQ(Deadline::inNanos(kLargest), Deadline::none());
  EXPECT_EQ(Deadline::inNanos(kLargest - 1000 * kMilli - 1), Deadline::at(kLargest - 1));
}

TEST(Deadline, TheMostMillisecondsThatFitAreNotWithoutEnd) {
  FakeSystemCalls fake;
  fake.setClock(1);
  constexpr unsigned long kMaxMillis = kLargest / kMilli;
  EXPECT_EQ(Deadline::in(kMaxMillis), Deadline::at(kMaxMillis * kMilli + 1));
}

TEST(Deadline, HasPassedFromItsOwnTimeOn) {
  FakeSystemCalls fake;
  const Deadline deadline = Deadline::at(5000);
  struct Case {
    std::uint64_t now;
    bool passed;
    std::uint64_t left;
  };
  for (const Case& c : {Case{4999, false, 1}, Case{5000, true, 0}, Case{5001, true, 0}}) {
    fake.setClock(c.now);
    EXPECT_EQ(deadline.passed(), c.passed) << c.now;
    EXPECT_EQ(deadline.left(), c.left) << c.now;
  }
}

TEST(Deadline, GivesPollWholeMillisecondsRoundedUp) {
  FakeSystemCalls fake;
  constexpr std::uint64_t kNow = 10 * kMilli;
  fake.setClock(kNow);
  struct Case {
    std::uint64_t left;
    int millis;
  };
  constexpr std::uint64_t kIntMax = INT_MAX;
  for (const Case& c : {Case{0, 0}, Case{1, 1}, Case{kMilli - 1, 1}, Case{kMilli, 1},
                        Case{kMilli + 1, 2}, Case{kIntMax * kMilli, INT_MAX},
                        Case{kIntMax * kMilli + 1, INT_MAX}, Case{kLargest - kNow - 1, INT_MAX}}) {
    EXPECT_EQ(Deadline::at(kNow + c.left).pollMillis(), c.millis) << c.left;
  }
  EXPECT_EQ(Deadline::at(kNow - 1).pollMillis(), 0);
}

TEST(Deadline, IsMillisecondsAwayThatAreNotCutToWhatPollTakes) {
  FakeSystemCalls fake;
  constexpr std::uint64_t kNow = 10 * kMilli;
  fake.setClock(kNow);
  constexpr std::uint64_t kFar = 3 * std::uint64_t{INT_MAX};
  EXPECT_EQ(Deadline::at(kNow + kFar * kMilli).leftMillis(), kFar);
  EXPECT_EQ(Deadline::at(kNow + kFar * kMilli + 1).leftMillis(), kFar + 1);
  EXPECT_EQ(Deadline::at(kNow - 1).leftMillis(), 0U);
}

TEST(Deadline, IsSharedInEqualParts) {
  FakeSystemCalls fake;
  fake.setClock(1000);
  EXPECT_EQ(Deadline::at(1900).share(3), Deadline::at(1300));
  EXPECT_EQ(Deadline::at(1900).share(1), Deadline::at(1900));
  EXPECT_EQ(Deadline::at(1900).share(0), Deadline::at(1900)) << "no parts is one";
  EXPECT_EQ(Deadline::at(900).share(3), Deadline::at(900)) << "one that has passed stays passed";
}

TEST(Deadline, TheEarlierOfTwoCounts) {
  const Deadline sooner = Deadline::at(1);
  const Deadline later = Deadline::at(2);
  EXPECT_EQ(Deadline::earlier(sooner, later), sooner);
  EXPECT_EQ(Deadline::earlier(later, sooner), sooner);
  EXPECT_EQ(Deadline::earlier(Deadline::none(), later), later);
  EXPECT_EQ(Deadline::earlier(later, Deadline::none()), later);
  EXPECT_TRUE(Deadline::earlier(Deadline::none(), Deadline::none()).isNone());
}

TEST(Deadline, HasPassedWhenTheClockCannotBeRead) {
  FakeSystemCalls fake;
  fake.failAll(Call::Clock, EPERM);
  for (const unsigned long millis : {0UL, 1UL, 1000UL, ~0UL}) {
    EXPECT_EQ(Deadline::in(millis), Deadline::at(0)) << millis;
  }
  EXPECT_EQ(Deadline::inNanos(kLargest), Deadline::at(0));
  const Deadline far = Deadline::at(kLargest - 1);
  EXPECT_TRUE(far.passed());
  EXPECT_EQ(far.left(), 0U);
  EXPECT_EQ(far.pollMillis(), 0);
  EXPECT_EQ(far.share(2), far) << "which has passed as well";
  EXPECT_FALSE(Deadline::none().passed());
}

}  // namespace
