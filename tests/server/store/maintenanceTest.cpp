#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <xapian.h>

#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "server/base/errors.h"
#include "server/store/collectionOptions.h"
#include "server/store/indexSums.h"
#include "server/store/localStore.h"
#include "server/store/maintenance.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::size_t kBlock = 8192;

class MaintenanceTest : public ::testing::Test {
 protected:
  MaintenanceTest() { spdlog::set_level(spdlog::level::off); }

  std::filesystem::path data() const { return directory_.path() / "data"; }
  std::filesystem::path collection() const { return data() / "collections" / "c"; }
  std::filesystem::path segment() const { return collection() / "journal-0000000002"; }

  /// Documents k100 to k199 in the index, and four changes in the journal.
  void write() const {
    LocalStore store(data(), {});
    store.createCollection("c", "en");
    for (int i = 100; i < 200; ++i) {
      store.addDocument("c", {"k" + std::to_string(i), {}, text(i) + " jumping foxes"});
    }
    store.updateIndex("c");
    for (const char* key : {"a", "b", "c"}) store.addDocument("c", {key, {}, "hound"});
    store.deleteDocument("c", "k100");
  }

  // Long and different, so that the texts take several blocks.
  static std::string text(int i) {
    std::string words;
    for (int j = 0; j < 60; ++j)
      words += "w" + std::to_string((i * 7919 + j * 104729) % 99991) + " ";
    return words;
  }

