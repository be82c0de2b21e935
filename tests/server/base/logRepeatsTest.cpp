#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "server/base/logRepeats.h"
#include "tests/server/logLines.h"

namespace corvaned {
namespace {

TEST(LogRepeats, EqualLinesPassOnceInTenSecondsAndAreCounted) {
  LogRepeats repeats;
  const LogRepeats::Clock::time_point start{};
  const auto at = [&](int seconds) {
    return repeats.pass("x", start + std::chrono::seconds(seconds));
  };
  EXPECT_EQ(at(0), 0U);
  EXPECT_EQ(at(1), std::nullopt);
  EXPECT_EQ(at(9), std::nullopt);
  EXPECT_EQ(repeats.pass("y", start + std::chrono::seconds(9)), 0U);
  EXPECT_EQ(at(10), 2U);
  EXPECT_EQ(at(20), 0U);
}

TEST(LogRepeats, LinesOfOneKindPassOnce) {
  const test::LogLines log;
  LogRepeats repeats;
  repeats.log(spdlog::level::warn, "first", "kind");
  repeats.log(spdlog::level::warn, "second", "kind");
  repeats.log(spdlog::level::warn, "third", "other kind");
  EXPECT_EQ(log.with(""), (std::vector<std::string>{"warning first\n", "warning third\n"}));
}

TEST(LogRepeats, LinesThatAllDifferAreNotKeptForEver) {
  LogRepeats repeats;
  const LogRepeats::Clock::time_point start{};
  for (int i = 0; i < 1001; ++i) EXPECT_EQ(repeats.pass(std::to_string(i), start), 0U);
  EXPECT_EQ(repeats.pass("0", start), 0U);
}

}  // namespace
}  // namespace corvaned
