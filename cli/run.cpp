#include "cli/run.h"

#include "cli/commandLine.h"
#include "cli/credentials.h"
#include "cli/errors.h"
#include "cli/otherProtocol.h"
#include "infra/oss/kruBaseException.h"

namespace corvane {

namespace {

std::string explain(const tq::oss::BaseException& failure, const Session& session) {
  if (!session.answered && suggestsOtherProtocol(failure)) {
    if (auto line = otherProtocolSpoken(session.settings)) return *line;
  }
  std::string line = describeFailure(failure, session.settings, session.answered);
  const bool inDoubt = session.client.getRequestOutcome() == tq::comm::RequestOutcome::MayBeApplied;
  return inDoubt && !session.doubt.empty() ? line + "; " + session.doubt : line;
}

ExitCode runCommand(const CommandLine& commandLine, Session& session) {
  try {
    return commandLine.command(session);
  } catch (const tq::oss::BaseException& failure) {
    session.printer.error(explain(failure, session), failureId(failure));
    return ExitCode::Failed;
  }
}

ExitCode perform(const CommandLine& commandLine, Printer& printer, LastWords& lastWords) {
  try {
    Settings settings = commandLine.settings;
    settings.authorization = authorizationFrom(settings.credentials);
    auto client = makeClient(settings);
    Session session{*client, settings, printer, lastWords};
    lastWords.set({{}, printer.errorLine("interrupted", "INTERRUPTED")});
    return runCommand(commandLine, session);
  } catch (const UsageError& wrong) {
    printer.error(wrong.what());
    return ExitCode::Usage;
  } catch (const std::bad_alloc&) {
    printer.error("out of memory");
  } catch (const std::exception& failure) {
    printer.error(failure.what());
  }
  return ExitCode::Failed;
}

}  // namespace

ExitCode run(int argc, const char* const* argv, const Streams& streams) {
  const ParsedCommandLine parsed = parseCommandLine(argc, argv, streams);
  if (parsed.exit) return *parsed.exit;
  const CommandLine& commandLine = parsed.commandLine;
  Printer printer(streams.out, streams.err, {commandLine.json, streams.columns});
  LastWords unheard;
  LastWords& lastWords = streams.lastWords != nullptr ? *streams.lastWords : unheard;
  const ExitCode code = perform(commandLine, printer, lastWords);
  // Everything has been said; what is left is to write it.
  lastWords.set({});
  if (printer.flush()) return code;
  printer.error("cannot write the result to standard output");
  return ExitCode::Failed;
}

}  // namespace corvane
