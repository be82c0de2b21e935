#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <xapian.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "server/base/bytes.h"
#include "server/base/errors.h"
#include "server/store/checksum.h"
#include "server/store/collection.h"
#include "server/store/collectionOptions.h"
#include "server/store/damage.h"
#include "server/store/indexSums.h"
#include "server/store/localStore.h"
#include "server/store/maintenance.h"
#include "server/store/xapianIndex.h"
#include "tests/server/store/descriptorLimit.h"
#include "tests/support/temporaryDirectory.h"

// A collection in which single bits were changed: it holds all that it should, or is refused with
// the file and the place. Every byte of every file takes its turn with KRUCOMM_LONG=1, otherwise a
// sample that is always the same.
namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class DamageTest : public ::testing::Test {
 protected:
  using Files = std::map<std::filesystem::path, std::string>;
  using Keys = std::vector<std::string>;

  // What was being written when a server stopped is logged when it is dropped.
  DamageTest() { spdlog::set_level(spdlog::level::off); }

  std::filesystem::path data() const { return directory_.path() / "data"; }
  std::filesystem::path collection() const { return data() / "collections" / "c"; }
  std::filesystem::path sums() const { return collection() / "index-sums"; }

  /// Three documents in the index; a fourth one and the removal of the third in the journal.
  void write() const {
    StoreLimits limits;
    limits.parts = parts_;
    LocalStore store(data(), limits);
    store.createCollection("c", "en");
    for (const char* key : {"k1", "k2", "k3"}) add(store, key);
    store.updateIndex("c");
    add(store, "k4");
    store.deleteDocument("c", "k3");
  }

  static void add(LocalStore& store, const std::string& key) {
    store.addDocument("c", {key, {{"title", "about " + key}}, "the quick brown fox"});
  }

  static Keys found(LocalStore& store) {
    SearchQuery query;
    query.text = "fox";
    const auto hits = store.search("c", query);
    Keys keys;
    for (Hit hit; hits->next(hit);) keys.push_back(hit.key);
    return keys;
  }

  static std::string read(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  static void rewrite(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  }

  Files files() const {
    Files files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(collection())) {
      if (entry.is_regular_file()) files[entry.path()] = read(entry.path());
    }
    return files;
  }

  void restore(const Files& files) const {
    std::filesystem::remove_all(collection());
    for (const auto& [path, bytes] : files) {
      std::filesystem::create_directories(path.parent_path());
      rewrite(path, bytes);
    }
  }

  /// Why the collection is refused; empty if it holds all that it should, also after an update.
  std::string refusal() const {
    LocalStore store(data(), {});
    try {
      EXPECT_THAT(found(store), ElementsAre("k1", "k2"));
      store.updateIndex("c");
      EXPECT_THAT(found(store), ElementsAre("k1", "k2", "k4"));
      return {};
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::StorageFailed);
      return error.what();
    }
  }

  template <typename Work>
  static std::string refusalOf(const Work& work) {
    try {
      work();
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::StorageFailed);
      return error.what();
    }
    return {};
  }

  void expectEachChangedBitToBeHarmlessOrNamed() const;
  void expectCutOrMissingFilesToBeNamed() const;

  tq::test::TemporaryDirectory directory_;
  // How many databases the index has.
  std::size_t parts_ = 1;
};

void DamageTest::expectEachChangedBitToBeHarmlessOrNamed() const {
  write();
  const Files whole = files();
  std::vector<std::pair<std::filesystem::path, std::size_t>> places;
  for (const auto& [path, bytes] : whole) {
    for (std::size_t i = 0; i < bytes.size(); ++i) places.emplace_back(path, i);
  }
  std::mt19937 random(1);
  std::shuffle(places.begin(), places.end(), random);
  if (std::getenv("KRUCOMM_LONG") == nullptr) places.resize(500);
  std::map<std::string, int> refused;
  for (const auto& [path, place] : places) {
    std::string bytes = whole.at(path);
    const auto bit = random() % 8;
    SCOPED_TRACE(path.string() + " byte " + std::to_string(place) + " bit " + std::to_string(bit));
    bytes[place] = static_cast<char>(bytes[place] ^ (1 << bit));
    rewrite(path, bytes);
    const std::string reason = refusal();
    if (reason.empty()) {
      restore(whole);
      continue;
    }
    ++refused[path.filename().string()];
    EXPECT_THAT(reason, HasSubstr(path.string()));
    EXPECT_THAT(reason, HasSubstr(" is damaged at byte "));
    EXPECT_TRUE(read(path) == bytes) << "a damaged file was changed";
    rewrite(path, whole.at(path));
    ASSERT_FALSE(HasFailure());
  }
  for (const char* name : {"postlist.glass", "termlist.glass", "docdata.glass", "position.glass"}) {
    EXPECT_GT(refused[name], 10) << name;
  }
}

