#include <gtest/gtest.h>
#include <malloc.h>
#include <xapian.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "server/base/documentForm.h"
#include "server/store/indexLimits.h"
#include "server/store/indexingMemory.h"
#include "server/store/textAnalysis.h"
#include "server/store/xapianSchema.h"
#include "tests/support/sanitized.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

std::size_t taken() {
  const struct mallinfo2 info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

std::vector<Change> changesOf(int documents, int words,
                              const std::function<std::string(int)>& word) {
  std::vector<Change> changes;
  for (int i = 0; i < documents; ++i) {
    std::string text;
    for (int j = 0; j < words; ++j) text += word(i * words + j);
    changes.push_back({ChangeKind::Put, {"k" + std::to_string(i), {}, text}});
  }
  return changes;
}

/// The same changes with their contents as HTML or XML.
std::vector<Change> withForm(std::vector<Change> changes, TextType type) {
  for (Change& change : changes) {
    if (type == TextType::Xml) change.document.content = "<d>" + change.document.content + "</d>";
    noteForm(change.document.metadata, {type, {}});
  }
  return changes;
}

std::size_t estimated(const std::vector<Change>& changes) {
  IndexingMemory memory;
  for (const Change& change : changes) memory.add(change);
  return memory.bytes();
}

/// What the engine holds when all of them wait for the commit.
std::size_t held(const std::vector<Change>& changes) {
  const tq::test::TemporaryDirectory directory;
  Xapian::WritableDatabase database((directory.path() / "index").string(), Xapian::DB_CREATE);
  storeForm(database, {"en", {}, 1});
  const TextAnalysis analysis(database);
  IndexNames names(database);
  database.begin_transaction();
  const std::size_t before = taken();
  for (const Change& change : changes) {
    database.replace_document(identityTerm(change.document.key),
                              makeDocument(change.document, analysis, names, [] {}));
  }
  const std::size_t after = taken();
  return after > before ? after - before : 0;
}

// Letters from a number, so that neither many begin alike nor a stemmer makes two of them one.
std::string letters(int number) {
  auto left = static_cast<std::uint32_t>(number) * 2654435761U;
  std::string text;
  for (int i = 0; i < 7; ++i) {
    text += static_cast<char>('a' + left % 26);
    left = left / 26;
  }
  return text;
}

std::string ideograph(int number) {
  const unsigned c = 0x4E00 + static_cast<std::uint32_t>(number) * 2654435761U % 20000;
  return {static_cast<char>(0xE0 | (c >> 12U)), static_cast<char>(0x80 | ((c >> 6U) & 0x3FU)),
          static_cast<char>(0x80 | (c & 0x3FU))};
}

struct Kind {
  const char* name;
  int documents;
  int words;
  std::function<std::string(int)> word;
};

std::vector<Kind> kindsOfManyWords() {
  return {
      {"all differ", 50, 1000, [](int i) { return letters(i) + " "; }},
      {"one document", 1, 50000, [](int i) { return letters(i) + " "; }},
      {"long words", 50, 1000, [](int i) { return letters(i) + letters(i + 1) + "s "; }},
      {"the same in all", 500, 100, [](int i) { return letters(i % 100) + " "; }},
      {"numbers", 50, 1000, [](int i) { return "1," + std::to_string(100000 + i) + ",5 "; }},
      {"without blanks", 50, 1000, [](int i) { return letters(i) + ","; }},
      {"with signs", 50, 1000, [](int i) { return letters(i) + "&" + letters(i + 1) + "'s "; }},
      {"Cyrillic", 50, 1000, [](int i) { return "\xD0\xB4" + letters(i) + " "; }},
      {"Chinese", 50, 1000, ideograph},
  };
}

// A sanitizer's allocator does not say what it gives.
TEST(MemoryToIndex, CoversWhatTheEngineHoldsAndNotMuchMore) {
  for (const Kind& kind : kindsOfManyWords()) {
    const std::vector<Change> changes = changesOf(kind.documents, kind.words, kind.word);
    const std::size_t needed = estimated(changes);
    const std::size_t ofEngine = held(changes);
    EXPECT_GE(needed, ofEngine) << kind.name;
    if (!tq::test::kSanitized) {
      EXPECT_LE(needed, 3 * ofEngine) << kind.name;
    }
  }
}

std::size_t leastFor(const std::vector<Change>& changes) {
  IndexingMemory memory;
  for (const Change& change : changes) memory.add(change);
  return memory.leastBytes();
}

// What is refused for it would not have been indexed in less.
TEST(MemoryToIndex, LeastOfOneDocumentCoversWhatTheEngineHoldsToo) {
  std::vector<Kind> kinds = kindsOfManyWords();
  kinds.push_back({"fifty words", 1, 50000, [](int i) { return letters(i % 50) + " "; }});
  kinds.push_back({"short words", 1, 100000,
                   [](int i) { return std::string(1, static_cast<char>('a' + i % 20)) + " "; }});
  kinds.push_back({"no words", 1, 100000, [](int) { return std::string(". "); }});
  for (const Kind& kind : kinds) {
    const auto changes = changesOf(1, kind.documents * kind.words, kind.word);
    EXPECT_GE(leastFor(changes), held(changes)) << kind.name;
  }
}

// Few different pieces make many different words.
TEST(MemoryToIndex, CoversWordsThatMarkupDivides) {
  const auto byTags = [](int i) {
    const std::string word = letters(i);
    return word.substr(0, 2) + "<b>" + word.substr(2, 2) + "</b>" + word.substr(4, 2) + "<i></i>" +
           word.substr(6) + " ";
  };
  const auto byReferences = [](int i) {
    std::string word = letters(i);
    for (const std::size_t place : {5U, 2U}) {
      word.replace(place, 1, "&#" + std::to_string(int{word[place]}) + ";");
    }
    return word + " ";
  };
  const std::vector<std::pair<TextType, std::function<std::string(int)>>> kinds{
      {TextType::Html, byTags}, {TextType::Html, byReferences}, {TextType::Xml, byReferences}};
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    const auto& [type, word] = kinds[i];
    const std::vector<Change> many = withForm(changesOf(50, 1000, word), type);
    EXPECT_GE(estimated(many), held(many)) << i;
    const std::vector<Change> one = withForm(changesOf(1, 50000, word), type);
    EXPECT_GE(leastFor(one), held(one)) << i;
  }
}

