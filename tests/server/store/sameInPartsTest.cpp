#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/store/indexParts.h"
#include "server/store/localStore.h"
#include "tests/server/store/randomTexts.h"
#include "tests/support/sanitized.h"
#include "tests/support/temporaryDirectory.h"

// Whatever is asked of a collection, the answer does not depend on how many databases share its
// documents.
namespace corvaned {
namespace {

using test::Random;

using Documents = std::vector<Document>;

constexpr std::size_t kKeys = 60;

std::string keyOf(std::size_t i) {
  // Of all lengths, and with bytes of every kind.
  return std::string(1 + i % 4, static_cast<char>('a' + i % 7)) + static_cast<char>(i * 37 % 256) +
         std::to_string(i);
}

// A word with * has another weight in each database.
bool isWeighedAlike(const SearchQuery& query) {
  return query.order != HitOrder::Score || query.text.find('*') == std::string::npos;
}

void takeAll(SearchQuery& query) {
  query.start = 0;
  query.size = query.limit = 2 * kKeys;
}

/// The answers to one question from one store, as text.
class Answers {
 public:
  Answers(Store& store, Documents texts) : store_(store), texts_(std::move(texts)) {}

  std::string of(const SearchQuery& query) const {
    std::ostringstream answer;
    ask(answer, "search", [&] {
      write(answer, *store_.search("c", query),
            isWeighedAlike(query) && query.order != HitOrder::Any);
    });
    if (!isWeighedAlike(query) || query.order == HitOrder::Any) return answer.str();
    ask(answer, "pages", [&] { writePages(answer, query, 7); });
    return answer.str();
  }

  /// All hits, in pages or not.
  std::string all(SearchQuery query, bool inPages, std::uint64_t pageSize = 7) const {
    query.start = 0;
    std::ostringstream answer;
    ask(answer, "all", [&] {
      if (inPages) return writePages(answer, query, pageSize);
      query.size = std::numeric_limits<std::uint64_t>::max();
      write(answer, *store_.search("c", query), true);
    });
    return answer.str();
  }

  /// What does not depend on the order of the hits.
  std::string ofAll(const SearchQuery& query) const {
    std::ostringstream answer;
    ask(answer, "count", [&] { answer << store_.count("c", query); });
    ask(answer, "estimate", [&] {
      const Estimate estimate = store_.estimate("c", query.text);
      answer << estimate.hits << " of " << estimate.documents;
    });
    ask(answer, "visit", [&] {
      SearchQuery byKey = query;
      byKey.order = HitOrder::Key;
      store_.visit("c", byKey, [&](const Document& each) { write(answer, each); });
    });
    ask(answer, "details", [&] {
      DetailsWanted wanted;
      wanted.names = {"title", "year"};
      if (isWeighedAlike(query)) wanted.snippetBytes = 40;
      std::vector<HitDetails> details = store_.details("c", query, wanted);
      if (!isWeighedAlike(query)) sortByKey(details);
      for (const HitDetails& each : details) write(answer, each);
    });
    ask(answer, "match",
        [&] { write(answer, *store_.match("c", query, texts_), isWeighedAlike(query)); });
    return answer.str();
  }

 private:
  template <typename Question>
  static void ask(std::ostream& answer, const char* name, const Question& question) {
    answer << name << ": ";
    try {
      question();
    } catch (const ServerError& error) {
      answer << error.what();
    }
    answer << '\n';
  }

  void writePages(std::ostream& answer, SearchQuery query, std::uint64_t size) const {
    query.inPages = true;
    query.start = 0;
    query.size = size;
    do {
      const auto page = store_.search("c", query);
      query.from = page->nextPage();
      write(answer, *page, true);
    } while (query.from);
  }

