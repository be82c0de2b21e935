// Every proper prefix of every reply, followed by a close or a reset: the failure that belongs to
// it, or a stream that says that it was cut off; never a wrong, lost or doubled hit, and never
// anything for the exchange after it.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "tests/comm/bothProtocols.h"
#include "tests/support/sanitized.h"
#include "tests/support/scriptedServer.h"

namespace {

using namespace tq::test;

enum class Ending { Close, Reset };

/// What a prefix made of its exchange.
struct Observed {
  BinaryOutcome outcome;
  std::size_t requests;
};

/// A reply in one of its forms, and how an exchange is held against what it must make of a prefix.
struct Form {
  std::string description;
  bool binary;
  bool reassembly;
  int kind;
  std::string text;
  std::function<void(const Observed&, std::size_t length, Ending)> check;
};

// Over HTTP.

bool brokeOff(const Outcome& outcome) { return outcome.errorId == "ERR_SERVER_COMM_RECV"; }

void expectBrokenOff(const Observed& observed) {
  const auto& outcome = observed.outcome.seen;
  EXPECT_EQ(outcome.errorId, "ERR_SERVER_COMM_RECV") << outcome;
  EXPECT_EQ(outcome.errorArguments, kHostAndPort);
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
  EXPECT_EQ(observed.outcome.seen, expected);
  EXPECT_EQ(observed.requests, 1U);
}

void expectWhole(const Reply& reply, const Observed& observed) {
  auto outcome = observed.outcome.seen;
  // Only its last chunk, which nobody waits for, tells that an estimate's stream has ended.
  if (reply.kind == kSelectivity && outcome.errorId.empty()) outcome.endOfStream = true;
  EXPECT_EQ(outcome, reply.expected);
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
  if (body == reply.body.size()) return expectWhole(reply, observed);
  if (wholeRecords(reply, body) == 0 && brokeOff(observed.outcome.seen)) {
    return expectBrokenOff(observed);
  }
  expectCutOff(reply, observed, body);
}

void checkChunked(const Reply& reply, std::size_t size, const Chunked& form,
                  const Observed& observed, std::size_t length) {
  const auto body = bodyInWholeChunks(form, length);
  if (reply.body.empty()) {
    // The last chunk's line ends such a reply; the empty line after it is not waited for.
    if (length + 2 >= form.text.size()) return expectWhole(reply, observed);
    return expectBrokenOff(observed);
  }
  if (reply.streamed) return checkStreamed(reply, observed, body);
  if (hasOneRecord(reply)) {
    return body == reply.body.size() ? expectWhole(reply, observed) : expectBrokenOff(observed);
  }
  if (!reply.recordsMustBeWhole) {
    // Nobody reads such a body; its first chunk says all that there is to say.
    return body != 0 ? expectWhole(reply, observed) : expectBrokenOff(observed);
  }
  if (body < std::min(kRecordStart, reply.body.size())) return expectBrokenOff(observed);
  EXPECT_EQ(observed.outcome.seen, expectedInChunks(reply, size));
}

/// What is shorter than its length line says is no answer at all.
Form withItsLength(const Reply& reply) {
  return {reply.name,   false,
          false,        reply.kind,
          plain(reply), [](const Observed& observed, auto, auto) { expectBrokenOff(observed); }};
}

Form inChunks(const Reply& reply, std::size_t size) {
  auto form = chunked(reply, size, true);
  const auto text = form.text;
  const auto check = [&reply, size, form = std::move(form)](const Observed& observed,
                                                            std::size_t length, auto) {
    checkChunked(reply, size, form, observed, length);
  };
  return {
      reply.name + " in chunks of " + std::to_string(size), false, false, reply.kind, text, check};
}

std::vector<Form> formsOf(const Reply& reply) {
  std::vector<Form> forms{withItsLength(reply)};
  for (const std::size_t size : {0U, 1U, 7U, 16U, 60U}) forms.push_back(inChunks(reply, size));
  return forms;
}

// Over the binary protocol.

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

Observed once(BinaryOutcome outcome) { return {std::move(outcome), 1}; }
Observed repeated(BinaryOutcome outcome) { return {std::move(outcome), 2}; }

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

Observed putTogether(const Prefix& prefix) {
  const bool anything = !prefix.reply.envelopes.empty() && prefix.wholeEnvelopes() != 0;
  if (!anything) return repeated(noReply(-1));
  // An estimate is awaited within the exchange; portions of a stream are not repeated.
  auto expected = prefix.reply.kind == kSelectivity ? repeated(noReply(0)) : once(noReply(0));
  addResults(prefix, expected.outcome);
  return expected;
}

Observed ofErrorAsItComes(const Prefix& prefix) {
  if (prefix.ending == Ending::Reset) return once(unknown(113, -1));
  if (prefix.reply.kind != kGetStatus) return once(binaryFailure("ERR_SERVER_APP", "(null)", 0));
  auto outcome = truncated();
  outcome.seen.statusCode = 2;
  outcome.statusMessageId = "ERR_SERVER_APP";
  return once(outcome);
}

Observed ofResultsAsTheyCome(const Prefix& prefix) {
  const int kind = prefix.reply.kind;
  if (prefix.length == 2) {
    return once(prefix.ending == Ending::Reset ? unknown(113, -1) : emptyBody(kind));
  }
  // What is known for an error is read on.
  if (prefix.reply.refusesVersion() && prefix.length >= 4 && prefix.ending == Ending::Reset) {
    return once(unknown(113, -1));
  }
  if (prefix.wholeEnvelopes() == 0) return once(nothingWhole(kind));
  BinaryOutcome expected;
  if (prefix.ending == Ending::Reset) {
    expected = unknown(kind == kSelectivity ? 113 : 147, 0);
  } else if (prefix.endsBetweenEnvelopes()) {
    expected = emptyBody(kind);
  } else {
    expected = truncated();
  }
  addResults(prefix, expected);
  return once(expected);
}

Observed expectedOf(const Prefix& prefix, bool reassembly) {
  if (prefix.length < 2) {
    if (prefix.ending == Ending::Reset && !reassembly) return once(unknown(113, -1));
    return repeated(noReply(-1));
  }
  if (reassembly) return putTogether(prefix);
  return prefix.reply.code() == 6 ? ofErrorAsItComes(prefix) : ofResultsAsTheyCome(prefix);
}

Form binaryForm(const BinaryReply& reply, bool reassembly) {
  const auto check = [&reply, reassembly](const Observed& observed, std::size_t length,
                                          Ending ending) {
    const auto expected = expectedOf({reply, length, ending}, reassembly);
    EXPECT_EQ(observed.outcome, expected.outcome);
    EXPECT_EQ(observed.requests, expected.requests);
  };
  return {reply.name + (reassembly ? " put together" : " as it comes"),
          true,
          reassembly,
          reply.kind,
          reply.text,
          check};
}

std::vector<Form> formsOf(const BinaryReply& reply) {
  return {binaryForm(reply, false), binaryForm(reply, true)};
}

// Over both.

std::vector<Form> formsOf(const EitherReply& reply) {
  return reply.visit([](const auto& one) { return formsOf(one); });
}

std::string describe(const Form& form, std::size_t length, Ending ending) {
  return form.description + ", first " + std::to_string(length) + " of " +
         std::to_string(form.text.size()) + " bytes and " +
         (ending == Ending::Close ? "a close" : "a reset");
}

Script prefixScript(const Form& form, std::size_t length, Ending ending, std::size_t segment = 0) {
  auto script = answerTo(form.binary, form.text.substr(0, length), segment);
  return ending == Ending::Reset ? script.reset() : script;
}

/// Holds every prefix against the form's check. Stops at the first failure, which would be followed
/// by hundreds of the same.
void checkEveryPrefix(const Form& form, Pull pull, std::size_t segment = 0) {
  for (const auto ending : {Ending::Close, Ending::Reset}) {
    for (std::size_t length = 0; length < form.text.size(); ++length) {
      SCOPED_TRACE(describe(form, length, ending));
      ScriptedNetwork network(prefixScript(form, length, ending, segment), kOnDemand);
      const auto client = clientFor(form.binary, form.reassembly);
      const auto outcome = runOver(*client, form.kind, pull);
      ASSERT_FALSE(network.waitedForever());
      form.check({outcome, network.requests()}, length, ending);
      if (testing::Test::HasFailure()) return;
    }
  }
}

class EveryPrefix : public testing::TestWithParam<EitherReply> {};

TEST_P(EveryPrefix, BringsWhatCameWholeAndTheFailureThatBelongsToIt) {
  for (const auto& form : formsOf(GetParam())) {
    checkEveryPrefix(form, Pull::Looping);
    if (HasFailure()) return;
  }
}

TEST_P(EveryPrefix, BringsTheSameToAClientThatPullsEachPortionItself) {
  for (const auto& form : formsOf(GetParam())) {
    checkEveryPrefix(form, Pull::Single);
    if (HasFailure()) return;
  }
}

TEST_P(EveryPrefix, LeavesNothingForTheExchangeBehindIt) {
  for (const auto& form : formsOf(GetParam())) {
    const auto& next = nextOver(form.binary);
    for (std::size_t length = 0; length < form.text.size(); ++length) {
      SCOPED_TRACE(describe(form, length, Ending::Close));
      ScriptedNetwork network({prefixScript(form, length, Ending::Close),
                               answerTo(form.binary, next.text).awaitClose()},
                              kOnDemand);
      const auto client = clientFor(form.binary, form.reassembly);
      // A repeated exchange would be given the next one's reply.
      client->setNumRetries(0);
      runOver(*client, form.kind);
      client->setNumRetries(1);
      ASSERT_EQ(runOver(*client, next.kind), next.expected);
    }
  }
}

// The stray bytes in front, when cut, are part of no reply either.
INSTANTIATE_TEST_SUITE_P(Http, EveryPrefix, testing::ValuesIn(either(allReplies())), testNameOf);
INSTANTIATE_TEST_SUITE_P(Binary, EveryPrefix, testing::ValuesIn(either(binaryReplies())),
                         testNameOf);

std::vector<Form> fortyHitsInOneForm() {
  return {inChunks(replyNamed("StreamSearchWithFortyHits"), 16),
          binaryForm(binaryReplyNamed("StreamSearchWithFortyHits"), true)};
}

const std::vector<std::size_t> kSegments =
    kSanitized ? std::vector<std::size_t>{7} : std::vector<std::size_t>{1, 3, 7, 16};

TEST(ExchangePrefix, InSegmentsBringsEachHitOnceAndThenTheFailure) {
  for (const auto& form : fortyHitsInOneForm()) {
    for (const std::size_t segment : kSegments) {
      SCOPED_TRACE("segments of " + std::to_string(segment));
      checkEveryPrefix(form, Pull::Looping, segment);
    }
  }
}

TEST(ExchangePrefix, ParseResultsThatCameBeforeTheCloseAreKeptAndTheReplyCountsAsCutOff) {
  const auto& reply = replyNamed("ParseResultWithThreeRows");
  const std::vector<std::size_t> ends(reply.recordStarts.begin() + 1, reply.recordStarts.end());
  const auto chunks = chunkedAt(reply, ends, true);
  const auto check = [&](const Observed& observed, std::size_t length, auto) {
    const auto body = bodyInWholeChunks(chunks, length);
    if (body == 0) return expectBrokenOff(observed);
    if (body == reply.body.size()) return expectWhole(reply, observed);
    expectCutOff(reply, observed, body);
  };
  checkEveryPrefix({reply.name, false, false, reply.kind, chunks.text, check}, Pull::Looping);
}

class PrefixOverLoopback : public testing::TestWithParam<EitherReply> {
 protected:
  /// The form that means the same however the system joins what has arrived.
  static Form formOf(const Reply& reply) { return inChunks(reply, 16); }
  static Form formOf(const BinaryReply& reply) { return binaryForm(reply, true); }
};

TEST_P(PrefixOverLoopback, EndsAsInMemory) {
  const auto form = GetParam().visit([](const auto& reply) { return formOf(reply); });
  for (std::size_t length = 0; length < form.text.size(); length += 3) {
    SCOPED_TRACE(describe(form, length, Ending::Close));
    ScriptedServer server(prefixScript(form, length, Ending::Close));
    const auto client = clientFor(form.binary, form.reassembly, server.port());
    auto outcome = runOver(*client, form.kind);
    auto& arguments = outcome.seen.errorArguments;
    if (!arguments.empty()) {
      ASSERT_EQ(arguments.back(), std::to_string(server.port()));
      arguments = kHostAndPort;
    }
    form.check({outcome, server.requests()}, length, Ending::Close);
    if (HasFailure()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(Http, PrefixOverLoopback,
                         testing::ValuesIn(httpNamed({"StreamSearchWithThreeHits",
                                                      "ScalarSearchWithOneHit", "GetStatus"})),
                         testNameOf);
INSTANTIATE_TEST_SUITE_P(
    Binary, PrefixOverLoopback,
    testing::ValuesIn(binaryNamed({"StreamSearchWithThreeHits", "ParseResultWithOneRow",
                                   "Selectivity", "RefusedOnStreamSearch", "GetServerVersion"})),
    testNameOf);

}  // namespace
