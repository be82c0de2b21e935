#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <iterator>
#include <optional>
#include <set>
#include <thread>

#include "server/base/errors.h"
#include "server/store/localStore.h"
#include "tests/server/logLines.h"
#include "tests/server/store/descriptorLimit.h"
#include "tests/server/store/failingSync.h"
#include "tests/server/store/fileSizeLimit.h"
#include "tests/server/store/refusal.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using test::refusal;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

// Longer than a term can be. (The fronts let no such key through.)
const std::string kRefusedKey(300, 'a');

class LocalStoreTest : public ::testing::Test {
 protected:
  LocalStoreTest() { restart(); }

  void restart() {
    store_.reset();
    store_ = std::make_unique<LocalStore>(directory_.path() / "data", limits_);
  }

  void add(const std::string& key, const std::string& text) {
    store_->addDocument("c", {key, {{"title", "about " + key}}, text});
  }

  void addSearchable(const std::string& key, const std::string& text) {
    add(key, text);
    store_->updateIndex("c");
  }

  std::vector<Hit> hits(SearchQuery query) {
    const auto source = store_->search("c", query);
    std::vector<Hit> list;
    for (Hit hit; source->next(hit);) list.push_back(hit);
    return list;
  }

  std::vector<std::string> keys(const std::string& text) {
    SearchQuery query;
    query.text = text;
    std::vector<std::string> list;
    for (const Hit& hit : hits(query)) list.push_back(hit.key);
    return list;
  }

  tq::test::TemporaryDirectory directory_;
  StoreLimits limits_;
  std::unique_ptr<LocalStore> store_;
};

TEST_F(LocalStoreTest, DocumentsAreFoundAfterUpdateIndexAndNotBefore) {
  store_->createCollection("c", "en");
  add("k1", "the quick brown fox");
  EXPECT_THAT(keys("fox"), IsEmpty());
  EXPECT_EQ(store_->state("c"), CollectionState::ChangesPending);
  store_->updateIndex("c");
  EXPECT_THAT(keys("fox"), ElementsAre("k1"));
  EXPECT_EQ(store_->state("c"), CollectionState::Current);
}

TEST_F(LocalStoreTest, DocumentWithTheSameKeyIsReplaced) {
  store_->createCollection("c", "en");
  addSearchable("k1", "fox");
  addSearchable("k1", "hound");
  EXPECT_THAT(keys("fox"), IsEmpty());
  EXPECT_THAT(keys("hound"), ElementsAre("k1"));
}

TEST_F(LocalStoreTest, OnlyTheLastOfManyPendingChangesCounts) {
  store_->createCollection("c", "en");
  for (int i = 0; i < 10; ++i) add("k1", "version" + std::to_string(i));
  add("k2", "gone");
  store_->deleteDocument("c", "k2");
  store_->updateIndex("c");
  EXPECT_THAT(keys("version9"), ElementsAre("k1"));
  EXPECT_THAT(keys("version8"), IsEmpty());
  EXPECT_THAT(keys("gone"), IsEmpty());
}

TEST_F(LocalStoreTest, DeletedDocumentIsNotFoundByTheNextSearch) {
  store_->createCollection("c", "en");
  add("k1", "fox");
  addSearchable("k2", "fox");
  store_->deleteDocument("c", "k1");
  EXPECT_THAT(keys("fox"), ElementsAre("k2"));
  EXPECT_EQ(store_->estimate("c", "fox").hits, 1U);
  store_->updateIndex("c");
  EXPECT_THAT(keys("fox"), ElementsAre("k2"));
}

TEST_F(LocalStoreTest, DeletedDocumentStaysDeletedAfterARestart) {
  store_->createCollection("c", "en");
  addSearchable("k1", "fox");
  store_->deleteDocument("c", "k1");
  restart();
  EXPECT_THAT(keys("fox"), IsEmpty());
}

TEST_F(LocalStoreTest, DocumentAddedAgainAfterItsDeletionIsFound) {
  store_->createCollection("c", "en");
  addSearchable("k1", "fox");
  store_->deleteDocument("c", "k1");
  addSearchable("k1", "fox");
  EXPECT_THAT(keys("fox"), ElementsAre("k1"));
}

TEST_F(LocalStoreTest, DeletingAnUnknownKeySucceeds) {
  store_->createCollection("c", "en");
  EXPECT_NO_THROW(store_->deleteDocument("c", "nobody"));
}

TEST_F(LocalStoreTest, ManyDeletionsReachTheIndexOnTheirOwn) {
  limits_.hiddenKeys = 5;
  restart();
  store_->createCollection("c", "en");
  for (int i = 0; i < 20; ++i) add("k" + std::to_string(i), "fox");
  store_->updateIndex("c");
  for (int i = 0; i < 19; ++i) store_->deleteDocument("c", "k" + std::to_string(i));
  EXPECT_THAT(keys("fox"), ElementsAre("k19"));
  EXPECT_LE(store_->estimate("c", "fox").documents, 7U);
}

TEST_F(LocalStoreTest, AcceptedDocumentsOutliveARestartUnsearchable) {
  store_->createCollection("c", "en");
  add("k1", "fox");
  restart();
  EXPECT_EQ(store_->state("c"), CollectionState::ChangesPending);
  EXPECT_THAT(keys("fox"), IsEmpty());
  store_->updateIndex("c");
  EXPECT_THAT(keys("fox"), ElementsAre("k1"));
}

TEST_F(LocalStoreTest, HitsComeByScoreThenByKey) {
  store_->createCollection("c", "en");
  for (const char* key : {"b", "a", "c"}) add(key, "fox hound");
  add("best", "fox fox fox");
  store_->updateIndex("c");
  EXPECT_THAT(keys("fox"), ElementsAre("best", "a", "b", "c"));
}

TEST_F(LocalStoreTest, BestHitHasScoreOneAndNoneHasMore) {
  store_->createCollection("c", "en");
  for (int i = 1; i < 30; ++i) {
    std::string text = "fox";
    for (int j = 0; j < i; ++j) text += " word" + std::to_string(j);
    add("k" + std::to_string(i), text);
  }
  store_->updateIndex("c");
  SearchQuery query;
  query.text = "fox";
  const std::vector<Hit> list = hits(query);
  ASSERT_EQ(list.size(), 29U);
  EXPECT_EQ(list.front().milliScore, 1000);
  for (std::size_t i = 1; i < list.size(); ++i) {
    EXPECT_LE(list[i].milliScore, list[i - 1].milliScore);
  }
  EXPECT_LT(list.back().milliScore, 1000);
}

TEST_F(LocalStoreTest, RawScoresAreTheEnginesWeights) {
  store_->createCollection("c", "en");
  add("k1", "rare");
  for (int i = 0; i < 200; ++i) add("other" + std::to_string(i), "common");
  store_->updateIndex("c");
  SearchQuery query;
  query.text = "rare";
  query.scale = ScoreScale::Raw;
  ASSERT_EQ(hits(query).size(), 1U);
  EXPECT_GT(hits(query).front().milliScore, 1500);
}

