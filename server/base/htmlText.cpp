#include "server/base/htmlText.h"

#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>

#include "server/base/htmlCharacters.h"

namespace corvaned {
namespace {

constexpr std::string_view kBlanks = " \t\n\r\f";
constexpr char32_t kReplacement = 0xFFFD;

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool isNamed(std::string_view tag, std::string_view name) {
  return tag.size() == name.size() && std::equal(tag.begin(), tag.end(), name.begin(),
                                                 [](char a, char b) { return lower(a) == b; });
}

template <typename Names>
bool isOneOf(std::string_view tag, const Names& names) {
  return std::any_of(names.begin(), names.end(),
                     [&](std::string_view name) { return isNamed(tag, name); });
}

// Elements within a word or sentence. All others separate what stands before and behind them.
bool isInline(std::string_view tag) {
  constexpr std::array<std::string_view, 27> kInline{
      "a",    "abbr", "acronym", "b",    "bdi",    "bdo",    "big",   "cite", "code",
      "data", "del",  "dfn",     "em",   "font",   "i",      "ins",   "kbd",  "mark",
      "q",    "s",    "samp",    "span", "strike", "strong", "small", "u",    "wbr"};
  return isOneOf(tag, kInline);
}

// Nobody reads these. Their content has no tags but their own end.
bool isUnseen(std::string_view tag) {
  constexpr std::array<std::string_view, 5> kUnseen{"script", "style", "iframe", "noembed",
                                                    "noframes"};
  return isOneOf(tag, kUnseen);
}

// Their content is text with references and without tags.
bool isPureText(std::string_view tag) {
  constexpr std::array<std::string_view, 2> kPureText{"title", "textarea"};
  return isOneOf(tag, kPureText);
}

void append(std::string& out, char32_t character) {
  std::array<std::uint8_t, U8_MAX_LENGTH> bytes{};
  std::int32_t length = 0;
  U8_APPEND_UNSAFE(bytes.data(), length, character);
  out.append(reinterpret_cast<const char*>(bytes.data()), static_cast<std::size_t>(length));
}

// Numbers of control characters are meant as those of windows-1252, as browsers take them.
char32_t meantBy(char32_t number) {
  constexpr std::array<char16_t, 32> kWindows1252{
      0x20AC, 0x81,   0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
      0x2039, 0x0152, 0x8D,   0x017D, 0x8F,   0x90,   0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
      0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x9D,   0x017E, 0x0178};
  if (number >= 0x80 && number < 0xA0) return kWindows1252[number - 0x80];
  if (number == 0 || number > 0x10FFFF || (number >= 0xD800 && number < 0xE000)) {
    return kReplacement;
  }
  return number;
}

/// Walks through the document once, from its beginning to its end.
class HtmlReader {
 public:
  explicit HtmlReader(std::string_view html) : rest_(html) {}

  std::string text() {
    while (!rest_.empty()) {
      text_ += take(rest_.find_first_of("<&"));
      if (rest_.empty()) break;
      if (rest_.front() == '&') {
        readReference();
      } else {
        readMarkup();
      }
    }
    return std::move(text_);
  }

 private:
  /// The bytes before that place; all if there is no such place.
  std::string_view take(std::size_t place) {
    const std::string_view taken = rest_.substr(0, place);
    rest_.remove_prefix(taken.size());
    return taken;
  }

  void takeText(std::size_t count) { text_ += take(count); }

  // What is never closed hides all that follows, as it does for a reader.
  void skipBehind(std::string_view end, std::size_t from = 0) {
    const std::size_t place = rest_.find(end, from);
    take(place == std::string_view::npos ? place : place + end.size());
  }

  void readMarkup() {
    const char next = rest_.size() > 1 ? rest_[1] : '\0';
    if (isLetter(next)) return readTag(1);
    if (next == '/') return readEndTag();
    // "<!-->" is a whole comment.
    if (rest_.starts_with("<!--")) return skipBehind("-->", 2);
    if (next == '!' || next == '?') return skipBehind(">");
    takeText(1);
  }

