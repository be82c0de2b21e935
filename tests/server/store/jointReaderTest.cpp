#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <xapian.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "server/base/descriptorBudget.h"
#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/base/memoryBudget.h"
#include "server/base/requestContext.h"
#include "server/store/collection.h"
#include "server/store/indexReaders.h"
#include "server/store/indexWriter.h"
#include "server/store/jointReader.h"
#include "server/store/localStore.h"
#include "tests/server/store/randomTexts.h"
#include "tests/support/temporaryDirectory.h"

// Hits of several collections, ranked together.
namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

using test::Random;

using Names = std::vector<std::string>;
/// Collection and key.
using Places = std::vector<std::pair<std::string, std::string>>;

SearchQuery queryFor(const std::string& text) {
  SearchQuery query;
  query.text = text;
  query.everything = text.empty();
  if (query.everything) query.order = HitOrder::Key;
  return query;
}

Places placesOf(const std::vector<HitDetails>& details) {
  Places places;
  for (const HitDetails& each : details) places.emplace_back(each.collection, each.hit.key);
  return places;
}

class TogetherTest : public ::testing::Test {
 protected:
  explicit TogetherTest(std::size_t parts = 1) {
    limits_.parts = parts;
    limits_.index.memory = memory_;
    open();
  }

  void open() {
    store_.reset();
    store_ = std::make_unique<LocalStore>(directory_.path() / "data", limits_);
  }

  void create(const std::string& name, const TextOptions& options = {},
              const std::string& language = "en") {
    store_->createCollection(name, language, {}, options);
  }

  void put(const std::string& name, const std::string& key, const std::string& text,
           Metadata metadata = {}, const DocumentForm& form = {}) {
    noteForm(metadata, form);
    store_->queueDocument(name, {key, std::move(metadata), text});
  }

  void update(const Names& names) {
    for (const std::string& name : names) store_->updateIndex(name);
  }

  std::vector<HitDetails> details(const Names& names, const SearchQuery& query,
                                  const DetailsWanted& wanted = {}) {
    return store_->details(names, query, wanted);
  }

  Places found(const Names& names, const SearchQuery& query) {
    return placesOf(details(names, query));
  }

  Places found(const Names& names, const std::string& text) { return found(names, queryFor(text)); }

  std::string refusal(const Names& names, const SearchQuery& query,
                      const DetailsWanted& wanted = {}) {
    try {
      details(names, query, wanted);
      return "none";
    } catch (const ServerError& error) {
      return std::string(messageId(error.kind())) + " " + error.what();
    }
  }

  std::string refusal(const Names& names, const std::string& text) {
    return refusal(names, queryFor(text));
  }

  tq::test::TemporaryDirectory directory_;
  std::shared_ptr<MemoryBudget> memory_ = std::make_shared<MemoryBudget>(std::size_t{64} << 20U);
  StoreLimits limits_;
  std::unique_ptr<LocalStore> store_;
};

/// Three collections, and one that has all of their documents.
class SameTogetherTest : public TogetherTest, public ::testing::WithParamInterface<std::size_t> {
 protected:
  static constexpr std::size_t kKeys = 90;

  SameTogetherTest() : TogetherTest(GetParam()) {}

  static std::string keyOf(std::size_t i) {
    return std::string(1 + i % 4, static_cast<char>('a' + i % 7)) +
           static_cast<char>(i * 37 % 256) + std::to_string(i);
  }
  static const std::string& homeOf(std::size_t i) { return kParts[i % 5 % 3]; }

  /// Documents that come, are replaced and go; some of the deletions are not in the index yet.
  void fill(Random& random) {
    create("all");
    for (const std::string& name : kParts) create(name);
    // Each collection sees the names in the same order.
    for (std::size_t i = 0; i < kKeys; ++i) {
      const Metadata names{{"title", "x"}, {"colour", "x"}, {"year", "x"}, {"[sortable]rank", "3"}};
      for (const std::string& name : {homeOf(i), kAll}) put(name, keyOf(i), "fox", names);
    }
    update({"all", "p0", "p1", "p2"});
    for (std::size_t i = 0; i < 2 * kKeys; ++i) {
      const std::size_t number = random.below(kKeys);
      Document document = test::randomDocument(random, keyOf(number));
      document.metadata.emplace_back("[sortable]rank", std::to_string(random.below(5)));
      if (random.oneIn(3)) test::addForm(random, document);
      for (const std::string& name : {homeOf(number), kAll}) store_->queueDocument(name, document);
    }
    update({"all", "p0", "p1", "p2"});
    for (std::size_t i = 0; i < kKeys; i += 11) {
      for (const std::string& name : {homeOf(i), kAll}) store_->deleteDocument(name, keyOf(i));
    }
  }

