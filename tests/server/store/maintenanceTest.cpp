#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <spdlog/spdlog.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xapian.h>

#include <csignal>
#include <exception>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "server/base/errors.h"
#include "server/store/collectionOptions.h"
#include "server/store/directory.h"
#include "server/store/indexParts.h"
#include "server/store/indexSums.h"
#include "server/store/localStore.h"
#include "server/store/maintenance.h"
#include "tests/support/sanitized.h"
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
  std::filesystem::path segment(const char* name = "journal-0000000002") const {
    return collection() / name;
  }

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

// Where a disk has failed the system often lets nobody write to it any more.
class ReadOnlyTest : public MaintenanceTest {
 protected:
  static constexpr int kSkipped = 77;

  /// The exit code of a process that does the work while it can write nothing to the data.
  template <typename Work>
  int doReadOnly(const Work& work) const {
    const pid_t child = ::fork();
    if (child == 0) {
      if (!makeReadOnly()) ::_exit(kSkipped);
      int code = 1;
      try {
        code = work();
      } catch (const std::exception& error) {
        std::cerr << error.what() << "\n";
      }
      ::_exit(code);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  void expectSuccess(int code) const {
    if (code == kSkipped) GTEST_SKIP() << "this process may not mount anything";
    EXPECT_EQ(code, 0);
  }

 private:
  // For a process of its own, which may also belong to somebody who can do so nowhere else.
  bool makeReadOnly() const {
    const uid_t user = ::geteuid();
    if (::unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0) return false;
    if (user != 0) std::ofstream("/proc/self/uid_map") << fmt::format("{0} {0} 1\n", user);
    const std::string place = data().string();
    const char* const path = place.c_str();
    return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount(path, path, nullptr, MS_BIND, nullptr) == 0 &&
           ::mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
  }
};

TEST_F(ReadOnlyTest, CollectionsAreCheckedWithOrWithoutTheLockFile) {
  write();
  for (const bool hasFile : {true, false}) {
    if (!hasFile) std::filesystem::remove(data() / "LOCK");
    expectSuccess(doReadOnly([&] {
      const CollectionCheck check = Maintenance(data()).check("c");
      return check.isSound() && check.engineLeftOut ? 0 : 2;
    }));
    EXPECT_FALSE(Maintenance(data()).check("c").engineLeftOut);
  }
}

TEST_F(ReadOnlyTest, DirectoryOfARunningServerIsRefused) {
  write();
  const LocalStore store(data(), {});
  expectSuccess(doReadOnly([&] {
    try {
      const Maintenance maintenance(data());
      return 2;
    } catch (const ServerError& error) {
      return std::string(error.what()).find("in use by another server") == std::string::npos ? 3
                                                                                             : 0;
    }
  }));
}

TEST_F(ReadOnlyTest, UnfinishedReplacementIsNamedAndLeftAlone) {
  write();
  std::filesystem::create_directory(collection() / "index-rebuilt");
  expectSuccess(doReadOnly([&] {
    try {
      static_cast<void>(Maintenance(data()).check("c"));
      return 2;
    } catch (const ServerError& error) {
      return std::string(error.what()).find("read-only") == std::string::npos ? 3 : 0;
    }
  }));
}

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

TEST_F(MaintenanceTest, WhatIsBesideTheCollectionsIsPassedOver) {
  write();
  std::filesystem::create_directory(data() / "collections" / "foo.bar");
  std::filesystem::create_directory(data() / "collections" / ".c.new");
  std::ofstream(data() / "collections" / "notes") << "a file with a collection's name";
  EXPECT_THAT(Maintenance(data()).collections(), ElementsAre("c"));
}

TEST_F(MaintenanceTest, CheckTellsWhatWasBeingWritten) {
  write();
  std::ofstream(segment(), std::ios::binary | std::ios::app) << "KRJ2cut off";
  EXPECT_TRUE(check().isSound());
  EXPECT_EQ(check().unfinishedBytes, 11U);
  EXPECT_THAT(check().setAside, IsEmpty());
  EXPECT_THAT(found("hound"), SizeIs(3));
  EXPECT_EQ(check().unfinishedBytes, 0U);
  EXPECT_THAT(check().setAside, ElementsAre(segment("journal-dropped-1")));
  EXPECT_EQ(read(segment("journal-dropped-1")), "KRJ2cut off");
}

TEST_F(MaintenanceTest, DamageAtTheEndIsNotCalledUnfinished) {
  write();
  damage(segment(), read(segment()).size() - 5);
  EXPECT_THAT(check().journal, SizeIs(1));
  EXPECT_EQ(check().unfinishedBytes, 0U);
}

TEST_F(MaintenanceTest, WhatAKilledRepairHasMadeIsRemovedByTheNext) {
  write();
  damage(segment(), 40);
  const std::filesystem::path half = data() / "before-repair" / "c.1";
  const std::filesystem::path original = data() / "before-repair" / "d.1";
  std::filesystem::create_directories(half / "index");
  std::ofstream(half / "repair-incomplete") << "";
  std::filesystem::create_directories(data() / "before-repair" / "c.1.reading");
  std::filesystem::create_directories(original);
  EXPECT_EQ(repair().original, half);
  EXPECT_EQ(read(half / "journal-0000000002").substr(0, 4), "KRJ2");
  EXPECT_FALSE(std::filesystem::exists(half / "repair-incomplete"));
  EXPECT_FALSE(std::filesystem::exists(collection() / "repair-incomplete"));
  EXPECT_FALSE(std::filesystem::exists(data() / "before-repair" / "c.1.reading"));
  EXPECT_TRUE(std::filesystem::exists(original));
}

// Killed after the exchange, the mark is in the repaired collection. What is an original later must
// not be taken for a half copy.
TEST_F(MaintenanceTest, OriginalIsNotTakenForAHalfCopy) {
  write();
  std::ofstream(collection() / "repair-incomplete") << "";
  damage(segment(), 40);
  const std::filesystem::path original = repair().original;
  damage(segment("journal-0000000001"), 40);
  EXPECT_EQ(repair().original, data() / "before-repair" / "c.2");
  EXPECT_TRUE(std::filesystem::exists(original / "journal-0000000002"));
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

/// Files cannot grow beyond so many bytes, as on a disk that is full.
class LimitedFiles {
 public:
  explicit LimitedFiles(rlim_t bytes) {
    ::getrlimit(RLIMIT_FSIZE, &earlier_);
    const rlimit limited{bytes, earlier_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limited);
    handler_ = std::signal(SIGXFSZ, SIG_IGN);
  }
  ~LimitedFiles() {
    ::setrlimit(RLIMIT_FSIZE, &earlier_);
    std::signal(SIGXFSZ, handler_);
  }
  LimitedFiles(const LimitedFiles&) = delete;
  LimitedFiles& operator=(const LimitedFiles&) = delete;

 private:
  rlimit earlier_{};
  void (*handler_)(int) = SIG_DFL;
};

/// A collection that has lost most of what it had.
class CompactionTest : public MaintenanceTest, public ::testing::WithParamInterface<std::size_t> {
 protected:
  std::filesystem::path index() const { return collection() / "index"; }

  /// Of 600 documents, indexed in three steps, every third stays; two changes are in the journal.
  void writeAndDelete() const {
    StoreLimits limits;
    limits.parts = GetParam();
    LocalStore store(data(), limits);
    store.createCollection("c", "en");
    for (int i = 0; i < 600; ++i) {
      store.addDocument("c", {key(i), {{"n", std::to_string(i)}}, text(i) + " jumping foxes"});
      if (i % 200 == 199) store.updateIndex("c");
    }
    for (int i = 0; i < 600; ++i) {
      if (i % 3 != 0) store.deleteDocument("c", key(i));
    }
    store.updateIndex("c");
    store.addDocument("c", {"new", {}, "hound"});
    store.deleteDocument("c", key(0));
  }

  static std::string key(int i) { return "k" + std::to_string(i); }

  struct Found {
    std::string key;
    std::uint16_t milliScore = 0;
    bool operator==(const Found&) const = default;
  };

  std::vector<Found> ranked(const std::string& text) const {
    LocalStore store(data(), {});
    SearchQuery query;
    query.text = text;
    const auto hits = store.search("c", query);
    std::vector<Found> all;
    for (Hit hit; hits->next(hit);) all.push_back({hit.key, hit.milliScore});
    return all;
  }

  /// All that the databases have, in the order of their numbers.
  std::vector<std::string> documents() const {
    std::vector<std::string> all;
    const IndexParts parts = IndexParts::in(index());
    for (const std::filesystem::path& part : parts.paths()) {
      const Xapian::Database database(part.string());
      for (auto next = database.postlist_begin(""); next != database.postlist_end(""); ++next) {
        all.push_back(fmt::format("{} {}:{}", part.filename().string(), *next,
                                  shown(database.get_document(*next))));
      }
    }
    return all;
  }

  static std::string shown(const Xapian::Document& document) {
    std::string all = document.get_data();
    for (auto value = document.values_begin(); value != document.values_end(); ++value) {
      all += fmt::format(" {}={}", value.get_valueno(), *value);
    }
    for (auto term = document.termlist_begin(); term != document.termlist_end(); ++term) {
      all += fmt::format(" {} {}", *term, term.get_wdf());
      for (auto at = term.positionlist_begin(); at != term.positionlist_end(); ++at) {
        all += fmt::format(",{}", *at);
      }
    }
    return all;
  }

  Compaction compact() const { return Maintenance(data()).compact("c"); }
};

TEST_P(CompactionTest, GivesRoomBackAndChangesNothingElse) {
  writeAndDelete();
  const std::vector<std::string> before = documents();
  const std::vector<Found> foxes = ranked("fox OR w23757");
  ASSERT_THAT(before, SizeIs(200));
  ASSERT_THAT(foxes, SizeIs(199)) << "a deletion waits";
  const Compaction result = compact();
  EXPECT_LT(result.after * 2, result.before);
  EXPECT_EQ(result.after, bytesInTree(index()));
  EXPECT_EQ(documents(), before);
  EXPECT_EQ(ranked("fox OR w23757"), foxes);
  EXPECT_TRUE(check().isSound());
  EXPECT_EQ(check().changes, 2U) << "the journal stays";
  EXPECT_FALSE(std::filesystem::exists(collection() / "index-rebuilding"));
  EXPECT_FALSE(std::filesystem::exists(collection() / "index-rebuilt"));
  EXPECT_FALSE(std::filesystem::exists(collection() / "index-replaced"));
}

TEST_P(CompactionTest, IndexGoesOnAfterwards) {
  writeAndDelete();
  compact();
  EXPECT_THAT(found("hound"), ElementsAre("new"));
  {
    LocalStore store(data(), {});
    for (int i = 0; i < 600; ++i) store.addDocument("c", {key(i), {}, text(i) + " terrier"});
    store.updateIndex("c");
  }
  EXPECT_THAT(found("terrier"), SizeIs(600));
  EXPECT_THAT(found("fox"), IsEmpty());
  EXPECT_TRUE(check().isSound());
  compact();
  EXPECT_THAT(found("terrier"), SizeIs(600));
  EXPECT_TRUE(check().isSound());
}

TEST_P(CompactionTest, DamagedCollectionIsLeftAsItIs) {
  writeAndDelete();
  const std::filesystem::path table = IndexParts::in(index()).paths().back() / "postlist.glass";
  damage(table, kBlock + 100);
  const std::string bytes = read(table);
  EXPECT_THROW(compact(), ServerError);
  EXPECT_EQ(read(table), bytes);
  damage(table, kBlock + 100);
  damage(segment("journal-0000000005"), 40);
  EXPECT_THROW(compact(), ServerError);
}

TEST_P(CompactionTest, DiskWithoutRoomLeavesTheIndexAsItIs) {
  writeAndDelete();
  const std::vector<std::string> before = documents();
  {
    const LimitedFiles limited(3 * kBlock);
    const tq::test::LeaksOfOthers engine;
    EXPECT_THROW(compact(), ServerError);
  }
  EXPECT_EQ(documents(), before);
  EXPECT_FALSE(std::filesystem::exists(collection() / "index-rebuilding"));
  EXPECT_TRUE(check().isSound());
}

TEST_P(CompactionTest, WhatACrashHasLeftIsNoPartOfTheIndex) {
  writeAndDelete();
  const std::vector<std::string> before = documents();
  std::filesystem::create_directories(collection() / "index-rebuilding" / "index" / "part-0");
  compact();
  EXPECT_EQ(documents(), before);
}

TEST_F(MaintenanceTest, CompactionOfACollectionThatIsNotThereIsRefused) {
  write();
  EXPECT_THROW(Maintenance(data()).compact("d"), ServerError);
}

INSTANTIATE_TEST_SUITE_P(Databases, CompactionTest, ::testing::Values(1, 3));

}  // namespace
}  // namespace corvaned
