#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <vector>

#include "server/base/memoryBudget.h"

namespace corvaned {
namespace {

using Share = MemoryBudget::Share;
using Use = MemoryBudget::Use;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class MemoryBudgetTest : public ::testing::Test {
 protected:
  /// Waits, and notes the size of the share when it is granted.
  MemoryBudget::Ticket await(std::size_t bytes) {
    return budget_.await(bytes, [this](Share share) {
      granted_.push_back(share.bytes());
      kept_.push_back(std::move(share));
    });
  }

  MemoryBudget budget_{800};
  std::vector<std::size_t> granted_;
  std::vector<Share> kept_;
};

TEST_F(MemoryBudgetTest, SharesFitUpToTheLimit) {
  Share one(budget_);
  Share other(budget_);
  EXPECT_TRUE(one.resize(500, Use::Small));
  EXPECT_FALSE(other.resize(301, Use::Small));
  EXPECT_EQ(other.bytes(), 0U);
  EXPECT_TRUE(other.resize(300, Use::Small));
  EXPECT_EQ(budget_.used(), 800U);
}

TEST_F(MemoryBudgetTest, LargeUsesLeaveAnEighthToSmallOnes) {
  Share large(budget_);
  EXPECT_FALSE(large.resize(701, Use::Large));
  EXPECT_TRUE(large.resize(700, Use::Large));
  Share small(budget_);
  EXPECT_TRUE(small.resize(100, Use::Small));
  EXPECT_FALSE(budget_.canEverFit(701, Use::Large));
  EXPECT_TRUE(budget_.canEverFit(701, Use::Small));
  EXPECT_FALSE(budget_.canEverFit(801, Use::Small));
}

TEST_F(MemoryBudgetTest, ShareComesBackWhenItShrinksMovesOrGoes) {
  {
    Share one(budget_);
    EXPECT_TRUE(one.resize(600, Use::Large));
    EXPECT_TRUE(one.resize(200, Use::Large));
    EXPECT_EQ(budget_.used(), 200U);
    Share two(std::move(one));
    EXPECT_EQ(budget_.used(), 200U);
  }
  EXPECT_EQ(budget_.used(), 0U);
}

TEST_F(MemoryBudgetTest, WhatIsTakenAlreadyCountsBeyondTheLimit) {
  Share forced(budget_);
  forced.force(900);
  Share share(budget_);
  EXPECT_FALSE(share.resize(1, Use::Small));
  forced.force(799);
  EXPECT_TRUE(share.resize(1, Use::Small));
}

TEST_F(MemoryBudgetTest, ShareWithoutABudgetHasNoLimit) {
  Share share;
  EXPECT_TRUE(share.resize(1U << 30U, Use::Large));
  share.force(0);
}

TEST_F(MemoryBudgetTest, WhoeverWaitsGetsItsShareInTheOrderOfAsking) {
  Share first(budget_);
  ASSERT_TRUE(first.resize(700, Use::Large));
  await(400);
  await(100);
  EXPECT_THAT(granted_, IsEmpty());
  first.force(650);
  EXPECT_THAT(granted_, IsEmpty()) << "the second one overtook";
  first.force(200);
  EXPECT_THAT(granted_, ElementsAre(400, 100));
  EXPECT_EQ(budget_.used(), 700U);
}

TEST_F(MemoryBudgetTest, LargeShareDoesNotOvertakeThoseWhoWait) {
  Share first(budget_);
  ASSERT_TRUE(first.resize(500, Use::Large));
  await(600);
  Share late(budget_);
  EXPECT_FALSE(late.resize(100, Use::Large));
  EXPECT_TRUE(late.resize(100, Use::Small));
}

TEST_F(MemoryBudgetTest, ShareThatIsFreeIsGrantedAtOnce) {
  await(700);
  EXPECT_THAT(granted_, ElementsAre(700));
}

TEST_F(MemoryBudgetTest, WhoeverWithdrawsLetsTheNextOnePass) {
  Share first(budget_);
  ASSERT_TRUE(first.resize(500, Use::Large));
  const MemoryBudget::Ticket ticket = await(600);
  await(200);
  budget_.withdraw(ticket);
  EXPECT_THAT(granted_, ElementsAre(200));
  first.force(0);
  EXPECT_THAT(granted_, ElementsAre(200));
}

TEST_F(MemoryBudgetTest, ShareOfAWaiterThatFailsComesBack) {
  budget_.await(700, [](const Share&) { throw std::runtime_error("no thread"); });
  EXPECT_EQ(budget_.used(), 0U);
}

TEST(MemoryBudget, PartOfAShareIsGivenBackByItself) {
  MemoryBudget budget(100);
  MemoryBudget::Share whole(budget);
  ASSERT_TRUE(whole.resize(80, MemoryBudget::Use::Small));
  {
    const MemoryBudget::Share part = whole.split(30);
    EXPECT_EQ(part.bytes(), 30U);
    EXPECT_EQ(whole.bytes(), 50U);
    EXPECT_EQ(budget.used(), 80U);
  }
  EXPECT_EQ(budget.used(), 50U);
  EXPECT_EQ(whole.split(60).bytes(), 50U);
  EXPECT_EQ(budget.used(), 0U);
  MemoryBudget::Share none;
  EXPECT_EQ(none.split(10).bytes(), 0U);
}

}  // namespace
}  // namespace corvaned
