#include "infra/oss/kruConverter.h"

#include <unicode/ustring.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>

#include "infra/oss/kruAsciiUnits.h"
#include "infra/oss/kruNLSException.h"
#include "infra/oss/kruNullBytes.h"

namespace tq::oss {

namespace {

constexpr const char* kFile = "kruConverter";
constexpr char32_t kReplacement = 0xFFFD;

#pragma GCC diagnostic push
// The macro masks its signed code point with unsigned constants.
#pragma GCC diagnostic ignored "-Wsign-conversion"

// An unpaired surrogate has no UTF-8 form and is read as the replacement character.
char32_t nextCodePoint(const char16_t* text, std::int32_t length, std::int32_t& at) noexcept {
  UChar32 c;
  U16_NEXT_OR_FFFD(text, at, length, c);
  return static_cast<char32_t>(c);
}

#pragma GCC diagnostic pop

#ifdef __SSE2__

// Sixteen bytes, when they are all ASCII.
bool widen16(const char* bytes, char16_t* out) noexcept {
  const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
  if (_mm_movemask_epi8(units) != 0) return false;
  const __m128i zero = _mm_setzero_si128();
  auto* const to = reinterpret_cast<__m128i*>(out);
  _mm_storeu_si128(to, _mm_unpacklo_epi8(units, zero));
  _mm_storeu_si128(to + 1, _mm_unpackhi_epi8(units, zero));
  return true;
}

#endif

// Eight bytes, when they are all ASCII.
bool widen8(const char* bytes, char16_t* out) noexcept {
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, sizeof word);
  if ((word & 0x8080808080808080U) != 0) return false;
  for (int i = 0; i < 8; ++i) out[i] = char16_t(bytes[i]);
  return true;
}

// Writes the ASCII characters at the start of the bytes and returns how many there are.
std::size_t widenAscii(const char* bytes, std::size_t length, char16_t* out) noexcept {
  std::size_t i = 0;
#ifdef __SSE2__
  while (length - i >= 16 && widen16(bytes + i, out + i)) i += 16;
  // The last step covers bytes that were written already.
  if (i != 0 && length - i < 16 && widen16(bytes + length - 16, out + length - 16)) return length;
#endif
  while (length - i >= 8 && widen8(bytes + i, out + i)) i += 8;
  for (; i < length && static_cast<signed char>(bytes[i]) >= 0; ++i) out[i] = char16_t(bytes[i]);
  return i;
}

std::int32_t decodeTail(const char* bytes, std::size_t length, char16_t* out) {
  std::int32_t units = 0;
  UErrorCode status = U_ZERO_ERROR;
  const auto count = static_cast<std::int32_t>(length);
  u_strFromUTF8WithSub(out, count, &units, bytes, count, static_cast<UChar32>(kReplacement),
                       nullptr, &status);
  if (U_FAILURE(status)) Converter::throwOutOfMemory();
  return units;
}

// Writes what follows the first `i` units, which were written as a byte each.
[[gnu::noinline]] std::size_t encodeFrom(std::int32_t i, const char16_t* units, std::int32_t length,
                                         char* out) noexcept {
  auto* const bytes = reinterpret_cast<std::uint8_t*>(out);
  auto written = static_cast<std::size_t>(i);
  while (i < length) U8_APPEND_UNSAFE(bytes, written, nextCodePoint(units, length, i));
  return written;
}

}  // namespace

std::size_t Converter::utf8Length(const icu::UnicodeString& text) noexcept {
  const char16_t* units = text.getBuffer();
  const std::int32_t length = text.length();
  std::int32_t i = countAsciiUnits(units, length);
  auto bytes = static_cast<std::size_t>(i);
  while (i < length) {
    const char32_t c = nextCodePoint(units, length, i);
    bytes += static_cast<std::size_t>(U8_LENGTH(c));
  }
  return bytes;
}

std::size_t Converter::writeUTF8(const icu::UnicodeString& text, char* out) noexcept {
  const char16_t* units = text.getBuffer();
  const std::int32_t length = text.length();
  const std::int32_t plain = narrowAsciiUnits(units, length, out);
  if (plain == length) [[likely]]
    return static_cast<std::size_t>(length);
  return encodeFrom(plain, units, length, out);
}

std::string Converter::toUTF8(const icu::UnicodeString& text) {
  std::string bytes(utf8Length(checked(text)), '\0');
  writeUTF8(text, bytes.data());
  return bytes;
}

icu::UnicodeString Converter::fromUTF8(const char* bytes, std::size_t length) {
  icu::UnicodeString text;
  assignUTF8(text, bytes, length);
  return text;
}

void Converter::assignUTF8(icu::UnicodeString& text, const char* bytes, std::size_t length) {
  // Also makes a bogus text valid.
  text.remove();
  if (length == 0) return;
  if (bytes == nullptr) throwNullBytes(kFile);
  if (length > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
    throwOutOfMemory();
  }
  // No byte becomes more than one unit, so the result fits and is written in place.
  char16_t* out = text.getBuffer(static_cast<std::int32_t>(length));
  if (out == nullptr) throwOutOfMemory();
  const std::size_t plain = widenAscii(bytes, length, out);
  auto units = static_cast<std::int32_t>(plain);
  if (plain < length) units += decodeTail(bytes + plain, length - plain, out + plain);
  text.releaseBuffer(units);
}

void Converter::throwOutOfMemory() {
  Message message(u"TQ_ERR_OUT_OF_MEMORY", u"");
  message.setFileName(kFile);
  message.setLineNumber(__LINE__);
  message.addArgument(u"Converter::convert()");
  throw NLSException(message);
}

}  // namespace tq::oss
