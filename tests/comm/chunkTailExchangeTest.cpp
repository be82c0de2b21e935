// What follows the results of a chunked reply, and the exchange after it: trailer lines that look
// like the next reply, a next reply that looks like a trailer line, and what is neither.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/chunks.h"
#include "tests/support/exchange.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/script.h"
#include "tests/support/scriptedNetwork.h"

namespace {

using namespace tq::test;
using tq::comm::CorvaneRESTClient;

constexpr bool kPersistent = true;

const std::string kEmptySearch = kChunkedHead + chunk(std::string(8, '\0'));
const std::string kLastChunk = "0\r\n\r\n";

std::string repeated(const std::string& text) {
  std::string all;
  while (all.size() < std::size_t{3} << 20) all += text;
  return all;
}

/// An exchange whose reply ends as `end` says, and the next one on the same connection.
void expectNextReply(Script script, ScriptedNetwork::Arrival arrival) {
  ScriptedNetwork network(script.awaitClose(), arrival);
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
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
    EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
    EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected) << begun;
    EXPECT_EQ(network.connections(), 2U) << begun;
  }
}

TEST(ChunkTailExchange, WhatIsNoChunkBehindAChunkedReplyCostsItsConnection) {
  for (const std::string& garbage :
       {std::string("garbage\r\n"), std::string("x"), std::string("5z\r\n"), std::string("12\n"),
        "1" + std::string(200, '0') + "\r\n"}) {
    ScriptedNetwork network({Script().expectRequest().send(kEmptySearch + garbage).awaitClose(),
                             Script().expectRequest().send(plain(nextReply())).awaitClose()});
    CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
    client.setNumRetries(0);
    EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "") << garbage;
    EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected) << garbage;
    EXPECT_EQ(network.connections(), 2u) << garbage;
  }
}

TEST(ChunkTailExchange, WhatIsNoChunkBehindAChunkedReplyIsRefusedWhenItComesLate) {
  // Behind the second one a reply begins where a line ends.
  for (const char* garbage : {"garbage\r\n", "5z\r\n"}) {
    ScriptedNetwork network(Script()
                                .expectRequest()
                                .send(kEmptySearch)
                                .expectRequest()
                                .send(garbage + plain(nextReply()))
                                .awaitClose());
    CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
    EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
    EXPECT_EQ(runExchange(client, nextReply().kind).errorId, "ERR_CLIENT_RESP_PARSING") << garbage;
  }
}

TEST(ChunkTailExchange, AChunkBehindTheResultsMayAnnounceNoMoreThanAnyOther) {
  for (const auto& [size, connections] : {std::pair{"64", 1u}, std::pair{"65", 2u}}) {
    const std::string data(std::strtoul(size, nullptr, 16), 'd');
    ScriptedNetwork network({Script()
                                 .expectRequest()
                                 .send(kEmptySearch + size + "\r\n" + data + "\r\n" + kLastChunk)
                                 .expectRequest()
                                 .send(plain(nextReply()))
                                 .awaitClose(),
                             Script().expectRequest().send(plain(nextReply())).awaitClose()});
    CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
    client.setMaxReplyBytes(100);
    EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
    EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected) << size;
    EXPECT_EQ(network.connections(), connections) << size;
  }
}

TEST(ChunkTailExchange, ACloseIsSeenBehindTheLastChunk) {
  // Nobody would ever learn that the document went nowhere.
  ScriptedNetwork network({Script().expectRequest().send(kEmptySearch + kLastChunk),
                           Script().expectRequest().awaitClose()});
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
  EXPECT_EQ(runExchange(client, kAsynchAddDocument).errorId, "");
  ASSERT_EQ(network.connections(), 2u);
  EXPECT_EQ(network.connection(1).requests.size(), 1u);
}

TEST(ChunkTailExchange, AMessageWithoutAReplyGoesOutOnAConnectionThatOwesNothing) {
  // Whatever of the end comes later is left unread, and the close behind the document resets the
  // connection.
  for (std::size_t cut = 0; cut <= kLastChunk.size(); ++cut) {
    for (const int kind : {kAsynchAddDocument, kLastDocSent}) {
      ScriptedNetwork network({Script()
                                   .expectRequest()
                                   .send(kEmptySearch + kLastChunk.substr(0, cut))
                                   .expectRequest()
                                   .awaitClose(),
                               Script().expectRequest().awaitClose()});
      CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
      EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
      EXPECT_EQ(runExchange(client, kind).errorId, "");
      const bool ended = cut == kLastChunk.size();
      EXPECT_EQ(network.connections(), ended ? 1U : 2U) << cut;
      EXPECT_EQ(runExchange(client, kind).errorId, "") << "the queue stays where it is";
      EXPECT_EQ(network.connections(), ended ? 1U : 2U) << cut;
    }
  }
}

