#pragma once

#include <unicode/unistr.h>

#include "comm/kruGenRespRecord.h"

namespace tq::comm {

/// Where an opened collection is served: a port. Calls on one object must not overlap; different
/// objects are independent.
class KRU_EXPORT OpenResult : public GenRespRecord {
 public:
  explicit OpenResult(bool withProperties);
  /// Both copy text and port; the copy has no property set, an assigned result keeps its own.
  OpenResult(const OpenResult& other);
  OpenResult& operator=(const OpenResult& other);
  ~OpenResult() override;

  /// Reads the port from the property "port". Only its first digits count, as for atoi, so "80x" is
  /// 80 and "x" is 0; a number beyond an int becomes the nearest int. Throws tq::oss::NLSException
  /// naming the property when there is none.
  void reset() override;

  int getPort() const { return port_; }
  /// Always empty: callers know it, and nothing fills it.
  const icu::UnicodeString& getText() const { return text_; }

 private:
  icu::UnicodeString text_;
  int port_ = 0;
};

}  // namespace tq::comm
