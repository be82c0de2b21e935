#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/store/collection.h"
#include "server/store/indexSums.h"
#include "server/store/localStore.h"
#include "server/store/xapianIndex.h"
#include "tests/server/store/failingSync.h"
#include "tests/server/store/slowCollection.h"
#include "tests/support/temporaryDirectory.h"

// Index updates, which go on in the background.
namespace corvaned {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

// Longer than a term can be. (The fronts let no such key through.)
const std::string kRefusedKey(300, 'a');

TEST(IndexingProgress, IsToldAfterEachStepAndEndsWithTheUpdate) {
  const tq::test::TemporaryDirectory directory;
  Collection::create(directory.path(), {"en", {}}, {});
  StoreLimits limits;
  limits.index.batchChanges = 3;
  const std::atomic<bool> stopping = false;
  Collection collection("c", directory.path(), limits, std::make_shared<ParseOutcomes>(100),
                        stopping);
  for (int i = 0; i < 8; ++i) collection.add({"k" + std::to_string(i), {}, "fox"});
  const auto ticket = collection.requestUpdate();
  ASSERT_TRUE(collection.takeOnIndexing());
  std::vector<std::string> told;
  do {
    const CollectionSummary summary = collection.summary();
    told.push_back(std::to_string(summary.indexed) + "/" + std::to_string(summary.indexing));
  } while (collection.indexStep());
  EXPECT_THAT(told, ::testing::ElementsAre("0/0", "3/8", "6/8", "0/0"));
  EXPECT_TRUE(ticket->isDone());
}

class IndexingTest : public ::testing::Test {
 protected:
  IndexingTest() {
    limits_.indexThreads = 1;
    // Updates of a step for each document.
    limits_.index.batchChanges = 1;
    restart();
  }

  void restart() {
    store_.reset();
    store_ = std::make_unique<LocalStore>(data(), limits_);
  }

  std::filesystem::path data() const { return directory_.path() / "data"; }

  void createWith(const std::string& name, int documents) {
    store_->createCollection(name, "en");
    for (int i = 0; i < documents; ++i) {
      store_->queueDocument(name, {"k" + std::to_string(i), {}, "fox"});
    }
  }

  using Tickets = std::vector<std::shared_ptr<Ticket>>;

  std::shared_ptr<Ticket> beginUpdate(const std::string& name) {
    RequestContext request({});
    request.allowLaterReply();
    const RequestContext::Scope scope(request);
    store_->updateIndex(name);
    return request.awaited();
  }

  /// Updates these collections, and returns when the last one's update has ended. The thread that
  /// indexes all of them stays there until `goOn` is ready.
  Tickets updateUpToTheEndOfTheLast(const std::vector<std::string>& names,
                                    const std::shared_future<void>& goOn) {
    const auto ended = std::make_shared<std::promise<void>>();
    Tickets updates;
    {
      // The first one cannot end before the last one is asked for.
      const test::SlowSync slow("journal-0000000001");
      updates.push_back(beginUpdate(names.front()));
      slow.await();
      for (std::size_t i = 1; i < names.size(); ++i) updates.push_back(beginUpdate(names[i]));
      updates.back()->whenDone([ended, goOn] {
        ended->set_value();
        goOn.wait();
      });
    }
    ended->get_future().wait();
    return updates;
  }

  static std::string endOf(const std::shared_ptr<Ticket>& update) {
    try {
      update->wait();
      return "done";
    } catch (const ServerError& error) {
      return std::string(messageId(error.kind())) + " " + error.what();
    }
  }

