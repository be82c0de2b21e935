#include "infra/oss/kruSocketException.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "infra/oss/kruConverter.h"

namespace tq::oss {

namespace {

// The plain strerror may share its buffer with other threads of the host.
icu::UnicodeString systemText(int errorNumber) {
  std::array<char, 256> buffer{};
  const char* text = ::strerror_r(errorNumber, buffer.data(), buffer.size());
  return Converter::fromUTF8(text, std::strlen(text));
}

Message describe(const icu::UnicodeString& what, int errorNumber, const icu::UnicodeString& text) {
  Message message(u"TQ_ERR_SOCKET", text);
  message.setFileName("kruSocket");
  message.addArgument(what);
  const std::string number = std::to_string(errorNumber);
  message.addArgument(Converter::fromUTF8(number.data(), number.size()));
  return message;
}

}  // namespace

SocketException::SocketException() = default;
SocketException::SocketException(const MessageList& messages) : BaseException(messages) {}
SocketException::SocketException(const icu::UnicodeString& what, int errorNumber)
    : SocketException(what, errorNumber, systemText(errorNumber)) {}
SocketException::SocketException(const icu::UnicodeString& what, int errorNumber,
                                 const icu::UnicodeString& text)
    : errorNumber_(errorNumber) {
  getMessageList().add(describe(what, errorNumber, text));
}
SocketException::SocketException(const SocketException& other) = default;
SocketException& SocketException::operator=(const SocketException& other) = default;
SocketException::~SocketException() = default;

const char* SocketException::name() const noexcept { return "oss::SocketException"; }

SocketTimeoutException::SocketTimeoutException(const icu::UnicodeString& what)
    : SocketException(what, ETIMEDOUT) {}
SocketTimeoutException::SocketTimeoutException(const SocketTimeoutException& other) = default;
SocketTimeoutException& SocketTimeoutException::operator=(const SocketTimeoutException& other) =
    default;
SocketTimeoutException::~SocketTimeoutException() = default;

const char* SocketTimeoutException::name() const noexcept { return "oss::SocketTimeoutException"; }

SocketCancelledException::SocketCancelledException(const icu::UnicodeString& what)
    : SocketException(what, ECANCELED) {}
SocketCancelledException::SocketCancelledException(const SocketCancelledException& other) = default;
SocketCancelledException& SocketCancelledException::operator=(
    const SocketCancelledException& other) = default;
SocketCancelledException::~SocketCancelledException() = default;

const char* SocketCancelledException::name() const noexcept {
  return "oss::SocketCancelledException";
}

}  // namespace tq::oss
