#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/store/localStore.h"
#include "server/store/sortValue.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using Keys = std::vector<std::string>;

TEST(SortValue, NumbersComeInTheirOrderAndBeforeTexts) {
  const Keys ascending{"-1e999", "-1e300", "-20",    "-3.5", "-3",    "-.5",
                       "0",      "1e-9",   "0.25",   "2",    "10",    "1851",
                       "1e300",  "1e999",  "+7",     "1-1",  "1.2.3", "12 monkeys",
                       "1851x",  "Apple",  "banana", "inf",  "nan",   "\u00e9clair"};
  for (std::size_t i = 1; i < ascending.size(); ++i) {
    EXPECT_LT(sortValueOf(ascending[i - 1]), sortValueOf(ascending[i])) << ascending[i];
  }
}

TEST(SortValue, SpellingsOfTheSameAreEqual) {
  EXPECT_EQ(sortValueOf("10"), sortValueOf(" 10.0\n"));
  EXPECT_EQ(sortValueOf("0"), sortValueOf("-0"));
  EXPECT_EQ(sortValueOf("0"), sortValueOf("1e-999"));
  EXPECT_EQ(sortValueOf("1e999"), sortValueOf("1e9999"));
  EXPECT_EQ(sortValueOf("GR\u00d6SSE"), sortValueOf("gro\u0308\u00dfe"));
  EXPECT_EQ(sortValueOf(" \t "), "");
  EXPECT_EQ(sortValueOf(""), "");
}

TEST(SortValue, LongTextsCountByTheirBeginning) {
  const std::string beginning(199, 'x');
  EXPECT_LT(sortValueOf(beginning + "a"), sortValueOf(beginning + "b"));
  EXPECT_EQ(sortValueOf(beginning + "ab"), sortValueOf(beginning + "ac"));
  EXPECT_LE(sortValueOf(beginning + std::string(100000, '\xFF')).size(), 201U);
}

class SortTest : public ::testing::Test {
 protected:
  SortTest() { store_.createCollection("c", "en"); }

  void add(const std::string& key, const std::vector<std::string>& years) {
    Document document{key, {}, "fox"};
    for (const std::string& year : years) document.metadata.emplace_back("[sortable]year", year);
    store_.addDocument("c", document);
  }

  static SearchQuery by(const std::string& name, bool descending = false) {
    SearchQuery query;
    query.text = "fox";
    query.order = HitOrder::Value;
    query.sortBy = name;
    query.descending = descending;
    return query;
  }

  static Keys listOf(HitSource& source) {
    Keys list;
    for (Hit hit; source.next(hit);) {
      EXPECT_EQ(hit.milliScore, 0);
      list.push_back(hit.key);
    }
    return list;
  }

  Keys keys(const SearchQuery& query) { return listOf(*store_.search("c", query)); }

  std::string refusal(const SearchQuery& query) {
    try {
      keys(query);
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::BadParameter);
      return error.what();
    }
    return "not refused";
  }

  tq::test::TemporaryDirectory directory_;
  LocalStore store_{directory_.path() / "data", {}};
};

TEST_F(SortTest, HitsComeInTheOrderOfTheirValues) {
  add("b", {"1851"});
  add("a", {"7"});
  add("c", {"1851.0"});
  add("e", {});
  add("d", {""});
  add("f", {"unknown"});
  store_.updateIndex("c");
  EXPECT_THAT(keys(by("year")), ElementsAre("a", "b", "c", "f", "d", "e"));
  EXPECT_THAT(keys(by("year", true)), ElementsAre("f", "b", "c", "a", "d", "e"));
}

TEST_F(SortTest, EachDirectionIsThatOfASortedList) {
  std::mt19937 random(20261122);
  std::vector<std::pair<double, std::string>> expected;
  for (int i = 0; i < 300; ++i) {
    const int number = static_cast<int>(random() % 1000) - 500;
    const std::string key = std::string(1 + random() % 3, static_cast<char>(i)) +
                            static_cast<char>(i / 7) + static_cast<char>(i);
    add(key, {std::to_string(number) + ".5"});
    std::erase_if(expected, [&](const auto& entry) { return entry.second == key; });
    expected.emplace_back(number, key);
  }
  store_.updateIndex("c");
  for (const bool descending : {false, true}) {
    std::sort(expected.begin(), expected.end(), [&](const auto& a, const auto& b) {
      if (a.first != b.first) return descending ? a.first > b.first : a.first < b.first;
      return a.second < b.second;
    });
    Keys sorted;
    for (const auto& [number, key] : expected) sorted.push_back(key);
    EXPECT_EQ(keys(by("year", descending)), sorted);
    SearchQuery page = by("year", descending);
    page.start = 100;
    page.size = 50;
    EXPECT_EQ(keys(page), Keys(sorted.begin() + 100, sorted.begin() + 150));
  }
}

