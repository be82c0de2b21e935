// Every proper prefix of every reply of the binary protocol, followed by a close or a reset: the
// failure that belongs to it, and never a wrong, lost or doubled hit.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/comm/binaryFixture.h"
#include "tests/support/scriptedServer.h"

namespace {

using namespace tq::test;
using tq::comm::DrestoPerfClient;

enum class Ending { Close, Reset };

constexpr auto kClient = "kruDrestoPerfClient";
constexpr auto kParser = "kruDrestoPerfResponse";

/// A prefix of a reply, and what has arrived with it.
struct Prefix {
  const BinaryReply& reply;
  std::size_t length;
  Ending ending;

  std::size_t wholeEnvelopes() const {
    const auto& starts = reply.envelopes;
    std::size_t count = 0;
    while (count + 1 < starts.size() && starts[count + 1] <= length) ++count;
    return count;
  }
  bool endsBetweenEnvelopes() const { return length == reply.envelopes[wholeEnvelopes()]; }
};

/// What is expected, and how often the request is sent for it.
struct Expected {
  BinaryOutcome outcome;
  std::size_t requests = 1;
};

Expected repeated(BinaryOutcome outcome) { return {std::move(outcome), 2}; }

BinaryOutcome noReply(int returnCode) {
  auto outcome = binaryFailure("ERR_SERVER_COMM_RECV", kClient, 383, kHostAndPort);
  outcome.seen.returnCode = returnCode;
  return outcome;
}

BinaryOutcome unknown(unsigned long line, int returnCode) {
  auto outcome = binaryFailure("ERR_CLIENT_INTERNAL", kClient, line,
                               {"unknown error from sendandrecvMesgOnce"});
  outcome.seen.returnCode = returnCode;
  return outcome;
}

BinaryOutcome emptyBody(int kind) {
  const auto refusal = [](unsigned long line, const char* argument) {
    auto outcome = binaryFailure("ERR_SERVER_PROTOCOL", kParser, line, {argument});
    outcome.seen.returnCode = 0;
    return outcome;
  };
  switch (kind) {
    case kParseResult:
      return refusal(441, "Zero(0) sized protocol body in parseParseResult ");
    case kSelectivity:
      return refusal(485, "Zero(0) sized protocol body in parseSelectivity ");
    case kGetServerVersion:
      return refusal(327, "Zero(0) sized protocol body in parseContent");
    default:
      return refusal(375, "Zero(0) sized protocol body inparseStreamSearchresp");
  }
}

BinaryOutcome nothingWhole(int kind) {
  auto outcome =
      kind == kGetServerVersion
          ? binaryFailure("ERR_SERVER_PROTOCOL", kParser, 336,
                          {"Invalid message envelope, status code not available in parseContent"})
          : finishedTooEarly();
  outcome.seen.returnCode = 0;
  return outcome;
}

std::uint64_t number(const std::string& text, std::size_t at) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < 4; ++i)
    value = value * 256 + static_cast<unsigned char>(text[at + i]);
  return value;
}

/// The results that the whole envelopes of the prefix bring.
void addResults(const Prefix& prefix, BinaryOutcome& outcome) {
  const auto& expected = prefix.reply.expected.seen;
  const auto count = prefix.wholeEnvelopes();
  const auto hits = std::min(count, expected.hits.size());
  outcome.seen.hits.assign(expected.hits.begin(),
                           expected.hits.begin() + static_cast<std::ptrdiff_t>(hits));
  const auto parsed = std::min(count, expected.parsed.size());
  outcome.seen.parsed.assign(expected.parsed.begin(),
                             expected.parsed.begin() + static_cast<std::ptrdiff_t>(parsed));
  if (prefix.reply.kind == kSelectivity && count != 0) {
    const auto at = prefix.reply.envelopes[count - 1] + 4;
    const auto& text = prefix.reply.text;
    outcome.seen.selectivity = {number(text, at), number(text, at + 8), number(text, at + 4)};
  }
}

BinaryOutcome truncated() {
  BinaryOutcome outcome;
  outcome.seen.returnCode = 0;
  outcome.seen.endOfStream = true;
  outcome.seen.truncated = true;
  return outcome;
}

Expected putTogether(const Prefix& prefix) {
  const bool anything = !prefix.reply.envelopes.empty() && prefix.wholeEnvelopes() != 0;
  if (!anything) return repeated(noReply(-1));
  Expected expected{noReply(0)};
  addResults(prefix, expected.outcome);
  // An estimate is awaited within the exchange; portions of a stream are not repeated.
  if (prefix.reply.kind == kSelectivity) expected.requests = 2;
  return expected;
}

Expected ofErrorAsItComes(const Prefix& prefix) {
  if (prefix.ending == Ending::Reset) return {unknown(113, -1)};
  if (prefix.reply.kind != kGetStatus) return {binaryFailure("ERR_SERVER_APP", "(null)", 0)};
  auto outcome = truncated();
  outcome.seen.statusCode = 2;
  outcome.statusMessageId = "ERR_SERVER_APP";
  return {outcome};
}