  tq::test::TemporaryDirectory directory_;
  StoreLimits limits_;
  std::unique_ptr<LocalStore> store_;
};

TEST_F(IndexingTest, SmallUpdateDoesNotWaitForTheEndOfLargeOnes) {
  createWith("large1", 50);
  createWith("large2", 50);
  createWith("small", 1);
  std::promise<void> goOn;
  const Tickets updates =
      updateUpToTheEndOfTheLast({"large1", "large2", "small"}, goOn.get_future());
  EXPECT_EQ(store_->estimate("small", "fox").hits, 1U);
  EXPECT_FALSE(updates[0]->isDone());
  EXPECT_FALSE(updates[1]->isDone());
  EXPECT_EQ(store_->state("large1"), CollectionState::ChangesPending);
  EXPECT_EQ(store_->state("large2"), CollectionState::ChangesPending);
  store_->createCollection("empty", "en");
  store_->deleteCollection("empty");
  store_->deleteCollection("large1");
  store_->deleteCollection("large2");
  goOn.set_value();
  EXPECT_THAT(endOf(updates[0]), StartsWith("ZVK0007E"));
  EXPECT_THAT(endOf(updates[1]), StartsWith("ZVK0007E"));
}

TEST_F(IndexingTest, StopEndsAnUpdateAndLosesNothing) {
  createWith("c", 50);
  createWith("small", 1);
  std::promise<void> goOn;
  const auto first = updateUpToTheEndOfTheLast({"c", "small"}, goOn.get_future()).front();
  const auto second = beginUpdate("c");
  store_->stop();
  goOn.set_value();
  EXPECT_THAT(endOf(first), HasSubstr("ZVK0016E the server is stopping"));
  EXPECT_THAT(endOf(second), HasSubstr("ZVK0016E the server is stopping"));
  EXPECT_EQ(store_->state("c"), CollectionState::ChangesPending);
  limits_.index.batchChanges = 1000;
  restart();
  store_->updateIndex("c");
  EXPECT_EQ(store_->estimate("c", "fox").hits, 50U);
  EXPECT_EQ(store_->estimate("c", "fox").documents, 50U);
}

/// A collection without a store, whose work is done when the test says so.
class IndexStepsTest : public ::testing::Test {
 protected:
  IndexStepsTest() {
    Collection::create(directory_.path(), {"en", {}}, {});
    limits_.index.batchChanges = 2;
    open();
  }

  void open() {
    collection_.reset();
    collection_.emplace("c", directory_.path(), limits_, std::make_shared<ParseOutcomes>(10),
                        stopping_);
  }

  void index() {
    while (collection_->indexStep()) {
    }
  }

  tq::test::TemporaryDirectory directory_;
  StoreLimits limits_;
  std::atomic<bool> stopping_ = false;
  std::optional<Collection> collection_;
};

// Several databases ask for the help of other threads, and so show as whose work the step counts.
TEST(IndexStep, BelongsToNoRequestAlthoughOneCarriesItOut) {
  const tq::test::TemporaryDirectory directory;
  Collection::create(directory.path(), {"en", {}, 2}, {});
  RequestContext gone({});
  gone.cancelAt(RequestContext::Clock::now());
  int asked = 0;
  StoreLimits limits;
  limits.index.helpers = [&](const std::function<void()>&) {
    ++asked;
    EXPECT_EQ(RequestContext::current(), nullptr);
  };
  const std::atomic<bool> stopping = false;
  Collection collection("c", directory.path(), limits, std::make_shared<ParseOutcomes>(10),
                        stopping);
  for (int i = 0; i < 20; ++i) collection.add({"k" + std::to_string(i), {}, "fox"});
  const auto ticket = collection.requestUpdate();
  {
    const RequestContext::Scope scope(gone);
    while (collection.indexStep()) {
    }
    EXPECT_EQ(RequestContext::current(), &gone);
  }
  EXPECT_GT(asked, 0);
  EXPECT_NO_THROW(ticket->requireSuccess());
  EXPECT_EQ(collection.estimate("fox", kExactHits).hits, 20U);
}

TEST_F(IndexStepsTest, ThoseWhoWaitAtTheSameTimeShareOneUpdate) {
  for (int i = 0; i < 5; ++i) collection_->add({"k" + std::to_string(i), {}, "fox"});
  const std::shared_ptr<Ticket> ticket = collection_->requestUpdate();
  EXPECT_TRUE(collection_->takeOnIndexing());
  EXPECT_FALSE(collection_->takeOnIndexing()) << "it has been taken on";
  for (int i = 0; i < 100; ++i) EXPECT_EQ(collection_->requestUpdate(), ticket);
  // It begins, and nothing has come since.
  EXPECT_TRUE(collection_->indexStep());
  EXPECT_EQ(collection_->requestUpdate(), ticket);
  // This is not part of it.
  collection_->add({"late", {}, "hound"});
  const std::shared_ptr<Ticket> next = collection_->requestUpdate();
  EXPECT_NE(next, ticket);
  EXPECT_EQ(collection_->requestUpdate(), next);
  EXPECT_FALSE(ticket->isDone());
  while (!ticket->isDone()) EXPECT_TRUE(collection_->indexStep());
  EXPECT_FALSE(next->isDone());
  EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 5U);
  EXPECT_EQ(collection_->estimate("hound", kExactHits).hits, 0U);
  index();
  EXPECT_TRUE(next->isDone());
  EXPECT_EQ(collection_->estimate("hound", kExactHits).hits, 1U);
  EXPECT_FALSE(collection_->takeOnIndexing());
  EXPECT_TRUE(collection_->requestUpdate()->isDone()) << "there is nothing to do";
}

