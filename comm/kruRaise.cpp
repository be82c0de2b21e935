#include "comm/kruRaise.h"

#include "comm/kruRESTException.h"
#include "infra/oss/kruMessageList.h"

namespace tq::comm {

namespace {

tq::oss::Message messageOf(const icu::UnicodeString& id, const char* file, unsigned long line) {
  tq::oss::Message message;
  message.setMessageId(id);
  message.setFileName(file);
  message.setLineNumber(line);
  return message;
}

[[noreturn]] void throwWith(const tq::oss::Message& message,
                            const tq::oss::MessageList& cause = tq::oss::MessageList()) {
  tq::oss::MessageList messages;
  messages.add(message);
  if (!cause.empty()) messages.add(cause.front());
  throw RESTException(messages);
}

}  // namespace

void raise(const icu::UnicodeString& id, const char* file, unsigned long line) {
  throwWith(messageOf(id, file, line));
}

void raise(const icu::UnicodeString& id, const char* file, unsigned long line,
           const icu::UnicodeString& argument) {
  raise(id, file, line, argument, tq::oss::MessageList());
}

void raise(const icu::UnicodeString& id, const char* file, unsigned long line,
           const icu::UnicodeString& argument, const tq::oss::MessageList& cause) {
  tq::oss::Message message = messageOf(id, file, line);
  message.addArgument(argument);
  throwWith(message, cause);
}

void raise(const icu::UnicodeString& id, const char* file, unsigned long line,
           const icu::UnicodeString& host, unsigned int port) {
  raise(id, file, line, host, port, tq::oss::MessageList());
}

void raise(const icu::UnicodeString& id, const char* file, unsigned long line,
           const icu::UnicodeString& host, unsigned int port, const tq::oss::MessageList& cause) {
  tq::oss::Message message = messageOf(id, file, line);
  message.addArgument(host);
  message.addArgument(static_cast<unsigned long>(port));
  throwWith(message, cause);
}

void rethrow(const tq::oss::MessageList& messages) { throw RESTException(messages); }

}  // namespace tq::comm