  static SearchQuery randomSearch(Random& random) {
    SearchQuery query;
    query.text = test::randomQuery(random);
    query.sortBy = "rank";
    query.descending = random.oneIn(2);
    query.scale = random.oneIn(2) ? ScoreScale::Raw : ScoreScale::Normalized;
    if (random.oneIn(6)) query.after = keyOf(random.below(kKeys));
    if (random.oneIn(6)) query.upTo = keyOf(random.below(kKeys));
    for (std::size_t i = random.oneIn(6) ? random.below(kKeys) : 0; i > 0; --i) {
      query.keys.push_back(keyOf(random.below(kKeys)));
    }
    return query;
  }

  std::string answer(const Names& names, const SearchQuery& query) {
    try {
      DetailsWanted wanted{{"title", "year"}, 40};
      std::vector<HitDetails> found = details(names, query, wanted);
      // Sums in which the words stand in another order may differ in the last bit, and then hits
      // whose scores look alike do not stand in the order of their keys.
      std::stable_sort(found.begin(), found.end(), [](const HitDetails& a, const HitDetails& b) {
        if (a.hit.milliScore != b.hit.milliScore) return a.hit.milliScore > b.hit.milliScore;
        return a.hit.milliScore > 0 && a.hit.key < b.hit.key;
      });
      std::string text;
      for (const HitDetails& each : found) {
        text += each.hit.key + "=" + std::to_string(each.hit.milliScore);
        for (const auto& [name, value] : each.values) text += " " + name + "=" + value;
        text += each.snippet.empty() ? ";" : " text;";
      }
      return text;
    } catch (const ServerError& error) {
      return error.what();
    }
  }

  inline static const std::string kAll = "all";
  inline static const std::array<std::string, 3> kParts{"p0", "p1", "p2"};
};

TEST_P(SameTogetherTest, RankingIsThatOfOneCollectionWithAllDocuments) {
  constexpr std::array kOrders{HitOrder::Score, HitOrder::Value, HitOrder::Key};
  Random random(7 + GetParam());
  fill(random);
  std::size_t bytes = 0;
  for (std::size_t i = 0; i < 400; ++i) {
    SearchQuery query = randomSearch(random);
    for (const HitOrder order : kOrders) {
      // A word with * has another weight in each database.
      if (order == HitOrder::Score && query.text.find('*') != std::string::npos) continue;
      query.order = order;
      const std::string expected = answer({"all"}, query);
      bytes += expected.size();
      EXPECT_EQ(answer({"p1", "p2", "p0"}, query), expected)
          << "order " << static_cast<int>(order) << ", " << query.text;
    }
  }
  EXPECT_GT(bytes, 50000U) << "hardly anything is found";
}

TEST_P(SameTogetherTest, PagesByPositionMakeUpTheRanking) {
  Random random(GetParam());
  fill(random);
  for (const HitOrder order : {HitOrder::Score, HitOrder::Value, HitOrder::Key, HitOrder::Any}) {
    SearchQuery query = queryFor("fox OR red");
    query.order = order;
    query.sortBy = "rank";
    const Places whole = found({"p0", "p1", "p2"}, query);
    ASSERT_GT(whole.size(), 30U);
    Places pages;
    query.size = 7;
    for (; query.start < whole.size(); query.start += query.size) {
      const Places page = found({"p0", "p1", "p2"}, query);
      pages.insert(pages.end(), page.begin(), page.end());
    }
    EXPECT_EQ(pages, whole) << static_cast<int>(order);
    query.start = 0;
    query.limit = 3;
    EXPECT_THAT(found({"p0", "p1", "p2"}, query), SizeIs(3));
  }
}