void DamageTest::expectCutOrMissingFilesToBeNamed() const {
  write();
  const Files whole = files();
  std::size_t tables = 0;
  for (const auto& [path, bytes] : whole) {
    const bool isInIndex = *path.lexically_relative(collection()).begin() == "index";
    if (!isInIndex || path.filename() == "flintlock") continue;
    if (path.extension() == kTableSuffix) ++tables;
    SCOPED_TRACE(path.string());
    for (const std::size_t length : {std::size_t{0}, bytes.size() / 2, bytes.size() - 1}) {
      rewrite(path, bytes.substr(0, length));
      EXPECT_THAT(refusal(), HasSubstr(path.string()));
    }
    rewrite(path, bytes + "x");
    EXPECT_THAT(refusal(), HasSubstr(path.string()));
    std::filesystem::remove(path);
    EXPECT_THAT(refusal(), HasSubstr(path.string() + " is damaged at byte 0: the file is missing"));
    restore(whole);
  }
  EXPECT_EQ(tables, 4 * parts_);
}

TEST_F(DamageTest, EveryChangedBitIsHarmlessOrNamed) { expectEachChangedBitToBeHarmlessOrNamed(); }

TEST_F(DamageTest, FilesOfTheIndexThatAreCutOrMissingAreNamed) {
  expectCutOrMissingFilesToBeNamed();
}

TEST_F(DamageTest, EveryChangedBitOfTwoDatabasesIsHarmlessOrNamed) {
  parts_ = 2;
  expectEachChangedBitToBeHarmlessOrNamed();
}

TEST_F(DamageTest, FilesOfTwoDatabasesThatAreCutOrMissingAreNamed) {
  parts_ = 2;
  expectCutOrMissingFilesToBeNamed();
}

// A collection would silently become one that is updated on request only.
TEST_F(DamageTest, OptionsThatAreGoneAreMissed) {
  {
    LocalStore store(data(), {});
    store.createCollection("c", "en", {Refresh::Mode::Immediate, {}});
    add(store, "k1");
  }
  std::filesystem::remove(optionsPath(collection()));
  {
    LocalStore store(data(), {});
    EXPECT_THAT(refusalOf([&] { store.openCollection("c"); }),
                HasSubstr(optionsPath(collection()).string() + " is damaged at byte 0"));
  }
  EXPECT_FALSE(Maintenance(data()).check("c").isSound());
}

TEST_F(DamageTest, ChecksumsThatAreGoneAreMissed) {
  write();
  std::filesystem::remove(sums());
  EXPECT_THAT(refusal(), HasSubstr(sums().string()));
}

TEST_F(DamageTest, NumbersThatAreGoneAreMissedAlsoWithoutChanges) {
  write();
  for (const auto& [path, bytes] : files()) {
    if (path.filename().string().starts_with("journal-")) std::filesystem::remove(path);
  }
  EXPECT_THAT(refusal(), HasSubstr("journal-0000000000"));
}

TEST_F(DamageTest, DamageSinceTheOpeningIsNoticedBeforeAnUpdateAndWrittenNowhere) {
  write();
  LocalStore store(data(), {});
  store.openCollection("c");
  const std::filesystem::path table = collection() / "index" / "docdata.glass";
  std::string bytes = read(table);
  bytes[bytes.size() - 100] = static_cast<char>(bytes[bytes.size() - 100] ^ 4);
  rewrite(table, bytes);
  EXPECT_THAT(refusalOf([&] { store.updateIndex("c"); }), HasSubstr(table.string()));
  EXPECT_TRUE(read(table) == bytes) << "it was changed";
}

