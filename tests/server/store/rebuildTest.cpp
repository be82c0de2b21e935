#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <xapian.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "server/base/errors.h"
#include "server/store/collection.h"
#include "server/store/collectionOptions.h"
#include "server/store/indexRebuild.h"
#include "server/store/localStore.h"
#include "server/store/maintenance.h"
#include "server/store/xapianIndex.h"
#include "tests/support/temporaryDirectory.h"

// An index of the earlier form, and what becomes of it.
namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;

using Keys = std::vector<std::string>;

const StopCheck kGoOn = [] {};

class RebuildTest : public ::testing::Test {
 protected:
  RebuildTest() { spdlog::set_level(spdlog::level::off); }

  std::filesystem::path data() const { return directory_.path() / "data"; }
  std::filesystem::path collection() const { return data() / "collections" / "c"; }
  std::string index() const { return (collection() / "index").string(); }

  static std::string keyOf(int i) { return "k" + std::to_string(100 + i); }

  /// A collection of this many documents whose index has the schema 1.
  void write(int documents) const {
    {
      LocalStore store(data(), {});
      store.createCollection("c", "en");
      for (int i = 0; i < documents; ++i) {
        store.queueDocument("c", {keyOf(i), {{"[sortable]year", std::to_string(-i)}}, "foxes"});
      }
      store.updateIndex("c");
    }
    makeEarlier();
  }

  void makeEarlier() const {
    Xapian::WritableDatabase database(index());
    database.set_metadata("schema", "1");
    database.set_metadata("sortable", "");
    database.commit();
    std::filesystem::remove(collection() / "index-sums");
    std::filesystem::remove(collection() / "journal-0000000000");
  }

  void makeUnreadable(Xapian::docid number) const {
    Xapian::WritableDatabase database(index());
    Xapian::Document document = database.get_document(number);
    document.set_data("nonsense");
    database.replace_document(number, document);
    database.commit();
  }

  std::string schema() const { return Xapian::Database(index()).get_metadata("schema"); }

  template <typename Searched>
  static Keys keysOf(Searched search) {
    const auto hits = search();
    Keys keys;
    for (Hit hit; hits->next(hit);) keys.push_back(hit.key);
    return keys;
  }

  static SearchQuery foxes() {
    SearchQuery query;
    query.text = "fox";
    return query;
  }

  static Keys found(Store& store, const SearchQuery& query = foxes()) {
    return keysOf([&] { return store.search("c", query); });
  }
  static Keys found(XapianIndex& index) {
    return keysOf([&] { return index.search(foxes(), {}); });
  }

  static IndexLimits smallBatches() {
    IndexLimits limits;
    limits.batchChanges = 3;
    return limits;
  }

  std::vector<std::string> leftovers() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(collection())) {
      const std::string name = entry.path().filename().string();
      if (name.starts_with("index-re")) names.push_back(name);
    }
    return names;
  }

  tq::test::TemporaryDirectory directory_;
};

TEST_F(RebuildTest, UpdateThatHasNothingElseToDoMakesItAnew) {
  write(10);
  LocalStore store(data(), {});
  EXPECT_EQ(store.state("c"), CollectionState::Current);
  EXPECT_THAT(found(store), SizeIs(10));
  store.updateIndex("c");
  EXPECT_EQ(schema(), "2");
  EXPECT_THAT(leftovers(), ::testing::IsEmpty());
  SearchQuery query = foxes();
  query.order = HitOrder::Value;
  query.sortBy = "year";
  query.size = 2;
  EXPECT_THAT(found(store, query), ElementsAre("k109", "k108"));
}