TEST_F(LocalStoreTest, PagesAreCutOutOfOneSequence) {
  store_->createCollection("c", "en");
  for (std::size_t i = 10; i < 40; ++i) {
    add("k" + std::to_string(i), "fox " + std::string(i % 7, 'x'));
  }
  store_->updateIndex("c");
  SearchQuery query;
  query.text = "fox";
  const std::vector<Hit> all = hits(query);
  ASSERT_EQ(all.size(), 30U);
  std::vector<std::string> paged;
  for (query.start = 0; query.start < 35; query.start += 7) {
    query.size = 7;
    for (const Hit& hit : hits(query)) {
      EXPECT_EQ(hit.milliScore, all[paged.size()].milliScore);
      paged.push_back(hit.key);
    }
  }
  ASSERT_EQ(paged.size(), 30U);
  for (std::size_t i = 0; i < 30; ++i) EXPECT_EQ(paged[i], all[i].key);
}

TEST_F(LocalStoreTest, LimitCutsTheResultBeforeThePage) {
  store_->createCollection("c", "en");
  for (int i = 10; i < 20; ++i) add("k" + std::to_string(i), "fox");
  store_->updateIndex("c");
  SearchQuery query;
  query.text = "fox";
  query.limit = 5;
  EXPECT_EQ(hits(query).size(), 5U);
  query.start = 3;
  EXPECT_EQ(hits(query).size(), 2U);
  query.start = 5;
  EXPECT_EQ(hits(query).size(), 0U);
  query = {};
  query.text = "fox";
  query.size = 0;
  EXPECT_EQ(hits(query).size(), 0U);
  query.start = query.size = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(hits(query).size(), 0U);
  query.start = 9;
  EXPECT_EQ(hits(query).size(), 1U);
}

TEST_F(LocalStoreTest, WordsOfAQueryMustAllOccurUnlessItSaysOtherwise) {
  store_->createCollection("c", "en");
  add("both", "red fox");
  add("red", "red hen");
  addSearchable("fox", "grey fox");
  EXPECT_THAT(keys("red fox"), ElementsAre("both"));
  EXPECT_THAT(keys("red OR fox"), UnorderedElementsAre("both", "red", "fox"));
  EXPECT_THAT(keys("fox NOT red"), ElementsAre("fox"));
  EXPECT_THAT(keys("NOT red"), ElementsAre("fox"));
  EXPECT_THAT(keys("\"grey fox\""), ElementsAre("fox"));
  EXPECT_THAT(keys("gre*"), ElementsAre("fox"));
}

TEST_F(LocalStoreTest, WordsAreStemmedForTheCollectionsLanguage) {
  store_->createCollection("c", "en_US");
  addSearchable("k1", "jumping foxes");
  EXPECT_THAT(keys("jumps fox"), ElementsAre("k1"));
  store_->createCollection("de", "de");
  store_->addDocument("de", {"k1", {}, "die Häuser"});
  store_->updateIndex("de");
  EXPECT_EQ(store_->estimate("de", "Haus").hits, 1U);
  store_->createCollection("tlh", "tlh");
  store_->addDocument("tlh", {"k1", {}, "foxes"});
  store_->updateIndex("tlh");
  EXPECT_EQ(store_->estimate("tlh", "fox").hits, 0U);
}

TEST_F(LocalStoreTest, CapitalsOfAQueryMeanNothingBeyondItsOperators) {
  store_->createCollection("c", "en");
  store_->addDocument("c", {"k1", {{"Title", "Hounds"}}, "red foxes"});
  store_->addDocument("c", {"k2", {}, "grey foxes"});
  store_->updateIndex("c");
  EXPECT_THAT(keys("Fox Red"), ElementsAre("k1"));
  EXPECT_THAT(keys("(FOXES) NOT Red"), ElementsAre("k2"));
  EXPECT_THAT(keys("FOXES -RED"), ElementsAre("k2"));
  EXPECT_THAT(keys("Title:HOUND"), ElementsAre("k1"));
  EXPECT_THAT(keys("Red NEAR/2 Foxes"), ElementsAre("k1"));
  EXPECT_THAT(keys("\"Grey Foxes\""), ElementsAre("k2"));
}

TEST_F(LocalStoreTest, WaysToWriteAWordAreOne) {
  store_->createCollection("c", "en");
  addSearchable("k1", "cafe\xCC\x81 \xEF\xBC\xA6\xEF\xBC\xAF\xEF\xBC\xB8");
  EXPECT_THAT(keys("caf\xC3\xA9"), ElementsAre("k1"));
  EXPECT_THAT(keys("fox"), ElementsAre("k1"));
}

TEST_F(LocalStoreTest, TextWithoutBlanksBetweenWordsIsFound) {
  store_->createCollection("c", "en");
  addSearchable("k1", "全文検索サーバは文書を索引付けし、問い合わせに答える計算機の仕組みである");
  EXPECT_THAT(keys("索引"), ElementsAre("k1"));
}

TEST_F(LocalStoreTest, BytesThatAreNoTextDoNoHarm) {
  store_->createCollection("c", "en");
  std::string bytes;
  for (int i = 0; i < 4096; ++i) bytes += static_cast<char>(i * 37 % 256);
  addSearchable("k1", "fox " + bytes + std::string(" \0 hound", 8));
  EXPECT_THAT(keys("fox"), ElementsAre("k1"));
  EXPECT_THAT(keys("hound"), ElementsAre("k1"));
}

TEST_F(LocalStoreTest, MetadataIsSearchedByItsName) {
  store_->createCollection("c", "en");
  store_->addDocument("c", {"k1", {{"author", "Fox"}, {"Indexable:title", "Hounds"}}, "text"});
  store_->addDocument("c", {"k2", {{"author", "Hound"}}, ""});
  store_->updateIndex("c");
  EXPECT_THAT(keys("author:fox"), ElementsAre("k1"));
  EXPECT_THAT(keys("author:hound"), ElementsAre("k2"));
  EXPECT_THAT(keys("title:hound"), ElementsAre("k1"));
  EXPECT_THAT(keys("fox"), IsEmpty());
}

TEST_F(LocalStoreTest, KeysAreAnyBytes) {
  store_->createCollection("c", "en");
  const std::vector<std::string> list{std::string(128, '\0'),
                                      std::string(128, '\xFF'),
                                      std::string("\0", 1),
                                      "Qk",
                                      "a b",
                                      "\xC3\xA4"};
  for (const std::string& key : list) add(key, "fox");
  store_->updateIndex("c");
  std::vector<std::string> expected = list;
  std::sort(expected.begin(), expected.end());
  std::vector<std::string> found = keys("fox");
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, expected);
  for (const std::string& key : list) store_->deleteDocument("c", key);
  EXPECT_THAT(keys("fox"), IsEmpty());
}

TEST_F(LocalStoreTest, CollectionNamesAreAnyText) {
  const std::vector<std::string> names{"..",  ".",
                                       "a/b", "../../etc",
                                       "ä ö", "C",
                                       "c",   "%",
                                       "\n",  std::string("x\0y", 3),
                                       "CON", std::string(240, 'a')};
  for (const std::string& name : names) {
    store_->createCollection(name, "en");
    store_->addDocument(name, {"k", {}, "fox"});
  }
  restart();
  for (const std::string& name : names) {
    store_->updateIndex(name);
    EXPECT_EQ(store_->estimate(name, "fox").hits, 1U) << name;
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory_.path()), {}), 1);
}