// The engine takes such a block for one of a later state of the index, and says that this has
// changed.
TEST_F(DamageTest, BlockThatSeemsToBeLaterIsNamedByTheSearchThatMeetsIt) {
  write();
  LocalStore store(data(), {});
  store.openCollection("c");
  const std::filesystem::path table = collection() / "index" / "postlist.glass";
  {
    std::fstream file(table, std::ios::binary | std::ios::in | std::ios::out);
    const auto blocks = std::filesystem::file_size(table) / kTableBlock;
    for (std::size_t i = 0; i < blocks; ++i) {
      file.seekp(static_cast<std::streamoff>(i * kTableBlock));
      file << std::string(4, '\x7F');
    }
  }
  for (int times = 0; times < 2; ++times) {
    EXPECT_THAT(refusalOf([&] { found(store); }),
                AllOf(HasSubstr(table.string() + " is damaged at byte 0"),
                      HasSubstr("corvaned repair"), HasSubstr("restore")));
  }
  EXPECT_THAT(refusalOf([&] { store.estimate("c", "fox"); }), HasSubstr(table.string()));
}

TEST_F(DamageTest, FileThatIsCutOffIsNamedByTheSearchThatMeetsIt) {
  write();
  LocalStore store(data(), {});
  store.createCollection("d", "en");
  store.openCollection("c");
  const std::filesystem::path table = collection() / "index" / "postlist.glass";
  std::filesystem::resize_file(table, 0);
  EXPECT_THAT(refusalOf([&] { found(store); }),
              HasSubstr(table.string() + " is damaged at byte 0"));
  SearchQuery query;
  query.text = "fox";
  EXPECT_THAT(refusalOf([&] {
                store.details(std::vector<std::string>{"c", "d"}, query, {});
              }),
              HasSubstr(table.string()));
}

TEST_F(DamageTest, DamageThatAnUpdateMeetsIsNamed) {
  const std::filesystem::path path = directory_.path() / "c";
  std::filesystem::create_directory(path);
  Collection::create(path, {"en", {}}, {Refresh::Mode::Immediate, {}});
  const std::atomic<bool> stopping = false;
  // Without a store, which would bring the index to rest after a while.
  Collection collection("c", path, {}, std::make_shared<ParseOutcomes>(10), stopping);
  const auto add = [&](const std::string& key) {
    const auto ticket = collection.add({key, {}, "fox"});
    ASSERT_TRUE(collection.takeOnIndexing());
    while (collection.indexStep()) {
    }
    ticket->requireSuccess();
  };
  // From here on the index is not compared before the next change.
  add("k1");
  ASSERT_TRUE(std::filesystem::exists(path / "index-sums-changing"));
  const std::filesystem::path table = path / "index" / "postlist.glass";
  std::filesystem::resize_file(table, 0);
  EXPECT_THAT(refusalOf([&] { add("k2"); }), HasSubstr(table.string() + " is damaged"));
}

TEST_F(DamageTest, LookForDamageThatAnUpdateHasMetCanBeStopped) {
  write();
  XapianIndex index(collection(), {});
  index.beginUpdate();
  const auto looksWhileApplying = [&](const std::string& key) {
    int looks = 0;
    const std::vector<Change> changes{{ChangeKind::Put, {key, {}, "fox"}}};
    try {
      index.applyBatch(changes, [&] { ++looks; });
    } catch (const ServerError&) {
    }
    return looks;
  };
  const int sound = looksWhileApplying("k8");
  std::filesystem::resize_file(collection() / "index" / "postlist.glass", 0);
  EXPECT_GT(looksWhileApplying("k9"), sound);
}

// They write blocks that are newer than anything was when the look began.
TEST_F(DamageTest, TransactionsDuringALookForDamageAreNone) {
  write();
  XapianIndex index(collection(), {});
  int documents = 0;
  const auto commit = [&] {
    index.beginUpdate();
    for (int i = 0; i < 4; ++i) {
      const std::string key = "more" + std::to_string(++documents);
      const std::vector<Change> changes{{ChangeKind::Put, {key, {}, "fox"}}};
      index.applyBatch(changes, [] {});
    }
  };
  const std::optional<Damage> damage = IndexSums::damageIn(collection(), commit);
  EXPECT_FALSE(damage) << describe(*damage);
  EXPECT_GT(documents, 8);
}