TEST_F(RebuildTest, ProgressIsTold) {
  write(8);
  StoreLimits limits;
  limits.index = smallBatches();
  const std::atomic<bool> stopping = false;
  Collection open("c", collection(), limits, std::make_shared<ParseOutcomes>(10), stopping);
  const auto ticket = open.requestUpdate();
  std::vector<std::string> told;
  do {
    const CollectionSummary summary = open.summary();
    std::string line = std::to_string(summary.indexed) + "/" + std::to_string(summary.indexing);
    if (told.empty() || told.back() != line) told.push_back(std::move(line));
  } while (open.indexStep());
  EXPECT_THAT(told, ElementsAre("0/0", "3/8", "6/8", "8/8", "0/0"));
  EXPECT_NO_THROW(ticket->requireSuccess());
  EXPECT_EQ(schema(), "2");
}

// The new index may have come to the revision that the earlier one had.
TEST_F(RebuildTest, PagesThatBeganInTheEarlierIndexAreRefused) {
  write(10);
  LocalStore store(data(), {});
  SearchQuery query = foxes();
  query.inPages = true;
  query.size = 4;
  query.from = store.search("c", query)->nextPage();
  ASSERT_TRUE(query.from);
  EXPECT_THAT(found(store, query), ElementsAre("k104", "k105", "k106", "k107"));
  store.updateIndex("c");
  EXPECT_EQ(schema(), "2");
  for (query.from->snapshot.revision = 0; query.from->snapshot.revision < 10;
       ++query.from->snapshot.revision) {
    EXPECT_THROW(store.search("c", query), ServerError) << query.from->snapshot.revision;
  }
}

TEST_F(RebuildTest, IsSoundBeforeAndAfter) {
  write(10);
  EXPECT_TRUE(Maintenance(data()).check("c").isSound());
  LocalStore(data(), {}).updateIndex("c");
  EXPECT_EQ(schema(), "2");
  EXPECT_TRUE(Maintenance(data()).check("c").isSound());
  EXPECT_THAT(found(*std::make_unique<LocalStore>(data(), StoreLimits{})), SizeIs(10));
}

TEST_F(RebuildTest, ChangesThatWaitComeIn) {
  write(10);
  LocalStore store(data(), {});
  store.deleteDocument("c", keyOf(0));
  store.addDocument("c", {keyOf(1), {}, "hound"});
  store.addDocument("c", {"new", {}, "fox"});
  store.updateIndex("c");
  EXPECT_EQ(schema(), "2");
  const Keys keys = found(store);
  EXPECT_THAT(keys, SizeIs(9));
  EXPECT_THAT(keys, AllOf(::testing::Contains("new"), ::testing::Not(::testing::Contains("k100")),
                          ::testing::Not(::testing::Contains("k101"))));
}

TEST_F(RebuildTest, EmptyIndexIsMadeAnewToo) {
  write(0);
  LocalStore(data(), {}).updateIndex("c");
  EXPECT_EQ(schema(), "2");
}

TEST_F(RebuildTest, SearchesGoOnBetweenItsStepsAndAfterThem) {
  write(20);
  XapianIndex index(collection(), smallBatches());
  int steps = 0;
  for (bool more = true; more; ++steps) {
    EXPECT_TRUE(index.isOfEarlierForm());
    EXPECT_THAT(found(index), SizeIs(20));
    more = index.rebuildStep(kGoOn);
  }
  EXPECT_GT(steps, 7);
  EXPECT_FALSE(index.isOfEarlierForm());
  EXPECT_THAT(found(index), SizeIs(20));
}

// Its handle stands on files that have gone from the directory.
TEST_F(RebuildTest, ReadingThatIsUnderWayIsCompleted) {
  write(20);
  XapianIndex index(collection(), smallBatches());
  Keys visited;
  SearchQuery query = foxes();
  query.order = HitOrder::Key;
  index.visit(query, {}, [&](const Document& document) {
    visited.push_back(document.key);
    if (visited.size() != 5) return;
    while (index.rebuildStep(kGoOn)) {
    }
  });
  Keys all;
  for (int i = 0; i < 20; ++i) all.push_back(keyOf(i));
  EXPECT_EQ(visited, all);
}