INSTANTIATE_TEST_SUITE_P(Databases, SameTogetherTest, ::testing::Values(1, 3),
                         ::testing::PrintToStringParamName());

TEST_F(TogetherTest, EqualKeysAreHitsOfTheirOwnInTheOrderOfTheCollections) {
  // So that the numbers of the documents are in other orders.
  for (const char* name : {"b", "a", "c"}) create(name);
  put("a", "x", "hen");
  put("a", "y", "hen");
  for (const char* key : {"k2", "k1"}) {
    for (const char* name : {"a", "b", "c"}) put(name, key, "fox");
  }
  update({"a", "b", "c"});
  const Places expected{{"a", "k1"}, {"b", "k1"}, {"c", "k1"},
                        {"a", "k2"}, {"b", "k2"}, {"c", "k2"}};
  EXPECT_EQ(found({"c", "a", "b"}, "fox"), expected);
  for (std::size_t start = 0; start < expected.size(); ++start) {
    SearchQuery query = queryFor("fox");
    query.start = start;
    query.size = 1;
    EXPECT_EQ(found({"a", "b", "c"}, query), Places{expected[start]}) << start;
  }
  SearchQuery query = queryFor("fox");
  query.keys = {"k2"};
  EXPECT_THAT(found({"a", "c"}, query), ElementsAre(Pair("a", "k2"), Pair("c", "k2")));
}

TEST_F(TogetherTest, DeletedKeyIsMissingInItsOwnCollectionOnly) {
  for (const char* name : {"a", "b"}) {
    create(name);
    put(name, "k", "fox");
    put(name, "l", "fox and much else that is of no concern");
  }
  update({"a", "b"});
  store_->deleteDocument("a", "k");
  EXPECT_THAT(found({"a", "b"}, "fox"),
              ElementsAre(Pair("b", "k"), Pair("a", "l"), Pair("b", "l")));
  update({"a"});
  EXPECT_THAT(found({"a", "b"}, "fox"),
              ElementsAre(Pair("b", "k"), Pair("a", "l"), Pair("b", "l")));
}

TEST_F(TogetherTest, ManyDeletedKeysDoNotShortenAPageNorDecideAboutScores) {
  for (const char* name : {"a", "b"}) create(name);
  for (int i = 0; i < 200; ++i) put("a", "a" + std::to_string(i), "fox fox fox");
  for (int i = 0; i < 9; ++i) put("b", "b" + std::to_string(i), "fox among many other words");
  update({"a", "b"});
  for (int i = 0; i < 200; ++i) store_->deleteDocument("a", "a" + std::to_string(i));
  SearchQuery query = queryFor("fox");
  query.size = 3;
  const auto page = details({"a", "b"}, query);
  EXPECT_THAT(placesOf(page), ElementsAre(Pair("b", "b0"), Pair("b", "b1"), Pair("b", "b2")));
  EXPECT_EQ(page.front().hit.milliScore, 1000);
  query.start = 8;
  EXPECT_THAT(found({"a", "b"}, query), ElementsAre(Pair("b", "b8")));
}

TEST_F(TogetherTest, CollectionsThatReadWordsInOtherWaysAreRefusedByTheirNames) {
  TextOptions unstemmed;
  unstemmed.stems = false;
  TextOptions unplaced;
  unplaced.keepsPositions = false;
  TextOptions stopped;
  stopped.stopWords = {"the"};
  create("a");
  create("german", {}, "de");
  create("unstemmed", unstemmed);
  create("unplaced", unplaced);
  create("stopped", stopped);
  for (const char* name : {"german", "unstemmed", "unplaced", "stopped"}) {
    EXPECT_THAT(refusal({"a", name}, "fox"),
                AllOf(StartsWith("ZVK0006E"), HasSubstr("\"a\""), HasSubstr(name)));
  }
}

TEST_F(TogetherTest, OptionsThatDoNotConcernWordsMayDiffer) {
  TextOptions textless;
  textless.keepsText = false;
  textless.onlyMarkedMetadata = true;
  create("a");
  create("b", textless, "en_us");
  put("a", "k", "fox", {{"title", "A"}});
  put("b", "k", "foxes", {{"title", "B"}});
  update({"a", "b"});
  EXPECT_THAT(found({"a", "b"}, "fox"), UnorderedElementsAre(Pair("a", "k"), Pair("b", "k")));
  EXPECT_THAT(refusal({"a", "b"}, queryFor("fox"), {{}, 20}),
              AllOf(StartsWith("ZVK0004E"), HasSubstr("\"b\"")));
}

