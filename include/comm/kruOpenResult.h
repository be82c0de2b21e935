#pragma once

#include <unicode/unistr.h>

#include "comm/kruGenRespRecord.h"

namespace tq::comm {

/// The outcome of opening a collection: a port number. One object serves one thread at a time;
/// different objects need no locking.
class KRU_EXPORT OpenResult : public GenRespRecord {
 public:
  explicit OpenResult(bool withProperties);
  /// Both copy text and port; the copy has no property set, an assigned result keeps its own.
  OpenResult(const OpenResult& other);
  OpenResult& operator=(const OpenResult& other);
  ~OpenResult() override;

  /// Takes the port from the property "port", read as atoi reads: what follows the leading digits
  /// is ignored, and a text without any gives 0. A number that no int holds gives the nearest.
  /// Throws tq::oss::NLSException naming the property when it is missing.
  void reset() override;

  int getPort() const { return port_; }
  /// Empty; kept for the caller.
  const icu::UnicodeString& getText() const { return text_; }

 private:
  icu::UnicodeString text_;
  int port_ = 0;
};

}  // namespace tq::comm
