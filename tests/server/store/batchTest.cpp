#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/store/batchMemory.h"
#include "server/store/collection.h"
#include "server/store/localStore.h"
#include "tests/server/store/fileSizeLimit.h"
#include "tests/server/store/refusal.h"
#include "tests/server/store/slowCollection.h"
#include "tests/support/temporaryDirectory.h"

// Changes that are accepted together or not at all, and once.
namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr Refresh kImmediate{Refresh::Mode::Immediate, {}};

using Documents = std::vector<Document>;
using Keys = std::vector<std::string>;

Document fox(const std::string& key, const std::string& text = "fox") { return {key, {}, text}; }

Batch batch(const std::string& name, Documents documents, Keys deletions = {}) {
  return {name, {std::move(documents), std::move(deletions), {}}, {}, false, {}};
}

Batch marked(const std::string& name, const std::string& expected, const std::string& mark) {
  return {name, {{}, {}, mark}, expected, false, {}};
}

class BatchTest : public ::testing::Test {
 protected:
  BatchTest() {
    restart();
    store_->createCollection("c", "en");
  }

  std::filesystem::path data() const { return directory_.path() / "data"; }
  std::filesystem::path collection() const { return data() / "collections" / "c"; }

  void restart() {
    store_.reset();
    store_ = std::make_unique<LocalStore>(data(), limits_);
  }

  void add(const std::string& key, const std::string& text) {
    store_->addDocument("c", {key, {}, text});
  }

  BatchOutcome apply(Batch wanted) { return store_->apply("c", std::move(wanted)); }

  Keys found(const std::string& text) {
    SearchQuery query;
    query.text = text;
    query.order = HitOrder::Key;
    const auto hits = store_->search("c", query);
    Keys keys;
    for (Hit hit; hits->next(hit);) keys.push_back(hit.key);
    return keys;
  }

  Keys foundAfterUpdate(const std::string& text) {
    store_->updateIndex("c");
    return found(text);
  }

  static std::string bytesOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  static void rewrite(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  }

  std::string refusal(ErrorKind kind, Batch wanted) {
    return test::refusal(kind, [&] { apply(std::move(wanted)); });
  }

  std::string mark() { return store_->summary("c").mark; }

  tq::test::TemporaryDirectory directory_;
  StoreLimits limits_;
  std::unique_ptr<LocalStore> store_;
};

TEST_F(BatchTest, DocumentsAreAddedAndDeletedTogether) {
  add("k1", "fox");
  store_->updateIndex("c");
  const BatchOutcome outcome = apply(batch("b1", {fox("k2"), fox("k3")}, {"k1"}));
  EXPECT_EQ(outcome.documents, 2U);
  EXPECT_EQ(outcome.deletions, 1U);
  EXPECT_EQ(outcome.unknown, 0U);
  EXPECT_THAT(found("fox"), IsEmpty()) << "a deletion takes effect at once";
  EXPECT_EQ(store_->summary("c").pending, 3U);
  EXPECT_THAT(foundAfterUpdate("fox"), ElementsAre("k2", "k3"));
}

TEST_F(BatchTest, WaitsInTheJournalOverARestart) {
  add("k1", "fox");
  store_->updateIndex("c");
  apply(batch("b1", {fox("k2")}, {"k1"}));
  restart();
  EXPECT_EQ(store_->state("c"), CollectionState::ChangesPending);
  EXPECT_EQ(store_->summary("c").pending, 2U);
  EXPECT_THAT(found("fox"), IsEmpty());
  EXPECT_THAT(foundAfterUpdate("fox"), ElementsAre("k2"));
}

TEST_F(BatchTest, RepeatedChangesNothingAndHasTheSameOutcomeWheneverItComes) {
  const Batch first = batch("b1", {fox("k1"), fox("k2")}, {"k3"});
  apply(first);
  const auto expectNothing = [&](const char* when) {
    SCOPED_TRACE(when);
    const std::uint64_t pending = store_->summary("c").pending;
    for (const BatchOutcome& outcome : {apply(first), store_->batchOutcome("c", "b1")}) {
      EXPECT_EQ(outcome.documents, 2U);
      EXPECT_EQ(outcome.deletions, 1U);
      EXPECT_EQ(outcome.unknown, 1U);
    }
    EXPECT_EQ(store_->summary("c").pending, pending);
  };
  expectNothing("at once");
  add("k1", "hound");
  add("k3", "hound");
  store_->deleteDocument("c", "k2");
  expectNothing("after later changes");
  restart();
  expectNothing("after a restart");
  EXPECT_THAT(foundAfterUpdate("hound"), ElementsAre("k1", "k3"));
  expectNothing("when the journal is empty");
  store_->closeCollection("c");
  expectNothing("when the collection was closed");
  restart();
  expectNothing("when only the file remembers it");
  EXPECT_THAT(foundAfterUpdate("hound"), ElementsAre("k1", "k3"));
  EXPECT_THAT(found("fox"), IsEmpty());
}

