#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "cli/commands.h"
#include "cli/facts.h"
#include "cli/outcomes.h"
#include "cli/pages.h"
#include "cli/request.h"
#include "cli/text.h"
#include "comm/kruParseResult.h"

namespace corvane {

namespace {

using tq::comm::ClientRequest;
using tq::comm::ParseResult;

constexpr std::string_view kMark = "mark";

bool isNumber(std::string_view fact) {
  constexpr std::array<std::string_view, 4> kNumbers{"documents", "pending", "bytes", "stopWords"};
  return std::find(kNumbers.begin(), kNumbers.end(), fact) != kNumbers.end();
}

std::string shown(std::string_view report, std::string_view fact, std::string_view value) {
  if (fact == "documents") return counted(numberIn(report, fact), "document");
  if (fact == "bytes") return counted(numberIn(report, fact), "byte");
  return fact == "pending" ? fmt::format("{} pending", value) : fmt::format("{} {}", fact, value);
}

// A collection that cannot be opened has an error in place of the facts.
void print(Session& session, const ParseResult& result) {
  const std::string name = toUtf8(result.getDocument());
  if (isRefusal(result)) {
    const std::string reason = reasonOf(result.getMessage());
    session.printer.result(fmt::format("{}: {}", printable(name), reason),
                           {{"collection", name}, {"error", reason}});
    return;
  }
  const std::string report = toUtf8(result.getMessage().getMessageText());
  std::string line = name + ":";
  nlohmann::ordered_json object = {{"collection", name}};
  for (const auto& [fact, value] : factsIn(report, kMark)) {
    // So the server says that there is no mark; a mark is never this word.
    if (fact == kMark && value == "none") continue;
    line += fmt::format("{} {}", object.size() == 1 ? "" : ",", shown(report, fact, value));
    if (isNumber(fact)) {
      object[std::string(fact)] = numberIn(report, fact);
    } else {
      object[std::string(fact)] = value;
    }
  }
  session.printer.result(line, object);
}

}  // namespace

ExitCode listCollections(Session& session, const std::optional<std::string>& collection) {
  const auto take = [&](const ParseResult& result) { print(session, result); };
  if (!collection) {
    return printReport(session, u"collections", {"collection", "there are no collections"}, take);
  }
  tq::util::ExtendedProperties properties;
  properties.putProperty(u"report", u"collection");
  ClientRequest request = collectionRequest(
      ClientRequest::PARSE_RESULT, headerValue("the collection's name", *collection), properties);
  takeResults(session, request, take);
  return ExitCode::Ok;
}

}  // namespace corvane