Expected ofResultsAsTheyCome(const Prefix& prefix) {
  const int kind = prefix.reply.kind;
  if (prefix.length == 2) {
    return {prefix.ending == Ending::Reset ? unknown(113, -1) : emptyBody(kind)};
  }
  // What is known for an error is read on.
  if (prefix.reply.refusesVersion() && prefix.length >= 4 && prefix.ending == Ending::Reset) {
    return {unknown(113, -1)};
  }
  if (prefix.wholeEnvelopes() == 0) return {nothingWhole(kind)};
  Expected expected;
  if (prefix.ending == Ending::Reset) {
    expected.outcome = unknown(kind == kSelectivity ? 113 : 147, 0);
  } else if (prefix.endsBetweenEnvelopes()) {
    expected.outcome = emptyBody(kind);
  } else {
    expected.outcome = truncated();
  }
  addResults(prefix, expected.outcome);
  return expected;
}

Expected expectedOf(const Prefix& prefix, bool reassembly) {
  if (prefix.length < 2) {
    if (prefix.ending == Ending::Reset && !reassembly) return {unknown(113, -1)};
    return repeated(noReply(-1));
  }
  if (reassembly) return putTogether(prefix);
  return prefix.reply.code() == 6 ? ofErrorAsItComes(prefix) : ofResultsAsTheyCome(prefix);
}

Script script(const Prefix& prefix) {
  Script script;
  script.expectFramedRequest().send(prefix.reply.text.substr(0, prefix.length));
  if (prefix.ending == Ending::Reset) script.reset();
  return script;
}

class EveryBinaryPrefix : public testing::TestWithParam<BinaryReply> {};

void check(const BinaryReply& reply, bool reassembly, Pull pull) {
  for (const auto ending : {Ending::Close, Ending::Reset}) {
    for (std::size_t length = 0; length < reply.text.size(); ++length) {
      SCOPED_TRACE("first " + std::to_string(length) + " bytes and " +
                   (ending == Ending::Close ? "a close" : "a reset"));
      const Prefix prefix{reply, length, ending};
      const auto expected = expectedOf(prefix, reassembly);
      ScriptedNetwork network(script(prefix), kOnDemand);
      auto client = binaryClient();
      client.setReassembly(reassembly);
      ASSERT_EQ(runBinary(client, reply.kind, pull), expected.outcome);
      ASSERT_EQ(network.requests(), expected.requests);
      ASSERT_FALSE(network.waitedForever());
    }
  }
}

TEST_P(EveryBinaryPrefix, AsItComes) { check(GetParam(), false, Pull::Looping); }

TEST_P(EveryBinaryPrefix, PutTogether) { check(GetParam(), true, Pull::Looping); }

TEST_P(EveryBinaryPrefix, PulledPortionByPortion) {
  check(GetParam(), false, Pull::Single);
  check(GetParam(), true, Pull::Single);
}

INSTANTIATE_TEST_SUITE_P(Corpus, EveryBinaryPrefix, testing::ValuesIn(binaryReplies()),
                         [](const auto& test) { return test.param.name; });

TEST(BinaryPrefix, APrefixInSegmentsBringsEachHitOnceAndThenTheFailure) {
  const auto& reply = binaryReplyNamed("StreamSearchWithFortyHits");
  for (const std::size_t segment : {1U, 3U, 7U, 16U}) {
    for (std::size_t length = 0; length < reply.text.size(); ++length) {
      ScriptedNetwork network(
          Script().expectFramedRequest().send(reply.text.substr(0, length), segment), kOnDemand);
      auto client = binaryClient();
      client.setReassembly(true);
      const auto expected = putTogether({reply, length, Ending::Close});
      ASSERT_EQ(runBinary(client, reply.kind), expected.outcome)
          << length << " bytes in segments of " << segment;
    }
  }
}

TEST(BinaryPrefix, TheExchangeBehindAPrefixIsUndisturbed) {
  for (const auto& reply : binaryReplies()) {
    for (const bool reassembly : {false, true}) {
      for (std::size_t length = 0; length < std::min<std::size_t>(reply.text.size(), 60);
           ++length) {
        ScriptedNetwork network(
            {Script().expectFramedRequest().send(reply.text.substr(0, length)),
             Script().expectFramedRequest().send(nextBinaryReply().text).awaitClose()},
            kOnDemand);
        auto client = binaryClient();
        client.setNumRetries(0);
        client.setReassembly(reassembly);
        runBinary(client, reply.kind);
        ASSERT_EQ(runBinary(client, nextBinaryReply().kind), nextBinaryReply().expected)
            << reply << ", " << length << " bytes";
      }
    }
  }
}

TEST(BinaryPrefix, OverLoopbackTheFailureIsTheSame) {
  for (const char* name : {"StreamSearchWithThreeHits", "ParseResultWithOneRow", "Selectivity",
                           "RefusedOnStreamSearch", "GetServerVersion"}) {
    const auto& reply = binaryReplyNamed(name);
    for (std::size_t length = 0; length < reply.text.size(); length += 3) {
      ScriptedServer server(Script().expectFramedRequest().send(reply.text.substr(0, length)));
      DrestoPerfClient client(u"127.0.0.1", server.port());
      client.setReassembly(true);
      auto expected = putTogether({reply, length, Ending::Close});
      expected.outcome.seen.errorArguments.back() = std::to_string(server.port());
      ASSERT_EQ(runBinary(client, reply.kind), expected.outcome) << reply << ", " << length;
      ASSERT_EQ(server.requests(), expected.requests);
    }
  }
}

}  // namespace