TEST_F(DamageTest, DamageOfOneCollectionLeavesTheOthersAlone) {
  write();
  rewrite(collection() / "index" / "iamglass", "x");
  LocalStore store(data(), {});
  store.createCollection("d", "en");
  EXPECT_THAT(refusalOf([&] { store.openCollection("c"); }), HasSubstr("iamglass"));
  store.addDocument("d", {"k", {}, "fox"});
  store.updateIndex("d");
  EXPECT_EQ(store.estimate("d", "fox").hits, 1U);
}

TEST_F(DamageTest, DamagedCollectionIsDroppedAndMadeAnew) {
  write();
  for (const char* file : {"index/iamglass", "index/postlist.glass", "index-sums",
                           "journal-0000000000", "journal-0000000002"}) {
    SCOPED_TRACE(file);
    rewrite(collection() / file, "x");
    LocalStore store(data(), {});
    EXPECT_THAT(refusalOf([&] { store.openCollection("c"); }), HasSubstr(file));
    store.deleteCollection("c");
    EXPECT_FALSE(std::filesystem::exists(collection()));
    store.createCollection("c", "en");
    EXPECT_THAT(found(store), IsEmpty());
    add(store, "k1");
    store.updateIndex("c");
    EXPECT_THAT(found(store), ElementsAre("k1"));
    add(store, "k2");
  }
}

TEST_F(DamageTest, VerifyingEndsWhenItIsTold) {
  write();
  IndexSums checked(collection());
  int calls = 0;
  const auto stopAtSecond = [&] {
    if (++calls == 2) throw ServerError(ErrorKind::TryAgain, "stop");
  };
  EXPECT_THROW(checked.verify(stopAtSecond), ServerError);
  EXPECT_EQ(calls, 2);
  EXPECT_NO_THROW(checked.verify([] {}));
}

TEST_F(DamageTest, InterruptedUpdateIsGoneOnWithAndItsOldBlocksAreStillWatched) {
  write();
  {
    LocalStore store(data(), {});
    store.openCollection("c");
  }
  // As after a crash between the update's beginning and its end.
  std::filesystem::rename(sums(), collection() / "index-sums-changing");
  const Files whole = files();
  EXPECT_EQ(refusal(), "");
  EXPECT_TRUE(std::filesystem::exists(sums()));
  EXPECT_FALSE(std::filesystem::exists(collection() / "index-sums-changing"));
  restore(whole);
  const std::filesystem::path table = collection() / "index" / "postlist.glass";
  std::string bytes = whole.at(table);
  // Behind the head of the block, which says when it was written.
  bytes[8192 + 100] = static_cast<char>(bytes[8192 + 100] ^ 1);
  rewrite(table, bytes);
  EXPECT_THAT(refusal(), HasSubstr(table.string() + " is damaged at byte 8192"));
}

// Such a block looks as if the update had written it, were it not for what the index has come to.
TEST_F(DamageTest, OldBlockOfAnInterruptedUpdateIsWatchedInWhatSaysWhenItWasWritten) {
  for (const std::size_t parts : {1U, 2U}) {
    SCOPED_TRACE(parts);
    parts_ = parts;
    std::filesystem::remove_all(data());
    write();
    {
      LocalStore store(data(), {});
      store.openCollection("c");
    }
    std::filesystem::rename(sums(), collection() / "index-sums-changing");
    const Files whole = files();
    for (const auto& [path, content] : whole) {
      if (path.extension() != ".glass" || content.empty()) continue;
      for (const std::size_t bit : {3U, 9U, 31U}) {
        std::string bytes = content;
        char& changed = bytes[3 - bit / 8];
        changed = static_cast<char>(changed ^ static_cast<char>(1U << bit % 8));
        rewrite(path, bytes);
        EXPECT_THAT(refusal(), HasSubstr(path.string() + " is damaged at byte 0")) << bit;
        restore(whole);
      }
    }
  }
}