TEST_F(BatchTest, NameIsTakenByOneBatchOnly) {
  apply(batch("b1", {fox("k1")}, {"k2"}));
  for (const bool afterUpdate : {false, true}) {
    if (afterUpdate) store_->updateIndex("c");
    for (Batch other : {batch("b1", {fox("k1", "hound")}, {"k2"}), batch("b1", {fox("k1")}),
                        batch("b1", {fox("k1")}, {"k3"})}) {
      EXPECT_THAT(refusal(ErrorKind::OtherBatch, std::move(other)), HasSubstr("\"b1\""));
    }
    Batch otherMark = batch("b1", {fox("k1")}, {"k2"});
    otherMark.changes.newMark = "m";
    refusal(ErrorKind::OtherBatch, std::move(otherMark));
    Batch withImpossible = batch("b1", {fox("k1")}, {"k2"});
    withImpossible.refused.add({"k9", "ZVK0012E", "cut off"});
    refusal(ErrorKind::OtherBatch, std::move(withImpossible));
  }
  EXPECT_THAT(foundAfterUpdate("fox"), ElementsAre("k1"));
}

TEST_F(BatchTest, OldNumberIsRefused) {
  apply(batch("loader-7", {fox("k1")}));
  store_->updateIndex("c");
  store_.reset();
  {
    BatchMemory memory(collection(), {});
    for (std::size_t i = 0; i < BatchMemory::kBatches; ++i) {
      memory.note({"x" + std::to_string(i), "digest", 0, {}}, 0);
    }
    memory.save(memory.unsaved().value());
  }
  restart();
  const auto expectRefused = [&] {
    EXPECT_THAT(refusal(ErrorKind::OtherBatch, batch("loader-7", {fox("k1")})),
                AllOf(HasSubstr("\"loader-7\""), HasSubstr("older")));
  };
  expectRefused();
  apply(batch("one more", {fox("k2")}));
  store_->updateIndex("c");
  restart();
  expectRefused();
  EXPECT_EQ(apply(batch("loader-8", {fox("k1")})).documents, 1U);
}

TEST_F(BatchTest, NothingIsChangedIfADocumentIsTooLarge) {
  limits_.documentBytes = 10;
  restart();
  const BatchOutcome outcome = apply(batch(
      "b1", {fox("k1"), fox("k2", "much too long a text"), fox("k3"), fox("k4", "and another one")},
      {"k5"}));
  const auto expectNamed = [](const BatchOutcome& refused) {
    EXPECT_EQ(refused.refused.count, 2U);
    ASSERT_THAT(refused.refused.first, SizeIs(2));
    EXPECT_EQ(refused.refused.first[0].key, "k2");
    EXPECT_EQ(refused.refused.first[0].messageId, "ZVK0013E");
    EXPECT_THAT(refused.refused.first[0].messageText, HasSubstr("20 bytes"));
    EXPECT_EQ(refused.refused.first[1].key, "k4");
  };
  expectNamed(outcome);
  expectNamed(store_->batchOutcome("c", "b1"));
  EXPECT_EQ(store_->state("c"), CollectionState::Current);
  // It was not applied, so the name is free.
  apply(batch("b1", {fox("k1")}));
  EXPECT_EQ(store_->batchOutcome("c", "b1").refused.count, 0U);
  EXPECT_THAT(foundAfterUpdate("fox"), ElementsAre("k1"));
}

TEST_F(BatchTest, WhatWasFoundImpossibleBeforeRefusesIt) {
  Batch wanted = batch("b1", {fox("k1")});
  wanted.refused.add({"k2", "ZVK0012E", "no text"});
  const BatchOutcome outcome = apply(std::move(wanted));
  EXPECT_EQ(outcome.refused.count, 1U);
  EXPECT_EQ(store_->state("c"), CollectionState::Current);
}

TEST_F(BatchTest, RefusedBatchIsKnownUntilARestart) {
  Batch wanted = batch("b1", {});
  wanted.refused.add({"k2", "ZVK0012E", "no text"});
  apply(wanted);
  store_->closeCollection("c");
  EXPECT_EQ(store_->batchOutcome("c", "b1").refused.count, 1U);
  restart();
  EXPECT_THAT(test::refusal(ErrorKind::UnknownBatch, [&] { store_->batchOutcome("c", "b1"); }),
              HasSubstr("\"b1\""));
  apply(wanted);
  for (std::size_t i = 0; i < ParseOutcomes::kRefusedBatches; ++i) {
    wanted.name = "other" + std::to_string(i);
    apply(wanted);
  }
  test::refusal(ErrorKind::UnknownBatch, [&] { store_->batchOutcome("c", "b1"); });
}

