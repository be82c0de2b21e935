#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "server/base/descriptorBudget.h"
#include "server/base/errors.h"
#include "server/base/memoryBudget.h"
#include "server/base/requestContext.h"
#include "server/store/collection.h"
#include "server/store/localStore.h"
#include "server/store/registry.h"
#include "tests/server/store/descriptorLimit.h"
#include "tests/server/store/slowCollection.h"
#include "tests/support/temporaryDirectory.h"

// Many collections, of which only some can be open.
namespace corvaned {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::size_t openFiles() {
  return static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

class RegistryTest : public ::testing::Test {
 protected:
  RegistryTest() { restart(); }

  void restart() {
    store_.reset();
    store_ = std::make_unique<LocalStore>(directory_.path() / "data", limits_);
  }

  void createWithFox(const std::string& name) {
    store_->createCollection(name, "en");
    store_->addDocument(name, {"k-" + name, {}, "fox"});
    store_->updateIndex(name);
  }

  std::vector<std::string> keys(const std::string& name) {
    SearchQuery query;
    query.text = "fox";
    const auto source = store_->search(name, query);
    std::vector<std::string> list;
    for (Hit hit; source->next(hit);) list.push_back(hit.key);
    return list;
  }

  std::string outcomeOf(const std::string& name) {
    try {
      store_->openCollection(name);
      return "open";
    } catch (const ServerError& error) {
      return std::string(messageId(error.kind())) + " " + error.what();
    }
  }

