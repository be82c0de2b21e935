#include "infra/util/kruBase64.h"

#include <array>
#include <cstdint>
#include <utility>

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

template <typename Unit>
std::size_t encodeUnits(const char* bytes, std::size_t length, Unit* out) noexcept {
  Unit* const start = out;
  std::size_t i = 0;
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
