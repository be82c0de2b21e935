#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <memory>
#include <string>
#include <vector>

#include "server/base/memoryBudget.h"
#include "server/store/parseOutcomes.h"

namespace corvaned {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ParseOutcomesTest : public ::testing::Test {
 protected:
  using Keys = std::vector<std::string>;

  bool push(const std::string& key, const std::string& client = {}) {
    return outcomes_.push({key, {}, {}}, ++ticket_, client);
  }

  static Keys keysOf(const ParseOutcomes::Taken& taken) {
    Keys keys;
    for (const ParseOutcome& outcome : taken.outcomes) keys.push_back(outcome.key);
    return keys;
  }

  /// Afterwards the index has the documents of all owners.
  void update(const ParseOutcomes::LeftOut& leftOut, const Keys& refused = {}) {
    std::vector<ParseOutcome> outcomes;
    for (const std::string& key : refused) outcomes.push_back({key, "ZVK0015E", "no"});
    outcomes_.noteUpdate(leftOut, std::move(outcomes));
    outcomes_.forgetOwnersUpTo({9, 0});
  }

  void give() { outcomes_.noteGiven(outcomes_.leftOut()->update); }

  std::string leftOut() const {
    const auto found = outcomes_.leftOut();
    return found ? std::to_string(found->count) + " " + found->names : "";
  }

  Keys take(const std::string& client = {}) { return keysOf(outcomes_.take(client)); }