  // Not in order: only which hits there are counts.
  static void write(std::ostream& answer, HitSource& hits, bool inOrder) {
    std::vector<std::string> lines;
    for (Hit hit; hits.next(hit);) {
      lines.push_back(inOrder ? hit.key + '=' + std::to_string(hit.milliScore) : hit.key);
    }
    if (!inOrder) std::sort(lines.begin(), lines.end());
    for (const std::string& line : lines) answer << line << ' ';
  }

  static void sortByKey(std::vector<HitDetails>& details) {
    for (HitDetails& each : details) each.hit.milliScore = 0;
    std::sort(details.begin(), details.end(),
              [](const auto& a, const auto& b) { return a.hit.key < b.hit.key; });
  }

  static void write(std::ostream& answer, const Document& document) {
    answer << document.key << '(';
    for (const auto& [name, value] : document.metadata) answer << name << '=' << value << ';';
    answer << document.content << ") ";
  }

  static void write(std::ostream& answer, const HitDetails& details) {
    answer << details.hit.key << '=' << details.hit.milliScore << '(';
    for (const auto& [name, value] : details.values) answer << name << '=' << value << ';';
    // The engine may take it from another place of the text.
    answer << details.snippet.empty() << ") ";
  }

  Store& store_;
  const Documents texts_;
};

// With the highest number hardly any database has more than a few documents, and some have none.
class SameInPartsTest : public ::testing::TestWithParam<std::size_t> {
 protected:
  SameInPartsTest() {
    for (const std::size_t parts : {std::size_t{1}, GetParam()}) {
      StoreLimits limits;
      limits.parts = parts;
      limits.index.batchChanges = 7;
      stores_.push_back(std::make_unique<LocalStore>(
          directory_.path() / ("data" + std::to_string(parts)), limits));
    }
  }

  template <typename Work>
  void inBoth(const Work& work) {
    for (const auto& store : stores_) work(*store);
  }

  /// Documents that come, are replaced and go; some of the deletions are not in the index yet.
  void fill(Random& random, bool isPlain) {
    for (std::size_t i = 0; i < 2 * kKeys; ++i) {
      const std::string key = keyOf(random.below(kKeys));
      if (random.oneIn(5)) {
        inBoth([&](Store& store) { store.deleteDocument("c", key); });
        continue;
      }
      Document document = test::randomDocument(random, key);
      if (!isPlain) test::addForm(random, document);
      if (random.oneIn(2)) {
        document.metadata.emplace_back("[sortable]rank", std::to_string(random.below(5)));
      }
      inBoth([&](Store& store) { store.queueDocument("c", document); });
      if (random.oneIn(20)) inBoth([](Store& store) { store.updateIndex("c"); });
    }
    inBoth([](Store& store) { store.updateIndex("c"); });
    for (std::size_t i = 0; i < kKeys; i += 11) {
      inBoth([&](Store& store) { store.deleteDocument("c", keyOf(i)); });
    }
  }

  static SearchQuery randomSearch(Random& random) {
    SearchQuery query;
    query.text = test::randomQuery(random);
    query.everything = random.oneIn(15);
    query.scale = random.oneIn(2) ? ScoreScale::Raw : ScoreScale::Normalized;
    if (random.oneIn(4)) query.size = random.below(20);
    if (random.oneIn(4)) query.start = random.below(10);
    if (random.oneIn(6)) query.limit = random.below(20);
    if (random.oneIn(6)) query.after = keyOf(random.below(kKeys));
    if (random.oneIn(6)) query.upTo = keyOf(random.below(kKeys));
    if (random.oneIn(6)) {
      for (std::size_t i = random.below(kKeys); i > 0; --i) {
        query.keys.push_back(keyOf(random.below(kKeys)));
      }
    }
    return query;
  }

