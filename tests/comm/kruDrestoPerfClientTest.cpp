// What a binary client reads, and what it reports when it cannot.

#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "comm/kruDrestoPerfClient.h"
#include "comm/kruRESTException.h"
#include "infra/oss/kruNLSException.h"
#include "tests/comm/binaryFixture.h"
#include "tests/support/endedThread.h"
#include "tests/support/raised.h"
#include "tests/support/scriptedServer.h"

namespace {

using namespace tq::test;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::DrestoPerfClient;
using tq::comm::RequestOutcome;

constexpr auto kFile = "kruDrestoPerfClient";
constexpr auto kUnknownError = "unknown error from sendandrecvMesgOnce";

const Raised kFinished{{"ERR_CLIENT_RESP_PARSING",
                        "(null)",
                        0,
                        {},
                        "the reply is finished until a further block is announced"}};
const Raised kNoReply{{"ERR_SERVER_COMM_RECV", kFile, 383, kHostAndPort}};
const Raised kInProgress{{"ERR_INVALID_STATE", kFile, 138}};

Raised exchange(CorvaneRESTClient& client, int kind, ClientResponse& response) {
  return raisedBy([&] {
    auto request = requestFor(kind);
    client.sendAndRecvMesg(request, response);
  });
}

Raised exchange(CorvaneRESTClient& client, int kind) {
  ClientResponse response;
  return exchange(client, kind, response);
}

Raised receive(CorvaneRESTClient& client, ClientResponse& response) {
  return raisedBy([&] { client.recv(response); });
}

/// The reason is for people; arguments say which server it was.
void expectRefusal(const std::string& id, const std::string& reason,
                   const std::function<void()>& call) {
  const Raised raised = raisedBy(call);
  ASSERT_EQ(raised.size(), 1U);
  EXPECT_EQ(raised[0].id, id);
  EXPECT_EQ(raised[0].text, reason);
  EXPECT_EQ(raised[0].arguments, kHostAndPort);
  EXPECT_EQ(raised[0].file, kFile);
}

Script segments(const std::vector<std::string>& pieces) {
  Script script;
  script.expectFramedRequest();
  for (const auto& piece : pieces) script.send(piece);
  return script.awaitClose();
}

std::vector<std::string> idsHeld(ClientResponse& response) {
  std::vector<std::string> ids;
  auto& held = response.getSearchResponse();
  while (held.hasMore()) ids.push_back(utf8(held.getNext().getDocId()));
  return ids;
}

std::vector<std::string> ids(const std::vector<std::string>& keys) {
  std::vector<std::string> all;
  for (const auto& key : keys) all.push_back(idOfKey(key));
  return all;
}

std::string row(const std::string& document) { return envelope(1, record16({{"Doc", document}})); }

/// After a document that has no reply, a search finds no server. Then one is sent by hand, and the
/// header of its reply received.
void searchByHandAfterNoServer(ScriptedNetwork& network, DrestoPerfClient& client,
                               ClientResponse& response) {
  client.setNumRetries(0);
  EXPECT_EQ(exchange(client, kAsynchAddDocument), Raised());
  client.close();
  network.failConnects(ECONNREFUSED);
  EXPECT_EQ(exchange(client, kStreamSearch).front().id, "ERR_CONNECT_SERVER");
  network.failConnects(0);
  client.open();
  auto search = requestFor(kStreamSearch);
  client.send(search);
  client.recvMesg(response);
}

Script queuedDocument() { return Script().expectFramedRequest().awaitClose(); }

// Construction.

TEST(DrestoPerfClient, BeginsUnconnectedAndKeepsItsConnection) {
  ScriptedNetwork network(
      Script().expectFramedRequest().send(kOk).expectFramedRequest().send(kOk).awaitClose());
  {
    auto client = binaryClient();
    EXPECT_FALSE(client.isConnected());
    EXPECT_FALSE(client.isEndOfStream());
    EXPECT_EQ(client.getHost(), u"127.0.0.1");
    EXPECT_EQ(client.getPort(), 7U);
    EXPECT_EQ(network.connectAttempts(), 0U);
    EXPECT_EQ(exchange(client, kCreateCollection), Raised());
    EXPECT_EQ(exchange(client, kCreateCollection), Raised());
    EXPECT_EQ(network.connections(), 1U);
    EXPECT_FALSE(network.connection(0).clientClosed);
  }
  EXPECT_TRUE(network.connection(0).clientClosed) << "by the destructor";
}

TEST(DrestoPerfClient, TakesAddressesThatWereResolvedBeforehand) {
  ScriptedNetwork network(answer(kOk));
  tq::oss::Socket::_AddrInfoExternal addresses;
  ASSERT_TRUE(addresses.add(u"127.0.0.1", 0));
  network.failLookups();
  DrestoPerfClient client(u"no.such.host", 7, addresses);
  EXPECT_EQ(exchange(client, kCreateCollection), Raised());
}

// Reading.

TEST(DrestoPerfClient, AKindWithoutResultsIsOverWithTheHeader) {
  for (const int kind :
       {kCreateCollection, kDropCollection, kAddDocument, kUpdateIndex, kDeleteDocument,
        kOpenCollection, kCloseCollection, kGetStatus, kBackup, kRestore, kTakeover, kShutdown,
        kOpenCollectionAlt, kSetConstructorConfiguration, kVersionsValidation}) {
    ScriptedNetwork network(answer(kOk), kOnDemand);
    auto client = binaryClient();
    ClientResponse response;
    EXPECT_EQ(exchange(client, kind, response), Raised());
    EXPECT_TRUE(response.success());
    EXPECT_TRUE(client.isEndOfStream());
    EXPECT_FALSE(network.waitedForever()) << "a body was waited for";
  }
}

TEST(DrestoPerfClient, NoBodyIsAwaitedBehindACodeThatHasNone) {
  for (const int kind : {kCreateCollection, kStreamSearch, kParseResult, kSelectivity, kGetStatus,
                         kScalarSearch, kGetServerVersion}) {
    for (const unsigned int code : {0U, 3U, 5U, 9U, 401U}) {
      ScriptedNetwork network(answer(word16(code)), kOnDemand);
      auto client = binaryClient();
      exchange(client, kind);
      EXPECT_FALSE(network.waitedForever()) << "kind " << kind << ", code " << code;
      EXPECT_EQ(network.requests(), 1U);
    }
  }
}

TEST(DrestoPerfClient, TheHeaderMayComeInTwoReads) {
  ScriptedNetwork network(segments({kOk.substr(0, 1), kOk.substr(1)}), kOnDemand);
  auto client = binaryClient();
  EXPECT_EQ(exchange(client, kCreateCollection), Raised());
  EXPECT_EQ(network.requests(), 1U);
}

TEST(DrestoPerfClient, TheExchangeReturnsWithTheFirstPortionThatBringsAHit) {
  ScriptedNetwork network(
      segments({kOk, plainHit("a") + plainHit("b"), plainHit("c"), plainHit("d") + endOfResults()}),
      kOnDemand);
  auto client = binaryClient();
  ClientResponse response;
  EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
  EXPECT_EQ(response.getResultCount(), 2);
  EXPECT_EQ(idsHeld(response), ids({"a", "b"}));
  EXPECT_FALSE(client.isEndOfStream());
  EXPECT_EQ(receive(client, response), Raised());
  EXPECT_EQ(idsHeld(response), ids({"c"})) << "a portion replaces the one before";
  EXPECT_FALSE(client.isEndOfStream());
  EXPECT_EQ(receive(client, response), Raised());
  EXPECT_EQ(idsHeld(response), ids({"d"}));
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_FALSE(client.isTruncated());
}

TEST(DrestoPerfClient, AnEnvelopeThatIsCutIsCarriedToTheNextRead) {
  const auto second = scoredHit(250, "the second");
  for (std::size_t cut = 1; cut < second.size(); ++cut) {
    ScriptedNetwork network(segments({kOk + plainHit("first") + second.substr(0, cut),
                                      second.substr(cut) + endOfResults()}),
                            kOnDemand);
    auto client = binaryClient();
    ClientResponse response;
    EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
    EXPECT_EQ(idsHeld(response), ids({"first"}));
    EXPECT_EQ(receive(client, response), Raised());
    EXPECT_EQ(idsHeld(response), ids({"the second"})) << cut;
    EXPECT_TRUE(client.isEndOfStream());
  }
}

TEST(DrestoPerfClient, APortionThatBringsNoHitIsNotTheEnd) {
  // Nor is it read on: that is for the exchange, which has to bring something.
  for (const bool reassembly : {false, true}) {
    ScriptedNetwork network(segments({kOk + plainHit("first"), std::string(1, '\0'),
                                      "\x01" + word16(1) + "k", endOfResults()}),
                            kOnDemand);
    auto client = binaryClient();
    client.setReassembly(reassembly);
    ClientResponse response;
    EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
    EXPECT_EQ(receive(client, response), Raised());
    EXPECT_EQ(response.getSearchResponse().count(), 0U);
    EXPECT_FALSE(client.isEndOfStream());
    EXPECT_EQ(receive(client, response), Raised());
    EXPECT_EQ(idsHeld(response), ids({"k"}));
    EXPECT_EQ(receive(client, response), Raised());
    EXPECT_TRUE(client.isEndOfStream());
  }
}

TEST(DrestoPerfClient, AReadTakesFourTimesWhatTheParserNeeds) {
  // Each envelope has 1024 bytes: four of them are a read, however many have arrived.
  std::string body;
  for (char key = 'a'; key < 'a' + 10; ++key) body += plainHit(std::string(1020, key));
  ScriptedNetwork network(segments({kOk + body + endOfResults()}));
  auto client = binaryClient();
  ClientResponse response;
  EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
  EXPECT_EQ(idsHeld(response).size(), 4U);
  EXPECT_EQ(receive(client, response), Raised());
  EXPECT_EQ(idsHeld(response).size(), 4U);
  EXPECT_EQ(receive(client, response), Raised());
  EXPECT_EQ(idsHeld(response).size(), 2U);
  EXPECT_TRUE(client.isEndOfStream());
}

TEST(DrestoPerfClient, AReplyThatHasArrivedIsOneReceive) {
  ScriptedNetwork network(answer(kOk + plainHit("key") + endOfResults()));
  auto client = binaryClient();
  EXPECT_EQ(exchange(client, kStreamSearch), Raised());
  // The one that brings it, and at most one look for more that does not wait.
  EXPECT_LE(network.receives(), 2U);
}

TEST(DrestoPerfClient, TheHitsOfAScalarSearchGatherFromPortionToPortion) {
  ScriptedNetwork network(segments({kOk, plainHit("a"), plainHit("b"), endOfResults()}), kOnDemand);
  auto client = binaryClient();
  ClientResponse response;
  EXPECT_EQ(exchange(client, kScalarSearch, response), Raised());
  EXPECT_EQ(response.getSearchResponse().count(), 1U);
  EXPECT_EQ(receive(client, response), Raised());
  EXPECT_EQ(response.getSearchResponse().count(), 2U);
  EXPECT_EQ(receive(client, response), Raised());
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_EQ(idsHeld(response), ids({"a", "b"}));
}

TEST(DrestoPerfClient, SeveralPortionsCannotBeReadInOneCallBehindTheFirst) {
  ScriptedNetwork network(segments({kOk, plainHit("a"), plainHit("b"), endOfResults()}), kOnDemand);
  auto client = binaryClient();
  ClientResponse response;
  EXPECT_EQ(exchange(client, kScalarSearch, response), Raised());
  const Raised raised = raisedBy([&] { client.recvMultResponse(response); });
  ASSERT_EQ(raised.size(), 1U);
  EXPECT_EQ(raised[0].id, "ERR_CLIENT_RESP_PARSING");
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_TRUE(client.isTruncated());
  EXPECT_EQ(idsHeld(response), ids({"a"})) << "what was held stays";
}

TEST(DrestoPerfClient, TheListsAreEmptiedBeforeTheHeaderIsAwaited) {
  for (const int kind : {6, static_cast<int>(kStreamSearch), static_cast<int>(kParseResult),
                         static_cast<int>(kScalarSearch), static_cast<int>(kSelectivity)}) {
    ScriptedNetwork network(Script().expectFramedRequest());
    auto client = binaryClient();
    ClientResponse response;
    response.addSearchResult(tq::comm::SearchResult(false));
    response.addParseResult(tq::comm::ParseResult(false));
    EXPECT_EQ(exchange(client, kind, response), kNoReply);
    const bool streamed = kind == 6 || kind == kStreamSearch;
    EXPECT_EQ(response.getSearchResponse().count(), streamed ? 0U : 1U) << kind;
    EXPECT_EQ(response.getParseResponse().count(), kind == kParseResult ? 0U : 1U) << kind;
  }
}

TEST(DrestoPerfClient, ParseResultsAreNotPulledToTheirEndByTheExchange) {
  ScriptedNetwork network(segments({kOk + row("a"), row("b"), row("c") + endOfResults()}),
                          kOnDemand);
  auto client = binaryClient();
  ClientResponse response;
  EXPECT_EQ(exchange(client, kParseResult, response), Raised());
  EXPECT_FALSE(client.isEndOfStream());
  EXPECT_EQ(response.getParseResponse().count(), 1U);
  EXPECT_EQ(receive(client, response), Raised());
  ASSERT_EQ(response.getParseResponse().count(), 1U) << "a portion replaces the one before";
  EXPECT_EQ(utf8(response.getParseResponse().getNext().getDocument()), "b");
  EXPECT_EQ(receive(client, response), Raised());
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_EQ(utf8(response.getParseResponse().getNext().getDocument()), "c");
}

TEST(DrestoPerfClient, AnEstimateIsReadToItsEndMark) {
  ScriptedNetwork network(segments({kOk, envelope(1, estimate(1, 2, 3)),
                                    envelope(1, estimate(4, 5, 6)) + endOfResults()}),
                          kOnDemand);
  auto client = binaryClient();
  ClientResponse response;
  EXPECT_EQ(exchange(client, kSelectivity, response), Raised());
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_EQ(response.getSelectivityInfo().getFirst(), 4);
  EXPECT_EQ(response.getSelectivityInfo().getSecond(), 6);
  EXPECT_EQ(response.getSelectivityInfo().getThird(), 5);
}

TEST(DrestoPerfClient, TheUnassignedSearchExpectsNoResultsAndReadsNoBody) {
  ScriptedNetwork network(segments({kOk, plainHit("a") + endOfResults()}), kOnDemand);
  auto client = binaryClient();
  ClientResponse response;
  EXPECT_EQ(exchange(client, 6, response),
            (Raised{{"ERR_SERVER_PROTOCOL",
                     "kruDrestoPerfResponse",
                     375,
                     {"Zero(0) sized protocol body inparseStreamSearchresp"}}}));
  EXPECT_EQ(response.getSearchResponse().count(), 0U);
}

TEST(DrestoPerfClient, AnErrorRecordIsReadWholeWithAndWithoutReassembly) {
  const std::string text(9000, 'x');
  const auto reply = word16(6) + errorRecord({{"MsgId", "ZVK0404E"}, {"MsgText", text}});
  for (const bool reassembly : {false, true}) {
    for (const std::size_t segment : {1U, 7U, 1000U, 0U}) {
      ScriptedNetwork network(Script().expectFramedRequest().send(reply, segment).awaitClose(),
                              kOnDemand);
      auto client = binaryClient();
      client.setReassembly(reassembly);
      EXPECT_EQ(exchange(client, kStreamSearch), (Raised{{"ZVK0404E", "(null)", 0, {}, text, 2}}));
      EXPECT_FALSE(network.waitedForever());
      EXPECT_EQ(network.requests(), 1U);
    }
  }
}

// The first portion, without reassembly.

TEST(DrestoPerfClient, AFirstPortionWithoutAWholeRecordFailsAndNothingMoreIsRead) {
  for (const int kind : {kStreamSearch, kScalarSearch, kParseResult, kSelectivity}) {
    const auto first = kind == kParseResult   ? row("document")
                       : kind == kSelectivity ? envelope(1, estimate(1, 2, 3))
                                              : plainHit("a key");
    for (std::size_t cut = 1; cut < first.size(); ++cut) {
      ScriptedNetwork network(
          segments({kOk + first.substr(0, cut), first.substr(cut) + endOfResults()}), kOnDemand);
      auto client = binaryClient();
      ClientResponse response;
      EXPECT_EQ(exchange(client, kind, response), kFinished) << "kind " << kind << ", cut " << cut;
      EXPECT_EQ(network.requests(), 1U) << "not repeated";
      EXPECT_EQ(response.getResultCount(), 0);
      EXPECT_EQ(receive(client, response), kInProgress);
    }
  }
}

TEST(DrestoPerfClient, AFirstPortionIsMadeWholeByWhatHasArrivedSince) {
  const std::string hit = plainHit("a key");
  for (std::size_t cut = 1; cut < hit.size(); ++cut) {
    ScriptedNetwork network(segments({kOk + hit.substr(0, cut), hit.substr(cut) + endOfResults()}));
    auto client = binaryClient();
    ClientResponse response;
    EXPECT_EQ(exchange(client, kStreamSearch, response), Raised()) << cut;
    EXPECT_EQ(idsHeld(response), ids({"a key"}));
  }
}

TEST(DrestoPerfClient, AReplyThatGoesOnWithoutAWholeEnvelopeIsRefused) {
  // The parser takes this status for its own mark of an envelope that is not whole, and leaves its
  // payload with all that follows.
  constexpr unsigned int kMark = 9;
  for (const std::size_t following : {3U, 4U}) {
    const std::string marked = envelope(kMark, std::string(65535, 'x'));
    Script script;
    script.expectFramedRequest().send(kOk + plainHit("a"));
    script.send(marked + std::string(following, 'x'));
    ScriptedNetwork network(script);
    auto client = binaryClient();
    ClientResponse response;
    EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
    Raised raised;
    while (raised.empty() && !client.isEndOfStream()) raised = receive(client, response);
    EXPECT_TRUE(client.isEndOfStream());
    EXPECT_TRUE(client.isTruncated());
    ASSERT_EQ(raised.size(), following == 4 ? 1U : 0U);
    if (raised.empty()) continue;
    EXPECT_EQ(raised[0].id, "ERR_CLIENT_RESP_PARSING");
    EXPECT_EQ(raised[0].text, "the reply goes on without a whole envelope");
    EXPECT_EQ(raised[0].arguments, kHostAndPort);
  }
}

TEST(DrestoPerfClient, AFirstPortionWithHalfAContentFails) {
  ScriptedNetwork network(segments({kOk + envelope(1, "text").substr(0, 6), "xt"}), kOnDemand);
  auto client = binaryClient();
  EXPECT_EQ(exchange(client, kGetServerVersion),
            (Raised{{"ERR_SERVER_PROTOCOL",
                     "kruDrestoPerfResponse",
                     336,
                     {"Invalid message envelope, status code not available in parseContent"}}}));
}

TEST(DrestoPerfClient, ALongEnvelopePassesFromTheSecondPortionOn) {
  const std::string key(65535, 'k');
  const auto hit = plainHit(key);
  // Cut where the most is carried of an envelope that is not whole.
  ScriptedNetwork network(segments({kOk + plainHit("first"), hit.substr(0, hit.size() - 1),
                                    hit.substr(hit.size() - 1) + endOfResults()}),
                          kOnDemand);
  auto client = binaryClient();
  ClientResponse response;
  EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
  EXPECT_EQ(idsHeld(response), ids({"first"}));
  EXPECT_EQ(idsHeld(response).size(), 0U);
  auto& hits = response.getSearchResponse(client, true);
  ASSERT_TRUE(hits.hasMore());
  EXPECT_EQ(utf8(hits.getNext().getDocId()), idOfKey(key));
  EXPECT_FALSE(response.getSearchResponse(client, true).hasMore());
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_FALSE(client.isTruncated());
}

TEST(DrestoPerfClient, ALongEnvelopeInFrontFailsUnlessPutTogether) {
  const std::string key(65535, 'k');
  for (const bool reassembly : {false, true}) {
    ScriptedNetwork network(answer(kOk + plainHit(key) + endOfResults()));
    auto client = binaryClient();
    client.setReassembly(reassembly);
    ClientResponse response;
    EXPECT_EQ(exchange(client, kStreamSearch, response), reassembly ? Raised() : kFinished);
    EXPECT_EQ(idsHeld(response), reassembly ? ids({key}) : ids({}));
  }
}

TEST(DrestoPerfClient, ARecordBeyondTheLimitIsRefused) {
  for (const std::size_t limit : {5U, 4U}) {
    ScriptedNetwork network(answer(kOk + plainHit("a key") + endOfResults()));
    auto client = binaryClient();
    client.setMaxReplyBytes(limit);
    const auto raised = exchange(client, kStreamSearch);
    ASSERT_EQ(raised.size(), limit == 5 ? 0U : 1U);
    if (!raised.empty()) {
      EXPECT_EQ(raised.front().id, "ERR_CLIENT_RESP_PARSING");
      EXPECT_EQ(raised.front().text, "a record is longer than the limit");
    }
    EXPECT_EQ(network.requests(), 1U);
  }
}

// An error in place of the server's version.

TEST(DrestoPerfClient, AnErrorInPlaceOfTheVersionIsReadWholeAndKeepsItsConnection) {
  const auto error = envelope(6, errorRecord({{"MsgId", "ZVK0009E"}, {"MsgText", "no version"}}));
  // From the status on, which tells that it is one.
  for (std::size_t cut = 2; cut <= error.size(); ++cut) {
    Script script;
    script.expectFramedRequest().send(kOk + error.substr(0, cut));
    if (cut < error.size()) script.send(error.substr(cut));
    ScriptedNetwork network(script.expectFramedRequest().send(nextBinaryReply().text).awaitClose(),
                            kOnDemand);
    auto client = binaryClient();
    client.setNumRetries(0);
    EXPECT_EQ(exchange(client, kGetServerVersion),
              (Raised{{"ZVK0009E", "(null)", 0, {}, "no version", 2}}))
        << cut;
    EXPECT_EQ(client.getRequestOutcome(), tq::comm::RequestOutcome::Rejected) << cut;
    EXPECT_EQ(runBinary(client, nextBinaryReply().kind), nextBinaryReply().expected) << cut;
    EXPECT_EQ(network.connections(), 1U) << cut;
  }
}

// A server that closes.

TEST(DrestoPerfClient, ACloseBeforeTheHeaderIsARepeatedReceiveError) {
  for (const auto& part : {std::string(), kOk.substr(0, 1)}) {
    ScriptedNetwork network({Script().expectFramedRequest().send(part), answer(kOk)});
    auto client = binaryClient();
    ClientResponse response;
    EXPECT_EQ(exchange(client, kCreateCollection, response), Raised());
    EXPECT_EQ(network.connections(), 2U);
    EXPECT_TRUE(response.success());
  }
}

TEST(DrestoPerfClient, ACloseInPlaceOfTheBodyIsAnEmptyBodyAndNotRepeated) {
  struct Case {
    int kind;
    unsigned long line;
    const char* argument;
  };
  for (const auto& c :
       {Case{kStreamSearch, 375, "Zero(0) sized protocol body inparseStreamSearchresp"},
        Case{kScalarSearch, 375, "Zero(0) sized protocol body inparseStreamSearchresp"},
        Case{kParseResult, 441, "Zero(0) sized protocol body in parseParseResult "},
        Case{kSelectivity, 485, "Zero(0) sized protocol body in parseSelectivity "},
        Case{kGetServerVersion, 327, "Zero(0) sized protocol body in parseContent"}}) {
    ScriptedNetwork network(Script().expectFramedRequest().send(kOk));
    auto client = binaryClient();
    EXPECT_EQ(exchange(client, c.kind),
              (Raised{{"ERR_SERVER_PROTOCOL", "kruDrestoPerfResponse", c.line, {c.argument}}}));
    EXPECT_TRUE(client.isEndOfStream()) << "a read of nothing ends the stream";
    EXPECT_EQ(network.requests(), 1U);
  }
}

TEST(DrestoPerfClient, ACloseBehindHitsThrowsOnlyWhenNothingIsHeld) {
  for (const bool cutOff : {false, true}) {
    ScriptedNetwork network(
        Script().expectFramedRequest().send(kOk + plainHit("a") + (cutOff ? "\1" : "")));
    auto client = binaryClient();
    ClientResponse response;
    EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
    const auto raised = receive(client, response);
    EXPECT_EQ(raised.size(), cutOff ? 0U : 1U);
    if (!cutOff) {
      EXPECT_EQ(raised.front().line, 375U);
    }
    EXPECT_TRUE(client.isEndOfStream());
    EXPECT_TRUE(client.isTruncated());
    EXPECT_EQ(response.getSearchResponse().count(), 0U);
  }
}

TEST(DrestoPerfClient, WithReassemblyAReplyThatBreaksOffIsAReceiveError) {
  for (const auto& part :
       {std::string(), std::string("\0\1\0", 3), plainHit("half").substr(0, 6)}) {
    ScriptedNetwork network({Script().expectFramedRequest().send(kOk + part),
                             answer(kOk + plainHit("whole") + endOfResults())});
    auto client = binaryClient();
    client.setReassembly(true);
    ClientResponse response;
    EXPECT_EQ(exchange(client, kStreamSearch, response), Raised()) << "repeated";
    EXPECT_EQ(idsHeld(response), ids({"whole"}));
    EXPECT_EQ(network.connections(), 2U);
  }
  ScriptedNetwork network(Script().expectFramedRequest().send(kOk + plainHit("a")));
  auto client = binaryClient();
  client.setReassembly(true);
  ClientResponse response;
  EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
  EXPECT_EQ(idsHeld(response), ids({"a"}));
  EXPECT_EQ(receive(client, response), kNoReply);
  EXPECT_EQ(network.requests(), 1U) << "portions are not repeated";
}

TEST(DrestoPerfClient, WithReassemblyAStreamThatLostItsConnectionIsAReceiveError) {
  ScriptedNetwork network(
      {Script().expectFramedRequest().send(kOk + plainHit("first") + word16(1)).awaitClose(),
       Script().send(word16(2) + "xx").awaitClose()});
  auto client = binaryClient();
  client.setReassembly(true);
  auto search = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(search, response);
  client.close();
  client.open();
  EXPECT_EQ(errorOf([&] { client.recv(response); }).errorId, "ERR_SERVER_COMM_RECV");
  EXPECT_TRUE(idsHeld(response).empty());
  EXPECT_TRUE(client.isTruncated());
}

TEST(DrestoPerfClient, ABrokenConnectionIsAnUnknownErrorWithoutReassembly) {
  ScriptedNetwork network(Script().expectFramedRequest().reset());
  auto client = binaryClient();
  EXPECT_EQ(exchange(client, kStreamSearch),
            (Raised{{"ERR_CLIENT_INTERNAL", kFile, 113, {kUnknownError}}}));
  EXPECT_EQ(network.requests(), 1U);
}

TEST(DrestoPerfClient, AConnectionThatBreaksBetweenPortionsIsAnUnknownErrorWithoutReassembly) {
  for (const bool reassembly : {false, true}) {
    ScriptedNetwork network(Script().expectFramedRequest().send(kOk + plainHit("a")).reset());
    auto client = binaryClient();
    client.setReassembly(reassembly);
    ClientResponse response;
    EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
    EXPECT_EQ(
        receive(client, response),
        reassembly ? kNoReply : (Raised{{"ERR_CLIENT_INTERNAL", kFile, 147, {kUnknownError}}}));
  }
}

// Failures of the client itself.

/// A client one of whose steps fails in a way that the library does not know.
class FailingClient : public DrestoPerfClient {
 public:
  enum class Step { Send, Header, Portion };
  enum class With { Standard, NoMemory, Infrastructure, Number };

