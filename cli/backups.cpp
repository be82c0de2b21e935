#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <string>

#include "cli/commands.h"
#include "cli/facts.h"
#include "cli/outcomes.h"
#include "cli/text.h"
#include "comm/kruClientResponse.h"
#include "comm/kruParseResult.h"

namespace corvane {

namespace {

using tq::comm::ClientRequest;
using tq::comm::ParseResult;

// A backup that cannot be read has an error in place of the facts.
void print(Session& session, const ParseResult& result) {
  const std::string name = toUtf8(result.getDocument());
  if (isRefusal(result)) {
    session.printer.result(fmt::format("{}: {}", printable(name), reasonOf(result.getMessage())),
                           {{"backup", name}, {"error", reasonOf(result.getMessage())}});
    return;
  }
  const std::string report = toUtf8(result.getMessage().getMessageText());
  const std::string made(factIn(report, "made").value_or(""));
  const std::uint64_t collections = numberIn(report, "collections");
  const std::uint64_t bytes = numberIn(report, "bytes");
  session.printer.result(
      fmt::format("{}: made {}, {}, {}", printable(name), printable(made),
                  counted(collections, "collection"), counted(bytes, "byte")),
      {{"backup", name}, {"made", made}, {"collections", collections}, {"bytes", bytes}});
}

// Prints what follows `after`, and makes it the last of them. False if nothing does.
bool printPage(Session& session, icu::UnicodeString& after) {
  tq::util::ExtendedProperties properties;
  properties.putProperty(u"report", u"backups");
  if (!after.isEmpty()) properties.putProperty(u"after", after);
  ClientRequest request;
  request.buildRequest(ClientRequest::PARSE_RESULT, properties);
  return takeResults(session, request, [&](const ParseResult& result) {
           after = result.getDocument();
           print(session, result);
         }) > 0;
}

}  // namespace

ExitCode listBackups(Session& session) {
  icu::UnicodeString after;
  while (printPage(session, after)) {
    if (session.client.isTruncated()) break;
  }
  if (!session.client.isTruncated()) return ExitCode::Ok;
  session.printer.error("the server broke off the list of the backups", "TRUNCATED");
  return ExitCode::Truncated;
}

}  // namespace corvane