// Perhaps nobody comes who would take it on.
TEST_F(IndexStepsTest, ThoseWhoWaitForWorkThatIsGivenUpAreToldAndMayAskAgain) {
  collection_->add({"k", {}, "fox"});
  const std::shared_ptr<Ticket> ticket = collection_->requestUpdate();
  ASSERT_TRUE(collection_->takeOnIndexing());
  collection_->giveUpIndexing();
  ASSERT_TRUE(ticket->isDone());
  try {
    ticket->requireSuccess();
    ADD_FAILURE() << "it counts as done";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::OutOfMemory);
  }
  EXPECT_EQ(collection_->state(), CollectionState::ChangesPending);
  EXPECT_FALSE(collection_->takeOnIndexing());
  const std::shared_ptr<Ticket> next = collection_->requestUpdate();
  EXPECT_TRUE(collection_->takeOnIndexing());
  index();
  EXPECT_NO_THROW(next->requireSuccess());
}

// Steps follow each other at once, so that whoever waits for the end of one could otherwise wait
// for all of them.
TEST_F(IndexStepsTest, NextStepComesAfterThoseWhoWaitForTheEndOfThisOne) {
  collection_->add({"k", {}, "fox"});
  collection_->requestUpdate();
  std::promise<void> held;
  std::promise<void> released;
  std::promise<void> waits;
  std::atomic<pid_t> indexer = 0;
  std::atomic<bool> stepped = false;
  const auto nothing = [](const JournalExtent&) {};
  std::jthread first([&] {
    const auto hold = [&] {
      held.set_value();
      released.get_future().get();
    };
    collection_->holdStill(hold, nothing, [] {});
  });
  held.get_future().get();
  std::jthread second([&] {
    bool told = false;
    const auto tell = [&] {
      if (!std::exchange(told, true)) waits.set_value();
    };
    collection_->holdStill([&] { EXPECT_FALSE(stepped); }, nothing, tell);
  });
  waits.get_future().get();
  std::jthread step([&] {
    indexer = ::gettid();
    collection_->indexStep();
    stepped = true;
  });
  while (indexer == 0 || !test::sleeps(indexer)) std::this_thread::yield();
  released.set_value();
  second.join();
  step.join();
  EXPECT_TRUE(stepped);
}

TEST_F(IndexStepsTest, WaitForTheEndOfAStepCanBeStopped) {
  std::promise<void> held;
  std::promise<void> released;
  std::jthread first([&] {
    const auto hold = [&] {
      held.set_value();
      released.get_future().get();
    };
    collection_->holdStill(
        hold, [](const JournalExtent&) {}, [] {});
  });
  held.get_future().get();
  const auto stop = [] { throw ServerError(ErrorKind::TryAgain, "stopping"); };
  EXPECT_THROW(collection_->holdStill([] {}, [](const JournalExtent&) {}, stop), ServerError);
  released.set_value();
}