  FailingClient(Step step, With with)
      : DrestoPerfClient(u"127.0.0.1", 7), step_(step), with_(with) {}

  void sendMesg(tq::comm::RESTMessage& message) override {
    failIn(Step::Send);
    DrestoPerfClient::sendMesg(message);
  }
  void recvMesg(ClientResponse& response) override {
    failIn(Step::Header);
    DrestoPerfClient::recvMesg(response);
  }
  void recvStream(ClientResponse& response) override {
    failIn(Step::Portion);
    DrestoPerfClient::recvStream(response);
  }
  void recover() { failing_ = false; }
  void fail() { failing_ = true; }

 private:
  void failIn(Step step) const {
    if (step != step_ || !failing_) return;
    if (with_ == With::Standard) throw std::runtime_error("from elsewhere");
    if (with_ == With::NoMemory) throw std::bad_alloc();
    if (with_ == With::Infrastructure) throw tq::oss::NLSException();
    throw 17;
  }

  Step step_;
  With with_;
  bool failing_ = true;
};

TEST(DrestoPerfClient, AForeignExceptionInAnExchangeIsWrapped) {
  using Step = FailingClient::Step;
  using With = FailingClient::With;
  for (const auto step : {Step::Send, Step::Header, Step::Portion}) {
    for (const auto with : {With::Standard, With::NoMemory, With::Infrastructure, With::Number}) {
      ScriptedNetwork network(answer(kOk + plainHit("key") + endOfResults()));
      FailingClient client(step, with);
      EXPECT_EQ(exchange(client, kStreamSearch),
                (Raised{{"ERR_CLIENT_INTERNAL", kFile, 113, {kUnknownError}}}));
      EXPECT_LE(network.requests(), 1U) << "not repeated";
      ClientResponse response;
      EXPECT_EQ(receive(client, response), kInProgress);
    }
  }
}

TEST(DrestoPerfClient, AForeignExceptionInAReceiveIsWrappedWithTheSameText) {
  using With = FailingClient::With;
  for (const auto with : {With::Standard, With::NoMemory, With::Infrastructure, With::Number}) {
    ScriptedNetwork network(segments({kOk + plainHit("a"), plainHit("b") + endOfResults()}),
                            kOnDemand);
    FailingClient client(FailingClient::Step::Portion, with);
    client.recover();
    ClientResponse response;
    EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
    client.fail();
    EXPECT_EQ(receive(client, response),
              (Raised{{"ERR_CLIENT_INTERNAL", kFile, 147, {kUnknownError}}}));
    client.recover();
    EXPECT_EQ(receive(client, response), Raised());
    EXPECT_EQ(idsHeld(response), ids({"b"}));
  }
}

TEST(DrestoPerfClient, AParseResultWithoutItsDocumentIsAnUnknownError) {
  ScriptedNetwork network(
      answer(kOk + envelope(1, record16({{"MsgId", "ZVK1"}})) + endOfResults()));
  auto client = binaryClient();
  EXPECT_EQ(exchange(client, kParseResult),
            (Raised{{"ERR_CLIENT_INTERNAL", kFile, 113, {kUnknownError}}}));
}

TEST(DrestoPerfClient, APortionWithARecordThatIsNoParseResultEndsTheStream) {
  const std::string good = row("d1");
  ScriptedNetwork network(Script()
                              .expectFramedRequest()
                              .send(kOk + good)
                              .send(good + envelope(1, record16({{"Other", "x"}})) + endOfResults())
                              .awaitClose(),
                          kOnDemand);
  auto client = binaryClient();
  auto request = requestFor(kParseResult);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  EXPECT_FALSE(client.isEndOfStream());

  EXPECT_EQ(errorOf([&] { client.recv(response); }).errorId, "ERR_CLIENT_INTERNAL");
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_TRUE(client.isTruncated());
  client.recv(response);
  EXPECT_FALSE(network.waitedForever());
  EXPECT_EQ(response.getParseResponse().count(), 0u);
}

// The order of calls.

TEST(DrestoPerfClient, ReceivingBeforeAnyExchangeIsRefused) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  client.open();
  ClientResponse response;
  EXPECT_EQ(receive(client, response), kInProgress);
  expectRefusal("ERR_INVALID_STATE", "there was no exchange", [&] { client.recvMesg(response); });
}

