#include "infra/util/kruBase64.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <utility>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace tq::util {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::uint32_t byteAt(const char* bytes, std::size_t i) noexcept {
  return static_cast<unsigned char>(bytes[i]);
}

// The two digits of each twelve bits, so that three bytes take two looks and not four.
constexpr auto kPairs = [] {
  std::array<std::array<char, 2>, 4096> pairs{};
  for (std::size_t i = 0; i < pairs.size(); ++i)
    pairs[i] = {kAlphabet[i >> 6], kAlphabet[i & 0x3F]};
  return pairs;
}();

template <typename Unit>
void putPair(std::uint32_t bits, Unit* out) noexcept {
  const std::array<char, 2>& pair = kPairs[bits & 0xFFF];
  out[0] = static_cast<Unit>(pair[0]);
  out[1] = static_cast<Unit>(pair[1]);
}

#ifdef __SSE2__

constexpr std::size_t kBlock = 12;

// The 32 bits that begin at the bytes, the first byte on top.
std::uint32_t wordAt(const char* bytes) noexcept {
  std::uint32_t word;
  std::memcpy(&word, bytes, sizeof word);
  return __builtin_bswap32(word);
}

// Twelve bytes as four groups of 24 bits, whose four digits' values then fill a byte each. The last
// group is read with the byte in front of it, so that nothing behind the twelve is touched.
__m128i digitValues(const char* bytes) noexcept {
  const __m128i groups = _mm_set_epi32(
      static_cast<int>(wordAt(bytes + 8) & 0xFFFFFF), static_cast<int>(wordAt(bytes + 6) >> 8),
      static_cast<int>(wordAt(bytes + 3) >> 8), static_cast<int>(wordAt(bytes) >> 8));
  const __m128i first = _mm_srli_epi32(groups, 18);
  const __m128i second = _mm_and_si128(_mm_srli_epi32(groups, 4), _mm_set1_epi32(0x3F00));
  const __m128i third = _mm_and_si128(_mm_slli_epi32(groups, 10), _mm_set1_epi32(0x3F0000));
  const __m128i fourth = _mm_and_si128(_mm_slli_epi32(groups, 24), _mm_set1_epi32(0x3F000000));
  return _mm_or_si128(_mm_or_si128(first, second), _mm_or_si128(third, fourth));
}

// `sum` grows by `step` where the digit's value is above `limit`.
__m128i stepped(__m128i sum, __m128i values, char limit, char step) noexcept {
  const __m128i above = _mm_cmpgt_epi8(values, _mm_set1_epi8(limit));
  return _mm_add_epi8(sum, _mm_and_si128(above, _mm_set1_epi8(step)));
}

// The alphabet's runs: from each to the next the distance between value and character changes.
__m128i digitsOf(__m128i values) noexcept {
  __m128i digits = _mm_add_epi8(values, _mm_set1_epi8('A'));
  digits = stepped(digits, values, 25, 'a' - ('A' + 26));
  digits = stepped(digits, values, 51, '0' - ('z' + 1));
  digits = stepped(digits, values, 61, '+' - ('9' + 1));
  return stepped(digits, values, 62, '/' - ('+' + 1));
}

void encodeBlock(const char* bytes, char* out) noexcept {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), digitsOf(digitValues(bytes)));
}

void encodeBlock(const char* bytes, char16_t* out) noexcept {
  const __m128i digits = digitsOf(digitValues(bytes));
  const __m128i zero = _mm_setzero_si128();
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(digits, zero));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 8), _mm_unpackhi_epi8(digits, zero));
}

#endif

template <typename Unit>
std::size_t encodeUnits(const char* bytes, std::size_t length, Unit* out) noexcept {
  Unit* const start = out;
  std::size_t i = 0;
#ifdef __SSE2__
  for (; length - i >= kBlock; i += kBlock, out += 16) encodeBlock(bytes + i, out);
#endif
  for (; length - i >= 3; i += 3, out += 4) {
    const std::uint32_t group =
        (byteAt(bytes, i) << 16) | (byteAt(bytes, i + 1) << 8) | byteAt(bytes, i + 2);
    putPair(group >> 12, out);
    putPair(group, out + 2);
  }
  const std::size_t rest = length - i;
  if (rest != 0) {
    const std::uint32_t group =
        (byteAt(bytes, i) << 16) | (rest == 2 ? byteAt(bytes, i + 1) << 8 : 0U);
    putPair(group >> 12, out);
    putPair(group, out + 2);
    if (rest == 1) out[2] = static_cast<Unit>('=');
    out[3] = static_cast<Unit>('=');
    out += 4;
  }
  return static_cast<std::size_t>(out - start);
}

int digitValue(std::uint32_t c) noexcept {
  if (c >= 'A' && c <= 'Z') return static_cast<int>(c - 'A');
  if (c >= 'a' && c <= 'z') return static_cast<int>(c - 'a') + 26;
  if (c >= '0' && c <= '9') return static_cast<int>(c - '0') + 52;
  if (c == '+') return 62;
  return c == '/' ? 63 : -1;
}

template <typename Unit>
std::size_t paddingOf(const Unit* text, std::size_t length) noexcept {
  if (length == 0 || text[length - 1] != static_cast<Unit>('=')) return 0;
  return text[length - 2] == static_cast<Unit>('=') ? 2 : 1;
}

template <typename Unit>
std::uint32_t unitValue(Unit unit) noexcept {
  return static_cast<std::uint32_t>(static_cast<std::make_unsigned_t<Unit>>(unit));
}

template <>
std::uint32_t unitValue(char16_t unit) noexcept {
  return unit;
}

template <typename Unit>
bool decodeUnits(const Unit* text, std::size_t length, std::string& out) {
  if (length % 4 != 0) return false;
  const std::size_t padding = paddingOf(text, length);
  std::string bytes;
  bytes.reserve(length / 4 * 3);
  std::uint32_t bits = 0;
  unsigned int held = 0;
  for (std::size_t i = 0; i < length - padding; ++i) {
    const int value = digitValue(unitValue(text[i]));
    if (value < 0) return false;
    bits = ((bits << 6) | static_cast<std::uint32_t>(value)) & 0xFFFF;
    held += 6;
    if (held < 8) continue;
    held -= 8;
    bytes.push_back(static_cast<char>((bits >> held) & 0xFF));
  }
  if ((bits & ((1U << held) - 1)) != 0) return false;
  out = std::move(bytes);
  return true;
}

}  // namespace

std::size_t Base64::encode(const char* bytes, std::size_t length, char* out) noexcept {
  return encodeUnits(bytes, length, out);
}

std::size_t Base64::encode(const char* bytes, std::size_t length, char16_t* out) noexcept {
  return encodeUnits(bytes, length, out);
}

bool Base64::decode(const char* text, std::size_t length, std::string& out) {
  return decodeUnits(text, length, out);
}

bool Base64::decode(const icu::UnicodeString& text, std::string& out) {
  return decodeUnits(text.getBuffer(), static_cast<std::size_t>(text.length()), out);
}

}  // namespace tq::util
