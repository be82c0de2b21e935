#pragma once

#include <istream>
#include <ostream>

#include "cli/exitCode.h"
#include "cli/lastWords.h"

namespace corvane {

/// The streams of the process, or a test's.
struct Streams {
  std::istream& in;
  std::ostream& out;
  std::ostream& err;
  /// The present width of the terminal that shows `err`; 0, or no function: it is none.
  unsigned int (*columns)() = nullptr;
  /// Kept up to date for a signal, when there is one.
  LastWords* lastWords = nullptr;
};

/// The whole program: reads the command line, runs the command, reports a failure as one line.
/// Never throws.
ExitCode run(int argc, const char* const* argv, const Streams& streams);

}  // namespace corvane