TEST_F(IndexStepsTest, DeletionDoesNotWaitForTheEndOfAnUpdate) {
  limits_.hiddenKeys = 1;
  open();
  for (int i = 0; i < 5; ++i) collection_->add({"k" + std::to_string(i), {}, "fox"});
  EXPECT_EQ(collection_->remove("k0"), nullptr);
  const std::shared_ptr<Ticket> deletion = collection_->remove("k1");
  ASSERT_NE(deletion, nullptr);
  const std::shared_ptr<Ticket> update = collection_->requestUpdate();
  EXPECT_TRUE(collection_->indexStep());
  EXPECT_TRUE(deletion->isDone());
  EXPECT_NO_THROW(deletion->requireSuccess());
  index();
  EXPECT_NO_THROW(update->requireSuccess());
  EXPECT_EQ(collection_->estimate("fox", kExactHits).documents, 3U);
}

TEST_F(IndexStepsTest, BatchThatFitsIntoATransactionIsNotDivided) {
  limits_.index.batchChanges = 4;
  open();
  for (int i = 0; i < 3; ++i) collection_->add({"k" + std::to_string(i), {}, "fox"});
  Batch batch;
  batch.name = "b1";
  for (int i = 0; i < 4; ++i) batch.changes.documents.push_back({std::to_string(i), {}, "hound"});
  collection_->apply(batch);
  collection_->requestUpdate();
  std::set<std::uint64_t> seen;
  while (collection_->indexStep()) seen.insert(collection_->estimate("hound", kExactHits).hits);
  EXPECT_TRUE(seen.contains(4));
  seen.erase(0);
  EXPECT_EQ(seen.size(), 1U);
}

TEST_F(IndexStepsTest, LargeBatchComesInSeveralTransactions) {
  Batch batch;
  batch.name = "b1";
  for (int i = 0; i < 15; ++i) batch.changes.documents.push_back({std::to_string(i), {}, "hound"});
  batch.changes.deletions = {"k"};
  collection_->add({"k", {}, "fox"});
  collection_->apply(batch);
  collection_->requestUpdate();
  std::set<std::uint64_t> seen;
  while (collection_->indexStep()) seen.insert(collection_->estimate("hound", kExactHits).hits);
  EXPECT_TRUE(seen.contains(15));
  EXPECT_GT(seen.size(), 3U);
  EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 0U);
  EXPECT_EQ(collection_->state(), CollectionState::Current);
}

TEST_F(IndexStepsTest, StopTakesEffectBetweenTwoDocuments) {
  for (int i = 0; i < 5; ++i) collection_->add({"k" + std::to_string(i), {}, "fox"});
  const std::shared_ptr<Ticket> ticket = collection_->requestUpdate();
  EXPECT_TRUE(collection_->indexStep());
  EXPECT_TRUE(collection_->indexStep());
  stopping_ = true;
  index();
  ASSERT_TRUE(ticket->isDone());
  EXPECT_THROW(ticket->requireSuccess(), ServerError);
  EXPECT_LT(collection_->estimate("fox", kExactHits).hits, 5U);
  EXPECT_EQ(collection_->state(), CollectionState::ChangesPending);
  stopping_ = false;
  collection_->requestUpdate();
  index();
  EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 5U);
  EXPECT_EQ(collection_->estimate("fox", kExactHits).documents, 5U);
}

TEST_F(IndexStepsTest, StopTakesEffectWhileTheIndexIsChecked) {
  limits_.hiddenKeys = 1;
  open();
  collection_->remove("k0");
  const std::shared_ptr<Ticket> removal = collection_->remove("k1");
  ASSERT_NE(removal, nullptr);
  stopping_ = true;
  index();
  EXPECT_TRUE(removal->isDone());
  EXPECT_TRUE(std::filesystem::exists(IndexSums::pathIn(directory_.path())))
      << "no change has begun";
  try {
    open();
    ADD_FAILURE() << "it was opened while the server stops";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::TryAgain);
  }
  stopping_ = false;
  open();
}