  void readEndTag() {
    if (rest_.size() < 3) return takeText(2);
    if (isLetter(rest_[2])) return readTag(2);
    skipBehind(">");
  }

  void readTag(std::size_t nameStart) {
    take(nameStart);
    const std::string_view name = take(rest_.find_first_of(" \t\n\r\f/>"));
    skipAttributes();
    if (!isInline(name)) text_ += ' ';
    if (nameStart != 1) return;
    if (isUnseen(name)) take(endOf(name));
    if (isPureText(name)) readPureText(endOf(name));
  }

  void skipAttributes() {
    while (!rest_.empty()) {
      take(rest_.find_first_not_of(" \t\n\r\f/"));
      if (rest_.starts_with('>')) return skipBehind(">");
      // A name may begin with "=".
      take(rest_.find_first_of(" \t\n\r\f/>=", 1));
      skipBlanks();
      if (rest_.starts_with('=')) skipValue();
    }
  }

  void skipValue() {
    take(1);
    skipBlanks();
    if (rest_.starts_with('"') || rest_.starts_with('\'')) {
      const std::string_view quote = take(1);
      return skipBehind(quote);
    }
    take(rest_.find_first_of(" \t\n\r\f>"));
  }

  void skipBlanks() { take(rest_.find_first_not_of(kBlanks)); }

  // Where the end tag of that name begins.
  std::size_t endOf(std::string_view name) const {
    for (std::size_t place = rest_.find("</"); place != std::string_view::npos;
         place = rest_.find("</", place + 2)) {
      const std::string_view tag = rest_.substr(place + 2, name.size());
      const std::string_view behind = rest_.substr(std::min(place + 2 + name.size(), rest_.size()));
      const bool ends = behind.empty() || behind.find_first_of(" \t\n\r\f/>") == 0;
      if (ends && tag.size() == name.size() &&
          std::equal(tag.begin(), tag.end(), name.begin(),
                     [](char a, char b) { return lower(a) == lower(b); })) {
        return place;
      }
    }
    return std::string_view::npos;
  }

  void readPureText(std::size_t size) {
    const std::string_view behind = rest_.substr(std::min(size, rest_.size()));
    rest_ = rest_.substr(0, size);
    while (!rest_.empty()) {
      takeText(rest_.find('&'));
      if (!rest_.empty()) readReference();
    }
    rest_ = behind;
  }

  void readReference() {
    const std::size_t end = rest_.starts_with("&#") ? readNumber() : readName();
    if (end == 0) return takeText(1);
    take(end);
    if (rest_.starts_with(';')) take(1);
  }

  // Returns where the reference ends, before its semicolon; 0 if it is none.
  std::size_t readName() {
    std::size_t end = 1;
    while (end < rest_.size() && (isLetter(rest_[end]) || isDigit(rest_[end]))) ++end;
    const auto character = htmlCharacter(rest_.substr(1, end - 1));
    if (!character) return 0;
    append(text_, *character);
    return end;
  }

  std::size_t readNumber() {
    std::size_t end = 2;
    const bool hexadecimal = end < rest_.size() && lower(rest_[end]) == 'x';
    if (hexadecimal) ++end;
    const std::size_t begin = end;
    char32_t number = 0;
    for (; end < rest_.size(); ++end) {
      const auto digit = digitOf(rest_[end], hexadecimal);
      if (!digit) break;
      // Large enough for no character, and small enough to go on.
      if (number < 0x200000) number = number * (hexadecimal ? 16 : 10) + *digit;
    }
    if (end == begin) return 0;
    append(text_, meantBy(number));
    return end;
  }

  static std::optional<char32_t> digitOf(char c, bool hexadecimal) {
    if (isDigit(c)) return static_cast<char32_t>(c - '0');
    const char letter = lower(c);
    if (!hexadecimal || letter < 'a' || letter > 'f') return std::nullopt;
    return static_cast<char32_t>(letter - 'a' + 10);
  }

  std::string_view rest_;
  std::string text_;
};

}  // namespace

std::string textOfHtml(std::string_view html) { return HtmlReader(html).text(); }

}  // namespace corvaned