TEST_F(LocalStoreTest, NamesThatCannotBeStoredAreRefused) {
  refusal(ErrorKind::BadCollectionName, [&] { store_->createCollection("", "en"); });
  refusal(ErrorKind::BadCollectionName, [&] { store_->createCollection("\xFF", "en"); });
  refusal(ErrorKind::BadCollectionName,
          [&] { store_->createCollection(std::string(241, 'a'), "en"); });
  refusal(ErrorKind::BadCollectionName,
          [&] { store_->createCollection(std::string(81, ' '), "en"); });
}

TEST_F(LocalStoreTest, CollectionIsCreatedOnceAndDeletedOnce) {
  store_->createCollection("c", "en");
  refusal(ErrorKind::CollectionExists, [&] { store_->createCollection("c", "en"); });
  store_->deleteCollection("c");
  refusal(ErrorKind::UnknownCollection, [&] { store_->deleteCollection("c"); });
  refusal(ErrorKind::UnknownCollection, [&] { store_->openCollection("c"); });
  store_->createCollection("c", "en");
  EXPECT_EQ(store_->estimate("c", "NOT x").documents, 0U);
}

TEST_F(LocalStoreTest, NothingWorksOnACollectionThatIsNotThere) {
  const auto unknown = [&](const auto& work) {
    EXPECT_THAT(refusal(ErrorKind::UnknownCollection, work), HasSubstr("\"c\""));
  };
  unknown([&] { store_->openCollection("c"); });
  unknown([&] { store_->closeCollection("c"); });
  unknown([&] { add("k", "x"); });
  unknown([&] { store_->queueDocument("c", {"k", {}, ""}); });
  unknown([&] { store_->deleteDocument("c", "k"); });
  unknown([&] { store_->updateIndex("c"); });
  unknown([&] { store_->takeParseOutcomes("c"); });
  unknown([&] { keys("x"); });
  unknown([&] { store_->estimate("c", "x"); });
  unknown([&] { store_->state("c"); });
}

TEST_F(LocalStoreTest, ClosedCollectionIsOpenedByTheNextRequest) {
  store_->createCollection("c", "en");
  addSearchable("k1", "fox");
  store_->closeCollection("c");
  EXPECT_THAT(keys("fox"), ElementsAre("k1"));
}

TEST_F(LocalStoreTest, QueuedDocumentsAreReportedOnceInOrder) {
  store_->createCollection("c", "en");
  store_->queueDocument("c", {"k1", {}, "fox"});
  store_->reportOutcome("c", {"k2", "ZVK0012E", "bad"});
  store_->queueDocument("c", {"k3", {}, "fox"});
  const std::vector<ParseOutcome> outcomes = store_->takeParseOutcomes("c");
  ASSERT_EQ(outcomes.size(), 3U);
  EXPECT_EQ(outcomes[0].key, "k1");
  EXPECT_EQ(outcomes[0].messageId, "");
  EXPECT_EQ(outcomes[1].messageId, "ZVK0012E");
  EXPECT_EQ(outcomes[2].key, "k3");
  EXPECT_THAT(store_->takeParseOutcomes("c"), IsEmpty());
  store_->updateIndex("c");
  EXPECT_THAT(keys("fox"), ElementsAre("k1", "k3"));
}

TEST_F(LocalStoreTest, OutcomesAreToldWhenTheirDocumentsAreOnDisk) {
  store_->createCollection("c", "en");
  add("k0", "fox");
  const int before = test::syncsSoFar();
  store_->queueDocument("c", {"k1", {}, "fox"});
  store_->queueDocument("c", {"k2", {}, "fox"});
  EXPECT_EQ(test::syncsSoFar(), before) << "queueing must be cheap";
  EXPECT_EQ(store_->takeParseOutcomes("c").size(), 2U);
  EXPECT_EQ(test::syncsSoFar(), before + 1);
  EXPECT_THAT(store_->takeParseOutcomes("c"), IsEmpty());
  EXPECT_EQ(test::syncsSoFar(), before + 1) << "all of them were";
}

// The system does not tell which changes are on disk, so none that are not known to be are told.
TEST_F(LocalStoreTest, OutcomesAreNotToldWhenTheirDocumentsCannotBeBroughtToDisk) {
  store_->createCollection("c", "en");
  store_->queueDocument("c", {"k1", {}, "fox"});
  {
    const test::FailingSync failing;
    refusal(ErrorKind::StorageFailed, [&] { store_->takeParseOutcomes("c"); });
  }
  refusal(ErrorKind::StorageFailed, [&] { store_->takeParseOutcomes("c"); });
}

TEST_F(LocalStoreTest, NobodyWaitsWhileAnUpdateBringsWhatWasQueuedToDisk) {
  store_->createCollection("c", "en");
  store_->queueDocument("c", {"k1", {}, "fox"});
  std::thread update;
  {
    const test::SlowSync slow("journal-0000000001");
    update = std::thread([&] { store_->updateIndex("c"); });
    slow.await();
    EXPECT_EQ(store_->state("c"), CollectionState::ChangesPending);
    store_->queueDocument("c", {"k2", {}, "fox"});
  }
  update.join();
  store_->updateIndex("c");
  EXPECT_THAT(keys("fox"), UnorderedElementsAre("k1", "k2"));
}

// Somebody else may ask for the state meanwhile, or an index may come to rest by itself.
TEST_F(LocalStoreTest, NothingWaitsWhileTheJournalOfAnUpdateIsCutOff) {
  store_->createCollection("c", "en");
  Batch batch;
  batch.name = "b";
  batch.changes.documents.push_back({"k1", {}, "fox"});
  store_->apply("c", std::move(batch));
  std::thread update;
  {
    const test::SlowSync slow("batches.new");
    update = std::thread([&] { store_->updateIndex("c"); });
    slow.await();
    EXPECT_THAT(keys("fox"), ElementsAre("k1"));
    EXPECT_EQ(store_->state("c"), CollectionState::Current);
  }
  update.join();
}

// All that the index has is in a segment that is closed by then.
TEST_F(LocalStoreTest, NothingWaitsWhileTheIndexComesToRest) {
  store_->createCollection("c", "en", {Refresh::Mode::Immediate, {}});
  store_->addDocument("c", {"k1", {}, "fox"});
  std::thread update;
  {
    const test::SlowSync slow("index-sums.new");
    update = std::thread([&] { store_->updateIndex("c"); });
    slow.await();
    EXPECT_EQ(store_->state("c"), CollectionState::Current);
  }
  update.join();
}

TEST_F(LocalStoreTest, CollectionThatCannotBeMadeLeavesNothingBehind) {
  {
    const test::FailingSync failing;
    refusal(ErrorKind::StorageFailed, [&] { store_->createCollection("c", "en"); });
  }
  EXPECT_TRUE(std::filesystem::is_empty(directory_.path() / "data/collections"));
  store_->createCollection("c", "en");
  addSearchable("k", "fox");
  EXPECT_THAT(keys("fox"), ElementsAre("k"));
}

