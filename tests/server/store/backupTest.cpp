#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xapian.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/store/backupKeeper.h"
#include "server/store/backupManifest.h"
#include "server/store/checksum.h"
#include "server/store/collection.h"
#include "server/store/collectionCopy.h"
#include "server/store/collectionOptions.h"
#include "server/store/directory.h"
#include "server/store/files.h"
#include "server/store/indexParts.h"
#include "server/store/indexReplacement.h"
#include "server/store/localStore.h"
#include "server/store/maintenance.h"
#include "server/store/registry.h"
#include "tests/server/logLines.h"
#include "tests/server/store/fileSizeLimit.h"
#include "tests/server/store/refusal.h"
#include "tests/server/store/slowCollection.h"
#include "tests/support/temporaryDirectory.h"

// Backups of collections in use, and what becomes of them. KRUCOMM_LONG=1 damages every byte of
// one, otherwise a sample that is always the same.
namespace corvaned {
namespace {

using test::refusal;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr Refresh kImmediate{Refresh::Mode::Immediate, {}};

using Texts = std::map<std::string, std::string>;

class BackupTest : public ::testing::Test {
 protected:
  // What is refused, and what is left of a crash, is logged.
  BackupTest() {
    spdlog::set_level(spdlog::level::off);
    restart();
  }

  std::filesystem::path data() const { return directory_.path() / "data"; }
  std::filesystem::path backups() const { return directory_.path() / "backups"; }
  std::filesystem::path collection(const std::string& name) const {
    return data() / "collections" / name;
  }

  void restart() {
    store_.reset();
    store_ = std::make_unique<LocalStore>(data(), limits_, backups());
  }

  // Documents and a deletion, in the index and in the journal.
  void fill(const std::string& name, const Refresh& refresh = {}) {
    store_->createCollection(name, "en", refresh);
    for (const char* key : {"k1", "k2", "k3"}) {
      store_->addDocument(name, {key, {{"title", "about " + std::string(key)}}, "red foxes"});
    }
    store_->updateIndex(name);
    store_->addDocument(name, {"k4", {}, "a hen"});
    store_->addDocument(name, {"k1", {{"n", "2"}}, "a fox once more"});
    store_->deleteDocument(name, "k3");
  }

  // All that the documents are, after an update of the index.
  static Texts texts(LocalStore& store, const std::string& name) {
    store.updateIndex(name);
    SearchQuery all;
    all.everything = true;
    all.order = HitOrder::Key;
    Texts found;
    store.visit(name, all, [&](const Document& document) {
      std::string& text = found[document.key];
      for (const auto& [field, value] : document.metadata) text += field + "=" + value + ";";
      text += document.content;
    });
    return found;
  }
  Texts texts(const std::string& name) { return texts(*store_, name); }

  std::uint64_t hits(const std::string& name, const std::string& query) {
    return store_->estimate(name, query).hits;
  }

