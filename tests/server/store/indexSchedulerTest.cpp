#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <new>
#include <optional>
#include <string>

#include "server/store/indexScheduler.h"

namespace corvaned {
namespace {

TEST(IndexScheduler, SmallWorkWaitsForOneStepOfEachLargeOne) {
  std::string order;
  std::promise<void> done;
  std::optional<IndexScheduler> scheduler(std::in_place, 1);
  const auto work = [&](char name, int steps) {
    return [&, name, left = steps]() mutable {
      order += name;
      if (order.size() == 3) {
        scheduler->run([&] {
          order += 's';
          return false;
        });
      }
      if (order.size() == 41) done.set_value();
      return --left > 0;
    };
  };
  scheduler->run([&] {
    scheduler->run(work('a', 20));
    scheduler->run(work('b', 20));
    return false;
  });
  done.get_future().wait();
  scheduler.reset();
  EXPECT_EQ(order.substr(0, 8), "ababsaba") << order;
  EXPECT_EQ(order.size(), 41U);
}

TEST(IndexScheduler, EndsWhenItsWorkHasEndedAndForgetsWhatWasToBeginLater) {
  std::atomic<int> steps = 0;
  std::atomic<bool> forgotten = true;
  {
    IndexScheduler scheduler(2);
    for (int i = 0; i < 10; ++i) {
      scheduler.run([&, left = 5]() mutable {
        ++steps;
        return --left > 0;
      });
    }
    scheduler.later(std::chrono::hours(1), [&] { forgotten = false; });
  }
  EXPECT_EQ(steps, 50);
  EXPECT_TRUE(forgotten);
}

TEST(IndexScheduler, WorkBeginsAfterItsTime) {
  IndexScheduler scheduler(1);
  std::promise<void> begun;
  scheduler.later(std::chrono::milliseconds(1), [&] { begun.set_value(); });
  begun.get_future().wait();
}

TEST(IndexScheduler, FailuresEndNeitherTheWorkNorTheProcess) {
  std::atomic<int> beginnings = 0;
  std::atomic<int> steps = 0;
  std::promise<void> begun;
  {
    IndexScheduler scheduler(1);
    scheduler.later(std::chrono::milliseconds(1), [&] {
      if (++beginnings < 3) throw std::bad_alloc();
      begun.set_value();
    });
    begun.get_future().wait();
    scheduler.run([&] {
      if (++steps < 3) throw std::bad_alloc();
      return steps < 5;
    });
  }
  EXPECT_EQ(beginnings, 3);
  EXPECT_EQ(steps, 5);
}

}  // namespace
}  // namespace corvaned
