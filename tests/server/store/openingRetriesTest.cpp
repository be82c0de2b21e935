#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <vector>

#include "server/store/openingRetries.h"

namespace corvaned {
namespace {

using ::testing::ElementsAre;

class OpeningRetriesTest : public ::testing::Test {
 protected:
  std::vector<long> secondsAfter(int failures, const ServerError& failure) {
    std::vector<long> times;
    for (int i = 0; i < failures; ++i) {
      times.push_back(
          std::chrono::ceil<std::chrono::seconds>(retries_.failed("c", failure).after).count());
    }
    return times;
  }

  OpeningRetries retries_;
  const ServerError noMemory_{ErrorKind::OutOfMemory, "its keys never fit"};
  const ServerError busy_{ErrorKind::TryAgain, "others have the memory"};
  const ServerError damaged_{ErrorKind::StorageFailed, "a file is damaged"};
};

TEST_F(OpeningRetriesTest, AttemptsComeHalfAsOftenAfterEachFailure) {
  EXPECT_THAT(secondsAfter(11, noMemory_), ElementsAre(1, 2, 4, 8, 16, 32, 64, 128, 256, 300, 300));
  retries_.forget("c");
  EXPECT_THAT(secondsAfter(8, busy_), ElementsAre(1, 2, 4, 8, 16, 32, 60, 60));
  for (int i = 0; i < 100; ++i) retries_.failed("c", busy_);
  EXPECT_THAT(secondsAfter(1, busy_), ElementsAre(60));
}

TEST_F(OpeningRetriesTest, DamageIsLookedForAgainAfterAMinute) {
  EXPECT_THAT(secondsAfter(3, damaged_), ElementsAre(60, 60, 60));
}

TEST_F(OpeningRetriesTest, OneReasonIsNewsOnce) {
  EXPECT_TRUE(retries_.failed("c", noMemory_).isNews);
  EXPECT_FALSE(retries_.failed("c", noMemory_).isNews);
  EXPECT_TRUE(retries_.failed("c", damaged_).isNews);
  EXPECT_TRUE(retries_.failed("c", noMemory_).isNews);
  EXPECT_TRUE(retries_.failed("d", noMemory_).isNews);
  retries_.forget("c");
  EXPECT_TRUE(retries_.failed("c", noMemory_).isNews);
  EXPECT_FALSE(retries_.failed("d", noMemory_).isNews);
}

TEST_F(OpeningRetriesTest, CollectionThatHasBeenOpenedBeginsAnew) {
  secondsAfter(5, noMemory_);
  EXPECT_EQ(retries_.failed("d", noMemory_).after, OpeningRetries::kFirst);
  retries_.forget("c");
  EXPECT_THAT(secondsAfter(2, noMemory_), ElementsAre(1, 2));
}

}  // namespace
}  // namespace corvaned