  static std::vector<std::string> namesIn(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    std::error_code missing;
    for (const auto& entry : std::filesystem::directory_iterator(directory, missing)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  static std::string read(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  static void rewrite(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  }

  tq::test::TemporaryDirectory directory_;
  StoreLimits limits_;
  std::unique_ptr<LocalStore> store_;
};

TEST_F(BackupTest, RestoredCollectionIsWhatItWas) {
  const Refresh hourly{Refresh::Mode::Interval, std::chrono::hours(1)};
  fill("c", hourly);
  store_->backup("first", "c");
  store_->restore({"first", "c", "d", false});
  EXPECT_EQ(hits("d", "fox"), 2U) << "k3 is deleted";
  EXPECT_EQ(readOptions(collection("d")), hourly);
  EXPECT_EQ(store_->summary("d").language, "en");
  EXPECT_EQ(
      texts("d"),
      (Texts{{"k1", "n=2;a fox once more"}, {"k2", "title=about k2;red foxes"}, {"k4", "a hen"}}));
  EXPECT_EQ(texts("d"), texts("c"));
}

// With an interval, changes that wait would be brought in as soon as the collection is used.
TEST_F(BackupTest, ChangesThatWaitedWaitInTheRestoredCollection) {
  fill("c", Refresh{});
  store_->backup("first", "c");
  store_->restore({"first", "c", "d", false});
  EXPECT_EQ(store_->state("d"), CollectionState::ChangesPending);
  EXPECT_EQ(store_->summary("d").pending, store_->summary("c").pending);
}

TEST_F(BackupTest, RestoredCollectionTakesChangesAndSurvivesARestart) {
  for (const Refresh& refresh : {Refresh{}, kImmediate}) {
    fill("c", refresh);
    store_->backup("first", "c");
    store_->deleteCollection("c");
    store_->restore({"first", {}, "c", false});
    store_->addDocument("c", {"k5", {}, "later"});
    const Texts before = texts("c");
    EXPECT_EQ(before.size(), 4U);
    restart();
    EXPECT_EQ(texts("c"), before);
    store_->deleteCollection("c");
    std::filesystem::remove_all(backups() / "first");
  }
}

TEST_F(BackupTest, AllCollectionsMoveToAnotherServer) {
  fill("c");
  fill("größe/1", kImmediate);
  store_->createCollection("empty", "en");
  store_->backup("all", "");
  LocalStore other(directory_.path() / "other", {}, backups());
  other.restore({"all", {}, {}, false});
  EXPECT_THAT(other.collections("", 10), ElementsAre("c", "empty", "größe/1"));
  for (const char* name : {"c", "empty", "größe/1"}) EXPECT_EQ(texts(other, name), texts(name));
}

TEST_F(BackupTest, NothingIsOverwrittenUnasked) {
  fill("c");
  store_->backup("all", "");
  store_->addDocument("c", {"new", {}, "since"});
  const Texts before = texts("c");
  EXPECT_THAT(refusal(ErrorKind::CollectionExists,
                      [&] {
                        store_->restore({"all", {}, "c", false});
                      }),
              HasSubstr("\"c\" exists already"));
  store_->createCollection("b", "en");
  refusal(ErrorKind::CollectionExists, [&] { store_->restore({"all", {}, {}, false}); });
  EXPECT_EQ(texts("c"), before);
  EXPECT_FALSE(std::filesystem::exists(data() / "before-restore"));
}

TEST_F(BackupTest, ReplacedCollectionIsKeptAside) {
  fill("c");
  store_->backup("all", "");
  const Texts old = texts("c");
  for (int round = 1; round <= 2; ++round) {
    store_->addDocument("c", {"new", {}, "since " + std::to_string(round)});
    store_->restore({"all", {}, "c", true});
    EXPECT_EQ(texts("c"), old);
    EXPECT_EQ(store_->summary("c").pending, 0U);
  }
  EXPECT_THAT(namesIn(data() / "before-restore"), ElementsAre("c.1", "c.2"));
  std::filesystem::copy(data() / "before-restore" / "c.2", collection("aside"),
                        std::filesystem::copy_options::recursive);
  EXPECT_EQ(texts("aside").at("new"), "since 2");
}

TEST_F(BackupTest, DamagedCollectionIsReplaced) {
  fill("c");
  store_->backup("all", "");
  const Texts old = texts("c");
  store_.reset();
  rewrite(collection("c") / "index" / "iamglass", "x");
  restart();
  EXPECT_THAT(refusal(ErrorKind::StorageFailed, [&] { store_->openCollection("c"); }),
              HasSubstr("iamglass"));
  store_->restore({"all", {}, "c", true});
  EXPECT_EQ(texts("c"), old);
}

TEST_F(BackupTest, NamesLeadNowhereElse) {
  fill("c");
  for (const char* name : {"../up", "/etc/x", "a/b", "..", ".", ".hidden", "BACKUP", " "}) {
    store_->backup(name, "c");
    store_->restore({name, "c", "d", false});
    EXPECT_EQ(texts("d"), texts("c")) << name;
    store_->deleteCollection("d");
  }
  EXPECT_EQ(namesIn(backups()).size(), 8U);
  EXPECT_THAT(namesIn(directory_.path()), ElementsAre("backups", "data"));
  for (const std::string& name : {std::string(), std::string(241, 'x'), std::string("\xFF")}) {
    EXPECT_THAT(refusal(ErrorKind::BadParameter, [&] { store_->backup(name, "c"); }),
                HasSubstr("cannot be called"));
    EXPECT_THAT(refusal(ErrorKind::BadParameter,
                        [&] {
                          store_->restore({name, {}, {}, true});
                        }),
                HasSubstr("cannot be called"));
  }
}

TEST_F(BackupTest, NameInUseIsRefusedAndAnUnknownOneToo) {
  fill("c");
  store_->backup("first", "c");
  const std::string before = read(BackupManifest::pathIn(backups() / "first"));
  EXPECT_THAT(refusal(ErrorKind::BadParameter, [&] { store_->backup("first", "c"); }),
              HasSubstr("\"first\" already"));
  EXPECT_EQ(read(BackupManifest::pathIn(backups() / "first")), before);
  EXPECT_THAT(refusal(ErrorKind::BadParameter,
                      [&] {
                        store_->restore({"second", {}, {}, true});
                      }),
              HasSubstr("no backup \"second\""));
  EXPECT_THAT(refusal(ErrorKind::UnknownCollection,
                      [&] {
                        store_->restore({"first", "x", "y", true});
                      }),
              HasSubstr("no collection \"x\""));
  EXPECT_THAT(refusal(ErrorKind::UnknownCollection, [&] { store_->backup("second", "x"); }),
              HasSubstr("\"x\""));
  EXPECT_THAT(namesIn(backups()), ElementsAre("first"));
}

TEST_F(BackupTest, BackupsAreListedWithWhatIsInThem) {
  fill("c");
  store_->createCollection("d", "en");
  for (const char* name : {"one/c", "all"})
    store_->backup(name, name == std::string("all") ? "" : "c");
  store_->backup("bad", "c");
  rewrite(BackupManifest::pathIn(backups() / "bad"), "x");
  std::filesystem::create_directories(backups() / "else");
  // One that is being made, and one that somebody has copied.
  for (const char* other : {".passing-x", "all.copy"}) {
    std::filesystem::copy(backups() / "all", backups() / other,
                          std::filesystem::copy_options::recursive);
  }
  const std::vector<BackupSummary> found = store_->backups("", 10);
  ASSERT_EQ(found.size(), 3U);
  EXPECT_EQ(found[0].name, "all");
  EXPECT_EQ(found[0].collections, 2U);
  EXPECT_THAT(found[0].made, ::testing::MatchesRegex("20..-..-..T..:..:..Z"));
  EXPECT_THAT(found[1].damage, HasSubstr("bad/BACKUP is damaged"));
  EXPECT_EQ(found[2].name, "one/c");
  EXPECT_EQ(found[2].collections, 1U);
  EXPECT_EQ(found[2].damage, "");
  EXPECT_LT(found[2].bytes, found[0].bytes);
  EXPECT_EQ(store_->backups("all", 1).at(0).name, "bad");
  EXPECT_THAT(store_->backups("one/c", 10), IsEmpty());
}

TEST_F(BackupTest, WithoutADirectoryForThemBackupsAreRefused) {
  LocalStore other(directory_.path() / "other", {});
  for (const auto& work :
       {std::function<void()>([&] { other.backup("first", ""); }), std::function<void()>([&] {
          other.restore({"first", {}, {}, true});
        })}) {
    EXPECT_THAT(refusal(ErrorKind::UnsupportedAction, work), HasSubstr("--backup-directory"));
  }
}

// A backup called "before-restore" would get collections that were replaced.
TEST_F(BackupTest, DirectoryOfBackupsWhereCollectionsAreKeptIsRefused) {
  store_.reset();
  for (const char* place :
       {"", ".", "x/..", "collections", "collections/x", "before-restore", "before-repair/x"}) {
    EXPECT_THAT(refusal(ErrorKind::StorageFailed, [&] { LocalStore(data(), {}, data() / place); }),
                HasSubstr("where the server keeps collections"))
        << place;
  }
  EXPECT_NO_THROW(LocalStore(data(), {}, data() / "backups"));
}

TEST_F(BackupTest, NobodyElseMayReadABackup) {
  fill("c");
  const mode_t before = ::umask(0);
  store_->backup("first", "c");
  store_->restore({"first", "c", "d", false});
  ::umask(before);
  for (const std::filesystem::path& root : {backups() / "first", collection("d")}) {
    EXPECT_EQ(std::filesystem::status(root).permissions(), std::filesystem::perms::owner_all);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
      const auto wanted =
          entry.is_directory() ? std::filesystem::perms(0700) : std::filesystem::perms(0600);
      EXPECT_EQ(entry.status().permissions(), wanted) << entry.path();
    }
  }
}

TEST_F(BackupTest, LeftoversOfACrashAreRemovedAndNothingElse) {
  store_.reset();
  for (const char* name : {".passing-a", ".passing-b", ".mine", "b"}) {
    std::filesystem::create_directories(backups() / name / "collections");
  }
  const FileHandle busy = openFile(backups() / ".passing-b", O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(::flock(busy.get(), LOCK_EX), 0);
  restart();
  EXPECT_THAT(namesIn(backups()), ElementsAre(".mine", ".passing-b", "b"))
      << "another server makes one of these";
}

TEST_F(BackupTest, FullDiskIsReportedAndNothingIsLeft) {
  fill("c");
  for (int i = 0; i < 200; ++i) {
    const std::string number = std::to_string(i);
    store_->addDocument("c", {"t" + number, {}, "text w" + number + " x" + number});
  }
  store_->updateIndex("c");
  store_->backup("whole", "c");
  const Texts before = texts("c");
  for (const rlim_t bytes : {rlim_t{0}, rlim_t{100}, rlim_t{10000}}) {
    const test::FileSizeLimit full(bytes);
    EXPECT_THAT(refusal(ErrorKind::StorageFailed, [&] { store_->backup("second", "c"); }),
                AllOf(HasSubstr("cannot write"), HasSubstr("File too large")));
    EXPECT_THAT(refusal(ErrorKind::StorageFailed,
                        [&] {
                          store_->restore({"whole", "c", "d", false});
                        }),
                AllOf(HasSubstr("cannot write"), HasSubstr("File too large")));
  }
  EXPECT_THAT(namesIn(backups()), ElementsAre("whole"));
  EXPECT_THAT(namesIn(data() / "collections"), ElementsAre("c"));
  EXPECT_EQ(texts("c"), before);
  store_->backup("second", "c");
}

TEST_F(BackupTest, DamageOfTheCollectionIsNotBackedUp) {
  fill("c");
  const std::filesystem::path table = collection("c") / "index" / "docdata.glass";
  std::string bytes = read(table);
  bytes[bytes.size() - 100] = static_cast<char>(bytes[bytes.size() - 100] ^ 4);
  rewrite(table, bytes);
  EXPECT_THAT(refusal(ErrorKind::StorageFailed, [&] { store_->backup("first", "c"); }),
              HasSubstr(table.string() + " is damaged at byte "));
  EXPECT_THAT(namesIn(backups()), IsEmpty());
}

TEST_F(BackupTest, EveryDamagedByteOfABackupIsFoundAndNamed) {
  fill("c");
  store_->backup("first", "c");
  const Texts before = texts("c");
  std::vector<std::pair<std::filesystem::path, std::size_t>> places;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(backups() / "first")) {
    if (!entry.is_regular_file()) continue;
    for (std::size_t i = 0; i < entry.file_size(); ++i) places.emplace_back(entry.path(), i);
  }
  std::sort(places.begin(), places.end());
  std::mt19937 random(1);
  std::shuffle(places.begin(), places.end(), random);
  if (std::getenv("KRUCOMM_LONG") == nullptr) places.resize(300);
  for (const auto& [path, place] : places) {
    const std::string whole = read(path);
    std::string bytes = whole;
    bytes[place] = static_cast<char>(bytes[place] ^ (1 << random() % 8));
    rewrite(path, bytes);
    EXPECT_THAT(
        refusal(ErrorKind::StorageFailed,
                [&] {
                  store_->restore({"first", {}, {}, true});
                }),
        AllOf(HasSubstr(path.string() + " is damaged at byte "), HasSubstr("another backup")))
        << place;
    rewrite(path, whole);
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_EQ(texts("c"), before);
  EXPECT_FALSE(std::filesystem::exists(data() / "before-restore"));
  store_->restore({"first", {}, {}, true});
}

TEST_F(BackupTest, FilesOfABackupThatAreCutLongerOrMissingAreNamed) {
  fill("c");
  store_->backup("first", "c");
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(backups() / "first")) {
    if (entry.is_regular_file()) paths.push_back(entry.path());
  }
  const auto refused = [&] {
    return refusal(ErrorKind::StorageFailed, [&] { store_->restore({"first", "c", "d", false}); });
  };
  for (const std::filesystem::path& path : paths) {
    SCOPED_TRACE(path.string());
    const std::string whole = read(path);
    if (!whole.empty()) {
      rewrite(path, whole.substr(0, whole.size() - 1));
      EXPECT_THAT(refused(), HasSubstr(path.string()));
    }
    rewrite(path, whole + "x");
    EXPECT_THAT(refused(), HasSubstr(path.string()));
    std::filesystem::remove(path);
    if (path != BackupManifest::pathIn(backups() / "first")) {
      EXPECT_THAT(refused(),
                  HasSubstr(path.string() + " is damaged at byte 0: the file is missing"));
    }
    rewrite(path, whole);
  }
  EXPECT_THAT(namesIn(data() / "collections"), ElementsAre("c"));
}

TEST_F(BackupTest, ListOfFilesLeadsToNoOtherFiles) {
  rewrite(directory_.path() / "secret", "secret");
  std::filesystem::create_directories(backups() / "evil" / "collections");
  for (const char* name : {"../../secret", "/etc/hostname", "collections/c/../../../../secret",
                           "collections/../collections/c/x", "collections/c", "secret", ""}) {
    std::string text = "corvaned backup 1\nmade = 2026-11-22T06:00:00Z\nfile = 6 ";
    text += fmt::format("{:08x} {}\n", checksumOf("secret"), name);
    rewrite(BackupManifest::pathIn(backups() / "evil"),
            text + fmt::format("checksum = {:08x}\n", checksumOf(text)));
    EXPECT_THAT(refusal(ErrorKind::StorageFailed,
                        [&] {
                          store_->restore({"evil", {}, {}, true});
                        }),
                HasSubstr("the list of the files cannot be read"))
        << name;
  }
}

TEST_F(BackupTest, BackupIsCheckedLikeADataDirectoryButNeverChanged) {
  fill("c");
  store_->backup("first", "");
  const std::filesystem::path backup = backups() / "first";
  const Maintenance maintenance(backup);
  EXPECT_THAT(maintenance.collections(), ElementsAre("c"));
  EXPECT_TRUE(maintenance.check("c").isSound());
  EXPECT_EQ(maintenance.check("c").changes, 3U);
  EXPECT_THAT(namesIn(backup), ElementsAre("BACKUP", "collections"));
  // Nothing but the list of the files knows of it.
  const std::filesystem::path mark = backup / "collections" / "c" / "journal-0000000000";
  const std::string bytes = read(mark);
  rewrite(mark, "x" + bytes.substr(1));
  const CollectionCheck check = maintenance.check("c");
  ASSERT_EQ(check.index.size(), 1U);
  EXPECT_EQ(check.index[0].file, mark);
  EXPECT_THAT(refusal(ErrorKind::StorageFailed, [&] { maintenance.repair("c"); }),
              HasSubstr("copy it without the file BACKUP"));
  EXPECT_THAT(refusal(ErrorKind::StorageFailed, [&] { LocalStore(backup, {}); }),
              HasSubstr("is a backup"));
  rewrite(mark, bytes);
  std::filesystem::remove(BackupManifest::pathIn(backup));
  EXPECT_EQ(texts(*std::make_unique<LocalStore>(backup, StoreLimits{}), "c"), texts("c"));
}

TEST_F(BackupTest, FilesThatNobodyKnowsOfAreCopied) {
  fill("c");
  rewrite(collection("c") / "something", "that a later version keeps");
  std::filesystem::create_directories(collection("c") / "more" / "of");
  rewrite(collection("c") / "more" / "of" / "it", "here");
  rewrite(collection("c") / "half.new", "written");
  store_->backup("first", "c");
  store_->restore({"first", "c", "d", false});
  EXPECT_EQ(read(collection("d") / "something"), "that a later version keeps");
  EXPECT_EQ(read(collection("d") / "more" / "of" / "it"), "here");
  EXPECT_FALSE(std::filesystem::exists(collection("d") / "half.new"));
}

// While an index is made anew, directories come, go, and change places.

class CopyOfExchangedIndexTest : public BackupTest {
 protected:
  CopyOfExchangedIndexTest() {
    fill("c");
    fill("d");
    store_.reset();
    // A table that the other index does not have.
    rewrite(index() / "more.glass", std::string(8192, 'x'));
    std::filesystem::copy(collection("d") / "index", directory_.path() / "next");
  }

  std::filesystem::path index() const { return collection("c") / "index"; }
  std::filesystem::path target() const { return directory_.path() / "copy"; }

  void exchange() const {
    std::filesystem::rename(index(), collection("c") / "index-replaced");
    std::filesystem::rename(directory_.path() / "next", index());
  }
  void exchangeBack() const {
    std::filesystem::rename(index(), directory_.path() / "next");
    std::filesystem::rename(collection("c") / "index-replaced", index());
  }

  // Returns the revision that the index had before.
  std::uint64_t change(const std::string& text) const {
    Xapian::WritableDatabase database(index().string());
    const std::uint64_t before = database.get_revision();
    Xapian::Document document;
    document.set_data(text);
    document.add_posting(text, 1);
    database.add_document(document);
    database.commit();
    return before;
  }

  void expectEqual(const std::filesystem::path& copy, const std::filesystem::path& original) const {
    EXPECT_EQ(namesIn(copy), namesIn(original));
    for (const std::string& name : namesIn(original)) {
      EXPECT_EQ(read(copy / name), read(original / name)) << name;
    }
  }

  // More than either index has.
  static IndexRevisions highRevision() { return {{"", 1000}}; }
};

TEST_F(CopyOfExchangedIndexTest, HasNothingOfTheEarlierOneWhereverTheExchangeComes) {
  int place = 1;
  for (;; ++place) {
    SCOPED_TRACE(place);
    int calls = 0;
    CollectionCopy copy(collection("c"), target(), [&] {
      if (++calls == place) exchange();
    });
    const auto copied = copy.copyAhead(highRevision(), {});
    if (calls < place) {
      EXPECT_TRUE(copied);
      break;
    }
    EXPECT_FALSE(copied) << "all is still to be copied";
    EXPECT_TRUE(copy.copyAhead({{"", change("first")}}, {}));
    change("second");
    copy.copyIndex();
    expectEqual(target() / "index", index());
    exchangeBack();
    std::filesystem::remove_all(target());
  }
  EXPECT_GT(place, 10);
}

// One of them has been changed often, the other one hardly ever.
TEST_F(BackupTest, CopyComparesTheBlocksOfEachDatabaseWithItsOwnRevision) {
  limits_.parts = 2;
  restart();
  store_->createCollection("c", "en");
  for (int i = 0; i < 20; ++i) store_->queueDocument("c", {std::to_string(i), {}, "red foxes"});
  store_->updateIndex("c");
  store_.reset();
  const std::filesystem::path index = collection("c") / "index";
  const auto change = [&](const char* database) {
    Xapian::WritableDatabase opened((index / database).string());
    Xapian::Document document;
    document.add_posting("hound", 1);
    opened.add_document(document);
  };
  for (int times = 0; times < 5; ++times) change("part-0");
  const std::filesystem::path target = directory_.path() / "copy";
  CollectionCopy copy(collection("c"), target, [] {});
  const IndexRevisions revisions = IndexParts::in(index).revisions();
  ASSERT_GT(revisions.at("part-0"), revisions.at("part-1") + 2);
  EXPECT_TRUE(copy.copyAhead(revisions, {}));
  change("part-1");
  copy.copyIndex();
  for (const char* database : {"part-0", "part-1"}) {
    ASSERT_GT(namesIn(index / database).size(), 3U);
    EXPECT_EQ(namesIn(target / "index" / database), namesIn(index / database));
    for (const std::string& name : namesIn(index / database)) {
      EXPECT_EQ(read(target / "index" / database / name), read(index / database / name))
          << database << "/" << name;
    }
  }
}

TEST_F(CopyOfExchangedIndexTest, MayHoldStillRightAfterTheExchange) {
  CollectionCopy copy(collection("c"), target(), [] {});
  EXPECT_TRUE(copy.copyAhead(highRevision(), {}));
  exchange();
  copy.copyIndex();
  expectEqual(target() / "index", index());
}

TEST_F(CopyOfExchangedIndexTest, IsTheEarlierOneUntilTheNewOneBeginsToTakeItsPlace) {
  const std::filesystem::path complete = collection("c") / "index-rebuilt";
  std::filesystem::create_directories(complete);
  std::filesystem::rename(directory_.path() / "next", complete / "index");
  rewrite(complete / "index-sums", "new");
  rewrite(collection("c") / "index-sums", "old");
  const auto copied = [&](const std::function<void()>& meanwhile) {
    CollectionCopy copy(collection("c"), target(), [] {});
    copy.copyAhead(highRevision(), {});
    meanwhile();
    copy.copyIndex();
    copy.copyRest({});
    IndexReplacement::finish(target());
  };
  copied([] {});
  expectEqual(target() / "index", index());
  EXPECT_EQ(read(target() / "index-sums"), "old");
  std::filesystem::remove_all(target());
  // A crash of the disk may leave it so, until somebody opens the collection.
  std::filesystem::rename(index(), collection("c") / "index-replaced");
  copied([] {});
  expectEqual(target() / "index", complete / "index");
  EXPECT_EQ(read(target() / "index-sums"), "new");
  std::filesystem::remove_all(target());
  std::filesystem::rename(collection("c") / "index-replaced", index());
  copied([&] { IndexReplacement::finish(collection("c")); });
  expectEqual(target() / "index", index());
  EXPECT_EQ(read(target() / "index-sums"), "new");
}

TEST_F(CopyOfExchangedIndexTest, HasNothingThatIsHalfMadeOrPutAside) {
  for (const char* passing : {"index-rebuilding", "index-replaced"}) {
    std::filesystem::create_directories(collection("c") / passing / "index");
    rewrite(collection("c") / passing / "index" / "iamglass", "x");
  }
  CollectionCopy copy(collection("c"), target(), [] {});
  copy.copyAhead({}, {});
  copy.copyIndex();
  copy.copyRest({});
  EXPECT_THAT(namesIn(target()), ::testing::Contains("index"));
  EXPECT_THAT(namesIn(target()),
              ::testing::Each(::testing::Not(::testing::StartsWith("index-re"))));
}

/// A collection whose index is much larger than what a small update changes of it.
class BackupOfManyTest : public BackupTest {
 protected:
  BackupOfManyTest() {
    store_->createCollection("c", "en");
    for (int i = 0; i < 2000; ++i) {
      std::string text = "fox";
      for (int j = 0; j < 100; ++j) text += " w" + std::to_string((i * 37 + j * j) % 9000);
      store_->queueDocument("c", {std::to_string(i), {}, text});
    }
    store_->updateIndex("c");
  }

  void change(int i) {
    store_->queueDocument("c", {"new " + std::to_string(i), {}, "fox"});
    store_->updateIndex("c");
  }

  std::filesystem::path index() const { return collection("c") / "index"; }
  std::uint64_t indexBytes() const { return bytesInTree(index()); }
  IndexRevisions revisions() const {
    return {{"", Xapian::Database(index().string()).get_revision()}};
  }
};

TEST_F(BackupOfManyTest, HoldsStillForWhatHasChangedSinceTheLastLookOnly) {
  CollectionCopy copy(collection("c"), directory_.path() / "copy", [] {});
  EXPECT_GT(copy.copyAhead(revisions(), {}), indexBytes() / 2);
  change(1);
  EXPECT_LT(copy.copyAhead(revisions(), {}), indexBytes() / 4);
  change(2);
  const std::uint64_t before = copy.copied();
  copy.copyIndex();
  EXPECT_GT(copy.copied(), before);
  EXPECT_LT(copy.copied() - before, indexBytes() / 4);
  for (const std::string& name : namesIn(index())) {
    EXPECT_EQ(read(directory_.path() / "copy" / "index" / name), read(index() / name)) << name;
  }
}

// The log tells how much was copied while the collection held still.
TEST_F(BackupOfManyTest, HoldsStillForLittleWhileOthersWrite) {
  store_.reset();
  const test::LogLines log;
  spdlog::set_level(spdlog::level::debug);
  restart();
  std::atomic<bool> made = false;
  std::jthread writer([&] {
    for (int i = 0; !made; ++i) change(i);
  });
  for (int i = 0; i < 3; ++i) EXPECT_NO_THROW(store_->backup(std::to_string(i), "c"));
  made = true;
  writer.join();
  const std::vector<std::string> lines = log.with("held still for");
  EXPECT_EQ(lines.size(), 3U);
  const std::string mark = " s to copy ";
  for (const std::string& line : lines) {
    const std::size_t place = line.find(mark);
    ASSERT_NE(place, std::string::npos) << line;
    EXPECT_LT(std::stoull(line.substr(place + mark.size())), indexBytes() / 2) << line;
  }
  store_.reset();
}

// A change that comes while the last part is copied waits; what is copied does not have it.
TEST(HeldCollectionTest, SearchesGoOnAndChangesUntilTheLastPart) {
  const tq::test::TemporaryDirectory directory;
  const std::atomic<bool> stopping = false;
  Collection::create(directory.path(), {"en", {}}, {});
  Collection collection("c", directory.path(), {}, std::make_shared<ParseOutcomes>(10), stopping);
  collection.add({"k1", {}, "fox"});
  collection.requestUpdate();
  ASSERT_TRUE(collection.takeOnIndexing());
  while (collection.indexStep()) {
  }
  const auto expectFound = [&] {
    EXPECT_EQ(collection.estimate("fox", kExactHits).hits, 1U);
    SearchQuery query;
    query.text = "fox";
    Hit hit;
    EXPECT_TRUE(collection.search(query)->next(hit));
    EXPECT_EQ(collection.details(query, {}).size(), 1U);
  };
  std::atomic<pid_t> client = 0;
  std::jthread writer;
  collection.holdStill(
      [&] {
        expectFound();
        collection.add({"k2", {}, "fox"});
      },
      [&](const JournalExtent& journal) {
        expectFound();
        writer = std::jthread([&] {
          client = ::gettid();
          collection.add({"k3", {}, "fox"});
        });
        while (client == 0 || !test::sleeps(client)) std::this_thread::yield();
        EXPECT_EQ(collection.journalExtent().lastSequence, journal.lastSequence);
      },
      [] {});
  writer.join();
  EXPECT_EQ(collection.summary().pending, 2U);
}

// Each of these fails if it takes what goes on in the directory for damage.
TEST_F(BackupTest, IndexMayBeMadeAnewDuringABackup) {
  limits_.index.batchChanges = 2;
  restart();
  store_->createCollection("c", "en");
  for (int i = 0; i < 30; ++i) store_->queueDocument("c", {std::to_string(i), {}, "red foxes"});
  const Texts wanted = texts("c");
  for (int round = 0; round < 6; ++round) {
    store_.reset();
    {
      Xapian::WritableDatabase database((collection("c") / "index").string());
      database.set_metadata("schema", "1");
      database.commit();
    }
    std::filesystem::remove(collection("c") / "index-sums");
    std::filesystem::remove(collection("c") / "journal-0000000000");
    restart();
    std::jthread update([&] { store_->updateIndex("c"); });
    for (int i = 0; i < 3; ++i) {
      const std::string name = std::to_string(round) + "-" + std::to_string(i);
      ASSERT_NO_THROW(store_->backup(name, "c")) << name;
      ASSERT_NO_THROW(store_->restore({name, "c", "r", false})) << name;
      EXPECT_EQ(texts("r"), wanted);
      store_->deleteCollection("r");
    }
  }
}

TEST_F(BackupTest, BackupThatNobodyWaitsForIsGivenUpAndLeavesNothing) {
  fill("c");
  for (int i = 0; i < 300; ++i) {
    store_->addDocument("c", {"t" + std::to_string(i), {}, "fox " + std::to_string(i)});
  }
  store_->updateIndex("c");
  int givenUp = 0;
  // Which of the two is faster is up to the machine.
  for (int round = 0; round < 30 || (givenUp == 0 && round < 1000); ++round) {
    const auto request = std::make_shared<RequestContext>(RequestContext::Limits{});
    std::optional<ServerError> failure;
    std::jthread client([&] {
      const RequestContext::Scope scope(*request);
      try {
        store_->backup("first", "");
      } catch (const ServerError& error) {
        failure = error;
      }
    });
    const std::filesystem::path passing = backups() / ".passing-first" / "collections" / "c";
    while (namesIn(passing).size() < static_cast<std::size_t>(round % 5) + 1 &&
           !std::filesystem::exists(backups() / "first")) {
      std::this_thread::yield();
    }
    request->cancelAt(RequestContext::Clock::now());
    client.join();
    if (failure) {
      EXPECT_EQ(messageId(failure->kind()), messageId(ErrorKind::Cancelled)) << failure->what();
      EXPECT_THAT(namesIn(backups()), IsEmpty());
      ++givenUp;
    }
    std::filesystem::remove_all(backups() / "first");
  }
  EXPECT_GT(givenUp, 0);
}

TEST_F(BackupTest, StopEndsABackup) {
  fill("c");
  store_->stop();
  refusal(ErrorKind::TryAgain, [&] { store_->backup("first", "c"); });
  EXPECT_THAT(namesIn(backups()), IsEmpty());
}

TEST_F(BackupTest, MemoryThatOthersHaveIsAReasonToTryAgain) {
  store_.reset();
  limits_.index.memory = std::make_shared<MemoryBudget>(std::size_t{16} << 20U);
  restart();
  fill("c");
  {
    MemoryBudget::Share others(*limits_.index.memory);
    others.force(std::size_t{12} << 20U);
    EXPECT_THAT(refusal(ErrorKind::TryAgain, [&] { store_->backup("first", "c"); }),
                AllOf(HasSubstr("try again"), HasSubstr("--max-memory")));
    EXPECT_THAT(namesIn(backups()), IsEmpty());
  }
  store_->backup("first", "c");
}

TEST_F(BackupTest, MemoryThatThereNeverIsCanOnlyBeRaised) {
  store_.reset();
  limits_.index.memory = std::make_shared<MemoryBudget>(std::size_t{3} << 20U);
  restart();
  fill("c");
  EXPECT_THAT(refusal(ErrorKind::OutOfMemory, [&] { store_->backup("first", "c"); }),
              AllOf(HasSubstr("--max-memory"), Not(HasSubstr("try again"))));
  EXPECT_THAT(namesIn(backups()), IsEmpty());
}

TEST_F(BackupTest, RestoreThatEndsInTheMiddleSaysHowFarItCame) {
  store_.reset();
  limits_.unusedWithin = std::chrono::milliseconds(1);
  restart();
  for (const char* name : {"a", "b", "c"}) fill(name);
  store_->backup("all", "");
  for (const char* name : {"a", "b", "c"}) store_->addDocument(name, {"new", {}, "since"});
  // Whoever has updated it may still be about to leave it, and its replacement would not wait.
  store_->closeCollection("a");
  while (store_->isOpen("a")) std::this_thread::yield();
  SearchQuery everything;
  everything.everything = true;
  everything.order = HitOrder::Key;
  std::string told;
  store_->visit("b", everything, [&](const Document&) {
    if (told.empty()) {
      told = refusal(ErrorKind::StorageFailed, [&] { store_->restore({"all", {}, {}, true}); });
    }
  });
  EXPECT_THAT(told,
              AllOf(HasSubstr("1 of 3 collections have been restored"), HasSubstr("before \"b\"")));
  EXPECT_FALSE(texts("a").contains("new"));
  EXPECT_TRUE(texts("b").contains("new"));
  EXPECT_TRUE(texts("c").contains("new"));
  EXPECT_THAT(namesIn(data() / "before-restore"), ElementsAre("a.1"));
}

TEST_F(BackupTest, RestoreThatFailsBehindAReplacementCountsIt) {
  for (const char* name : {"a", "b", "c"}) fill(name);
  store_->backup("all", "");
  for (const char* name : {"a", "b", "c"}) store_->addDocument(name, {"new", {}, "since"});
  store_.reset();
  Registry registry([](const std::string&) { return nullptr; });
  const std::atomic<bool> stopping = false;
  for (const std::string last : {"b", "a"}) {
    BackupKeeper keeper(backups(), {data(), data() / "collections", registry, nullptr, nullptr,
                                    stopping, [] { return std::vector<std::string>(); },
                                    [&] {
                                      std::filesystem::create_directory(data() / "fresh");
                                      return data() / "fresh";
                                    },
                                    [&](const std::string& name) {
                                      if (name == last)
                                        throw ServerError(ErrorKind::StorageFailed, "full");
                                    },
                                    limits_.unusedWithin});
    EXPECT_THAT(refusal(ErrorKind::StorageFailed,
                        [&] {
                          keeper.restore({"all", {}, {}, true});
                        }),
                AllOf(HasSubstr(last == "b" ? "2 of 3 collections" : "1 of 3 collections"),
                      HasSubstr("up to \"" + last + "\": full")));
  }
  restart();
  EXPECT_FALSE(texts("a").contains("new"));
  EXPECT_FALSE(texts("b").contains("new"));
  EXPECT_TRUE(texts("c").contains("new"));
  EXPECT_THAT(namesIn(data() / "before-restore"), ElementsAre("a.1", "a.2", "b.1"));
}

TEST_F(BackupTest, RestoreThatCannotBeginMayBeTriedAgain) {
  store_.reset();
  limits_.unusedWithin = std::chrono::milliseconds(1);
  restart();
  fill("c");
  store_->backup("all", "");
  SearchQuery everything;
  everything.everything = true;
  everything.order = HitOrder::Key;
  std::string told;
  store_->visit("c", everything, [&](const Document&) {
    if (told.empty()) {
      told = refusal(ErrorKind::TryAgain, [&] { store_->restore({"all", {}, {}, true}); });
    }
  });
  EXPECT_THAT(told, HasSubstr("take too long"));
  store_->restore({"all", {}, {}, true});
}

TEST_F(BackupTest, DamagedCollectionAmongAllIsNamed) {
  fill("a");
  fill("\u00f6");
  store_.reset();
  rewrite(collection("%C3%B6") / "index" / "iamglass", "x");
  restart();
  EXPECT_THAT(refusal(ErrorKind::StorageFailed, [&] { store_->backup("all", ""); }),
              AllOf(HasSubstr("the collection \"\u00f6\""), HasSubstr("iamglass")));
}

// The list of the files has a line for each.
TEST_F(BackupTest, FileWithALineBreakInItsNameIsRefused) {
  fill("c");
  rewrite(collection("c") / "a\nfile = 0 - b", "x");
  EXPECT_THAT(refusal(ErrorKind::StorageFailed, [&] { store_->backup("first", "c"); }),
              HasSubstr("line break"));
  EXPECT_THAT(namesIn(backups()), IsEmpty());
}

TEST_F(BackupTest, CollectionsThatComeAndGoMeanwhileDoNotMatter) {
  fill("c");
  const Texts wanted = texts("c");
  std::jthread other([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      store_->createCollection("d", "en");
      store_->addDocument("d", {"k", {}, "fox"});
      store_->updateIndex("d");
      store_->deleteCollection("d");
    }
  });
  for (int i = 0; i < 15; ++i) {
    const std::string name = std::to_string(i);
    ASSERT_NO_THROW(store_->backup(name, ""));
    ASSERT_NO_THROW(store_->restore({name, "c", "r" + name, false}));
    EXPECT_EQ(texts("r" + name), wanted);
  }
}

TEST_F(BackupTest, RestoreExchangesACollectionInUse) {
  fill("c");
  store_->backup("first", "c");
  const Texts wanted = texts("c");
  std::vector<std::jthread> clients;
  std::atomic<int> served = 0;
  for (int client = 0; client < 3; ++client) {
    clients.emplace_back([&, client](const std::stop_token& stop) {
      for (int i = 0; !stop.stop_requested(); ++i) {
        try {
          if (client == 0) store_->addDocument("c", {std::to_string(i), {}, "fox"});
          if (client == 1) store_->updateIndex("c");
          if (client == 2) {
            EXPECT_GE(hits("c", "fox"), 2U);
          }
          ++served;
        } catch (const ServerError& error) {
          EXPECT_EQ(messageId(error.kind()), messageId(ErrorKind::TryAgain)) << error.what();
        }
      }
    });
  }
  for (int i = 0; i < 20; ++i) {
    const int before = served;
    ASSERT_NO_THROW(store_->restore({"first", {}, "c", true}));
    while (served < before + 5) std::this_thread::yield();
  }
  clients.clear();
  store_->restore({"first", {}, "c", true});
  EXPECT_EQ(texts("c"), wanted);
  restart();
  EXPECT_EQ(texts("c"), wanted);
}

/// Changes the documents with keys of its own, one after the other.
class Writer {
 public:
  Writer(LocalStore& store, std::string collection, int number)
      : store_(store),
        collection_(std::move(collection)),
        prefix_("w" + std::to_string(number) + "-"),
        random_(static_cast<unsigned>(number)) {}