TEST_F(BatchTest, OnlySoManyRefusedChangesAreNamed) {
  Batch wanted = batch("b1", {});
  for (int i = 0; i < 150; ++i) wanted.refused.add({std::to_string(i), "ZVK0012E", "no text"});
  const BatchOutcome outcome = apply(std::move(wanted));
  EXPECT_EQ(outcome.refused.count, 150U);
  EXPECT_THAT(outcome.refused.first, SizeIs(Refusals::kNamed));
}

TEST_F(BatchTest, MarkIsSetWithTheBatchAndComparedFirst) {
  EXPECT_EQ(mark(), "");
  apply(marked("adopt", "none", "db 1"));
  EXPECT_EQ(mark(), "db 1");
  Batch next = batch("b1", {fox("k1")});
  next.expectedMark = "db 1";
  next.changes.newMark = "db 1, 17";
  apply(next);
  EXPECT_EQ(mark(), "db 1, 17");
  Batch stranger = batch("b2", {fox("k2")});
  stranger.expectedMark = "db 1";
  EXPECT_THAT(refusal(ErrorKind::OtherMark, stranger),
              AllOf(HasSubstr("\"db 1, 17\""), HasSubstr("\"db 1\"")));
  EXPECT_THAT(refusal(ErrorKind::OtherMark, marked("b2", "none", "x")), HasSubstr("\"none\""));
  test::refusal(ErrorKind::UnknownBatch, [&] { store_->batchOutcome("c", "b2"); });
  EXPECT_THAT(foundAfterUpdate("fox"), ElementsAre("k1"));
  // It has been applied, so what it expected then is no matter.
  EXPECT_EQ(apply(next).documents, 1U);
  EXPECT_EQ(mark(), "db 1, 17");
}

TEST_F(BatchTest, CollectionWithoutAMarkSaysSo) {
  EXPECT_THAT(refusal(ErrorKind::OtherMark, marked("b1", "m", "n")),
              AllOf(HasSubstr("\"none\""), HasSubstr("\"m\"")));
}

TEST_F(BatchTest, MarkLastsAsLongAsTheCollection) {
  apply(marked("b1", {}, "m1"));
  restart();
  EXPECT_EQ(mark(), "m1");
  apply(batch("b2", {fox("k1")}));
  EXPECT_EQ(mark(), "m1");
  store_->updateIndex("c");
  EXPECT_EQ(mark(), "m1");
  restart();
  EXPECT_EQ(mark(), "m1");
  store_->deleteCollection("c");
  store_->createCollection("c", "en");
  EXPECT_EQ(mark(), "");
  EXPECT_EQ(apply(marked("b1", "none", "m2")).documents, 0U) << "another collection";
  EXPECT_EQ(mark(), "m2");
}

TEST_F(BatchTest, DeletionsOfUnknownKeysAreCountedAmongWaitingChangesToo) {
  add("indexed", "fox");
  add("deleted", "fox");
  store_->updateIndex("c");
  add("waiting", "fox");
  add("gone", "fox");
  store_->deleteDocument("c", "gone");
  store_->deleteDocument("c", "deleted");
  apply(batch("b1", {fox("of a batch"), fox("of it and gone")}));
  apply(batch("b2", {}, {"of it and gone"}));
  const Keys all{"indexed", "deleted", "waiting", "gone", "of a batch", "of it and gone", "never"};
  EXPECT_EQ(apply(batch("b3", {}, all)).unknown, 4U);
  EXPECT_EQ(apply(batch("b4", {}, all)).unknown, all.size()) << "nothing is left";
  store_->updateIndex("c");
  EXPECT_EQ(apply(batch("b5", {}, all)).unknown, all.size());
}

TEST_F(BatchTest, KeysThatMustExistRefuseItIfTheyDoNot) {
  add("k1", "fox");
  Batch wanted = batch("b1", {fox("k3")}, {"k1", "k2"});
  wanted.keysMustExist = true;
  const BatchOutcome outcome = apply(wanted);
  ASSERT_THAT(outcome.refused.first, SizeIs(1));
  EXPECT_EQ(outcome.refused.first[0].key, "k2");
  EXPECT_EQ(outcome.refused.first[0].messageId, "ZVK0034E");
  EXPECT_THAT(foundAfterUpdate("fox"), ElementsAre("k1"));
  add("k2", "fox");
  EXPECT_EQ(apply(wanted).unknown, 0U);
  EXPECT_THAT(foundAfterUpdate("fox"), ElementsAre("k3"));
  EXPECT_EQ(apply(wanted).refused.count, 0U) << "it has been applied";
}