/// Two collections whose handles take much of the memory.
class TogetherInPartsTest : public TogetherTest {
 protected:
  TogetherInPartsTest() : TogetherTest(16) {}

  /// Indexes so many documents in each of the two.
  void fill(int documents, const std::string& text, const Metadata& metadata = {}) {
    for (const char* name : {"a", "b"}) {
      create(name);
      for (int i = 0; i < documents; ++i) put(name, std::to_string(i), text, metadata);
    }
    update({"a", "b"});
  }

  void reopen(std::size_t memory) {
    store_.reset();
    memory_ = std::make_shared<MemoryBudget>(memory);
    limits_.index.memory = memory_;
    open();
  }
};

// The lists of all of them would fit without the handles.
TEST_F(TogetherInPartsTest, WordsThatNeverFitBesideTheHandlesAreNoReasonToTryAgain) {
  constexpr int kWords = 215;
  std::string text;
  for (int i = 0; i < kWords; ++i) text += "w" + std::to_string(i) + " ";
  fill(1, text);
  EXPECT_THAT(refusal({"a", "b"}, "w*"),
              AllOf(StartsWith("ZVK0011E"), HasSubstr(" " + std::to_string(kWords) + " words")));
  EXPECT_THAT(found({"a"}, "w*"), SizeIs(1));
}

TEST_F(TogetherInPartsTest, HitsThatNeverFitBesideTheHandlesAreNoReasonToTryAgain) {
  constexpr int kDocuments = 550;
  fill(kDocuments, "fox", {{"[sortable]year", "1851"}});
  reopen(std::size_t{8} << 20U);
  SearchQuery query = queryFor("fox");
  query.order = HitOrder::Value;
  query.sortBy = "year";
  EXPECT_THAT(refusal({"a", "b"}, query), AllOf(StartsWith("ZVK0011E"), HasSubstr("hits")));
  EXPECT_THAT(found({"a"}, query), SizeIs(kDocuments));
}

TEST_F(TogetherTest, NamesOfMetadataMayBeMissingButNotInAnotherOrder) {
  for (const char* name : {"a", "b", "c", "d"}) create(name);
  put("a", "k", "fox", {{"title", "hen"}, {"author", "cock"}});
  put("b", "k", "fox", {{"author", "cock"}, {"title", "hen"}});
  put("c", "k", "fox", {{"title", "hen"}});
  put("d", "k", "fox");
  update({"a", "b", "c", "d"});
  EXPECT_THAT(found({"a", "b", "c", "d"}, "fox"), SizeIs(4));
  EXPECT_THAT(found({"d", "c", "a"}, "title:hen"),
              UnorderedElementsAre(Pair("a", "k"), Pair("c", "k")));
  EXPECT_THAT(found({"c", "a"}, "author:cock"), ElementsAre(Pair("a", "k")));
  EXPECT_THAT(refusal({"a", "b"}, "title:hen"),
              AllOf(StartsWith("ZVK0006E"), HasSubstr("\"a\""), HasSubstr("\"b\"")));
}

TEST_F(TogetherTest, ValuesToSortByMayBeMissingButNotInOtherPlaces) {
  for (const char* name : {"a", "b", "c", "d"}) create(name);
  put("a", "k1", "fox", {{"[sortable]year", "1851"}, {"[sortable]price", "7"}});
  put("b", "k2", "fox", {{"[sortable]price", "7"}, {"[sortable]year", "1849"}});
  put("c", "k3", "fox", {{"[sortable]year", "1850"}});
  put("d", "k0", "fox");
  update({"a", "b", "c", "d"});
  SearchQuery query = queryFor("fox");
  query.order = HitOrder::Value;
  query.sortBy = "year";
  EXPECT_THAT(found({"a", "c", "d"}, query),
              ElementsAre(Pair("c", "k3"), Pair("a", "k1"), Pair("d", "k0")));
  EXPECT_THAT(refusal({"a", "b"}, query),
              AllOf(StartsWith("ZVK0006E"), HasSubstr("\"a\""), HasSubstr("\"b\"")));
  query.sortBy = "weight";
  EXPECT_THAT(refusal({"a", "b"}, query), AllOf(StartsWith("ZVK0006E"), HasSubstr("\"weight\"")));
}

