#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>

#include "tests/comm/adversarySchedule.h"

namespace {

using namespace tq::test;

// Each shard is a test of its own, so that several processors share the work.
constexpr std::uint64_t kShards = 8;

std::uint64_t schedules() { return std::getenv("KRUCOMM_LONG") != nullptr ? 10'000'000 : 100'000; }

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