// Deletions that stay in the journal would hide documents that were added later, once the
// collection is opened again.
TEST_F(LocalStoreTest, UpdateThatCouldNotCutTheJournalOffIsDoneWhenItIsCutOff) {
  store_->createCollection("c", "en");
  store_->apply("c", {"b1", {{{"k1", {}, "fox"}}, {}, {}}, {}, false, {}});
  store_->updateIndex("c");
  store_->deleteDocument("c", "k1");
  add("k1", "fox");
  store_->apply("c", {"b2", {{{"k2", {}, "fox"}}, {}, {}}, {}, false, {}});
  // What is no file and not empty cannot be written as one.
  const std::filesystem::path collection = directory_.path() / "data/collections/c";
  std::filesystem::create_directories(collection / "batches.new" / "x");
  for (int times = 0; times < 2; ++times) {
    refusal(ErrorKind::StorageFailed, [&] { store_->updateIndex("c"); });
    EXPECT_THAT(keys("fox"), UnorderedElementsAre("k1", "k2"));
    EXPECT_EQ(store_->state("c"), CollectionState::ChangesPending);
  }
  std::filesystem::remove_all(collection / "batches.new");
  store_->updateIndex("c");
  restart();
  EXPECT_THAT(keys("fox"), UnorderedElementsAre("k1", "k2"));
  EXPECT_EQ(store_->state("c"), CollectionState::Current);
}

TEST_F(LocalStoreTest, SyncThatFailsEndsChangesAndLosesNothingThatWasAcknowledged) {
  store_->createCollection("c", "en");
  store_->createCollection("d", "en");
  addSearchable("k1", "fox");
  add("k2", "fox");
  {
    const test::FailingSync failing;
    refusal(ErrorKind::StorageFailed, [&] { add("k3", "fox"); });
  }
  // The disk has recovered, and what it has lost is still unknown.
  const auto expectRefused = [&](const auto& work) {
    EXPECT_THAT(refusal(ErrorKind::StorageFailed, work), HasSubstr("restart the server"));
  };
  expectRefused([&] { add("k4", "fox"); });
  expectRefused([&] { store_->queueDocument("c", {"k5", {}, "fox"}); });
  expectRefused([&] { store_->deleteDocument("c", "k1"); });
  expectRefused([&] { store_->apply("c", {"b1", {{{"k6", {}, "fox"}}, {}, {}}, {}, false, {}}); });
  expectRefused([&] { store_->state("c"); });
  EXPECT_THAT(keys("fox"), ElementsAre("k1"));
  store_->addDocument("d", {"k", {}, "fox"});
  restart();
  store_->updateIndex("c");
  // The change that was refused may be there, as with any other failure.
  EXPECT_THAT(keys("fox NOT title:k3"), UnorderedElementsAre("k1", "k2"));
  addSearchable("k7", "fox");
  EXPECT_THAT(keys("title:k7"), ElementsAre("k7"));
}

TEST_F(LocalStoreTest, CountsTellWhichCollectionsNeedAnOperator) {
  const auto counts = [&] {
    const CollectionCounts now = store_->counts();
    return std::vector<std::uint64_t>{now.sound, now.refusing, now.notUpdated, now.notOpened};
  };
  EXPECT_THAT(counts(), ElementsAre(0, 0, 0, 0));
  for (const char* name : {"c", "d", "e"}) {
    store_->createCollection(name, "en");
    store_->openCollection(name);
  }
  EXPECT_THAT(counts(), ElementsAre(3, 0, 0, 0));
  {
    const test::FailingSync failing;
    refusal(ErrorKind::StorageFailed, [&] { add("k", "fox"); });
  }
  EXPECT_THAT(counts(), ElementsAre(2, 1, 0, 0));
  store_->closeCollection("d");
  EXPECT_THAT(counts(), ElementsAre(1, 1, 0, 0));
  const std::filesystem::path file = directory_.path() / "data/collections/d/index/iamglass";
  const std::filesystem::path aside = directory_.path() / "aside";
  std::filesystem::rename(file, aside);
  for (int i = 0; i < 2; ++i) {
    refusal(ErrorKind::StorageFailed, [&] { store_->openCollection("d"); });
    EXPECT_THAT(counts(), ElementsAre(1, 1, 0, 1));
  }
  std::filesystem::rename(aside, file);
  store_->openCollection("d");
  EXPECT_THAT(counts(), ElementsAre(2, 1, 0, 0));
  store_->closeCollection("d");
  std::filesystem::remove(file);
  refusal(ErrorKind::StorageFailed, [&] { store_->openCollection("d"); });
  EXPECT_THAT(counts(), ElementsAre(1, 1, 0, 1));
  store_->deleteCollection("d");
  refusal(ErrorKind::UnknownCollection, [&] { store_->openCollection("none"); });
  EXPECT_THAT(counts(), ElementsAre(1, 1, 0, 0));
}

TEST_F(LocalStoreTest, WantOfFileHandlesIsNothingThatIsWrongWithACollection) {
  store_->createCollection("c", "en");
  // Once without a failure: see DescriptorLimit.
  store_->openCollection("c");
  store_->closeCollection("c");
  std::string reason;
  {
    const test::DescriptorLimit none(0);
    reason = refusal(ErrorKind::StorageFailed, [&] { store_->openCollection("c"); });
  }
  EXPECT_THAT(reason, HasSubstr("Too many open files"));
  EXPECT_EQ(store_->counts().notOpened, 0U);
  store_->openCollection("c");
  EXPECT_EQ(store_->counts().sound, 1U);
}

TEST_F(LocalStoreTest, ForgottenOutcomesAreOneLineOfTheLog) {
  const test::LogLines log;
  limits_.outcomes = 3;
  restart();
  store_->createCollection("c", "en");
  for (int i = 0; i < 50; ++i) store_->queueDocument("c", {"k" + std::to_string(i), {}, "fox"});
  EXPECT_THAT(log.with("nobody asks"), ElementsAre(StartsWith("warning collection \"c\"")));
  EXPECT_EQ(store_->takeParseOutcomes("c").size(), 3U);
}

TEST_F(LocalStoreTest, OutcomesOfAClientAreToldToItAlone) {
  store_->createCollection("c", "en");
  store_->queueDocument("c", {"k1", {}, "fox"}, "ada");
  store_->queueDocument("c", {"k2", {}, "fox"});
  store_->reportOutcome("c", {"k3", "ZVK0012E", "bad"}, "ada");
  store_->closeCollection("c");
  EXPECT_EQ(store_->takeParseOutcomes("c").size(), 1U);
  EXPECT_THAT(store_->takeParseOutcomes("c", "ben"), IsEmpty());
  const std::vector<ParseOutcome> outcomes = store_->takeParseOutcomes("c", "ada");
  ASSERT_EQ(outcomes.size(), 2U);
  EXPECT_EQ(outcomes[0].key, "k1");
  EXPECT_EQ(outcomes[1].key, "k3");
  EXPECT_EQ(outcomes[1].messageId, "ZVK0012E");
}

