// Every proper prefix of every reply, followed by a close: an error of the communication, after the
// retry, or a stream that says that it was cut off; never a wrong, lost or doubled hit.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/exchange.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/script.h"
#include "tests/support/scriptedNetwork.h"
#include "tests/support/scriptedServer.h"

namespace {

using namespace tq::test;
using tq::comm::CorvaneRESTClient;

enum class Ending { Close, Reset };

Script prefixScript(const std::string& text, std::size_t length, Ending ending) {
  Script script;
  script.expectRequest().send(text.substr(0, length));
  if (ending == Ending::Reset) script.reset();
  return script;
}

struct Observed {
  Outcome outcome;
  std::size_t requests;
  bool waitedForever;
};

Observed observe(const Reply& reply, const std::string& text, std::size_t length, Ending ending) {
  ScriptedNetwork network(prefixScript(text, length, ending), ScriptedNetwork::Arrival::OnDemand);
  CorvaneRESTClient client(u"127.0.0.1", 7, true);
  auto outcome = runExchange(client, reply.kind);
  return {outcome, network.requests(), network.waitedForever()};
}

bool brokeOff(const Outcome& outcome) { return outcome.errorId == "ERR_SERVER_COMM_RECV"; }

void expectBrokenOff(const Observed& observed) {
  const auto& outcome = observed.outcome;
  EXPECT_EQ(outcome.errorId, "ERR_SERVER_COMM_RECV") << outcome;
  EXPECT_EQ(outcome.errorArguments, (std::vector<std::string>{"127.0.0.1", "7"}));
  EXPECT_EQ(outcome.errorFile, "kruCorvaneRESTClient");
  EXPECT_TRUE(outcome.hits.empty() && outcome.parsed.empty()) << outcome;
  EXPECT_EQ(observed.requests, 2U) << "one retry";
}

// The results whose records lie within the first `bytes` of the body.
std::size_t wholeRecords(const Reply& reply, std::size_t bytes) {
  std::size_t count = 0;
  while (count + 1 < reply.recordStarts.size() && reply.recordStarts[count + 1] <= bytes) ++count;
  return std::min(count, reply.expected.hits.size() + reply.expected.parsed.size());
}

void expectCutOff(const Reply& reply, const Observed& observed, std::size_t bodyBytes) {
  auto expected = reply.expected;
  const auto count = wholeRecords(reply, bodyBytes);
  if (!expected.hits.empty()) expected.hits.resize(count);
  if (!expected.parsed.empty()) expected.parsed.resize(count);
  expected.truncated = true;
  EXPECT_EQ(observed.outcome, expected);
  EXPECT_EQ(observed.requests, 1U);
}

// How much of the body is there in whole chunks when the first `length` bytes have come.
std::size_t bodyInWholeChunks(const Chunked& form, std::size_t length) {
  std::size_t body = 0;
  for (const auto& chunk : form.chunks) {
    if (chunk.dataEnd <= length) body = chunk.bodyEnd;
  }
  return body;
}

// Four uninterpreted bytes and a length word: what is shorter holds no record's start.
constexpr std::size_t kRecordStart = 8;

bool hasOneRecord(const Reply& reply) {
  return !reply.body.empty() && !reply.streamed && reply.recordStarts.size() == 2 && !reply.endMark;
}

void checkStreamed(const Reply& reply, const Observed& observed, std::size_t body) {
  if (body < kRecordStart) return expectBrokenOff(observed);
  if (body == reply.body.size()) {
    EXPECT_EQ(observed.outcome, reply.expected);
    return;
  }
  if (wholeRecords(reply, body) == 0 && brokeOff(observed.outcome)) {
    return expectBrokenOff(observed);
  }
  expectCutOff(reply, observed, body);
}

void checkWhole(const Reply& reply, const Observed& observed) {
  auto outcome = observed.outcome;
  // Only its last chunk, which nobody waits for, tells that an estimate's stream has ended.
  if (reply.kind == kSelectivity && outcome.errorId.empty()) outcome.endOfStream = true;
  EXPECT_EQ(outcome, reply.expected);
  EXPECT_EQ(observed.requests, 1U);
}

void checkChunked(const Reply& reply, std::size_t size, const Chunked& form,
                  const Observed& observed, std::size_t length) {
  const auto body = bodyInWholeChunks(form, length);
  if (reply.body.empty()) {
    // The last chunk's line ends such a reply; the empty line behind it is not waited for.
    if (length + 2 >= form.text.size()) return checkWhole(reply, observed);
    return expectBrokenOff(observed);
  }
  if (reply.streamed) return checkStreamed(reply, observed, body);
  if (hasOneRecord(reply)) {
    return body == reply.body.size() ? checkWhole(reply, observed) : expectBrokenOff(observed);
  }
  if (!reply.recordsMustBeWhole) {
    // Nobody reads such a body; its first chunk says all that there is to say.
    return body != 0 ? checkWhole(reply, observed) : expectBrokenOff(observed);
  }
  if (body < std::min(kRecordStart, reply.body.size())) return expectBrokenOff(observed);
  EXPECT_EQ(observed.outcome, expectedInChunks(reply, size));
}

class EveryPrefix : public testing::TestWithParam<Reply> {};

TEST_P(EveryPrefix, OfAReplyWithALengthIsAnErrorOfTheCommunication) {
  const auto& reply = GetParam();
  const auto text = plain(reply);
  for (const auto ending : {Ending::Close, Ending::Reset}) {
    for (std::size_t length = 0; length < text.size(); ++length) {
      SCOPED_TRACE(reply.name + ", first " + std::to_string(length) + " bytes");
      const auto observed = observe(reply, text, length, ending);
      ASSERT_FALSE(observed.waitedForever);
      expectBrokenOff(observed);
      if (HasFailure()) return;
    }
  }
}

TEST_P(EveryPrefix, OfAReplyInChunksIsAnErrorOrAStreamThatSaysItWasCutOff) {
  const auto& reply = GetParam();
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{1}, std::size_t{7}, std::size_t{16}, std::size_t{60}}) {
    const auto form = chunked(reply, size, true);
    for (const auto ending : {Ending::Close, Ending::Reset}) {
      for (std::size_t length = 0; length < form.text.size(); ++length) {
        SCOPED_TRACE(reply.name + " in chunks of " + std::to_string(size) + ", first " +
                     std::to_string(length) + " bytes of " + std::to_string(form.text.size()));
        const auto observed = observe(reply, form.text, length, ending);
        ASSERT_FALSE(observed.waitedForever);
        checkChunked(reply, size, form, observed, length);
        if (HasFailure()) return;
      }
    }
  }
}