  tq::test::TemporaryDirectory directory_;
  StoreLimits limits_;
  std::unique_ptr<LocalStore> store_;
};

TEST_F(RegistryTest, OpeningOneCollectionHoldsUpNoOtherOne) {
  createWithFox("c");
  createWithFox("slow");
  restart();
  test::SlowCollection slow(directory_.path() / "data/collections/slow");
  auto first = std::async(std::launch::async, [&] { return outcomeOf("slow"); });
  ASSERT_TRUE(slow.awaitOpening([&] { return test::isReady(first); }));
  std::atomic<pid_t> client = 0;
  auto second = std::async(std::launch::async, [&] {
    client = ::gettid();
    return outcomeOf("slow");
  });
  while (client == 0 || !test::sleeps(client)) std::this_thread::yield();
  EXPECT_THAT(keys("c"), ElementsAre("k-c"));
  createWithFox("d");
  EXPECT_THAT(keys("d"), ElementsAre("k-d"));
  store_->closeCollection("d");
  store_->deleteCollection("d");
  slow.fail();
  // Both are told of the one opening: another one would never end.
  EXPECT_THAT(first.get(), HasSubstr("ZVK0014E"));
  EXPECT_THAT(second.get(), HasSubstr("ZVK0014E"));
  EXPECT_EQ(outcomeOf("slow"), "open") << "it can be tried again";
  EXPECT_THAT(keys("slow"), ElementsAre("k-slow"));
}

// Others wait for it as well, and would be told that somebody else's client has gone.
TEST_F(RegistryTest, OpeningBelongsToNoRequestAlthoughOneCarriesItOut) {
  int openings = 0;
  Registry registry([&](const std::string&) -> std::unique_ptr<Collection> {
    ++openings;
    EXPECT_EQ(RequestContext::current(), nullptr);
    throw ServerError(ErrorKind::StorageFailed, "there is none");
  });
  RequestContext request({});
  const RequestContext::Scope scope(request);
  EXPECT_THROW(registry.use("c"), ServerError);
  const auto opening = registry.awaitOpen("c", [](const std::optional<ServerError>&) {});
  ASSERT_TRUE(opening);
  opening->carryOut();
  EXPECT_EQ(openings, 2);
  EXPECT_EQ(RequestContext::current(), &request);
}

TEST_F(RegistryTest, CollectionThatIsClosedWhileItIsOpenedIsClosedAfterwards) {
  std::filesystem::create_directory(directory_.path() / "alone");
  Collection::create(directory_.path() / "alone", {"en", {}}, {});
  const std::atomic<bool> stopping = false;
  Registry registry([&](const std::string& name) {
    return std::make_unique<Collection>(name, directory_.path() / "alone", limits_,
                                        std::make_shared<ParseOutcomes>(10), stopping);
  });
  for (const bool closed : {false, true}) {
    std::vector<std::string> told;
    const auto tell = [&](const char* what) {
      return [&told, what](const std::optional<ServerError>& failure) {
        told.push_back(failure ? failure->what() : what);
      };
    };
    const auto opening = registry.awaitOpen("c", tell("open"));
    ASSERT_TRUE(opening);
    EXPECT_FALSE(registry.isSettled("c"));
    registry.awaitSettled("c", tell("settled"));
    if (closed) registry.close("c");
    EXPECT_TRUE(told.empty());
    opening->carryOut();
    EXPECT_THAT(told, ElementsAre("open", "settled"));
    EXPECT_TRUE(registry.isSettled("c"));
    EXPECT_EQ(registry.isOpen("c"), !closed);
    registry.close("c");
    registry.awaitSettled("c", tell("at once"));
    EXPECT_EQ(told.size(), 3U);
  }
}

TEST_F(RegistryTest, CollectionsAreClosedWhenOthersNeedTheirDescriptors) {
  limits_.index.descriptors = std::make_shared<DescriptorBudget>(30);
  restart();
  const std::size_t before = openFiles();
  const auto name = [](int i) { return "c" + std::to_string(i); };
  for (int i = 0; i < 200; ++i) {
    createWithFox(name(i));
    EXPECT_THAT(keys(name(i)), ElementsAre("k-" + name(i)));
  }
  EXPECT_LE(openFiles(), before + 30);
  EXPECT_GT(limits_.index.descriptors->used(), 20U) << "what can stay open does";
  std::vector<std::jthread> users;
  for (int user = 0; user < 4; ++user) {
    users.emplace_back([&, user] {
      for (int i = user; i < 200; i += 3) {
        EXPECT_THAT(keys(name(i)), ElementsAre("k-" + name(i)));
        store_->addDocument(name(i), {"k", {}, "hound"});
      }
    });
  }
  users.clear();
  EXPECT_LE(openFiles(), before + 30);
  EXPECT_LE(limits_.index.descriptors->used(), 30U);
  EXPECT_EQ(store_->state("c7"), CollectionState::ChangesPending);
}

TEST_F(RegistryTest, ClosingACollectionGivesEveryDescriptorBack) {
  limits_.index.descriptors = std::make_shared<DescriptorBudget>(100);
  restart();
  const std::size_t before = openFiles();
  createWithFox("c");
  EXPECT_THAT(keys("c"), ElementsAre("k-c"));
  EXPECT_GT(openFiles(), before);
  store_->closeCollection("c");
  // The thread that has updated the index may still be about to let go of it.
  while (limits_.index.descriptors->used() > 0) std::this_thread::yield();
  EXPECT_EQ(openFiles(), before);
  store_->closeCollection("c");
  EXPECT_THAT(keys("c"), ElementsAre("k-c"));
}

TEST_F(RegistryTest, WhatWasQueuedOutlivesTheClosingAndSoDoItsOutcomes) {
  store_->createCollection("c", "en");
  store_->queueDocument("c", {"k1", {}, "fox"});
  store_->reportOutcome("c", {"k2", "ZVK0012E", "bad"});
  store_->closeCollection("c");
  const std::vector<ParseOutcome> outcomes = store_->takeParseOutcomes("c");
  ASSERT_EQ(outcomes.size(), 2U);
  EXPECT_EQ(outcomes[0].key, "k1");
  EXPECT_EQ(outcomes[1].key, "k2");
  store_->updateIndex("c");
  EXPECT_THAT(keys("c"), ElementsAre("k1"));
  store_->queueDocument("c", {"k3", {}, "fox"});
  store_->deleteCollection("c");
  store_->createCollection("c", "en");
  EXPECT_TRUE(store_->takeParseOutcomes("c").empty()) << "another collection of the same name";
}

TEST_F(RegistryTest, CreatingACollectionThatIsOpenChangesNothing) {
  createWithFox("c");
  store_->queueDocument("c", {"k1", {}, "fox"});
  EXPECT_THROW(store_->createCollection("c", "en"), ServerError);
  store_->queueDocument("c", {"k2", {}, "fox"});
  EXPECT_EQ(store_->takeParseOutcomes("c").size(), 2U);
  store_->updateIndex("c");
  EXPECT_THAT(keys("c"), ElementsAre("k-c", "k1", "k2"));
}

TEST_F(RegistryTest, OutcomesSurviveADeletionThatFails) {
  // Once without a failure: see DescriptorLimit.
  createWithFox("other");
  store_->deleteCollection("other");
  createWithFox("c");
  store_->queueDocument("c", {"k1", {}, "fox"});
  {
    const test::DescriptorLimit none(0);
    EXPECT_ANY_THROW(store_->deleteCollection("c"));
  }
  EXPECT_EQ(store_->takeParseOutcomes("c").size(), 1U);
  store_->updateIndex("c");
  EXPECT_THAT(keys("c"), ElementsAre("k-c", "k1"));
}

TEST_F(RegistryTest, OutcomesOfManyClosedCollectionsAreKept) {
  limits_.index.descriptors = std::make_shared<DescriptorBudget>(10);
  restart();
  for (int i = 0; i < 300; ++i) {
    const std::string name = "c" + std::to_string(i);
    store_->createCollection(name, "en");
    if (i % 10 == 0) store_->queueDocument(name, {name, {}, "fox"});
    store_->openCollection(name);
  }
  for (int i = 0; i < 300; i += 10) {
    EXPECT_EQ(store_->takeParseOutcomes("c" + std::to_string(i)).size(), 1U) << i;
  }
}

TEST_F(RegistryTest, OpenCollectionsTakeAQuarterOfTheMemoryAtMost) {
  constexpr std::size_t kBudget = std::size_t{4} << 20U;
  limits_.index.memory = std::make_shared<MemoryBudget>(kBudget);
  restart();
  for (int i = 0; i < 60; ++i) {
    createWithFox("c" + std::to_string(i));
    EXPECT_LE(limits_.index.memory->used(), kBudget / 4 + (100U << 10U)) << i;
  }
  EXPECT_GT(limits_.index.memory->used(), kBudget / 8);
  store_.reset();
  EXPECT_EQ(limits_.index.memory->used(), 0U);
}

TEST_F(RegistryTest, CollectionIsClosedOnlyWhenNobodyUsesIt) {
  createWithFox("c");
  std::vector<std::jthread> users;
  for (int user = 0; user < 3; ++user) {
    users.emplace_back([&, user] {
      for (int i = 0; i < 60; ++i) {
        if (user == 0) {
          store_->closeCollection("c");
        } else {
          store_->addDocument("c", {"u" + std::to_string(user) + "-" + std::to_string(i), {}, "x"});
          EXPECT_THAT(keys("c"), ElementsAre("k-c"));
        }
      }
    });
  }
  users.clear();
  store_->updateIndex("c");
  EXPECT_EQ(store_->estimate("c", "x").documents, 121U);
}

}  // namespace
}  // namespace corvaned