TEST(DrestoPerfClient, ReceivingAfterAFailedExchangeIsRefusedUntilOneSucceeds) {
  const auto error = errorRecord({{"MsgId", "ZVK0404E"}, {"MsgText", "no"}});
  const auto good = kOk + plainHit("a") + endOfResults();
  // Refused by the server, broken framing, no reply.
  for (const auto& bad :
       {word16(6) + error, word16(401), word16(3), kOk + envelope(5, ""), std::string(), kOk}) {
    ScriptedNetwork network({Script().expectFramedRequest().send(bad), answer(good)});
    auto client = binaryClient();
    client.setNumRetries(0);
    ClientResponse response;
    EXPECT_FALSE(exchange(client, kStreamSearch, response).empty());
    EXPECT_EQ(receive(client, response), kInProgress);
    EXPECT_EQ(receive(client, response), kInProgress) << "and again";
    EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
    EXPECT_EQ(receive(client, response), Raised());
  }
}

TEST(DrestoPerfClient, AFailedReceiveDoesNotRefuseTheNext) {
  ScriptedNetwork network(Script().expectFramedRequest().send(kOk + plainHit("a")));
  auto client = binaryClient();
  ClientResponse response;
  EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
  EXPECT_EQ(receive(client, response).size(), 1U);
  EXPECT_EQ(receive(client, response), Raised()) << "the stream has ended";
}

