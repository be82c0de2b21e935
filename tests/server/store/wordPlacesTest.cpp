#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "server/base/errors.h"
#include "server/base/memoryBudget.h"
#include "server/store/localStore.h"
#include "tests/support/temporaryDirectory.h"

// Queries that compare where their words stand, in a document in which they stand everywhere.
namespace corvaned {
namespace {

using ::testing::HasSubstr;

constexpr std::size_t kMebi = std::size_t{1} << 20U;

std::string repeated(const std::string& text, std::size_t times) {
  std::string result;
  for (std::size_t i = 0; i < times; ++i) result += text;
  return result;
}

// "r", the sign, "f", the sign, "r" and so on.
std::string joined(std::size_t words, const std::string& sign) {
  std::string query = "r";
  for (std::size_t i = 1; i < words; ++i) query += sign + (i % 2 == 0 ? "r" : "f");
  return query;
}

class WordPlacesTest : public ::testing::Test {
 protected:
  WordPlacesTest() {
    store_.createCollection("c", "en");
    store_.addDocument("c", {"k", {}, repeated("r f ", kPlaces)});
    store_.updateIndex("c");
    EXPECT_EQ(refusal([&] { store_.count("c", query("f")); }), "");
  }

  static SearchQuery query(const std::string& text) {
    SearchQuery query;
    query.text = text;
    return query;
  }

  /// Its kind's id and its text; nothing if there is none.
  static std::string refusal(const std::function<void()>& work) {
    try {
      work();
      return {};
    } catch (const ServerError& error) {
      return std::string(messageId(error.kind())) + " " + error.what();
    }
  }

  std::string refusalOf(const std::string& text) {
    return refusal([&] { EXPECT_EQ(store_.count("c", query(text)), 1U) << text; });
  }

  // Of each of the two words.
  static constexpr std::size_t kPlaces = std::size_t{1} << 18U;