TEST_F(LocalStoreTest, ClientIsToldWhatTheIndexRefusesLater) {
  store_->createCollection("c", "en");
  store_->queueDocument("c", {kRefusedKey, {}, "fox"}, "ada");
  store_->queueDocument("c", {std::string(300, 'b'), {}, "fox"});
  EXPECT_EQ(store_->takeParseOutcomes("c", "ada").size(), 1U);
  EXPECT_EQ(store_->takeParseOutcomes("c").size(), 1U);
  refusal(ErrorKind::DocumentsNotIndexed, [&] { store_->updateIndex("c"); });
  const std::vector<ParseOutcome> outcomes = store_->takeParseOutcomes("c", "ada");
  ASSERT_EQ(outcomes.size(), 1U);
  EXPECT_EQ(outcomes[0].key, kRefusedKey);
  EXPECT_EQ(outcomes[0].messageId, "ZVK0015E");
  EXPECT_EQ(store_->takeParseOutcomes("c").size(), 1U);
}

TEST_F(LocalStoreTest, OldestOutcomesAreForgottenWhenNobodyAsks) {
  limits_.outcomes = 3;
  restart();
  store_->createCollection("c", "en");
  for (int i = 0; i < 5; ++i) store_->queueDocument("c", {std::to_string(i), {}, ""});
  const std::vector<ParseOutcome> outcomes = store_->takeParseOutcomes("c");
  ASSERT_EQ(outcomes.size(), 3U);
  EXPECT_EQ(outcomes.front().key, "2");
}

TEST_F(LocalStoreTest, DocumentIsTakenUpToTheLimitAndRefusedBeyondIt) {
  limits_.documentBytes = 100;
  restart();
  store_->createCollection("c", "en");
  store_->addDocument("c", {"k", {{"ab", "cd"}}, std::string(96, 'x')});
  EXPECT_THAT(refusal(ErrorKind::DocumentTooLarge,
                      [&] {
                        store_->addDocument("c", {"k", {{"ab", "cd"}}, std::string(97, 'x')});
                      }),
              HasSubstr("101 bytes"));
}

TEST_F(LocalStoreTest, BadQueriesAreRefusedWithTheReason) {
  store_->createCollection("c", "en");
  addSearchable("k1", "fox");
  EXPECT_THAT(refusal(ErrorKind::BadQuery, [&] { keys("AND"); }),
              HasSubstr("cannot be understood"));
  EXPECT_THAT(refusal(ErrorKind::BadQuery, [&] { store_->estimate("c", "fox AND"); }),
              HasSubstr("cannot be understood"));
  EXPECT_THAT(keys("!!!"), IsEmpty());
}

TEST_F(LocalStoreTest, UnbalancedQueriesAreRefusedAndTheErrorSaysWhere) {
  store_->createCollection("c", "en");
  addSearchable("k1", "red fox");
  const std::vector<std::pair<std::string, std::string>> queries = {
      {"\"red fox", "the quotation mark at character 1 is not closed"},
      {"red\" fox", "the quotation mark at character 4 is not closed"},
      {"\"red\" \"fox", "the quotation mark at character 7 is not closed"},
      {"\u201cred fox", "the quotation mark at character 1 is not closed"},
      {"(((fox", "the \"(\" at character 3 is not closed"},
      {"(red (fox)", "the \"(\" at character 1 is not closed"},
      {"fox)", "the \")\" at character 4 closes nothing"},
      {"größe) (", "the \")\" at character 6 closes nothing"},
      {")", "the \")\" at character 1 closes nothing"}};
  for (const auto& [text, reason] : queries) {
    // A structured binding cannot be captured.
    const auto& query = text;
    EXPECT_THAT(refusal(ErrorKind::BadQuery, [&] { keys(query); }), HasSubstr(reason)) << query;
    EXPECT_THAT(refusal(ErrorKind::BadQuery, [&] { store_->estimate("c", query); }),
                HasSubstr(reason));
  }
  for (const char* query :
       {"((red) fox)", "\"red fox\"", "\u201cred fox\u201d", "\"red ( fox\"", "(\"red fox\")"}) {
    EXPECT_THAT(keys(query), ElementsAre("k1")) << query;
  }
}

TEST_F(LocalStoreTest, TextOfCjkStandsAnywhereInAQuery) {
  store_->createCollection("c", "en");
  store_->addDocument("c", {"k1", {{"title", "価格"}}, "red 全文検索 fox 価格"});
  store_->updateIndex("c");
  for (const char* query :
       {"red 全文 fox", "red 全文 fox 検索 red", "red 全文 fox OR hen", "hen OR red 全文 fox",
        "red title:価格 fox", "red -東京 fox", "fox +全文 red", "(red 価格 fox) red",
        "red \"全文検索 fox\"", "red 全* fox", "red全文fox価格red", "fox NOT 東京 red"}) {
    EXPECT_THAT(keys(query), ElementsAre("k1")) << query;
  }
  for (const char* query :
       {"red 東京 fox", "red title:全文 fox", "red -全文 fox", "fox NOT 全文"}) {
    EXPECT_THAT(keys(query), IsEmpty()) << query;
  }
}

TEST_F(LocalStoreTest, OperatorWithoutASideIsRefusedAndTheErrorSaysWhere) {
  store_->createCollection("c", "en");
  addSearchable("k1", "red fox and größe");
  const std::vector<std::pair<std::string, std::string>> queries = {
      {"fox AND", "the \"AND\" at character 5 has nothing behind it"},
      {"AND fox", "the \"AND\" at character 1 has nothing before it"},
      {"AND", "the \"AND\" at character 1 has nothing behind it"},
      {"größe OR", "the \"OR\" at character 7 has nothing behind it"},
      {"red OR OR fox", "the \"OR\" at character 5 has nothing behind it"},
      {"red (fox XOR) hen", "the \"XOR\" at character 10 has nothing behind it"},
      {"red (AND fox)", "the \"AND\" at character 6 has nothing before it"},
      {"\"red AND\" fox AND", "the \"AND\" at character 15 has nothing behind it"},
      {"fox AND NOT", "the \"NOT\" at character 9 has nothing behind it"}};
  for (const auto& [text, reason] : queries) {
    const auto& query = text;
    EXPECT_THAT(refusal(ErrorKind::BadQuery, [&] { keys(query); }), HasSubstr(reason)) << query;
  }
  for (const char* query :
       {"fox AND red", "red AND NOT hen", "hen OR\"red fox\"", "(red OR hen) AND (fox XOR owl)",
        "\"red fox\" OR hen", "fox and", "NOT hen"}) {
    EXPECT_THAT(keys(query), ElementsAre("k1")) << query;
  }
}

