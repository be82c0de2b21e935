// Binary replies with wrong lengths, and bytes that are not a reply. Whatever they say, an exchange
// ends with results or with an error of the library, and allocates little more than has arrived.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "tests/comm/binaryFixture.h"
#include "tests/comm/largestAllocation.h"

namespace {

using namespace tq::test;

// The receive buffer, the carry with its longest envelope, and the records of what has arrived.
constexpr std::size_t kAllowance = std::size_t{1} << 19;

enum class Then { Close, Silence };

// A reply that is whole by accident keeps its connection; the next exchange is answered on the old
// connection and on a new one.
std::vector<Script> scripts(const std::string& text, Then then) {
  const auto next = answer(nextBinaryReply().text);
  Script first;
  first.expectFramedRequest().send(text);
  if (then == Then::Silence) {
    first.expectFramedRequest().send(nextBinaryReply().text).awaitClose();
  }
  return {first, next};
}

/// Runs the exchange and then another one, which must not be affected.
void endure(int kind, const std::string& text, bool reassembly, Then then) {
  ScriptedNetwork network(scripts(text, then));
  auto client = binaryClient();
  client.setNumRetries(0);
  client.setReassembly(reassembly);
  client.setTimeOut(then == Then::Silence ? 100 : 0);
  largestAllocation() = 0;
  const auto outcome = runBinary(client, kind);
  EXPECT_LE(largestAllocation(), kAllowance);
  EXPECT_LE(outcome.seen.hits.size(), text.size() / 4);
  EXPECT_LE(outcome.seen.parsed.size(), text.size() / 4);
  EXPECT_FALSE(network.waitedForever());
  EXPECT_LE(network.elapsedMillis(), 200U);
  EXPECT_EQ(runBinary(client, nextBinaryReply().kind), nextBinaryReply().expected);
}

void endureEveryWay(int kind, const std::string& text) {
  for (const bool reassembly : {false, true}) {
    for (const auto then : {Then::Close, Then::Silence}) endure(kind, text, reassembly, then);
  }
}

/// The text with these bits of the two bytes at the position flipped.
std::string flipped(std::string text, std::size_t at, unsigned int bits) {
  text[at] = static_cast<char>(text[at] ^ static_cast<char>(bits >> 8));
  text[at + 1] = static_cast<char>(text[at + 1] ^ static_cast<char>(bits & 0xFF));
  return text;
}

class BinaryHostile : public testing::TestWithParam<BinaryReply> {};

TEST_P(BinaryHostile, SurvivesEveryPairOfFlippedBitsInItsLengths) {
  const auto& reply = GetParam();
  for (const auto at : reply.lengths) {
    for (unsigned int first = 0; first < 16; ++first) {
      for (unsigned int second = first; second < 16; ++second) {
        const unsigned int bits = (1U << first) | (1U << second);
        SCOPED_TRACE("length at " + std::to_string(at) + " flipped by " + std::to_string(bits));
        endureEveryWay(reply.kind, flipped(reply.text, at, bits));
        if (HasFailure()) return;
      }
    }
  }
}

TEST_P(BinaryHostile, SurvivesEveryFlippedBit) {
  const auto& reply = GetParam();
  for (std::size_t at = 0; at + 1 < std::min<std::size_t>(reply.text.size(), 300); ++at) {
    for (unsigned int bit = 0; bit < 8; ++bit) {
      SCOPED_TRACE("byte " + std::to_string(at) + ", bit " + std::to_string(bit));
      endureEveryWay(reply.kind, flipped(reply.text, at, 1U << (bit + 8)));
      if (HasFailure()) return;
    }
  }
}

std::vector<BinaryReply> repliesWithLengths() {
  std::vector<BinaryReply> some;
  for (const auto& reply : binaryReplies()) {
    if (!reply.lengths.empty()) some.push_back(reply);
  }
  return some;
}

INSTANTIATE_TEST_SUITE_P(Corpus, BinaryHostile, testing::ValuesIn(repliesWithLengths()),
                         [](const auto& test) { return test.param.name; });

TEST(BinaryHostile, SurvivesBytesThatAreNoReply) {
  for (unsigned int seed = 1; seed <= 1500; ++seed) {
    std::minstd_rand random(seed);
    // Small numbers are what statuses and lengths are made of.
    std::string text;
    const auto length = random() % 120;
    for (std::size_t i = 0; i < length; ++i) {
      const auto choice = random() % 4;
      text += static_cast<char>(choice == 0   ? random() % 256
                                : choice == 1 ? random() % 16
                                              : random() % 2);
    }
    if (seed % 2 == 0 && text.size() > 2) text.replace(0, 2, word16(seed % 10 == 0 ? 6 : 1));
    for (const int kind : {1, 8, 11, 14, 15, 20, 22}) {
      SCOPED_TRACE("seed " + std::to_string(seed) + ", kind " + std::to_string(kind));
      endureEveryWay(kind, text);
      ASSERT_FALSE(testing::Test::HasFailure());
    }
  }
}

TEST(BinaryHostile, AnEndlessStreamOfNothingIsRefusedAndNotHoarded) {
  // Nothing of it can be taken: an envelope that never becomes whole, because it says so itself.
  std::string nothing;
  for (int i = 0; i < 100000; ++i) nothing += envelope(9, "");
  for (const int kind : {kStreamSearch, kSelectivity}) {
    for (const bool reassembly : {false, true}) {
      SCOPED_TRACE(kind);
      const std::string record =
          kind == kSelectivity ? envelope(1, estimate(1, 2, 3)) : plainHit("hit");
      ScriptedNetwork network(Script().expectFramedRequest().send(kOk + record + nothing, 16384));
      auto client = binaryClient();
      client.setReassembly(reassembly);
      largestAllocation() = 0;
      const auto outcome = runBinary(client, kind);
      EXPECT_LE(largestAllocation(), kAllowance);
      EXPECT_EQ(outcome.seen.errorId, "ERR_CLIENT_RESP_PARSING");
      EXPECT_EQ(outcome.seen.hits.size(), kind == kSelectivity ? 0U : 1U);
      EXPECT_FALSE(network.waitedForever());
    }
  }
}

TEST(BinaryHostile, AnAnswerOfAnotherProtocolIsRefused) {
  for (const int kind : {1, 8, 11, 14, 15, 20, 22}) {
    ScriptedNetwork network(
        Script().expectFramedRequest().send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
    auto client = binaryClient();
    const auto outcome = runBinary(client, kind);
    EXPECT_EQ(outcome.seen.errorId, "ERR_SERVER_PROTOCOL");
    EXPECT_EQ(outcome.errorLine, 272U);
    EXPECT_EQ(network.requests(), 1U);
  }
}

}  // namespace
