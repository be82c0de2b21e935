#include "cli/errors.h"

#include <fmt/format.h>

#include <iterator>

#include "cli/text.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruBaseException.h"
#include "infra/oss/kruMessageList.h"

namespace corvane {

namespace {

using tq::comm::StaticDefs;

const char* protocolName(Protocol protocol) {
  return protocol == Protocol::http ? "http" : "binary";
}

// What the system said about a failed connection travels as the second message.
std::string causeOf(const tq::oss::MessageList& messages) {
  if (messages.size() < 2) return {};
  const auto second = std::next(messages.begin());
  const std::string text = printable(second->getMessageText());
  return text.empty() ? text : ": " + text;
}

std::string wrongProtocol(const Settings& settings, const char* what) {
  return fmt::format(
      "{} {}; check that --port is the server's port for --protocol {}, or use the other protocol",
      address(settings), what, protocolName(settings.protocol));
}

std::string describeCommunication(const icu::UnicodeString& id,
                                  const tq::oss::MessageList& messages, const Settings& settings) {
  const std::string where = address(settings);
  if (id == StaticDefs::ERR_CONNECT_SERVER) {
    return fmt::format(
        "cannot connect to {}{}; check that corvaned runs there and that --host and --port are "
        "right",
        where, causeOf(messages));
  }
  if (id == StaticDefs::ERR_SERVER_COMM_TIMEOUT) {
    return fmt::format("{} gave no answer within {} ms; try again or give a longer --timeout",
                       where, settings.timeOut);
  }
  if (id == StaticDefs::ERR_SERVER_COMM_RECV) {
    return wrongProtocol(settings, "closed the connection before its answer was complete");
  }
  if (id == StaticDefs::ERR_SERVER_COMM_SEND || id == StaticDefs::ERR_CLIENT_INTERNAL) {
    return fmt::format("the connection to {} broke while the request was sent{}; try again", where,
                       causeOf(messages));
  }
  return {};
}

std::string describeRefusal(const icu::UnicodeString& id, const icu::UnicodeString& text,
                            const Settings& settings) {
  if (id == StaticDefs::ERR_CLIENT_RESP_PARSING || id == StaticDefs::ERR_SERVER_PROTOCOL) {
    return wrongProtocol(settings, "gave an answer that is not understood");
  }
  if (id == StaticDefs::ERR_SERVER_INVALID_AUTH) {
    return fmt::format("{} refused the credentials", address(settings));
  }
  const std::string said = text.isEmpty() ? "the request failed" : printable(text);
  return fmt::format("the server at {} says: {} ({})", address(settings), said, printable(id));
}

}  // namespace

std::string failureId(const tq::oss::BaseException& failure) {
  const auto& messages = failure.getMessageList();
  return messages.empty() ? std::string() : toUtf8(messages.front().getMessageId());
}

std::string describeFailure(const tq::oss::BaseException& failure, const Settings& settings) {
  const auto& messages = failure.getMessageList();
  if (messages.empty()) {
    return fmt::format("the request to {} failed for an unknown reason", address(settings));
  }
  const auto& first = messages.front();
  const icu::UnicodeString& id = first.getMessageId();
  std::string line = describeCommunication(id, messages, settings);
  return line.empty() ? describeRefusal(id, first.getMessageText(), settings) : line;
}

}  // namespace corvane
