#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/store/localStore.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using Hits = std::vector<std::pair<std::string, std::uint16_t>>;

/// 300 documents of few words, every seventh of them deleted and some deleted keys not yet applied.
class InterruptionTest : public ::testing::Test {
 protected:
  InterruptionTest() {
    store_.createCollection("c", "en");
    for (int i = 0; i < 300; ++i) {
      const std::string n = std::to_string(i);
      store_.queueDocument("c", {"k" + n,
                                 {{"year", std::to_string(1990 + i % 9)}},
                                 "red fox number " + n + (i % 3 == 0 ? " and a hound" : "")});
    }
    store_.updateIndex("c");
    for (int i = 0; i < 300; i += 7) store_.deleteDocument("c", "k" + std::to_string(i));
    store_.updateIndex("c");
    for (int i = 1; i < 30; i += 7) store_.deleteDocument("c", "k" + std::to_string(i));
  }

  Hits hits(const std::string& text, std::uint64_t size) {
    SearchQuery query;
    query.text = text;
    query.size = size;
    const auto source = store_.search("c", query);
    Hits list;
    for (Hit hit; source->next(hit);) list.emplace_back(hit.key, hit.milliScore);
    return list;
  }

  tq::test::TemporaryDirectory directory_;
  LocalStore store_{directory_.path() / "data", StoreLimits{}};
};

const std::vector<std::string> kQueries{
    "fox",         "fox hound",        "fox OR hound", "NOT hound",      "fox NOT hound",
    "\"red fox\"", "hound NEAR/4 fox", "num*",         "year:1991",      "(fox hound) OR year:1992",
    "nothing",     "fox NOT nothing",  "NOT nothing",  "number 17 OR 18"};

TEST_F(InterruptionTest, SearchThatCanBeStoppedFindsTheSame) {
  for (const std::string& text : kQueries) {
    for (const std::uint64_t size : {5U, 1000U}) {
      const Hits expected = hits(text, size);
      RequestContext context({});
      const RequestContext::Scope scope(context);
      EXPECT_EQ(hits(text, size), expected) << text;
    }
  }
}

TEST_F(InterruptionTest, EstimateThatCanBeStoppedIsTheSame) {
  for (const std::string& text : kQueries) {
    const Estimate expected = store_.estimate("c", text);
    RequestContext context({});
    const RequestContext::Scope scope(context);
    const Estimate estimate = store_.estimate("c", text);
    EXPECT_EQ(estimate.hits, expected.hits) << text;
    EXPECT_EQ(estimate.atMost, expected.atMost) << text;
    EXPECT_EQ(estimate.documents, expected.documents) << text;
  }
}

TEST_F(InterruptionTest, SearchEndsWhenItHasLookedAtTooManyDocuments) {
  for (const std::string& text :
       {std::string("fox"), std::string("\"red fox\""), std::string("NOT nothing")}) {
    RequestContext context({std::chrono::milliseconds(0), 100});
    const RequestContext::Scope scope(context);
    try {
      hits(text, 1000);
      FAIL() << text;
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::QueryTooBroad) << error.what();
    }
  }
  RequestContext context({std::chrono::milliseconds(0), 100});
  const RequestContext::Scope scope(context);
  EXPECT_EQ(hits("number 20", 1000).size(), 1U);
}

// The engine passes over them without asking anybody else about them.
TEST_F(InterruptionTest, HiddenDocumentsAreLookedAtAsOthersAre) {
  StoreLimits limits;
  limits.hiddenKeys = 10000;
  LocalStore store(directory_.path() / "hidden", limits);
  store.createCollection("c", "en");
  for (int i = 0; i < 600; ++i) store.queueDocument("c", {"k" + std::to_string(i), {}, "fox"});
  store.updateIndex("c");
  for (int i = 0; i < 600; ++i) store.deleteDocument("c", "k" + std::to_string(i));
  const auto count = [&](std::uint64_t cost) {
    RequestContext context({std::chrono::milliseconds(0), cost});
    const RequestContext::Scope scope(context);
    SearchQuery query;
    query.text = "fox";
    return store.count("c", query);
  };
  EXPECT_EQ(count(0), 0U);
  try {
    count(100);
    FAIL() << "it was counted";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::QueryTooBroad) << error.what();
  }
}

TEST_F(InterruptionTest, SearchOfAClientThatHasGoneIsNotBegun) {
  RequestContext context({});
  context.cancelAt(RequestContext::Clock::now());
  const RequestContext::Scope scope(context);
  try {
    hits("fox", 1000);
    FAIL() << "it was searched";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::Cancelled) << error.what();
  }
}

}  // namespace
}  // namespace corvaned