TEST(DrestoPerfClient, AHeaderIsNotReadForAParserThatIsFinished) {
  ScriptedNetwork network(answer(kOk + plainHit("a") + endOfResults()));
  auto client = binaryClient();
  ClientResponse response;
  EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
  EXPECT_EQ(raisedBy([&] { client.recvMesg(response); }),
            (Raised{{"ERR_CLIENT_INTERNAL", kFile, 357}}));
}

TEST(DrestoPerfClient, AHeaderIsNotReadInTheMiddleOfAReply) {
  ScriptedNetwork network(answer(kOk));
  auto client = binaryClient();
  client.setNumRetries(0);
  client.setTimeOut(100);
  ClientResponse response;
  EXPECT_EQ(exchange(client, kStreamSearch, response).front().id, "ERR_SERVER_COMM_TIMEOUT");
  expectRefusal("ERR_INVALID_STATE", "the reply header of the last exchange was read already",
                [&] { client.recvMesg(response); });
}

TEST(DrestoPerfClient, ACodeWithoutABodyKeepsItsConnection) {
  ScriptedNetwork network(Script()
                              .expectFramedRequest()
                              .send(word16(401))
                              .expectFramedRequest()
                              .send(nextBinaryReply().text)
                              .awaitClose());
  auto client = binaryClient();
  client.setNumRetries(0);
  EXPECT_EQ(exchange(client, kStreamSearch).front().id, "ERR_SERVER_INVALID_AUTH");
  EXPECT_EQ(runBinary(client, nextBinaryReply().kind), nextBinaryReply().expected);
  EXPECT_EQ(network.connections(), 1U);
}