TEST(ChunkTailExchange, ATrailerBehindAReplyOfTheLastChunkAloneDoesNotCostItsConnection) {
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(kChunkedHead + "0\r\nX-Checksum: 1\r\n\r\n")
                              .expectRequest()
                              .send(plain(nextReply()))
                              .awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  EXPECT_EQ(runExchange(client, kCreateCollection).errorId, "");
  EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
  EXPECT_EQ(network.connections(), 1u);
}

TEST(ChunkTailExchange, AReplyThatNobodyAskedForIsSeenBehindTheLastChunk) {
  const std::string stray = plain(replyNamed("GetStatus"));
  // What of the last chunk has come with the results, and what only with the stray reply.
  for (const std::size_t cut : {std::size_t{0}, std::size_t{3}, kLastChunk.size()}) {
    ScriptedNetwork network({Script()
                                 .expectRequest()
                                 .send(kEmptySearch + kLastChunk.substr(0, cut))
                                 .send(kLastChunk.substr(cut) + stray)
                                 .expectRequest()
                                 .send(plain(nextReply()))
                                 .awaitClose(),
                             Script().expectRequest().send(plain(nextReply())).awaitClose()});
    CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
    EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
    EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected) << cut;
    EXPECT_EQ(network.connections(), 2U) << cut;
  }
}

TEST(ChunkTailExchange, ALastChunkInSeveralPiecesDoesNotCostItsConnection) {
  for (std::size_t cut = 0; cut < kLastChunk.size(); ++cut) {
    ScriptedNetwork network(Script()
                                .expectRequest()
                                .send(kEmptySearch + kLastChunk.substr(0, cut))
                                .send(kLastChunk.substr(cut), 1)
                                .expectRequest()
                                .send(plain(nextReply()))
                                .awaitClose());
    CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
    EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
    EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected) << cut;
    EXPECT_EQ(network.connections(), 1U) << cut;
  }
}

TEST(ChunkTailExchange, WithoutEndCostsTheConnection) {
  // Chunks that never stop, and a trailer line that never ends, at once and piece by piece.
  const std::string chunks = repeated(chunk(std::string(1000, 'c')));
  const std::string line = "0\r\n" + repeated("x");
  for (const auto& [endless, segment] :
       {std::pair{chunks, 0U}, std::pair{line, 0U}, std::pair{line, 65536U}}) {
    ScriptedNetwork network(
        {Script().expectRequest().send(kEmptySearch + endless, segment).awaitClose(),
         Script().expectRequest().send(plain(nextReply())).awaitClose()});
    CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
    client.setNumRetries(0);
    EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
    EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
    EXPECT_EQ(network.connections(), 2U);
  }
}

TEST(ChunkTailExchange, ChunksWithoutEndInFrontOfTheReplyAreNotReadForEver) {
  const std::string chunks = repeated(chunk(std::string(1000, 'c')));
  ScriptedNetwork network(
      Script().expectRequest().send(kEmptySearch).expectRequest().send(chunks).awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
  EXPECT_EQ(runExchange(client, nextReply().kind).errorId, "ERR_CLIENT_RESP_PARSING");
  EXPECT_FALSE(network.waitedForever());
}

TEST(ChunkTailExchange, OfTheReplyBeforeIsNotReadOnAsTheStreamOfOneThatTimedOut) {
  const std::string foreign = enveloped(hitRecord("foreign", "1")) + bigEndian(0);
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(kEmptySearch)
                              .expectRequest()
                              .stall()
                              .send(chunk(foreign) + kLastChunk)
                              .awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  client.setNumRetries(0);
  client.setTimeOut(100);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
  auto request = requestFor(kStreamSearch);
  tq::comm::ClientResponse response;
  const auto exchange = [&] { client.sendAndRecvMesg(request, response); };
  EXPECT_EQ(errorOf(exchange).errorId, "ERR_SERVER_COMM_TIMEOUT");
  network.release();
  EXPECT_EQ(errorOf([&] { client.recv(response); }).errorId, "ERR_SERVER_COMM_TIMEOUT")
      << "the rest of the reply before is skipped, and nothing else has come";
  EXPECT_EQ(response.getSearchResponse().count(), 0U);
  EXPECT_FALSE(client.isEndOfStream());
}

}  // namespace