TEST_F(RebuildTest, SearchesOnOtherThreadsSeeEveryDocumentAllTheTime) {
  write(200);
  IndexLimits limits;
  limits.batchChanges = 20;
  XapianIndex index(collection(), limits);
  std::atomic<bool> done = false;
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      while (!done) {
        if (found(index).size() != 200) ++wrong;
      }
    });
  }
  while (index.rebuildStep(kGoOn)) {
  }
  done = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_THAT(found(index), SizeIs(200));
}

TEST_F(RebuildTest, OneThatWasStoppedBeginsAnew) {
  write(20);
  XapianIndex index(collection(), smallBatches());
  ASSERT_TRUE(index.rebuildStep(kGoOn));
  EXPECT_THROW(index.rebuildStep([] { throw std::runtime_error("stop"); }), std::runtime_error);
  EXPECT_THAT(leftovers(), ::testing::IsEmpty()) << "others need the space";
  EXPECT_TRUE(index.isOfEarlierForm());
  EXPECT_THAT(found(index), SizeIs(20));
  while (index.rebuildStep(kGoOn)) {
  }
  EXPECT_THAT(found(index), SizeIs(20));
}

TEST_F(RebuildTest, TextThatCannotBeReadIsNamedAndNothingIsLost) {
  write(5);
  makeUnreadable(3);
  LocalStore store(data(), {});
  try {
    store.updateIndex("c");
    ADD_FAILURE() << "not refused";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::StorageFailed);
    EXPECT_THAT(error.what(), AllOf(HasSubstr("\"k102\""), HasSubstr("corvaned repair")));
  }
  EXPECT_THAT(found(store), SizeIs(5));
  EXPECT_EQ(schema(), "1");
}

// To the checksums, which the first opening made, the text is as good as any other.
TEST_F(RebuildTest, RepairLeavesOutATextThatCannotBeReadAndTheRestIsMadeAnew) {
  for (const bool wasOpened : {false, true}) {
    SCOPED_TRACE(wasOpened ? "with checksums" : "without");
    write(5);
    makeUnreadable(3);
    if (wasOpened) {
      LocalStore store(data(), {});
      store.addDocument("c", {"new", {}, "fox"});
      EXPECT_THROW(store.updateIndex("c"), ServerError);
    }
    const CollectionCheck check = Maintenance(data()).check("c");
    ASSERT_THAT(check.index, SizeIs(1));
    EXPECT_THAT(describe(check.index[0]), HasSubstr("\"k102\" cannot be read"));
    const Repair repair = Maintenance(data()).repair("c");
    ASSERT_THAT(repair.documentsLost, SizeIs(1));
    EXPECT_EQ(repair.documentsLost[0].number, 3U);
    EXPECT_EQ(repair.documentsLost[0].key, "k102");
    EXPECT_EQ(repair.documentsKept, 4U);
    EXPECT_TRUE(Maintenance(data()).check("c").isSound());
    {
      LocalStore store(data(), {});
      store.updateIndex("c");
      EXPECT_THAT(found(store), SizeIs(wasOpened ? 5 : 4));
      EXPECT_EQ(store.state("c"), CollectionState::Current);
    }
    EXPECT_EQ(schema(), "2");
    std::filesystem::remove_all(data());
  }
}

TEST_F(RebuildTest, DamagedIndexThatHasNoChecksumsYetIsRepaired) {
  write(300);
  std::ofstream(collection() / "index" / "position.glass", std::ios::trunc).flush();
  EXPECT_FALSE(Maintenance(data()).check("c").isSound());
  const Repair repair = Maintenance(data()).repair("c");
  EXPECT_TRUE(repair.losesNothing());
  EXPECT_EQ(repair.documentsKept, 300U);
  LocalStore store(data(), {});
  EXPECT_THAT(found(store), SizeIs(300));
}