TEST(DrestoPerfClient, ARefusedExchangeLeavesTheParserOfTheLastOne) {
  for (int before = 1; before <= 3; ++before) {
    Script script;
    for (int i = 0; i < before; ++i) script.expectFramedRequest().send(kOk);
    ScriptedNetwork network(script.expectFramedRequest().awaitClose());
    auto client = binaryClient();
    client.setNumRetries(0);
    for (int i = 0; i < before; ++i) EXPECT_EQ(exchange(client, kGetStatus), Raised());
    auto request = requestFor(kGetStatus);
    request.getReqProperties().putProperty(u"long", icu::UnicodeString(70000, u'x', 70000));
    ClientResponse response;
    EXPECT_EQ(raisedBy([&] { client.sendAndRecvMesg(request, response); }).front().id,
              "ERR_CLIENT_INTERNAL");
    auto byHand = requestFor(kGetStatus);
    client.send(byHand);
    EXPECT_EQ(raisedBy([&] { client.recvMesg(response); }),
              (Raised{{"ERR_CLIENT_INTERNAL", kFile, 357}}));
  }
}

TEST(DrestoPerfClient, ANewExchangeDoesNotCountWhatTheLastOneCarried) {
  // As many bytes as the reply to come has: none of them is waited for.
  const std::string carried = plainHit("xyz").substr(0, endOfResults().size());
  ScriptedNetwork network(
      {segments({kOk + plainHit("a") + carried}), answer(kOk + endOfResults())});
  auto client = binaryClient();
  client.setTimeOut(100);
  ClientResponse response;
  EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
  EXPECT_FALSE(client.isEndOfStream());
  EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
  EXPECT_TRUE(client.isEndOfStream());
}

