#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

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
  outcomes_.setOwner("k", "", {1, 20});
  EXPECT_EQ(outcomes_.ownerOf("k"), "");
  EXPECT_TRUE(outcomes_.empty());
}

TEST_F(ParseOutcomesTest, NoMoreOwnersAreKeptThanOutcomes) {
  for (int i = 0; i < 6; ++i) outcomes_.setOwner(std::to_string(i), "ada", {1, 10});
  EXPECT_EQ(outcomes_.ownerOf("4"), "ada");
  EXPECT_EQ(outcomes_.ownerOf("5"), "");
  outcomes_.setOwner("4", "ben", {1, 20});
  EXPECT_EQ(outcomes_.ownerOf("4"), "ben");
}

}  // namespace
}  // namespace corvaned