TEST_F(BatchTest, SingleDeletionMayAskThatTheKeyExists) {
  const auto deleteExisting = [&](const char* key) { store_->deleteDocument("c", key, true); };
  EXPECT_THAT(test::refusal(ErrorKind::UnknownDocument, [&] { deleteExisting("k1"); }),
              HasSubstr("\"k1\""));
  add("k1", "fox");
  EXPECT_NO_THROW(deleteExisting("k1"));
  test::refusal(ErrorKind::UnknownDocument, [&] { deleteExisting("k1"); });
  add("k1", "fox");
  for (int updates = 0; updates < 3; ++updates) store_->updateIndex("c");
  restart();
  EXPECT_NO_THROW(deleteExisting("k1"));
  test::refusal(ErrorKind::UnknownDocument, [&] { deleteExisting("k1"); });
  store_->updateIndex("c");
  test::refusal(ErrorKind::UnknownDocument, [&] { deleteExisting("k1"); });
  EXPECT_EQ(store_->summary("c").pending, 0U) << "a refused deletion is no change";
}

TEST_F(BatchTest, OfManyDeletionsOfAKeyOneFindsTheDocument) {
  constexpr int kRounds = 20;
  for (int round = 0; round < kRounds; ++round) add("k" + std::to_string(round), "fox");
  std::atomic<int> deleted = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        try {
          store_->deleteDocument("c", "k" + std::to_string(round), true);
          ++deleted;
        } catch (const ServerError& error) {
          EXPECT_EQ(error.kind(), ErrorKind::UnknownDocument) << error.what();
        }
      }
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; i < 5; ++i) store_->updateIndex("c");
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(deleted, kRounds);
  EXPECT_THAT(foundAfterUpdate("fox"), IsEmpty());
}

TEST_F(BatchTest, KeysAreLookedUpRightlyWhereUpdatesNeverCease) {
  store_->createCollection("once", "en", kImmediate);
  std::atomic<bool> ended = false;
  std::jthread others([&] {
    for (int i = 0; !ended; ++i) {
      const std::string key = "other" + std::to_string(i % 7);
      store_->addDocument("once", fox(key));
      store_->deleteDocument("once", key, true);
    }
  });
  for (int round = 0; round < 20; ++round) {
    const std::string key = "k" + std::to_string(round);
    store_->addDocument("once", fox(key));
    const Batch deletions = batch("b" + std::to_string(round), {}, {key, key + " never was"});
    EXPECT_EQ(store_->apply("once", deletions).unknown, 1U);
  }
  ended = true;
}

TEST_F(BatchTest, SameBatchOfSeveralClientsIsAppliedOnce) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10; ++i) {
        const std::string number = std::to_string(i);
        EXPECT_EQ(apply(batch("b" + number, {fox("k" + number)})).documents, 1U);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(store_->summary("c").pending, 10U);
  EXPECT_THAT(foundAfterUpdate("fox"), SizeIs(10));
}

TEST_F(BatchTest, IsSearchableAtOnceWhereChangesAre) {
  store_->createCollection("once", "en", kImmediate);
  const auto hits = [&](const std::string& text) { return store_->estimate("once", text).hits; };
  const Batch first = batch("b1", {fox("k1"), fox("k2")});
  store_->apply("once", first);
  EXPECT_EQ(hits("fox"), 2U);
  store_->apply("once", batch("b2", {fox("k3", "hound")}, {"k1"}));
  EXPECT_EQ(hits("fox"), 1U);
  EXPECT_EQ(hits("hound"), 1U);
  restart();
  EXPECT_EQ(store_->apply("once", first).documents, 2U);
  EXPECT_EQ(hits("fox"), 1U);
}

TEST_F(BatchTest, DeletionsReachTheIndexOnTheirOwnIfThereAreMany) {
  limits_.hiddenKeys = 2;
  restart();
  Documents documents;
  Keys keys;
  for (int i = 0; i < 5; ++i) {
    keys.push_back("k" + std::to_string(i));
    documents.push_back(fox(keys.back()));
  }
  apply(batch("b1", documents));
  store_->updateIndex("c");
  apply(batch("b2", {}, keys));
  EXPECT_EQ(store_->estimate("c", "fox").documents, 0U);
  EXPECT_EQ(store_->state("c"), CollectionState::ChangesPending);
}

TEST_F(BatchTest, ThatDoesNotFitOnTheDiskChangesNothing) {
  const std::string large(200000, 'x');
  apply(batch("b0", {fox("k0")}));
  {
    const test::FileSizeLimit full(100000);
    refusal(ErrorKind::StorageFailed, batch("b1", {fox("k1"), fox("k2", large)}));
  }
  EXPECT_THAT(foundAfterUpdate("fox"), ElementsAre("k0"));
  EXPECT_EQ(apply(batch("b1", {fox("k1"), fox("k2", large)})).documents, 2U);
  EXPECT_THAT(foundAfterUpdate("fox"), ElementsAre("k0", "k1"));
}

