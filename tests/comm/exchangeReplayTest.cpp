// Every reply of the corpus, cut in every way that TCP and a chunking server can cut it: the result
// must be the same, and so must that of the exchange behind it.

#include <gtest/gtest.h>

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

// The first connection serves the reply and, when it is kept, the next one. Whoever drops it finds
// the next reply on the second.
std::vector<Script> scripts(const std::string& text, const Way& way) {
  const auto next = plain(nextReply());
  Script first;
  if (way.behind == Behind::NextReply) {
    first.expectRequest().send(text + next, way.segment).expectRequest().awaitClose();
  } else {
    first.expectRequest().send(text, way.segment).expectRequest().send(next, way.segment);
    first.awaitClose();
  }
  return {first, Script().expectRequest().send(next, way.segment).awaitClose()};
}

// One form of a reply: its text, and what is expected of it.
struct Form {
  std::string description;
  std::string text;
  Outcome expected;
  bool keepsConnection;
};

std::vector<Form> formsOf(const Reply& reply, const std::vector<std::size_t>& chunkSizes) {
  std::vector<Form> forms{{"plain", plain(reply), reply.expected, true}};
  for (const auto size : chunkSizes) {
    for (const bool last : {true, false}) {
      // Without an end mark or a last chunk nothing would tell where such a reply ends.
      if (!last && !reply.endMark && reply.kind == kSelectivity) continue;
      const auto expected = expectedInChunks(reply, size);
      // A reply that is refused in its middle is not read to its end.
      const bool readToItsEnd = last && expected == reply.expected;
      forms.push_back({"chunks of " + std::to_string(size) + (last ? "" : " without the last"),
                       chunked(reply, size, last).text, expected, readToItsEnd});
    }
  }
  return forms;
}

// An estimate's reply has no end mark: in chunks, the end of its stream is told by the last chunk,
// which nobody waits for.
void forgetEnd(const Reply& reply, const Form& form, Outcome& outcome) {
  if (reply.kind == kSelectivity && form.description != "plain" && outcome.errorId.empty()) {
    outcome.endOfStream = true;
  }
}

void replay(const Reply& reply, const Form& form, const Way& way, ScriptedNetwork::Arrival arrival,
            Pull pull) {
  SCOPED_TRACE(reply.name + ", " + form.description + ", " + describe(way));
  ScriptedNetwork network(scripts(form.text, way), arrival);
  {
    CorvaneRESTClient client(u"127.0.0.1", 7, way.connection == Connection::Persistent);
    auto outcome = runExchange(client, reply.kind, pull);
    forgetEnd(reply, form, outcome);
    EXPECT_EQ(outcome, form.expected);
    EXPECT_EQ(network.requests(), 1U) << "the exchange was repeated";
    EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected) << "the next exchange";
  }
  EXPECT_FALSE(network.waitedForever());
  EXPECT_EQ(network.requests(), 2U);
  const bool kept = way.connection == Connection::Persistent && way.behind == Behind::Nothing &&
                    form.keepsConnection;
  if (kept) {
    EXPECT_EQ(network.connections(), 1U) << "a reply read to its end keeps its connection";
  }
  if (way.connection == Connection::Fresh) {
    EXPECT_EQ(network.connections(), 2U);
  }
}

constexpr auto kAllThere = ScriptedNetwork::Arrival::AllThere;
constexpr auto kOnDemand = ScriptedNetwork::Arrival::OnDemand;

class EveryReply : public testing::TestWithParam<Reply> {};

TEST_P(EveryReply, MeansTheSameHoweverItIsCut) {
  const auto& reply = GetParam();
  for (const auto& form : formsOf(reply, {0, 1, 2, 7, 16, 1000})) {
    for (const auto& way : ways({0, 1, 2, 3, 4, 5, 6, 7, 8, 16, 31})) {
      for (const auto arrival : {kAllThere, kOnDemand}) {
        replay(reply, form, way, arrival, Pull::Looping);
        if (HasFailure()) return;
      }
    }
  }
}

TEST_P(EveryReply, MeansTheSameWhereverItIsCutOnce) {
  const auto& reply = GetParam();
  for (const auto& form : formsOf(reply, {0, 7})) {
    for (std::size_t at = 1; at < form.text.size(); ++at) {
      SCOPED_TRACE(reply.name + ", " + form.description + ", cut at " + std::to_string(at));
      Script script;
      script.expectRequest().send(form.text.substr(0, at)).send(form.text.substr(at)).awaitClose();
      ScriptedNetwork network(script, kOnDemand);
      CorvaneRESTClient client(u"127.0.0.1", 7, true);
      auto outcome = runExchange(client, reply.kind, Pull::Looping);
      forgetEnd(reply, form, outcome);
      ASSERT_EQ(outcome, form.expected);
      ASSERT_FALSE(network.waitedForever());
      ASSERT_EQ(network.connections(), 1U);
    }
  }
}