TEST_F(DamageTest, IndexOfAnEarlierVersionGetsChecksums) {
  {
    LocalStore store(data(), {});
    store.createCollection("c", "en");
  }
  for (const char* file : {"index-sums", "journal-0000000000", "journal-0000000001"}) {
    std::filesystem::remove(collection() / file);
  }
  LocalStore store(data(), {});
  EXPECT_EQ(store.state("c"), CollectionState::Current);
  EXPECT_TRUE(std::filesystem::exists(sums()));
}

TEST_F(DamageTest, EveryBlockThatAnUpdateWritesHasItsChecksum) {
  LocalStore store(data(), {});
  store.createCollection("c", "en");
  for (int round = 0; round < 30; ++round) {
    for (int i = 0; i < 20; ++i) {
      const std::string text = "word" + std::to_string(round * 7 + i) + " common " +
                               std::string(static_cast<std::size_t>(100 * (i % 5)), 'x');
      store.addDocument("c", {"k" + std::to_string((round * 13 + i) % 200), {}, text});
    }
    if (round % 3 == 0) store.deleteDocument("c", "k" + std::to_string(round));
    store.updateIndex("c");
    EXPECT_EQ(refusalOf([&] { IndexSums(collection()).verify(); }), "") << round;
  }
}

/// The checksums of a collection that no store has open, and changes of its index.
class AgeTest : public DamageTest {
 protected:
  /// The files of the index, or all others, as they were before three more updates.
  void putBack(bool ofIndex) const {
    write();
    const Files before = files();
    {
      LocalStore store(data(), {});
      store.addDocument("c", {"k4", {}, "the slow hound"});
      for (const char* key : {"k5", "k6", "k7"}) {
        add(store, key);
        store.updateIndex("c");
      }
      add(store, "k8");
    }
    for (const auto& [path, bytes] : files()) {
      if (isOfIndex(path) == ofIndex) std::filesystem::remove(path);
    }
    for (const auto& [path, bytes] : before) {
      if (isOfIndex(path) == ofIndex) rewrite(path, bytes);
    }
  }

  bool isOfIndex(const std::filesystem::path& path) const {
    return path.lexically_relative(collection()).string().starts_with("index");
  }

  std::string opening() const {
    return refusalOf([&] { LocalStore(data(), {}).openCollection("c"); });
  }

  /// As an earlier version wrote them.
  void forgetNumber() const {
    std::string bytes = read(sums());
    bytes.resize(bytes.size() - 12);
    appendU32(bytes, checksumOf(bytes));
    rewrite(sums(), bytes);
  }
};

TEST_F(AgeTest, IndexThatIsOlderThanTheJournalIsRefusedAndRepaired) {
  putBack(true);
  EXPECT_THAT(opening(), AllOf(HasSubstr(sums().string()), HasSubstr("older than the journal")));
  const CollectionCheck check = Maintenance(data()).check("c");
  ASSERT_EQ(check.journal.size(), 1U);
  // The first three are in the index; of the later ones only the last is still in the journal.
  EXPECT_EQ(check.journal.front().firstLost, 4U);
  EXPECT_EQ(check.journal.front().lastLost, 9U);
  const Repair repair = Maintenance(data()).repair("c");
  EXPECT_FALSE(repair.losesNothing());
  EXPECT_EQ(repair.changesKept, 1U);
  EXPECT_EQ(opening(), "");
  LocalStore store(data(), {});
  store.updateIndex("c");
  EXPECT_THAT(found(store), ElementsAre("k1", "k2", "k3", "k8"));
}

TEST_F(AgeTest, JournalThatIsOlderThanTheIndexIsRefusedAndRepaired) {
  putBack(false);
  EXPECT_THAT(opening(), HasSubstr("older than the index"));
  EXPECT_FALSE(Maintenance(data()).check("c").isSound());
  const Repair repair = Maintenance(data()).repair("c");
  EXPECT_FALSE(repair.losesNothing());
  EXPECT_EQ(repair.changesKept, 0U) << "what the index has had is not brought back";
  EXPECT_EQ(opening(), "");
  LocalStore store(data(), {});
  store.updateIndex("c");
  EXPECT_THAT(found(store), ElementsAre("k1", "k2", "k5", "k6", "k7"))
      << "the fourth has been changed since by what the index has";
}