TEST_F(BatchTest, CollectionThatHasLostItsMemoryOfBatchesIsRefused) {
  apply(marked("b1", {}, "m1"));
  store_->updateIndex("c");
  // Closing the collection would leave it open for as long as the index thread has it.
  store_.reset();
  std::filesystem::remove(BatchMemory::pathIn(collection()));
  restart();
  EXPECT_THAT(test::refusal(ErrorKind::StorageFailed, [&] { store_->openCollection("c"); }),
              HasSubstr("batches"));
}

TEST_F(BatchTest, EachChangedByteIsHarmlessOrNamed) {
  apply(batch("b1", {fox("k1")}));
  store_->updateIndex("c");
  Batch second = batch("b2", {fox("k2")}, {"k1"});
  second.changes.newMark = "m2";
  apply(second);
  store_.reset();
  std::map<std::string, std::size_t> refused;
  for (const char* name : {"journal-0000000000", "journal-0000000002", "batches"}) {
    const std::filesystem::path path = collection() / name;
    const std::string whole = bytesOf(path);
    for (std::size_t place = 0; place < whole.size(); ++place) {
      // Before and between the slots there is only text for people.
      if (path.filename() == "journal-0000000000" && whole[place] == 0) continue;
      std::string bytes = whole;
      bytes[place] = static_cast<char>(bytes[place] ^ 4);
      rewrite(path, bytes);
      SCOPED_TRACE(path.string() + " byte " + std::to_string(place));
      LocalStore store(data(), {});
      try {
        EXPECT_EQ(store.summary("c").mark, "m2");
        EXPECT_EQ(store.batchOutcome("c", "b1").documents, 1U);
        EXPECT_EQ(store.batchOutcome("c", "b2").deletions, 1U);
      } catch (const ServerError& error) {
        EXPECT_EQ(error.kind(), ErrorKind::StorageFailed);
        EXPECT_THAT(error.what(), HasSubstr(path.string()));
        ++refused[name];
      }
    }
    rewrite(path, whole);
  }
  EXPECT_EQ(refused["journal-0000000000"], 0U) << "there are two slots";
  EXPECT_EQ(refused["journal-0000000002"], bytesOf(collection() / "journal-0000000002").size());
  EXPECT_EQ(refused["batches"], bytesOf(collection() / "batches").size());
}

TEST_F(BatchTest, CollectionWithoutBatchesHasNoFileOfThem) {
  add("k1", "fox");
  store_->deleteDocument("c", "k1", true);
  store_->updateIndex("c");
  EXPECT_FALSE(std::filesystem::exists(BatchMemory::pathIn(collection())));
}

TEST_F(BatchTest, DeletedCollectionTakesNoBatch) {
  store_->deleteCollection("c");
  refusal(ErrorKind::UnknownCollection, batch("b1", {fox("k1")}, {"k2"}));
  test::refusal(ErrorKind::UnknownCollection, [&] { store_->batchOutcome("c", "b1"); });
}

/// A collection without a store, whose work is done when the test says so.
class BatchStepsTest : public ::testing::Test {
 protected:
  void open(const Refresh& refresh = {}) {
    Collection::create(directory_.path(), {"en", {}}, refresh);
    reopen();
  }

  void reopen() {
    collection_.reset();
    collection_.emplace("c", directory_.path(), limits_, std::make_shared<ParseOutcomes>(10),
                        stopping_);
  }

  void index() {
    while (collection_->indexStep()) {
    }
  }

  void update() {
    collection_->requestUpdate();
    index();
  }

  BatchOutcome apply(Batch wanted) { return collection_->apply(std::move(wanted)).outcome; }

  Keys found(const std::string& text) {
    SearchQuery query;
    query.text = text;
    const auto hits = collection_->search(query);
    Keys keys;
    for (Hit hit; hits->next(hit);) keys.push_back(hit.key);
    return keys;
  }

  std::filesystem::path segment(int number) const {
    return directory_.path() / ("journal-000000000" + std::to_string(number));
  }

  tq::test::TemporaryDirectory directory_;
  StoreLimits limits_;
  std::atomic<bool> stopping_ = false;
  std::optional<Collection> collection_;
};

TEST_F(BatchStepsTest, FileOfBatchesComesIntoBeingOnlyWhenTheCollectionMayChange) {
  open();
  const std::filesystem::path file = BatchMemory::pathIn(directory_.path());
  std::atomic<pid_t> client = 0;
  std::jthread thread;
  const auto applyMeanwhile = [&](const JournalExtent&) {
    thread = std::jthread([&] {
      client = ::gettid();
      apply(batch("b1", {fox("k1")}));
    });
    while (!std::filesystem::exists(file) && (client == 0 || !test::sleeps(client))) {
      std::this_thread::yield();
    }
    EXPECT_FALSE(std::filesystem::exists(file));
  };
  collection_->holdStill([] {}, applyMeanwhile, [] {});
  thread.join();
  EXPECT_TRUE(std::filesystem::exists(file));
}