  static std::string read(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  static void damage(const std::filesystem::path& path, std::size_t place) {
    std::string bytes = read(path);
    ASSERT_GT(bytes.size(), place);
    bytes[place] = static_cast<char>(bytes[place] ^ 1);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  }

  // Above the leaves there is one block, without which none of them can be found.
  std::size_t lastLeaf() const {
    constexpr std::size_t kLevelPlace = 4;
    const std::string bytes = read(collection() / "index/docdata.glass");
    std::size_t block = bytes.size() / kBlock - 1;
    while (block > 0 && bytes[block * kBlock + kLevelPlace] != 0) --block;
    return block;
  }

  std::vector<std::string> found(const std::string& text) const {
    LocalStore store(data(), {});
    store.updateIndex("c");
    SearchQuery query;
    query.text = text;
    const auto hits = store.search("c", query);
    std::vector<std::string> keys;
    for (Hit hit; hits->next(hit);) keys.push_back(hit.key);
    return keys;
  }

  Repair repair() const { return Maintenance(data()).repair("c"); }
  CollectionCheck check() const { return Maintenance(data()).check("c"); }

  tq::test::TemporaryDirectory directory_;
};

TEST_F(MaintenanceTest, SoundCollectionIsCalledSoundAndLeftAlone) {
  write();
  EXPECT_TRUE(check().isSound());
  EXPECT_EQ(check().changes, 4U);
  EXPECT_TRUE(repair().original.empty());
  EXPECT_FALSE(std::filesystem::exists(data() / "before-repair"));
  EXPECT_THAT(Maintenance(data()).collections(), ElementsAre("c"));
}

TEST_F(MaintenanceTest, DirectoryInUseIsLeftAlone) {
  write();
  const LocalStore store(data(), {});
  EXPECT_THROW(Maintenance{data()}, ServerError);
}

TEST_F(MaintenanceTest, DirectoryWithoutCollectionsIsRefused) {
  EXPECT_THROW(Maintenance{directory_.path() / "nowhere"}, ServerError);
  EXPECT_FALSE(std::filesystem::exists(directory_.path() / "nowhere"));
}

TEST_F(MaintenanceTest, OptionsAreKeptOrTheirLossIsReported) {
  const Refresh refresh{Refresh::Mode::Interval, std::chrono::hours(24)};
  {
    LocalStore store(data(), {});
    store.createCollection("c", "en", refresh);
    store.addDocument("c", {"k", {}, "fox"});
  }
  damage(collection() / "journal-0000000001", 40);
  {
    const Maintenance maintenance(data());
    EXPECT_FALSE(maintenance.repair("c").found.isSound());
    EXPECT_EQ(readOptions(collection()), refresh);
    damage(optionsPath(collection()), 12);
    const CollectionCheck check = maintenance.check("c");
    ASSERT_EQ(check.journal.size(), 1U);
    EXPECT_EQ(check.journal[0].damage.file, optionsPath(collection()));
    EXPECT_TRUE(maintenance.repair("c").losesNothing());
    EXPECT_EQ(readOptions(collection()), refresh);
    std::filesystem::remove(optionsPath(collection()));
    ASSERT_EQ(maintenance.check("c").journal.size(), 1U);
    EXPECT_EQ(maintenance.check("c").journal[0].damage.file, optionsPath(collection()));
    EXPECT_TRUE(maintenance.repair("c").losesNothing());
    EXPECT_EQ(readOptions(collection()), refresh);
    // As earlier builds made it.
    Xapian::WritableDatabase index((collection() / "index").string());
    index.set_metadata("refresh", "");
    index.commit();
    IndexSums::create(collection(), {{std::string(), index.get_revision()}});
    index.close();
    damage(optionsPath(collection()), 12);
    EXPECT_FALSE(maintenance.repair("c").losesNothing());
    EXPECT_TRUE(maintenance.check("c").isSound());
  }
  EXPECT_EQ(readOptions(collection()), Refresh{});
  EXPECT_NO_THROW(LocalStore(data(), {}).openCollection("c"));
}

TEST_F(MaintenanceTest, CheckNamesEveryDamagedPlaceAndChangesNothing) {
  write();
  damage(segment(), read(segment()).find("hound"));
  damage(collection() / "index" / "docdata.glass", kBlock + 100);
  damage(collection() / "index" / "postlist.glass", kBlock + 100);
  const std::string before = read(segment());
  const CollectionCheck result = check();
  ASSERT_THAT(result.journal, SizeIs(1));
  EXPECT_EQ(result.journal[0].damage.file, segment());
  EXPECT_EQ(result.journal[0].firstLost, 101U);
  EXPECT_EQ(result.journal[0].lastLost, 101U);
  EXPECT_EQ(result.journal[0].key, "a");
  ASSERT_THAT(result.index, SizeIs(2));
  EXPECT_EQ(result.index[0].place, kBlock);
  EXPECT_EQ(read(segment()), before);
}

TEST_F(MaintenanceTest, RepairKeepsAllChangesButTheDamagedOne) {
  write();
  damage(segment(), read(segment()).find("hound"));
  const std::string before = read(segment());
  const Repair result = repair();
  EXPECT_FALSE(result.losesNothing());
  ASSERT_THAT(result.found.journal, SizeIs(1));
  EXPECT_EQ(result.found.journal[0].key, "a");
  EXPECT_THAT(result.documentsLost, IsEmpty());
  EXPECT_EQ(read(result.original / segment().filename()), before) << "the original is kept";
  EXPECT_TRUE(check().isSound());
  EXPECT_THAT(found("hound"), ElementsAre("b", "c"));
  EXPECT_THAT(found("jump fox"), SizeIs(99));
}

TEST_F(MaintenanceTest, ChangesThatAreGoneAreNumbered) {
  write();
  const std::string bytes = read(segment());
  const std::size_t second = bytes.find("KRJ2", 1);
  const std::size_t third = bytes.find("KRJ2", second + 1);
  std::ofstream(segment(), std::ios::binary | std::ios::trunc)
      << bytes.substr(0, second) << bytes.substr(third);
  const Repair result = repair();
  ASSERT_THAT(result.found.journal, SizeIs(1));
  EXPECT_EQ(result.found.journal[0].firstLost, 102U);
  EXPECT_EQ(result.found.journal[0].lastLost, 102U);
  EXPECT_THAT(found("hound"), ElementsAre("a", "c"));
}

TEST_F(MaintenanceTest, LostNumbersOfTheJournalLoseNoChange) {
  write();
  std::filesystem::remove(collection() / "journal-0000000000");
  const Repair result = repair();
  EXPECT_TRUE(result.losesNothing());
  EXPECT_THAT(found("hound"), ElementsAre("a", "b", "c"));
}

TEST_F(MaintenanceTest, RepairMakesAnIndexOfTheDocumentsThatCanBeRead) {
  write();
  damage(collection() / "index/docdata.glass", lastLeaf() * kBlock + 4000);
  const Repair result = repair();
  EXPECT_TRUE(result.indexMadeAnew);
  EXPECT_FALSE(result.documentsLost.empty());
  for (const LostDocument& lost : result.documentsLost) {
    EXPECT_THAT(lost.key, HasSubstr("k1")) << "the other tables have the key";
  }
  EXPECT_EQ(result.documentsKept + result.documentsLost.size(), 100U);
  EXPECT_TRUE(check().isSound());
  const bool firstIsKept = result.documentsLost.front().key != "k100";
  EXPECT_THAT(found("jump fox"), SizeIs(result.documentsKept - (firstIsKept ? 1U : 0U)));
  EXPECT_THAT(found("hound"), ElementsAre("a", "b", "c"));
}

TEST_F(MaintenanceTest, DamageOutsideTheTextsLosesNoDocument) {
  write();
  for (const char* table : {"position.glass", "termlist.glass"}) {
    damage(collection() / "index" / table, kBlock + 4000);
    const Repair result = repair();
    EXPECT_EQ(result.documentsKept, 100U) << table;
    EXPECT_TRUE(result.losesNothing()) << table;
    EXPECT_TRUE(check().isSound());
  }
  EXPECT_THAT(found("\"jumping foxes\""), SizeIs(99));
}

// The engine begins with the root of each table.
TEST_F(MaintenanceTest, TablesThatCannotEvenBeOpenedLoseNoDocumentIfTheyHoldNone) {
  write();
  for (const char* table : {"position.glass", "termlist.glass"}) {
    const std::size_t size = read(collection() / "index" / table).size();
    std::ofstream(collection() / "index" / table, std::ios::binary | std::ios::trunc)
        << std::string(size, '\xAA');
    const Repair result = repair();
    EXPECT_TRUE(result.indexMadeAnew) << table;
    EXPECT_EQ(result.documentsKept, 100U) << table;
    EXPECT_TRUE(result.losesNothing()) << table;
    EXPECT_TRUE(check().isSound());
  }
  EXPECT_THAT(found("\"jumping foxes\""), SizeIs(99));
}

TEST_F(MaintenanceTest, CollectionWhoseTextsCannotBeFoundIsLeftAsItIs) {
  write();
  const std::filesystem::path table = collection() / "index" / "docdata.glass";
  const std::string damaged(read(table).size(), '\xAA');
  std::ofstream(table, std::ios::binary | std::ios::trunc) << damaged;
  EXPECT_THROW(repair(), ServerError);
  EXPECT_EQ(read(table), damaged);
  EXPECT_TRUE(std::filesystem::is_empty(data() / "before-repair")) << "nothing half made";
}

TEST_F(MaintenanceTest, HeadOfTheIndexIsTakenFromTheChecksums) {
  write();
  std::ofstream(collection() / "index/iamglass", std::ios::binary | std::ios::trunc) << "x";
  const Repair result = repair();
  EXPECT_TRUE(result.losesNothing());
  EXPECT_EQ(result.documentsKept, 100U);
  EXPECT_THAT(found("jump fox"), SizeIs(99));
}

TEST_F(MaintenanceTest, BatchesAreCheckedCountedAndKept) {
  const Batch first{
      "b1", {{{"x", {}, "hound"}, {"y", {}, "hound"}}, {"k101"}, "m1"}, {}, false, {}};
  const Batch second{"b2", {{{"z", {}, "hound"}}, {}, "m2"}, {}, false, {}};
  write();
  {
    LocalStore store(data(), {});
    store.apply("c", first);
    store.updateIndex("c");
    store.apply("c", second);
    store.addDocument("c", {"last", {}, "terrier"});
  }
  EXPECT_TRUE(check().isSound());
  EXPECT_EQ(check().changes, 2U);
  damage(collection() / "journal-0000000003",
         read(collection() / "journal-0000000003").find("terr"));
  EXPECT_FALSE(repair().losesNothing());
  EXPECT_TRUE(check().isSound());
  LocalStore store(data(), {});
  EXPECT_EQ(store.apply("c", first).documents, 2U);
  EXPECT_EQ(store.apply("c", second).documents, 1U);
  EXPECT_EQ(store.summary("c").mark, "m2");
  EXPECT_EQ(store.summary("c").pending, 1U);
}

TEST_F(MaintenanceTest, DamagedMemoryOfBatchesIsReportedAndOnlyThatIsLost) {
  const std::filesystem::path batches = collection() / "batches";
  write();
  {
    LocalStore store(data(), {});
    store.apply("c", {"b1", {{{"x", {}, "hound"}}, {}, "m1"}, {}, false, {}});
    store.updateIndex("c");
    store.apply("c", {"b2", {{{"y", {}, "hound"}}, {}, {}}, {}, false, {}});
  }
  for (const bool gone : {false, true}) {
    if (gone) {
      std::filesystem::remove(batches);
    } else {
      damage(batches, 10);
    }
    const CollectionCheck found = check();
    ASSERT_THAT(found.journal, SizeIs(1)) << gone;
    EXPECT_EQ(found.journal[0].damage.file, batches);
    EXPECT_FALSE(repair().losesNothing());
    EXPECT_TRUE(check().isSound());
    LocalStore store(data(), {});
    EXPECT_EQ(store.summary("c").mark, "");
    EXPECT_THROW(store.batchOutcome("c", "b1"), ServerError);
    EXPECT_EQ(store.batchOutcome("c", "b2").documents, 1U);
  }
  EXPECT_THAT(found("hound"), ElementsAre("a", "b", "c", "x", "y"));
}

TEST_F(MaintenanceTest, ChecksumsThatCannotBeReadAreMadeAnew) {
  write();
  damage(collection() / "index-sums", 40);
  const Repair result = repair();
  EXPECT_TRUE(result.losesNothing());
  EXPECT_FALSE(result.indexMadeAnew);
  EXPECT_TRUE(check().isSound());
}

}  // namespace
}  // namespace corvaned
