#include "cli/facts.h"

#include <algorithm>
#include <charconv>

namespace corvane {

std::vector<std::pair<std::string_view, std::string_view>> factsIn(std::string_view report,
                                                                   std::string_view last) {
  std::vector<std::pair<std::string_view, std::string_view>> facts;
  while (!report.empty()) {
    const std::size_t equals = std::min(report.find('='), report.size());
    const std::size_t end = report.substr(0, equals) == last ? report.npos : report.find(' ');
    const std::string_view fact = report.substr(0, end);
    if (equals < fact.size()) facts.emplace_back(fact.substr(0, equals), fact.substr(equals + 1));
    report.remove_prefix(std::min(report.size(), fact.size() + 1));
  }
  return facts;
}

std::optional<std::string_view> factIn(std::string_view report, std::string_view name) {
  for (const auto& [known, value] : factsIn(report, {})) {
    if (known == name) return value;
  }
  return std::nullopt;
}

std::uint64_t numberIn(std::string_view report, std::string_view name) {
  const std::string_view text = factIn(report, name).value_or("0");
  std::uint64_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

}  // namespace corvane
