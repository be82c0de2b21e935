#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace corvane {

/// What is wrong with a command line that `program` could not parse, and what was probably meant:
/// one line, which may hold what the arguments hold.
std::string explainMisuse(const CLI::App& program, const CLI::ParseError& failure, int argc,
                          const char* const* argv);

}  // namespace corvane
