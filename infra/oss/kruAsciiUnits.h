#pragma once

#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace tq::oss {

// Each step writes this many units as bytes, if all of them are ASCII; otherwise it says so and has
// written nothing.

struct PlainSteps {
  static bool narrowEight(const char16_t* units, char* out) noexcept {
    if (((load(units) | load(units + 4)) & kBeyondAscii) != 0) return false;
    for (int i = 0; i < 8; ++i) out[i] = static_cast<char>(units[i]);
    return true;
  }
  static bool narrowFour(const char16_t* units, char* out) noexcept {
    if ((load(units) & kBeyondAscii) != 0) return false;
    for (int i = 0; i < 4; ++i) out[i] = static_cast<char>(units[i]);
    return true;
  }
  static bool eightAreAscii(const char16_t* units) noexcept {
    return ((load(units) | load(units + 4)) & kBeyondAscii) == 0;
  }

 private:
  // The bits that a unit has only beyond ASCII, in a word of four units.
  static constexpr std::uint64_t kBeyondAscii = 0xFF80FF80FF80FF80U;

  static std::uint64_t load(const char16_t* units) noexcept {
    std::uint64_t word;
    std::memcpy(&word, units, sizeof word);
    return word;
  }
};

#ifdef __SSE2__

struct VectorSteps {
  static bool narrowEight(const char16_t* units, char* out) noexcept {
    const __m128i eight = _mm_loadu_si128(reinterpret_cast<const __m128i*>(units));
    if (!areAscii(eight)) return false;
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(eight, eight));
    return true;
  }
  static bool narrowFour(const char16_t* units, char* out) noexcept {
    const __m128i four = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(units));
    if (!areAscii(four)) return false;
    const int bytes = _mm_cvtsi128_si32(_mm_packus_epi16(four, four));
    std::memcpy(out, &bytes, sizeof bytes);
    return true;
  }
  static bool eightAreAscii(const char16_t* units) noexcept {
    return areAscii(_mm_loadu_si128(reinterpret_cast<const __m128i*>(units)));
  }

 private:
  static bool areAscii(__m128i units) noexcept {
    const __m128i beyond = _mm_and_si128(units, _mm_set1_epi16(static_cast<short>(0xFF80)));
    return _mm_movemask_epi8(_mm_cmpeq_epi8(beyond, _mm_setzero_si128())) == 0xFFFF;
  }
};

using AsciiSteps = VectorSteps;

#else

using AsciiSteps = PlainSteps;

#endif

/// How many units at the front are ASCII.
template <typename Steps = AsciiSteps>
std::int32_t countAsciiUnits(const char16_t* units, std::int32_t length) noexcept {
  std::int32_t i = 0;
  while (length - i >= 8 && Steps::eightAreAscii(units + i)) i += 8;
  while (i < length && units[i] < 0x80) ++i;
  return i;
}

/// Writes the ASCII units at the front as bytes and returns how many they are. Writes no further
/// than one byte a unit: whoever measured the text has room for no more.
template <typename Steps = AsciiSteps>
[[gnu::always_inline]] inline std::int32_t narrowAsciiUnits(const char16_t* units,
                                                            std::int32_t length,
                                                            char* out) noexcept {
  std::int32_t i = 0;
  while (length - i >= 8 && Steps::narrowEight(units + i, out + i)) i += 8;
  // A rest that is shorter than a step is taken in one that ends with it.
  const std::int32_t rest = length - i;
  if (rest > 0 && rest < 8) {
    if (length >= 8 && Steps::narrowEight(units + length - 8, out + length - 8)) return length;
    if (rest >= 4 && Steps::narrowFour(units + i, out + i)) {
      i += 4;
      if (Steps::narrowFour(units + length - 4, out + length - 4)) return length;
    }
  }
  for (; i < length && units[i] < 0x80; ++i) out[i] = static_cast<char>(units[i]);
  return i;
}

}  // namespace tq::oss