TEST_F(IndexStepsTest, RefusedDocumentIsReportedAlsoIfTheJournalCannotBeCutOff) {
  for (const std::string& key : {kRefusedKey, std::string("k")}) {
    collection_->add({key, {}, "fox"});
  }
  const std::shared_ptr<Ticket> ticket = collection_->requestUpdate();
  EXPECT_TRUE(collection_->indexStep());
  // What is no file and not empty cannot be removed as one.
  const std::filesystem::path segment = directory_.path() / "journal-0000000001";
  std::filesystem::remove(segment);
  std::filesystem::create_directories(segment / "x");
  index();
  EXPECT_THROW(ticket->requireSuccess(), ServerError);
  EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 1U);
  // Somebody has to ask for the update again.
  EXPECT_EQ(collection_->state(), CollectionState::ChangesPending);
  std::filesystem::remove_all(segment);
  const std::shared_ptr<Ticket> again = collection_->requestUpdate();
  index();
  EXPECT_EQ(collection_->state(), CollectionState::Current);
  try {
    again->requireSuccess();
    ADD_FAILURE() << "nobody has been told";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::DocumentsNotIndexed);
  }
  EXPECT_EQ(collection_->takeOutcomes().size(), 1U);
}

/// An update in one slice or in several, as the memory allows.
class SlicesTest : public IndexStepsTest, public ::testing::WithParamInterface<bool> {
 protected:
  SlicesTest() {
    if (GetParam()) limits_.index.memory = std::make_shared<MemoryBudget>(std::size_t{1} << 20U);
    limits_.index.batchChanges = 100;
    open();
  }

  /// More keys than stand in a slice.
  void queueMany(const std::string& name) {
    for (int i = 0; i < 1000; ++i) {
      collection_->queue({name + std::to_string(i), {}, "hound"});
    }
  }

  /// How many slices there were.
  int update() {
    const auto ticket = collection_->requestUpdate();
    EXPECT_TRUE(collection_->takeOnIndexing());
    std::set<std::uint64_t> found;
    while (collection_->indexStep()) found.insert(collection_->summary().indexing);
    failed_ = false;
    try {
      ticket->requireSuccess();
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::DocumentsNotIndexed);
      failed_ = true;
    }
    found.erase(0);
    return static_cast<int>(found.size());
  }

  bool failed_ = false;
};

TEST_P(SlicesTest, RefusedVersionIsNotReportedIfALaterChangeOfItsKeyIsIndexed) {
  collection_->queue({kRefusedKey, {}, "fox"}, "ada");
  queueMany("k");
  collection_->remove(kRefusedKey);
  EXPECT_EQ(collection_->takeOutcomes("ada").size(), 1U) << "it is stored";
  EXPECT_EQ(update() > 1, GetParam());
  EXPECT_FALSE(failed_);
  EXPECT_TRUE(collection_->takeOutcomes("ada").empty());
  EXPECT_EQ(collection_->estimate("hound", kExactHits).hits, 1000U);
}

TEST_P(SlicesTest, KeyWhoseLastVersionIsRefusedIsReportedOnce) {
  collection_->queue({kRefusedKey, {}, "fox"}, "ada");
  queueMany("k");
  collection_->remove(kRefusedKey);
  collection_->queue({kRefusedKey, {}, "red fox"}, "ada");
  queueMany("m");
  collection_->queue({kRefusedKey, {}, "grey fox"}, "ada");
  EXPECT_EQ(collection_->takeOutcomes("ada").size(), 3U) << "they are stored";
  EXPECT_EQ(update() > 1, GetParam());
  EXPECT_TRUE(failed_);
  const std::vector<ParseOutcome> outcomes = collection_->takeOutcomes("ada");
  ASSERT_EQ(outcomes.size(), 1U);
  EXPECT_EQ(outcomes[0].key, kRefusedKey);
  EXPECT_EQ(outcomes[0].messageId, "ZVK0015E");
  EXPECT_EQ(collection_->estimate("hound", kExactHits).hits, 2000U);
}