TEST(DrestoPerfClient, AVersionInAnEnvelopeThatIsNoneEndsTheStream) {
  ScriptedNetwork network({answer(kOk + envelope(7, "text")), answer(kOk)});
  auto client = binaryClient();
  client.setNumRetries(0);
  EXPECT_EQ(exchange(client, kGetServerVersion), kFinished);
  EXPECT_TRUE(client.isEndOfStream());
  client.setTimeOut(100);
  EXPECT_EQ(exchange(client, kGetServerVersion).front().id, "ERR_SERVER_COMM_TIMEOUT");
  EXPECT_FALSE(client.isEndOfStream()) << "its body is still to come";
}

TEST(DrestoPerfClient, AStreamWithoutItsConnectionDoesNoHarmToTheNext) {
  const std::string carried = plainHit("xyz").substr(0, 4);
  ScriptedNetwork network(
      {segments({kOk + plainHit("a") + carried}), answer(nextBinaryReply().text)});
  auto client = binaryClient();
  ClientResponse response;
  EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
  client.close();
  client.open();
  EXPECT_EQ(receive(client, response).front().id, "ERR_SERVER_PROTOCOL") << "an empty portion";
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_TRUE(client.isTruncated());
  EXPECT_EQ(runBinary(client, nextBinaryReply().kind), nextBinaryReply().expected);
  EXPECT_EQ(network.connections(), 2U);
}