  tq::test::TemporaryDirectory directory_;
  std::vector<std::unique_ptr<LocalStore>> stores_;
};

TEST_P(SameInPartsTest, WhateverIsAskedIsAnsweredAlike) {
  constexpr std::size_t kRounds = tq::test::kSanitized ? 2 : 6;
  constexpr std::size_t kQueries = 120;
  constexpr std::array kOrders{HitOrder::Key, HitOrder::Value, HitOrder::Score, HitOrder::Any};
  std::size_t bytes = 0;
  for (std::size_t round = 0; round < kRounds; ++round) {
    Random random(100 * GetParam() + round);
    const bool isPlain = round % 2 == 0;
    const TextOptions options = isPlain ? TextOptions{} : test::randomOptions(random);
    inBoth([&](Store& store) { store.createCollection("c", "en", {}, options); });
    fill(random, isPlain);
    Documents texts;
    for (std::size_t i = 0; i < 3; ++i) {
      texts.push_back(test::randomDocument(random, "text" + std::to_string(i)));
    }
    const Answers one(*stores_[0], texts);
    const Answers several(*stores_[1], texts);
    for (std::size_t i = 0; i < kQueries; ++i) {
      SearchQuery query = randomSearch(random);
      query.sortBy = "rank";
      query.descending = random.oneIn(2);
      for (const HitOrder order : kOrders) {
        query.order = order;
        // Which of them come first is not said.
        if (order == HitOrder::Any || !isWeighedAlike(query)) takeAll(query);
        const std::string answer = one.of(query);
        bytes += answer.size();
        EXPECT_EQ(several.of(query), answer)
            << "round " << round << ", order " << static_cast<int>(order) << ", " << query.text;
        // It takes many searches.
        if (i % 4 != 0) continue;
        EXPECT_EQ(several.all(query, true), several.all(query, false))
            << "round " << round << ", order " << static_cast<int>(order) << ", " << query.text;
      }
      query.order = HitOrder::Score;
      EXPECT_EQ(several.ofAll(query), one.ofAll(query)) << "round " << round << ", " << query.text;
    }
    inBoth([](Store& store) { store.deleteCollection("c"); });
  }
  EXPECT_GT(bytes, kRounds * 17000) << "hardly anything is found";
}

/// More hits than are sorted at once, and more deleted documents than are left out by their names.
class ManyInPartsTest : public ::testing::Test {
 protected:
  static constexpr int kDocuments = 3000;
  static constexpr std::size_t kParts = 3;

  ManyInPartsTest() {
    for (const std::size_t parts : {std::size_t{1}, kParts}) {
      StoreLimits limits;
      limits.parts = parts;
      limits.hiddenKeys = kDocuments;
      LocalStore& store = *stores_.emplace_back(std::make_unique<LocalStore>(
          directory_.path() / ("data" + std::to_string(parts)), limits));
      store.createCollection("c", "en");
      for (int i = 0; i < kDocuments; ++i) store.queueDocument("c", documentOf(i));
      store.updateIndex("c");
    }
  }

  static std::string keyOf(int i) { return std::to_string(i * 7919 % 10007); }

  static Document documentOf(int i) {
    std::string text = "common";
    for (const int word : {2, 3, 5, 7}) {
      if (i % word == 0) text += " by" + std::to_string(word);
    }
    for (int j = 0; j < i % 6; ++j) text += " common";
    text += " x" + std::to_string(i % 80);
    return {keyOf(i), {{"[sortable]rank", std::to_string(i % 17)}}, text};
  }

  static SearchQuery of(const std::string& text, HitOrder order) {
    SearchQuery query;
    query.text = text;
    query.order = order;
    query.sortBy = "rank";
    query.size = query.limit = 2 * kDocuments;
    return query;
  }

  // What the answers of the two stores must have in common. Pages are larger than usual, so that
  // later ones lie far behind.
  void expectSame(const std::string& text) {
    for (const HitOrder order : {HitOrder::Score, HitOrder::Value, HitOrder::Key}) {
      const SearchQuery query = of(text, order);
      const std::string one = Answers(*stores_[0], {}).all(query, false);
      const Answers several(*stores_[1], {});
      EXPECT_EQ(several.all(query, false), one) << text;
      EXPECT_EQ(several.all(query, true, 700), one) << text;
    }
    const auto counted = [&](LocalStore& store) {
      return store.count("c", of(text, HitOrder::Any));
    };
    EXPECT_EQ(counted(*stores_[1]), counted(*stores_[0])) << text;
  }

