#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <xapian.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/base/memoryBudget.h"
#include "server/store/collection.h"
#include "server/store/collectionOptions.h"
#include "server/store/indexSums.h"
#include "server/store/localStore.h"
#include "tests/server/logLines.h"
#include "tests/server/store/descriptorLimit.h"
#include "tests/server/store/failingSync.h"
#include "tests/server/store/fileSizeLimit.h"
#include "tests/server/store/slowCollection.h"
#include "tests/support/temporaryDirectory.h"

// Changes that become searchable without updateIndex.
namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr Refresh kImmediate{Refresh::Mode::Immediate, {}};

// Longer than a term can be. (The fronts let no such key through.)
const std::string kRefusedKey(300, 'a');

Refresh every(std::chrono::milliseconds time) { return {Refresh::Mode::Interval, time}; }

TEST(CollectionOptions, TextsOfRefreshAreReadAndOthersRefused) {
  EXPECT_EQ(refreshFrom("manual"), Refresh{});
  EXPECT_EQ(refreshFrom("immediate"), kImmediate);
  EXPECT_EQ(refreshFrom("1"), every(std::chrono::milliseconds(1)));
  EXPECT_EQ(refreshFrom("86400000"), every(std::chrono::hours(24)));
  for (const char* text : {"", "0", "-1", "+1", "86400001", "1s", "1 ", " 1", "1.5", "Manual",
                           "IMMEDIATE", "often", "99999999999999999999"}) {
    EXPECT_EQ(refreshFrom(text), std::nullopt) << text;
  }
}

TEST(CollectionOptions, WhatIsWrittenIsReadAndDamageIsNamed) {
  for (const Refresh& refresh : {kImmediate, every(std::chrono::milliseconds(1500))}) {
    const tq::test::TemporaryDirectory directory;
    EXPECT_EQ(readOptions(directory.path()), Refresh{}) << "there is no file";
    writeOptions(directory.path(), refresh);
    EXPECT_EQ(readOptions(directory.path()), refresh);
    const std::string path = optionsPath(directory.path()).string();
    std::string bytes;
    std::getline(std::ifstream(path), bytes, '\0');
    for (std::size_t place = 0; place < bytes.size(); ++place) {
      std::string damaged = bytes;
      damaged[place] = static_cast<char>(damaged[place] ^ 1);
      for (const std::string& content : {damaged, bytes.substr(0, place)}) {
        std::ofstream(path, std::ios::trunc) << content;
        try {
          readOptions(directory.path());
          ADD_FAILURE() << content;
        } catch (const ServerError& error) {
          EXPECT_THAT(error.what(), HasSubstr(path));
        }
      }
    }
  }
}

TEST(CollectionOptions, FileThatCannotBeOpenedIsNotTakenForDamaged) {
  const tq::test::TemporaryDirectory directory;
  writeOptions(directory.path(), kImmediate);
  // Once without a failure: see DescriptorLimit.
  EXPECT_EQ(readOptions(directory.path()), kImmediate);
  std::string refusal;
  {
    const test::DescriptorLimit none(0);
    try {
      readOptions(directory.path());
    } catch (const ServerError& error) {
      refusal = error.what();
    }
  }
  EXPECT_THAT(refusal, AllOf(HasSubstr("cannot read"), Not(HasSubstr("damaged"))));
  EXPECT_EQ(readOptions(directory.path()), kImmediate);
}

class RefreshTest : public ::testing::Test {
 protected:
  RefreshTest() { restart(); }

  void restart() {
    store_.reset();
    store_ = std::make_unique<LocalStore>(directory_.path() / "data", limits_);
  }

  std::uint64_t hits(const std::string& query) { return store_->estimate("c", query).hits; }

  static bool hasChanges(const std::filesystem::path& collection) {
    for (const auto& entry : std::filesystem::directory_iterator(collection)) {
      const std::string name = entry.path().filename();
      std::error_code gone;
      if (!name.starts_with("journal-") || name == "journal-0000000000") continue;
      if (entry.is_regular_file(gone) && entry.file_size(gone) > 0 && !gone) return true;
    }
    return false;
  }

  void awaitHits(std::uint64_t count) {
    while (hits("fox") != count || store_->state("c") != CollectionState::Current) {
      std::this_thread::yield();
    }
  }

  tq::test::TemporaryDirectory directory_;
  StoreLimits limits_;
  std::unique_ptr<LocalStore> store_;
};

