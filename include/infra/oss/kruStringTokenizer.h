#pragma once

#include <unicode/unistr.h>

#include "infra/oss/kruExport.h"

namespace tq::oss {

/// Splits a text at delimiters. Each UTF-16 unit of `delimiters` is one; several in a row separate
/// once, and those at either end separate nothing, so that no token is empty. Holds its own copy of
/// both texts. A token for which there is no memory, like a bogus text to split, throws
/// `NLSException` "TQ_ERR_OUT_OF_MEMORY". Calls on one object must not overlap.
class KRU_EXPORT StringTokenizer {
 public:
  StringTokenizer(const icu::UnicodeString& text, const icu::UnicodeString& delimiters);

  bool hasMore() const noexcept { return position_ < text_.length(); }
  /// The next token; empty when there is none.
  icu::UnicodeString next();

 private:
  bool isDelimiter(char16_t unit) const { return delimiters_.indexOf(unit) >= 0; }
  void skipDelimiters();

  icu::UnicodeString text_;
  icu::UnicodeString delimiters_;
  /// At the start of the next token, or at the end of the text.
  int position_ = 0;
};

}  // namespace tq::oss