TEST_F(SortTest, FirstOfSeveralValuesCounts) {
  add("a", {"2", "9"});
  add("b", {"3", "1"});
  store_.updateIndex("c");
  EXPECT_THAT(keys(by("year")), ElementsAre("a", "b"));
}

TEST_F(SortTest, ValueOfAReplacedDocumentIsTheNewOne) {
  add("a", {"1"});
  add("b", {"2"});
  store_.updateIndex("c");
  add("a", {"3"});
  store_.updateIndex("c");
  EXPECT_THAT(keys(by("year")), ElementsAre("b", "a"));
}

TEST_F(SortTest, SortedHitsAreLimitedToARangeOfKeysAndNeedNoQuery) {
  for (const char* key : {"a", "b", "c", "d"})
    add(key, {std::string(1, static_cast<char>('z' - *key + 'a'))});
  store_.updateIndex("c");
  SearchQuery query = by("year");
  query.everything = true;
  query.after = "a";
  query.upTo = "c";
  EXPECT_THAT(keys(query), ElementsAre("c", "b"));
}

TEST_F(SortTest, MarkIsNeededAndItsNameIsToldWhereItLacks) {
  store_.addDocument("c", {"a", {{"year", "1"}, {"[sortable]a b", "1"}}, "fox"});
  EXPECT_THAT(keys(by("year")), IsEmpty()) << "nothing is searchable yet";
  store_.updateIndex("c");
  EXPECT_THAT(refusal(by("year")), AllOf(HasSubstr("\"year\""), HasSubstr("[sortable]")));
  EXPECT_THAT(refusal(by("a b")), HasSubstr("\"a b\""));
  add("b", {"2"});
  store_.updateIndex("c");
  EXPECT_THAT(keys(by("year")), ElementsAre("b", "a"));
}

TEST_F(SortTest, MarkedMetadataIsSearchedByItsNameAsWell) {
  store_.addDocument("c", {"a", {{"Indexable:[sortable]year", "1851"}}, "fox"});
  store_.updateIndex("c");
  SearchQuery query = by("year");
  query.text = "year:1851";
  EXPECT_THAT(keys(query), ElementsAre("a"));
}

TEST_F(SortTest, TextsThatAreOnlyMatchedAreSortedAsWell) {
  add("stored", {"1"});
  store_.updateIndex("c");
  const std::vector<Document> texts{
      {"a", {{"[sortable]year", "3"}, {"[sortable]rank", "1"}}, "fox"},
      {"b", {{"[sortable]year", "2"}}, "fox"},
      {"c", {}, "fox"}};
  EXPECT_THAT(listOf(*store_.match("c", by("year"), texts)), ElementsAre("b", "a", "c"));
  EXPECT_THAT(listOf(*store_.match("c", by("rank"), texts)), ElementsAre("a", "b", "c"));
}

// The engine takes phrases for found where no document has positions, as soon as something else
// must be found with them; that something is here what can end a search.
TEST_F(SortTest, PhrasesAreNotFoundInDocumentsWithoutWords) {
  store_.addDocument("c", {"a", {}, ""});
  store_.addDocument("c", {"b", {{"note", "!"}}, "..."});
  store_.updateIndex("c");
  RequestContext context({});
  const RequestContext::Scope scope(context);
  for (const char* text : {"\"red fox\"", "red NEAR fox", "red-fox", "note:\"red fox\""}) {
    SearchQuery query;
    query.text = text;
    query.after = "A";
    const auto hits = store_.search("c", query);
    Hit hit;
    EXPECT_FALSE(hits->next(hit)) << text;
    EXPECT_EQ(store_.count("c", query), 0U) << text;
  }
}

}  // namespace
}  // namespace corvaned
