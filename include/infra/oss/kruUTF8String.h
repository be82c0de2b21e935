#pragma once

#include <unicode/unistr.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "infra/oss/kruExport.h"

namespace tq::oss {

/// A text as UTF-8 bytes, owned. Any bytes can be appended; bytes that are not UTF-8 become U+FFFD
/// when the text is converted. A bogus text throws `NLSException` "TQ_ERR_OUT_OF_MEMORY" instead of
/// being appended, null bytes with a length "TQ_ERR_NULL_BYTES". Calls on one object must not
/// overlap.
class KRU_EXPORT UTF8String {
 public:
  UTF8String();
  explicit UTF8String(const icu::UnicodeString& text);
  UTF8String(const char* bytes, std::size_t length);

  UTF8String& append(const char* bytes, std::size_t length);
  UTF8String& append(const icu::UnicodeString& text);
  void clear() noexcept { bytes_.clear(); }

  /// Zero-terminated; valid until the string is changed or destroyed.
  const char* c_str() const noexcept { return bytes_.c_str(); }
  const char* data() const noexcept { return bytes_.data(); }
  /// In bytes, without the terminating zero.
  std::size_t length() const noexcept { return bytes_.size(); }
  bool empty() const noexcept { return bytes_.empty(); }
  std::string_view view() const noexcept { return bytes_; }

  /// All bytes, zero bytes included.
  icu::UnicodeString toUnicodeString() const;

  friend bool operator==(const UTF8String& a, const UTF8String& b) { return a.bytes_ == b.bytes_; }

 private:
  std::string bytes_;
};

}  // namespace tq::oss
