#pragma once

#include <functional>
#include <optional>
#include <string>

#include "cli/exitCode.h"
#include "cli/run.h"
#include "cli/session.h"

namespace corvane {

/// What the command line asks for.
struct CommandLine {
  Settings settings;
  bool json = false;
  std::function<ExitCode(Session&)> command;
};

/// Reads the command line. When it is wrong, or asks for help, the answer has been printed and
/// `exit` is set; there is no command then.
struct ParsedCommandLine {
  CommandLine commandLine;
  std::optional<ExitCode> exit;
};
ParsedCommandLine parseCommandLine(int argc, const char* const* argv, const Streams& streams);

}  // namespace corvane
