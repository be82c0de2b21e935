#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include "comm/kruForks.h"
#include "tests/support/forkedChild.h"

namespace tq::comm {
namespace {

using test::holdsInChild;

bool isCountedInAChild(pid_t (*make)()) {
  const unsigned int number = forkNumber();
  return holdsInChild(
      [&] {
        const bool isCounted = forkNumber() == number + 1;
        return isCounted && holdsInChild([&] { return forkNumber() == number + 2; }, make);
      },
      make);
}

TEST(Forks, AreCountedInTheChildOnceHoweverOftenTheyWereWatchedFor) {
  for (int i = 0; i < 3; ++i) watchForks();
  const unsigned int number = forkNumber();
  EXPECT_TRUE(isCountedInAChild(::fork));
  EXPECT_EQ(forkNumber(), number) << "the parent stays what it is";
}

// Large blocks are counted apart, and none of a sanitizer's: only a build without one can tell.
std::size_t bytesInUse() {
  const struct mallinfo2 memory = ::mallinfo2();
  return memory.uordblks + memory.hblkhd;
}

TEST(Forks, AreWatchedForInMemoryThatDoesNotGrow) {
  watchForks();
  const std::size_t before = bytesInUse();
  for (int i = 0; i < 10000; ++i) watchForks();
  EXPECT_LT(bytesInUse(), before + 4096);
}

TEST(Forks, AreCountedWhicheverWayTheChildWasMade) {
  watchForks();
  EXPECT_TRUE(isCountedInAChild(::fork));
  EXPECT_TRUE(isCountedInAChild(test::cloneQuietly));
#ifdef __GLIBC_PREREQ
#if __GLIBC_PREREQ(2, 34)
  EXPECT_TRUE(isCountedInAChild(::_Fork));
#endif
#endif
}

TEST(Forks, AreCountedWhereTheKernelOnlySaysThatItEmptiesThePage) {
  watchForks();
  // In a child, so that this process keeps its page. A kernel that knows neither advice has not
  // emptied it before.
  EXPECT_TRUE(holdsInChild([] {
    ::madvise(&forks::mark, sizeof forks::mark, MADV_KEEPONFORK);
    return isCountedInAChild(::fork);
  }));
}

}  // namespace
}  // namespace tq::comm
