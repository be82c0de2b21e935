// Every reply, cut in every way that TCP and a chunking server can cut it: the result must be the
// same, and so must that of the exchange after it. There is one exception: without reassembly, a
// first portion of the binary protocol that holds nothing whole fails.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/comm/bothProtocols.h"
#include "tests/support/scriptedServer.h"

namespace {

using namespace tq::test;
using tq::comm::CorvaneRESTClient;

enum class Connection { Fresh, Persistent };
enum class Behind { Nothing, NextReply };

struct Way {
  std::size_t segment;
  Connection connection;
  Behind behind;
};

std::string describe(const Way& way) {
  return "segments of " + std::to_string(way.segment) +
         (way.connection == Connection::Fresh ? ", fresh" : ", persistent") +
         (way.behind == Behind::Nothing ? ", nothing behind" : ", next reply behind");
}

std::vector<Way> ways(const std::vector<std::size_t>& segments) {
  std::vector<Way> all;
  for (const auto segment : segments) {
    for (const auto connection : {Connection::Fresh, Connection::Persistent}) {
      for (const auto behind : {Behind::Nothing, Behind::NextReply}) {
        all.push_back({segment, connection, behind});
      }
    }
  }
  return all;
}

// What is expected of the binary protocol without reassembly.

constexpr std::size_t kReplyHeader = 2;
constexpr std::size_t kOneRead = 4096;

/// The outcome when the first portion of the body ends at this position of the text.
BinaryOutcome expectedAsItComes(const BinaryReply& reply, std::size_t firstPortionEnd) {
  const auto end = std::min(firstPortionEnd, kReplyHeader + kOneRead);
  if (reply.code() != 1 || reply.envelopes.empty() || end >= reply.envelopes[1]) {
    return reply.expected;
  }
  // An error in place of a version is read whole once its status has told.
  if (reply.refusesVersion() && end >= kReplyHeader + 2) return reply.expected;
  auto outcome =
      reply.kind == kGetServerVersion
          ? binaryFailure("ERR_SERVER_PROTOCOL", "kruDrestoPerfResponse", 336,
                          {"Invalid message envelope, status code not available in parseContent"})
          : finishedTooEarly();
  outcome.seen.returnCode = 0;  // the reply's header has said so
  return outcome;
}

/// A reply in one of its forms: what is on the wire, how it is taken, what must be seen.
struct Form {
  std::string description;
  bool binary;
  int kind;
  std::string text;
  BinaryOutcome expected;
  bool keepsConnection = true;
  // Only the last chunk tells that the stream has ended, and nobody waits for that.
  bool endMayBeUnseen = false;
  // Without reassembly: the reply whose first portion decides. It outlives the form.
  const BinaryReply* asItComes = nullptr;