// The stray bytes in front, when cut, are part of no reply either.
INSTANTIATE_TEST_SUITE_P(Corpus, EveryPrefix, testing::ValuesIn(allReplies()),
                         [](const auto& test) { return test.param.name; });

TEST(ExchangePrefix, ParseResultsThatCameBeforeTheCloseAreKeptAndTheReplyCountsAsCutOff) {
  const auto& reply = replyNamed("ParseResultWithThreeRows");
  const std::vector<std::size_t> ends(reply.recordStarts.begin() + 1, reply.recordStarts.end());
  const auto form = chunkedAt(reply, ends, true);
  for (std::size_t length = 0; length < form.text.size(); ++length) {
    SCOPED_TRACE("first " + std::to_string(length) + " bytes");
    const auto observed = observe(reply, form.text, length, Ending::Close);
    ASSERT_FALSE(observed.waitedForever);
    const auto body = bodyInWholeChunks(form, length);
    if (body == 0) {
      expectBrokenOff(observed);
    } else if (body == reply.body.size()) {
      EXPECT_EQ(observed.outcome, reply.expected);
    } else {
      expectCutOff(reply, observed, body);
    }
    if (HasFailure()) return;
  }
}

TEST(ExchangePrefix, OverLoopbackEveryPrefixOfASearchEndsAsInMemory) {
  const auto& reply = replyNamed("StreamSearchWithThreeHits");
  const auto form = chunked(reply, 16, true);
  for (std::size_t length = 0; length < form.text.size(); length += 3) {
    SCOPED_TRACE("first " + std::to_string(length) + " bytes");
    ScriptedServer server(prefixScript(form.text, length, Ending::Close));
    CorvaneRESTClient client(u"127.0.0.1", server.port(), true);
    const auto outcome = runExchange(client, reply.kind);
    const auto body = bodyInWholeChunks(form, length);
    if (body < kRecordStart) {
      ASSERT_TRUE(brokeOff(outcome)) << outcome;
      ASSERT_EQ(server.requests(), 2U);
    } else {
      const auto whole = body == reply.body.size();
      ASSERT_EQ(outcome.errorId, "");
      ASSERT_EQ(outcome.truncated, !whole);
      ASSERT_EQ(outcome.hits.size(), wholeRecords(reply, body));
    }
  }
}

}  // namespace
