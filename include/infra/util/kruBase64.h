#pragma once

#include <unicode/unistr.h>

#include <cstddef>
#include <string>

#include "infra/oss/kruExport.h"

namespace tq::util {

/// Base64 with the standard alphabet ("+" and "/") and padding, without line breaks. Safe from any
/// thread.
class KRU_EXPORT Base64 {
 public:
  Base64() = delete;

  /// Units that encoding n bytes gives: 4 for each 3 bytes begun.
  static constexpr std::size_t encodeSize(std::size_t n) noexcept {
    return n / 3 * 4 + (n % 3 != 0 ? 4 : 0);
  }

  /// Writes `encodeSize(length)` units, without a terminating zero, and returns how many.
  static std::size_t encode(const char* bytes, std::size_t length, char* out) noexcept;
  static std::size_t encode(const char* bytes, std::size_t length, char16_t* out) noexcept;

  /// Strict: false for a character outside the alphabet, missing or misplaced padding, blanks, and
  /// for a last character whose unused bits are not zero. `out` is replaced on success and
  /// unchanged otherwise.
  static bool decode(const char* text, std::size_t length, std::string& out);
  static bool decode(const icu::UnicodeString& text, std::string& out);
};

}  // namespace tq::util