TEST_F(BatchStepsTest, DocumentThatMovesToAnotherKeyIsNeverMissingWhereChangesAreSearchable) {
  open(kImmediate);
  apply(batch("b1", {fox("old")}));
  index();
  const std::shared_ptr<Ticket> searchable =
      collection_->apply(batch("b2", {fox("new")}, {"old"})).ticket;
  EXPECT_THAT(found("fox"), ElementsAre("old"));
  EXPECT_FALSE(searchable->isDone());
  index();
  EXPECT_TRUE(searchable->isDone());
  EXPECT_THAT(found("fox"), ElementsAre("new"));
}

/// Batches of which the index leaves documents out, for want of memory for their words.
class LeftOutOfBatchTest : public BatchStepsTest {
 protected:
  LeftOutOfBatchTest() {
    for (unsigned i = 0; i < 40000; ++i) tooMany_ += std::to_string(i * 2654435761U) + ' ';
    limits_.index.memory = memory_;
    open(kImmediate);
  }
  ~LeftOutOfBatchTest() override { collection_.reset(); }

  Document bad(const std::string& key) const { return fox(key, tooMany_); }

  std::shared_ptr<Ticket> send(const std::string& name, Documents documents, Keys deletions = {}) {
    return collection_->apply(batch(name, std::move(documents), std::move(deletions))).ticket;
  }
  std::shared_ptr<Ticket> send(const std::string& name = "b1") {
    return send(name, {fox("good"), bad("bad")});
  }

  /// What the client hears; empty: that all is searchable.
  static std::string saidTo(const std::shared_ptr<Ticket>& ticket) {
    EXPECT_TRUE(ticket->isDone());
    try {
      ticket->requireSuccess();
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::DocumentsNotIndexed);
      return error.what();
    }
    return {};
  }

  std::string saidAtOnce(const std::shared_ptr<Ticket>& ticket) {
    index();
    return saidTo(ticket);
  }

  void openOverdue() {
    reopen();
    EXPECT_TRUE(collection_->takeOverdue());
    index();
  }

  const std::shared_ptr<MemoryBudget> memory_ =
      std::make_shared<MemoryBudget>(std::size_t{16} << 20U);
  std::string tooMany_;
};

TEST_F(LeftOutOfBatchTest, IsSaidOnceMoreHoweverOftenItIsSent) {
  const auto first = send();
  const auto meanwhile = send();
  index();
  const std::string said = saidTo(first);
  EXPECT_THAT(said, HasSubstr("1 document left out, all others are searchable: \"bad\""));
  EXPECT_EQ(saidTo(meanwhile), said);
  EXPECT_EQ(saidTo(send()), said);
  update();
  EXPECT_EQ(saidTo(send()), said);
  EXPECT_THAT(found("fox"), ElementsAre("good"));
}

TEST_F(LeftOutOfBatchTest, IsSaidWhereOtherChangesWait) {
  const std::string said = saidAtOnce(send());
  const auto other = collection_->add(fox("other"));
  const auto again = send();
  EXPECT_FALSE(again->isDone());
  index();
  EXPECT_EQ(saidTo(again), said);
  EXPECT_EQ(saidTo(other), "");
}

// The repetition waits for a job that has nothing to do for it: in a round the journal has nothing
// new, and after an update it is empty.
TEST_F(LeftOutOfBatchTest, IsSaidToARepetitionThatComesWhileTheIndexIsBroughtUpToDate) {
  limits_.index.batchChanges = 1;
  reopen();
  for (const bool byUpdate : {false, true}) {
    const std::string name = byUpdate ? "b2" : "b1";
    const Documents documents{fox("1"), bad("2"), fox("3"), fox("4"), fox("5")};
    const auto first = send(name, documents);
    if (byUpdate) collection_->requestUpdate();
    ASSERT_TRUE(collection_->indexStep());
    ASSERT_FALSE(first->isDone());
    const auto again = send(name, documents);
    while (!first->isDone()) ASSERT_TRUE(collection_->indexStep());
    ASSERT_FALSE(again->isDone());
    index();
    EXPECT_NE(saidTo(first), "");
    EXPECT_EQ(saidTo(again), saidTo(first));
  }
}

