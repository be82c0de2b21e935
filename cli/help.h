#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace corvane {

/// Writes the help of the program and of its commands: an option as a person types it, and below
/// each command's own options those that every command takes.
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter();

  std::string make_option_opts(const CLI::Option* option) const override;
  std::string make_footer(const CLI::App* app) const override;
};

}  // namespace corvane
