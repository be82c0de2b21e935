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

// A blank that a text did not have must not part a sign from the word that it is about.
icu::UnicodeString withWordsForEmoji(const icu::UnicodeString& text, const StopCheck& stop) {
  StoppableSteps steps(stop);
  icu::UnicodeString out;
  bool behindEmoji = false;
  for (std::int32_t i = 0; i < text.length(); i = text.moveIndex32(i, 1)) {
    steps.next();
    const UChar32 c = text.char32At(i);
    if (behindEmoji && isPartOfAnEmoji(c)) continue;
    const bool emoji = isEmoji(static_cast<char32_t>(c));
    const bool separate = emoji
                              ? !out.isEmpty() && !isOneOf(u" \t\r\n\"(:+-", out[out.length() - 1])
                              : behindEmoji && !isOneOf(u" \t\r\n\")*+-", c);
    if (separate) out.append(u' ');
    if (emoji) {
      // Digits at its end, so that no stemmer takes anything away.
      out.append(u"xemoji").append(icu::UnicodeString::fromUTF8(std::to_string(c)));
    } else {
      out.append(c);
    }
    behindEmoji = emoji;
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

icu::UnicodeString withWordsApart(const icu::UnicodeString& text, const StopCheck& stop) {
  StoppableSteps steps(stop);
  const std::unique_ptr<icu::BreakIterator> breaks = wordBreaks();
  breaks->setText(text);
  icu::UnicodeString out;
  std::int32_t begin = breaks->first();
  for (std::int32_t end = breaks->next(); end != icu::BreakIterator::DONE; end = breaks->next()) {
    steps.next();
    const bool between = begin > 0 && isWrittenWithoutBlanks(text.char32At(begin)) &&
                         isWrittenWithoutBlanks(text.char32At(text.moveIndex32(begin, -1)));
    if (between) out.append(u' ');
    out.append(text, begin, end - begin);
    begin = end;
  }
  return out;
}

// Without memory ICU's texts are empty ones, which say so.
icu::UnicodeString whole(icu::UnicodeString text) {
  if (text.isBogus()) throw std::bad_alloc();
  return text;
}

}  // namespace

bool isEmoji(char32_t c) {
  const auto point = static_cast<UChar32>(c);
  return u_hasBinaryProperty(point, UCHAR_EMOJI_PRESENTATION) ||
         (point >= kFirstPictograph && u_hasBinaryProperty(point, UCHAR_EXTENDED_PICTOGRAPHIC));
}

std::string searchableText(const std::string& normal, const StopCheck& stop) {
  const bool ascii = std::all_of(normal.begin(), normal.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii) return normal;
  icu::UnicodeString text = whole(icu::UnicodeString::fromUTF8(normal));
  const bool emoji = hasAny(text, [](UChar32 c) { return isEmoji(static_cast<char32_t>(c)); });
  const bool together = hasAny(text, isWrittenWithoutBlanks);
  if (!emoji && !together) return normal;
  if (together) text = whole(withWordsApart(text, stop));
  if (emoji) text = whole(withWordsForEmoji(text, stop));
  std::string result;
  return text.toUTF8String(result);
}

}  // namespace corvaned
