#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "server/base/errors.h"
#include "server/base/memoryBudget.h"
#include "server/base/requestContext.h"
#include "server/store/idleReaders.h"
#include "server/store/localStore.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Keys = std::vector<std::string>;

const std::vector<std::string> kQueries{"fox",       "fox hound",      "fox OR hound",
                                        "NOT hound", "fox NOT hound",  "\"red fox\"",
                                        "num*",      "year:1991",      "(fox hound) OR year:1992",
                                        "nothing",   "number 17 OR 18"};

/// 300 documents whose keys are of all lengths and bytes, added in no order; every seventh is
/// deleted, and some of these deletions are not yet applied.
class SearchOrderTest : public ::testing::Test {
 protected:
  SearchOrderTest() {
    store_.createCollection("c", "en");
    for (int i = 0; i < 300; ++i) {
      const std::string n = std::to_string(i);
      store_.queueDocument("c", {keyOf(i),
                                 {{"year", std::to_string(1990 + i % 9)}},
                                 "red fox number " + n + (i % 3 == 0 ? " and a hound" : "")});
    }
    store_.updateIndex("c");
    for (int i = 0; i < 300; i += 7) store_.deleteDocument("c", keyOf(i));
    store_.updateIndex("c");
    for (int i = 1; i < 30; i += 7) store_.deleteDocument("c", keyOf(i));
  }

  static std::string keyOf(int i) {
    std::string key(1 + static_cast<std::size_t>(i % 5), static_cast<char>(i * 89));
    return key + static_cast<char>(i / 2) + static_cast<char>(i % 2 == 0 ? 0 : 255);
  }

  Keys keys(const SearchQuery& query) {
    const auto source = store_.search("c", query);
    Keys list;
    for (Hit hit; source->next(hit);) {
      if (query.order != HitOrder::Score) {
        EXPECT_EQ(hit.milliScore, 0);
      }
      list.push_back(hit.key);
    }
    return list;
  }

  static SearchQuery of(const std::string& text, HitOrder order) {
    SearchQuery query;
    query.text = text;
    query.order = order;
    return query;
  }

  // What a search by score finds, sorted.
  Keys expected(const std::string& text) {
    Keys list = keys(of(text, HitOrder::Score));
    std::sort(list.begin(), list.end());
    return list;
  }

  tq::test::TemporaryDirectory directory_;
  std::shared_ptr<MemoryBudget> memory_ = std::make_shared<MemoryBudget>(std::size_t{64} << 20U);
  LocalStore store_{directory_.path() / "data", [&] {
                      StoreLimits limits;
                      limits.index.memory = memory_;
                      return limits;
                    }()};
};

TEST_F(SearchOrderTest, CertainKeysLimitASearchToTheirDocuments) {
  for (const std::string& text : kQueries) {
    for (const HitOrder order : {HitOrder::Score, HitOrder::Key}) {
      SearchQuery query;
      query.text = text;
      query.order = order;
      Keys wanted{"unknown", std::string("a\0b", 3)};
      for (int i = 0; i < 300; i += 5) wanted.push_back(keyOf(i));
      Keys expected = keys(query);
      std::erase_if(expected, [&](const std::string& key) {
        return std::find(wanted.begin(), wanted.end(), key) == wanted.end();
      });
      query.keys = wanted;
      EXPECT_EQ(keys(query), expected) << text;
      EXPECT_EQ(store_.count("c", query), expected.size()) << text;
    }
  }
}

TEST_F(SearchOrderTest, CertainKeysAreAskedWhetherTheyHaveDocuments) {
  SearchQuery query;
  query.everything = true;
  query.order = HitOrder::Key;
  query.keys = {keyOf(3), "unknown", keyOf(2), keyOf(7), keyOf(1), keyOf(2)};
  Keys expected{keyOf(2), keyOf(3)};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(keys(query), expected) << "7 and 1 are deleted";
  query.upTo = expected[0];
  EXPECT_THAT(keys(query), ElementsAre(expected[0]));
}

TEST_F(SearchOrderTest, KeysComeInTheirOrder) {
  for (const std::string& text : kQueries) {
    EXPECT_EQ(keys(of(text, HitOrder::Key)), expected(text)) << text;
  }
}

TEST_F(SearchOrderTest, HitsInAnyOrderAreTheSameOnes) {
  for (const std::string& text : kQueries) {
    Keys list = keys(of(text, HitOrder::Any));
    std::sort(list.begin(), list.end());
    EXPECT_EQ(list, expected(text)) << text;
  }
}