  BinaryOutcome expectedWhen(std::size_t firstPortionEnd) const {
    return asItComes == nullptr ? expected : expectedAsItComes(*asItComes, firstPortionEnd);
  }
  std::unique_ptr<CorvaneRESTClient> client(unsigned int port = 7) const {
    return clientFor(binary, asItComes == nullptr, port);
  }
};

std::vector<Form> formsOf(const Reply& reply, const std::vector<std::size_t>& chunkSizes) {
  std::vector<Form> forms{{reply.name, false, reply.kind, plain(reply), {reply.expected}}};
  for (const auto size : chunkSizes) {
    for (const bool last : {true, false}) {
      // Without an end mark or a last chunk nothing would tell where such a reply ends.
      if (!last && !reply.endMark && reply.kind == kSelectivity) continue;
      Form form{
          reply.name + " in chunks of " + std::to_string(size) + (last ? "" : " without the last"),
          false,
          reply.kind,
          chunked(reply, size, last).text,
          {expectedInChunks(reply, size)}};
      // A reply that is refused in its middle is not read to its end.
      form.keepsConnection = last && form.expected.seen == reply.expected;
      form.endMayBeUnseen = reply.kind == kSelectivity;
      forms.push_back(std::move(form));
    }
  }
  return forms;
}

/// The binary protocol knows no chunks.
std::vector<Form> formsOf(const BinaryReply& reply, const std::vector<std::size_t>&) {
  const Form whole{reply.name + " put together", true, reply.kind, reply.text, reply.expected,
                   reply.keepsConnection};
  Form asItComes = whole;
  asItComes.description = reply.name + " as it comes";
  asItComes.asItComes = &reply;
  return {asItComes, whole};
}

std::vector<Form> formsOf(const EitherReply& reply, const std::vector<std::size_t>& chunkSizes) {
  return reply.visit([&](const auto& one) { return formsOf(one, chunkSizes); });
}

/// What arrives before it is asked for joins others in ways that only reassembly undoes.
std::vector<ScriptedNetwork::Arrival> arrivalsOf(const Form& form) {
  if (form.asItComes != nullptr) return {kOnDemand};
  return {kAllThere, kOnDemand};
}

/// Where the first portion ends when everything arrives in segments of that size.
std::size_t firstPortionEnd(const Form& form, const Way& way) {
  const auto& next = nextOver(form.binary).text;
  const auto sent = form.text.size() + (way.behind == Behind::NextReply ? next.size() : 0);
  if (way.segment == 0) return sent;
  const bool headerEndsASegment = kReplyHeader % way.segment == 0;
  return std::min(sent, headerEndsASegment ? kReplyHeader + way.segment : way.segment);
}

// The first connection serves the reply and, when it is kept, the next one. Whoever drops it finds
// the next reply on the second.
std::vector<Script> scripts(const Form& form, const Way& way) {
  const Replies replies(form.binary);
  const auto& next = nextOver(form.binary).text;
  Script first;
  if (way.behind == Behind::NextReply) {
    replies.expect(first).send(form.text + next, way.segment);
    replies.expect(first).awaitClose();
  } else {
    replies.expect(first).send(form.text, way.segment);
    replies.expect(first).send(next, way.segment).awaitClose();
  }
  return {first, answerTo(form.binary, next, way.segment).awaitClose()};
}

BinaryOutcome run(CorvaneRESTClient& client, const Form& form, Pull pull = Pull::Looping) {
  auto outcome = runOver(client, form.kind, pull);
  if (form.endMayBeUnseen && outcome.seen.errorId.empty()) outcome.seen.endOfStream = true;
  return outcome;
}

void expectTheNext(CorvaneRESTClient& client, const Form& form) {
  const auto& next = nextOver(form.binary);
  EXPECT_EQ(runOver(client, next.kind), next.expected) << "the next exchange";
}

void replay(const Form& form, const Way& way, ScriptedNetwork::Arrival arrival, Pull pull,
            unsigned int timeOut = 0) {
  SCOPED_TRACE(form.description + ", " + describe(way));
  const auto expected = form.expectedWhen(firstPortionEnd(form, way));
  ScriptedNetwork network(scripts(form, way), arrival);
  {
    const auto client = form.client();
    client->usePeristentConnection(way.connection == Connection::Persistent);
    client->setTimeOut(timeOut);
    EXPECT_EQ(run(*client, form, pull), expected);
    EXPECT_EQ(network.requests(), 1U) << "the exchange was repeated";
    expectTheNext(*client, form);
  }
  EXPECT_FALSE(network.waitedForever());
  EXPECT_EQ(network.requests(), 2U);
  if (way.connection == Connection::Fresh) {
    EXPECT_EQ(network.connections(), 2U);
  } else if (way.behind == Behind::Nothing && form.keepsConnection && expected == form.expected) {
    EXPECT_EQ(network.connections(), 1U) << "after a whole reply the connection is kept";
  }
}

/// Stops at the first failure, which would be followed by hundreds of the same.
void replayAll(const std::vector<Form>& forms, const std::vector<Way>& ways, Pull pull,
               unsigned int timeOut = 0) {
  for (const auto& form : forms) {
    for (const auto& way : ways) {
      for (const auto arrival : arrivalsOf(form)) {
        replay(form, way, arrival, pull, timeOut);
        if (testing::Test::HasFailure()) return;
      }
    }
  }
}

class EveryReply : public testing::TestWithParam<EitherReply> {};

TEST_P(EveryReply, MeansTheSameHoweverItIsCut) {
  replayAll(formsOf(GetParam(), {0, 1, 2, 7, 16, 1000}), ways({0, 1, 2, 3, 4, 5, 6, 7, 8, 16, 31}),
            Pull::Looping);
}

TEST_P(EveryReply, MeansTheSameWhereverItIsCutOnce) {
  for (const auto& form : formsOf(GetParam(), {0, 7})) {
    for (std::size_t at = 1; at < form.text.size(); ++at) {
      SCOPED_TRACE(form.description + ", cut at " + std::to_string(at));
      ScriptedNetwork network(
          answerTo(form.binary, form.text.substr(0, at)).send(form.text.substr(at)).awaitClose(),
          kOnDemand);
      const auto client = form.client();
      const auto portionEnd = at <= kReplyHeader ? form.text.size() : at;
      ASSERT_EQ(run(*client, form), form.expectedWhen(portionEnd));
      ASSERT_FALSE(network.waitedForever());
      ASSERT_EQ(network.requests(), 1U);
      ASSERT_EQ(network.connections(), 1U);
    }
  }
}

TEST_P(EveryReply, MeansTheSameToAClientThatPullsEachPortionItself) {
  replayAll(formsOf(GetParam(), {0, 1, 7, 16}), ways({0, 1, 5, 16}), Pull::Single);
}

TEST_P(EveryReply, MeansTheSameWithATimeOutSet) {
  replayAll(formsOf(GetParam(), {0, 7}), ways({0, 3, 31}), Pull::Looping, 1000);
}

INSTANTIATE_TEST_SUITE_P(Http, EveryReply, testing::ValuesIn(either(allReplies())), testNameOf);
INSTANTIATE_TEST_SUITE_P(Binary, EveryReply, testing::ValuesIn(either(binaryReplies())),
                         testNameOf);

// Long replies.

std::string nameOfSearch(const std::vector<std::size_t>& lengths) {
  std::string name = "EnvelopesOf";
  for (const auto length : lengths) {
    if (name.back() != 'f') name += "And";
    name += std::to_string(length);
  }
  return name;
}

BinaryReply searchOf(const std::vector<std::size_t>& lengths) {
  BinaryReply reply{nameOfSearch(lengths), kStreamSearch, kOk};
  reply.expected.seen.returnCode = 0;
  reply.expected.seen.endOfStream = true;
  for (const auto length : lengths) {
    const std::string key(length, static_cast<char>('a' + reply.envelopes.size()));
    reply.envelopes.push_back(reply.text.size());
    // An empty payload is a hit as long as its status is not that of the end.
    reply.text += envelope(2, key);
    reply.expected.seen.hits.push_back({idOfKey(key), 0.0});
  }
  reply.envelopes.push_back(reply.text.size());
  reply.text += endOfResults();
  reply.envelopes.push_back(reply.text.size());
  return reply;
}

BinaryReply longestContent() {
  const std::string text(65535, 'v');
  BinaryReply reply{"LongestContent", kGetServerVersion, kOk + envelope(1, text)};
  reply.envelopes = {kReplyHeader, reply.text.size()};
  reply.expected.seen.returnCode = 0;
  reply.expected.seen.endOfStream = true;
  reply.expected.content = text;
  return reply;
}

BinaryReply longestErrorRecord() {
  // The record of both fields, with a length before each key and value, has 65535 bytes.
  const std::string text(65535 - 2 - 5 - 2 - 8 - 2 - 7 - 2, 'e');
  BinaryReply reply{"LongestErrorRecord", kStreamSearch,
                    word16(6) + errorRecord({{"MsgId", "ZVK0001S"}, {"MsgText", text}}),
                    binaryFailure("ZVK0001S", "(null)", 0)};
  reply.expected.seen.errorText = text;
  reply.expected.seen.errorLevel = 1;
  return reply;
}

std::vector<EitherReply> longBinaryReplies() {
  std::vector<EitherReply> replies{madeOnce("LongestContent", longestContent),
                                   madeOnce("LongestErrorRecord", longestErrorRecord)};
  const std::vector<std::vector<std::size_t>> searches{{0},
                                                       {1},
                                                       {65535},
                                                       {0, 65535, 0},
                                                       {1, 65535, 0},
                                                       {1, 65535, 1},
                                                       {65535, 65535, 65535},
                                                       {4092, 4093, 16380, 16384, 32764, 32768}};
  for (const auto& lengths : searches) {
    replies.push_back(madeOnce(nameOfSearch(lengths), [lengths] { return searchOf(lengths); }));
  }
  return replies;
}

TEST(ExchangeReplay, TheLongestErrorRecordHasTheLongestLength) {
  EXPECT_EQ(longestErrorRecord().text.substr(2, 2), word16(65535));
  EXPECT_EQ(longestErrorRecord().text.size(), 2U + 2U + 65535U);
}

class LongReply : public testing::TestWithParam<EitherReply> {};

// Chunks shorter than a whole parse result's reply cut one of its records: refused, each time.
const std::vector<std::size_t> kLongChunks{0, 1000, 16384, 40000};
const std::vector<std::size_t> kLongSegments{0, 1000, 1460, 4096, 16384, 65536};

TEST_P(LongReply, MeansTheSameHoweverItIsCut) {
  replayAll(formsOf(GetParam(), kLongChunks), ways(kLongSegments), Pull::Looping);
}

TEST_P(LongReply, MeansTheSameToAClientThatPullsEachPortionItself) {
  replayAll(formsOf(GetParam(), {0, 1000}), ways(kLongSegments), Pull::Single);
}

TEST_P(LongReply, ArrivesWholeInTinySegments) {
  for (const auto& form : formsOf(GetParam(), {0})) {
    replay(form, {7, Connection::Persistent, Behind::Nothing}, kOnDemand, Pull::Looping);
  }
}

INSTANTIATE_TEST_SUITE_P(Http, LongReply, testing::ValuesIn(httpNamed(longReplyNames())),
                         testNameOf);
INSTANTIATE_TEST_SUITE_P(Binary, LongReply, testing::ValuesIn(longBinaryReplies()), testNameOf);

// The same over real sockets, for a subset: the network in memory must not be kinder than this one.

class ReplyOverLoopback : public testing::TestWithParam<EitherReply> {
 protected:
  static void replayOnSockets(const Form& form, const Way& way) {
    SCOPED_TRACE(form.description + ", " + describe(way));
    ScriptedServer server(scripts(form, way));
    const auto client = form.client(server.port());
    client->usePeristentConnection(way.connection == Connection::Persistent);
    const auto expected = form.expectedWhen(firstPortionEnd(form, way));
    ASSERT_EQ(run(*client, form), expected);
    expectTheNext(*client, form);
    // A binary client that has the next reply before asking for it may be gone before the server
    // has been asked.
    if (form.binary && way.behind == Behind::NextReply) return;
    server.awaitRequests(2);
    ASSERT_EQ(server.requests(), 2U);
    if (way.connection == Connection::Persistent && way.behind == Behind::Nothing &&
        form.keepsConnection && expected == form.expected) {
      EXPECT_EQ(server.connections(), 1U);
    }
  }
};

TEST_P(ReplyOverLoopback, MeansTheSameHoweverItIsCut) {
  for (const auto& form : formsOf(GetParam(), {0, 7})) {
    for (const auto& way : ways({0, 1, 7})) {
      // How segments join before they are read is the system's business.
      if (form.asItComes != nullptr && way.segment != 0) continue;
      replayOnSockets(form, way);
      if (HasFailure()) return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Http, ReplyOverLoopback,
    testing::ValuesIn(httpNamed({"StreamSearchWithThreeHits", "ScalarSearchWithThreeHits",
                                 "ParseResultWithThreeRows", "Selectivity", "GetStatus",
                                 "CreateCollectionWithoutBody", "ServerErrorOnStreamSearch",
                                 "BadRequestOnUpdateIndex", "SearchBehindAnInterimReply"})),
    testNameOf);
INSTANTIATE_TEST_SUITE_P(
    Binary, ReplyOverLoopback,
    testing::ValuesIn(binaryNamed(
        {"StreamSearchWithThreeHits", "ScalarSearchWithScores", "ParseResultWithThreeRows",
         "SelectivityWithThreeRecords", "GetServerVersion", "SuccessOnCreateCollection",
         "StatusOnly", "UnauthorizedOnStreamSearch", "RefusedOnUpdateIndex", "TroubledStatus"})),
    testNameOf);

class LongReplyOverLoopback : public ReplyOverLoopback {};

TEST_P(LongReplyOverLoopback, MeansTheSameHoweverItIsCut) {
  for (const auto& form : formsOf(GetParam(), {0, 1000})) {
    if (form.asItComes != nullptr) continue;
    for (const std::size_t segment : {0U, 30000U}) {
      replayOnSockets(form, {segment, Connection::Persistent, Behind::Nothing});
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Http, LongReplyOverLoopback,
                         testing::ValuesIn(httpNamed({"FourThousandStreamedHits",
                                                      "FourThousandScalarHits", "OneVeryLongHit"})),
                         testNameOf);
INSTANTIATE_TEST_SUITE_P(
    Binary, LongReplyOverLoopback,
    testing::Values(madeOnce("LongSearch", [] { return longSearch(kStreamSearch, 100000); })),
    testNameOf);

// One protocol's own.

TEST(ExchangeReplay, OverLoopbackChunksMeanTheSameInSegmentsOfOneByte) {
  const auto& reply = replyNamed("StreamSearchWithThreeHits");
  for (const auto& form : formsOf(reply, {16})) {
    SCOPED_TRACE(form.description);
    ScriptedServer server(scripts(form, {1, Connection::Persistent, Behind::Nothing}));
    const auto client = form.client(server.port());
    ASSERT_EQ(run(*client, form), form.expected);
    expectTheNext(*client, form);
  }
}

class EveryBinaryReply : public testing::TestWithParam<EitherReply> {};

TEST_P(EveryBinaryReply, PutTogetherMeansTheSameWhereverItIsCutTwice) {
  const auto& reply = binaryReplyNamed(GetParam().name());
  const auto& text = reply.text;
  const auto end = std::min<std::size_t>(text.size(), 80);
  for (std::size_t first = 1; first < end; ++first) {
    for (std::size_t second = first + 1; second < end; ++second) {
      ScriptedNetwork network(answerTo(true, text.substr(0, first))
                                  .send(text.substr(first, second - first))
                                  .send(text.substr(second))
                                  .awaitClose(),
                              kOnDemand);
      const auto client = clientFor(true, true);
      ASSERT_EQ(runOver(*client, reply.kind), reply.expected) << first << " and " << second;
      ASSERT_FALSE(network.waitedForever());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Corpus, EveryBinaryReply, testing::ValuesIn(either(binaryReplies())),
                         testNameOf);

TEST(ExchangeReplay, AHundredThousandBinaryHitsComePortionByPortionEachOnce) {
  for (const int kind : {kStreamSearch, kScalarSearch}) {
    const auto reply = longSearch(kind, 100000);
    for (const auto& form : formsOf(reply, {})) {
      for (const std::size_t segment : {0U, 1460U, 16384U}) {
        replay(form, {segment, Connection::Persistent, Behind::Nothing}, kOnDemand, Pull::Looping);
        if (HasFailure()) return;
      }
    }
  }
}

TEST(ExchangeReplay, APortionOfALongBinaryStreamHoldsNoMoreThanARead) {
  const auto reply = longSearch(kStreamSearch, 100000);
  ScriptedNetwork network(answer(reply.text));
  auto client = binaryClient();
  auto request = requestFor(kStreamSearch);
  tq::comm::ClientResponse response;
  client.sendAndRecvMesg(request, response);
  std::size_t hits = response.getSearchResponse().count();
  while (!client.isEndOfStream()) {
    client.recv(response);
    const std::size_t portion = response.getSearchResponse().count();
    // The shortest of these envelopes has eleven bytes.
    ASSERT_LE(portion, kOneRead / 11 + 1);
    hits += portion;
  }
  EXPECT_EQ(hits, 100000U);
  EXPECT_FALSE(client.isTruncated());
}

}  // namespace
