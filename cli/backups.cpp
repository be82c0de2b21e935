#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <string>

#include "cli/commands.h"
#include "cli/facts.h"
#include "cli/outcomes.h"
#include "cli/pages.h"
#include "cli/text.h"
#include "comm/kruParseResult.h"

namespace corvane {

namespace {

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

}  // namespace

ExitCode listBackups(Session& session) {
  return printReport(session, u"backups", {"backup", "there are no backups"},
                     [&](const ParseResult& result) { print(session, result); });
}

}  // namespace corvane