TEST(MemoryToIndex, OfMarkupIsThatOfItsBytes) {
  const auto images = [](const std::function<std::string(int)>& bytes) {
    return withForm(
        changesOf(1, 10000,
                  [&](int i) { return "fox <img src='data:image/png;base64," + bytes(i) + "'>"; }),
        TextType::Html);
  };
  const std::vector<Change> different = images(letters);
  const std::vector<Change> same = images([](int) { return letters(0); });
  EXPECT_EQ(estimated(different), estimated(same));
  EXPECT_EQ(leastFor(different), leastFor(same));
}

TEST(MemoryToIndex, LeastOfWordsThatComeAgainIsFarBelowThatOfTheBytes) {
  const auto changes = changesOf(1, 50000, [](int i) { return letters(i % 50) + " "; });
  EXPECT_LT(leastFor(changes), estimated(changes) / 2);
}

TEST(MemoryToIndex, OfWordsThatComeAgainIsThatOfTheBytes) {
  const auto changes = changesOf(100, 1000, [](int i) { return letters(i % 50) + " "; });
  EXPECT_EQ(estimated(changes), kIndexingCost * (100 * 8000 + 290));
}

// U+FDFA is one letter for a phrase of eighteen.
TEST(MemoryToIndex, CoversLettersThatStandForPhrases) {
  const std::vector<Change> changes = changesOf(8, 50000, [](int) { return "\uFDFA "; });
  EXPECT_GE(estimated(changes), held(changes));
  EXPECT_GT(estimated(changes), 8 * 50000 * 33 * kIndexingCost);
}

TEST(MemoryToIndex, CapitalsAndEndsOfSentencesMakeNoOtherWords) {
  const auto of = [](const std::string& text) {
    return estimated({{ChangeKind::Put, {"k", {}, text}}});
  };
  EXPECT_EQ(of("Fox, hound. Fox! \xE2\x80\x9E"
               "fox\xE2\x80\x9D"),
            of("fox hound fox fox        "));
  EXPECT_GT(of("fox hound fox fix"), of("fox hound fox fox"));
}

// The same word under another name is another one.
TEST(MemoryToIndex, CountsWordsOfMetadata) {
  Change one{ChangeKind::Put, {"k", {{"title", "fox"}, {"title", "fox"}}, {}}};
  Change two{ChangeKind::Put, {"k", {{"title", "fox"}, {"place", "fox"}}, {}}};
  EXPECT_GT(estimated({two}), estimated({one}));
}

TEST(MemoryToIndex, BeginsAnewWhenItIsCleared) {
  IndexingMemory memory;
  for (const Change& change : changesOf(3, 100, letters)) memory.add(change);
  memory.clear();
  EXPECT_EQ(memory.bytes(), 0U);
  const auto changes = changesOf(3, 100, [](int i) { return letters(i) + " "; });
  for (const Change& change : changes) memory.add(change);
  EXPECT_EQ(memory.bytes(), estimated(changes));
}

TEST(CountOfDifferent, IsNearTheTruthForMillions) {
  DistinctCount count;
  for (int times = 0; times < 2; ++times) {
    for (std::uint64_t i = 0; i < 3000000; ++i) count.add(i * i + 7);
  }
  EXPECT_NEAR(static_cast<double>(count.count()), 3e6, 3e5);
  count.clear();
  EXPECT_EQ(count.count(), 0U);
  for (std::uint64_t i = 0; i < 100; ++i) count.add(i);
  EXPECT_NEAR(static_cast<double>(count.count()), 100, 2);
}

}  // namespace
}  // namespace corvaned
