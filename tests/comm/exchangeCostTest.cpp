// System calls and allocations of every kind of exchange, exactly as many as were accepted: one
// more in a loop of a thousand searches is a thousand more.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "tests/comm/costedWork.h"

namespace {

using tq::test::Cost;

std::map<std::string, Cost> acceptedCosts() {
  std::map<std::string, Cost> accepted;
  std::ifstream file(KRUCOMM_ACCEPTED_COSTS);
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line.front() == '#') continue;
    std::istringstream fields(line);
    std::string name;
    Cost cost{};
    std::getline(fields, name, '\t');
    if (fields >> cost.systemCalls >> cost.allocations) accepted[name] = cost;
  }
  return accepted;
}

class ExchangeCost : public testing::TestWithParam<std::string> {};

TEST_P(ExchangeCost, IsWhatWasAccepted) {
  const auto accepted = acceptedCosts();
  const auto found = accepted.find(GetParam());
  ASSERT_NE(found, accepted.end()) << "no accepted cost; ./dev accept-cost writes it";
  const Cost cost = tq::test::costOf(GetParam());
  EXPECT_EQ(cost.systemCalls, found->second.systemCalls)
      << "system calls; if that is meant, ./dev accept-cost makes it the accepted number";
  EXPECT_EQ(cost.allocations, found->second.allocations)
      << "allocations; if that is meant, ./dev accept-cost makes it the accepted number";
}

std::string nameOf(const testing::TestParamInfo<std::string>& info) {
  std::string name = info.param;
  std::erase_if(name, [](unsigned char c) { return std::isalnum(c) == 0; });
  return name;
}

INSTANTIATE_TEST_SUITE_P(Works, ExchangeCost, testing::ValuesIn(tq::test::costedWorkNames()),
                         nameOf);

TEST(ExchangeCostTable, NamesNoWorkThatIsGone) {
  const auto& names = tq::test::costedWorkNames();
  for (const auto& [name, cost] : acceptedCosts()) {
    EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
  }
}

}  // namespace
