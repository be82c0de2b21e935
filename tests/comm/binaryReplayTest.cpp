// Every reply of the binary protocol, cut in every way that TCP can cut it. With reassembly the
// result is always the same; without, a first portion that holds nothing whole fails, and nothing
// else does. The exchange behind it is never disturbed.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/comm/binaryFixture.h"
#include "tests/support/scriptedServer.h"

namespace {

using namespace tq::test;
using tq::comm::DrestoPerfClient;

constexpr std::size_t kReplyHeader = 2;
constexpr std::size_t kOneRead = 4096;

enum class Connection { Fresh, Persistent };
enum class Behind { Nothing, NextReply };
enum class Reassembly { Off, On };

struct Way {
  std::size_t segment;
  Connection connection;
  Behind behind;
  Reassembly reassembly;
};

std::string describe(const Way& way) {
  return "segments of " + std::to_string(way.segment) +
         (way.connection == Connection::Fresh ? ", fresh" : ", persistent") +
         (way.behind == Behind::Nothing ? ", nothing behind" : ", next reply behind") +
         (way.reassembly == Reassembly::Off ? ", as it comes" : ", put together");
}

std::vector<Way> ways(const std::vector<std::size_t>& segments) {
  std::vector<Way> all;
  for (const auto segment : segments) {
    for (const auto connection : {Connection::Fresh, Connection::Persistent}) {
      for (const auto behind : {Behind::Nothing, Behind::NextReply}) {
        for (const auto reassembly : {Reassembly::Off, Reassembly::On}) {
          all.push_back({segment, connection, behind, reassembly});
        }
      }
    }
  }
  return all;
}

// The first connection serves the reply and, when it is kept, the next one. Whoever drops it finds
// the next reply on the second.
std::vector<Script> scripts(const std::string& text, const Way& way) {
  const auto& next = nextBinaryReply().text;
  Script first;
  if (way.behind == Behind::NextReply) {
    first.expectFramedRequest().send(text + next, way.segment).expectFramedRequest().awaitClose();
  } else {
    first.expectFramedRequest().send(text, way.segment).expectFramedRequest();
    first.send(next, way.segment).awaitClose();
  }
  return {first, Script().expectFramedRequest().send(next, way.segment).awaitClose()};
}

/// What is expected when the first portion of the body ends at this position of the text.
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

/// Where the first portion ends when everything arrives in segments of that size.
std::size_t firstPortionEnd(const BinaryReply& reply, const Way& way) {
  const auto sent =
      reply.text.size() + (way.behind == Behind::NextReply ? nextBinaryReply().text.size() : 0);
  if (way.segment == 0) return sent;
  const bool headerEndsASegment = kReplyHeader % way.segment == 0;
  return std::min(sent, headerEndsASegment ? kReplyHeader + way.segment : way.segment);
}

BinaryOutcome expectedOf(const BinaryReply& reply, const Way& way) {
  if (way.reassembly == Reassembly::On) return reply.expected;
  return expectedAsItComes(reply, firstPortionEnd(reply, way));
}

void replay(const BinaryReply& reply, const Way& way, ScriptedNetwork::Arrival arrival, Pull pull,
            unsigned int timeOut = 0) {
  SCOPED_TRACE(reply.name + ", " + describe(way));
  const auto expected = expectedOf(reply, way);
  ScriptedNetwork network(scripts(reply.text, way), arrival);
  {
    auto client = binaryClient();
    client.usePeristentConnection(way.connection == Connection::Persistent);
    client.setReassembly(way.reassembly == Reassembly::On);
    client.setTimeOut(timeOut);
    EXPECT_EQ(runBinary(client, reply.kind, pull), expected);
    EXPECT_EQ(network.requests(), 1U) << "the exchange was repeated";
    EXPECT_EQ(runBinary(client, nextBinaryReply().kind), nextBinaryReply().expected)
        << "the next exchange";
  }
  EXPECT_FALSE(network.waitedForever());
  EXPECT_EQ(network.requests(), 2U);
  if (way.connection == Connection::Fresh) {
    EXPECT_EQ(network.connections(), 2U);
  } else if (way.behind == Behind::Nothing && reply.keepsConnection && expected == reply.expected) {
    EXPECT_EQ(network.connections(), 1U) << "a reply read to its end keeps its connection";
  }
}

const std::vector<std::size_t> kSegments{0, 1, 2, 3, 4, 5, 6, 7, 8, 16, 31};

class EveryBinaryReply : public testing::TestWithParam<BinaryReply> {};

TEST_P(EveryBinaryReply, MeansTheSameHoweverItIsCut) {
  const auto& reply = GetParam();
  for (const auto& way : ways(kSegments)) {
    replay(reply, way, kOnDemand, Pull::Looping);
    // What has arrived before it is asked for joins others in ways that only reassembly undoes.
    if (way.reassembly == Reassembly::On) replay(reply, way, kAllThere, Pull::Looping);
    if (HasFailure()) return;
  }
}

TEST_P(EveryBinaryReply, MeansTheSameWhereverItIsCutOnce) {
  const auto& reply = GetParam();
  const auto& text = reply.text;
  for (const bool reassembly : {false, true}) {
    for (std::size_t at = 1; at < text.size(); ++at) {
      SCOPED_TRACE("cut at " + std::to_string(at) + (reassembly ? ", put together" : ""));
      Script script;
      script.expectFramedRequest().send(text.substr(0, at)).send(text.substr(at)).awaitClose();
      ScriptedNetwork network(script, kOnDemand);
      auto client = binaryClient();
      client.setReassembly(reassembly);
      const auto portionEnd = at <= kReplyHeader ? text.size() : at;
      ASSERT_EQ(runBinary(client, reply.kind),
                reassembly ? reply.expected : expectedAsItComes(reply, portionEnd));
      ASSERT_FALSE(network.waitedForever());
      ASSERT_EQ(network.requests(), 1U);
    }
  }
}

TEST_P(EveryBinaryReply, MeansTheSameWhereverItIsCutTwice) {
  const auto& reply = GetParam();
  const auto& text = reply.text;
  const auto end = std::min<std::size_t>(text.size(), 80);
  for (std::size_t first = 1; first < end; ++first) {
    for (std::size_t second = first + 1; second < end; ++second) {
      Script script;
      script.expectFramedRequest().send(text.substr(0, first));
      script.send(text.substr(first, second - first)).send(text.substr(second)).awaitClose();
      ScriptedNetwork network(script, kOnDemand);
      auto client = binaryClient();
      client.setReassembly(true);
      ASSERT_EQ(runBinary(client, reply.kind), reply.expected) << first << " and " << second;
      ASSERT_FALSE(network.waitedForever());
    }
  }
}

TEST_P(EveryBinaryReply, MeansTheSameToAClientThatPullsEachPortionItself) {
  for (const auto& way : ways({0, 1, 5, 16})) {
    replay(GetParam(), way, kOnDemand, Pull::Single);
    if (HasFailure()) return;
  }
}

TEST_P(EveryBinaryReply, MeansTheSameWithATimeOutSet) {
  for (const auto& way : ways({0, 3, 31})) {
    replay(GetParam(), way, kOnDemand, Pull::Looping, 1000);
    if (HasFailure()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(Corpus, EveryBinaryReply, testing::ValuesIn(binaryReplies()),
                         [](const auto& test) { return test.param.name; });

// Envelopes of every length.

BinaryReply searchOf(const std::vector<std::size_t>& lengths) {
  BinaryReply reply{"Lengths", kStreamSearch, kOk};
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

const std::vector<std::vector<std::size_t>> kLengths{{0},
                                                     {1},
                                                     {65535},
                                                     {0, 65535, 0},
                                                     {1, 65535, 1},
                                                     {65535, 65535, 65535},
                                                     {4092, 4093, 16380, 16384, 32764, 32768}};

TEST(BinaryReplay, EnvelopesOfEveryLengthPass) {
  for (const auto& lengths : kLengths) {
    const auto reply = searchOf(lengths);
    for (const auto& way : ways({0, 1000, 1460, 4096, 16384, 65536})) {
      for (const auto pull : {Pull::Looping, Pull::Single}) {
        replay(reply, way, kOnDemand, pull);
        if (way.reassembly == Reassembly::On) replay(reply, way, kAllThere, pull);
        if (HasFailure()) return;
      }
    }
  }
}

TEST(BinaryReplay, ALongEnvelopePassesInTinySegments) {
  const auto reply = searchOf({1, 65535, 0});
  for (const auto reassembly : {Reassembly::Off, Reassembly::On}) {
    replay(reply, {7, Connection::Persistent, Behind::Nothing, reassembly}, kOnDemand,
           Pull::Looping);
  }
}

TEST(BinaryReplay, TheLongestContentPasses) {
  BinaryReply reply{"Content", kGetServerVersion, kOk + envelope(1, std::string(65535, 'v'))};
  reply.envelopes = {2, reply.text.size()};
  reply.expected.seen.returnCode = 0;
  reply.expected.seen.endOfStream = true;
  reply.expected.content = std::string(65535, 'v');
  for (const auto& way : ways({0, 1000, 16384})) replay(reply, way, kOnDemand, Pull::Looping);
}

TEST(BinaryReplay, TheLongestErrorRecordPasses) {
  const std::string text(65535 - 5 - 4 - 8 - 4 - 7, 'e');
  const auto record = errorRecord({{"MsgId", "ZVK0001S"}, {"MsgText", text}});
  ASSERT_EQ(record.size(), 2U + 65535U);
  BinaryReply reply{"Error", kStreamSearch, word16(6) + record,
                    binaryFailure("ZVK0001S", "(null)", 0)};
  reply.expected.seen.errorText = text;
  reply.expected.seen.errorLevel = 1;
  for (const auto& way : ways({0, 1000, 16384})) replay(reply, way, kOnDemand, Pull::Looping);
}

TEST(BinaryReplay, AHundredThousandHitsComePortionByPortionEachOnce) {
  for (const int kind : {kStreamSearch, kScalarSearch}) {
    const auto reply = longSearch(kind, 100000);
    for (const std::size_t segment : {0U, 1460U, 16384U}) {
      for (const auto reassembly : {Reassembly::Off, Reassembly::On}) {
        const Way way{segment, Connection::Persistent, Behind::Nothing, reassembly};
        replay(reply, way, kOnDemand, Pull::Looping);
        if (HasFailure()) return;
      }
    }
  }
}

TEST(BinaryReplay, APortionOfALongStreamHoldsNoMoreThanARead) {
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

// The same over real sockets, for a subset: the network in memory must not be kinder than this one.
class OverLoopback : public testing::TestWithParam<const char*> {};

TEST_P(OverLoopback, ABinaryReplyMeansTheSameHoweverItIsCut) {
  const auto& reply = binaryReplyNamed(GetParam());
  for (const auto& way : ways({0, 1, 7})) {
    // How segments join before they are read is the system's business.
    if (way.reassembly == Reassembly::Off && way.segment != 0) continue;
    SCOPED_TRACE(reply.name + ", " + describe(way));
    ScriptedServer server(scripts(reply.text, way));
    DrestoPerfClient client(u"127.0.0.1", server.port());
    client.usePeristentConnection(way.connection == Connection::Persistent);
    client.setReassembly(way.reassembly == Reassembly::On);
    ASSERT_EQ(runBinary(client, reply.kind), expectedOf(reply, way));
    ASSERT_EQ(runBinary(client, nextBinaryReply().kind), nextBinaryReply().expected);
    // Who has the next reply before asking for it may be gone before the server has been asked.
    if (way.behind == Behind::Nothing) {
      ASSERT_EQ(server.requests(), 2U);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Corpus, OverLoopback,
                         testing::Values("StreamSearchWithThreeHits", "ScalarSearchWithScores",
                                         "ParseResultWithThreeRows", "SelectivityWithThreeRecords",
                                         "GetServerVersion", "SuccessOnCreateCollection",
                                         "StatusOnly", "UnauthorizedOnStreamSearch",
                                         "RefusedOnUpdateIndex", "TroubledStatus"),
                         [](const auto& test) { return std::string(test.param); });

TEST(BinaryReplay, AHundredThousandHitsOverLoopback) {
  const auto reply = longSearch(kStreamSearch, 100000);
  const Way way{0, Connection::Persistent, Behind::Nothing, Reassembly::On};
  ScriptedServer server(scripts(reply.text, way));
  DrestoPerfClient client(u"127.0.0.1", server.port());
  client.setReassembly(true);
  EXPECT_EQ(runBinary(client, reply.kind), reply.expected);
  EXPECT_EQ(runBinary(client, nextBinaryReply().kind), nextBinaryReply().expected);
  EXPECT_EQ(server.connections(), 1U);
}

}  // namespace
