#include "cli/pages.h"

#include <fmt/format.h>

#include "cli/errors.h"
#include "cli/outcomes.h"
#include "cli/text.h"
#include "comm/kruParseResult.h"
#include "infra/oss/kruBaseException.h"

namespace corvane {

ExitCode cutOff(Session& session, const std::string& shown, const std::string& cause) {
  session.printer.error(
      fmt::format("the result from {} was cut off after {} ({}); what is shown is right but not "
                  "everything, ask again",
                  address(session.settings), shown, cause),
      "TRUNCATED");
  return ExitCode::Truncated;
}

ExitCode printPages(Session& session, const ListWords& words, const PagePrinter& printPage) {
  session.lastWords.set(
      {{}, session.printer.errorLine("interrupted; the list is not complete", "INTERRUPTED")});
  std::uint64_t printed = 0;
  std::string place;
  try {
    while (const auto next = printPage(printed)) {
      if (session.client.isTruncated()) break;
      if (*next <= place) {
        throw OperationError(fmt::format("{} tells the same part of the list again behind \"{}\"",
                                         address(session.settings), printable(place)));
      }
      place = *next;
    }
  } catch (const tq::oss::BaseException& failure) {
    if (printed == 0) throw;
    return cutOff(session, counted(printed, words.noun),
                  describeFailure(failure, session.settings, true));
  }
  if (session.client.isTruncated()) {
    return cutOff(session, counted(printed, words.noun), "the server ended it early");
  }
  if (printed == 0) session.printer.note(words.none);
  return ExitCode::Ok;
}

ExitCode printReport(Session& session, const icu::UnicodeString& report, const ListWords& words,
                     const std::function<void(const tq::comm::ParseResult&)>& print) {
  icu::UnicodeString after;
  return printPages(session, words, [&](std::uint64_t& printed) {
    tq::util::ExtendedProperties properties;
    properties.putProperty(u"report", report);
    if (!after.isEmpty()) properties.putProperty(u"after", after);
    tq::comm::ClientRequest request;
    request.buildRequest(tq::comm::ClientRequest::PARSE_RESULT, properties);
    const auto take = [&](const tq::comm::ParseResult& result) {
      after = result.getDocument();
      print(result);
      ++printed;
    };
    const bool isEmpty = takeResults(session, request, take) == 0;
    return isEmpty ? std::nullopt : std::optional(toUtf8(after));
  });
}

}  // namespace corvane
