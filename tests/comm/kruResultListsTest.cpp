#include <gtest/gtest.h>

#include "comm/kruParseResponse.h"
#include "comm/kruSearchResponse.h"
#include "comm/kruStaticDefs.h"
#include "tests/comm/kruCommText.h"

namespace tq::comm {
namespace {

using test::utf8;

// The two lists behave alike; each test runs for both.
struct Search {
  using Response = SearchResponse;
  using Result = SearchResult;
  static Result make(const std::string& name) {
    Result hit(true);
    hit.getProperties()->putProperty(u"URI", test::utf16(name));
    hit.reset();
    return hit;
  }
  static std::string nameOf(const Result& hit) { return utf8(hit.getDocId()); }
};

struct Parse {
  using Response = ParseResponse;
  using Result = ParseResult;
  static Result make(const std::string& name) {
    Result result(true);
    result.getProperties()->putProperty(StaticDefs::DOC, test::utf16(name));
    result.reset();
    return result;
  }
  static std::string nameOf(const Result& result) { return utf8(result.getDocument()); }
};

template <typename Kind>
class ResultLists : public testing::Test {
 protected:
  using Response = typename Kind::Response;
  using Result = typename Kind::Result;

  static void add(Response& response, const std::string& name) {
    response.addResult(Kind::make(name));
  }
  static std::string take(Response& response) { return Kind::nameOf(response.getNext()); }
  static std::string takeAll(Response& response) {
    std::string names;
    while (response.hasMore()) names += take(response);
    return names;
  }
};

using Kinds = testing::Types<Search, Parse>;
TYPED_TEST_SUITE(ResultLists, Kinds);

TYPED_TEST(ResultLists, AreEmptyAtFirst) {
  typename TypeParam::Response response;
  EXPECT_FALSE(response.hasMore());
  EXPECT_EQ(0U, response.count());
}

TYPED_TEST(ResultLists, HandOutResultsInTheOrderOfTheirArrival) {
  typename TypeParam::Response response;
  for (const char* name : {"a", "b", "c"}) this->add(response, name);
  EXPECT_EQ(3U, response.count());
  EXPECT_EQ("a", this->take(response));
  EXPECT_EQ(2U, response.count());
  EXPECT_EQ("bc", this->takeAll(response));
  EXPECT_EQ(0U, response.count());
  EXPECT_FALSE(response.hasMore());
}

TYPED_TEST(ResultLists, GrowWhileTheyAreWalked) {
  typename TypeParam::Response response;
  this->add(response, "a");
  this->add(response, "b");
  EXPECT_EQ("a", this->take(response));
  this->add(response, "c");
  EXPECT_EQ("bc", this->takeAll(response));
}

TYPED_TEST(ResultLists, HaveNoMoreWhenEmptyEvenIfTheCountWasRaised) {
  typename TypeParam::Response response;
  response.incrCount();
  EXPECT_EQ(1U, response.count());
  EXPECT_FALSE(response.hasMore());
}

TYPED_TEST(ResultLists, HaveNoMoreAtTheEndEvenIfTheCountWasRaised) {
  typename TypeParam::Response response;
  this->add(response, "a");
  response.incrCount();
  EXPECT_EQ("a", this->take(response));
  EXPECT_EQ(1U, response.count());
  EXPECT_FALSE(response.hasMore());
}

TYPED_TEST(ResultLists, BeginAgainAtTheFirstResultWhenAnAddMakesTheCountOne) {
  typename TypeParam::Response response;
  this->add(response, "a");
  this->add(response, "b");
  EXPECT_EQ("ab", this->takeAll(response));
  this->add(response, "c");
  EXPECT_EQ(1U, response.count());
  EXPECT_TRUE(response.hasMore());
  EXPECT_EQ("a", this->take(response));
  EXPECT_FALSE(response.hasMore());
}

TYPED_TEST(ResultLists, GoOnWithTheNewResultsAfterInit) {
  typename TypeParam::Response response;
  this->add(response, "a");
  this->add(response, "b");
  EXPECT_EQ("a", this->take(response));
  response.init();
  EXPECT_EQ(0U, response.count());
  EXPECT_FALSE(response.hasMore());
  this->add(response, "c");
  EXPECT_EQ("c", this->takeAll(response));
}

TYPED_TEST(ResultLists, InitDoesNotMoveTheCursorToWhatIsAddedNext) {
  typename TypeParam::Response response;
  this->add(response, "a");
  EXPECT_EQ("a", this->takeAll(response));
  response.init();
  response.incrCount();
  this->add(response, "b");
  EXPECT_EQ(2U, response.count());
  EXPECT_FALSE(response.hasMore());
}

TYPED_TEST(ResultLists, GetNextIsNotHeldBackByTheCount) {
  typename TypeParam::Response response;
  this->add(response, "a");
  this->add(response, "b");
  EXPECT_EQ("ab", this->takeAll(response));
  this->add(response, "c");
  EXPECT_EQ("a", this->take(response));
  EXPECT_EQ(0U, response.count());
  EXPECT_EQ("b", this->take(response));
  EXPECT_EQ(0xFFFFFFFFU, response.count());
}

TYPED_TEST(ResultLists, BehindTheLastResultIsAnEmptyOne) {
  typename TypeParam::Response response;
  EXPECT_EQ("", this->take(response));
  EXPECT_EQ(0xFFFFFFFFU, response.count());
  response.init();
  this->add(response, "a");
  EXPECT_EQ("a", this->take(response));
  EXPECT_EQ("", this->take(response));
  EXPECT_EQ("", this->take(response));
}

TYPED_TEST(ResultLists, BuiltFromAListStandAtItsFirstElement) {
  const std::list<typename TypeParam::Result> results{TypeParam::make("a"), TypeParam::make("b")};
  typename TypeParam::Response response(results);
  EXPECT_EQ(2U, response.count());
  EXPECT_EQ("ab", this->takeAll(response));
}

TYPED_TEST(ResultLists, BuiltFromAnEmptyListAreEmpty) {
  typename TypeParam::Response response(std::list<typename TypeParam::Result>{});
  EXPECT_EQ(0U, response.count());
  EXPECT_FALSE(response.hasMore());
  this->add(response, "a");
  EXPECT_EQ("a", this->takeAll(response));
}

TYPED_TEST(ResultLists, CopiesStandAtTheFirstElementAndShareNothing) {
  typename TypeParam::Response original;
  this->add(original, "a");
  this->add(original, "b");
  EXPECT_EQ("a", this->take(original));
  typename TypeParam::Response copy(original);
  typename TypeParam::Response assigned;
  this->add(assigned, "old");
  assigned = original;
  original.init();
  EXPECT_EQ(2U, copy.count());
  EXPECT_EQ(2U, assigned.count());
  EXPECT_EQ("ab", this->takeAll(copy)) << "also what was taken from the original";
  EXPECT_EQ("ab", this->takeAll(assigned));
}

TYPED_TEST(ResultLists, AssignedToThemselvesChangeNothing) {
  typename TypeParam::Response response;
  this->add(response, "a");
  this->add(response, "b");
  EXPECT_EQ("a", this->take(response));
  const typename TypeParam::Response& same = response;
  response = same;
  EXPECT_EQ(1U, response.count());
  EXPECT_EQ("b", this->takeAll(response));
}

TYPED_TEST(ResultLists, AResultStaysWhereItIsWhileOthersAreAdded) {
  typename TypeParam::Response response;
  this->add(response, "a");
  const typename TypeParam::Result& first = response.getNext();
  for (int i = 0; i < 10000; ++i) this->add(response, "more");
  EXPECT_EQ("a", TypeParam::nameOf(first));
}

TYPED_TEST(ResultLists, ServePortionAfterPortion) {
  typename TypeParam::Response response;
  for (int portion = 0; portion < 50; ++portion) {
    response.init();
    for (int i = 0; i < 100; ++i) this->add(response, "x");
    EXPECT_EQ(std::string(100, 'x'), this->takeAll(response));
  }
}

TEST(SearchResponse, HitsKeepTheirKeysWhenTheRecordThatParsedThemIsReused) {
  SearchResponse response;
  SearchResult hit(true);
  for (const char* key : {"k1", "k2"}) {
    hit.parseRecordNew(key, 2, 1);
    response.addResult(hit);
    hit.freeKey();
  }
  for (const char* key : {"k1", "k2"}) {
    const SearchResult& next = response.getNext();
    EXPECT_EQ(key, std::string(next.getKey(), next.getKeyLen()));
  }
}

}  // namespace
}  // namespace tq::comm
