#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>
#include <vector>

#include "server/base/descriptorBudget.h"
#include "server/base/errors.h"

namespace corvaned {
namespace {

using ::testing::HasSubstr;

TEST(DescriptorPlan, ConnectionsGetWhatTheyWantButAtMostHalf) {
  struct Case {
    std::size_t limit, wanted, connections, collections;
  };
  for (const Case& each :
       {Case{20160, 10000, 10000, 10000}, Case{20160, 10001, 10000, 10000},
        Case{65536, 10000, 10000, 55376}, Case{256, 10000, 48, 48}, Case{256, 10, 10, 86}}) {
    const DescriptorPlan plan = divideDescriptors(each.limit, each.wanted);
    EXPECT_EQ(plan.connections, each.connections) << each.limit;
    EXPECT_EQ(plan.collections, each.collections) << each.limit;
  }
}

TEST(DescriptorPlan, LimitThatServesNobodyIsRefused) {
  EXPECT_NO_THROW(divideDescriptors(224, 1));
  try {
    divideDescriptors(223, 1);
    FAIL() << "not refused";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("223 open files are too few"));
  }
}

TEST(DescriptorBudget, SharesComeBack) {
  DescriptorBudget budget(5);
  {
    DescriptorBudget::Share first(&budget);
    first.add(2);
    DescriptorBudget::Share second(std::move(first));
    second.add(3);
    EXPECT_EQ(budget.used(), 5U);
    DescriptorBudget::Share third(&budget);
    EXPECT_THROW(third.add(1), ServerError);
    EXPECT_EQ(budget.used(), 5U);
  }
  EXPECT_EQ(budget.used(), 0U);
}

TEST(DescriptorBudget, OthersAreClosedUntilThereAreEnough) {
  DescriptorBudget budget(5);
  std::vector<DescriptorBudget::Share> open;
  for (int i = 0; i < 5; ++i) {
    open.emplace_back(&budget);
    open.back().add(1);
  }
  budget.setReclaim([&] {
    if (open.empty()) return false;
    open.pop_back();
    return true;
  });
  DescriptorBudget::Share wanted(&budget);
  wanted.add(3);
  EXPECT_EQ(open.size(), 2U);
  EXPECT_THROW(wanted.add(3), ServerError);
  EXPECT_TRUE(open.empty());
}

TEST(DescriptorBudget, ShareWithoutABudgetHasNoLimit) {
  DescriptorBudget::Share share;
  EXPECT_NO_THROW(share.add(1000000));
}

}  // namespace
}  // namespace corvaned
