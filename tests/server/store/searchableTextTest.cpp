#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/store/localStore.h"
#include "server/store/searchableText.h"
#include "tests/support/temporaryDirectory.h"

// Words that the engine does not see by itself.
namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using Keys = std::vector<std::string>;

constexpr const char* kFox = "\U0001F98A";
constexpr const char* kThumb = "\U0001F44D";
// "Thai language", which are two words.
constexpr const char* kThaiLanguage = "\u0E20\u0E32\u0E29\u0E32\u0E44\u0E17\u0E22";
constexpr const char* kThai = "\u0E44\u0E17\u0E22";

TEST(SearchableText, EmojiAreWordsOfTheirOwn) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"fox", "fox"},
      {"caf\u00E9", "caf\u00E9"},
      {kFox, "xemoji129418"},
      {std::string("a") + kFox + "b", "a xemoji129418 b"},
      {std::string("a ") + kFox + " b", "a xemoji129418 b"},
      {std::string(kFox) + kThumb, "xemoji129418 xemoji128077"},
      {"\u2764\uFE0F.", "xemoji10084 ."},
      {"\U0001F468\u200D\U0001F469", "xemoji128104 xemoji128105"},
      {std::string(kFox) + "'s", "xemoji129418 's"},
      // What a query says of a word stays with it.
      {std::string("title:") + kFox, "title:xemoji129418"},
      {std::string("red -") + kFox, "red -xemoji129418"},
      {std::string("red +") + kFox + " -hen", "red +xemoji129418 -hen"},
      {std::string("(\"red ") + kFox + "\")", "(\"red xemoji129418\")"},
      {std::string("fo*") + kFox + "*", "fo* xemoji129418*"},
      // Signs of punctuation are none.
      {"\u00A9 2026 \u2192 \u00AE", "\u00A9 2026 \u2192 \u00AE"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(searchableText(text), expected) << text;
}

TEST(SearchableText, WordsWrittenWithoutBlanksAreSeparated) {
  EXPECT_EQ(searchableText(kThaiLanguage), "\u0E20\u0E32\u0E29\u0E32 \u0E44\u0E17\u0E22");
  EXPECT_EQ(searchableText(std::string("x ") + kThai + ".y"), std::string("x ") + kThai + ".y");
  EXPECT_EQ(searchableText(std::string(kThai) + kFox), std::string(kThai) + " xemoji129418");
  // The engine separates these itself.
  EXPECT_EQ(searchableText("\u5168\u6587\u691C\u7D22"), "\u5168\u6587\u691C\u7D22");
}

class SearchableTextTest : public ::testing::Test {
 protected:
  SearchableTextTest() { store_.createCollection("c", "en", {}, {}); }

  void add(const std::string& key, const std::string& text, Metadata metadata = {}) {
    store_.addDocument("c", {key, std::move(metadata), text});
  }

  Keys keys(const std::string& text) {
    SearchQuery query;
    query.text = text;
    query.order = HitOrder::Key;
    const auto hits = store_.search("c", query);
    Keys list;
    for (Hit hit; hits->next(hit);) list.push_back(hit.key);
    return list;
  }

  std::string refusal(const std::string& text) {
    try {
      keys(text);
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::BadQuery);
      return error.what();
    }
    return {};
  }

  tq::test::TemporaryDirectory directory_;
  LocalStore store_{directory_.path() / "data", StoreLimits{}};
};

TEST_F(SearchableTextTest, EmojiAreFound) {
  add("both", std::string("a red fox") + kFox + kThumb);
  add("fox", std::string("red ") + kFox + " fox");
  add("none", "a red fox");
  add("field", "red", {{"mood", kThumb}});
  store_.updateIndex("c");
  EXPECT_THAT(keys(kFox), ElementsAre("both", "fox"));
  EXPECT_THAT(keys(std::string("fox") + kFox), ElementsAre("both", "fox"));
  EXPECT_THAT(keys(std::string("red -") + kFox), ElementsAre("field", "none"));
  EXPECT_THAT(keys(std::string("\"red ") + kFox + "\""), ElementsAre("fox"));
  EXPECT_THAT(keys(std::string("mood:") + kThumb), ElementsAre("field"));
  EXPECT_THAT(keys(kThumb), ElementsAre("both"));
  EXPECT_THAT(keys("\U0001F414"), IsEmpty());
}

TEST_F(SearchableTextTest, WordsOfThaiAreFound) {
  add("language", kThaiLanguage);
  add("other", "\u0E20\u0E32\u0E29\u0E32");
  store_.updateIndex("c");
  EXPECT_THAT(keys(kThai), ElementsAre("language"));
  EXPECT_THAT(keys(kThaiLanguage), ElementsAre("language"));
  EXPECT_THAT(keys("\u0E20\u0E32\u0E29\u0E32"), ElementsAre("language", "other"));
}

TEST_F(SearchableTextTest, FieldsAndSignsAreAboutAllOfATextWithoutBlanks) {
  constexpr const char* kFlag = "\U0001F1E9\U0001F1EA";
  add("title", "red", {{"title", kThaiLanguage}, {"flag", kFlag}});
  add("content", std::string("red ") + kThaiLanguage + " " + kFlag, {{"title", "red"}});
  store_.updateIndex("c");
  EXPECT_THAT(keys(std::string("title:") + kThaiLanguage), ElementsAre("title"));
  EXPECT_THAT(keys(std::string("red -") + kThaiLanguage), ElementsAre("title"));
  EXPECT_THAT(keys(std::string("flag:") + kFlag), ElementsAre("title"));
  EXPECT_THAT(keys(std::string("red -") + kFlag), ElementsAre("title"));
  EXPECT_THAT(keys(kFlag), ElementsAre("content"));
}

TEST_F(SearchableTextTest, LongWordsAreFoundOrRefused) {
  const std::string longest(kMaxWordBytes, 'x');
  add("seventy", std::string(70, 'y'));
  add("longest", longest, {{"title", std::string(kMaxWordBytes, 'z')}});
  add("longer", longest + "x");
  store_.updateIndex("c");
  EXPECT_THAT(keys(std::string(70, 'y')), ElementsAre("seventy"));
  EXPECT_THAT(keys(longest), ElementsAre("longest"));
  EXPECT_THAT(keys("title:" + std::string(kMaxWordBytes, 'z')), ElementsAre("longest"));
  EXPECT_THAT(refusal("red OR " + longest + "x"),
              AllOf(HasSubstr("\"xxxxxxxxxx"), HasSubstr("201 bytes"), HasSubstr("more than 200")));
  EXPECT_THAT(refusal("\"red " + longest + "ing\""), HasSubstr("203 bytes"));
}

TEST_F(SearchableTextTest, BytesThatAreNoTextPartWords) {
  add("parted", "re\377d");
  add("whole", "red fox");
  store_.updateIndex("c");
  EXPECT_THAT(keys("re\377d"), ElementsAre("parted"));
  EXPECT_THAT(keys("\377red\377fox\376"), ElementsAre("whole"));
  EXPECT_THAT(keys("\377\376"), IsEmpty());
}

TEST_F(SearchableTextTest, SnippetsShowTheTextAsItIs) {
  add("k", std::string("a red ") + kFox + " " + kThaiLanguage);
  store_.updateIndex("c");
  SearchQuery query;
  query.text = "red";
  const auto found = store_.details("c", query, {{}, 200});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_THAT(found.front().snippet, AllOf(HasSubstr(kFox), HasSubstr(kThaiLanguage)));
}

}  // namespace
}  // namespace corvaned
