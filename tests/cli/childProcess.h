#pragma once

#include <string>
#include <vector>

namespace corvane::test {

/// A program that runs until its end, with everything that it printed.
struct Finished {
  int code = -1;  ///< the exit code; 256 and the signal's number when a signal ended it
  std::string out, err;
};

/// Runs a program with `input` at its standard input and waits for its end.
Finished runToEnd(const std::vector<std::string>& command, const std::string& input = {});

}  // namespace corvane::test
