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

ExitCode printPages(Session& session, const ListWords& words,
                    const std::function<bool(std::uint64_t& printed)>& printPage) {
  session.lastWords.set(
      {{}, session.printer.errorLine("interrupted; the list is not complete", "INTERRUPTED")});
  std::uint64_t printed = 0;
  std::string cause = "the server ended it early";
  try {
    while (printPage(printed)) {
      if (session.client.isTruncated()) break;
    }
    if (!session.client.isTruncated()) {
      if (printed == 0) session.printer.note(words.none);
      return ExitCode::Ok;
    }
  } catch (const tq::oss::BaseException& failure) {
    if (printed == 0) throw;
    cause = describeFailure(failure, session.settings, true);
  }
  return cutOff(session, counted(printed, words.noun), cause);
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
      // A server that does not go on would be asked for ever.
      if (result.getDocument().compareCodePointOrder(after) <= 0) {
        throw OperationError(fmt::format("{} lists \"{}\" out of its order",
                                         address(session.settings),
                                         printable(result.getDocument())));
      }
      after = result.getDocument();
      print(result);
      ++printed;
    };
    return takeResults(session, request, take) > 0;
  });
}

}  // namespace corvane