TEST_F(RefreshTest, ImmediateChangesAreSearchableWhenTheyAreAcknowledged) {
  store_->createCollection("c", "en", kImmediate);
  for (int round = 0; round < 2; ++round) {
    store_->addDocument("c", {"k1", {}, "red fox"});
    EXPECT_EQ(hits("red"), 1U);
    store_->addDocument("c", {"k1", {}, "grey fox"});
    EXPECT_EQ(hits("red"), 0U);
    EXPECT_EQ(hits("grey"), 1U);
    EXPECT_EQ(store_->state("c"), CollectionState::Current);
    store_->deleteDocument("c", "k1");
    EXPECT_EQ(hits("fox"), 0U);
    EXPECT_EQ(store_->estimate("c", "fox").documents, 0U) << "the index itself has lost it";
    store_->updateIndex("c");
    restart();
  }
  store_->queueDocument("c", {"k2", {}, "fox"});
  awaitHits(1);
}

TEST_F(RefreshTest, ManyClientsFindWhatTheyHaveAdded) {
  store_->createCollection("c", "en", kImmediate);
  std::vector<std::jthread> clients;
  for (int client = 0; client < 4; ++client) {
    clients.emplace_back([&, client] {
      for (int i = 0; i < 25; ++i) {
        const std::string word = "w" + std::to_string(client) + "x" + std::to_string(i);
        store_->addDocument("c", {word, {}, "fox " + word});
        EXPECT_EQ(hits(word), 1U);
        if (i % 5 == 4) {
          store_->deleteDocument("c", word);
          EXPECT_EQ(hits(word), 0U);
        }
      }
    });
  }
  clients.clear();
  EXPECT_EQ(hits("fox"), 80U);
  EXPECT_EQ(store_->state("c"), CollectionState::Current);
  restart();
  EXPECT_EQ(hits("fox"), 80U);
  awaitHits(80);
}

// However soon the index takes a document after it was queued.
TEST_F(RefreshTest, WhatTheIndexLeavesOutIsToldToWhoeverQueuedIt) {
  constexpr std::size_t kEach = 300;
  store_->createCollection("c", "en", kImmediate);
  {
    std::vector<std::jthread> hosts;
    for (const char* name : {"ada", "ben"}) {
      hosts.emplace_back([this, name] {
        for (std::size_t i = 0; i < kEach; ++i) {
          store_->queueDocument("c", {kRefusedKey + name + std::to_string(i), {}, "fox"}, name);
        }
      });
    }
  }
  for (const std::string name : {"ada", "ben"}) {
    std::set<std::string> refused;
    while (refused.size() < kEach) {
      EXPECT_THAT(store_->takeParseOutcomes("c", ""), IsEmpty());
      if (HasFailure()) return;
      for (const ParseOutcome& outcome : store_->takeParseOutcomes("c", name)) {
        EXPECT_THAT(outcome.key, HasSubstr(name));
        if (!outcome.messageId.empty()) refused.insert(outcome.key);
      }
      std::this_thread::yield();
    }
  }
}

TEST_F(RefreshTest, ChangesBecomeSearchableAfterTheInterval) {
  store_->createCollection("c", "en", every(std::chrono::milliseconds(1)));
  for (std::uint64_t i = 1; i <= 20; ++i) {
    store_->addDocument("c", {std::to_string(i), {}, "fox"});
    if (i % 5 == 0) awaitHits(i);
  }
  store_->closeCollection("c");
  store_->deleteDocument("c", "1");
  awaitHits(19);
  EXPECT_EQ(store_->estimate("c", "fox").documents, 19U);
}

TEST_F(RefreshTest, ManyChangesAreNotLeftToTheInterval) {
  limits_.earlyBytes = 1000;
  restart();
  store_->createCollection("c", "en", every(std::chrono::hours(24)));
  store_->addDocument("c", {"small", {}, "hound"});
  EXPECT_EQ(hits("hound"), 0U);
  store_->queueDocument("c", {"large", {}, "fox " + std::string(1000, 'x')});
  awaitHits(1);
  EXPECT_EQ(hits("hound"), 1U);
}

TEST_F(RefreshTest, ChangesThatWaitedAtARestartWaitNoLonger) {
  store_->createCollection("c", "en", every(std::chrono::hours(24)));
  store_->addDocument("c", {"k", {}, "fox"});
  EXPECT_EQ(hits("fox"), 0U);
  restart();
  awaitHits(1);
}

