// What follows the results of a chunked reply, and the exchange after it: trailer lines that look
// like the next reply, and a next reply that looks like a trailer line.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/exchange.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/script.h"
#include "tests/support/scriptedNetwork.h"

namespace {

using namespace tq::test;
using tq::comm::CorvaneRESTClient;

constexpr bool kPersistent = true;

const std::string kEmptySearch =
    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n8\r\n" + std::string(8, '\0') + "\r\n";

/// An exchange whose reply ends as `end` says, and the next one on the same connection.
void expectNextReply(Script script, ScriptedNetwork::Arrival arrival) {
  ScriptedNetwork network(script.awaitClose(), arrival);
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  EXPECT_EQ(runExchange(client, 8).errorId, "");
  EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
  EXPECT_EQ(network.connections(), 1U);
  EXPECT_FALSE(network.waitedForever());
}

constexpr auto kAllThere = ScriptedNetwork::Arrival::AllThere;
constexpr auto kOnDemand = ScriptedNetwork::Arrival::OnDemand;

TEST(ChunkTailExchange, ATrailerThatBeginsAsAStatusLineDoesKeepsTheConnection) {
  for (const char* trailer : {"Host: a\r\n", "H\r\n", "HTTP: 1\r\n", "X: 1\r\nHT\r\nHost: b\r\n"}) {
    for (const auto arrival : {kAllThere, kOnDemand}) {
      for (const std::size_t segment : {0U, 1U, 2U, 3U, 4U, 5U}) {
        SCOPED_TRACE(trailer + std::string(" in segments of ") + std::to_string(segment));
        expectNextReply(Script()
                            .expectRequest()
                            .send(kEmptySearch)
                            .send(std::string("0\r\n") + trailer + "\r\n", segment)
                            .expectRequest()
                            .send(plain(nextReply()), segment),
                        arrival);
      }
    }
  }
}

TEST(ChunkTailExchange, AStatusLineInPiecesIsNotTakenForATrailer) {
  for (const char* end : {"0\r\n", "0\r\nX: 1\r\n", "0\r\nHost: 1\r\n", "0\r\n\r\n", ""}) {
    for (const auto arrival : {kAllThere, kOnDemand}) {
      for (const std::size_t segment : {0U, 1U, 2U, 3U, 4U, 5U, 6U}) {
        SCOPED_TRACE(end + std::string(" in segments of ") + std::to_string(segment));
        expectNextReply(Script()
                            .expectRequest()
                            .send(kEmptySearch + end)
                            .expectRequest()
                            .send(plain(nextReply()), segment),
                        arrival);
      }
    }
  }
}

TEST(ChunkTailExchange, ALineThatMayBecomeAReplyNobodyAskedForCostsTheConnection) {
  for (const char* begun : {"H", "HTT", "HTTP/"}) {
    ScriptedNetwork network(
        {Script().expectRequest().send(kEmptySearch + "0\r\n" + begun).awaitClose(),
         Script().expectRequest().send(plain(nextReply())).awaitClose()});
    CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
    // A second attempt would hide that the first one used the old connection.
    client.setNumRetries(0);
    client.setTimeOut(100);
    EXPECT_EQ(runExchange(client, 8).errorId, "");
    EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected) << begun;
    EXPECT_EQ(network.connections(), 2U) << begun;
  }
}

}  // namespace
