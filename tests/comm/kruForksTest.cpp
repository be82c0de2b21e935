#include <gtest/gtest.h>

#include "comm/kruForks.h"
#include "tests/support/forkedChild.h"

namespace tq::comm {
namespace {

TEST(Forks, AreCountedInTheChildOnceHoweverOftenTheyWereWatchedFor) {
  for (int i = 0; i < 3; ++i) watchForks();
  const unsigned int number = forkNumber();
  EXPECT_TRUE(test::holdsInChild([&] {
    const bool isCounted = forkNumber() == number + 1;
    return isCounted && test::holdsInChild([&] { return forkNumber() == number + 2; });
  }));
  EXPECT_EQ(forkNumber(), number) << "the parent stays what it is";
}

}  // namespace
}  // namespace tq::comm
