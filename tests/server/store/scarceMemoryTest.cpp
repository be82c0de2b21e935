#include <gtest/gtest.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/store/backupManifest.h"
#include "server/store/collection.h"
#include "server/store/collectionCopy.h"
#include "server/store/directory.h"
#include "server/store/files.h"
#include "server/store/localStore.h"
#include "server/store/registry.h"
#include "tests/support/countedMemory.h"
#include "tests/support/temporaryDirectory.h"

// Memory is out during a request, for one allocation or from one on.
namespace corvaned {
namespace {

using tq::test::ScarceMemory;

// More than a request allocates.
constexpr long kMost = 2000;

/// False if the allocation that was to fail did not come.
template <typename Work>
bool without(long failing, bool lasting, const Work& work) {
  const ScarceMemory scarce(failing, lasting, ScarceMemory::Of::Objects);
  try {
    work();
  } catch (const std::bad_alloc&) {
  } catch (const ServerError&) {
  }
  return scarce.count() >= failing;
}

class ScarceMemoryTest : public ::testing::TestWithParam<bool> {
 protected:
  ScarceMemoryTest() {
    restart();
    store_->createCollection("c", "en");
    for (const char* key : {"d1", "d2"}) store_->addDocument("c", {key, {}, "fox"});
    store_->updateIndex("c");
    // What is done once and for all needs no memory later. The log, too, comes into being when
    // somebody asks for it, which a server does before anything else.
    spdlog::default_logger();
    apply("warm 1");
    apply("warm 2");
  }

  static Batch batch(const std::string& name) {
    const std::string start = "a key that is too long to stand within its string: " + name;
    return {name, {{{start, {}, "fox"}}, {start + "x", "d1"}, "mark of " + name}, {}, false, {}};
  }

  void applyBatches();
  BatchOutcome apply(const std::string& name) { return store_->apply("c", batch(name)); }

  void restart() {
    store_.reset();
    store_ = std::make_unique<LocalStore>(directory_.path() / "data", StoreLimits{},
                                          directory_.path() / "backups");
  }