TEST_F(LocalStoreTest, NearnessWithoutAWordOnEachSideIsRefusedAndTheErrorSaysWhere) {
  store_->createCollection("c", "en");
  addSearchable("k1", "the red sea near and adj");
  const std::vector<std::pair<std::string, std::string>> queries = {
      {"sea NEAR", "the \"NEAR\" at character 5 has no word behind it"},
      {"NEAR sea", "the \"NEAR\" at character 1 has no word before it"},
      {"ADJ", "the \"ADJ\" at character 1 has no word before it"},
      {"red ADJ", "the \"ADJ\" at character 5 has no word behind it"},
      {"red NEAR/3", "the \"NEAR/3\" at character 5 has no word behind it"},
      {"größe NEAR NEAR sea", "the \"NEAR\" at character 7 has no word behind it"},
      {"red (NEAR sea)", "the \"NEAR\" at character 6 has no word before it"},
      {"(red OR sea) NEAR near", "the \"NEAR\" at character 14 has no word before it"},
      {"red NEAR (near OR sea)", "the \"NEAR\" at character 5 has no word behind it"},
      {"red AND ADJ/2 sea", "the \"ADJ/2\" at character 9 has no word before it"},
      {"red:\"sea near\" NEAR red", "the \"NEAR\" at character 16 has no word before it"},
      {"red NEAR \"sea near\"", "the \"NEAR\" at character 5 has no word behind it"},
      {"red NEAR sea*", "the \"NEAR\" at character 5 has no word behind it"},
      {"red NEAR/0 sea", "the \"NEAR/0\" at character 5 needs a number from 1 to 9999"},
      {"red ADJ/4294967297 sea", "\"ADJ/4294967297\" at character 5 needs a number"},
      {"wi-fi NEAR/2 sea", "the \"NEAR/2\" at character 7 has no word before it"},
      {"red -wi-fi NEAR/2 sea", "the \"NEAR/2\" at character 12 has no word before it"},
      {"red sea NEAR/2 wi.fi", "the \"NEAR/2\" at character 9 has no word behind it"},
      {"(red) sea ADJ 全文", "the \"ADJ\" at character 11 has no word behind it"},
      {"red -全文 ADJ/3 sea", "the \"ADJ/3\" at character 9 has no word before it"}};
  for (const auto& [text, reason] : queries) {
    const auto& query = text;
    EXPECT_THAT(refusal(ErrorKind::BadQuery, [&] { keys(query); }), HasSubstr(reason)) << query;
  }
  for (const char* query :
       {"red NEAR sea", "sea NEAR/3 red", "red NEAR/9999 sea", "red ADJ sea NOT fox", "sea near",
        "+red NEAR/3 sea", "the -hen NEAR/3 red", "red NEAR/2 sea adj near and",
        "NOT the ADJ/3 hen", "-sea ADJ/2 red the near adj", "the red ADJ sea ADJ near and OR hen",
        "the, sea, NEAR/3 red, near", "(red NEAR sea) adj", "\"sea near\"", "NEAR/ADJ",
        "\"NEAR\""}) {
    EXPECT_EQ(query == std::string_view("NEAR/ADJ"), keys(query).empty()) << query;
  }
}

// The engine's parser takes all that it cannot read for words, and "-fox" would find what has it.
TEST_F(LocalStoreTest, MinusWithNothingToTakeFromIsRefusedAndTheErrorSaysWhere) {
  store_->createCollection("c", "en");
  addSearchable("k1", "red fox and or not xor 2 near wi-fi");
  const std::vector<std::pair<std::string, std::string>> queries = {
      {"-fox", "the \"-fox\" at character 1 leaves"},
      {"-größe -fox", "the \"-größe\" at character 1 leaves"},
      {"-wi-fi", "the \"-wi-fi\" at character 1 leaves"},
      {"-\"red fox\"", "the \"-\"red fox\"\" at character 1 leaves"},
      {"-(red OR fox)", "the \"-(\" at character 1 leaves"},
      {"-全文", "the \"-全文\" at character 1 leaves"},
      {"-\U0001F98A", "the \"-\U0001F98A\" at character 1 leaves"},
      {"red (-fox)", "the \"-fox\" at character 6 leaves"},
      {"red OR -fox", "the \"-fox\" at character 8 leaves"},
      {"red OR (-fox -hen)", "the \"-fox\" at character 9 leaves"},
      {"-fox AND red", "the \"-fox\" at character 1 leaves"},
      {"NOT -fox", "the \"-fox\" at character 5 leaves"},
      {"-fox NEAR/2 red", "the \"-fox\" at character 1 leaves"}};
  for (const auto& [text, reason] : queries) {
    const auto& query = text;
    EXPECT_THAT(refusal(ErrorKind::BadQuery, [&] { keys(query); }), HasSubstr(reason)) << query;
  }
  for (const char* query : {"fox -hen", "-hen fox", "fox -\"fox red\"", "-(hen sea) fox", "NOT hen",
                            "red AND -hen", "-hen red OR owl", "owl OR NOT hen", "--fox", "fox -",
                            "- fox", "-... fox", "\"-fox\"", "red-fox", "f:-fox -\U0001F98A"}) {
    EXPECT_EQ(query == std::string_view("f:-fox -\U0001F98A"), keys(query).empty()) << query;
  }
}

// A person's text has signs of all kinds, and is not refused for them.
TEST_F(LocalStoreTest, SignsThatMeanNothingPartWords) {
  store_->createCollection("c", "en");
  addSearchable("apart", "apple, then nosuch; x and f; 1900, 1800; 3 red, e, app, 2");
  addSearchable("next", "nosuch apple, f x, 1800 1900, red 3, app e, apple 2");
  addSearchable("other", "apple red fox 1850 f 1900");
  // Between these the words may stand anywhere.
  for (const char* query : {"f?x", "red^3", "app*e", "apple~2", "f;x", "f|x", "f || x", "red && 3",
                            "{f} [x]", "f=x", "f<x>", "#f x!", "f, x?", "f - x"}) {
    EXPECT_THAT(keys(query), UnorderedElementsAre("apart", "next")) << query;
  }
  // Between these they stand next to each other, in this order.
  for (const char* query : {"1800..1900", "nosuch:apple", "nosuch/apple", "nosuch@apple", "f-x",
                            "f.x", "nosuch::apple", "app\\e"}) {
    EXPECT_THAT(keys(query), ElementsAre("next")) << query;
  }
  for (const char* query : {"*fox", "fox?", "fox:", ":fox", "!fox", "[fox]", "fox^", "~fox"}) {
    EXPECT_THAT(keys(query), ElementsAre("other")) << query;
  }
  for (const char* query : {"*", "?", "..", ":", "!?", "^", " "})
    EXPECT_THAT(keys(query), IsEmpty());
}