TEST(DrestoPerfClient, ANewExchangeForgetsWhatTheLastOneCarried) {
  ScriptedNetwork network(
      {segments({kOk + plainHit("a") + "\1\1\1"}), answer(kOk + plainHit("b") + endOfResults())});
  auto client = binaryClient();
  ClientResponse response;
  EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
  EXPECT_EQ(exchange(client, kStreamSearch, response), Raised());
  EXPECT_EQ(idsHeld(response), ids({"b"}));
  EXPECT_TRUE(client.isEndOfStream());
}

TEST(DrestoPerfClient, AConnectionThatTheServerHasClosedCostsAQueuedDocumentNothing) {
  ScriptedNetwork network({Script().expectFramedRequest().send(kOk), Script().awaitClose()});
  auto client = binaryClient();
  client.setNumRetries(0);
  EXPECT_EQ(exchange(client, kCreateCollection), Raised());
  Document document(kAsynchAddDocument);
  ClientResponse response;
  client.sendAndRecvMesg(document.request, response);
  ASSERT_EQ(network.connections(), 2U);
  EXPECT_EQ(network.connection(1).received, Framed(document.request).whole());
}

// Over real sockets.

TEST(DrestoPerfClient, AThreadThatEndsInAnExchangeOrAReceiveDoesSo) {
  struct EndsItsThread : DrestoPerfClient {
    using DrestoPerfClient::DrestoPerfClient;
    void recvStream(ClientResponse& response) override {
      if (ends) ::pthread_exit(PTHREAD_CANCELED);
      DrestoPerfClient::recvStream(response);
    }
    bool ends = true;
  };
  ScriptedNetwork network(answer(kOk + plainHit("a")));
  EndsItsThread client(u"127.0.0.1", 7);
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  EXPECT_TRUE(endsItsThread([&] { client.sendAndRecvMesgOnce(request, response); }));
  client.close();
  client.ends = false;
  client.sendAndRecvMesg(request, response);
  client.ends = true;
  EXPECT_TRUE(endsItsThread([&] { client.recv(response); }));
}

