#pragma once

#include <unicode/unistr.h>

#include <cstddef>

#include "infra/oss/kruExport.h"

namespace tq::oss {

/// Numbers as text, the same in every locale. Safe from any thread.
class KRU_EXPORT Formatter {
 public:
  Formatter() = delete;

  /// The decimal number at the start of the text, with an optional sign, fraction (after a full
  /// stop) and exponent; blanks before it are skipped and what follows it is ignored. 0.0 when the
  /// text starts with no number. The result is always finite: too large a number gives the largest
  /// double, one too close to zero gives zero.
  static double stringToDouble(const icu::UnicodeString& text);
  /// The same for a text in UTF-8.
  static double stringToDouble(const char* text, std::size_t length);
};

}  // namespace tq::oss