// Searches do not filter the deletions any more that the index has, and between two slices it has
// documents that are deleted later.
TEST_P(SlicesTest, DocumentDeletedLaterIsNeverFoundOnceItsDeletionIsInTheIndex) {
  limits_.hiddenKeys = 3;
  open();
  const std::vector<std::string> keys{"alone", "in a batch", "twice", "there again", "last"};
  for (const std::string& key : keys) collection_->add({key, {}, "fox"});
  queueMany("k");
  Batch batch{"b1", {}, {}, false, {}};
  batch.changes.documents.push_back({"b", {}, "hound"});
  batch.changes.deletions = {"in a batch", "there again"};
  collection_->apply(std::move(batch));
  collection_->remove("twice");
  collection_->add({"there again", {}, "bear"});
  queueMany("m");
  collection_->remove("twice");
  const auto removal = collection_->remove("alone");
  ASSERT_NE(removal, nullptr);
  // The last deletion is not the first change of its batch.
  Batch lastBatch{"b2", {}, {}, false, {}};
  lastBatch.changes.documents.push_back({"c", {}, "wolf"});
  lastBatch.changes.deletions.emplace_back("last");
  collection_->apply(std::move(lastBatch));
  index();
  ASSERT_TRUE(removal->isDone());
  // Of no importance for these keys, but filtered.
  collection_->remove("b");

  for (const bool stops : {true, false}) {
    const auto ticket = collection_->requestUpdate();
    ASSERT_TRUE(collection_->takeOnIndexing());
    int steps = 0;
    std::set<std::uint64_t> slices;
    do {
      EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 0U) << "step " << steps;
      slices.insert(collection_->summary().indexing);
      // In the second slice, if there are several.
      stopping_ = stops && ++steps == 12;
    } while (collection_->indexStep());
    slices.erase(0);
    EXPECT_EQ(slices.size() > 1, GetParam());
    EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 0U);
    if (stops) {
      EXPECT_THROW(ticket->requireSuccess(), ServerError);
    } else {
      EXPECT_NO_THROW(ticket->requireSuccess());
    }
    stopping_ = false;
  }
  EXPECT_EQ(collection_->estimate("bear", kExactHits).hits, 1U);
  EXPECT_EQ(collection_->estimate("hound", kExactHits).hits, 2000U);
}

INSTANTIATE_TEST_SUITE_P(One, SlicesTest, ::testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Several, SlicesTest, ::testing::Values(true));

TEST_F(IndexStepsTest, KeysOfALongJournalTakeAPartOfTheMemory) {
  constexpr std::size_t kBudget = std::size_t{1} << 20U;
  limits_.index.memory = std::make_shared<MemoryBudget>(kBudget);
  limits_.index.batchChanges = 100;
  open();
  for (int i = 0; i < 3000; ++i) {
    collection_->queue({"k" + std::to_string(i % 2000), {}, i < 2000 ? "hound" : "fox"});
  }
  collection_->remove("k5");
  Batch batch{"b1", {}, {}, false, {}};
  for (int i = 0; i < 90; ++i) {
    batch.changes.documents.push_back({"b" + std::to_string(i), {}, "bear"});
  }
  batch.changes.deletions.emplace_back("k1999");
  collection_->apply(std::move(batch));
  const std::size_t before = limits_.index.memory->used();
  const auto ticket = collection_->requestUpdate();
  std::size_t most = 0;
  std::uint64_t last = 0;
  while (collection_->indexStep()) {
    const std::size_t used = limits_.index.memory->used();
    if (used > before) most = std::max(most, used - before);
    last = std::max(last, collection_->summary().indexing);
    EXPECT_EQ(collection_->estimate("bear", kExactHits).hits % 90, 0U) << "the batch is divided";
    EXPECT_LE(collection_->estimate("hound OR fox", kExactHits).hits, 1998U) << "what was deleted";
  }
  EXPECT_NO_THROW(ticket->requireSuccess());
  EXPECT_LE(most, kBudget / 16 + 16384);
  EXPECT_EQ(last, 3092U);
  EXPECT_EQ(collection_->estimate("hound", kExactHits).hits, 999U);
  EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 999U);
}

