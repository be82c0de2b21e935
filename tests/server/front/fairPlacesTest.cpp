#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "server/front/fairPlaces.h"

namespace corvaned {
namespace {

using ::testing::ElementsAre;

class FairPlacesTest : public ::testing::Test {
 protected:
  // Those who wait take theirs meanwhile.
  void TearDown() override {
    for (auto& [collection, places] : taken_) {
      while (!places.empty()) giveBack(collection);
    }
    for (const auto& [collection, places] : taken_) {
      if (!places.empty()) return TearDown();
    }
  }

  void ask(const std::string& collection, int number = 0) {
    places_.await(collection, [this, collection, number](FairPlaces::Place place) {
      taken_[collection].push_back(std::move(place));
      order_.push_back(collection + std::to_string(number));
    });
  }
  std::size_t taken(const std::string& collection) { return taken_[collection].size(); }
  // Others may get it meanwhile.
  void giveBack(const std::string& collection) {
    const FairPlaces::Place place = std::move(taken_[collection].front());
    taken_[collection].pop_front();
  }

  FairPlaces places_{8};
  std::map<std::string, std::list<FairPlaces::Place>> taken_;
  std::vector<std::string> order_;
};

TEST_F(FairPlacesTest, HalfOfThemAreKeptForCollectionsThatHaveNone) {
  for (const char* name : {"a", "b", "c", "d"}) {
    for (int i = 0; i < 20; ++i) ask(name);
  }
  EXPECT_EQ(taken("a"), 4U);
  for (const char* name : {"b", "c", "d"}) EXPECT_EQ(taken(name), 1U) << name;
  ask("e");
  EXPECT_EQ(taken("e"), 1U) << "there is one for it";
  ask("f");
  EXPECT_EQ(taken("f"), 0U) << "there is none left";
}

// In whatever order they come.
TEST_F(FairPlacesTest, FourCollectionsNeverHaveAll) {
  for (int i = 0; i < 20; ++i) {
    for (const char* name : {"a", "b", "c", "d"}) ask(name);
  }
  ask("e");
  EXPECT_EQ(taken("e"), 1U);
}

TEST_F(FairPlacesTest, ThoseOfOneCollectionComeInTheirOrder) {
  for (int i = 0; i < 6; ++i) ask("a", i);
  EXPECT_THAT(order_, ElementsAre("a0", "a1", "a2", "a3"));
  giveBack("a");
  ask("a", 6);
  giveBack("a");
  giveBack("a");
  EXPECT_THAT(order_, ElementsAre("a0", "a1", "a2", "a3", "a4", "a5", "a6"));
}

TEST_F(FairPlacesTest, PlaceThatIsGivenBackGoesToWhoeverMayTakeIt) {
  for (const char* name : {"a", "a", "a", "a", "b", "c", "d", "e"}) ask(name);
  ask("a", 1);
  ask("f", 1);
  giveBack("e");
  EXPECT_EQ(taken("a"), 4U);
  EXPECT_EQ(taken("f"), 1U) << "it has waited for less time, but has none";
}

TEST_F(FairPlacesTest, CollectionMayTakeMoreAsOthersGiveTheirsBack) {
  for (int i = 0; i < 4; ++i) ask("a");
  for (int i = 0; i < 4; ++i) ask("b");
  EXPECT_EQ(taken("b"), 1U);
  for (int i = 0; i < 4; ++i) giveBack("a");
  EXPECT_EQ(taken("b"), 4U);
}

TEST_F(FairPlacesTest, WhoeverDoesNotWaitGetsNoPlaceBeforeThoseWhoDo) {
  std::optional<FairPlaces::Place> first = places_.tryToTake("a");
  ASSERT_TRUE(first);
  for (int i = 0; i < 4; ++i) ask("a");
  EXPECT_FALSE(places_.tryToTake("a"));
  EXPECT_TRUE(places_.tryToTake("b"));
  giveBack("a");
  EXPECT_EQ(taken("a"), 3U) << "the one that waited has it";
  EXPECT_FALSE(places_.tryToTake("a"));
  first.reset();
  EXPECT_TRUE(places_.tryToTake("a"));
}

TEST(FairPlaces, OnePlaceIsForEverybodyInTurn) {
  FairPlaces places(1);
  std::list<FairPlaces::Place> taken;
  std::vector<std::string> order;
  for (const char* name : {"a", "a", "b"}) {
    places.await(name, [&, name](FairPlaces::Place place) {
      taken.push_back(std::move(place));
      order.emplace_back(name);
    });
  }
  while (!taken.empty()) {
    const FairPlaces::Place place = std::move(taken.front());
    taken.pop_front();
  }
  EXPECT_THAT(order, ElementsAre("a", "a", "b"));
}

TEST(FairPlaces, EverybodyGetsAPlaceAndThereAreNeverTooMany) {
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;
  FairPlaces places(3);
  std::atomic<int> now = 0;
  std::atomic<int> most = 0;
  std::atomic<int> served = 0;
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&, name = std::to_string(thread % 2)] {
        for (int i = 0; i < kEach; ++i) {
          places.await(name, [&](const FairPlaces::Place&) {
            const int present = ++now;
            for (int before = most;
                 before < present && !most.compare_exchange_weak(before, present);) {
            }
            --now;
            ++served;
          });
        }
      });
    }
  }
  EXPECT_EQ(served, kThreads * kEach);
  EXPECT_LE(most, 3);
}

}  // namespace
}  // namespace corvaned
