#include "comm/kruRaise.h"

#include <utility>

#include "comm/kruRESTException.h"

namespace tq::comm {

Details::Details(const char16_t* reason) { message_.setMessageText(reason); }

Details& Details::argument(const icu::UnicodeString& argument) {
  message_.addArgument(argument);
  return *this;
}

Details& Details::server(const icu::UnicodeString& host, unsigned int port) {
  message_.addArgument(host);
  message_.addArgument(static_cast<unsigned long>(port));
  return *this;
}

Details& Details::cause(const tq::oss::MessageList& messages) {
  if (!messages.empty()) cause_.add(messages.front());
  return *this;
}

tq::oss::Message Raiser::message(const icu::UnicodeString& id, Details details,
                                 unsigned long line) const {
  details.message_.setMessageId(id);
  details.message_.setFileName(file_);
  details.message_.setLineNumber(file_ != nullptr ? line : 0);
  return std::move(details.message_);
}

void Raiser::operator()(const icu::UnicodeString& id, Details details, unsigned long line) const {
  const tq::oss::MessageList cause = std::move(details.cause_);
  tq::oss::MessageList messages;
  messages.add(message(id, std::move(details), line));
  messages.join(cause);
  throw RESTException(messages);
}

void rethrow(const tq::oss::MessageList& messages) { throw RESTException(messages); }

}  // namespace tq::comm
