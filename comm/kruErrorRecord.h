#pragma once

#include "infra/oss/kruBaseException.h"
#include "infra/oss/kruMessage.h"

namespace tq::comm {

/// Whether a record could not be decoded because it has no id or no text. Such an error record
/// leaves the general message in place; any other failure, above all that of memory, says nothing
/// of the server and has to be told as what it is.
inline bool lacksProperty(const tq::oss::BaseException& e) {
  return e.getMessageList().front().getMessageId() == u"TQ_ERR_PROPERTY_MISSING";
}

}  // namespace tq::comm