  tq::test::TemporaryDirectory directory_;
  std::shared_ptr<MemoryBudget> memory_ = std::make_shared<MemoryBudget>(64 * kMebi);
  LocalStore store_{directory_.path() / "data", [&] {
                      StoreLimits limits;
                      limits.index.memory = memory_;
                      return limits;
                    }()};
};

TEST_F(WordPlacesTest, AreComparedWhereTheyTakeLittle) {
  for (const char* sign : {" NEAR/9999 ", " ADJ/9999 ", "-"}) {
    EXPECT_EQ(refusalOf(joined(16, sign)), "") << sign;
  }
  EXPECT_EQ(refusalOf('"' + joined(16, " ") + '"'), "");
}

TEST_F(WordPlacesTest, TakeMemoryForEachTimeThatAWordStandsInTheQuery) {
  const std::string id(messageId(ErrorKind::TryAgain));
  MemoryBudget::Share others(*memory_);
  ASSERT_TRUE(others.resize(40 * kMebi, MemoryBudget::Use::Large));
  for (const std::string& text :
       {joined(30, " NEAR/9999 "), joined(30, " ADJ/9999 "), '"' + joined(30, " ") + '"',
        joined(15, " NEAR/9999 ") + " OR " + joined(15, " NEAR/9999 ")}) {
    EXPECT_THAT(refusalOf(text), ::testing::AllOf(HasSubstr(id), HasSubstr("MiB"))) << text;
  }
  EXPECT_EQ(refusalOf(joined(100, " ")), "") << "words alone have no places to be compared";
}

TEST_F(WordPlacesTest, OfManyWordsAreNotComparedAtAll) {
  const std::string id(messageId(ErrorKind::QueryTooBroad));
  const SearchQuery wide = query(joined(250, " NEAR/9999 "));
  const std::vector<std::function<void()>> requests{
      [&] { store_.search("c", wide); },
      [&] { store_.count("c", wide); },
      [&] { store_.estimate("c", wide.text); },
      [&] { store_.details("c", wide, {}); },
  };
  for (const auto& request : requests) {
    EXPECT_THAT(refusal(request), ::testing::AllOf(HasSubstr(id), HasSubstr("places")));
  }
}

TEST_F(WordPlacesTest, OfDifferentWordsAreNoMoreThanADocumentHas) {
  constexpr std::size_t kWords = 16;
  store_.createCollection("long", "en");
  std::string near;
  for (std::size_t i = 0; i < kWords; ++i) {
    const std::string word = "w" + std::to_string(i);
    store_.addDocument("long", {word, {}, repeated(word + " ", 20000)});
    near += (i == 0 ? "" : " NEAR/9999 ") + word;
  }
  store_.updateIndex("long");
  const auto found = [&](const std::string& text) {
    return refusal([&] { store_.count("long", query(text)); });
  };
  ASSERT_EQ(found("w0"), "");
  MemoryBudget::Share others(*memory_);
  others.force(memory_->limit() - memory_->used() - kMebi / 2);
  EXPECT_EQ(found(near), "");
  EXPECT_EQ(found(near + " NEAR/9999 " + near), "") << "each of them twice";
  std::string again = "w0";
  for (std::size_t i = 1; i < kWords; ++i) again += " NEAR/9999 w0";
  EXPECT_THAT(found(again), HasSubstr(std::string(messageId(ErrorKind::TryAgain))));
}

TEST_F(WordPlacesTest, OfADocumentToMatchCountAsWell) {
  const std::vector<Document> documents{{"m", {}, repeated("r f ", 4096)}};
  store_.createCollection("empty", "en");
  MemoryBudget::Share others(*memory_);
  ASSERT_TRUE(others.resize(52 * kMebi, MemoryBudget::Use::Large));
  const auto matching = [&](std::size_t words) {
    return refusal([&] {
      const auto hits = store_.match("empty", query(joined(words, " NEAR/9999 ")), documents);
      Hit hit;
      EXPECT_TRUE(hits->next(hit));
    });
  };
  EXPECT_EQ(matching(16), "");
  EXPECT_THAT(matching(250), HasSubstr("the query stands for 250 words"));
}

TEST_F(WordPlacesTest, OfADocumentToMatchAreRefusedWhereTheyWouldTakeTooLong) {
  store_.createCollection("empty", "en");
  const auto matching = [&](const std::string& text, const std::string& document) {
    return refusal([&] {
      const auto hits = store_.match("empty", query(text), {{"a", {}, "r"}, {"m", {}, document}});
      Hit hit;
      EXPECT_TRUE(hits->next(hit));
    });
  };
  const std::string id(messageId(ErrorKind::QueryTooBroad));
  const std::string ofOneWord = "f " + repeated("r ", 11586);
  const std::string ofEach = repeated("r f s ", 6690);
  for (const char* text : {"\"r f s\"", "r NEAR f NEAR s", "r ADJ f ADJ s", "q* OR \"r f s\"",
                           "r AND (q OR \"r f s\")"}) {
    for (const std::string& document : {ofOneWord, ofEach}) {
      EXPECT_THAT(matching(text, document), ::testing::AllOf(HasSubstr(id), HasSubstr("places")))
          << text;
    }
  }
  EXPECT_EQ(matching("\"r f\" f*", "r f " + repeated("foxes ", 12000)), "")
      << "the places of no other word are compared";
  const std::string manyAlone = "r f " + repeated("s ", 12000) + "r f";
  for (const char* text : {"\"r f\" s", "s OR (r NEAR f)", "(r ADJ f) NOT (q OR (s t))"}) {
    EXPECT_EQ(matching(text, manyAlone), "") << text;
  }
}

// With them it would take longer than a test may.
TEST_F(WordPlacesTest, OfADocumentToMatchAreLeftOutWhereNothingComparesThem) {
  store_.createCollection("empty", "en");
  const std::vector<Document> documents{{"m", {}, repeated("r ", 400000)}};
  for (const char* text : {"r", "r*"}) {
    const auto hits = store_.match("empty", query(text), documents);
    Hit hit;
    EXPECT_TRUE(hits->next(hit)) << text;
  }
}

}  // namespace
}  // namespace corvaned
