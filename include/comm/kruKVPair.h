#pragma once

#include <unicode/unistr.h>

#include "infra/oss/kruExport.h"

namespace tq::comm {

/// One metadata pair of a document. A plain value; different objects need no locking.
struct KRU_EXPORT KVPair {
  KVPair(const icu::UnicodeString& pairKey, const icu::UnicodeString& pairValue,
         unsigned int first = 0, unsigned int second = 0)
      : key(pairKey), value(pairValue), firstAttribute(first), secondAttribute(second) {}

  icu::UnicodeString key;
  icu::UnicodeString value;
  /// Copied as it is; never sent.
  unsigned int firstAttribute;
  /// Sent behind the value when it is not 0. No bit of the encoding announces it, so a server that
  /// has not agreed on it cannot tell where the next pair begins: leave it 0 unless it has.
  unsigned int secondAttribute;
};

}  // namespace tq::comm
