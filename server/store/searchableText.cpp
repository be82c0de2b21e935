#include "server/store/searchableText.h"

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>

#include "server/base/errors.h"

namespace corvaned {
namespace {

// From here on characters are emoji without a variation selector that says so; before it there are
// signs such as that of copyright, which belong to a text's punctuation.
constexpr UChar32 kFirstPictograph = 0x2600;

bool isEmoji(UChar32 c) {
  return u_hasBinaryProperty(c, UCHAR_EMOJI_PRESENTATION) ||
         (c >= kFirstPictograph && u_hasBinaryProperty(c, UCHAR_EXTENDED_PICTOGRAPHIC));
}

// Whether an emoji is drawn in colour, or two of them as one, makes no other word of it.
bool isPartOfAnEmoji(UChar32 c) { return c == 0xFE0E || c == 0xFE0F || c == 0x200D; }

bool isWrittenWithoutBlanks(UChar32 c) {
  return u_getIntPropertyValue(c, UCHAR_LINE_BREAK) == U_LB_COMPLEX_CONTEXT;
}

bool hasAny(const icu::UnicodeString& text, bool (*is)(UChar32)) {
  for (std::int32_t i = 0; i < text.length(); i = text.moveIndex32(i, 1)) {
    if (is(text.char32At(i))) return true;
  }
  return false;
}

bool isOneOf(std::u16string_view signs, UChar32 c) {
  return c < 0x80 && signs.find(static_cast<char16_t>(c)) != std::u16string_view::npos;
}

/// What parts two words. In a query a blank would end what a field or a sign in front of the first
/// word is about; words with a hyphen between them stay together, as next to each other.
class Parting {
 public:
  explicit Parting(bool inQuery) : inQuery_(inQuery) {}

  void pass(UChar32 c) {
    if (isOneOf(u" \t\r\n()\"", c)) bound_ = false;
    if (isOneOf(u"+-:", c)) bound_ = inQuery_;
  }
  char16_t sign() const { return bound_ ? u'-' : u' '; }

 private:
  const bool inQuery_;
  bool bound_ = false;
};

// A blank that a query did not have must not part a sign from the word that it is about.
icu::UnicodeString withWordsForEmoji(const icu::UnicodeString& text, Parting parting,
                                     const StopCheck& stop) {
  StoppableSteps steps(stop);
  icu::UnicodeString out;
  bool behindEmoji = false;
  for (std::int32_t i = 0; i < text.length(); i = text.moveIndex32(i, 1)) {
    steps.next();
    const UChar32 c = text.char32At(i);
    if (behindEmoji && isPartOfAnEmoji(c)) continue;
    const bool emoji = isEmoji(c);
    const bool separate = emoji
                              ? !out.isEmpty() && !isOneOf(u" \t\r\n\"(:+-", out[out.length() - 1])
                              : behindEmoji && !isOneOf(u" \t\r\n\")*+-", c);
    if (separate) out.append(parting.sign());
    if (emoji) {
      // Digits at its end, so that no stemmer takes anything away.
      out.append(u"xemoji").append(icu::UnicodeString::fromUTF8(std::to_string(c)));
    } else {
      out.append(c);
    }
    behindEmoji = emoji;
    parting.pass(c);
  }
  return out;
}

std::unique_ptr<icu::BreakIterator> wordBreaks() {
  UErrorCode code = U_ZERO_ERROR;
  std::unique_ptr<icu::BreakIterator> breaks(
      icu::BreakIterator::createWordInstance(icu::Locale::getRoot(), code));
  if (U_SUCCESS(code)) return breaks;
  throw ServerError(ErrorKind::Internal,
                    std::string("words cannot be told apart: ") + u_errorName(code));
}

icu::UnicodeString withWordsApart(const icu::UnicodeString& text, Parting parting,
                                  const StopCheck& stop) {
  StoppableSteps steps(stop);
  const std::unique_ptr<icu::BreakIterator> breaks = wordBreaks();
  breaks->setText(text);
  icu::UnicodeString out;
  std::int32_t begin = breaks->first();
  for (std::int32_t end = breaks->next(); end != icu::BreakIterator::DONE; end = breaks->next()) {
    steps.next();
    const bool between = begin > 0 && isWrittenWithoutBlanks(text.char32At(begin)) &&
                         isWrittenWithoutBlanks(text.char32At(text.moveIndex32(begin, -1)));
    if (between) out.append(parting.sign());
    out.append(text, begin, end - begin);
    for (std::int32_t i = begin; i < end; i = text.moveIndex32(i, 1))
      parting.pass(text.char32At(i));
    begin = end;
  }
  return out;
}

// Without memory ICU's texts are empty ones, which say so.
icu::UnicodeString whole(icu::UnicodeString text) {
  if (text.isBogus()) throw std::bad_alloc();
  return text;
}

std::string searchable(const std::string& normal, Parting parting, const StopCheck& stop) {
  const bool ascii = std::all_of(normal.begin(), normal.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii) return normal;
  icu::UnicodeString text = whole(icu::UnicodeString::fromUTF8(normal));
  const bool emoji = hasAny(text, isEmoji);
  const bool together = hasAny(text, isWrittenWithoutBlanks);
  if (!emoji && !together) return normal;
  if (together) text = whole(withWordsApart(text, parting, stop));
  if (emoji) text = whole(withWordsForEmoji(text, parting, stop));
  std::string result;
  return text.toUTF8String(result);
}

}  // namespace

std::string searchableText(const std::string& normal, const StopCheck& stop) {
  return searchable(normal, Parting(false), stop);
}

std::string searchableQuery(const std::string& normal) {
  return searchable(normal, Parting(true), {});
}

}  // namespace corvaned