  static std::vector<std::string> sortedWords(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) words.push_back(word);
    std::sort(words.begin(), words.end());
    return words;
  }

  static std::string joined(int words) {
    std::string text = "x0";
    for (int i = 1; i < words; ++i) text += " XOR x" + std::to_string(i);
    return text;
  }

  tq::test::TemporaryDirectory directory_;
  std::vector<std::unique_ptr<LocalStore>> stores_;
};

TEST_F(ManyInPartsTest, LongResultsAreAlike) {
  for (const char* text : {"common", "by2 OR by3", "by3", "common NOT by2"}) expectSame(text);
}

TEST_F(ManyInPartsTest, ManyDeletedDocumentsAreLeftOutAlike) {
  for (const auto& store : stores_) {
    for (int i = 0; i < kDocuments; i += 4) store->deleteDocument("c", keyOf(i));
  }
  for (const char* text : {"common", "by2 OR by3"}) expectSame(text);
}

TEST_F(ManyInPartsTest, XorJoinsFewerWordsThanInOneDatabase) {
  expectSame(joined(63));
  EXPECT_EQ(stores_[0]->count("c", of(joined(64), HitOrder::Any)), kDocuments / 80 * 64 + 40U);
  try {
    stores_[1]->count("c", of(joined(64), HitOrder::Any));
    ADD_FAILURE() << "it was not refused";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::QueryTooBroad);
  }
}

// Beyond the hits that are counted, each database tells of its own documents only.
TEST_F(ManyInPartsTest, EstimatesByStatisticsAreNearEachOther) {
  for (const char* text : {"by2", "by2 AND by3", "by2 OR by3"}) {
    const std::uint64_t one = stores_[0]->estimate("c", text, 1).hits;
    const std::uint64_t several = stores_[1]->estimate("c", text, 1).hits;
    EXPECT_GE(10 * several, 7 * one) << text;
    EXPECT_LE(10 * several, 13 * one) << text;
  }
}

// Which of the words is the rarest differs from database to database.
// Each adds their weights in another order, so that equal texts may differ in the last bit.
TEST_F(ManyInPartsTest, EqualTextsHaveTheSameScoresInAnyOrder) {
  const IndexParts parts("index", kParts);
  for (const auto& store : stores_) {
    for (int i = 0; i < 300; ++i) {
      // Of each text there are many.
      std::string text = "alpha beta gamma";
      for (int j = 0; j < i % 5; ++j) text += " alpha";
      for (int j = 0; j < i % 3; ++j) text += " beta";
      store->queueDocument("c", {"same" + std::to_string(i), {}, text});
    }
    for (int i = 0; i < 600; ++i) {
      const std::string key = "other" + std::to_string(i);
      const std::array<std::string_view, kParts> texts{"gamma gamma beta", "alpha alpha beta",
                                                       "alpha gamma"};
      store->queueDocument("c", {key, {}, std::string(texts.at(parts.partOf(key)))});
    }
    store->updateIndex("c");
  }
  for (const char* text : {"alpha beta gamma", "alpha OR beta OR gamma"}) {
    const SearchQuery query = of(text, HitOrder::Score);
    const Answers several(*stores_[1], {});
    const std::string found = several.all(query, false);
    EXPECT_EQ(sortedWords(found), sortedWords(Answers(*stores_[0], {}).all(query, false))) << text;
    EXPECT_EQ(several.all(query, true, 70), found) << text;
  }
}

INSTANTIATE_TEST_SUITE_P(Databases, SameInPartsTest, ::testing::Values(2, 3, kMostParts),
                         ::testing::PrintToStringParamName());

}  // namespace
}  // namespace corvaned
