#include "infra/oss/kruNLSException.h"

namespace tq::oss {

NLSException::NLSException() = default;
NLSException::NLSException(const MessageList& messages) : BaseException(messages) {}
NLSException::NLSException(const Message& message) { getMessageList().add(message); }
NLSException::NLSException(const NLSException& other) = default;
NLSException& NLSException::operator=(const NLSException& other) = default;
NLSException::~NLSException() = default;

const char* NLSException::name() const noexcept { return "oss::NLSException"; }

}  // namespace tq::oss
