#include "cli/facts.h"

#include <algorithm>
#include <charconv>

namespace corvane {

std::optional<std::string_view> factIn(std::string_view report, std::string_view name) {
  while (!report.empty()) {
    const std::string_view fact = report.substr(0, report.find(' '));
    report.remove_prefix(std::min(report.size(), fact.size() + 1));
    if (fact.size() > name.size() && fact.substr(0, name.size()) == name &&
        fact[name.size()] == '=') {
      return fact.substr(name.size() + 1);
    }
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