// The change may have been indexed before the collection is closed; then there is another one.
TEST_F(RefreshTest, OpeningACollectionForItHoldsUpNoUpdateOfOthers) {
  limits_.indexThreads = 1;
  restart();
  store_->createCollection("c", "en");
  store_->createCollection("slow", "en", every(std::chrono::milliseconds(100)));
  const std::filesystem::path directory = directory_.path() / "data/collections/slow";
  std::optional<test::SlowCollection> slow;
  for (bool opens = false; !opens;) {
    slow.reset();
    store_->addDocument("slow", {"k", {}, "fox"});
    slow.emplace(directory);
    store_->closeCollection("slow");
    opens = slow->awaitOpening([&] { return !hasChanges(directory); });
  }
  store_->addDocument("c", {"k", {}, "fox"});
  store_->updateIndex("c");
  EXPECT_EQ(hits("fox"), 1U);
}

// Nobody asks for the collection meanwhile. If the change is indexed before it is closed, there is
// another one.
TEST_F(RefreshTest, IsTriedAgainWhenThereIsNoMemoryToOpenTheCollection) {
  store_.reset();
  const test::LogLines log;
  limits_.index.memory = std::make_shared<MemoryBudget>(std::size_t{16} << 20U);
  restart();
  store_->createCollection("c", "en", every(std::chrono::milliseconds(100)));
  const std::filesystem::path directory = directory_.path() / "data/collections/c";
  const std::string line = "failure: action=\"refresh\" collection=\"c\" error=ZVK0016E";
  while (log.with(line).empty()) {
    store_->addDocument("c", {"k", {}, "fox"});
    MemoryBudget::Share rest(*limits_.index.memory);
    rest.force(limits_.index.memory->limit());
    store_->closeCollection("c");
    while (hasChanges(directory) && log.with(line).empty()) std::this_thread::yield();
  }
  while (hasChanges(directory)) std::this_thread::yield();
  EXPECT_EQ(hits("fox"), 1U);
  EXPECT_EQ(log.with(line).size(), 1U);
  store_.reset();
}

// Each waits for one second after its first failure. Another one that has begun later can only be
// tried twice between two attempts of the first if these have become rare.
TEST_F(RefreshTest, CollectionThatHasFailedOftenIsTriedLessOftenThanOthers) {
  store_.reset();
  const test::LogLines log;
  limits_.indexThreads = 1;
  limits_.index.memory = std::make_shared<MemoryBudget>(std::size_t{16} << 20U);
  restart();
  const std::filesystem::path collections = directory_.path() / "data/collections";
  // Attempts at the first come after 1000, 2000, 4000 ms and so on.
  const std::map<std::string, int> milliseconds{
      {"c", 1000}, {"d", 2500}, {"e", 5500}, {"f", 10500}};
  for (const auto& [name, time] : milliseconds) {
    store_->createCollection(name, "en", every(std::chrono::milliseconds(time)));
  }
  MemoryBudget::Share rest(*limits_.index.memory);
  do {
    rest.force(0);
    for (const auto& each : milliseconds) {
      store_->addDocument(each.first, {"k", {}, "fox"});
      store_->closeCollection(each.first);
      while (!store_->isSettled(each.first) || store_->isOpen(each.first)) {
        std::this_thread::yield();
      }
    }
    rest.force(limits_.index.memory->limit());
    while (!store_->isSettled("c")) std::this_thread::yield();
  } while (store_->isOpen("c") || !hasChanges(collections / "c"));
  test::OpeningOrder openings;
  for (const auto& each : milliseconds) {
    openings.add(each.first, optionsPath(collections / each.first));
  }
  constexpr int kMost = 9;
  std::set<std::string> since;
  bool isRarer = false;
  for (int attempts = 0; attempts < kMost && !isRarer;) {
    const std::string name = openings.next();
    if (name == "c") {
      ++attempts;
      since.clear();
    } else {
      isRarer = !since.insert(name).second && attempts > 0;
    }
  }
  EXPECT_TRUE(isRarer);
  EXPECT_EQ(log.with("failure: action=\"refresh\" collection=\"c\" error=ZVK0016E").size(), 1U);
  store_.reset();
}