TEST_F(SearchOrderTest, PagesOfKeysTakeTheFirst) {
  const Keys all = expected("fox");
  for (const std::size_t start : {0U, 1U, 100U, 1000U}) {
    for (const std::size_t size : {0U, 1U, 7U, 1000U}) {
      SearchQuery query = of("fox", HitOrder::Key);
      query.start = start;
      query.size = size;
      const auto at = [&](std::size_t position) {
        return all.begin() + static_cast<std::ptrdiff_t>(std::min(position, all.size()));
      };
      EXPECT_EQ(keys(query), Keys(at(start), at(start + size))) << start << " " << size;
    }
  }
}

TEST_F(SearchOrderTest, SomeOfTheHitsInAnyOrderAreEnough) {
  SearchQuery query = of("fox", HitOrder::Any);
  query.size = 10;
  EXPECT_THAT(keys(query), SizeIs(10));
  const Keys first = keys(query);
  query.start = 10;
  for (const std::string& key : keys(query)) {
    EXPECT_EQ(std::count(first.begin(), first.end(), key), 0);
  }
  query.limit = 15;
  EXPECT_THAT(keys(query), SizeIs(5));
}

TEST_F(SearchOrderTest, KeysAreLimitedToARange) {
  for (const HitOrder order : {HitOrder::Score, HitOrder::Key, HitOrder::Any}) {
    const Keys all = expected("fox");
    for (const std::size_t first : {0U, 1U, 50U}) {
      for (const std::size_t last : {50U, 51U, 200U}) {
        SearchQuery query = of("fox", order);
        query.after = all[first];
        query.upTo = all[last];
        Keys list = keys(query);
        std::sort(list.begin(), list.end());
        EXPECT_EQ(list, Keys(all.begin() + static_cast<std::ptrdiff_t>(first) + 1,
                             all.begin() + static_cast<std::ptrdiff_t>(last) + 1));
      }
    }
    SearchQuery open = of("fox", order);
    open.after = all[all.size() - 3];
    EXPECT_THAT(keys(open), SizeIs(2));
    open.after.clear();
    open.upTo = all[2];
    EXPECT_THAT(keys(open), SizeIs(3));
    open.after = all[3];
    EXPECT_THAT(keys(open), IsEmpty());
  }
}

TEST_F(SearchOrderTest, PagingByKeyMeetsEachOnce) {
  SearchQuery query = of("fox", HitOrder::Key);
  query.size = 13;
  Keys all;
  for (Keys page = keys(query); !page.empty(); page = keys(query)) {
    all.insert(all.end(), page.begin(), page.end());
    query.after = page.back();
  }
  EXPECT_EQ(all, expected("fox"));
}

TEST_F(SearchOrderTest, WithoutAQueryEveryDocumentIsFound) {
  for (const HitOrder order : {HitOrder::Key, HitOrder::Any}) {
    SearchQuery query = of("", order);
    query.everything = true;
    Keys list = keys(query);
    std::sort(list.begin(), list.end());
    EXPECT_EQ(list, expected("NOT nothing"));
  }
}

TEST_F(SearchOrderTest, KeysThatFindNoMemoryAreRefused) {
  const std::size_t idle = memory_->used();
  MemoryBudget::Share rest(*memory_);
  rest.force(memory_->limit() - idle - 1000);
  try {
    keys(of("fox", HitOrder::Key));
    ADD_FAILURE() << "not refused";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::TryAgain) << error.what();
  }
  rest.force(0);
  EXPECT_EQ(memory_->used(), idle);
  const std::size_t searched = idle + IdleReaders::kDatabaseCost;
  {
    const auto result = store_.search("c", of("fox", HitOrder::Key));
    EXPECT_GT(memory_->used(), searched);
  }
  EXPECT_EQ(memory_->used(), searched) << "the handle is kept for the next search";
}

TEST_F(SearchOrderTest, GatheringEndsWithItsRequest) {
  RequestContext context({{}, 100});
  const RequestContext::Scope scope(context);
  try {
    keys(of("fox", HitOrder::Key));
    ADD_FAILURE() << "not refused";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::QueryTooBroad) << error.what();
  }
}

TEST_F(SearchOrderTest, CountIsThatOfTheHits) {
  for (const std::string& text : kQueries) {
    SearchQuery query = of(text, HitOrder::Key);
    EXPECT_EQ(store_.count("c", query), expected(text).size()) << text;
    query.upTo = keyOf(100);
    EXPECT_EQ(store_.count("c", query), keys(query).size()) << text;
  }
}