TEST_F(TogetherTest, DocumentsAreFoundInTheirOwnLanguages) {
  for (const char* name : {"a", "b", "c"}) create(name);
  put("a", "k", "Haus");
  put("b", "k", "H\u00e4user", {}, {TextType::Plain, "de"});
  put("c", "k", "maisons", {}, {TextType::Plain, "fr"});
  update({"a", "b", "c"});
  EXPECT_THAT(found({"a", "b", "c"}, "Haus"), UnorderedElementsAre(Pair("a", "k"), Pair("b", "k")));
  EXPECT_THAT(found({"a", "b", "c"}, "maison"), ElementsAre(Pair("c", "k")));
}

TEST_F(TogetherTest, OneThatIsNotThereIsNamed) {
  create("a");
  create("b");
  put("a", "k", "fox");
  update({"a"});
  EXPECT_THAT(refusal({"a", "nowhere"}, "fox"),
              AllOf(StartsWith("ZVK0007E"), HasSubstr("\"nowhere\"")));
  EXPECT_THAT(found({"a", "b"}, "fox"), SizeIs(1));
  store_->deleteCollection("b");
  EXPECT_THAT(refusal({"a", "b"}, "fox"), AllOf(StartsWith("ZVK0007E"), HasSubstr("\"b\"")));
}

TEST_F(TogetherTest, OneThatIsDamagedIsRefusedAndDoesTheOthersNoHarm) {
  for (const char* name : {"a", "b"}) {
    create(name);
    put(name, "k", "fox");
  }
  update({"a", "b"});
  store_.reset();
  const auto file = directory_.path() / "data" / "collections" / "b" / "index" / "postlist.glass";
  std::fstream(file, std::ios::in | std::ios::out | std::ios::binary).seekp(100).put('\xFF');
  open();
  EXPECT_THAT(refusal({"a", "b"}, "fox"),
              AllOf(StartsWith("ZVK0014E"), HasSubstr("postlist.glass")));
  EXPECT_THAT(found({"a"}, "fox"), ElementsAre(Pair("a", "k")));
}

TEST_F(TogetherTest, ErrorsOfTheQueryAreThoseOfASearch) {
  create("a");
  create("b");
  EXPECT_THAT(refusal({"a", "b"}, "(fox"), StartsWith("ZVK0010E"));
  put("a", "k", "fox");
  update({"a"});
  EXPECT_THAT(found({"a", "b"}, ""), ElementsAre(Pair("a", "k")));
}

TEST_F(TogetherTest, MemoryIsGivenBackAndWithoutItTheSearchIsRefused) {
  for (const char* name : {"a", "b"}) {
    create(name);
    for (int i = 0; i < 20; ++i) put(name, std::to_string(i), "fox", {{"title", "A"}});
  }
  update({"a", "b"});
  const DetailsWanted wanted{{"title"}, 100};
  details({"a", "b"}, queryFor("fox"), wanted);
  const std::size_t idle = memory_->used();
  details({"a", "b"}, queryFor("fox"), wanted);
  EXPECT_EQ(memory_->used(), idle);
  SearchQuery query = queryFor("fox");
  query.keys = Names(40000, "1");
  EXPECT_THAT(refusal({"a", "b"}, query), StartsWith("ZVK0011E"));
  // That has closed its handles.
  EXPECT_EQ(memory_->used(), idle - 2 * IdleReaders::kDatabaseCost);
  details({"a", "b"}, queryFor("fox"), wanted);
  EXPECT_EQ(memory_->used(), idle);
  // These alone take less than the seven eighths that large uses may have, and with the handles
  // more.
  query.keys = Names(28300, "1");
  EXPECT_THAT(refusal({"a", "b"}, query), StartsWith("ZVK0011E"));
}