TEST_F(RefreshTest, OptionOutlivesARestartAndItsDamageIsNamed) {
  store_->createCollection("c", "en", kImmediate);
  restart();
  store_->addDocument("c", {"k", {}, "fox"});
  EXPECT_EQ(hits("fox"), 1U);
  store_.reset();
  const auto path = optionsPath(directory_.path() / "data/collections/c");
  std::ofstream(path) << "refresh = often\n";
  restart();
  try {
    store_->openCollection("c");
    FAIL() << "it is open";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::StorageFailed);
    EXPECT_THAT(error.what(), HasSubstr(path.string()));
  }
}

TEST_F(RefreshTest, DocumentThatTheIndexCannotTakeAtOnceIsKept) {
  store_->createCollection("c", "en", kImmediate);
  {
    const test::FileSizeLimit full(8192);
    EXPECT_THROW(store_->addDocument("c", {"k", {}, "fox"}), ServerError);
  }
  EXPECT_EQ(hits("fox"), 0U);
  EXPECT_EQ(store_->state("c"), CollectionState::ChangesPending);
  store_->addDocument("c", {"k2", {}, "hound"});
  EXPECT_EQ(hits("fox"), 1U);
  EXPECT_EQ(hits("hound"), 1U);
}

/// A collection without a store, whose work is done when the test says so.
class RefreshStepsTest : public ::testing::Test {
 protected:
  void create(const Refresh& refresh) {
    Collection::create(directory_.path(), {"en", {}}, refresh);
    open();
  }

  void open() {
    collection_.reset();
    collection_.emplace("c", directory_.path(), limits_, std::make_shared<ParseOutcomes>(10),
                        stopping_);
  }

  void index() {
    EXPECT_TRUE(collection_->takeOnIndexing());
    while (collection_->indexStep()) {
    }
  }

  std::uint64_t revision() const {
    return Xapian::Database((directory_.path() / "index").string()).get_revision();
  }

  tq::test::TemporaryDirectory directory_;
  StoreLimits limits_;
  std::atomic<bool> stopping_ = false;
  std::optional<Collection> collection_;
};

TEST_F(RefreshStepsTest, ThoseWhoWaitAtTheSameTimeShareOneTransaction) {
  create(kImmediate);
  std::vector<std::shared_ptr<Ticket>> tickets;
  for (int i = 0; i < 20; ++i) {
    tickets.push_back(collection_->add({"k" + std::to_string(i), {}, "fox"}));
  }
  tickets.push_back(collection_->remove("k0"));
  const std::uint64_t before = revision();
  index();
  EXPECT_EQ(revision(), before + 1);
  for (const auto& ticket : tickets) {
    ASSERT_TRUE(ticket->isDone());
    EXPECT_NO_THROW(ticket->requireSuccess());
  }
  EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 19U);
}

TEST_F(RefreshStepsTest, OnlyWhoeverAddedADocumentThatTheIndexRefusesIsTold) {
  create(kImmediate);
  const auto good = collection_->add({"k1", {}, "fox"});
  const auto bad = collection_->add({kRefusedKey, {}, "fox"});
  index();
  EXPECT_NO_THROW(good->requireSuccess());
  EXPECT_THROW(bad->requireSuccess(), ServerError);
  EXPECT_EQ(collection_->takeOutcomes().size(), 1U);
  EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 1U);
}

Batch batchOf(const std::string& name, std::vector<Document> documents) {
  Batch batch;
  batch.name = name;
  batch.changes.documents = std::move(documents);
  return batch;
}

TEST_F(RefreshStepsTest, WhoeverSentABatchOfWhichTheIndexRefusesADocumentIsTold) {
  create(kImmediate);
  const Document good{"k1", {}, "fox"}, refused{kRefusedKey, {}, "fox"};
  const auto whole = collection_->apply(batchOf("b1", {good})).ticket;
  const auto rest = collection_->apply(batchOf("b2", {{"k2", {}, "fox"}, refused})).ticket;
  index();
  EXPECT_NO_THROW(whole->requireSuccess());
  try {
    rest->requireSuccess();
    ADD_FAILURE() << "not refused";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::DocumentsNotIndexed);
    EXPECT_THAT(error.what(), HasSubstr("1 document left out"));
  }
  EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 2U);
  EXPECT_NO_THROW(collection_->requestUpdate()->requireSuccess()) << "whoever waited has been told";
}