TEST_F(LeftOutOfBatchTest, IsSaidAfterARestartWhetherTheJournalStillHasTheBatchOrNot) {
  const std::string said = saidAtOnce(send());
  openOverdue();
  EXPECT_EQ(saidTo(send()), said);
  update();
  EXPECT_EQ(collection_->summary().pending, 0U);
  reopen();
  EXPECT_FALSE(collection_->takeOverdue()) << "the journal is empty";
  EXPECT_EQ(saidTo(send()), said);
}

TEST_F(LeftOutOfBatchTest, IsSaidWhereACrashCameBeforeAnybodyWasTold) {
  send();
  openOverdue();
  EXPECT_THAT(saidTo(send()), HasSubstr("1 document left out"));
  EXPECT_THAT(found("fox"), ElementsAre("good"));
}

TEST_F(LeftOutOfBatchTest, IsSaidAfterARestartAlthoughTheDocumentIsSearchableMeanwhile) {
  const std::string said = saidAtOnce(send());
  EXPECT_EQ(saidAtOnce(collection_->add(fox("bad"))), "");
  openOverdue();
  EXPECT_EQ(saidTo(send()), said);
}

// One update brings in what several rounds have brought in before.
TEST_F(LeftOutOfBatchTest, IsNeitherMoreNorAnothersAfterARestart) {
  const Documents good{fox("k1")};
  EXPECT_EQ(saidAtOnce(send("good", good)), "");
  const Documents half{bad("j"), fox("k2")};
  const std::string said = saidAtOnce(send("half", half));
  EXPECT_NE(saidAtOnce(collection_->add(bad("k1"))), "");
  EXPECT_NE(saidAtOnce(collection_->add(bad("k2"))), "");
  for (int restarts = 0; restarts < 2; ++restarts) {
    EXPECT_EQ(saidTo(send("good", good)), "");
    EXPECT_EQ(saidTo(send("half", half)), said);
    reopen();
    collection_->takeOverdue();
    index();
    EXPECT_EQ(collection_->batchOutcome("good").leftOut, "");
  }
}

TEST_F(LeftOutOfBatchTest, IsSaidOfEachWhoseOwnDocumentOfAKeyIsLeftOut) {
  const auto replaced = send("b1", {fox("k")});
  const auto worse = send("b2", {fox("other"), bad("k")});
  const auto worst = collection_->add(bad("k"));
  index();
  EXPECT_EQ(saidTo(replaced), "");
  EXPECT_THAT(saidTo(worse), HasSubstr("1 document left out"));
  EXPECT_NE(saidTo(worst), "");
  EXPECT_THAT(found("fox"), ElementsAre("k", "other"));
}

TEST_F(LeftOutOfBatchTest, IsAmongItsOutcome) {
  const auto first = send();
  EXPECT_EQ(collection_->batchOutcome("b1").leftOut, "") << "the index has not had it yet";
  index();
  const BatchOutcome outcome = collection_->batchOutcome("b1");
  EXPECT_EQ(outcome.documents, 2U);
  EXPECT_EQ(outcome.leftOut, saidTo(first));
}

TEST_F(LeftOutOfBatchTest, IsNotSaidOfAnotherBatchThatHasTheSameKey) {
  EXPECT_EQ(saidAtOnce(send("good", {fox("bad")})), "");
  EXPECT_NE(saidAtOnce(send()), "");
  EXPECT_EQ(saidTo(send("good", {fox("bad")})), "");
  EXPECT_EQ(saidAtOnce(send("deletion", {}, {"bad"})), "");
  EXPECT_EQ(saidTo(send("deletion", {}, {"bad"})), "");
}

TEST_F(LeftOutOfBatchTest, IsSaidOfABatchThatIsForgottenWhileItWaits) {
  const auto first = send();
  const auto again = send();
  for (std::size_t i = 0; i < BatchMemory::kBatches; ++i) send("other" + std::to_string(i), {});
  index();
  EXPECT_NE(saidTo(first), "");
  EXPECT_EQ(saidTo(again), saidTo(first));
}

TEST_F(LeftOutOfBatchTest, HidesNoOtherDocumentThatNobodyHasBeenToldOf) {
  const std::string said = saidAtOnce(send());
  collection_->queue(bad("good"), {});
  const auto again = send();
  index();
  EXPECT_EQ(saidTo(again), said);
  EXPECT_THAT(saidAtOnce(collection_->requestUpdate()), HasSubstr("\"good\""));
}

TEST_F(LeftOutOfBatchTest, WhoeverDeletesADocumentIsNotToldThatTheIndexCannotTakeIt) {
  const auto added = collection_->add(bad("k"));
  const auto deleted = collection_->remove("k", false);
  const auto addedAnew = collection_->add(bad("k"));
  index();
  EXPECT_EQ(saidTo(added), "") << "it would be deleted";
  EXPECT_EQ(saidTo(deleted), "");
  EXPECT_NE(saidTo(addedAnew), "");
}