  tq::test::TemporaryDirectory directory_;
  std::unique_ptr<LocalStore> store_;
};

// One of its two deletions finds a document: if it were applied twice, that would find none either.
// All the time there is a search that has not ended.
TEST_P(ScarceMemoryTest, BatchIsAppliedOnceWhicheverAllocationFails) {
  SearchQuery all;
  all.everything = true;
  all.order = HitOrder::Key;
  all.size = 1;
  int searches = 0;
  store_->visit("c", all, [&](const Document&) {
    ++searches;
    applyBatches();
  });
  EXPECT_EQ(searches, 1);
}

void ScarceMemoryTest::applyBatches() {
  long failing = 1;
  for (bool failed = true; failed; ++failing) {
    ASSERT_LT(failing, kMost);
    const std::string name = "b" + std::to_string(failing) + "x";
    store_->addDocument("c", {"d1", {}, "fox"});
    const std::uint64_t before = store_->summary("c").pending;
    Batch wanted = batch(name);
    failed = without(failing, GetParam(), [&] { store_->apply("c", std::move(wanted)); });
    BatchOutcome outcome;
    ASSERT_NO_THROW(outcome = apply(name)) << failing;
    EXPECT_EQ(outcome.unknown, 1U) << failing;
    EXPECT_EQ(store_->summary("c").pending, before + 3) << failing;
    EXPECT_EQ(store_->summary("c").mark, "mark of " + name) << failing;
  }
  EXPECT_GT(failing, 20);
  store_->updateIndex("c");
  EXPECT_EQ(store_->estimate("c", "fox").hits, static_cast<std::uint64_t>(failing) + 2);
}

// Otherwise all who ask for the collection would wait for an opening that nobody carries out.
TEST_P(ScarceMemoryTest, FailedOpeningIsOverWhicheverAllocationFails) {
  const std::string name = "the name of a collection that is not quite short";
  const auto refuse = [](const std::string&) -> std::unique_ptr<Collection> {
    throw ServerError(ErrorKind::StorageFailed, "a reason that takes memory of its own");
  };
  for (const bool waits : {false, true}) {
    long failing = 1;
    for (bool failed = true; failed; ++failing) {
      ASSERT_LT(failing, kMost);
      Registry registry(refuse);
      failed = without(failing, GetParam(), [&] {
        if (!waits) registry.use(name);
        const auto opening = registry.awaitOpen(name, [](const std::optional<ServerError>&) {});
        if (opening) opening->carryOut();
      });
      EXPECT_EQ(registry.size(), 0U) << failing;
      EXPECT_THROW(registry.use(name), ServerError) << failing;
    }
    EXPECT_GT(failing, 3);
  }
}

// In a process that goes on: what the library of C++ or the engine cannot survive would end it.
TEST_P(ScarceMemoryTest, CollectionCanBeOpenedAfterAnOpeningThatFailedAnywhere) {
  const std::uint64_t pending = store_->summary("c").pending;
  long failing = 1;
  for (bool failed = true; failed; ++failing) {
    ASSERT_LT(failing, kMost);
    restart();
    failed = without(failing, GetParam(),
                     [&] { store_->open("c", [](const std::optional<ServerError>&) {}); });
    EXPECT_EQ(store_->summary("c").pending, pending) << failing;
  }
  EXPECT_GT(failing, 100);
}

TEST_P(ScarceMemoryTest, DirectoriesAreReadOrRefusedWhicheverAllocationFails) {
  const std::filesystem::path data = directory_.path() / "data";
  const std::filesystem::path copy = directory_.path() / "copy";
  const std::vector<std::function<void()>> works{
      [&] { EXPECT_EQ(store_->collections("", 10).size(), 1U); },
      [&] { EXPECT_GT(store_->summary("c").bytes, 0U); },
      [&] { EXPECT_FALSE(store_->backups("", 10).empty()); },
      [&] { syncTree(data); },
      [&] { BackupManifest::make(data, [] {}); },
      [&] {
        CollectionCopy whole(data / "collections" / "c", copy, [] {});
        whole.copyAhead({}, {});
        whole.copyIndex();
        whole.copyRest({});
      },
  };
  store_->backup("b", "c");
  for (const auto& work : works) {
    long failing = 1;
    for (bool failed = true; failed; ++failing) {
      ASSERT_LT(failing, kMost);
      removeTree(copy);
      failed = without(failing, GetParam(), work);
    }
    EXPECT_GT(failing, 3);
  }
}

TEST_P(ScarceMemoryTest, CollectionIsCreatedAndDeletedWholeOrNotAtAll) {
  long failing = 1;
  for (bool failed = true; failed; ++failing) {
    ASSERT_LT(failing, kMost);
    failed = without(failing, GetParam(), [&] { store_->createCollection("d", "en"); });
    if (store_->collections("", 10).size() == 2) {
      EXPECT_NO_THROW(store_->addDocument("d", {"k", {}, "fox"})) << failing;
      failed |= without(failing, GetParam(), [&] { store_->deleteCollection("d"); });
    }
    if (store_->collections("", 10).size() == 2) store_->deleteCollection("d");
  }
  EXPECT_GT(failing, 100);
}

// Only searches ask for the collection afterwards.
TEST_P(ScarceMemoryTest, AcceptedChangeIsSearchableWhicheverAllocationFails) {
  store_->createCollection("i", "en", {Refresh::Mode::Interval, std::chrono::milliseconds(1)});
  store_->addDocument("i", {"warm", {}, "fox"});
  while (store_->summary("i").pending > 0) std::this_thread::yield();
  long failing = 1;
  for (bool failed = true; failed; ++failing) {
    ASSERT_LT(failing, kMost);
    const Document document{"the key of a document " + std::to_string(failing), {}, "fox"};
    failed = without(failing, GetParam(), [&] { store_->addDocument("i", document); });
    while (store_->summary("i").pending > 0) std::this_thread::yield();
  }
  EXPECT_GT(failing, 10);
}

// Nobody asks for it afterwards who would begin it.
TEST_P(ScarceMemoryTest, WhoeverWaitsBesideARequestWithoutMemoryIsAnswered) {
  store_->createCollection("i", "en", {Refresh::Mode::Immediate, {}});
  store_->addDocument("i", {"warm", {}, "fox"});
  std::jthread other([&](const std::stop_token& stop) {
    for (int i = 0; !stop.stop_requested(); ++i) {
      try {
        store_->addDocument("i", {"other " + std::to_string(i % 10), {}, "fox"});
      } catch (const ServerError& error) {
        EXPECT_EQ(error.kind(), ErrorKind::OutOfMemory) << error.what();
      }
    }
  });
  long failing = 1;
  for (bool failed = true; failed; ++failing) {
    ASSERT_LT(failing, kMost);
    const Document document{"the key of a document " + std::to_string(failing), {}, "fox"};
    failed = without(failing, false, [&] { store_->addDocument("i", document); });
  }
  EXPECT_GT(failing, 10);
}

TEST_P(ScarceMemoryTest, WhoeverQueuedADocumentIsToldOfItsRefusalWhicheverAllocationFails) {
  constexpr long kMostOfAnUpdate = 20000;
  const std::filesystem::path directory = directory_.path() / "stepped";
  std::filesystem::create_directory(directory);
  Collection::create(directory, {"en", {}}, {});
  const std::atomic<bool> stopping = false;
  Collection collection("c", directory, {}, std::make_shared<ParseOutcomes>(10), stopping);
  const auto update = [&] {
    while (collection.indexStep()) {
    }
  };
  long failing = 1;
  for (bool failed = true; failed; ++failing) {
    ASSERT_LT(failing, kMostOfAnUpdate);
    // Longer than a term can be.
    const std::string key = std::string(300, 'a') + std::to_string(failing);
    collection.queue({key, {}, "fox"}, "ada");
    collection.takeOutcomes("ada");
    collection.requestUpdate();
    ASSERT_TRUE(collection.takeOnIndexing());
    bool ended = false;
    failed = without(failing, GetParam(), [&] {
      update();
      ended = true;
    });
    if (!ended) collection.giveUpIndexing();
    collection.requestUpdate();
    if (collection.takeOnIndexing()) update();
    std::vector<ParseOutcome> outcomes = collection.takeOutcomes("ada");
    ASSERT_FALSE(outcomes.empty()) << failing;
    for (const ParseOutcome& outcome : outcomes) EXPECT_EQ(outcome.key, key) << failing;
  }
  EXPECT_GT(failing, 100);
}

// What is known of keys that wait is complete, whatever could not be noted of them.
TEST_P(ScarceMemoryTest, DeletionFindsADocumentThatWasAcceptedWhicheverAllocationFailed) {
  long failing = 1;
  for (bool failed = true; failed; ++failing) {
    ASSERT_LT(failing, kMost);
    const std::string key = "the key of a document " + std::to_string(failing);
    store_->addDocument("c", {"d2", {}, "fox"});
    store_->deleteDocument("c", "d2", true);
    const std::uint64_t before = store_->summary("c").pending;
    failed = without(failing, GetParam(), [&] { store_->addDocument("c", {key, {}, "fox"}); });
    const bool accepted = store_->summary("c").pending > before;
    EXPECT_TRUE(accepted || failed);
    if (accepted) {
      EXPECT_NO_THROW(store_->deleteDocument("c", key, true)) << failing;
    } else {
      EXPECT_THROW(store_->deleteDocument("c", key, true), ServerError) << failing;
    }
  }
  EXPECT_GT(failing, 10);
}

INSTANTIATE_TEST_SUITE_P(One, ScarceMemoryTest, ::testing::Values(false));
INSTANTIATE_TEST_SUITE_P(OneAndAllThatFollow, ScarceMemoryTest, ::testing::Values(true));

}  // namespace
}  // namespace corvaned
