#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xapian.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "server/base/bytes.h"
#include "server/base/descriptorBudget.h"
#include "server/base/errors.h"
#include "server/store/checksum.h"
#include "server/store/indexParts.h"
#include "server/store/indexSalvage.h"
#include "server/store/indexUndo.h"
#include "server/store/indexWriter.h"
#include "server/store/localStore.h"
#include "server/store/maintenance.h"
#include "server/store/xapianIndex.h"
#include "tests/server/store/descriptorLimit.h"
#include "tests/support/temporaryDirectory.h"

// Indexes of several databases: what is found must not depend on their number, and nobody must see
// one of them newer than another.
namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Keys = std::vector<std::string>;

// Behind the mark, the number of databases and the length of the name.
constexpr long kFirstName = 12;

StoreLimits limitsFor(std::size_t parts) {
  StoreLimits limits;
  limits.parts = parts;
  return limits;
}

class PartsTest : public ::testing::Test {
 protected:
  // What a damaged collection is refused for is logged.
  PartsTest() { spdlog::set_level(spdlog::level::off); }

  std::filesystem::path data() const { return directory_.path() / "data"; }
  std::filesystem::path collection() const { return data() / "collections" / "c"; }
  std::filesystem::path part(int number) const {
    return collection() / "index" / ("part-" + std::to_string(number));
  }

  static std::string keyOf(int i) { return "key" + std::to_string(i); }

  /// A collection of this many documents in two databases.
  void write(int documents, std::size_t parts = 2) const {
    LocalStore store(data(), limitsFor(parts));
    store.createCollection("c", "en");
    for (int i = 0; i < documents; ++i) add(store, keyOf(i), "fox");
    store.updateIndex("c");
  }

  static void add(LocalStore& store, const std::string& key, const std::string& text) {
    store.queueDocument("c", {key, {{"year", "1990"}}, text});
  }