TEST_F(TogetherTest, EachCollectionTakesItsDescriptors) {
  store_.reset();
  // Of three open journals and two searches in an index.
  limits_.index.descriptors = std::make_shared<DescriptorBudget>(3 + 2 * IndexReader::kDescriptors);
  open();
  for (const char* name : {"a", "b", "c"}) create(name);
  EXPECT_THAT(found({"a", "b"}, "fox"), IsEmpty());
  EXPECT_THAT(refusal({"a", "b", "c"}, "fox"), StartsWith("ZVK0016E"));
  EXPECT_THAT(found({"b", "c"}, "fox"), IsEmpty());
}

TEST_F(TogetherTest, SearchEndsWhenItHasLookedAtTooManyDocuments) {
  for (const char* name : {"a", "b"}) {
    create(name);
    for (int i = 0; i < 80; ++i) put(name, std::to_string(i), "fox");
  }
  update({"a", "b"});
  const auto cost = [&](const Names& names) {
    RequestContext context({std::chrono::milliseconds(0), 120});
    const RequestContext::Scope scope(context);
    SearchQuery query = queryFor("fox");
    query.size = 1;
    return refusal(names, query);
  };
  EXPECT_EQ(cost({"a"}), "none");
  EXPECT_THAT(cost({"a", "b"}), StartsWith("ZVK0011E"));
}

// The budget is asked for descriptors right before the index is opened.
TEST(Together, OneThatIsDeletedMeanwhileSaysSo) {
  const tq::test::TemporaryDirectory directory;
  const std::atomic<bool> stopping = false;
  const auto outcomes = std::make_shared<ParseOutcomes>(10);
  StoreLimits limits;
  limits.index.descriptors = std::make_shared<DescriptorBudget>(2 + 2 * IndexReader::kDescriptors);
  DescriptorBudget::Share others(limits.index.descriptors.get());
  std::function<void()> meanwhile;
  limits.index.descriptors->setReclaim([&] {
    meanwhile();
    others = DescriptorBudget::Share(limits.index.descriptors.get());
    return true;
  });
  for (const char* name : {"a", "b"}) {
    std::filesystem::create_directory(directory.path() / name);
    Collection::create(directory.path() / name, {"en", {}, 1}, {});
  }
  Collection a("a", directory.path() / "a", limits, outcomes, stopping);
  Collection b("b", directory.path() / "b", limits, outcomes, stopping);
  const std::array<Collection*, 2> both{&a, &b};
  const auto failure = [&] {
    a.close();
    b.close();
    others.add(1);
    try {
      Collection::details(both, queryFor("fox"), {});
    } catch (const ServerError& error) {
      return std::string(messageId(error.kind())) + " " + error.what();
    }
    return std::string("none");
  };
  meanwhile = [] {};
  EXPECT_EQ(failure(), "none");
  meanwhile = [&] { std::filesystem::remove_all(directory.path() / "b"); };
  EXPECT_THAT(failure(), StartsWith("ZVK0014E"));
  meanwhile = [&] { b.retire(Collection::Fate::Deleted); };
  EXPECT_THAT(failure(), AllOf(StartsWith("ZVK0007E"), HasSubstr("\"b\"")));
}

/// Two indexes without a store around them.
class TwoIndexesTest : public ::testing::Test {
 protected:
  TwoIndexesTest() {
    for (const char* name : {"a", "b"}) {
      std::filesystem::create_directory(directory_.path() / name);
      IndexWriter::create(directory_.path() / name, {"en", {}, 1});
    }
  }

  std::filesystem::path indexOf(const std::string& name) const {
    return directory_.path() / name / IndexSums::kIndexDirectory;
  }

  tq::test::TemporaryDirectory directory_;
  const IndexLimits limits_;
};

// The engine would give another document for each of these numbers.
TEST_F(TwoIndexesTest, WithMoreDocumentsThanCanBeNumberedAreRefused) {
  const std::string names[] = {"a", "b"};
  const Hidden hidden;
  Xapian::WritableDatabase(indexOf("b").string())
      .replace_document(std::numeric_limits<Xapian::docid>::max() / 2 + 1, Xapian::Document());
  const IndexReader a(IndexParts::in(indexOf("a")), {}, 1);
  const IndexReader b(IndexParts::in(indexOf("b")), {}, 1);
  EXPECT_NO_THROW(JointReader({{names[1], b, hidden}}));
  try {
    const JointReader joint({{names[0], a, hidden}, {names[1], b, hidden}});
    ADD_FAILURE() << "not refused";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::QueryTooBroad);
    EXPECT_THAT(error.what(), HasSubstr("\"b\""));
  }
}

