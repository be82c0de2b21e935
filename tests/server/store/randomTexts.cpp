#include "tests/server/store/randomTexts.h"

#include <array>
#include <string_view>

#include "server/base/documentForm.h"

namespace corvaned::test {
namespace {

// Common stems, several spellings of a letter, writing without blanks, marks inside of words.
constexpr std::array<std::string_view, 24> kWords{
    "fox",    "foxes",      "Fox",   "running",  "run",    "größe",
    "GRÖSSE", "cafe\u0301", "café",  "全文検索", "全文",   "検索エンジン",
    "ﬁsh",    "fish",       "C++",   "U.S.A.",   "x86-64", "it's",
    "the",    "a",          "wi-fi", "wi_fi",    "2024",   "\U0001F600"};
constexpr std::array<std::string_view, 4> kFields{"title", "colour", "year", "not_there"};
constexpr std::array<std::string_view, 9> kPatterns{"f*",  "fo*", "ru*", "gr*", "x*",
                                                    "ca*", "2*",  "wi*", "全*"};

std::string words(Random& random, std::size_t most, std::string_view between = " ") {
  std::string text;
  for (std::size_t count = 1 + random.below(most); count > 0; --count) {
    text += random.pick(kWords);
    if (count > 1) text += between;
  }
  return text;
}

}  // namespace

std::string randomQuery(Random& random, int depth) {
  const auto part = [&] { return randomQuery(random, depth + 1); };
  switch (random.below(depth < 3 ? 17 : 7)) {
    case 0:
      return "\"" + words(random, 4) + "\"";
    case 1:
      return random.pick(kPatterns);
    case 2:
      return random.pick(kFields) + ":" + random.pick(kWords);
    case 3:
      return words(random, 3);
    case 4:
      return words(random, 2, " NEAR/3 ") + " NEAR " + random.pick(kWords);
    case 5:
      return words(random, 2, " ADJ ") + " ADJ/4 " + random.pick(kWords);
    case 7:
      return "(" + part() + ") OR (" + part() + ")";
    case 8:
      return "(" + part() + ") AND (" + part() + ")";
    case 9:
      return "(" + part() + ") NOT (" + part() + ")";
    case 10:
      return "(" + part() + ") XOR (" + part() + ")";
    case 11:
      return "NOT (" + part() + ")";
    case 12:
      return "+" + random.pick(kWords) + " -" + random.pick(kWords) + " " + random.pick(kWords);
    case 13:
      return random.pick(kFields) + ":\"" + words(random, 3) + "\"";
    case 14:
      return random.pick(kFields) + ":(" + words(random, 2, " OR ") + ")";
    case 15:
      return random.pick(kFields) + ":" + random.pick(kPatterns);
    case 16:
      return random.pick(std::array<std::string_view, 8>{"AND", "(fox", "\"fox", "fox OR", "", ":",
                                                         "nosuch:fox", "fox..run"});
    default:
      return random.pick(kWords);
  }
}

Document randomDocument(Random& random, const std::string& key) {
  Document document{key, {}, {}};
  if (!random.oneIn(10)) document.content = words(random, 12, random.oneIn(5) ? ".\n" : " ");
  for (const std::string_view field : kFields) {
    if (field == "not_there" || random.oneIn(2)) continue;
    document.metadata.emplace_back(random.oneIn(8) ? "Indexable:" + std::string(field) : field,
                                   words(random, 3));
  }
  return document;
}

void addForm(Random& random, Document& document) {
  constexpr std::array<std::string_view, 4> kLanguages{"", "de", "en", "xx"};
  DocumentForm form;
  form.language = random.pick(kLanguages);
  if (random.oneIn(4)) {
    form.type = TextType::Html;
    document.content = "<p title='fox'>" + document.content;
  }
  noteForm(document.metadata, form);
}

TextOptions randomOptions(Random& random) {
  TextOptions options;
  options.keepsText = !random.oneIn(4);
  options.keepsPositions = !random.oneIn(4);
  options.stems = !random.oneIn(4);
  options.onlyMarkedMetadata = random.oneIn(4);
  if (random.oneIn(4)) options.stopWords = {"the", "a", "fox"};
  return options;
}

}  // namespace corvaned::test
