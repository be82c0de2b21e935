#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <latch>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "server/store/parallel.h"

namespace corvaned {
namespace {

constexpr std::size_t kCalls = 5;

class ParallelTest : public ::testing::Test {
 protected:
  void expectEachCallOnce(const Helpers& helpers) {
    inParallel(kCalls, helpers, [this](std::size_t number) { ++calls_.at(number); });
    for (const std::atomic<int>& each : calls_) EXPECT_EQ(each, 1);
  }

  static void expectFirstFailure(const Helpers& helpers,
                                 const std::function<void(std::size_t)>& work) {
    try {
      inParallel(kCalls, helpers, work);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "1");
    }
  }

  Helpers withThreads() {
    return [this](std::function<void()> work) { threads_.emplace_back(std::move(work)); };
  }

  std::array<std::atomic<int>, kCalls> calls_{};
  std::vector<std::jthread> threads_;
};

TEST_F(ParallelTest, EachCallIsMadeOnceWithoutHelpers) { expectEachCallOnce({}); }

TEST_F(ParallelTest, EachCallIsMadeOnceWithHelpers) { expectEachCallOnce(withThreads()); }

TEST_F(ParallelTest, HelpersThatCannotBeHadAreDoneWithout) {
  expectEachCallOnce([](const std::function<void()>&) { throw std::bad_alloc(); });
}

TEST_F(ParallelTest, HelpersThatComeTooLateFindNothingToDo) {
  std::vector<std::function<void()>> late;
  expectEachCallOnce([&](std::function<void()> work) { late.push_back(std::move(work)); });
  EXPECT_EQ(late.size(), kCalls - 1);
  for (const auto& work : late) work();
  for (const std::atomic<int>& each : calls_) EXPECT_EQ(each, 1);
}

// None of them would end if they came one after the other.
TEST_F(ParallelTest, CallsAreUnderWayAtTheSameTime) {
  std::latch all(kCalls);
  inParallel(kCalls, withThreads(), [&](std::size_t) { all.arrive_and_wait(); });
  EXPECT_TRUE(all.try_wait());
}

TEST_F(ParallelTest, FirstFailureIsThrownWhenAllHaveEnded) {
  const auto fail = [this](std::size_t number) {
    ++calls_.at(number);
    if (number % 2 == 1) throw std::runtime_error(std::to_string(number));
  };
  expectFirstFailure({}, fail);
  for (const std::atomic<int>& each : calls_) EXPECT_EQ(each, 1);
}

// The last call ends long after all others, those that fail among them.
TEST_F(ParallelTest, FailureWaitsForTheCallsOfOtherThreads) {
  std::latch others(kCalls - 1);
  std::atomic<bool> ended = false;
  const auto work = [&](std::size_t number) {
    if (number + 1 == kCalls) {
      others.wait();
      // Whoever does not wait for this one is through before.
      for (int i = 0; i < 1000; ++i) std::this_thread::yield();
      ended = true;
      return;
    }
    others.count_down();
    if (number % 2 == 1) throw std::runtime_error(std::to_string(number));
  };
  expectFirstFailure(withThreads(), work);
  EXPECT_TRUE(ended);
}

}  // namespace
}  // namespace corvaned