TEST_F(TwoIndexesTest, HoldUpTheCommitsOfBothIfTheyOvertakeASearchTooOften) {
  constexpr std::chrono::milliseconds kNoPatience{0};
  IndexReaders a(indexOf("a"), limits_, kNoPatience);
  IndexReaders b(indexOf("b"), limits_, kNoPatience);
  const std::array<IndexReaders*, 2> both{&a, &b};
  const auto canCommit = [](IndexReaders& index) {
    bool can = false;
    // As it is another thread that commits.
    std::jthread([&] { can = index.commits().pass([] {}).owns_lock(); }).join();
    return can;
  };
  int attempts = 0;
  const auto overtaken = [&](const IndexReaders::Handles& handles) -> int {
    EXPECT_THAT(handles, SizeIs(2));
    const bool held = ++attempts > IndexReaders::kFreeAttempts;
    EXPECT_EQ(canCommit(a), !held);
    EXPECT_EQ(canCommit(b), !held);
    throw Xapian::DatabaseModifiedError("overtaken");
  };
  EXPECT_THROW(IndexReaders::runTogether(both, overtaken), Xapian::DatabaseModifiedError);
  EXPECT_EQ(attempts, IndexReaders::kFreeAttempts + 1);
  EXPECT_TRUE(canCommit(a));
  EXPECT_TRUE(canCommit(b));
}

// A search that had the memory for one of them could keep another one from the rest. The budget is
// asked for descriptors right before an index is opened.
TEST_F(TwoIndexesTest, TakeTheMemoryOfBothBeforeTheFirstIsOpened) {
  IndexLimits limits;
  limits.memory = std::make_shared<MemoryBudget>(2 * IdleReaders::kDatabaseCost);
  limits.idleReaders = std::make_shared<IdleReaders>(limits.memory);
  limits.descriptors = std::make_shared<DescriptorBudget>(2 * IndexReader::kDescriptors);
  DescriptorBudget::Share others(limits.descriptors.get());
  std::vector<std::size_t> used;
  limits.descriptors->setReclaim([&] {
    used.push_back(limits.memory->used());
    others = DescriptorBudget::Share(limits.descriptors.get());
    return true;
  });
  others.add(IndexReader::kDescriptors + 1);
  IndexReaders a(indexOf("a"), limits);
  IndexReaders b(indexOf("b"), limits);
  const std::array<IndexReaders*, 2> both{&a, &b};
  const auto memories = [](const IndexReaders::Handles& handles) {
    return std::pair(handles[0]->memory(), handles[1]->memory());
  };
  EXPECT_EQ(IndexReaders::runTogether(both, memories),
            std::pair(IdleReaders::kDatabaseCost, IdleReaders::kDatabaseCost));
  EXPECT_THAT(used, ElementsAre(limits.memory->limit()));
}

TEST_F(TwoIndexesTest, AreSeenAsTheyAreNowWithHandlesThatAreKept) {
  IndexReaders a(indexOf("a"), limits_);
  IndexReaders b(indexOf("b"), limits_);
  const std::array<IndexReaders*, 2> both{&a, &b};
  const IndexReader* kept = nullptr;
  const auto documents = [&] {
    return IndexReaders::runTogether(both, [&](const IndexReaders::Handles& handles) {
      if (kept) {
        EXPECT_EQ(handles[1].get(), kept);
      }
      kept = handles[1].get();
      return std::pair(handles[0]->summary().documents, handles[1]->summary().documents);
    });
  };
  EXPECT_EQ(documents(), std::pair(std::uint64_t{0}, std::uint64_t{0}));
  Change change{ChangeKind::Put, {"k", {}, "fox"}};
  IndexWriter(
      directory_.path() / "b", limits_, [] {}, &b)
      .apply(std::span(&change, 1));
  EXPECT_EQ(documents(), std::pair(std::uint64_t{0}, std::uint64_t{1}));
}

}  // namespace
}  // namespace corvaned
