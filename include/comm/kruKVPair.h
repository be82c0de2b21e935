#pragma once

#include <unicode/unistr.h>

#include "infra/oss/kruConverter.h"
#include "infra/oss/kruExport.h"

namespace tq::comm {

/// One metadata pair of a document. A plain value, whose copies have texts of their own even where
/// its own only refer to units of the caller's; different objects are independent. A key or
/// value for which ICU got no memory (a bogus text, which reads as empty) throws
/// tq::oss::NLSException "TQ_ERR_OUT_OF_MEMORY": here, when a request takes the pair, and when it
/// is encoded.
struct KRU_EXPORT KVPair {
  KVPair(const icu::UnicodeString& pairKey, const icu::UnicodeString& pairValue,
         unsigned int first = 0, unsigned int second = 0)
      : key(pairKey), value(pairValue), firstAttribute(first), secondAttribute(second) {
    tq::oss::Converter::checked(key);
    tq::oss::Converter::checked(value);
  }
  // There is no move: a text that only refers to units of its caller's would still do so.
  KVPair(const KVPair&) = default;
  KVPair& operator=(const KVPair&) = default;

  icu::UnicodeString key;
  icu::UnicodeString value;
  /// Copied as it is; never sent.
  unsigned int firstAttribute;
  /// Sent after the value when it is not 0. No bit of the encoding announces it, so a server that
  /// has not agreed on it cannot tell where the next pair begins: leave it 0 unless it has.
  unsigned int secondAttribute;
};

}  // namespace tq::comm
