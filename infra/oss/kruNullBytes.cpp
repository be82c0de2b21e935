#include "infra/oss/kruNullBytes.h"

#include "infra/oss/kruMessage.h"
#include "infra/oss/kruNLSException.h"

namespace tq::oss {

void throwNullBytes(const char* file, unsigned long line) {
  Message message(u"TQ_ERR_NULL_BYTES",
                  u"the bytes of a text are null although they have a length");
  message.setFileName(file);
  message.setLineNumber(line);
  throw NLSException(message);
}

}  // namespace tq::oss
