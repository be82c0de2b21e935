#include <gtest/gtest.h>
#include <xapian.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/store/indexParts.h"
#include "server/store/indexSums.h"
#include "server/store/indexWriter.h"
#include "server/store/localStore.h"
#include "server/store/partWriter.h"
#include "server/store/passingDocuments.h"
#include "server/store/searchableText.h"
#include "server/store/textNormalizer.h"
#include "server/store/xapianSchema.h"
#include "tests/server/store/randomTexts.h"
#include "tests/support/temporaryDirectory.h"

// A text that takes long to read can be given up before its end.
namespace corvaned {
namespace {

struct Ended : std::runtime_error {
  Ended() : std::runtime_error("ended") {}
};

/// Ends work when it is asked for this many times.
class EndsAt {
 public:
  explicit EndsAt(std::size_t call) : left_(call) {}
  StopCheck check() {
    return [this] {
      ++calls_;
      if (left_ > 0 && --left_ == 0) throw Ended();
    };
  }
  std::size_t calls() const { return calls_; }

 private:
  std::size_t left_;
  std::size_t calls_ = 0;
};

constexpr std::size_t kNever = 0;

struct Occurrences {
  Xapian::termcount count = 0;
  std::vector<Xapian::termpos> places{};
  bool operator==(const Occurrences&) const = default;
};
using Words = std::map<std::string, Occurrences>;

Words wordsOf(const Xapian::Document& document) {
  Words words;
  for (auto term = document.termlist_begin(); term != document.termlist_end(); ++term) {
    Occurrences& each = words[*term];
    each.count = term.get_wdf();
    each.places.assign(term.positionlist_begin(), term.positionlist_end());
  }
  return words;
}

std::string repeated(const std::string& text, std::size_t times) {
  std::string result;
  for (std::size_t i = 0; i < times; ++i) result += text;
  return result;
}

class LongTextTest : public ::testing::Test {
 protected:
  LongTextTest() { storeForm(database_, {"en", {}, 1}); }

  Xapian::Document made(const std::string& text, const StopCheck& stop) {
    IndexNames names;
    return makeDocument({"k", {}, text}, TextAnalysis(database_), names, stop);
  }

  // As the engine reads it when nobody looks on.
  static Words read(const std::string& text) {
    Xapian::TermGenerator generator;
    generator.set_flags(Xapian::TermGenerator::FLAG_CJK_NGRAM);
    generator.set_max_word_length(kMaxWordBytes);
    generator.set_stemmer(Xapian::Stem("en"));
    generator.index_text(searchableText(normalizeText(text)));
    return wordsOf(generator.get_document());
  }

  Words madeWords(const std::string& text) {
    Words words = wordsOf(made(text, [] {}));
    std::erase_if(words, [](const auto& word) {
      return word.first == identityTerm("k") || word.first == kPlaceTerm;
    });
    return words;
  }