TEST(DrestoPerfClient, SpeaksOverLoopbackAsInMemory) {
  const auto reply = longSearch(kStreamSearch, 500);
  ScriptedServer server(Script()
                            .expectFramedRequest()
                            .send(reply.text, 1000)
                            .expectFramedRequest()
                            .send(nextBinaryReply().text, 3)
                            .awaitClose());
  DrestoPerfClient client(u"127.0.0.1", server.port());
  client.setReassembly(true);
  EXPECT_EQ(runBinary(client, kStreamSearch), reply.expected);
  EXPECT_EQ(runBinary(client, nextBinaryReply().kind), nextBinaryReply().expected);
  EXPECT_EQ(server.connections(), 1U);
}

TEST(DrestoPerfClient, SendsALargeBodyOverLoopback) {
  ScriptedServer server(answer(kOk));
  DrestoPerfClient client(u"127.0.0.1", server.port());
  Document document(kAddDocument, 3000000);
  ClientResponse response;
  client.sendAndRecvMesg(document.request, response);
  EXPECT_TRUE(response.success());
  ASSERT_EQ(server.connection(0).requests.size(), 1U);
  EXPECT_EQ(server.connection(0).requests.front(), Framed(document.request).whole());
}

TEST(DrestoPerfClient, ASearchByHandIsReadAsOneAlsoAfterAnExchangeThatFoundNoServer) {
  ScriptedNetwork network({queuedDocument(), answer(kOk + plainHit("a") + endOfResults())});
  auto client = binaryClient();
  ClientResponse response;
  searchByHandAfterNoServer(network, client, response);
  client.recv(response);
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_EQ(idsHeld(response), ids({"a"}));
}

TEST(DrestoPerfClient, TheLimitOfAReplyHoldsByHandAlsoAfterAnExchangeThatFoundNoServer) {
  for (const std::size_t limit : {5U, 4U}) {
    ScriptedNetwork network({queuedDocument(), answer(kOk + plainHit("a key") + endOfResults())});
    auto client = binaryClient();
    client.setMaxReplyBytes(limit);
    ClientResponse response;
    searchByHandAfterNoServer(network, client, response);
    const Raised raised = receive(client, response);
    ASSERT_EQ(raised.size(), limit == 5 ? 0U : 1U);
    if (!raised.empty()) {
      EXPECT_EQ(raised.front().text, "a record is longer than the limit");
    }
    EXPECT_EQ(idsHeld(response), limit == 5 ? ids({"a key"}) : ids({}));
  }
}

TEST(DrestoPerfClient, ARefusalByHandLeavesTheOutcomeOfAnExchangeThatFoundNoServer) {
  const std::string refusal = errorRecord({{"MsgId", "ZVK1"}, {"MsgText", "t"}});
  ScriptedNetwork network({queuedDocument(), answer(word16(6) + refusal)});
  auto client = binaryClient();
  ClientResponse response;
  searchByHandAfterNoServer(network, client, response);
  EXPECT_EQ(receive(client, response).front().id, "ZVK1");
  EXPECT_EQ(client.getRequestOutcome(), RequestOutcome::NotSent);
}

}  // namespace