TEST_F(LeftOutOfBatchTest, IsKnownAsAFailureUntilItIsOnDisk) {
  EXPECT_EQ(saidAtOnce(send("b0", {fox("first")})), "");
  // What is no file and not empty cannot be written as one.
  std::filesystem::create_directories(directory_.path() / "batches.new" / "x");
  collection_->queue(fox("queued"), {});
  for (int times = 0; times < 2; ++times) {
    const auto failed = send();
    index();
    test::refusal(ErrorKind::StorageFailed, [&] { failed->requireSuccess(); });
    EXPECT_EQ(collection_->condition(), Collection::Condition::NotUpdated) << times;
  }
  std::filesystem::remove_all(directory_.path() / "batches.new");
  collection_->add(fox("bad"));
  const std::string said = saidAtOnce(send());
  EXPECT_NE(said, "");
  EXPECT_EQ(collection_->condition(), Collection::Condition::Sound);
  openOverdue();
  EXPECT_EQ(saidTo(send()), said);
}

TEST_F(LeftOutOfBatchTest, IsToldByUpdatesAloneWhereChangesWaitForThem) {
  collection_.reset();
  const tq::test::TemporaryDirectory manual;
  Collection::create(manual.path(), {"en", {}}, {});
  collection_.emplace("c", manual.path(), limits_, std::make_shared<ParseOutcomes>(10), stopping_);
  EXPECT_FALSE(send());
  EXPECT_NE(saidAtOnce(collection_->requestUpdate()), "");
  EXPECT_FALSE(send()) << "the first answer was: applied";
  EXPECT_EQ(collection_->batchOutcome("b1").leftOut, "");
  collection_.reset();
}

TEST_F(BatchStepsTest, ManyDeletionsLeaveTheIndexInSmallTransactions) {
  limits_.hiddenKeys = 2;
  limits_.index.batchChanges = 2;
  open();
  const Keys keys{"k1", "k2", "k3", "k4", "k5"};
  Documents documents;
  for (const std::string& key : keys) documents.push_back(fox(key));
  apply(batch("b1", documents));
  update();
  const std::shared_ptr<Ticket> removed = collection_->apply(batch("b2", {}, keys)).ticket;
  ASSERT_TRUE(removed);
  for (const std::uint64_t left : {3U, 1U, 0U}) {
    EXPECT_FALSE(removed->isDone());
    EXPECT_TRUE(collection_->indexStep());
    EXPECT_EQ(collection_->estimate("fox", kExactHits).documents, left);
    EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 0U);
  }
  EXPECT_TRUE(removed->isDone());
  EXPECT_EQ(collection_->state(), CollectionState::ChangesPending);
}

TEST_F(BatchStepsTest, ManyDeletionsAreFilteredNoLongerAfterARestartEither) {
  limits_.hiddenKeys = 2;
  limits_.index.memory = std::make_shared<MemoryBudget>(std::size_t{64} << 20U);
  open();
  apply(batch("b1", {}, {"k1", "k2", "k3"}));
  index();
  reopen();
  const std::size_t filtered = limits_.index.memory->used();
  EXPECT_TRUE(collection_->takeOverdue());
  EXPECT_TRUE(collection_->takeOnIndexing());
  index();
  EXPECT_LT(limits_.index.memory->used(), filtered);
  EXPECT_EQ(collection_->state(), CollectionState::ChangesPending);
}

TEST_F(BatchStepsTest, ChangesGoOnWhileTheJournalIsReadForItsDeletions) {
  open();
  collection_->add(fox("k1"));
  {
    // The update that fails leaves the journal in two parts.
    const test::FileSizeLimit full(8192);
    update();
  }
  collection_->add(fox("k2"));
  std::filesystem::rename(segment(2), directory_.path() / "kept");
  ASSERT_EQ(::mkfifo(segment(2).c_str(), 0600), 0);
  const test::OpeningWatch first(segment(1));
  const Batch deletions = batch("b1", {}, {"k1", "k2", "k3", "never"});
  auto refused = std::async(std::launch::async, [&]() -> std::string {
    try {
      apply(deletions);
      return "applied";
    } catch (const std::exception& error) {
      return error.what();
    }
  });
  ASSERT_TRUE(first.await([&] { return test::isReady(refused); }));
  collection_->add(fox("k3"));
  collection_->remove("k2");
  // With both ends open here the pipe can be opened, and not be read as a file.
  const int ends = ::open(segment(2).c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_THAT(refused.get(), HasSubstr(segment(2).string()));
  ::close(ends);
  std::filesystem::rename(directory_.path() / "kept", segment(2));
  EXPECT_EQ(apply(deletions).unknown, 2U) << "that of k2 and that of a key which never was";
}

}  // namespace
}  // namespace corvaned