  static Keys found(LocalStore& store, const std::string& text) {
    SearchQuery query;
    query.text = text;
    const auto hits = store.search("c", query);
    Keys keys;
    for (Hit hit; hits->next(hit);) keys.push_back(hit.key);
    return keys;
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

  static std::string read(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  static void rewrite(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  }

  static void damage(const std::filesystem::path& path, std::size_t place) {
    std::string bytes = read(path);
    ASSERT_GT(bytes.size(), place);
    bytes[place] = static_cast<char>(bytes[place] ^ 1);
    rewrite(path, bytes);
  }

  // With the checksum that the bytes before it have now.
  void rewriteUndo(std::string bytes) const {
    bytes.resize(bytes.size() - 4);
    appendU32(bytes, checksumOf(bytes));
    rewrite(IndexUndo::pathIn(collection()), bytes);
  }

  std::uint32_t documentsIn(int number) const {
    return Xapian::Database(part(number).string()).get_doccount();
  }

  tq::test::TemporaryDirectory directory_;
};

TEST_F(PartsTest, HashOfTheKeySaysWhereADocumentIs) {
  // Whoever changes this no longer finds what is stored.
  const IndexParts parts("index", 5);
  const std::vector<std::pair<std::string, std::size_t>> places{
      {"", (0xcbf29ce484222325U ^ 0xcbf29ce4U) % 5},
      {"a", (0xaf63dc4c8601ec8cU ^ 0xaf63dc4cU) % 5},
      {"foobar", (0x85944171f73967e8U ^ 0x85944171U) % 5}};
  for (const auto& [key, place] : places) EXPECT_EQ(parts.partOf(key), place) << key;
  EXPECT_EQ(IndexParts("index", 1).partOf("foobar"), 0U);
}

// Numbers of articles: their last digit makes a sum of all of them a multiple of ten.
std::string articleNumber(int i) {
  std::string digits = std::to_string(400000000000 + 37LL * i);
  int sum = 0;
  for (std::size_t place = 0; place < digits.size(); ++place) {
    sum += (place % 2 == 0 ? 1 : 3) * (digits[place] - '0');
  }
  return digits + std::to_string((10 - sum % 10) % 10);
}

TEST_F(PartsTest, KeysWhoseSumIsAlwaysEvenAreDividedAmongAll) {
  constexpr int kKeys = 1000;
  ASSERT_EQ(articleNumber(0), "4000000000006");
  const auto twice = [](int i) { return std::to_string(i) + '/' + std::to_string(i); };
  for (const std::size_t count : {std::size_t{2}, std::size_t{4}}) {
    const IndexParts parts("index", count);
    std::vector<std::size_t> articles(count);
    std::vector<std::size_t> pairs(count);
    for (int i = 0; i < kKeys; ++i) {
      ++articles[parts.partOf(articleNumber(i))];
      ++pairs[parts.partOf(twice(i))];
    }
    EXPECT_THAT(articles, Each(::testing::Gt(kKeys / count / 2)));
    EXPECT_THAT(pairs, Each(::testing::Gt(kKeys / count / 2)));
  }
}

TEST_F(PartsTest, SingleDatabaseStandsWhereItAlwaysDid) {
  write(3, 1);
  EXPECT_TRUE(std::filesystem::exists(collection() / "index" / "iamglass"));
  EXPECT_FALSE(std::filesystem::exists(part(0)));
  EXPECT_EQ(read(collection() / "index-sums").substr(0, 4), "KRS1");
  EXPECT_EQ(Xapian::Database((collection() / "index").string()).get_metadata("parts"), "");
}

// An index of one database must be readable by every build, and that of every build.
TEST_F(PartsTest, ChecksumsOfASingleDatabaseAreTheBytesThatTheyAlwaysWere) {
  constexpr std::string_view kBytes =
      "4b525331000000000000000700002000000000020000000869616d676c61737300000000000000070000000776"
      "657273696f6e0000000e706f73746c6973742e676c617373000000000000200a0d6f66d5422f4cf8b73a385b";
  const std::filesystem::path collection = directory_.path() / "c";
  std::filesystem::create_directories(collection / "index");
  rewrite(collection / "index" / "iamglass", "version");
  rewrite(collection / "index" / "postlist.glass", std::string(8192, 'a') + std::string(10, 'b'));
  IndexSums::create(collection, {{"", 7}});
  std::string hex;
  for (const char c : read(collection / "index-sums")) {
    hex += fmt::format("{:02x}", static_cast<unsigned char>(c));
  }
  EXPECT_EQ(hex, kBytes);
  EXPECT_EQ(refusalOf([&] { IndexSums(collection).verify(); }), "");
}

TEST_F(PartsTest, DocumentsAreDividedAmongAll) {
  write(30, 3);
  const IndexParts parts = IndexParts::in(collection() / "index");
  ASSERT_EQ(parts.size(), 3U);
  std::vector<std::uint32_t> expected(3);
  for (int i = 0; i < 30; ++i) ++expected[parts.partOf(keyOf(i))];
  for (int number = 0; number < 3; ++number) {
    EXPECT_GT(documentsIn(number), 0U);
    EXPECT_EQ(documentsIn(number), expected[static_cast<std::size_t>(number)]);
  }
  EXPECT_THAT(found(*std::make_unique<LocalStore>(data(), StoreLimits{}), "fox"), SizeIs(30));
}

TEST_F(PartsTest, NumberIsFixedWhenTheCollectionIsCreated) {
  write(10, 2);
  LocalStore store(data(), limitsFor(4));
  add(store, "new", "hound");
  store.updateIndex("c");
  EXPECT_EQ(IndexParts::in(collection() / "index").size(), 2U);
  EXPECT_THAT(found(store, "fox"), SizeIs(10));
  EXPECT_THAT(found(store, "hound"), ElementsAre("new"));
  store.deleteDocument("c", "new");
  store.updateIndex("c");
  EXPECT_THAT(found(store, "hound"), IsEmpty());
}

TEST_F(PartsTest, EveryDatabaseKnowsEveryName) {
  write(0, 3);
  LocalStore store(data(), {});
  const std::vector<std::string> names{"alpha", "beta", "gamma", "delta"};
  int i = 0;
  for (const std::string& name : names) {
    store.addDocument("c", {keyOf(++i), {{"[sortable]" + name, "3"}, {name, "word"}}, "text"});
    store.updateIndex("c");
    for (int number = 0; number < 3; ++number) {
      const Xapian::Database database(part(number).string());
      EXPECT_THAT(database.get_metadata("fields"), HasSubstr(name)) << number;
      EXPECT_THAT(database.get_metadata("sortable"), HasSubstr(name)) << number;
    }
  }
  i = 0;
  for (const std::string& name : names) {
    EXPECT_THAT(found(store, name + ":word"), ElementsAre(keyOf(++i)));
  }
}

TEST_F(PartsTest, OneThatIsInAnothersPlaceIsRefused) {
  write(10, 2);
  std::filesystem::remove(collection() / "index-sums");
  std::filesystem::remove(collection() / "journal-0000000000");
  std::filesystem::rename(part(0), directory_.path() / "x");
  std::filesystem::rename(part(1), part(0));
  std::filesystem::rename(directory_.path() / "x", part(1));
  LocalStore store(data(), {});
  EXPECT_THAT(refusalOf([&] { found(store, "fox"); }),
              AllOf(HasSubstr("part-0 is another part"), HasSubstr("\"fnv1a-64-folded 2 1\""),
                    HasSubstr("\"fnv1a-64-folded 2 0\"")));
}

TEST_F(PartsTest, OneThatIsMissingIsRefused) {
  write(10, 3);
  std::filesystem::remove_all(part(2));
  EXPECT_THAT(
      refusalOf([&] { found(*std::make_unique<LocalStore>(data(), StoreLimits{}), "fox"); }),
      AllOf(HasSubstr("part-2"), HasSubstr("the file is missing")));
  std::filesystem::remove(collection() / "index-sums");
  std::filesystem::remove(collection() / "journal-0000000000");
  EXPECT_THAT(
      refusalOf([&] { found(*std::make_unique<LocalStore>(data(), StoreLimits{}), "fox"); }),
      HasSubstr("(\"fnv1a-64-folded 3 0\", not \"fnv1a-64-folded 2 0\")"));
}

TEST_F(PartsTest, UnknownHashIsRefused) {
  write(10, 2);
  {
    Xapian::WritableDatabase database(part(1).string());
    database.set_metadata("parts", "fnv1a-128 2 1");
  }
  std::filesystem::remove(collection() / "index-sums");
  std::filesystem::remove(collection() / "journal-0000000000");
  LocalStore store(data(), {});
  EXPECT_THAT(refusalOf([&] { found(store, "fox"); }), HasSubstr("\"fnv1a-128 2 1\""));
}

TEST_F(PartsTest, OneOfALaterFormIsRefused) {
  write(10, 2);
  const auto expectRefused = [&](const std::string& schema, const std::string& reason) {
    Xapian::WritableDatabase(part(1).string()).set_metadata("schema", schema);
    std::filesystem::remove(collection() / "index-sums");
    std::filesystem::remove(collection() / "journal-0000000000");
    EXPECT_THAT(refusalOf([&] { LocalStore(data(), {}).openCollection("c"); }), HasSubstr(reason));
  };
  expectRefused("3", "part-1 was written by another version");
  expectRefused("1", "not of the same form");
}

// Requests open small collections on their own threads, where nobody counts that.
TEST_F(PartsTest, OpeningTakesHardlyMoreDescriptorsForManyThanForOne) {
  write(1, kMostParts);
  EXPECT_NO_THROW(XapianIndex(collection(), {}));
  const test::DescriptorLimit few(10);
  EXPECT_NO_THROW(XapianIndex(collection(), {}));
}

TEST_F(PartsTest, MakingAnewCountsTheDescriptorsOfAll) {
  write(50, 3);
  for (int number = 0; number < 3; ++number) {
    Xapian::WritableDatabase(part(number).string()).set_metadata("schema", "1");
  }
  std::filesystem::remove(collection() / "index-sums");
  // To read four each, to write eight each, but for one that the process keeps.
  constexpr std::size_t kTaken = 2 * (4 + 8);
  const auto steps = [&](std::size_t descriptors) {
    IndexLimits limits;
    limits.descriptors = std::make_shared<DescriptorBudget>(descriptors);
    limits.descriptors->setReclaim([] { return false; });
    XapianIndex index(collection(), limits);
    while (index.rebuildStep([] {})) {
    }
    return index.isOfEarlierForm();
  };
  EXPECT_THROW(steps(kTaken - 1), ServerError);
  EXPECT_FALSE(steps(kTaken));
}

// The engine would number documents of the second database like those of the first.
TEST_F(PartsTest, DatabaseWithoutNumbersLeftIsRefused) {
  write(10, 2);
  {
    Xapian::WritableDatabase database(part(1).string());
    database.replace_document(0x80000000U, Xapian::Document());
  }
  std::filesystem::remove(collection() / "index-sums");
  std::filesystem::remove(collection() / "journal-0000000000");
  LocalStore store(data(), {});
  EXPECT_THAT(refusalOf([&] { found(store, "fox"); }),
              AllOf(HasSubstr("part-1"), HasSubstr("no numbers left")));
}

TEST_F(PartsTest, UpdateThatWouldTakeTheLastNumbersIsRefused) {
  write(10, 2);
  {
    Xapian::WritableDatabase database(part(1).string());
    database.replace_document(0x7FFFFFFFU, Xapian::Document());
  }
  std::filesystem::remove(collection() / "index-sums");
  std::filesystem::remove(collection() / "journal-0000000000");
  LocalStore store(data(), {});
  for (int i = 10; i < 20; ++i) add(store, keyOf(i), "fox");
  EXPECT_THAT(refusalOf([&] { store.updateIndex("c"); }), HasSubstr("no numbers left"));
  EXPECT_THAT(found(store, "fox"), SizeIs(10));
}

// Its XORs are resolved, so it has more words than before, but for what is counted once more.
TEST_F(PartsTest, LongQueryThatCanBeSearchedCanBeMatched) {
  LocalStore store(data(), limitsFor(2));
  store.createCollection("c", "en");
  add(store, "k", "w1");
  store.updateIndex("c");
  const auto group = [](int first) {
    std::string words = "w" + std::to_string(first);
    for (int i = 1; i < 25; ++i) words += " XOR w" + std::to_string(first + i);
    return "((" + words + ") OR other)";
  };
  SearchQuery query;
  query.text = group(0) + " XOR " + group(25);
  EXPECT_THAT(found(store, query.text), ElementsAre("k"));
  const auto hits = store.match("c", query, {{"text", {}, "w2"}, {"none", {}, "w1 w2"}});
  Hit hit;
  EXPECT_TRUE(hits->next(hit));
  EXPECT_EQ(hit.key, "text");
  EXPECT_FALSE(hits->next(hit));
}

// One word stands in all documents, and each round replaces it in all of them.
TEST_F(PartsTest, SearchesSeeARoundInAllDatabasesOrInNone) {
  constexpr int kDocuments = 12;
  constexpr int kRounds = 60;
  StoreLimits limits = limitsFor(3);
  LocalStore store(data(), limits);
  store.createCollection("c", "en");
  const auto round = [&](int number) {
    for (int i = 0; i < kDocuments; ++i) add(store, keyOf(i), "round" + std::to_string(number));
    store.updateIndex("c");
  };
  round(0);
  std::atomic<bool> done = false;
  std::vector<std::string> mixed;
  std::atomic<int> searches = 0;
  std::thread searcher([&] {
    while (!done || searches == 0) {
      SearchQuery query;
      query.everything = true;
      query.order = HitOrder::Key;
      std::vector<std::string> texts;
      store.visit("c", query, [&](const Document& each) { texts.push_back(each.content); });
      for (const std::string& text : texts) {
        if (text != texts.front()) mixed.push_back(texts.front() + " and " + text);
      }
      if (texts.size() != kDocuments) mixed.push_back("too few");
      ++searches;
    }
  });
  for (int number = 1; number <= kRounds; ++number) round(number);
  done = true;
  searcher.join();
  EXPECT_THAT(mixed, IsEmpty());
}

TEST_F(PartsTest, OthersAreAskedForHelpWhereThereAreSeveralDatabases) {
  for (const std::size_t parts : {std::size_t{1}, std::size_t{2}}) {
    const std::filesystem::path collection = directory_.path() / std::to_string(parts);
    std::filesystem::create_directory(collection);
    IndexWriter::create(collection, {"en", {}, parts});
    std::size_t calls = 0;
    IndexLimits limits;
    limits.helpers = [&](const std::function<void()>& work) {
      ++calls;
      work();
    };
    const StopCheck goOn = [] {};
    std::vector<Change> changes;
    for (int i = 0; i < 20; ++i) changes.push_back({ChangeKind::Put, {keyOf(i), {}, "fox"}});
    IndexWriter(collection, limits, goOn).apply(changes);
    // To prepare, and to commit.
    EXPECT_EQ(calls, parts == 1 ? 0U : 2U);
  }
}

// The commit of the first one takes until somebody reads what the engine writes. Whoever is alone
// would not come to the second one.
TEST_F(PartsTest, ThreadsThatUpdateIndexesHelpEachOther) {
  write(20);
  LocalStore store(data(), {});
  for (int i = 0; i < 20; ++i) add(store, keyOf(i), "hound");
  const std::filesystem::path pipe = part(0) / "v.tmp";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const std::string version = read(part(1) / "iamglass");
  auto update =
      std::async(std::launch::async, [&] { return refusalOf([&] { store.updateIndex("c"); }); });
  while (read(part(1) / "iamglass") == version) std::this_thread::yield();
  const int end = ::open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  EXPECT_NE(update.get(), "") << "a pipe cannot be brought to disk";
  ::close(end);
  std::filesystem::remove(pipe);
  EXPECT_THAT(found(store, "fox"), SizeIs(20));
  store.updateIndex("c");
  EXPECT_THAT(found(store, "hound"), SizeIs(20));
}

// The engine writes the place of a transaction to a file of that name first.
TEST_F(PartsTest, FailureToCommitOneDatabaseIsUndoneInTheOther) {
  write(20, 2);
  LocalStore store(data(), {});
  EXPECT_THAT(found(store, "fox"), SizeIs(20));
  std::filesystem::create_directory(part(1) / "v.tmp");
  for (int i = 0; i < 20; ++i) add(store, keyOf(i), "hound");
  EXPECT_THAT(refusalOf([&] { store.updateIndex("c"); }), HasSubstr("v.tmp"));
  EXPECT_FALSE(IndexUndo::isPending(collection()));
  EXPECT_THAT(found(store, "fox"), SizeIs(20));
  EXPECT_THAT(found(store, "hound"), IsEmpty());
  std::filesystem::remove(part(1) / "v.tmp");
  store.updateIndex("c");
  EXPECT_THAT(found(store, "fox"), IsEmpty());
  EXPECT_THAT(found(store, "hound"), SizeIs(20));
}

TEST_F(PartsTest, FailureThatCannotBeUndoneIsUndoneWhenTheCollectionIsOpened) {
  write(20, 2);
  std::filesystem::create_directory(part(1) / "v.tmp");
  std::filesystem::create_directory(part(0) / "iamglass.new");
  {
    LocalStore store(data(), {});
    EXPECT_THAT(found(store, "fox"), SizeIs(20));
    for (int i = 0; i < 20; ++i) add(store, keyOf(i), "hound");
    EXPECT_THAT(
        refusalOf([&] { store.updateIndex("c"); }),
        AllOf(HasSubstr("v.tmp"), HasSubstr("could not be undone"), HasSubstr("iamglass.new")));
    EXPECT_TRUE(IndexUndo::isPending(collection()));
    EXPECT_THAT(found(store, "fox"), SizeIs(20)) << "a handle that is open sees the earlier state";
  }
  EXPECT_NE(refusalOf([&] { found(*std::make_unique<LocalStore>(data(), StoreLimits{}), "fox"); }),
            "")
      << "a mixture was found";
  std::filesystem::remove(part(0) / "iamglass.new");
  std::filesystem::remove(part(1) / "v.tmp");
  LocalStore store(data(), {});
  EXPECT_THAT(found(store, "fox"), SizeIs(20));
  EXPECT_FALSE(IndexUndo::isPending(collection()));
  store.updateIndex("c");
  EXPECT_THAT(found(store, "hound"), SizeIs(20));
}

TEST_F(PartsTest, FailureThatCannotBeUndoneIsUndoneByTheNextUpdate) {
  write(20, 2);
  std::filesystem::create_directory(part(1) / "v.tmp");
  std::filesystem::create_directory(part(0) / "iamglass.new");
  LocalStore store(data(), {}, directory_.path() / "backups");
  for (int i = 0; i < 20; ++i) add(store, keyOf(i), "hound");
  EXPECT_NE(refusalOf([&] { store.updateIndex("c"); }), "");
  EXPECT_THAT(refusalOf([&] { found(store, "fox"); }), HasSubstr("could not be undone"));
  EXPECT_THAT(refusalOf([&] { store.backup("b", "c"); }), HasSubstr("could not be undone"));
  std::filesystem::remove(part(0) / "iamglass.new");
  std::filesystem::remove(part(1) / "v.tmp");
  store.updateIndex("c");
  EXPECT_FALSE(IndexUndo::isPending(collection()));
  EXPECT_THAT(found(store, "hound"), SizeIs(20));
  EXPECT_THAT(found(store, "fox"), IsEmpty());
  EXPECT_NO_THROW(store.backup("b", "c"));
}

TEST_F(PartsTest, UndoingHoldsForOneTransactionOnly) {
  write(0);
  const auto commit = [&] {
    Xapian::WritableDatabase database(part(0).string());
    const std::string before = database.get_metadata("times");
    database.set_metadata("times", before + "x");
    database.commit();
  };
  const auto begin = [&] { IndexUndo::begin(collection(), {part(0), part(1)}); };
  // Beyond 127 a revision takes two bytes.
  for (int revision = 2; revision < 135; ++revision) {
    const std::string version = read(part(0) / "iamglass");
    begin();
    commit();
    ASSERT_EQ(IndexUndo::faultIn(collection()), std::nullopt) << revision;
    IndexUndo::carryOut(collection());
    EXPECT_EQ(read(part(0) / "iamglass"), version);
    commit();
  }
  EXPECT_GT(Xapian::Database(part(0).string()).get_revision(), 130U);
  begin();
  for (int times = 0; times < 3; ++times) commit();
  const std::string version = read(part(0) / "iamglass");
  EXPECT_THAT(refusalOf([&] { IndexUndo::carryOut(collection()); }),
              AllOf(HasSubstr("index-undo is damaged"), HasSubstr("part-0")));
  EXPECT_EQ(read(part(0) / "iamglass"), version);
}

TEST_F(PartsTest, NothingIsUndoneThatBelongsToOtherDatabases) {
  write(10);
  const auto expectRefused = [&](const std::string& reason) {
    EXPECT_THAT(IndexUndo::faultIn(collection()).value_or(""), HasSubstr(reason));
    EXPECT_THAT(refusalOf([&] { LocalStore(data(), {}).openCollection("c"); }),
                AllOf(HasSubstr("index-undo is damaged"), HasSubstr(reason)));
    EXPECT_FALSE(Maintenance(data()).check("c").isSound());
  };
  std::filesystem::copy(part(1), collection() / "index" / "other");
  IndexUndo::begin(collection(), {part(0), collection() / "index" / "other"});
  expectRefused("\"other\", which is no database of the index");
  // What another collection has left.
  IndexUndo::begin(collection(), {part(0), part(1)});
  std::string bytes = read(IndexUndo::pathIn(collection()));
  std::swap_ranges(bytes.begin() + kFirstName, bytes.begin() + kFirstName + 6,
                   bytes.begin() + static_cast<long>(bytes.rfind("part-1")));
  rewriteUndo(bytes);
  expectRefused("was before its last change");
}

TEST_F(PartsTest, WhatUndoesAChangeEndsWithTheLastDatabase) {
  write(10);
  IndexUndo::begin(collection(), {part(0), part(1)});
  std::string bytes = read(IndexUndo::pathIn(collection()));
  bytes.insert(bytes.size() - 4, 1, 'x');
  rewriteUndo(bytes);
  EXPECT_THAT(IndexUndo::faultIn(collection()).value_or(""), HasSubstr("unreadable"));
}

/// An index of which one database has committed and the other has not, as a crash leaves it.
class HalfCommittedTest : public PartsTest {
 protected:
  HalfCommittedTest() {
    write(20, 2);
    LocalStore store(data(), {});
    for (int i = 0; i < 20; ++i) add(store, keyOf(i), "hound");
    store.takeParseOutcomes("c");
  }

  void commitHalf() const {
    std::filesystem::rename(collection() / "index-sums", collection() / "index-sums-changing");
    IndexUndo::begin(collection(), {part(0), part(1)});
    Xapian::WritableDatabase database(part(0).string());
    for (const std::string& key : keysIn(0)) {
      const std::string identity = "Q" + key;
      Xapian::Document document = database.get_document(*database.postlist_begin(identity));
      document.add_term("hound");
      database.replace_document(identity, document);
    }
    database.commit();
  }

  Keys keysIn(std::size_t number) const {
    const IndexParts parts = IndexParts::in(collection() / "index");
    Keys keys;
    for (int i = 0; i < 20; ++i) {
      if (parts.partOf(keyOf(i)) == number) keys.push_back(keyOf(i));
    }
    return keys;
  }
};

TEST_F(HalfCommittedTest, IsBroughtBackWhenItIsOpened) {
  commitHalf();
  LocalStore store(data(), {});
  EXPECT_THAT(found(store, "hound"), IsEmpty());
  EXPECT_THAT(found(store, "fox"), SizeIs(20));
  EXPECT_FALSE(IndexUndo::isPending(collection()));
  store.updateIndex("c");
  EXPECT_THAT(found(store, "hound"), SizeIs(20));
  EXPECT_THAT(found(store, "fox"), IsEmpty());
}

TEST_F(HalfCommittedTest, IsSoundAfterwards) {
  commitHalf();
  EXPECT_TRUE(Maintenance(data()).check("c").isSound()) << "what is left to do is no damage";
  { LocalStore(data(), {}).updateIndex("c"); }
  EXPECT_TRUE(Maintenance(data()).check("c").isSound());
}

TEST_F(HalfCommittedTest, EachChangedBitOfWhatUndoesItIsNamed) {
  commitHalf();
  const std::string whole = read(IndexUndo::pathIn(collection()));
  for (std::size_t i = 0; i < whole.size(); ++i) {
    std::string bytes = whole;
    bytes[i] = static_cast<char>(bytes[i] ^ (1 << (i % 8)));
    std::ofstream(IndexUndo::pathIn(collection()), std::ios::binary | std::ios::trunc) << bytes;
    LocalStore store(data(), {});
    EXPECT_THAT(refusalOf([&] { found(store, "fox"); }), HasSubstr("index-undo is damaged")) << i;
  }
  EXPECT_FALSE(Maintenance(data()).check("c").isSound());
}

TEST_F(HalfCommittedTest, IsMadeAnewWhenItCannotBeUndone) {
  commitHalf();
  std::ofstream(IndexUndo::pathIn(collection()), std::ios::trunc) << "rubbish";
  const Repair repair = Maintenance(data()).repair("c");
  EXPECT_TRUE(repair.indexMadeAnew);
  EXPECT_EQ(repair.documentsKept, 20U);
  EXPECT_THAT(repair.documentsLost, IsEmpty());
  LocalStore store(data(), {});
  store.updateIndex("c");
  EXPECT_THAT(found(store, "hound"), SizeIs(20));
  EXPECT_THAT(found(store, "fox"), IsEmpty());
}

TEST_F(PartsTest, DamagedTablesAreNamedAndRepaired) {
  write(200, 2);
  damage(part(1) / "postlist.glass", 8192 + 100);
  EXPECT_THAT(
      refusalOf([&] { found(*std::make_unique<LocalStore>(data(), StoreLimits{}), "fox"); }),
      HasSubstr("part-1/postlist.glass is damaged at byte 8192"));
  EXPECT_FALSE(Maintenance(data()).check("c").isSound());
  const Repair repair = Maintenance(data()).repair("c");
  EXPECT_TRUE(repair.indexMadeAnew);
  EXPECT_EQ(repair.documentsKept, 200U);
  EXPECT_THAT(repair.documentsLost, IsEmpty());
  EXPECT_EQ(IndexParts::in(collection() / "index").size(), 2U);
  EXPECT_THAT(found(*std::make_unique<LocalStore>(data(), StoreLimits{}), "fox"), SizeIs(200));
}

TEST_F(PartsTest, RepairDoesNotPassOverADatabaseThatIsMissing) {
  write(50, 3);
  std::filesystem::remove_all(part(2));
  EXPECT_THAT(refusalOf([&] { Maintenance(data()).repair("c"); }),
              AllOf(HasSubstr("nothing of the index"), HasSubstr("part-2 can be read")));
  std::ofstream(collection() / "index-sums", std::ios::trunc) << "rubbish";
  EXPECT_THAT(refusalOf([&] { Maintenance(data()).repair("c"); }),
              HasSubstr("part-0 is another part of an index than its place says"));
}

// Damage in one of them, a transaction that only the other one has.
TEST_F(PartsTest, RepairReadsNothingOfATransactionThatIsToBeUndone) {
  write(20);
  IndexUndo::begin(collection(), {part(0), part(1)});
  const std::string undo = read(IndexUndo::pathIn(collection()));
  std::filesystem::remove(IndexUndo::pathIn(collection()));
  const std::string sums = read(collection() / "index-sums");
  const std::string version = read(part(1) / "iamglass");
  {
    LocalStore store(data(), {});
    for (int i = 0; i < 20; ++i) add(store, keyOf(i), "hound");
    store.updateIndex("c");
  }
  rewrite(IndexUndo::pathIn(collection()), undo);
  rewrite(collection() / "index-sums-changing", sums);
  std::filesystem::remove(collection() / "index-sums");
  rewrite(part(1) / "iamglass", version);
  damage(part(1) / "position.glass", 100);
  const Repair repair = Maintenance(data()).repair("c");
  EXPECT_TRUE(repair.indexMadeAnew);
  EXPECT_THAT(repair.documentsLost, IsEmpty());
  LocalStore store(data(), {});
  EXPECT_THAT(found(store, "fox"), SizeIs(20));
  EXPECT_THAT(found(store, "hound"), IsEmpty());
}

/// Tables of several levels.
class LargePartsTest : public PartsTest {
 protected:
  static constexpr int kDocuments = 300;

  LargePartsTest() {
    LocalStore store(data(), limitsFor(2));
    store.createCollection("c", "en");
    for (int i = 0; i < kDocuments; ++i) {
      std::string text = "fox";
      for (int j = 0; j < 60; ++j) text += " w" + std::to_string((i * 7919 + j * 104729) % 99991);
      add(store, keyOf(i), text);
    }
    store.updateIndex("c");
  }

  // The blocks of the table in which that is written.
  static std::vector<std::size_t> blocksWith(const std::filesystem::path& table,
                                             const std::string& text) {
    const std::string bytes = read(table);
    std::vector<std::size_t> places;
    for (std::size_t place = 0; place < bytes.size(); place += kTableBlock) {
      const std::string block = bytes.substr(place, kTableBlock);
      if (block.find(text) != std::string::npos) places.push_back(place);
    }
    return places;
  }

  // The last of the blocks that have no others below them.
  static std::size_t lastLeaf(const std::filesystem::path& table) {
    constexpr std::size_t kLevelPlace = 4;
    const std::string bytes = read(table);
    std::size_t place = bytes.size() - kTableBlock;
    while (place > 0 && bytes[place + kLevelPlace] != 0) place -= kTableBlock;
    return place;
  }
};

TEST_F(LargePartsTest, RepairKeepsTheNumberOfDatabasesEvenIfNothingElseIsKnownOfThem) {
  for (int number = 0; number < 2; ++number) {
    const std::filesystem::path table = part(number) / "postlist.glass";
    const auto blocks = blocksWith(table, "fnv1a-64-folded");
    ASSERT_FALSE(blocks.empty());
    for (const std::size_t block : blocks) damage(table, block + 4000);
  }
  const Repair repair = Maintenance(data()).repair("c");
  EXPECT_TRUE(repair.languageLost);
  EXPECT_EQ(repair.documentsKept, kDocuments);
  EXPECT_EQ(IndexParts::in(collection() / "index").size(), 2U);
  EXPECT_THAT(found(*std::make_unique<LocalStore>(data(), StoreLimits{}), "fox"),
              SizeIs(kDocuments));
}

TEST_F(LargePartsTest, RepairSaysWhichDatabaseNumbersALostDocument) {
  const std::filesystem::path table = part(1) / "docdata.glass";
  damage(table, lastLeaf(table) + 4000);
  const Repair repair = Maintenance(data()).repair("c");
  EXPECT_FALSE(repair.documentsLost.empty());
  const IndexParts parts = IndexParts::in(collection() / "index");
  for (const LostDocument& lost : repair.documentsLost) {
    EXPECT_EQ(lost.database, "part-1");
    EXPECT_EQ(parts.partOf(lost.key), 1U);
  }
  EXPECT_EQ(repair.documentsKept + repair.documentsLost.size(), kDocuments);
}

// Those that have no numbers left are what making the index anew is good for.
TEST_F(PartsTest, DatabaseWithoutNumbersLeftCanBeRead) {
  write(10);
  Xapian::WritableDatabase(part(1).string()).replace_document(0x80000000U, Xapian::Document());
  const IndexSalvage salvage(collection(), {}, directory_.path() / "work");
  EXPECT_EQ(salvage.parts(), 2U);
  EXPECT_EQ(salvage.form().value_or(IndexForm{}).language, "en");
}

TEST_F(PartsTest, LostChecksumsAreMadeAnew) {
  write(50, 2);
  std::ofstream(collection() / "index-sums", std::ios::trunc) << "rubbish";
  const Repair repair = Maintenance(data()).repair("c");
  EXPECT_FALSE(repair.indexMadeAnew);
  EXPECT_EQ(repair.documentsKept, 50U);
  EXPECT_TRUE(Maintenance(data()).check("c").isSound());
}

TEST_F(PartsTest, IndexOfAnEarlierFormIsMadeAnewInAll) {
  write(50, 2);
  for (int number = 0; number < 2; ++number) {
    Xapian::WritableDatabase database(part(number).string());
    database.set_metadata("schema", "1");
  }
  std::filesystem::remove(collection() / "index-sums");
  std::filesystem::remove(collection() / "journal-0000000000");
  LocalStore store(data(), {});
  store.updateIndex("c");
  EXPECT_EQ(IndexParts::in(collection() / "index").size(), 2U);
  for (int number = 0; number < 2; ++number) {
    EXPECT_EQ(Xapian::Database(part(number).string()).get_metadata("schema"), "2");
  }
  EXPECT_THAT(found(store, "fox"), SizeIs(50));
  EXPECT_THAT(found(store, "year:1990"), SizeIs(50));
}

TEST_F(PartsTest, BackupHasAll) {
  const std::filesystem::path backups = directory_.path() / "backups";
  LocalStore store(data(), limitsFor(3), backups);
  store.createCollection("c", "en");
  for (int i = 0; i < 100; ++i) add(store, keyOf(i), "fox");
  store.updateIndex("c");
  for (int i = 100; i < 120; ++i) add(store, keyOf(i), "fox");
  store.backup("b", "c");
  store.deleteCollection("c");
  store.restore({"b", {}, {}, false});
  EXPECT_EQ(IndexParts::in(collection() / "index").size(), 3U);
  EXPECT_THAT(found(store, "fox"), SizeIs(100));
  store.updateIndex("c");
  EXPECT_THAT(found(store, "fox"), SizeIs(120));
}

}  // namespace
}  // namespace corvaned
