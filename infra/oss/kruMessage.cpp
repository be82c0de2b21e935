#include "infra/oss/kruMessage.h"

#include <cstring>

#include "infra/oss/kruConverter.h"

namespace tq::oss {

namespace {
void appendText(icu::UnicodeString& out, const char* text) {
  if (text != nullptr) out.append(Converter::fromUTF8(text, std::strlen(text)));
}
}  // namespace

Message::Message() = default;

Message::Message(const icu::UnicodeString& id, const icu::UnicodeString& text, Level level)
    : id_(id), text_(text), level_(level) {}

Message::Message(const Message& other) = default;
Message::Message(Message&& other) noexcept = default;
Message& Message::operator=(const Message& other) = default;
Message& Message::operator=(Message&& other) noexcept = default;
Message::~Message() = default;

void Message::addArgument(const icu::UnicodeString& argument) { arguments_.push_back(argument); }

void Message::addArgument(const char* name, const char* value) {
  icu::UnicodeString argument;
  appendText(argument, name);
  argument.append(u'=');
  appendText(argument, value);
  arguments_.push_back(argument);
}

void Message::addArgument(unsigned long number) {
  const std::string digits = std::to_string(number);
  arguments_.push_back(Converter::fromUTF8(digits.data(), digits.size()));
}

void Message::setFileName(const char* name) {
  if (name == nullptr) {
    fileName_.reset();
  } else {
    fileName_ = std::string(name);
  }
}

}  // namespace tq::oss