// Each attempt indexes everything in front of what makes it fail.
TEST_F(RebuildTest, OneThatFailedIsNotRepeatedAtOnce) {
  write(5);
  makeUnreadable(3);
  const std::chrono::milliseconds interval(70);
  writeOptions(collection(), {Refresh::Mode::Interval, interval});
  const std::atomic<bool> stopping = false;
  StoreLimits limits;
  limits.earlyBytes = 1;
  Collection opened("c", collection(), limits, std::make_shared<ParseOutcomes>(10), stopping);
  opened.add({"new", {}, "fox"});
  EXPECT_EQ(opened.takeRefreshTime(), interval);
  opened.refresh();
  ASSERT_TRUE(opened.takeOnIndexing());
  while (opened.indexStep()) {
  }
  opened.add({"newer", {}, "fox"});
  EXPECT_FALSE(opened.takeOnIndexing()) << "the journal is long already, and stays so";
  EXPECT_EQ(opened.takeRefreshTime(), Collection::kRebuildAgainAfter);
}

TEST_F(RebuildTest, DamageIsFoundBeforeAnythingIsTakenOver) {
  write(300);
  LocalStore store(data(), {});
  store.openCollection("c");
  {
    std::fstream file(collection() / "index/docdata.glass");
    file.seekp(100);
    file.put('x');
  }
  EXPECT_THROW(store.updateIndex("c"), ServerError);
  EXPECT_EQ(schema(), "1");
}

// What a crash may leave, from the decision to the last step.

class DecidedRebuildTest : public RebuildTest {
 protected:
  /// The new index is complete, and not yet in place.
  void decide() {
    write(7);
    // Opened once, so that the earlier index has checksums.
    LocalStore(data(), {}).openCollection("c");
    IndexRebuild rebuild(collection(), {});
    while (rebuild.step(kGoOn)) {
    }
    rebuild.decide();
  }

  std::filesystem::path complete() const { return collection() / "index-rebuilt"; }

  void expectFinished() {
    LocalStore store(data(), {});
    EXPECT_THAT(found(store), SizeIs(7));
    EXPECT_EQ(schema(), "2");
    EXPECT_THAT(leftovers(), ::testing::IsEmpty());
  }
};

TEST_F(DecidedRebuildTest, IsFinishedByTheNextOpening) {
  decide();
  EXPECT_EQ(schema(), "1");
  expectFinished();
}

TEST_F(DecidedRebuildTest, IsFinishedWhenTheEarlierIndexHasMadeRoom) {
  decide();
  std::filesystem::rename(index(), collection() / "index-replaced");
  expectFinished();
}

TEST_F(DecidedRebuildTest, IsFinishedWhenItsIndexIsInPlace) {
  decide();
  std::filesystem::rename(index(), collection() / "index-replaced");
  std::filesystem::rename(complete() / "index", index());
  expectFinished();
}

TEST_F(DecidedRebuildTest, IsFinishedWhenItsChecksumsAreInPlace) {
  decide();
  std::filesystem::rename(index(), collection() / "index-replaced");
  std::filesystem::rename(complete() / "index", index());
  std::filesystem::rename(complete() / "index-sums", collection() / "index-sums");
  expectFinished();
}

TEST_F(DecidedRebuildTest, IsFinishedByACheck) {
  decide();
  std::filesystem::rename(index(), collection() / "index-replaced");
  EXPECT_TRUE(Maintenance(data()).check("c").isSound());
  expectFinished();
}

TEST_F(DecidedRebuildTest, OneThatIsNotDecidedIsClearedAway) {
  decide();
  std::filesystem::rename(complete(), collection() / "index-rebuilding");
  {
    LocalStore store(data(), {});
    EXPECT_THAT(found(store), SizeIs(7));
    EXPECT_EQ(schema(), "1");
    EXPECT_THAT(leftovers(), ::testing::IsEmpty());
  }
}

}  // namespace
}  // namespace corvaned