// It is in the journal before the update is at its end.
TEST_F(RefreshStepsTest, WhoeverComesWhileAnUpdateBeginsIsToldOfARefusal) {
  create(kImmediate);
  const Document refused{kRefusedKey, {}, "fox"};
  const std::vector<std::function<std::shared_ptr<Ticket>()>> changes{
      [&] { return collection_->add(refused); },
      [&] { return collection_->apply(batchOf("b", {refused})).ticket; }};
  for (const auto& change : changes) {
    const auto before = collection_->add({"k1", {}, "fox"});
    collection_->requestUpdate();
    std::shared_ptr<Ticket> ticket;
    std::thread indexer;
    {
      const std::uint64_t segment = collection_->journalExtent().segments.back().number;
      const test::SlowSync slow(fmt::format("journal-{:010}", segment));
      indexer = std::thread([&] { index(); });
      slow.await();
      ticket = change();
    }
    indexer.join();
    EXPECT_NO_THROW(before->requireSuccess());
    ASSERT_TRUE(ticket && ticket->isDone());
    EXPECT_THROW(ticket->requireSuccess(), ServerError);
  }
}

TEST_F(RefreshStepsTest, UpdateNamesWhatWasLeftOutAsSoonAsAnybodyIsTold) {
  create(kImmediate);
  collection_->queue({kRefusedKey, {}, "fox"}, "ada");
  const auto bad = collection_->add({'b' + kRefusedKey, {}, "fox"});
  std::shared_ptr<Ticket> update;
  bad->whenDone([&] { update = collection_->requestUpdate(); });
  index();
  ASSERT_TRUE(update && update->isDone());
  EXPECT_THROW(update->requireSuccess(), ServerError);
}

// Whoever asked for it gets it, and the front writes that to the log.
TEST_F(RefreshStepsTest, RefusalThatIsTheReplyToAnUpdateIsNoLineOfTheLog) {
  create(every(std::chrono::hours(1)));
  const test::LogLines log;
  collection_->queue({kRefusedKey, {}, "fox"}, "ada");
  const auto update = collection_->requestUpdate();
  index();
  EXPECT_THROW(update->requireSuccess(), ServerError);
  EXPECT_TRUE(log.with("action=\"refresh\"").empty());
}

TEST_F(RefreshStepsTest, RefusalThatNobodyWaitsForIsALineOfTheLog) {
  for (const Refresh& refresh : {kImmediate, every(std::chrono::milliseconds(1)), Refresh{}}) {
    const tq::test::TemporaryDirectory directory;
    const test::LogLines log;
    Collection::create(directory.path(), {"en", {}}, refresh);
    collection_.emplace("c", directory.path(), limits_, std::make_shared<ParseOutcomes>(10),
                        stopping_);
    collection_->queue({kRefusedKey, {}, "fox"}, "ada");
    if (refresh.mode == Refresh::Mode::Interval) collection_->refresh();
    if (refresh.mode == Refresh::Mode::Manual) collection_->requestUpdate();
    index();
    const auto lines =
        log.with("error failure: action=\"refresh\" collection=\"c\" error=ZVK0015E");
    EXPECT_EQ(lines.size(), refresh.mode == Refresh::Mode::Manual ? 0U : 1U);
    for (const std::string& line : lines) EXPECT_THAT(line, HasSubstr("1 document left out"));
    collection_.reset();
  }
}

TEST_F(RefreshStepsTest, UpdateSaysWhatWasLeftOutWhileNobodyWaited) {
  create(kImmediate);
  const auto update = [&] { collection_->requestUpdate()->requireSuccess(); };
  collection_->queue({kRefusedKey, {}, "fox"}, "ada");
  index();
  collection_->queue({"k", {}, "fox"}, "ben");
  index();
  EXPECT_THROW(update(), ServerError);
  ASSERT_TRUE(collection_->takeRest());
  collection_->rest();
  index();
  EXPECT_THROW(update(), ServerError) << "the index was only brought to rest";
  EXPECT_EQ(collection_->takeOutcomes("ada").size(), 2U);
  EXPECT_NO_THROW(update());
}

