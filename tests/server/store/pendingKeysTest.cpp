#include <gtest/gtest.h>

#include <memory>

#include "server/store/pendingKeys.h"

namespace corvaned {
namespace {

Change put(const std::string& key) { return {ChangeKind::Put, {key, {}, "text"}}; }
Change removal(const std::string& key) { return {ChangeKind::Remove, {key, {}, {}}}; }

class PendingKeysTest : public ::testing::Test {
 protected:
  PendingKeysTest() {
    keys_.begin();
    keys_.keep();
  }

  MemoryBudget budget_{1000000};
  PendingKeys keys_{MemoryBudget::Share(budget_)};
};

TEST_F(PendingKeysTest, LastChangeOfAKeyCounts) {
  EXPECT_FALSE(keys_.find("k"));
  keys_.note({1, 10}, put("k"));
  EXPECT_EQ(keys_.find("k"), true);
  keys_.note({1, 20}, removal("k"));
  EXPECT_EQ(keys_.find("k"), false);
  EXPECT_FALSE(keys_.find("l"));
}

TEST_F(PendingKeysTest, LastIsWhatComesLastInTheJournal) {
  keys_.note({2, 10}, removal("k"));
  keys_.note({1, 99}, put("k"));
  EXPECT_EQ(keys_.find("k"), false);
}

TEST_F(PendingKeysTest, BatchCountsForEachOfItsKeys) {
  BatchEntry entry{"b", "digest", 0, {{{"k", {}, "text"}}, {"l"}, {}}};
  keys_.note({1, 10}, {ChangeKind::Batch, {}, std::make_shared<BatchEntry>(entry)});
  EXPECT_EQ(keys_.find("k"), true);
  EXPECT_EQ(keys_.find("l"), false);
}

TEST_F(PendingKeysTest, AreNotKeptAnyMoreIfAChangeIsMissed) {
  const PendingKeys::Hold hold = keys_.hold();
  keys_.note({1, 10}, put("k"));
  EXPECT_EQ(keys_.misses(), 0U);
  keys_.miss();
  EXPECT_EQ(keys_.misses(), 1U);
  EXPECT_FALSE(keys_.isKept());
  keys_.note({1, 20}, put("l"));
  EXPECT_EQ(keys_.find("k"), true);
  EXPECT_EQ(keys_.find("l"), true) << "what comes while all is read once more is noted";
  keys_.begin();
  keys_.keep();
  EXPECT_TRUE(keys_.isKept());
  EXPECT_EQ(keys_.misses(), 1U);
}

TEST_F(PendingKeysTest, WhatTheIndexHasIsForgotten) {
  keys_.note({1, 10}, put("k"));
  keys_.note({1, 20}, put("l"));
  keys_.forgetUpTo({1, 10});
  EXPECT_FALSE(keys_.find("k"));
  EXPECT_EQ(keys_.find("l"), true);
}

TEST_F(PendingKeysTest, NothingIsNotedUnlessItIsKept) {
  keys_.note({1, 10}, put("k"));
  keys_.drop();
  EXPECT_FALSE(keys_.isKept());
  EXPECT_FALSE(keys_.find("k"));
  keys_.note({1, 20}, put("k"));
  EXPECT_FALSE(keys_.find("k"));
  keys_.begin();
  EXPECT_FALSE(keys_.isKept()) << "what came before is not noted yet";
  keys_.note({1, 40}, put("k"));
  keys_.note({1, 30}, removal("k"));
  EXPECT_EQ(keys_.find("k"), true);
  keys_.keep();
  EXPECT_TRUE(keys_.isKept());
}

// Who appends a change notes it a moment later, and the index may have it by then.
TEST_F(PendingKeysTest, ChangeThatTheIndexHasAlreadyIsNotNoted) {
  keys_.note({1, 20}, removal("k"));
  keys_.forgetUpTo({1, 20});
  keys_.note({1, 10}, put("k"));
  EXPECT_FALSE(keys_.find("k"));
  keys_.drop();
  keys_.begin();
  keys_.note({1, 20}, put("k"));
  EXPECT_FALSE(keys_.find("k"));
  keys_.note({1, 21}, put("k"));
  EXPECT_EQ(keys_.find("k"), true);
}

// A look-up that has begun compares what it finds in the index with all that comes meanwhile.
TEST_F(PendingKeysTest, NothingIsForgottenWhileItIsHeld) {
  keys_.note({1, 10}, put("k"));
  PendingKeys::Hold first = keys_.hold();
  PendingKeys::Hold second = keys_.hold();
  keys_.forgetUpTo({1, 20});
  EXPECT_EQ(keys_.find("k"), true);
  keys_.note({1, 15}, removal("l"));
  EXPECT_EQ(keys_.find("l"), false) << "it was not known when the index got it";
  first.reset();
  EXPECT_EQ(keys_.find("k"), true) << "another one goes on";
  second.reset();
  EXPECT_FALSE(keys_.find("k"));
  EXPECT_FALSE(keys_.find("l"));
  EXPECT_EQ(budget_.used(), 0U);
}

TEST_F(PendingKeysTest, WhatWasForgottenBeforeItWasHeldIsNotNoted) {
  keys_.note({1, 20}, removal("k"));
  keys_.forgetUpTo({1, 20});
  const PendingKeys::Hold hold = keys_.hold();
  keys_.note({1, 10}, put("k"));
  EXPECT_FALSE(keys_.find("k"));
}

TEST_F(PendingKeysTest, IsNotIdleWhileItIsHeld) {
  keys_.need();
  EXPECT_FALSE(keys_.isIdle());
  {
    const PendingKeys::Hold hold = keys_.hold();
    EXPECT_FALSE(keys_.isIdle());
    EXPECT_FALSE(keys_.isIdle());
  }
  EXPECT_TRUE(keys_.isIdle());
}

TEST_F(PendingKeysTest, IsIdleWhenNobodyHasNeededItSince) {
  EXPECT_TRUE(keys_.isIdle());
  keys_.need();
  EXPECT_FALSE(keys_.isIdle());
  EXPECT_TRUE(keys_.isIdle());
}

TEST_F(PendingKeysTest, TakesMemoryFromTheBudgetAndGivesItBack) {
  const std::string key(100, 'k');
  keys_.note({1, 10}, put(key));
  const std::size_t one = budget_.used();
  EXPECT_GT(one, key.size());
  keys_.note({1, 20}, removal(key));
  EXPECT_EQ(budget_.used(), one);
  keys_.note({1, 30}, put("l"));
  EXPECT_GT(budget_.used(), one);
  keys_.forgetUpTo({1, 20});
  EXPECT_LT(budget_.used(), one);
  keys_.drop();
  EXPECT_EQ(budget_.used(), 0U);
}

}  // namespace
}  // namespace corvaned
