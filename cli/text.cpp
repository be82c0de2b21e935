#include "cli/text.h"

#include <fmt/format.h>
#include <unicode/uchar.h>
#include <unicode/ustring.h>

#include <cstdint>
#include <limits>

#include "cli/errors.h"
#include "infra/util/kruBase64.h"

namespace corvane {

namespace {

constexpr std::string_view kDocIdPrefix = "base64:";

}  // namespace

std::string toUtf8(const icu::UnicodeString& text) {
  std::string bytes;
  text.toUTF8String(bytes);
  return bytes;
}

std::optional<icu::UnicodeString> fromUtf8(std::string_view bytes) {
  if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) return {};
  UErrorCode status = U_ZERO_ERROR;
  std::int32_t units = 0;
  // Asked for the length alone, ICU still reports the first ill-formed sequence.
  u_strFromUTF8(nullptr, 0, &units, bytes.data(), static_cast<std::int32_t>(bytes.size()), &status);
  if (U_FAILURE(status) && status != U_BUFFER_OVERFLOW_ERROR) return {};
  return icu::UnicodeString::fromUTF8(
      icu::StringPiece(bytes.data(), static_cast<std::int32_t>(bytes.size())));
}

icu::UnicodeString headerValue(std::string_view what, std::string_view bytes) {
  if (bytes.empty()) throw UsageError(fmt::format("{} is empty", what));
  const auto text = fromUtf8(bytes);
  if (!text) throw UsageError(fmt::format("{} is not valid UTF-8", what));
  if (bytes.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos) {
    throw UsageError(fmt::format(
        "{} holds a line break or a NUL, which would change the request; remove it", what));
  }
  return *text;
}

icu::UnicodeString digits(std::uint64_t number) {
  return icu::UnicodeString::fromUTF8(std::to_string(number));
}

std::optional<std::string> whyNoKey(std::string_view key) {
  if (key.empty()) return "the key is empty";
  if (key.size() > kMaxKeyBytes) {
    return fmt::format("the key has {} bytes; a key has at most {}", key.size(), kMaxKeyBytes);
  }
  return {};
}

bool isPrintable(UChar32 character) {
  // ICU calls the separators of lines and paragraphs printable; a terminal may break a line there.
  constexpr std::uint32_t kSeparators = U_GC_ZL_MASK | U_GC_ZP_MASK;
  return u_isprint(character) && (U_GET_GC_MASK(character) & kSeparators) == 0;
}

bool isPrintable(const icu::UnicodeString& text) {
  for (std::int32_t i = 0; i < text.length(); i = text.moveIndex32(i, 1)) {
    if (!isPrintable(text.char32At(i))) return false;
  }
  return true;
}

std::string printable(const icu::UnicodeString& text) {
  icu::UnicodeString shown;
  for (std::int32_t i = 0; i < text.length(); i = text.moveIndex32(i, 1)) {
    const UChar32 c = text.char32At(i);
    if (isPrintable(c)) {
      shown.append(c);
    } else {
      const std::string escape = fmt::format("\\u{{{:x}}}", static_cast<std::uint32_t>(c));
      shown.append(icu::UnicodeString::fromUTF8(escape));
    }
  }
  return toUtf8(shown);
}

std::string printable(std::string_view bytes) {
  // Ill-formed bytes become the replacement character, which is printable.
  return printable(icu::UnicodeString::fromUTF8(
      icu::StringPiece(bytes.data(), static_cast<std::int32_t>(bytes.size()))));
}

std::string counted(std::uint64_t number, std::string_view noun) {
  return fmt::format("{} {}{}", number, noun, number == 1 ? "" : "s");
}

std::optional<std::string> decodeBase64(std::string_view text) {
  std::string bytes;
  if (!tq::util::Base64::decode(text.data(), text.size(), bytes)) return {};
  return bytes;
}

std::optional<std::string> keyOfDocId(const icu::UnicodeString& docId) {
  const std::string id = toUtf8(docId);
  if (id.compare(0, kDocIdPrefix.size(), kDocIdPrefix) != 0) return {};
  return decodeBase64(std::string_view(id).substr(kDocIdPrefix.size()));
}

}  // namespace corvane
