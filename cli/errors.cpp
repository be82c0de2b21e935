#include "cli/errors.h"

#include <fmt/format.h>

#include <iterator>

#include "cli/text.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruBaseException.h"
#include "infra/oss/kruMessageList.h"

namespace corvane {

namespace {

using tq::comm::StaticDefs;

// What the system said about a failed connection travels as the second message.
std::string causeOf(const tq::oss::MessageList& messages) {
  if (messages.size() < 2) return {};
  const auto second = std::next(messages.begin());
  const std::string text = printable(second->getMessageText());
  return text.empty() ? text : ": " + text;
}

bool isNotUnderstood(const icu::UnicodeString& id) {
  return id == StaticDefs::ERR_CLIENT_RESP_PARSING || id == StaticDefs::ERR_SERVER_PROTOCOL;
}

icu::UnicodeString firstId(const tq::oss::BaseException& failure) {
  const auto& messages = failure.getMessageList();
  return messages.empty() ? icu::UnicodeString() : messages.front().getMessageId();
}

// Before the first answer the port may be the wrong one.
std::string remedy(const Settings& settings, bool answered) {
  if (answered) return "; try again";
  return fmt::format(
      "; check that --port is the server's port for --protocol {}, or use the other protocol",
      protocolName(settings.protocol));
}

std::string describeInternal(const tq::oss::MessageList& messages, const Settings& settings) {
  const std::string reason = printable(messages.front().getMessageText());
  if (!reason.empty()) {
    return fmt::format("the request to {} failed: {}", address(settings), reason);
  }
  return fmt::format("the connection to {} broke while the request was sent{}; try again",
                     address(settings), causeOf(messages));
}

std::string describeCommunication(const icu::UnicodeString& id,
                                  const tq::oss::MessageList& messages, const Settings& settings,
                                  bool answered) {
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
    return fmt::format("{} closed the connection before its answer was complete{}", where,
                       remedy(settings, answered));
  }
  if (id == StaticDefs::ERR_SERVER_COMM_SEND) {
    return fmt::format("the connection to {} broke while the request was sent{}; try again", where,
                       causeOf(messages));
  }
  return id == StaticDefs::ERR_CLIENT_INTERNAL ? describeInternal(messages, settings) : "";
}

std::string describeRefusal(const icu::UnicodeString& id, const icu::UnicodeString& text,
                            const Settings& settings, bool answered) {
  if (isNotUnderstood(id)) {
    return fmt::format("{} gave an answer that is not understood{}", address(settings),
                       remedy(settings, answered));
  }
  if (id == StaticDefs::ERR_SERVER_INVALID_AUTH) {
    return fmt::format("{} {}", address(settings),
                       settings.authorization.isEmpty()
                           ? "wants to know who asks; give --credentials, or CORVANE_CREDENTIALS"
                           : "refused the credentials");
  }
  const std::string said = text.isEmpty() ? "the request failed" : printable(text);
  return fmt::format("the server at {} says: {} ({})", address(settings), said, printable(id));
}

}  // namespace

std::string failureId(const tq::oss::BaseException& failure) { return toUtf8(firstId(failure)); }

bool isVerdict(const tq::oss::BaseException& failure, tq::comm::RequestOutcome outcome) {
  return outcome == tq::comm::RequestOutcome::Rejected && !isNotUnderstood(firstId(failure));
}

bool isUnreadable(const icu::UnicodeString& id) { return id == u"ZVK0001E"; }

bool isLeftOut(const icu::UnicodeString& id) { return id == u"ZVK0015E"; }

bool leavesDocumentsOut(const tq::oss::BaseException& failure) {
  return isLeftOut(firstId(failure));
}

bool suggestsOtherProtocol(const tq::oss::BaseException& failure) {
  const icu::UnicodeString id = firstId(failure);
  return isNotUnderstood(id) || isUnreadable(id) || id == StaticDefs::ERR_SERVER_COMM_RECV;
}

std::string describeFailure(const tq::oss::BaseException& failure, const Settings& settings,
                            bool answered) {
  const auto& messages = failure.getMessageList();
  if (messages.empty()) {
    return fmt::format("the request to {} failed for an unknown reason", address(settings));
  }
  const auto& first = messages.front();
  const icu::UnicodeString& id = first.getMessageId();
  std::string line = describeCommunication(id, messages, settings, answered);
  return line.empty() ? describeRefusal(id, first.getMessageText(), settings, answered) : line;
}

}  // namespace corvane