TEST_F(IndexStepsTest, BatchThatIsDividedTakesMemoryBetweenItsSteps) {
  limits_.index.memory = std::make_shared<MemoryBudget>(std::size_t{64} << 20U);
  open();
  Batch batch{"b1", {}, {}, false, {}};
  for (int i = 0; i < 10; ++i) {
    batch.changes.documents.push_back({"k" + std::to_string(i), {}, std::string(10000, 'x')});
  }
  collection_->apply(std::move(batch));
  // From the first search on there is a handle for searching.
  EXPECT_EQ(collection_->estimate("xxx*", kExactHits).documents, 0U);
  const std::size_t before = limits_.index.memory->used();
  collection_->requestUpdate();
  EXPECT_TRUE(collection_->indexStep());
  EXPECT_EQ(collection_->estimate("xxx*", kExactHits).documents, 4U);
  EXPECT_GT(limits_.index.memory->used(), before + 100000);
  index();
  EXPECT_EQ(limits_.index.memory->used(), before);
}

// As a small budget makes them.
TEST_F(IndexStepsTest, ResultIsTheSameHoweverSmallTheTransactionsAre) {
  const auto hitsWith = [&](std::size_t batchBytes, std::size_t& steps) {
    tq::test::TemporaryDirectory directory;
    Collection::create(directory.path(), {"en", {}}, {});
    limits_.index.batchChanges = 1000;
    limits_.index.batchBytes = batchBytes;
    Collection collection("c", directory.path(), limits_, std::make_shared<ParseOutcomes>(10),
                          stopping_);
    for (int i = 0; i < 100; ++i) {
      const std::string text(static_cast<std::size_t>(i % 7), 'f');
      collection.add({"k" + std::to_string(i * 37 % 80), {}, "fox hound " + text + " fox"});
      if (i % 10 == 9) collection.remove("k" + std::to_string(i));
    }
    collection.requestUpdate();
    while (collection.indexStep()) ++steps;
    SearchQuery query;
    query.text = "fox OR fff";
    const auto found = collection.search(query);
    std::vector<std::pair<std::string, std::uint16_t>> hits;
    for (Hit hit; found->next(hit);) hits.emplace_back(hit.key, hit.milliScore);
    return hits;
  };
  std::size_t few = 0;
  std::size_t many = 0;
  const auto whole = hitsWith(std::size_t{4} << 20U, few);
  EXPECT_GT(whole.size(), 70U);
  EXPECT_EQ(hitsWith(100, many), whole);
  EXPECT_GT(many, few + 10);
}

// What a transaction takes grows with them, not with the bytes.
TEST_F(IndexStepsTest, TextsOfWordsThatDifferGoIntoSmallerTransactions) {
  limits_.index.batchChanges = 1000;
  limits_.index.batchBytes = 20000;
  open();
  const auto afterOneStep = [&](const auto& word) {
    for (int i = 0; i < 20; ++i) {
      std::string text = "fox";
      for (int j = 0; j < 100; ++j) text += " " + word(i * 100 + j);
      collection_->add({"k" + std::to_string(i), {}, text});
    }
    collection_->requestUpdate();
    std::vector<std::uint64_t> found;
    while (collection_->indexStep()) {
      found.push_back(collection_->estimate("fox", kExactHits).hits);
    }
    EXPECT_EQ(found.back(), 20U);
    return found.front();
  };
  EXPECT_LT(afterOneStep([](int i) { return "word" + std::to_string(i); }), 10U);
  for (int i = 0; i < 20; ++i) collection_->remove("k" + std::to_string(i));
  collection_->requestUpdate();
  index();
  EXPECT_EQ(afterOneStep([](int i) { return "word" + std::to_string(i % 10); }), 20U);
}