  /// Allows this many more changes.
  void allow(std::ptrdiff_t changes) { allowed_.release(changes); }

  void run(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      if (!allowed_.try_acquire_for(std::chrono::milliseconds(10))) continue;
      const std::string key = prefix_ + std::to_string(random_() % 8);
      const bool removes = random_() % 4 == 0;
      const std::string text = "fox " + std::to_string(changes_.size());
      {
        const std::lock_guard lock(mutex_);
        changes_.push_back({key, removes ? std::nullopt : std::optional(text)});
      }
      if (removes) {
        store_.deleteDocument(collection_, key);
      } else {
        store_.addDocument(collection_, {key, {}, text});
      }
      const std::lock_guard lock(mutex_);
      acknowledged_ = changes_.size();
    }
  }

  std::size_t acknowledged() const {
    const std::lock_guard lock(mutex_);
    return acknowledged_;
  }

  /// Whether this is what its documents were after some change that is none of the first `least`.
  bool explains(const Texts& found, std::size_t least) const {
    const std::lock_guard lock(mutex_);
    Texts wanted;
    for (std::size_t i = 0; i <= changes_.size(); ++i) {
      if (i >= least && ofMine(found) == wanted) return true;
      if (i == changes_.size()) return false;
      const auto& [key, text] = changes_[i];
      if (text) {
        wanted[key] = *text;
      } else {
        wanted.erase(key);
      }
    }
    return false;
  }