  ParseOutcomes outcomes_{5};
  std::uint64_t ticket_ = 0;
};

TEST_F(ParseOutcomesTest, AreToldInTheirOrderAndOnce) {
  push("k1");
  push("k2");
  const ParseOutcomes::Taken taken = outcomes_.take();
  EXPECT_THAT(keysOf(taken), ElementsAre("k1", "k2"));
  EXPECT_EQ(taken.ticket, 2U);
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_TRUE(outcomes_.empty());
}

TEST_F(ParseOutcomesTest, OldestAreDroppedBeyondTheLimit) {
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(push(std::to_string(i)));
  EXPECT_FALSE(push("5"));
  EXPECT_THAT(take(), ElementsAre("1", "2", "3", "4", "5"));
}

TEST_F(ParseOutcomesTest, ClientIsToldItsOwnAndNobodyElseIs) {
  push("k1", "ada");
  push("k2");
  push("k3", "ben");
  push("k4", "ada");
  EXPECT_FALSE(outcomes_.empty());
  EXPECT_THAT(take(), ElementsAre("k2"));
  EXPECT_THAT(take("eve"), IsEmpty());
  EXPECT_THAT(take("ada"), ElementsAre("k1", "k4"));
  EXPECT_THAT(take("ada"), IsEmpty());
  EXPECT_FALSE(outcomes_.empty());
  EXPECT_THAT(take("ben"), ElementsAre("k3"));
  EXPECT_TRUE(outcomes_.empty());
}

TEST_F(ParseOutcomesTest, WhatAnUpdateLeftOutStandsUntilAnOutcomeOfItIsTaken) {
  EXPECT_EQ(leftOut(), "");
  for (const char* client : {"", "ada"}) {
    outcomes_.setOwner("k1", client, {1, 10});
    outcomes_.setOwner("k2", "ben", {1, 20});
    update({2, 1, "k1"}, {"k1", "k2"});
    push("k3", "eve");
    EXPECT_THAT(take("eve"), ElementsAre("k3"));
    EXPECT_THAT(take("nobody"), IsEmpty());
    EXPECT_EQ(leftOut(), "2 k1");
    outcomes_.putBack(outcomes_.take(client), client);
    EXPECT_EQ(leftOut(), "2 k1") << "it could not be told";
    EXPECT_THAT(take(client), ElementsAre("k1"));
    EXPECT_EQ(leftOut(), "");
    EXPECT_THAT(take("ben"), ElementsAre("k2"));
  }
  EXPECT_TRUE(outcomes_.empty());
  update({1, 1, "k1"});
  EXPECT_FALSE(outcomes_.empty());
}

TEST_F(ParseOutcomesTest, NextUpdateReplacesWhatSomebodyWasGiven) {
  outcomes_.setOwner("k1", "ada", {1, 10});
  update({1, 1, "k1"}, {"k1"});
  give();
  outcomes_.setOwner("k2", "ben", {1, 10});
  update({1, 1, "k2"}, {"k2"});
  EXPECT_THAT(take("ada"), ElementsAre("k1"));
  EXPECT_EQ(leftOut(), "1 k2") << "an outcome of an earlier one says nothing of it";
  give();
  update({});
  EXPECT_EQ(leftOut(), "");
}

TEST_F(ParseOutcomesTest, WhatNobodyWasGivenIsKeptThroughFurtherUpdates) {
  outcomes_.setOwner("k1", "ada", {1, 10});
  update({1, 1, "k1"}, {"k1"});
  update({});
  EXPECT_EQ(leftOut(), "1 k1");
  outcomes_.setOwner("k2", "ben", {1, 10});
  update({4, 3, "k2, k3, k4"}, {"k2"});
  EXPECT_EQ(leftOut(), "5 k1");
  EXPECT_THAT(take("ada"), ElementsAre("k1"));
  EXPECT_EQ(leftOut(), "5 k1");
  EXPECT_THAT(take("ben"), ElementsAre("k2"));
  EXPECT_EQ(leftOut(), "");
}

TEST_F(ParseOutcomesTest, OutcomesOfAnUpdateAreTakenWithIt) {
  update({2, 2, "k1, k2"}, {"k1", "k2"});
  EXPECT_THAT(take(), ElementsAre("k1", "k2"));
  EXPECT_EQ(leftOut(), "");
}

TEST_F(ParseOutcomesTest, WhatIsNotedMeanwhileHasNotBeenGiven) {
  update({1, 1, "k1"});
  const std::uint64_t first = outcomes_.leftOut()->update;
  update({1, 1, "k2"});
  outcomes_.noteGiven(first);
  update({});
  EXPECT_EQ(leftOut(), "2 k1");
}

// The outcome of the other one is lost.
TEST_F(ParseOutcomesTest, WhatAnUpdateLeftOutStandsWhereAnOutcomeOfItWasDropped) {
  update({2, 2, "k1, k2"}, {"k1", "k2"});
  for (int i = 0; i < 5; ++i) push(std::to_string(i));
  EXPECT_EQ(take().size(), 5U);
  EXPECT_EQ(leftOut(), "2 k1, k2");
}

TEST_F(ParseOutcomesTest, WhatCouldNotBeToldIsToldFirstTheNextTime) {
  for (const char* client : {"", "ada"}) {
    push("k1", client);
    auto taken = outcomes_.take(client);
    push("k2", client);
    outcomes_.putBack(std::move(taken), client);
    EXPECT_THAT(take(client), ElementsAre("k1", "k2"));
    outcomes_.putBack({}, client);
    EXPECT_TRUE(outcomes_.empty());
  }
}

TEST_F(ParseOutcomesTest, LimitOfAllClientsDropsTheOldestOfTheOneThatHasMost) {
  push("b1", "ben");
  for (const char* key : {"a1", "a2", "a3", "a4"}) EXPECT_TRUE(push(key, "ada"));
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(push(std::to_string(i))) << "they do not count";
  for (const char* key : {"a5", "a6", "a7"}) EXPECT_FALSE(push(key, "ada"));
  EXPECT_FALSE(push("c1", "cid"));
  EXPECT_THAT(take("ben"), ElementsAre("b1"));
  EXPECT_THAT(take("cid"), ElementsAre("c1"));
  EXPECT_THAT(take("ada"), ElementsAre("a5", "a6", "a7"));
}

TEST_F(ParseOutcomesTest, OfClientsThatHaveAsManyTheOneHeardOfLongestAgoLosesItsOwn) {
  const std::vector<std::string> clients{"ada", "ben", "cid", "dan", "eve", "fay"};
  for (const std::string& client : clients) push("of " + client, client);
  EXPECT_THAT(take("ada"), IsEmpty());
  for (std::size_t i = 1; i < clients.size(); ++i) {
    EXPECT_THAT(take(clients[i]), ElementsAre("of " + clients[i]));
  }
  EXPECT_TRUE(outcomes_.empty());
}

TEST_F(ParseOutcomesTest, OfTooManyClientsTheOneHeardOfLongestAgoIsForgotten) {
  ParseOutcomes outcomes(ParseOutcomes::kClients * 2);
  const auto name = [](std::size_t i) { return "client " + std::to_string(i); };
  for (std::size_t i = 0; i < ParseOutcomes::kClients; ++i) {
    EXPECT_TRUE(outcomes.push({"k", {}, {}}, 0, name(i)));
  }
  EXPECT_TRUE(outcomes.push({"l", {}, {}}, 0, name(0)));
  EXPECT_FALSE(outcomes.push({"k", {}, {}}, 0, "one more"));
  EXPECT_THAT(keysOf(outcomes.take(name(1))), IsEmpty());
  EXPECT_THAT(keysOf(outcomes.take(name(0))), ElementsAre("k", "l"));
  EXPECT_THAT(keysOf(outcomes.take("one more")), ElementsAre("k"));
}

TEST_F(ParseOutcomesTest, OwnersAreKnownUntilTheIndexHasTheirDocuments) {
  EXPECT_EQ(outcomes_.ownerOf("k1"), "");
  outcomes_.setOwner("k1", "ada", {1, 10});
  outcomes_.setOwner("k2", "ada", {1, 20});
  outcomes_.setOwner("k1", "ben", {1, 30});
  EXPECT_EQ(outcomes_.ownerOf("k1"), "ben");
  outcomes_.forgetOwnersUpTo({1, 20});
  EXPECT_EQ(outcomes_.ownerOf("k1"), "ben");
  EXPECT_EQ(outcomes_.ownerOf("k2"), "");
  EXPECT_FALSE(outcomes_.empty());
  outcomes_.forgetOwnersUpTo({2, 0});
  EXPECT_TRUE(outcomes_.empty());
}

TEST_F(ParseOutcomesTest, DocumentThatIsQueuedWithoutANameHasNoOwner) {
  outcomes_.setOwner("k", "ada", {1, 10});
  outcomes_.forgetOwner("k", {1, 20});
  outcomes_.forgetOwner("k", {1, 30});
  EXPECT_EQ(outcomes_.ownerOf("k"), "");
  EXPECT_TRUE(outcomes_.empty());
}

// Those who send one come back from the journal in any order.
TEST_F(ParseOutcomesTest, OwnerOfALaterVersionStays) {
  outcomes_.setOwner("k", "ben", {1, 20});
  outcomes_.forgetOwner("k", {1, 10});
  EXPECT_EQ(outcomes_.ownerOf("k"), "ben");
  outcomes_.setOwner("k", "ada", {1, 10});
  EXPECT_EQ(outcomes_.ownerOf("k"), "ben");
}

TEST_F(ParseOutcomesTest, DocumentsOfAPartOfTheJournalAreTakenOnceInTheirOrder) {
  const auto untold = [&](const JournalPosition& after, const JournalPosition& upTo) {
    std::vector<std::string> list;
    for (const auto& [key, client] : outcomes_.takeUntold(after, upTo)) {
      list.push_back(client + ":" + key);
    }
    return list;
  };
  outcomes_.setOwner("k4", "ada", {2, 10});
  outcomes_.setOwner("k3", "", {1, 30});
  outcomes_.setOwner("k2", "ben", {1, 20});
  outcomes_.setOwner("k1", "ada", {1, 10});
  EXPECT_THAT(untold({1, 10}, {1, 30}), ElementsAre("ben:k2", ":k3"));
  EXPECT_THAT(untold({}, {3, 0}), ElementsAre("ada:k1", "ada:k4"));
  EXPECT_EQ(outcomes_.ownerOf("k2"), "ben");
  outcomes_.setOwner("k2", "ben", {2, 20});
  EXPECT_THAT(untold({}, {3, 0}), ElementsAre("ben:k2")) << "it was queued again";
}

TEST_F(ParseOutcomesTest, NoMoreOwnersAreKeptThanOutcomes) {
  for (int i = 0; i < 6; ++i) outcomes_.setOwner(std::to_string(i), "ada", {1, 10});
  EXPECT_EQ(outcomes_.ownerOf("4"), "ada");
  EXPECT_EQ(outcomes_.ownerOf("5"), "");
  outcomes_.setOwner("4", "ben", {1, 20});
  EXPECT_EQ(outcomes_.ownerOf("4"), "ben");
}

/// Outcomes of collections that share 64 KiB of a budget of 256 KiB.
class OutcomesInABudgetTest : public ::testing::Test {
 protected:
  static constexpr std::size_t kOfOutcomes = std::size_t{64} << 10U;