TEST_F(LocalStoreTest, QueryHasAtMostAsManyWordsAsAllowed) {
  store_->createCollection("c", "en");
  addSearchable("k1", "fox");
  const auto words = [](int count) {
    std::string text = "fox";
    for (int i = 1; i < count; ++i) text += " OR w" + std::to_string(i);
    return text;
  };
  EXPECT_THAT(keys(words(256)), ElementsAre("k1"));
  EXPECT_THAT(refusal(ErrorKind::QueryTooBroad, [&] { keys(words(257)); }), HasSubstr("257 words"));
  EXPECT_THAT(refusal(ErrorKind::QueryTooBroad, [&] { keys(std::string(16385, 'x')); }),
              HasSubstr("16385 bytes"));
  // To look at each word takes too long if there are too many.
  EXPECT_THAT(
      refusal(ErrorKind::QueryTooBroad, [&] { keys(words(257) + " OR " + std::string(300, 'x')); }),
      HasSubstr("258 words"));
  for (const char* part : {"(", "NOT ", "\"", "a AND (", "-", "+", "x:"}) {
    std::string text;
    while (text.size() + 10 < 16384) text += part;
    try {
      keys(text);
    } catch (const ServerError& error) {
      EXPECT_TRUE(error.kind() == ErrorKind::BadQuery || error.kind() == ErrorKind::QueryTooBroad)
          << part << ": " << error.what();
    }
  }
}

TEST_F(LocalStoreTest, WildcardStandsForAtMostAsManyWordsAsAllowed) {
  limits_.index.expansion = 10;
  restart();
  store_->createCollection("c", "en");
  std::string text;
  for (char c = 'a'; c < 'a' + 10; ++c) text += std::string(" fox") + c;
  addSearchable("k1", text);
  EXPECT_THAT(keys("fox*"), ElementsAre("k1"));
  addSearchable("k2", "foxz");
  EXPECT_THAT(refusal(ErrorKind::QueryTooBroad, [&] { keys("fox*"); }), HasSubstr("too broad"));
}

TEST_F(LocalStoreTest, EstimateOfFewHitsIsExact) {
  store_->createCollection("c", "en");
  for (int i = 0; i < 100; ++i) add("k" + std::to_string(i), i % 3 == 0 ? "red fox" : "fox");
  store_->updateIndex("c");
  const Estimate estimate = store_->estimate("c", "red fox");
  EXPECT_EQ(estimate.hits, 34U);
  EXPECT_GE(estimate.atMost, 34U);
  EXPECT_EQ(estimate.documents, 100U);
}

TEST_F(LocalStoreTest, UpdateThatMeetsAFullDiskCanBeRepeated) {
  store_->createCollection("c", "en");
  for (int i = 0; i < 3000; ++i) {
    store_->queueDocument("c", {"k" + std::to_string(i), {}, "fox word" + std::to_string(i)});
  }
  {
    const test::FileSizeLimit full(200000);
    refusal(ErrorKind::StorageFailed, [&] { store_->updateIndex("c"); });
    refusal(ErrorKind::StorageFailed, [&] { store_->updateIndex("c"); });
  }
  EXPECT_EQ(store_->state("c"), CollectionState::ChangesPending);
  store_->updateIndex("c");
  EXPECT_EQ(keys("fox").size(), 3000U);
  EXPECT_EQ(store_->estimate("c", "fox").documents, 3000U);
}

TEST_F(LocalStoreTest, DeletionHoldsAlsoWhenTheIndexCannotTakeIt) {
  limits_.hiddenKeys = 1;
  restart();
  store_->createCollection("c", "en");
  for (int i = 0; i < 300; ++i) {
    add("k" + std::to_string(i), "fox word" + std::to_string(i));
  }
  store_->updateIndex("c");
  store_->deleteDocument("c", "k0");
  {
    const test::FileSizeLimit full(8192);
    EXPECT_NO_THROW(store_->deleteDocument("c", "k1"));
    EXPECT_EQ(keys("fox").size(), 298U);
    EXPECT_EQ(store_->estimate("c", "fox").documents, 300U);
  }
  store_->deleteDocument("c", "k2");
  EXPECT_EQ(keys("fox").size(), 297U);
  EXPECT_EQ(store_->estimate("c", "fox").documents, 297U);
}

TEST_F(LocalStoreTest, RemovalsThatFailAreOneLineOfTheLog) {
  const test::LogLines log;
  limits_.hiddenKeys = 1;
  restart();
  store_->createCollection("c", "en");
  for (int i = 0; i < 300; ++i) {
    add("k" + std::to_string(i), "fox word" + std::to_string(i));
  }
  store_->updateIndex("c");
  {
    const test::FileSizeLimit full(8192);
    for (int i = 0; i < 10; ++i) store_->deleteDocument("c", "k" + std::to_string(i));
  }
  EXPECT_THAT(
      log.with("collection"),
      ElementsAre(StartsWith("error failure: action=\"removal\" collection=\"c\" error=ZVK0014E")));
}

TEST_F(LocalStoreTest, CollectionThatCannotBeDeletedGoesOn) {
  // Once without a failure: see DescriptorLimit.
  store_->createCollection("other", "en");
  store_->openCollection("other");
  store_->deleteCollection("other");
  store_->createCollection("c", "en");
  addSearchable("k1", "fox");
  {
    const test::DescriptorLimit none(0);
    EXPECT_ANY_THROW(store_->deleteCollection("c"));
  }
  const std::filesystem::directory_iterator collections(directory_.path() / "data/collections");
  EXPECT_EQ(std::distance(collections, std::filesystem::directory_iterator()), 1);
  EXPECT_THAT(keys("fox"), ElementsAre("k1"));
  addSearchable("k2", "fox");
  EXPECT_THAT(keys("fox"), ElementsAre("k1", "k2"));
  store_->deleteCollection("c");
  refusal(ErrorKind::UnknownCollection, [&] { store_->openCollection("c"); });
}

TEST_F(LocalStoreTest, DeletionThatAnUpdateOvertakesHidesNothingThatCameLater) {
  store_->createCollection("c", "en");
  for (int round = 0; round < 150; ++round) {
    std::atomic<bool> stop = false;
    std::vector<std::thread> others;
    // They make the others wait for each other, in whatever order.
    for (int t = 0; t < 2; ++t) {
      others.emplace_back([&] {
        while (!stop) store_->state("c");
      });
    }
    others.emplace_back([&] { store_->deleteDocument("c", "k1"); });
    add("k1", "fox");
    store_->updateIndex("c");
    stop = true;
    for (std::thread& other : others) other.join();
    store_->updateIndex("c");
    // Whichever came last: what is in the index is what is found, also by a server that was not
    // there when it happened.
    const std::vector<std::string> found = keys("fox");
    restart();
    ASSERT_EQ(found, keys("fox")) << round;
  }
}

TEST_F(LocalStoreTest, DocumentsThatTheIndexRefusesAreLeftOutAndReported) {
  store_->createCollection("c", "en");
  const std::vector<std::string> bad{kRefusedKey, std::string(300, 'b')};
  for (int i = 0; i < 100; ++i) {
    add("k" + std::to_string(i), "fox");
    if (i == 3 || i == 57) add(bad[i == 3 ? 0 : 1], "fox");
  }
  EXPECT_THAT(refusal(ErrorKind::DocumentsNotIndexed, [&] { store_->updateIndex("c"); }),
              HasSubstr("2 documents"));
  EXPECT_EQ(keys("fox").size(), 100U);
  const std::vector<ParseOutcome> outcomes = store_->takeParseOutcomes("c");
  ASSERT_EQ(outcomes.size(), 2U);
  EXPECT_EQ(outcomes[0].key, bad[0]);
  EXPECT_EQ(outcomes[1].key, bad[1]);
  EXPECT_EQ(outcomes[0].messageId, "ZVK0015E");
  EXPECT_EQ(store_->state("c"), CollectionState::Current);
}

