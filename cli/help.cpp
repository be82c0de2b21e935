#include "cli/help.h"

#include <vector>

namespace corvane {

namespace {

constexpr const char* kExitCodes =
    "Exit codes: 0 done; 1 the server, the connection or a file failed; 2 the command\n"
    "line is wrong, nothing was sent; 3 the result was cut off; 4 loaded or updated,\n"
    "but some documents were refused.\n";

bool isCommon(const CLI::Option* option) {
  return option->check_lname("host") || option->check_lname("port") ||
         option->check_lname("timeout") || option->check_lname("protocol") ||
         option->check_lname("credentials") || option->check_lname("json");
}

}  // namespace

HelpFormatter::HelpFormatter() {
  column_width(22);
  label("SUBCOMMAND", "COMMAND");
  label("OPTIONS", "options");
  label("Positionals", "Arguments");
}

std::string HelpFormatter::make_option_opts(const CLI::Option* option) const {
  return option->get_option_text().empty() ? "" : " " + option->get_option_text();
}

std::string HelpFormatter::make_footer(const CLI::App* app) const {
  const CLI::App* program = app->get_parent();
  std::string footer = Formatter::make_footer(app);
  if (program != nullptr) {
    const std::vector<const CLI::Option*> options = program->get_options(isCommon);
    footer += make_group("Common options", false, options);
  }
  return footer + "\n" + kExitCodes;
}

}  // namespace corvane