TEST_P(EveryReply, MeansTheSameToAClientThatPullsEachPortionItself) {
  const auto& reply = GetParam();
  for (const auto& form : formsOf(reply, {0, 1, 7, 16})) {
    for (const auto& way : ways({0, 5})) {
      replay(reply, form, way, kOnDemand, Pull::Single);
      if (HasFailure()) return;
    }
  }
}

TEST_P(EveryReply, MeansTheSameWithATimeOutSet) {
  const auto& reply = GetParam();
  for (const auto& form : formsOf(reply, {0, 7})) {
    ScriptedNetwork network(scripts(form.text, {3, Connection::Persistent, Behind::Nothing}),
                            kOnDemand);
    CorvaneRESTClient client(u"127.0.0.1", 7, true);
    client.setTimeOut(1000);
    auto outcome = runExchange(client, reply.kind);
    forgetEnd(reply, form, outcome);
    EXPECT_EQ(outcome, form.expected) << form.description;
    EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected) << form.description;
    EXPECT_FALSE(network.waitedForever());
    EXPECT_EQ(network.requests(), 2U);
  }
}

std::string nameOf(const testing::TestParamInfo<Reply>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Corpus, EveryReply, testing::ValuesIn(allReplies()), nameOf);

class LongReply : public testing::TestWithParam<Reply> {};

TEST_P(LongReply, MeansTheSameHoweverItIsCut) {
  const auto& reply = GetParam();
  // Chunks shorter than a whole parse result's reply cut one of its records: refused, each time.
  for (const auto& form : formsOf(reply, {0, 1000, 16384, 40000})) {
    for (const auto& way : ways({0, 1000, 16384, 65536})) {
      for (const auto arrival : {kAllThere, kOnDemand}) {
        replay(reply, form, way, arrival, Pull::Looping);
        if (HasFailure()) return;
      }
    }
  }
}

TEST_P(LongReply, ArrivesWholeInTinySegments) {
  const auto& reply = GetParam();
  for (const auto& form : formsOf(reply, {0})) {
    replay(reply, form, {7, Connection::Persistent, Behind::Nothing}, kOnDemand, Pull::Looping);
  }
}

INSTANTIATE_TEST_SUITE_P(Corpus, LongReply, testing::ValuesIn(longReplies()), nameOf);

// The same over real sockets, for a subset: the network in memory must not be kinder than this one.
class OverLoopback : public testing::TestWithParam<const char*> {};

TEST_P(OverLoopback, AReplyMeansTheSameHoweverItIsCut) {
  const auto& reply = replyNamed(GetParam());
  for (const auto& form : formsOf(reply, {0, 7})) {
    for (const auto& way : ways({0, 1, 7})) {
      SCOPED_TRACE(reply.name + ", " + form.description + ", " + describe(way));
      ScriptedServer server(scripts(form.text, way));
      CorvaneRESTClient client(u"127.0.0.1", server.port(),
                               way.connection == Connection::Persistent);
      auto outcome = runExchange(client, reply.kind);
      forgetEnd(reply, form, outcome);
      ASSERT_EQ(outcome, form.expected);
      ASSERT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
      server.awaitRequests(2);
      ASSERT_EQ(server.requests(), 2U);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Corpus, OverLoopback,
                         testing::Values("StreamSearchWithThreeHits", "ScalarSearchWithThreeHits",
                                         "ParseResultWithThreeRows", "Selectivity", "GetStatus",
                                         "CreateCollectionWithoutBody", "ServerErrorOnStreamSearch",
                                         "BadRequestOnUpdateIndex", "SearchBehindAnInterimReply"),
                         [](const auto& test) { return std::string(test.param); });

TEST(ExchangeReplay, OverLoopbackAReplyMeansTheSameInSegmentsOfOneByte) {
  const auto& reply = replyNamed("StreamSearchWithThreeHits");
  for (const auto& form : formsOf(reply, {16})) {
    SCOPED_TRACE(form.description);
    ScriptedServer server(scripts(form.text, {1, Connection::Persistent, Behind::Nothing}));
    CorvaneRESTClient client(u"127.0.0.1", server.port(), true);
    ASSERT_EQ(runExchange(client, reply.kind), form.expected);
    ASSERT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
  }
}

TEST(ExchangeReplay, ALongReplyOverLoopbackMeansTheSameInItsChunks) {
  for (const char* name :
       {"FourThousandStreamedHits", "FourThousandScalarHits", "OneVeryLongHit"}) {
    const auto& reply = replyNamed(name);
    for (const auto& form : formsOf(reply, {0, 1000})) {
      SCOPED_TRACE(reply.name + ", " + form.description);
      ScriptedServer server(scripts(form.text, {30000, Connection::Persistent, Behind::Nothing}));
      CorvaneRESTClient client(u"127.0.0.1", server.port(), true);
      ASSERT_EQ(runExchange(client, reply.kind), form.expected);
      ASSERT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
    }
  }
}

}  // namespace