TEST_F(RefreshStepsTest, UpdateThatFollowsOneThatNobodyWaitedForSaysWhatThatLeftOut) {
  create(every(std::chrono::hours(1)));
  collection_->queue({kRefusedKey, {}, "fox"}, "ada");
  collection_->refresh();
  index();
  collection_->add({"k1", {}, "fox"});
  auto ticket = collection_->requestUpdate();
  index();
  EXPECT_THROW(ticket->requireSuccess(), ServerError);
  collection_->add({"k2", {}, "fox"});
  ticket = collection_->requestUpdate();
  index();
  EXPECT_NO_THROW(ticket->requireSuccess()) << "it was said";
}

TEST_F(RefreshStepsTest, RefusalOfADocumentGoesToNobodyWhoQueuedItBeforeUnderAName) {
  create({});
  const Document bad{kRefusedKey, {}, "fox"};
  const std::vector<std::function<void()>> replacements{
      [&] { collection_->queue(bad); }, [&] { collection_->add(bad); },
      [&] { collection_->apply(batchOf("b1", {bad})); }};
  for (const auto& replace : replacements) {
    collection_->queue(bad, "ada");
    replace();
    collection_->takeOutcomes();
    EXPECT_EQ(collection_->takeOutcomes("ada").size(), 1U);
    collection_->requestUpdate();
    index();
    EXPECT_EQ(collection_->takeOutcomes("ada").size(), 0U);
    EXPECT_EQ(collection_->takeOutcomes().size(), 1U);
  }
}

// Nobody waits for a queued document, and perhaps nobody reads the log.
TEST_F(RefreshStepsTest, WhoeverQueuedADocumentIsToldOnceThatItIsNotSearchableYet) {
  create(kImmediate);
  const auto fail = [&] {
    const test::FileSizeLimit full(8192);
    index();
  };
  const auto told = [&](const std::string& client) {
    std::vector<std::string> list;
    for (const ParseOutcome& outcome : collection_->takeOutcomes(client)) {
      list.push_back(outcome.key + " " + outcome.messageId);
    }
    return list;
  };
  collection_->queue({"k1", {}, "fox"}, "ada");
  collection_->queue({"k2", {}, "fox"});
  collection_->queue({"k3", {}, "fox"}, "ada");
  const auto waits = collection_->add({"k4", {}, "fox"});
  fail();
  EXPECT_THROW(waits->requireSuccess(), ServerError);
  EXPECT_THAT(told("ada"), ElementsAre("k1 ", "k3 ", "k1 ZVK0014E", "k3 ZVK0014E"));
  EXPECT_THAT(told(""), ElementsAre("k2 ", "k2 ZVK0014E"));
  collection_->queue({"k5", {}, "fox"}, "ada");
  fail();
  EXPECT_THAT(told("ada"), ElementsAre("k5 ", "k5 ZVK0014E"));
  EXPECT_THAT(told(""), ElementsAre());
  collection_->queue({"k6", {}, "fox"}, "ada");
  index();
  EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 6U);
  EXPECT_THAT(told("ada"), ElementsAre("k6 "));
  EXPECT_THAT(told(""), ElementsAre());
}

TEST_F(RefreshStepsTest, RoundThatCannotBeginIsToldToWhoeverQueuedADocument) {
  create(kImmediate);
  const std::filesystem::path table = directory_.path() / "index" / "postlist.glass";
  const std::uintmax_t size = std::filesystem::file_size(table);
  std::filesystem::resize_file(table, size + 1);
  collection_->queue({"k1", {}, "fox"});
  index();
  const std::vector<ParseOutcome> outcomes = collection_->takeOutcomes();
  ASSERT_EQ(outcomes.size(), 2U);
  EXPECT_EQ(outcomes[1].key, "k1");
  EXPECT_THAT(outcomes[1].messageText,
              AllOf(HasSubstr("the document is kept"), HasSubstr("postlist.glass")));
}

