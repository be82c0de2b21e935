#pragma once

#include "infra/oss/kruBaseException.h"
#include "infra/oss/kruExport.h"

namespace tq::oss {

/// A text could not be converted, or a property that must be there is missing or malformed. Calls
/// on one object must not overlap; different objects are independent.
class KRU_EXPORT NLSException : public BaseException {
 public:
  NLSException();
  explicit NLSException(const MessageList& messages);
  explicit NLSException(const Message& message);
  NLSException(const NLSException& other);
  NLSException& operator=(const NLSException& other);
  ~NLSException() override;

  /// "oss::NLSException".
  const char* name() const noexcept override;
};

}  // namespace tq::oss
