#include "infra/oss/kruBaseException.h"

namespace tq::oss {

BaseException::BaseException() = default;
BaseException::BaseException(const MessageList& messages) : messages_(messages) {}
BaseException::BaseException(const BaseException& other) = default;
BaseException& BaseException::operator=(const BaseException& other) = default;
BaseException::~BaseException() = default;

const char* BaseException::what() const noexcept { return name(); }
const char* BaseException::name() const noexcept { return "oss::BaseException"; }

}  // namespace tq::oss
