// Defects that fuzzing has found.

#include <gtest/gtest.h>

#include <string>

#include "comm/kruCorvaneRESTClient.h"
#include "tests/support/exchange.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/script.h"
#include "tests/support/scriptedNetwork.h"

namespace {

using namespace tq::test;
using tq::comm::CorvaneRESTClient;

// A search without hits in one chunk, and the first line of what ends it.
std::string replyUpToItsLastLine() {
  const std::string body = std::string(4, '\0') + bigEndian(0);
  return "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n8\r\n" + body + "\r\n0\r\n";
}

// The buffer held a part of the old reply's end, and nobody looked whether more had arrived.
TEST(FuzzRegression, AReplyThatNobodyAskedForIsNotTakenWhenItArrivesBehindTheLastOnesEnd) {
  ScriptedNetwork network({Script()
                               .expectRequest()
                               .send(replyUpToItsLastLine())
                               .send("\r\n" + plain(replyNamed("GetStatus")))
                               .expectRequest()
                               .awaitClose(),
                           Script().expectRequest().send(plain(nextReply())).awaitClose()});
  CorvaneRESTClient client(u"127.0.0.1", 7, true);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
  EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
  EXPECT_EQ(network.connections(), 2u);
}

TEST(FuzzRegression, AReplyWhoseEndArrivesInPiecesKeepsItsConnection) {
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(replyUpToItsLastLine())
                              .send("\r")
                              .send("\n")
                              .expectRequest()
                              .send(plain(nextReply()))
                              .awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, true);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
  EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
  EXPECT_EQ(network.connections(), 1u);
}

// One that never ends the old reply is not listened to for ever.
TEST(FuzzRegression, APeerThatGoesOnWithinTheOldReplyLosesItsConnection) {
  ScriptedNetwork network({Script()
                               .expectRequest()
                               .send(replyUpToItsLastLine())
                               .send(std::string(3 << 20, 'x'), 65536)
                               .awaitClose(),
                           Script().expectRequest().send(plain(nextReply())).awaitClose()});
  CorvaneRESTClient client(u"127.0.0.1", 7, true);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
  EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
  EXPECT_EQ(network.connections(), 2u);
}

}  // namespace