  Xapian::WritableDatabase database_{std::string(), Xapian::DB_BACKEND_INMEMORY};
};

const std::vector<std::string> kPieces{"The running Foxes",
                                       "\u4E2D\u6587",
                                       "\u65E5\u672C\u8A9E\u3002",
                                       "\uD55C\uAD6D\uC5B4 \uB9D0",
                                       "\u0E20\u0E32\u0E29\u0E32\u0E44\u0E17\u0E22",
                                       "\U0001F98A\U0001F44D",
                                       "\u2764\uFE0F",
                                       "e\u0301te\u0301 A\u030A",
                                       "\u0301",
                                       "one-two/three.four@five:six",
                                       "P.T.O.",
                                       "AT&T don't C++ 3.14 1,000;2",
                                       std::string(70, 'x'),
                                       std::string(201, 'y'),
                                       repeated("\u00E9", 101),
                                       repeated("\u4E2D", 70),
                                       "_",
                                       "\n",
                                       " ",
                                       ". ",
                                       "\xFF"};

TEST_F(LongTextTest, IsReadAsTheEngineReadsIt) {
  for (const std::string& one : kPieces) {
    for (const std::string& other : kPieces) {
      const std::string text = one + other + " " + one;
      EXPECT_EQ(madeWords(text), read(text)) << text;
    }
  }
  test::Random random(7);
  std::string text;
  for (int i = 0; i < 20000; ++i) text += random.pick(kPieces) + (random.oneIn(3) ? " " : "");
  EXPECT_EQ(madeWords(text), read(text));
}

TEST_F(LongTextTest, CanBeGivenUpInEveryScript) {
  constexpr std::size_t kWords = 5000;
  for (const std::string word :
       {"fox ", "\u4E2D", "\u0E44\u0E17\u0E22\u0E20\u0E32\u0E29\u0E32 ", "\U0001F98A"}) {
    EndsAt never(kNever);
    made(repeated(word, kWords), never.check());
    EXPECT_GE(never.calls(), kWords / 1024) << word;
    EndsAt second(2);
    EXPECT_THROW(made(repeated(word, kWords), second.check()), Ended) << word;
    EXPECT_EQ(second.calls(), 2U) << word;
  }
}

TEST_F(LongTextTest, CanBeGivenUpInMetadataAndWithoutPositions) {
  TextOptions options;
  options.keepsPositions = false;
  storeForm(database_, {"en", options, 1});
  IndexNames names;
  EndsAt second(2);
  const StopCheck stop = second.check();
  EXPECT_THROW(makeDocument({"k", {{"title", repeated("fox ", 5000)}}, {}}, TextAnalysis(database_),
                            names, stop),
               Ended);
}

TEST_F(LongTextTest, CanBeGivenUpBeforeTheEngineHasIt) {
  const std::string thai = repeated("\u0E44\u0E17\u0E22 ", 5000);
  const std::string emoji = repeated("\U0001F98A", 5000);
  for (const std::string& text : {thai, emoji}) {
    EndsAt second(2);
    EXPECT_THROW(searchableText(text, second.check()), Ended);
  }
}

TEST_F(LongTextTest, CanBeGivenUpWhileItsWordsAreComparedWithAQuery) {
  std::string text;
  for (int i = 0; i < 5000; ++i) text += "w" + std::to_string(i) + " ";
  const Xapian::Document document = made(text, [] {});
  EndsAt third(3);
  EXPECT_THROW(passingDocuments({document}, Xapian::Query("w1"), "w1", 0, third.check()), Ended);
  EXPECT_EQ(third.calls(), 3U);
}

TEST_F(LongTextTest, UpdateEndsWithinIt) {
  const tq::test::TemporaryDirectory directory;
  IndexWriter::create(directory.path(), {"en", {}});
  const IndexParts parts = IndexParts::in(directory.path() / IndexSums::kIndexDirectory);
  EndsAt third(3);
  const StopCheck stop = third.check();
  PartWriter writer(parts, 0, stop);
  writer.open();
  const Change change{ChangeKind::Put, {"k", {}, repeated("fox ", 5000)}};
  EXPECT_THROW(writer.prepare({&change}, writer.names()), Ended);
}

// A query that is wrong is told of once the text has been read.
TEST_F(LongTextTest, MatchEndsWithinIt) {
  const tq::test::TemporaryDirectory directory;
  LocalStore store(directory.path() / "data", StoreLimits{});
  store.createCollection("c", "en");
  std::string text;
  for (int i = 0; i < 300000; ++i) text += "w" + std::to_string(i) + " ";
  SearchQuery query;
  query.text = "(fox";
  const auto refusal = [&](RequestContext::Limits limits) {
    RequestContext context(limits);
    const RequestContext::Scope scope(context);
    try {
      store.match("c", query, {{"k", {}, text}});
      return ErrorKind::Internal;
    } catch (const ServerError& error) {
      return error.kind();
    }
  };
  ASSERT_EQ(refusal({}), ErrorKind::BadQuery);
  EXPECT_EQ(refusal({std::chrono::milliseconds(20)}), ErrorKind::TimedOut);
}

}  // namespace
}  // namespace corvaned
