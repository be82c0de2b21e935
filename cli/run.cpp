#include "cli/run.h"

#include "cli/commandLine.h"
#include "cli/errors.h"
#include "infra/oss/kruBaseException.h"

namespace corvane {

namespace {

ExitCode perform(const CommandLine& commandLine, Printer& printer) {
  try {
    auto client = makeClient(commandLine.settings);
    Session session{*client, commandLine.settings, printer};
    return commandLine.command(session);
  } catch (const UsageError& wrong) {
    printer.error(wrong.what());
    return ExitCode::usage;
  } catch (const tq::oss::BaseException& failure) {
    printer.error(describeFailure(failure, commandLine.settings), failureId(failure));
  } catch (const std::bad_alloc&) {
    printer.error("out of memory");
  } catch (const std::exception& failure) {
    printer.error(failure.what());
  }
  return ExitCode::failed;
}

}  // namespace

ExitCode run(int argc, const char* const* argv, const Streams& streams) {
  const ParsedCommandLine parsed = parseCommandLine(argc, argv, streams);
  if (parsed.exit) return *parsed.exit;
  const CommandLine& commandLine = parsed.commandLine;
  Printer printer(streams.out, streams.err, {commandLine.json, streams.columns});
  const ExitCode code = perform(commandLine, printer);
  if (printer.flush()) return code;
  printer.error("cannot write the result to standard output");
  return ExitCode::failed;
}

}  // namespace corvane
