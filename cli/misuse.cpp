#include "cli/misuse.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace corvane {

namespace {

// How many letters have to be inserted, removed, replaced or swapped with their neighbour.
std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> before, last, row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    before = std::exchange(last, row);
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a[i - 1] != b[j - 1])});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) row[j] = std::min(row[j], before[j - 2] + 1);
    }
  }
  return row.back();
}

// ", did you mean 'search'?" for the nearest of the names when it is near.
std::string suggestion(std::string_view word, const std::vector<std::string>& names) {
  // An argument can have any length, and a long one is no misspelt name.
  constexpr std::size_t kLongest = 40;
  if (word.size() > kLongest) return {};
  std::size_t best = std::max<std::size_t>(1, word.size() / 3) + 1;
  std::string nearest;
  for (const std::string& name : names) {
    const std::size_t distance = editDistance(word, name);
    if (distance >= best) continue;
    best = distance;
    nearest = name;
  }
  return nearest.empty() ? nearest : fmt::format(", did you mean '{}'?", nearest);
}

const CLI::App* commandCalled(const CLI::App& program, const std::string& name) {
  const auto commands =
      program.get_subcommands([&](const CLI::App* each) { return each->get_name() == name; });
  return commands.empty() ? nullptr : commands.front();
}

std::vector<std::string> commandNames(const CLI::App& program) {
  std::vector<std::string> names;
  for (const CLI::App* command : program.get_subcommands({})) names.push_back(command->get_name());
  return names;
}

std::vector<std::string> optionNames(const CLI::App& program, const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::App* app : {&command, &program}) {
    for (const CLI::Option* option : app->get_options()) {
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
  }
  return names;
}

bool takesValue(const CLI::App& program, const std::string& word) {
  const CLI::Option* option = program.get_option_no_throw(word);
  return option != nullptr && option->get_items_expected_min() > 0;
}

// The word in the command's place.
std::optional<std::string> commandWord(const CLI::App& program, int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (takesValue(program, word)) {
      ++i;
    } else if (word.empty() || word[0] != '-') {
      return word;
    } else if (program.get_option_no_throw(word.substr(0, word.find('='))) == nullptr) {
      // The next word may be the value that belongs to it.
      return {};
    }
  }
  return {};
}

// The first word that the command has no place for.
std::string explainExtra(const CLI::App& program, const CLI::App& command,
                         const std::string& extra) {
  if (extra.size() > 1 && extra[0] == '-') {
    const std::string name = extra.substr(0, extra.find('='));
    return fmt::format("unknown option {}{}", name,
                       suggestion(name, optionNames(program, command)));
  }
  const bool takesQuery = command.get_option_no_throw("QUERY") != nullptr;
  const bool takesText = command.get_option_no_throw("TEXT") != nullptr;
  const char* hint = takesQuery  ? "; put a query of several words in quotes: 'red fox'"
                     : takesText ? "; put a text of several words in quotes: 'the red fox'"
                                 : "";
  return fmt::format("{} takes no further argument '{}'{}", command.get_name(), extra, hint);
}

}  // namespace

std::string explainMisuse(const CLI::App& program, const CLI::ParseError& failure, int argc,
                          const char* const* argv) {
  const std::string help = "; see corvane --help";
  const std::optional<std::string> word = commandWord(program, argc, argv);
  const CLI::App* command = word ? commandCalled(program, *word) : nullptr;
  if (word && command == nullptr) {
    const std::string meant = suggestion(*word, commandNames(program));
    return fmt::format("unknown command '{}'{}", *word, meant.empty() ? help : meant);
  }
  const std::vector<std::string> extras = program.remaining(true);
  if (command != nullptr && !extras.empty()) return explainExtra(program, *command, extras.front());
  if (command == nullptr) {
    // Without a command an option may still be wrong, and that is worth more.
    if (!extras.empty()) {
      return fmt::format("unknown option {}{}", extras.front(),
                         suggestion(extras.front(), optionNames(program, program)));
    }
    if (dynamic_cast<const CLI::RequiredError*>(&failure) != nullptr) {
      return "no command is given" + help;
    }
  }
  const std::string name = command == nullptr ? "" : " " + command->get_name();
  return fmt::format("{}; see corvane{} --help", failure.what(), name);
}

}  // namespace corvane
