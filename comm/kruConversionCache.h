#pragma once

#include <unicode/unistr.h>

#include <cstdint>

#include "infra/oss/kruUTF8String.h"

namespace tq::comm {

/// The UTF-8 forms of the texts that requests and records use all the time. Nothing is removed from
/// it. Looking up takes no lock and may run while another thread adds; adding is guarded and meant
/// for start-up.
class ConversionCache {
 public:
  ConversionCache() = delete;

  /// The cached form or null; valid for the life of the process. Takes no memory, so that it cannot
  /// fail where nothing may.
  static const tq::oss::UTF8String* find(const icu::UnicodeString& text) noexcept;

  /// Does nothing when the text is there already. Throws when there is no memory for the text or
  /// its UTF-8 form; the cache is as it was then.
  static void add(const icu::UnicodeString& text);

  /// The length of the text in UTF-8 bytes, cached or not.
  static std::uint64_t lengthOf(const icu::UnicodeString& text) noexcept;
};

}  // namespace tq::comm