TEST_F(LocalStoreTest, AnUpdateSaysWhichDocumentsItLeftOut) {
  store_->createCollection("c", "en");
  const auto leftOut = [&](int count) {
    for (int i = 0; i < count; ++i) add(static_cast<char>('a' + i) + kRefusedKey, "");
    return refusal(ErrorKind::DocumentsNotIndexed, [&] { store_->updateIndex("c"); });
  };
  const auto key = [](char first) { return std::string("\"") + first + kRefusedKey.substr(0, 79); };
  const std::string reason = " (the document cannot be indexed: ";
  EXPECT_THAT(leftOut(1), AllOf(HasSubstr("1 document left out"), HasSubstr(key('a')),
                                HasSubstr(reason), Not(HasSubstr(" more"))));
  EXPECT_THAT(leftOut(3), AllOf(HasSubstr("3 documents left out"), HasSubstr(key('a')),
                                HasSubstr(key('c')), Not(HasSubstr(" more"))));
  const std::string five = leftOut(5);
  EXPECT_THAT(five, AllOf(HasSubstr("5 documents left out"), HasSubstr(key('b')),
                          HasSubstr(key('c')), Not(HasSubstr(key('d'))), HasSubstr(" and 2 more")));
  EXPECT_THAT(five.size(), ::testing::Le(600U)) << "a reply cuts it off";
}

// As if the reply had been lost.
TEST_F(LocalStoreTest, AnUpdateIsAnsweredAlikeUntilWhatItLeftOutIsTold) {
  store_->createCollection("c", "en");
  store_->queueDocument("c", {kRefusedKey, {}, ""}, "ada");
  store_->takeParseOutcomes("c", "ada");
  const auto update = [&] { store_->updateIndex("c"); };
  const std::string said = refusal(ErrorKind::DocumentsNotIndexed, update);
  EXPECT_EQ(refusal(ErrorKind::DocumentsNotIndexed, update), said);
  EXPECT_THAT(store_->takeParseOutcomes("c"), IsEmpty());
  EXPECT_EQ(refusal(ErrorKind::DocumentsNotIndexed, update), said) << "it was another client's";
  EXPECT_EQ(store_->takeParseOutcomes("c", "ada").size(), 1U);
  EXPECT_NO_THROW(update());
}

TEST_F(LocalStoreTest, AnUpdateThatDoesSomethingSaysOnlyWhatItLeftOutItself) {
  store_->createCollection("c", "en");
  add(kRefusedKey, "");
  refusal(ErrorKind::DocumentsNotIndexed, [&] { store_->updateIndex("c"); });
  add("k", "fox");
  EXPECT_NO_THROW(store_->updateIndex("c"));
  EXPECT_NO_THROW(store_->updateIndex("c"));
}

TEST_F(LocalStoreTest, WhatAnUpdateLeftOutIsForgottenWithTheServer) {
  store_->createCollection("c", "en");
  add(kRefusedKey, "");
  refusal(ErrorKind::DocumentsNotIndexed, [&] { store_->updateIndex("c"); });
  restart();
  EXPECT_NO_THROW(store_->updateIndex("c"));
}

TEST_F(LocalStoreTest, SecondOwnerOfADirectoryIsRefused) {
  EXPECT_THAT(
      refusal(ErrorKind::StorageFailed, [&] { LocalStore second(directory_.path() / "data", {}); }),
      AllOf(HasSubstr("in use by another server"),
            HasSubstr((directory_.path() / "data").string())));
}

TEST_F(LocalStoreTest, SecondOwnerIsRefusedAlsoWhenTheLockFileIsGone) {
  std::filesystem::remove(directory_.path() / "data/LOCK");
  EXPECT_THAT(
      refusal(ErrorKind::StorageFailed, [&] { LocalStore second(directory_.path() / "data", {}); }),
      HasSubstr("in use by another server"));
  restart();
}

TEST_F(LocalStoreTest, NothingIsAcknowledgedInADirectoryThatWasRemoved) {
  store_->createCollection("c", "en");
  add("k1", "fox");
  std::filesystem::remove_all(directory_.path() / "data/collections/c");
  refusal(ErrorKind::StorageFailed, [&] { add("k2", "fox"); });
}

TEST_F(LocalStoreTest, DamagedCollectionHarmsNoOther) {
  store_->createCollection("c", "en");
  store_->createCollection("bad", "en");
  addSearchable("k1", "fox");
  store_->addDocument("bad", {"k", {}, "x"});
  store_.reset();
  std::filesystem::remove(directory_.path() / "data/collections/bad/index/iamglass");
  restart();
  EXPECT_THAT(keys("fox"), ElementsAre("k1"));
  refusal(ErrorKind::StorageFailed, [&] { store_->openCollection("bad"); });
}

TEST_F(LocalStoreTest, LeftoversOfACrashAreCleared) {
  store_->createCollection("c", "en");
  store_.reset();
  std::filesystem::create_directory(directory_.path() / "data/collections/.passing-1");
  restart();
  EXPECT_EQ(std::distance(
                std::filesystem::directory_iterator(directory_.path() / "data/collections"), {}),
            1);
}

TEST_F(LocalStoreTest, SearchesGoOnWhileTheIndexChanges) {
  store_->createCollection("c", "en");
  for (int i = 0; i < 50; ++i) add("k" + std::to_string(i), "fox hound");
  store_->updateIndex("c");
  std::atomic<bool> stop = false;
  std::atomic<int> searches = 0;
  std::vector<std::thread> readers;
  for (int t = 0; t < 2; ++t) {
    readers.emplace_back([&] {
      while (!stop) {
        EXPECT_EQ(keys("fox").size(), 50U);
        ++searches;
      }
    });
  }
  for (int round = 0; round < 40 || searches < 20; ++round) {
    add("k" + std::to_string(round % 50), "fox hound round" + std::to_string(round));
    store_->updateIndex("c");
  }
  stop = true;
  for (std::thread& reader : readers) reader.join();
}

TEST_F(LocalStoreTest, CollectionMayBeDeletedWhileItIsUsed) {
  for (int round = 0; round < 20; ++round) {
    store_->createCollection("c", "en");
    std::vector<std::thread> users;
    for (int t = 0; t < 3; ++t) {
      users.emplace_back([&, t] {
        refusal(ErrorKind::UnknownCollection, [&] {
          for (int i = 0;; ++i) {
            add(std::to_string(t) + "-" + std::to_string(i), "fox");
            if (i % 5 == 0) store_->updateIndex("c");
            keys("fox");
          }
        });
      });
    }
    while (store_->state("c") == CollectionState::Current) std::this_thread::yield();
    store_->deleteCollection("c");
    for (std::thread& user : users) user.join();
  }
  store_->createCollection("c", "en");
  EXPECT_EQ(store_->estimate("c", "fox").documents, 0U);
}

}  // namespace
}  // namespace corvaned