TEST_F(AgeTest, ChecksumsOfAnEarlierVersionAreTakenAndGetTheNumber) {
  write();
  forgetNumber();
  EXPECT_EQ(IndexSums(collection()).lastChange(), std::nullopt);
  EXPECT_TRUE(Maintenance(data()).check("c").isSound());
  EXPECT_EQ(refusal(), "");
  EXPECT_EQ(IndexSums(collection()).lastChange(), 5U);
}

TEST_F(AgeTest, NumberSurvivesWhatMakesTheIndexAnew) {
  write();
  EXPECT_EQ(IndexSums(collection()).lastChange(), 3U);
  static_cast<void>(Maintenance(data()).compact("c"));
  EXPECT_EQ(IndexSums(collection()).lastChange(), 3U);
  EXPECT_EQ(refusal(), "");
  EXPECT_EQ(IndexSums(collection()).lastChange(), 5U);
}

// Killed after the checksums were written and before the journal was cut off.
TEST_F(AgeTest, IndexThatIsAheadOfTheMarkIsSound) {
  write();
  const Files before = files();
  EXPECT_EQ(refusal(), "");
  for (const auto& [path, bytes] : before) {
    if (!isOfIndex(path)) rewrite(path, bytes);
  }
  EXPECT_TRUE(Maintenance(data()).check("c").isSound());
  EXPECT_EQ(opening(), "");
}

class IndexSumsTest : public DamageTest {
 protected:
  IndexSumsTest() {
    write();
    sums_.emplace(collection());
  }

  void change() {
    sums_->beginChange();
    Xapian::WritableDatabase database((collection() / "index").string());
    Xapian::Document document;
    document.add_term("hound");
    database.add_document(document);
    database.commit();
    revisions_ = {{"", database.get_revision()}};
  }

  bool isChanging() const {
    return std::filesystem::exists(IndexSums::changingPathIn(collection()));
  }

  std::optional<IndexSums> sums_;
  IndexRevisions revisions_;
};

TEST_F(IndexSumsTest, WhatCouldNotBeReadIsReadByTheNextAttempt) {
  for (int round = 0; round < 5; ++round) {
    change();
    {
      // Enough to list the directory, and for none of its files.
      const test::DescriptorLimit few(1);
      EXPECT_THROW(sums_->endChange(revisions_), ServerError);
    }
    sums_->endChange(revisions_);
    EXPECT_EQ(refusalOf([&] { IndexSums(collection()).verify(); }), "") << round;
  }
}

TEST_F(IndexSumsTest, BlockOfNoRevisionIsNotTakenForANewOne) {
  change();
  const std::filesystem::path table = collection() / "index" / "docdata.glass";
  std::string bytes = read(table);
  bytes[0] = '\x40';
  rewrite(table, bytes);
  EXPECT_THAT(refusalOf([&] { sums_->endChange(revisions_); }),
              HasSubstr(table.string() + " is damaged at byte 0"));
  bytes[0] = '\0';
  rewrite(table, bytes);
  sums_->endChange(revisions_);
  EXPECT_EQ(refusalOf([&] { IndexSums(collection()).verify(); }), "");
}

TEST_F(IndexSumsTest, NextChangeIsAnnouncedAfterAnEndThatFailedLate) {
  change();
  const std::filesystem::path changing = IndexSums::changingPathIn(collection());
  std::filesystem::remove(changing);
  // What is no file and not empty cannot be removed as one.
  std::filesystem::create_directories(changing / "x");
  EXPECT_ANY_THROW(sums_->endChange(revisions_));
  std::filesystem::remove_all(changing);
  change();
  EXPECT_TRUE(isChanging());
  EXPECT_EQ(refusalOf([&] { IndexSums(collection()).verify(); }), "") << "a crash in the middle";
}

TEST_F(IndexSumsTest, ChangeIsNotUnderWayBeforeItIsKnownToBeOnDisk) {
  // Reached for without a failure first: see DescriptorLimit.
  IndexSums& sums = *sums_;
  {
    const test::DescriptorLimit none(0);
    EXPECT_THROW(sums.beginChange(), ServerError);
  }
  EXPECT_TRUE(isChanging());
  EXPECT_FALSE(sums_->isChanging());
  sums_->beginChange();
  EXPECT_TRUE(sums_->isChanging());
}

}  // namespace
}  // namespace corvaned