  static std::string key(int i) { return "a key of many letters " + std::to_string(i); }

  /// How many of them were kept without any being dropped.
  static int fill(ParseOutcomes& outcomes, const std::string& client = {}) {
    int kept = 0;
    for (int i = 0; i < 1000; ++i) kept += outcomes.push({key(i), {}, {}}, 0, client) ? 1 : 0;
    return kept;
  }

  std::shared_ptr<MemoryBudget> budget_ = std::make_shared<MemoryBudget>(4 * kOfOutcomes);
  std::shared_ptr<OutcomeMemory> memory_ = std::make_shared<OutcomeMemory>(budget_);
  ParseOutcomes outcomes_{1000000, memory_};
};

TEST_F(OutcomesInABudgetTest, OldestAreDroppedWhenTheyTakeHalfOfWhatThereIs) {
  const int kept = fill(outcomes_);
  EXPECT_LT(kept, 1000);
  EXPECT_GT(kept, 100);
  EXPECT_EQ(budget_->used(), kOfOutcomes / 2);
  const ParseOutcomes::Taken taken = outcomes_.take();
  EXPECT_EQ(taken.outcomes.size(), static_cast<std::size_t>(kept));
  EXPECT_EQ(taken.outcomes.front().key, key(1000 - kept));
  EXPECT_EQ(taken.outcomes.back().key, key(999));
}

TEST_F(OutcomesInABudgetTest, MemoryCountsUntilTheyAreTold) {
  outcomes_.push({key(1), {}, std::string(10000, 'x')}, 0);
  EXPECT_GT(budget_->used(), 10000U);
  {
    const ParseOutcomes::Taken taken = outcomes_.take();
    EXPECT_GT(budget_->used(), 10000U);
  }
  EXPECT_EQ(budget_->used(), 0U);
  outcomes_.push({key(1), {}, {}}, 0, "ada");
  const std::size_t ofOne = budget_->used();
  outcomes_.putBack(outcomes_.take("ada"), "ada");
  EXPECT_EQ(budget_->used(), ofOne);
  outcomes_.take("ada");
  EXPECT_EQ(budget_->used(), 0U);
}

TEST_F(OutcomesInABudgetTest, WhatAnUpdateLeftOutTakesMemoryUntilItIsTold) {
  outcomes_.noteUpdate({1, 1, std::string(10000, 'x')}, {});
  EXPECT_GT(budget_->used(), 10000U);
  outcomes_.noteGiven(outcomes_.leftOut()->update);
  outcomes_.noteUpdate({}, {});
  EXPECT_EQ(budget_->used(), 0U);
  outcomes_.noteUpdate({1, 1, std::string(10000, 'x')}, {{key(1), "ZVK0015E", {}}});
  outcomes_.putBack(outcomes_.take());
  EXPECT_GT(budget_->used(), 10000U);
  outcomes_.take();
  EXPECT_EQ(budget_->used(), 0U);
}

TEST_F(OutcomesInABudgetTest, CollectionThatTakesAllItCanLeavesSomethingForAnother) {
  fill(outcomes_);
  ParseOutcomes other{1000000, memory_};
  EXPECT_GT(fill(other), 30);
  ParseOutcomes third{1000000, memory_};
  EXPECT_TRUE(third.push({key(1), {}, {}}, 0));
  EXPECT_LT(budget_->used(), kOfOutcomes);
}

TEST_F(OutcomesInABudgetTest, ClientsWithoutManyOfThemKeepTheirs) {
  EXPECT_TRUE(outcomes_.push({"b", {}, {}}, 0, "ben"));
  EXPECT_TRUE(outcomes_.push({"n", {}, {}}, 0));
  EXPECT_LT(fill(outcomes_, "ada"), 1000);
  EXPECT_EQ(outcomes_.take("ben").outcomes.size(), 1U);
  EXPECT_EQ(outcomes_.take().outcomes.size(), 1U);
}

TEST_F(OutcomesInABudgetTest, OwnersAreNotNotedBeyondIt) {
  for (int i = 0; i < 1000; ++i) outcomes_.setOwner(key(i), "ada", {1, 10});
  EXPECT_EQ(outcomes_.ownerOf(key(0)), "ada");
  EXPECT_EQ(outcomes_.ownerOf(key(999)), "");
  EXPECT_LE(budget_->used(), kOfOutcomes / 2);
  outcomes_.forgetOwnersUpTo({1, 10});
  EXPECT_EQ(budget_->used(), 0U);
}

TEST_F(OutcomesInABudgetTest, RefusedBatchesCountAndTheLatestStays) {
  BatchOutcome outcome;
  for (int i = 0; i < 100; ++i) outcome.refused.add({key(i), "ZVK0034E", std::string(500, 'x')});
  for (int i = 0; i < 10; ++i) outcomes_.pushRefused("b" + std::to_string(i), outcome);
  EXPECT_FALSE(outcomes_.refused("b0"));
  ASSERT_TRUE(outcomes_.refused("b9"));
  EXPECT_EQ(outcomes_.refused("b9")->refused.first.size(), 100U);
  EXPECT_GT(budget_->used(), 50000U);
}

// The sanitizers' allocators say nothing, which is less.
TEST(MemoryOfOutcomes, CoversWhatTheAllocatorGives) {
  const auto budget = std::make_shared<MemoryBudget>(std::size_t{1} << 30U);
  const auto memory = std::make_shared<OutcomeMemory>(budget);
  const auto taken = [] { return static_cast<std::size_t>(::mallinfo2().uordblks); };
  const auto expectCovered = [&](const auto& put) {
    ParseOutcomes outcomes(1000000, memory);
    const std::size_t before = taken();
    for (int i = 0; i < 20000; ++i) put(outcomes, 10000000 + i);
    EXPECT_LE(taken() - before, budget->used());
  };
  const auto name = [](int i) { return "longer than a short text" + std::to_string(i); };
  expectCovered([&](auto& outcomes, int i) { outcomes.push({std::to_string(i), {}, {}}, 0); });
  expectCovered([&](auto& outcomes, int i) { outcomes.push({name(i), "ZVK0012E", name(i)}, 0); });
  expectCovered([&](auto& outcomes, int i) { outcomes.push({name(i), {}, {}}, 0, name(i % 900)); });
  expectCovered([&](auto& outcomes, int i) { outcomes.setOwner(name(i), "ada", {1, 10}); });
  expectCovered([&](auto& outcomes, int i) { outcomes.setOwner(name(i), name(i), {1, 10}); });
}

}  // namespace
}  // namespace corvaned