TEST_F(RefreshStepsTest, StateTellsThatQueuedDocumentsAreNotSearchable) {
  create(kImmediate);
  const auto failureOfState = [&]() -> std::optional<ErrorKind> {
    try {
      collection_->state();
    } catch (const ServerError& error) {
      EXPECT_THAT(error.what(), HasSubstr("the last attempt to make them searchable failed"));
      return error.kind();
    }
    return std::nullopt;
  };
  const auto fail = [&] {
    const test::FileSizeLimit full(8192);
    index();
  };
  collection_->add({"k0", {}, "fox"});
  fail();
  EXPECT_EQ(failureOfState(), std::nullopt) << "whoever added it waits, and has been told";
  collection_->add({"k0", {}, "fox"});
  collection_->queue({"k1", {}, "fox"});
  EXPECT_EQ(failureOfState(), std::nullopt);
  fail();
  EXPECT_EQ(failureOfState(), ErrorKind::StorageFailed);
  collection_->add({"k0", {}, "fox"});
  fail();
  EXPECT_EQ(failureOfState(), ErrorKind::StorageFailed) << "it waits still";
  open();
  EXPECT_TRUE(collection_->takeOverdue());
  fail();
  EXPECT_EQ(failureOfState(), ErrorKind::StorageFailed) << "it has waited since before";
  collection_->queue({"k2", {}, "fox"});
  index();
  EXPECT_EQ(collection_->state(), CollectionState::Current);
  // Nothing has that tried again before the next change.
  collection_->queue({"k3", {}, "fox"});
  ASSERT_TRUE(collection_->takeOnIndexing());
  collection_->giveUpIndexing();
  EXPECT_EQ(failureOfState(), ErrorKind::OutOfMemory);
  EXPECT_EQ(collection_->condition(), Collection::Condition::NotUpdated);
  collection_->queue({"k4", {}, "fox"});
  index();
  EXPECT_EQ(collection_->state(), CollectionState::Current);
  EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 5U);
}

TEST_F(RefreshStepsTest, IndexIsBroughtToRestOnceAfterManyChanges) {
  create(kImmediate);
  const auto segment = [&](int number) {
    return std::filesystem::exists(directory_.path() /
                                   ("journal-000000000" + std::to_string(number)));
  };
  for (int i = 0; i < 3; ++i) {
    collection_->add({"k" + std::to_string(i), {}, "fox"});
    index();
    EXPECT_EQ(collection_->takeRest(), i == 0) << "somebody is going to do it";
  }
  EXPECT_TRUE(std::filesystem::exists(IndexSums::changingPathIn(directory_.path())));
  EXPECT_TRUE(segment(1));
  collection_->rest();
  index();
  EXPECT_TRUE(std::filesystem::exists(IndexSums::pathIn(directory_.path())));
  EXPECT_FALSE(segment(1));
  EXPECT_FALSE(collection_->takeRest());
  EXPECT_EQ(collection_->state(), CollectionState::Current);
  open();
  EXPECT_EQ(collection_->state(), CollectionState::Current);
  EXPECT_FALSE(collection_->takeOverdue());
}

TEST_F(RefreshStepsTest, WhatWasNotBroughtToRestIsDoneAgainAndIsTheSame) {
  create(kImmediate);
  for (const char* text : {"red fox", "grey fox"}) {
    collection_->add({"k1", {}, text});
    index();
  }
  collection_->add({"k2", {}, "hound"});
  index();
  collection_->remove("k2");
  index();
  collection_->add({"k2", {}, "bird"});
  index();
  open();
  EXPECT_EQ(collection_->estimate("bird", kExactHits).hits, 1U)
      << "its earlier deletion means nothing";
  EXPECT_TRUE(collection_->takeOverdue());
  EXPECT_FALSE(collection_->takeOverdue());
  index();
  EXPECT_EQ(collection_->estimate("grey", kExactHits).hits, 1U);
  EXPECT_EQ(collection_->estimate("red OR hound", kExactHits).hits, 0U);
  EXPECT_EQ(collection_->estimate("bird", kExactHits).hits, 1U);
  EXPECT_EQ(collection_->estimate("fox", kExactHits).documents, 2U);
}

TEST_F(RefreshStepsTest, LongJournalOfSingleChangesIsCutOff) {
  limits_.earlyBytes = 2000;
  create(kImmediate);
  std::uintmax_t largest = 0;
  for (int i = 0; i < 50; ++i) {
    collection_->add({"k" + std::to_string(i), {}, "fox " + std::string(200, 'x')});
    index();
    std::uintmax_t bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
      if (entry.path().filename().string().starts_with("journal-")) bytes += entry.file_size();
    }
    largest = std::max(largest, bytes);
  }
  EXPECT_LT(largest, 5000U);
  EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 50U);
}

TEST_F(RefreshStepsTest, NothingIsIndexedEarlyThatIsToBeSearchableOnRequestOnly) {
  limits_.earlyBytes = 100;
  create({});
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(collection_->add({"k" + std::to_string(i), {}, "fox " + std::string(100, 'x')}),
              nullptr);
  }
  EXPECT_FALSE(collection_->takeOnIndexing());
  EXPECT_EQ(collection_->takeRefreshTime(), std::nullopt);
  open();
  EXPECT_FALSE(collection_->takeOverdue());
}