 private:
  Texts ofMine(const Texts& found) const {
    Texts mine;
    for (const auto& [key, text] : found) {
      if (key.starts_with(prefix_)) mine[key] = text;
    }
    return mine;
  }

  LocalStore& store_;
  const std::string collection_;
  const std::string prefix_;
  std::mt19937 random_;
  std::counting_semaphore<> allowed_{0};
  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, std::optional<std::string>>> changes_;
  std::size_t acknowledged_ = 0;
};

class BusyBackupTest : public BackupTest, public ::testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Refresh, BusyBackupTest, ::testing::Values("manual", "immediate", "5"),
                         [](const auto& test) { return std::string("at_") + test.param; });

// What is in a backup are the changes up to one that came after it had been asked for, and all of
// those.
TEST_P(BusyBackupTest, HoldsWhatWasAcknowledgedBeforeAndNothingByHalves) {
  store_.reset();
  limits_.index.batchChanges = 5;
  limits_.hiddenKeys = 3;
  restart();
  store_->createCollection("c", "en", *refreshFrom(GetParam()));
  std::vector<std::unique_ptr<Writer>> writers;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 3; ++i) {
    writers.push_back(std::make_unique<Writer>(*store_, "c", i));
    threads.emplace_back(
        [writer = writers.back().get()](const std::stop_token& stop) { writer->run(stop); });
  }
  threads.emplace_back([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) store_->updateIndex("c");
  });
  threads.emplace_back([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) hits("c", "fox");
  });
  for (int round = 0; round < 8; ++round) {
    const std::string name = "b" + std::to_string(round);
    std::vector<std::size_t> least;
    for (const auto& writer : writers) {
      least.push_back(writer->acknowledged());
      writer->allow(50);
    }
    ASSERT_NO_THROW(store_->backup(name, "c"));
    ASSERT_NO_THROW(store_->restore({name, "c", name, false}));
    const Texts found = texts(name);
    for (std::size_t i = 0; i < writers.size(); ++i) {
      EXPECT_TRUE(writers[i]->explains(found, least[i])) << name << ", writer " << i;
    }
    while (writers[0]->acknowledged() < least[0] + 10) std::this_thread::yield();
  }
  threads.clear();
  store_->backup("last", "c");
  store_->restore({"last", "c", "last", false});
  EXPECT_EQ(texts("last"), texts("c"));
  EXPECT_EQ(hits("last", "fox"), hits("c", "fox"));
}

}  // namespace
}  // namespace corvaned
