#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/differential.h"
#include "tests/support/sanitized.h"

// Random operations over both protocols against one server: results, errors and the state that the
// server is left in must be the same, and what a model of the server expects. In one shard of three
// each protocol has a server of its own, and one of these divides its collections among databases.
//
// KRUCOMM_SEED=N runs the sequence of that seed and nothing else, KRUCOMM_LONG=1 ten times as many.
// A sanitized build runs a tenth: it is that much slower, and looks for other defects than the
// comparison does.
namespace tq::test {
namespace {

using ::testing::Contains;
using ::testing::Key;

// Tests of their own, so that they can run side by side.
constexpr std::uint64_t kShards = 10;
constexpr std::uint64_t kSequences = tq::test::kSanitized ? 350 : 7000;

std::vector<std::uint64_t> seedsOf(std::uint64_t shard) {
  if (const char* seed = std::getenv("KRUCOMM_SEED")) return {std::stoull(seed)};
  const std::uint64_t count = kSequences / kShards * (std::getenv("KRUCOMM_LONG") ? 10 : 1);
  std::vector<std::uint64_t> seeds;
  for (std::uint64_t i = 0; i < count; ++i) seeds.push_back(shard * count + i);
  return seeds;
}

// Sequences that come to nothing would agree whatever the protocols do.
void expectEventful(const Tally& tally, std::size_t sequences) {
  EXPECT_GT(tally.fruitfulSearches, sequences / 10);
  EXPECT_GT(tally.parsed, sequences / 10);
  // What is rarer must be there where the number of sequences makes it certain.
  if (sequences < 400) return;
  EXPECT_GT(tally.severalPortions, sequences / 20);
  EXPECT_GT(tally.furtherPages, sequences / 20);
  for (int i = 0; i < kVerbs; ++i) {
    const auto verb = static_cast<Verb>(i);
    const auto& counts = verb == Verb::Unsupported ? tally.failed : tally.succeeded;
    EXPECT_GT(counts[static_cast<std::size_t>(i)], 0U) << verb;
  }
  for (const char* id : {"ZVK0003E", "ZVK0004E", "ZVK0005E", "ZVK0006E", "ZVK0007E", "ZVK0008E",
                         "ZVK0009E", "ZVK0010E", "ZVK0012E", "ZVK0024E", "ZVK0030E", "ZVK0031E",
                         "ZVK0032E", "ZVK0033E", "ZVK0034E", "ZVK0035E", "ERR_CLIENT_INTERNAL"}) {
    EXPECT_THAT(tally.errors, Contains(Key(id)));
  }
  EXPECT_GT(tally.refusedDocuments, 0U);
  EXPECT_GT(tally.jointHits, 0U);
}

class Differential : public ::testing::TestWithParam<std::uint64_t> {};

INSTANTIATE_TEST_SUITE_P(Shard, Differential, ::testing::Range(std::uint64_t{0}, kShards));

TEST_P(Differential, BothProtocolsDoTheSame) {
  const bool isDivided = GetParam() % 3 == 2;
  Arena arena(isDivided ? Arena::Layout::Divided : Arena::Layout::Shared);
  Duel duel(arena);
  const std::vector<std::uint64_t> seeds = seedsOf(GetParam());
  for (const std::uint64_t seed : seeds) {
    const std::string report = disagreement(duel, seed);
    ASSERT_TRUE(report.empty()) << report;
  }
  if (seeds.size() > 1) expectEventful(duel.tally(), seeds.size());
  EXPECT_EQ(arena.stop(), 0);
}

TEST(RandomSequences, AreTheSameForTheSameSeed) {
  std::set<std::string> seen;
  for (std::uint64_t seed = 0; seed < 200; ++seed) {
    const Sequence sequence = randomSequence(seed);
    EXPECT_GE(sequence.size(), 8U);
    EXPECT_LE(sequence.size(), 24U);
    std::ostringstream once, again;
    once << sequence;
    again << randomSequence(seed);
    EXPECT_EQ(once.str(), again.str());
    seen.insert(once.str());
  }
  EXPECT_EQ(seen.size(), 200U);
}

}  // namespace
}  // namespace tq::test
