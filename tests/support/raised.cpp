#include "tests/support/raised.h"

#include <ostream>

#include "comm/kruRESTException.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"

namespace tq::test {

namespace {

std::string utf8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

SeenMessage seen(const tq::oss::Message& message) {
  SeenMessage out{utf8(message.getMessageId())};
  if (message.getFileName() != nullptr) out.file = message.getFileName();
  out.line = message.getLineNumber();
  for (const auto& argument : message.getArguments()) out.arguments.push_back(utf8(argument));
  out.text = utf8(message.getMessageText());
  out.level = static_cast<int>(message.getLevel());
  return out;
}

}  // namespace

Raised raisedBy(const std::function<void()>& call) {
  Raised raised;
  try {
    call();
  } catch (const tq::comm::RESTException& error) {
    for (const auto& message : error.getMessageList()) raised.push_back(seen(message));
  }
  return raised;
}

std::ostream& operator<<(std::ostream& out, const SeenMessage& message) {
  out << message.id << " from " << message.file << ":" << message.line << " level " << message.level
      << " \"" << message.text << "\" (";
  for (const auto& argument : message.arguments) out << '"' << argument << "\" ";
  return out << ")";
}

}  // namespace tq::test