TEST_F(RefreshStepsTest, IntervalBeginsWithTheFirstChange) {
  create(every(std::chrono::milliseconds(70)));
  EXPECT_EQ(collection_->takeRefreshTime(), std::nullopt);
  collection_->add({"k1", {}, "fox"});
  EXPECT_EQ(collection_->takeRefreshTime(), std::chrono::milliseconds(70));
  collection_->add({"k2", {}, "fox"});
  EXPECT_EQ(collection_->takeRefreshTime(), std::nullopt) << "it is running";
  EXPECT_FALSE(collection_->takeOnIndexing());
  collection_->refresh();
  index();
  EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 2U);
  collection_->remove("k1");
  EXPECT_EQ(collection_->takeRefreshTime(), std::chrono::milliseconds(70));
}

// Somebody has to put it right, and each attempt reads the index.
TEST_F(RefreshStepsTest, AttemptThatMeetsDamageIsNotRepeatedForAMinute) {
  create(every(std::chrono::milliseconds(70)));
  collection_->add({"k1", {}, "fox"});
  collection_->takeRefreshTime();
  const std::filesystem::path table = directory_.path() / "index" / "postlist.glass";
  const std::uintmax_t size = std::filesystem::file_size(table);
  std::filesystem::resize_file(table, size + 1);
  collection_->refresh();
  index();
  EXPECT_EQ(collection_->takeRefreshTime(), Collection::kRebuildAgainAfter);
  std::filesystem::resize_file(table, size);
  collection_->refresh();
  index();
  collection_->add({"k2", {}, "fox"});
  EXPECT_EQ(collection_->takeRefreshTime(), std::chrono::milliseconds(70));
}

TEST_F(RefreshStepsTest, AttemptsThatFailComeSlowlyAndLeaveNoFilesBehind) {
  create(every(std::chrono::milliseconds(70)));
  collection_->add({"k1", {}, "fox"});
  std::optional<std::chrono::milliseconds> next = collection_->takeRefreshTime();
  const auto segments = [&] {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
      if (entry.path().filename().string().starts_with("journal-")) ++count;
    }
    return count;
  };
  for (int attempt = 0; attempt < 5; ++attempt) {
    {
      const test::FileSizeLimit full(8192);
      collection_->refresh();
      index();
    }
    next = collection_->takeRefreshTime();
    EXPECT_EQ(next, Collection::kRetryAfter);
    EXPECT_EQ(segments(), 3) << "the mark, a closed segment and an empty one";
    EXPECT_EQ(collection_->condition(), Collection::Condition::NotUpdated);
    try {
      collection_->state();
      ADD_FAILURE() << "nobody is told";
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::StorageFailed);
      EXPECT_THAT(error.what(), HasSubstr("the last attempt to make them searchable failed"));
    }
  }
  collection_->add({"k2", {}, "fox"});
  collection_->refresh();
  index();
  EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 2U);
  EXPECT_EQ(segments(), 2);
  EXPECT_EQ(collection_->state(), CollectionState::Current);
  EXPECT_EQ(collection_->condition(), Collection::Condition::Sound);
  collection_->add({"k3", {}, "fox"});
  EXPECT_EQ(collection_->takeRefreshTime(), std::chrono::milliseconds(70));
}

TEST_F(RefreshStepsTest,
       TimerOfACollectionThatHadItsNameBringsNothingIntoOneThatIsUpdatedOnRequest) {
  create({});
  collection_->add({"k1", {}, "fox"});
  collection_->refresh();
  EXPECT_FALSE(collection_->takeOnIndexing());
  EXPECT_EQ(collection_->estimate("fox", kExactHits).hits, 0U);
}

TEST_F(RefreshStepsTest, OnlyWhatIsInTheJournalIsToBeRefreshed) {
  create(every(std::chrono::milliseconds(70)));
  {
    const test::FileSizeLimit full(1);
    EXPECT_THROW(collection_->add({"k1", {}, "fox"}), ServerError);
  }
  EXPECT_EQ(collection_->takeRefreshTime(), std::nullopt);
}

}  // namespace
}  // namespace corvaned