TEST_F(SearchOrderTest, DocumentsAreVisitedInTheOrderOfTheirKeys) {
  SearchQuery query = of("hound", HitOrder::Key);
  query.after = keyOf(50);
  Keys visited;
  store_.visit("c", query, [&](const Document& document) {
    visited.push_back(document.key);
    EXPECT_THAT(document.content, ::testing::EndsWith(" and a hound"));
    EXPECT_THAT(document.metadata, SizeIs(1));
  });
  EXPECT_EQ(visited, keys(query));
  query.size = 3;
  visited.clear();
  store_.visit("c", query, [&](const Document& document) { visited.push_back(document.key); });
  EXPECT_EQ(visited, keys(query));
}

// The snapshot goes with the second update; what was visited is not visited again.
TEST_F(SearchOrderTest, VisitGoesOnWhenTheIndexChangesMeanwhile) {
  Keys visited;
  store_.visit("c", of("fox", HitOrder::Key), [&](const Document& document) {
    visited.push_back(document.key);
    if (visited.size() % 20 != 0) return;
    for (int i = 0; i < 2; ++i) {
      store_.addDocument("c", {"zzz", {}, std::string(50000, 'x')});
      store_.updateIndex("c");
    }
  });
  EXPECT_EQ(visited, expected("fox"));
}

TEST_F(SearchOrderTest, EstimateIsExactUpToTheBudget) {
  for (const std::string& text : kQueries) {
    const std::size_t hits = expected(text).size();
    for (const std::uint64_t exact :
         {std::uint64_t{300}, std::uint64_t{10000}, ~std::uint64_t{0}}) {
      EXPECT_EQ(store_.estimate("c", text, exact).hits, hits) << text;
    }
    for (const std::uint64_t exact : {0U, 1U, 50U}) {
      const Estimate estimate = store_.estimate("c", text, exact);
      EXPECT_LE(estimate.hits, estimate.atMost) << text;
      EXPECT_GE(estimate.atMost, hits) << text;
      EXPECT_LE(estimate.atMost, estimate.documents) << text;
    }
  }
}

// How many documents the engine looks at.
TEST_F(SearchOrderTest, EstimateLooksAtNoMoreThanTheBudget) {
  const auto refused = [&](std::uint64_t exactHits, std::uint64_t mostSteps) {
    RequestContext context({{}, mostSteps});
    const RequestContext::Scope scope(context);
    try {
      store_.estimate("c", "fox", exactHits);
      return false;
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::QueryTooBroad);
      return true;
    }
  };
  EXPECT_FALSE(refused(0, 1));
  EXPECT_FALSE(refused(50, 60));
  EXPECT_TRUE(refused(50, 40));
  EXPECT_TRUE(refused(10000, 200));
}

// Facts about collections.

TEST_F(SearchOrderTest, SummaryTellsWhatThereIs) {
  store_.createCollection("d", "de");
  CollectionSummary empty = store_.summary("d");
  EXPECT_EQ(empty.documents, 0U);
  EXPECT_EQ(empty.pending, 0U);
  EXPECT_EQ(empty.language, "de");
  store_.addDocument("d", {"k", {}, std::string(100000, 'x')});
  store_.addDocument("d", {"l", {}, ""});
  store_.deleteDocument("d", "l");
  const CollectionSummary waiting = store_.summary("d");
  EXPECT_EQ(waiting.documents, 0U);
  EXPECT_EQ(waiting.pending, 3U);
  EXPECT_GT(waiting.bytes, empty.bytes + 100000);
  store_.updateIndex("d");
  const CollectionSummary indexed = store_.summary("d");
  EXPECT_EQ(indexed.documents, 1U);
  EXPECT_EQ(indexed.pending, 0U);
}

TEST_F(SearchOrderTest, CollectionsAreListedByName) {
  for (const char* name : {"b", "B\u00fccher/1", "a"}) store_.createCollection(name, "en");
  EXPECT_THAT(store_.collections("", 10), ElementsAre("B\u00fccher/1", "a", "b", "c"));
  EXPECT_THAT(store_.collections("a", 10), ElementsAre("b", "c"));
  EXPECT_THAT(store_.collections("", 2), ElementsAre("B\u00fccher/1", "a"));
  EXPECT_THAT(store_.collections("c", 10), IsEmpty());
}

TEST_F(SearchOrderTest, WhatStandsBesideTheCollectionsIsNotListed) {
  for (const char* name : {"lost+found", "\xFF", "%41", "%", ".passing-9"}) {
    std::filesystem::create_directory(directory_.path() / "data/collections" / name);
  }
  std::filesystem::create_directory(directory_.path() / "data/collections" / std::string(250, 'x'));
  EXPECT_THAT(store_.collections("", 10), ElementsAre("c"));
}

}  // namespace
}  // namespace corvaned
