#include "cli/facts.h"

#include <algorithm>

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

}  // namespace corvane
