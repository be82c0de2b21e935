#include "cli/outcomes.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "cli/request.h"
#include "cli/text.h"
#include "comm/kruClientResponse.h"
#include "comm/kruParseResult.h"

namespace corvane {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;

std::size_t takeResults(Session& session, ClientRequest& request,
                        const std::function<void(const tq::comm::ParseResult&)>& take) {
  ClientResponse response;
  exchange(session, request, response);
  std::size_t count = 0;
  auto* results = &response.getParseResponse();
  for (;;) {
    for (; results->hasMore(); ++count) take(results->getNext());
    if (session.client.isEndOfStream()) return count;
    results = &response.getParseResponse(session.client);
  }
}

void takeOutcomes(Session& session, const icu::UnicodeString& collection,
                  const icu::UnicodeString& client,
                  const std::function<void(const tq::comm::ParseResult&)>& take) {
  ClientRequest request = collectionRequest(ClientRequest::PARSE_RESULT, collection);
  if (!client.isEmpty()) request.getReqProperties().putProperty(u"client", client);
  takeResults(session, request, take);
}

std::string nameOf(const tq::comm::ParseResult& result) {
  const auto key = keyOfDocId(result.getDocument());
  return key && fromUtf8(*key) ? *key : toUtf8(result.getDocument());
}

bool isRefusal(const tq::comm::ParseResult& result) {
  if (!result.hasMessage()) return false;
  const auto level = result.getMessage().getLevel();
  return level == tq::oss::Message::LEVEL_ERROR || level == tq::oss::Message::LEVEL_SEVERE;
}

std::string reasonOf(const tq::oss::Message& message) {
  return fmt::format("{} ({})", printable(message.getMessageText()),
                     printable(message.getMessageId()));
}

void report(Session& session, const Refusal& refusal) {
  if (session.printer.json()) {
    nlohmann::ordered_json object = {{"refused", refusal.key}};
    if (refusal.line != 0) object["line"] = refusal.line;
    object["reason"] = refusal.reason;
    session.printer.object(object);
    return;
  }
  std::string which = refusal.line == 0 ? "" : fmt::format("line {}", refusal.line);
  if (!refusal.key.empty()) {
    which += fmt::format("{}key \"{}\"", which.empty() ? "" : ", ", printable(refusal.key));
  }
  session.printer.error(fmt::format("{}: {}", which, printable(refusal.reason)));
}

}  // namespace corvane
