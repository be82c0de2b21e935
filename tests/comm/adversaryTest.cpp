#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>

#include "tests/comm/adversarySchedule.h"

namespace {

using namespace tq::test;

// Each shard is a test of its own, so that several processors share the work.
constexpr std::uint64_t kShards = 8;

std::uint64_t schedules() { return std::getenv("KRUCOMM_LONG") != nullptr ? 10'000'000 : 100'000; }

// TEMP
TEST(AdversaryExplore, All) {
  std::map<std::string, std::pair<int, std::string>> found;
  const char* n = std::getenv("N");
  for (std::uint64_t seed = std::getenv("FROM") ? std::strtoul(std::getenv("FROM"), nullptr, 10)
                                                : 0;
       seed < (n ? std::strtoul(n, nullptr, 10) : 0UL); ++seed) {
    const Schedule schedule = scheduleOf(seed);
    std::string v = violationOf(schedule);
    if (v.empty()) continue;
    std::string key = std::string(schedule.binary ? "binary" : "HTTP") + v.substr(v.find(':'));
    for (const char* cut : {"t1", "base64", "t9", "m"}) {
      auto at = key.find(std::string(": ") + cut, 8);
      if (at != std::string::npos) key.resize(at);
    }
    auto& f = found[key];
    if (++f.first <= 3) {
      Schedule small = shrunk(schedule);
      std::string text = violationOf(small) + "\n" + describe(small);
      if (f.second.empty() || text.size() < f.second.size()) f.second = text;
    }
  }
  for (auto& [k, f] : found) std::cout << "### " << f.first << " " << k << "\n" << f.second << "\n";
}

class Adversary : public testing::TestWithParam<std::uint64_t> {};

TEST_P(Adversary, NeverGetsAReplyToTheWrongRequest) {
  for (std::uint64_t seed = GetParam(); seed < schedules(); seed += kShards) {
    const Schedule schedule = scheduleOf(seed);
    if (violationOf(schedule).empty()) continue;
    const Schedule smallest = shrunk(schedule);
    FAIL() << violationOf(smallest) << "\n"
           << describe(smallest) << "\nfrom " << describe(schedule);
  }
}

INSTANTIATE_TEST_SUITE_P(Shard, Adversary, testing::Range<std::uint64_t>(0, kShards));

}  // namespace