TEST_F(IndexStepsTest, WhoeverWaitsIsToldWhenTheCollectionIsDeleted) {
  collection_->add({"k", {}, "fox"});
  const std::shared_ptr<Ticket> ticket = collection_->requestUpdate();
  collection_->retire(Collection::Fate::Deleted);
  ASSERT_TRUE(ticket->isDone());
  EXPECT_THROW(ticket->requireSuccess(), ServerError);
  EXPECT_FALSE(collection_->indexStep());
}

TEST_F(IndexStepsTest, ReadingThatFailsSinceTheCollectionGoesSaysThatItGoes) {
  collection_->add({"k", {}, "fox"});
  collection_->requestUpdate();
  index();
  SearchQuery query;
  query.everything = true;
  const auto visit = [&](const std::function<void()>& meanwhile) {
    try {
      collection_->visit(query, [&](const Document&) {
        meanwhile();
        throw ServerError(ErrorKind::StorageFailed, "the file is gone");
      });
    } catch (const ServerError& error) {
      return error.kind();
    }
    return ErrorKind::Internal;
  };
  EXPECT_EQ(visit([] {}), ErrorKind::StorageFailed);
  EXPECT_EQ(visit([&] { collection_->retire(Collection::Fate::Deleted); }),
            ErrorKind::UnknownCollection);
  open();
  EXPECT_EQ(visit([&] { collection_->retire(Collection::Fate::Replaced); }), ErrorKind::TryAgain);
}

TEST_F(IndexingTest, ChangeThatComesDuringAnUpdateIsInTheNextOne) {
  createWith("c", 50);
  createWith("small", 1);
  std::promise<void> goOn;
  const auto first = updateUpToTheEndOfTheLast({"c", "small"}, goOn.get_future()).front();
  store_->addDocument("c", {"late", {}, "hound"});
  const auto second = beginUpdate("c");
  EXPECT_NE(second, first);
  goOn.set_value();
  EXPECT_EQ(endOf(second), "done");
  EXPECT_EQ(store_->estimate("c", "hound").hits, 1U);
  EXPECT_EQ(endOf(first), "done");
  EXPECT_EQ(store_->state("c"), CollectionState::Current);
}

TEST(IndexLookUp, TellsOfEachKeyAndEndsBetweenTwo) {
  const tq::test::TemporaryDirectory directory;
  XapianIndex::create(directory.path(), {"en", {}});
  XapianIndex index(directory.path(), {});
  const std::vector<Change> changes{{ChangeKind::Put, {"k1", {}, "fox"}},
                                    {ChangeKind::Put, {"k3", {}, "fox"}}};
  index.beginUpdate();
  index.applyBatch(changes, [] {});
  const std::vector<std::string> keys{"k1", "k2", "k3", "k1"};
  EXPECT_THAT(index.contain(keys, [] {}), ::testing::ElementsAre(true, false, true, true));
  int calls = 0;
  const auto stopAtThird = [&] {
    if (++calls == 3) throw ServerError(ErrorKind::TryAgain, "stop");
  };
  EXPECT_THROW(index.contain(keys, stopAtThird), ServerError);
  EXPECT_EQ(calls, 3);
}

TEST_F(IndexingTest, CollectionBeingUpdatedStaysOpen) {
  limits_.index.descriptors = std::make_shared<DescriptorBudget>(20);
  restart();
  createWith("c", 50);
  createWith("d", 50);
  createWith("small", 1);
  std::promise<void> goOn;
  const Tickets updates = updateUpToTheEndOfTheLast({"c", "d", "small"}, goOn.get_future());
  store_->closeCollection("c");
  store_->closeCollection("d");
  goOn.set_value();
  EXPECT_EQ(endOf(updates[0]), "done");
  EXPECT_EQ(endOf(updates[1]), "done");
  store_->closeCollection("c");
  EXPECT_EQ(store_->estimate("c", "fox").hits, 50U);
  EXPECT_EQ(store_->estimate("d", "fox").hits, 50U);
}

}  // namespace
}  // namespace corvaned
