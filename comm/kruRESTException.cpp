#include "comm/kruRESTException.h"

#include "comm/kruFunctionIds.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruTrace.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::comm {

RESTException::RESTException() = default;
RESTException::RESTException(bool withProperties) : GenRespRecord(withProperties) {}
RESTException::RESTException(const tq::oss::MessageList& messages) : BaseException(messages) {}
RESTException::~RESTException() = default;

RESTException::RESTException(const RESTException& other)
    : BaseException(other), GenRespRecord(other.getProperties() != nullptr) {
  if (other.getProperties() != nullptr) *getProperties() = *other.getProperties();
}

RESTException& RESTException::operator=(const RESTException& other) {
  if (this == &other) return *this;
  BaseException::operator=(other);
  init(other.getProperties() != nullptr);
  if (other.getProperties() != nullptr) *getProperties() = *other.getProperties();
  return *this;
}

void RESTException::reset() {
  const tq::oss::TraceScope scope(trace::RESTExceptionReset);
  tq::oss::Message message;
  if (!parseMessage(message, true)) return;
  tq::oss::MessageList messages;
  messages.add(message);
  getMessageList() = messages;
}

}  // namespace tq::comm
