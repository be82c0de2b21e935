#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTMessage.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruNLSException.h"
#include "infra/oss/kruSocketException.h"
#include "infra/oss/kruSystemCalls.h"
#include "tests/support/chunks.h"
#include "tests/support/endedThread.h"
#include "tests/support/exchange.h"
#include "tests/support/raised.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/script.h"
#include "tests/support/scriptedNetwork.h"
#include "tests/support/scriptedServer.h"

namespace {

using namespace tq::test;
using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::RequestOutcome;
using tq::comm::RESTException;
using tq::comm::RESTMessage;
using tq::comm::StaticDefs;

constexpr bool kFresh = false;
constexpr bool kPersistent = true;
constexpr auto kOnDemand = ScriptedNetwork::Arrival::OnDemand;
constexpr auto kAllThere = ScriptedNetwork::Arrival::AllThere;

CorvaneRESTClient clientFor(bool persistent) {
  return CorvaneRESTClient(u"127.0.0.1", 7, persistent);
}

const std::vector<std::string> kHostAndPort{"127.0.0.1", "7"};

Reply ok(int kind) {
  Reply reply{"Ok", kind};
  reply.expected.returnCode = 0;
  reply.expected.endOfStream = true;
  return reply;
}

Script answer(const std::string& text) { return Script().expectRequest().send(text).awaitClose(); }
Script silence() { return Script().expectRequest().awaitClose(); }
Script closeEarly() { return Script().expectRequest(); }

Outcome exchangeError(CorvaneRESTClient& client, int kind) {
  auto request = requestFor(kind);
  ClientResponse response;
  return errorOf([&] { client.sendAndRecvMesg(request, response); });
}

std::string bigBody(std::size_t size) { return std::string(size, 'b'); }

const std::string kUninterpreted(4, '\0');
const std::string kLastChunk = "0\r\n\r\n";
const std::string kEstimate = chunk(kUninterpreted + enveloped(record({{"any", "1"}})));

std::string searchHit(const std::string& id) { return enveloped(hitRecord(id, "1")); }

std::vector<std::string> idsOf(ClientResponse& response) {
  std::vector<std::string> ids;
  auto& hits = response.getSearchResponse();
  while (hits.hasMore()) ids.push_back(utf8(hits.getNext().getDocId()));
  return ids;
}

/// The reason is for people; arguments say which server it was.
void expectRefusal(const std::string& id, const std::string& reason,
                   const std::function<void()>& call) {
  const Raised raised = raisedBy(call);
  ASSERT_EQ(raised.size(), 1U);
  EXPECT_EQ(raised[0].id, id);
  EXPECT_EQ(raised[0].text, reason);
  EXPECT_EQ(raised[0].arguments, kHostAndPort);
  EXPECT_EQ(raised[0].file, "kruCorvaneRESTClient");
}

// What goes out.

std::string headerText(ClientRequest& request) {
  RESTMessage message(u"127.0.0.1", request);
  return message.getSerializedHeader();
}

TEST(CorvaneRESTClient, ARequestWithoutADocumentIsItsHeaderAlone) {
  for (const int kind :
       {kCreateCollection, kDropCollection, kUpdateIndex, kStreamSearch, kParseResult, kSelectivity,
        kGetStatus, kScalarSearch, kGetServerVersion}) {
    ScriptedNetwork network(answer(plain(ok(kind))));
    auto client = clientFor(kFresh);
    auto request = requestFor(kind);
    ClientResponse response;
    client.sendAndRecvMesg(request, response);
    EXPECT_EQ(network.connection(0).received, headerText(request)) << kind;
    EXPECT_NE(network.connection(0).received.find("Content-Length  : \n"), std::string::npos);
  }
}

TEST(CorvaneRESTClient, ARequestWithADocumentIsHeaderAndBlockAndContentInOneWrite) {
  ScriptedNetwork network(answer(plain(ok(kAddDocument))));
  auto client = clientFor(kFresh);
  auto request = requestFor(kAddDocument);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);

  const std::string content(request.getContent(), request.getContentLength());
  const std::string pair = enveloped("title") + enveloped("one");
  const std::string tail = pair + enveloped("rowId") + enveloped(std::string("\x01\x02key")) +
                           enveloped("data") + enveloped(content);
  const std::string block =
      bigEndian(0) + bigEndian(static_cast<std::uint32_t>(tail.size())) + tail;
  EXPECT_EQ(network.connection(0).received, headerText(request) + block);
  EXPECT_EQ(network.connection(0).requests.size(), 1U) << "the length line covers the block";
  EXPECT_EQ(network.writes(), 1U);
}

TEST(CorvaneRESTClient, ContentOfOneByteIsSentAndContentOfNoneIsNot) {
  for (const std::string content : {"c", ""}) {
    ScriptedNetwork network(answer(plain(ok(kAddDocument))));
    auto client = clientFor(kFresh);
    auto request = requestFor(kAddDocument);
    request.setContent(content.data(), static_cast<unsigned int>(content.size()));
    ClientResponse response;
    client.sendAndRecvMesg(request, response);
    const std::string key = enveloped("rowId") + enveloped(std::string("\x01\x02key"));
    const std::string end = content.empty() ? key : key + enveloped("data") + enveloped(content);
    EXPECT_TRUE(network.connection(0).received.ends_with(end)) << content;
    EXPECT_EQ(network.connection(0).requests.size(), 1U);
  }
}

TEST(CorvaneRESTClient, TheLastDocumentIsAnnouncedByHeaderAndTerminateRecordAlone) {
  ScriptedNetwork network(Script().expectRequest().awaitClose());
  auto client = clientFor(kFresh);
  auto request = requestFor(kLastDocSent);
  request.setContent({{u"title", u"one"}}, "content", 7);
  request.setDocKey("key", 3);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  EXPECT_EQ(network.connection(0).received, headerText(request) + std::string(8, '\0'));
  EXPECT_EQ(network.writes(), 1U);
}

TEST(CorvaneRESTClient, TheLastDocumentNeedsNoMetadataBesideItsKey) {
  ScriptedNetwork network(Script().expectRequest().awaitClose());
  auto client = clientFor(kFresh);
  auto request = requestFor(kLastDocSent);
  request.setDocKey("key", 3);
  ASSERT_TRUE(request.getMetadata().empty());
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  EXPECT_EQ(network.connection(0).received, headerText(request) + std::string(8, '\0'));
}

TEST(CorvaneRESTClient, ARefusedRequestLeavesTheConnectionAsItWas) {
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(plain(ok(kCreateCollection)))
                              .expectRequest()
                              .send(plain(nextReply()))
                              .awaitClose());
  auto client = clientFor(kPersistent);
  EXPECT_EQ(runExchange(client, kCreateCollection), ok(kCreateCollection).expected);
  auto request = requestFor(kDeleteDocument);
  request.getMetadata().clear();
  ClientResponse response;
  EXPECT_THROW(client.sendAndRecvMesg(request, response), RESTException);
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 1U);
}

TEST(CorvaneRESTClient, SendLeavesTheKindOfAnOpenStreamAlone) {
  const auto& reply = replyNamed("StreamSearchWithFortyHits");
  ScriptedNetwork network(answer(chunked(reply, 400, true).text));
  auto client = clientFor(kPersistent);
  auto search = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(search, response);
  const auto first = response.getSearchResponse().count();
  auto other = requestFor(kParseResult);
  client.send(other);
  client.recv(response);
  auto& hits = response.getSearchResponse();
  ASSERT_TRUE(hits.hasMore()) << "still read as a search";
  EXPECT_EQ(utf8(hits.getNext().getDocId()), reply.expected.hits[first].id);
  EXPECT_EQ(response.getParseResponse().count(), 0U);
}

TEST(CorvaneRESTClient, ABufferedConnectionMakesNoDifference) {
  Script script;
  script.expectRequest().expectRequest().expectRequest().send(plain(nextReply())).awaitClose();
  ScriptedNetwork network(script);
  auto client = clientFor(kPersistent);
  client.useBufferedConnection(true);
  for (const std::size_t sent : {1U, 2U}) {
    EXPECT_EQ(runExchange(client, kAsynchAddDocument).errorId, "");
    EXPECT_EQ(network.writes(), sent) << "nothing is held back";
  }
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
}

TEST(CorvaneRESTClient, SendDoesNotOpenTheConnection) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = clientFor(kPersistent);
  auto request = requestFor(kCreateCollection);
  EXPECT_THROW(client.send(request), tq::oss::SocketException);
  EXPECT_EQ(network.connectAttempts(), 0U);
}

TEST(CorvaneRESTClient, SendMesgPassesTheSocketsExceptionOn) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = clientFor(kPersistent);
  client.open();
  network.failNextWrite(EPIPE);
  auto request = requestFor(kCreateCollection);
  RESTMessage message(u"127.0.0.1", request);
  try {
    client.sendMesg(message);
    FAIL();
  } catch (const tq::oss::SocketException& error) {
    EXPECT_EQ(error.getErrorNumber(), EPIPE);
  }
}

// Kinds without a reply.

TEST(CorvaneRESTClient, KindsWithoutAReplyReturnAtOnceAsSuccesses) {
  for (const int kind : {kAsynchAddDocument, kLastDocSent}) {
    ScriptedNetwork network(Script().expectRequest().awaitClose());
    auto client = clientFor(kPersistent);
    const auto outcome = runExchange(client, kind);
    EXPECT_EQ(outcome, ok(kind).expected) << kind;
    EXPECT_FALSE(network.waitedForever());
    EXPECT_EQ(network.requests(), 1U);
  }
}

TEST(CorvaneRESTClient, KindsWithoutAReplyShareTheirConnection) {
  Script script;
  for (int i = 0; i < 5; ++i) script.expectRequest();
  ScriptedNetwork network(script.send(plain(nextReply())).awaitClose());
  auto client = clientFor(kPersistent);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(runExchange(client, kAsynchAddDocument).errorId, "");
  EXPECT_EQ(runExchange(client, kLastDocSent).errorId, "");
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 1U);
}

TEST(CorvaneRESTClient, BeforeAKindWithoutAReplyOneLookTellsThatTheConnectionIsStale) {
  for (const bool reset : {false, true}) {
    Script stale;
    stale.expectRequest().send(plain(ok(kCreateCollection)));
    if (reset) stale.reset();
    ScriptedNetwork network({stale, Script().expectRequest().awaitClose()});
    auto client = clientFor(kPersistent);
    EXPECT_EQ(runExchange(client, kCreateCollection).errorId, "");
    EXPECT_EQ(runExchange(client, kAsynchAddDocument).errorId, "");
    EXPECT_EQ(network.connections(), 2U);
    EXPECT_EQ(network.connection(1).requests.size(), 1U) << "the document must not be lost";
  }
}

// Connections.

TEST(CorvaneRESTClient, EachExchangeHasAConnectionOfItsOwnUnlessPersistent) {
  for (const bool persistent : {false, true}) {
    Script script;
    for (int i = 0; i < 3; ++i) script.expectRequest().send(plain(nextReply()));
    ScriptedNetwork network(script.awaitClose());
    auto client = clientFor(persistent);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
    EXPECT_EQ(network.connections(), persistent ? 1U : 3U);
  }
}

TEST(CorvaneRESTClient, PersistenceCanBeChangedBetweenExchanges) {
  Script script;
  for (int i = 0; i < 3; ++i) script.expectRequest().send(plain(nextReply()));
  ScriptedNetwork network(script.awaitClose());
  auto client = clientFor(kPersistent);
  runExchange(client, kGetStatus);
  runExchange(client, kGetStatus);
  EXPECT_EQ(network.connections(), 1U);
  client.usePeristentConnection(false);
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 2U);
}

TEST(CorvaneRESTClient, ItsEndClosesThePersistentConnection) {
  ScriptedNetwork network(answer(plain(ok(kCreateCollection))));
  {
    auto client = clientFor(kPersistent);
    runExchange(client, kCreateCollection);
    EXPECT_FALSE(network.connection(0).clientClosed);
  }
  EXPECT_TRUE(network.connection(0).clientClosed);
}

TEST(CorvaneRESTClient, APersistentConnectionThatTheServerHasClosedIsReplacedByTheRetry) {
  ScriptedNetwork network(
      {Script().expectRequest().send(plain(nextReply())), answer(plain(nextReply()))});
  auto client = clientFor(kPersistent);
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 2U);
}

TEST(CorvaneRESTClient, OverLoopbackAStaleConnectionIsReplacedByTheRetry) {
  ScriptedServer server(
      {Script().expectRequest().send(plain(nextReply())), answer(plain(nextReply()))});
  CorvaneRESTClient client(u"127.0.0.1", server.port(), kPersistent);
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(server.connections(), 2U);
}

TEST(CorvaneRESTClient, AChunkedReplyReadToItsEndKeepsItsConnection) {
  const auto& reply = replyNamed("StreamSearchWithThreeHits");
  for (const auto arrival : {kOnDemand, kAllThere}) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{7}}) {
      ScriptedNetwork network(Script()
                                  .expectRequest()
                                  .send(chunked(reply, size, true).text)
                                  .expectRequest()
                                  .send(plain(nextReply()))
                                  .awaitClose(),
                              arrival);
      auto client = clientFor(kPersistent);
      EXPECT_EQ(runExchange(client, reply.kind), reply.expected);
      EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
      EXPECT_EQ(network.connections(), 1U) << "chunks of " << size;
      EXPECT_EQ(network.requests(), 2U);
    }
  }
}

TEST(CorvaneRESTClient, AnErrorInChunksThatIsReadToItsEndKeepsItsConnection) {
  Reply refusal{"Refusal", kStreamSearch, 500};
  refusal.body = kUninterpreted + enveloped(record({{"MsgId", "ZVK1"}, {"MsgText", "t"}}));
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(chunked(refusal, 0, true).text)
                              .expectRequest()
                              .send(plain(nextReply()))
                              .awaitClose());
  auto client = clientFor(kPersistent);
  EXPECT_EQ(exchangeError(client, kStreamSearch).errorId, "ZVK1");
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 1U);
}

TEST(CorvaneRESTClient, ARefusalInTheWordsOfAProxyIsTheServersAndKeepsItsConnection) {
  for (const char* words :
       {"<html><body>Bad gateway</body></html>", "upstream connect error", "{\"error\":1}", "x"}) {
    Reply refusal{"Refusal", kStreamSearch, 500, words};
    for (const std::string& text :
         {plain(refusal), chunked(refusal, 0, true).text, chunked(refusal, 7, true).text}) {
      ScriptedNetwork network(Script()
                                  .expectRequest()
                                  .send(text)
                                  .expectRequest()
                                  .send(plain(nextReply()))
                                  .awaitClose());
      auto client = clientFor(kPersistent);
      EXPECT_EQ(exchangeError(client, kStreamSearch).errorId, "ERR_SERVER_APP") << text;
      EXPECT_EQ(client.getRequestOutcome(), tq::comm::RequestOutcome::Rejected) << text;
      EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
      EXPECT_EQ(network.connections(), 1U) << text;
    }
  }
}

TEST(CorvaneRESTClient, ARefusalInChunksThatIsLongerThanTheLimitLosesItsReasonOnly) {
  Reply refusal{"Refusal", kStreamSearch, 500};
  refusal.body =
      kUninterpreted + enveloped(record({{"MsgId", "ZVK1"}, {"MsgText", std::string(900, 't')}}));
  const auto text = chunked(refusal, 100, true).text;
  for (const bool fits : {true, false}) {
    ScriptedNetwork network(
        Script().expectRequest().send(text).expectRequest().send(plain(nextReply())).awaitClose());
    auto client = clientFor(kPersistent);
    client.setMaxReplyBytes(refusal.body.size() - kUninterpreted.size() - 4 - (fits ? 0 : 1));
    EXPECT_EQ(exchangeError(client, kStreamSearch).errorId, fits ? "ZVK1" : "ERR_SERVER_APP");
    EXPECT_EQ(client.getRequestOutcome(), tq::comm::RequestOutcome::Rejected);
    EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
    EXPECT_EQ(network.connections(), 1U);
  }
}

TEST(CorvaneRESTClient, AReplyWhoseLastByteComesByItselfIsComplete) {
  const std::string text = plain(ok(kCreateCollection));
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(text.substr(0, text.size() - 1))
                              .send(text.substr(text.size() - 1))
                              .awaitClose(),
                          kOnDemand);
  auto client = clientFor(kPersistent);
  client.setTimeOut(100);
  EXPECT_EQ(runExchange(client, kCreateCollection), ok(kCreateCollection).expected);
}

TEST(CorvaneRESTClient, AnErrorReadToItsEndKeepsItsConnection) {
  const auto& error = replyNamed("ServerErrorOnStreamSearch");
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(plain(error))
                              .expectRequest()
                              .send(plain(nextReply()))
                              .awaitClose());
  auto client = clientFor(kPersistent);
  EXPECT_EQ(runExchange(client, kStreamSearch), error.expected);
  EXPECT_TRUE(client.isConnected());
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 1U);
}

TEST(CorvaneRESTClient, ARefusalWithoutABodyIsNoSuccessOfAResponseThatHeldOne) {
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(plain(ok(kCreateCollection)))
                              .expectRequest()
                              .send("HTTP/1.1 503 Busy\r\nContent-Length: 0\r\n\r\n")
                              .awaitClose());
  auto client = clientFor(kPersistent);
  auto request = requestFor(kCreateCollection);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  EXPECT_TRUE(response.success());
  client.sendAndRecvMesg(request, response);
  EXPECT_FALSE(response.success());
  EXPECT_EQ(client.getRequestOutcome(), RequestOutcome::Rejected);
}

TEST(CorvaneRESTClient, WhatWasTakenByHandCostsTheConnection) {
  ScriptedNetwork network(
      {Script().expectRequest().send(plain(ok(kCreateCollection)) + "x").awaitClose(),
       answer(plain(nextReply()))});
  auto client = clientFor(kPersistent);
  EXPECT_EQ(runExchange(client, kCreateCollection), ok(kCreateCollection).expected);
  char taken = '\0';
  EXPECT_EQ(client.readOnce(&taken, 0, 1, false), 1U);
  EXPECT_EQ(taken, 'x');
  client.setNumRetries(0);
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 2U);
}

TEST(CorvaneRESTClient, AfterAnAbandonedStreamOpenItselfStillLeavesTheConnectionAlone) {
  const auto& reply = replyNamed("StreamSearchWithFortyHits");
  ScriptedNetwork network(answer(chunked(reply, 100, true).text), kOnDemand);
  auto client = clientFor(kPersistent);
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  client.open();
  EXPECT_EQ(network.connections(), 1U);
  // The stream goes on where it was.
  Outcome outcome;
  while (!client.isEndOfStream()) client.recv(response);
  EXPECT_FALSE(client.isTruncated());
}

TEST(CorvaneRESTClient, ARefusedReplyIsNotReadOnByTheNextExchange) {
  const auto& reply = replyNamed("ParseResultWithThreeRows");
  ScriptedNetwork network({Script()
                               .expectRequest()
                               .send(chunked(reply, 16, true).text)
                               .expectRequest()
                               .send(plain(nextReply()))
                               .awaitClose(),
                           answer(plain(nextReply()))});
  auto client = clientFor(kPersistent);
  EXPECT_EQ(runExchange(client, kParseResult).errorId, "ERR_CLIENT_RESP_PARSING");
  EXPECT_EQ(network.requests(), 1U) << "not repeated";
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 2U);
}

TEST(CorvaneRESTClient, AConnectionThatWasResetIsSeenBeforeTheNextRequest) {
  ScriptedNetwork network({Script().expectRequest().send(plain(ok(kCreateCollection))).reset(),
                           answer(plain(nextReply()))});
  auto client = clientFor(kPersistent);
  client.setNumRetries(0);
  EXPECT_EQ(runExchange(client, kCreateCollection), ok(kCreateCollection).expected);
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 2U);
}

TEST(CorvaneRESTClient, AnExchangeThatFindsNoServerHasNoTruncatedStream) {
  ScriptedNetwork network(answer(plain(ok(kCreateCollection))));
  auto client = clientFor(kPersistent);
  network.failConnects(ECONNREFUSED);
  EXPECT_EQ(exchangeError(client, kCreateCollection).errorId, "ERR_CONNECT_SERVER");
  EXPECT_FALSE(client.isTruncated());
  EXPECT_FALSE(client.isEndOfStream());
  network.failConnects(0);
  EXPECT_EQ(runExchange(client, kCreateCollection), ok(kCreateCollection).expected);
  client.close();
  network.failConnects(ECONNREFUSED);
  EXPECT_EQ(exchangeError(client, kCreateCollection).errorId, "ERR_CONNECT_SERVER");
  EXPECT_FALSE(client.isTruncated());
}

/// Expects that the response's stream has no connection to be read from, and that the one which
/// there is now is none the worse for it.
void expectBrokenOff(CorvaneRESTClient& client, ClientResponse& response,
                     const ScriptedNetwork& network) {
  client.recv(response);
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_TRUE(client.isTruncated());
  EXPECT_FALSE(network.waitedForever());
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 2U);
}

TEST(CorvaneRESTClient, AReplyToWhatCouldNotBeSentIsNotReadFromAnotherConnection) {
  ScriptedNetwork network({silence(), answer(plain(nextReply()))});
  auto client = clientFor(kPersistent);
  client.setNumRetries(0);
  network.failNextWrite(ENOBUFS);
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  EXPECT_NE(errorOf([&] { client.sendAndRecvMesg(request, response); }).errorId, "");
  client.close();
  client.open();
  expectBrokenOff(client, response, network);
}

TEST(CorvaneRESTClient, AStreamThatWasAskedForByHandIsReadOnFromItsOwnConnectionAlone) {
  const auto& search = replyNamed("StreamSearchWithThreeHits");
  const auto form = chunked(search, 20, true);
  for (const bool stays : {true, false}) {
    ScriptedNetwork network(
        {Script().expectRequest().send(plain(search)).expectRequest().send(form.text).awaitClose(),
         answer(plain(nextReply()))},
        kOnDemand);
    auto client = clientFor(kPersistent);
    auto request = requestFor(kStreamSearch);
    ClientResponse earlier;
    client.sendAndRecvMesg(request, earlier);
    client.send(request);
    ClientResponse response;
    client.recvMesg(response);
    EXPECT_FALSE(client.isEndOfStream());
    EXPECT_EQ(errorOf([&] { client.recv(earlier); }).errorId, "ERR_INVALID_STATE");
    if (stays) {
      std::vector<std::string> ids = idsOf(response);
      while (!client.isEndOfStream()) {
        client.recv(response);
        for (const auto& id : idsOf(response)) ids.push_back(id);
      }
      EXPECT_EQ(ids.size(), 3U);
      EXPECT_FALSE(client.isTruncated());
    } else {
      client.close();
      client.open();
      expectBrokenOff(client, response, network);
    }
  }
}

TEST(CorvaneRESTClient, WhatIsReadOnAfterAFailedExchangeIsNotTheWholeAndCostsTheConnection) {
  ScriptedNetwork network({Script()
                               .expectRequest()
                               .send(plain(ok(kCreateCollection)))
                               .expectRequest()
                               .send(kChunkedHead)
                               .stall()
                               .send(chunk(kUninterpreted + searchHit("lost")) + kLastChunk)
                               .expectRequest()
                               .send(plain(nextReply()))
                               .awaitClose(),
                           answer(plain(nextReply()))});
  auto client = clientFor(kPersistent);
  client.setNumRetries(0);
  client.setTimeOut(100);
  EXPECT_EQ(runExchange(client, kCreateCollection), ok(kCreateCollection).expected);
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  EXPECT_EQ(errorOf([&] { client.sendAndRecvMesg(request, response); }).errorId,
            "ERR_SERVER_COMM_TIMEOUT");
  network.release();
  while (!client.isEndOfStream()) client.recv(response);
  EXPECT_TRUE(client.isTruncated()) << "its first portion was never read as one";
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 2U);
}

TEST(CorvaneRESTClient, AResponseThatTookWhatWasPulledIsThatExchangesFromThenOn) {
  const std::string text = chunked(replyNamed("StreamSearchWithFortyHits"), 400, true).text;
  ScriptedNetwork network({answer(text), answer(text)});
  auto client = clientFor(kPersistent);
  auto request = requestFor(kStreamSearch);
  ClientResponse first;
  client.sendAndRecvMesg(request, first);
  ClientResponse free;
  client.recv(free);
  EXPECT_NE(free.getSearchResponse().count(), 0U);
  client.sendAndRecvMesg(request, first);
  EXPECT_EQ(errorOf([&] { client.recv(free); }).errorId, "ERR_INVALID_STATE");
}

TEST(CorvaneRESTClient, ASkippedReplyMakesTheResponseAnEmptySuccess) {
  ScriptedNetwork network({answer(plain(replyNamed("StreamSearchWithThreeHits"))), silence()});
  auto client = clientFor(kFresh);
  auto request = requestFor(kStreamSearch);
  ClientResponse earlier;
  client.sendAndRecvMesg(request, earlier);
  EXPECT_EQ(earlier.getResultCount(), 3);
  ClientResponse filled;
  filled.addSearchResult(earlier.getSearchResponse().getNext());
  ASSERT_EQ(filled.getResultCount(), 1);
  auto queued = requestFor(kAsynchAddDocument);
  client.sendAndRecvMesg(queued, filled);
  EXPECT_EQ(filled.getResultCount(), 0);
  EXPECT_TRUE(filled.success());

  // By hand as well, where nothing was asked; it ends what was before it.
  ClientResponse byHand;
  client.recvMesg(byHand);
  EXPECT_TRUE(byHand.success());
  EXPECT_EQ(errorOf([&] { client.recv(filled); }).errorId, "ERR_INVALID_STATE");
}

// Retries.

TEST(CorvaneRESTClient, AFailedExchangeRunsTwiceOnTwoConnectionsByDefault) {
  for (const bool persistent : {false, true}) {
    ScriptedNetwork network(closeEarly());
    auto client = clientFor(persistent);
    const auto error = exchangeError(client, kCreateCollection);
    EXPECT_EQ(error.errorId, "ERR_SERVER_COMM_RECV");
    EXPECT_EQ(error.errorArguments, kHostAndPort);
    EXPECT_EQ(error.errorFile, "kruCorvaneRESTClient");
    EXPECT_EQ(network.connections(), 2U);
    EXPECT_TRUE(network.connection(0).clientClosed) << "closed before the retry";
    EXPECT_EQ(network.connection(0).requests, network.connection(1).requests);
  }
}

TEST(CorvaneRESTClient, InitSetsOneRetry) {
  ScriptedNetwork network(closeEarly());
  auto client = clientFor(kFresh);
  client.setNumRetries(5);
  client.init();
  exchangeError(client, kCreateCollection);
  EXPECT_EQ(network.connections(), 2U);
}

/// A client whose attempts all fail in a way that bears repeating.
class CountingClient : public CorvaneRESTClient {
 public:
  void sendAndRecvMesgOnce(ClientRequest&, ClientResponse&) override {
    ++attempts;
    tq::oss::MessageList messages;
    messages.add(tq::oss::Message(StaticDefs::ERR_SERVER_COMM_RECV, icu::UnicodeString()));
    throw RESTException(messages);
  }
  unsigned int attempts = 0;
};

TEST(CorvaneRESTClient, ADefaultConstructedClientHasNoRetryUntilItIsTold) {
  CountingClient client;
  const auto attempts = [&] {
    client.attempts = 0;
    EXPECT_EQ(exchangeError(client, kCreateCollection).errorId, "ERR_SERVER_COMM_RECV");
    return client.attempts;
  };
  EXPECT_EQ(attempts(), 1U);
  client.setNumRetries(2);
  EXPECT_EQ(attempts(), 3U);
  client.init();
  EXPECT_EQ(attempts(), 2U);
}

// The kind is there before its first attempt, which a client of another protocol makes.
TEST(CorvaneRESTClient, TheAttemptsOfADerivedClientAreRepeatedWhereTheirKindBearsIt) {
  struct Derived : CountingClient {
    void sendAndRecvMesgOnce(ClientRequest& request, ClientResponse& response) override {
      EXPECT_EQ(requestKind_, request.getRequest());
      outcome_ = RequestOutcome::MayBeApplied;
      CountingClient::sendAndRecvMesgOnce(request, response);
    }
  };
  for (const int kind : {kGetStatus, kCreateCollection, kStreamSearch}) {
    Derived client;
    client.setNumRetries(1);
    client.setRetryUnsafe(false);
    exchangeError(client, kind);
    const bool repeats = CorvaneRESTClient::isRepeatable(static_cast<ClientRequest::REQUEST>(kind));
    EXPECT_EQ(repeats, kind != kCreateCollection);
    EXPECT_EQ(client.attempts, repeats ? 2U : 1U) << kind;
  }
}

TEST(CorvaneRESTClient, ADefaultConstructedClientHasNoServer) {
  ScriptedNetwork network(closeEarly());
  CorvaneRESTClient client;
  EXPECT_EQ(exchangeError(client, kCreateCollection).errorId, "ERR_CONNECT_SERVER");
  EXPECT_EQ(exchangeError(client, kCreateCollection).errorArguments,
            (std::vector<std::string>{"<unspecified>", "0"}));
  EXPECT_EQ(network.connectAttempts(), 0U);
}

TEST(CorvaneRESTClient, ARetryThatSucceedsIsASuccess) {
  ScriptedNetwork network({closeEarly(), answer(plain(nextReply()))});
  auto client = clientFor(kPersistent);
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 2U);
  // The connection of the second attempt is kept.
  EXPECT_FALSE(network.connection(1).clientClosed);
}

TEST(CorvaneRESTClient, AHitOfAFailedAttemptIsNotCountedTwice) {
  const auto& reply = replyNamed("StreamSearchWithThreeHits");
  const auto text = plain(reply);
  ScriptedNetwork network(
      {Script().expectRequest().send(text.substr(0, text.size() - 3)), answer(text)});
  auto client = clientFor(kFresh);
  EXPECT_EQ(runExchange(client, reply.kind), reply.expected);
}

TEST(CorvaneRESTClient, WhatAnEarlierAttemptMayHaveDoneStaysPossibleHoweverALaterOneFails) {
  {
    ScriptedNetwork network({closeEarly(), silence()});
    network.failNextWrite(ENOBUFS, 1);
    auto client = clientFor(kPersistent);
    EXPECT_EQ(exchangeError(client, kGetStatus).errorId, "ERR_CLIENT_INTERNAL");
    EXPECT_EQ(client.getRequestOutcome(), RequestOutcome::MayBeApplied);
  }
  struct FindsNoMemoryTheSecondTime : CorvaneRESTClient {
    using CorvaneRESTClient::CorvaneRESTClient;
    void sendMesg(RESTMessage& message) override {
      if (++attempts == 2) throw std::bad_alloc();
      CorvaneRESTClient::sendMesg(message);
    }
    int attempts = 0;
  };
  ScriptedNetwork network({closeEarly(), silence()});
  FindsNoMemoryTheSecondTime client(u"127.0.0.1", 7, kPersistent);
  auto request = requestFor(kGetStatus);
  ClientResponse response;
  EXPECT_THROW(client.sendAndRecvMesg(request, response), std::bad_alloc);
  EXPECT_EQ(client.getRequestOutcome(), RequestOutcome::MayBeApplied);
}

TEST(CorvaneRESTClient, AFailureThatSaysNothingIsNotRepeated) {
  struct Speechless : CorvaneRESTClient {
    using CorvaneRESTClient::CorvaneRESTClient;
    void sendAndRecvMesgOnce(ClientRequest&, ClientResponse&) override {
      ++attempts;
      throw RESTException(tq::oss::MessageList());
    }
    int attempts = 0;
  };
  Speechless client(u"127.0.0.1", 7, kPersistent);
  auto request = requestFor(kGetStatus);
  ClientResponse response;
  EXPECT_THROW(client.sendAndRecvMesg(request, response), RESTException);
  EXPECT_EQ(client.attempts, 1);
}

TEST(CorvaneRESTClient, AKindThatNeedsAQueueIsRepeatedWhileThereIsNone) {
  ScriptedNetwork network({closeEarly(), answer(plain(ok(kUpdateIndex)))});
  auto client = clientFor(kPersistent);
  client.setQueueOnOneConnection(true);
  EXPECT_EQ(runExchange(client, kUpdateIndex), ok(kUpdateIndex).expected);
  EXPECT_EQ(network.requests(), 2U);
}

TEST(CorvaneRESTClient, AQueueStaysOnItsConnection) {
  ScriptedNetwork network(Script().expectRequest().expectRequest().expectRequest().awaitClose());
  auto client = clientFor(kPersistent);
  client.setQueueOnOneConnection(true);
  for (const int kind : {kAsynchAddDocument, kAsynchAddDocument, kLastDocSent}) {
    EXPECT_EQ(runExchange(client, kind).errorId, "") << kind;
  }
  EXPECT_EQ(network.connections(), 1U);
}

TEST(CorvaneRESTClient, ADocumentThatIsSentByHandElsewhereDoesNotMoveTheQueue) {
  ScriptedNetwork network({silence(), silence()});
  auto client = clientFor(kPersistent);
  client.setQueueOnOneConnection(true);
  EXPECT_EQ(runExchange(client, kAsynchAddDocument).errorId, "");
  client.close();
  client.open();
  auto request = requestFor(kAsynchAddDocument);
  client.send(request);
  EXPECT_EQ(exchangeError(client, kUpdateIndex).errorId, "ERR_SERVER_COMM_SEND");
}

TEST(CorvaneRESTClient, TheMessagesOfTheLastAttemptReachTheCallerUnchanged) {
  ScriptedNetwork network(answer(plain(ok(kCreateCollection))));
  network.failConnects(ECONNREFUSED);
  auto client = clientFor(kFresh);
  auto request = requestFor(kCreateCollection);
  ClientResponse response;
  try {
    client.sendAndRecvMesg(request, response);
    FAIL();
  } catch (const RESTException& error) {
    ASSERT_EQ(error.getMessageList().size(), 2U);
    EXPECT_EQ(utf8((error.getMessageList().begin() + 1)->getMessageText()), "Connection refused");
  }
}

TEST(CorvaneRESTClient, ATimeOutIsRepeatedToo) {
  ScriptedNetwork network(silence());
  auto client = clientFor(kPersistent);
  client.setTimeOut(200);
  const auto error = exchangeError(client, kCreateCollection);
  EXPECT_EQ(error.errorId, "ERR_SERVER_COMM_TIMEOUT");
  EXPECT_EQ(error.errorArguments, kHostAndPort);
  EXPECT_EQ(network.requests(), 2U);
  EXPECT_LE(network.elapsedMillis(), 2U * 300U);
}

TEST(CorvaneRESTClient, RefusalsOfTheServerAreNotRepeated) {
  for (const char* name :
       {"ServerErrorOnStreamSearch", "BadRequestOnStreamSearch", "UnauthorizedOnStreamSearch",
        "NotFoundOnStreamSearch", "ServerErrorWithoutId"}) {
    const auto& reply = replyNamed(name);
    ScriptedNetwork network(answer(plain(reply)));
    auto client = clientFor(kPersistent);
    EXPECT_EQ(runExchange(client, reply.kind), reply.expected);
    EXPECT_EQ(network.connections(), 1U) << name;
    EXPECT_EQ(network.requests(), 1U) << name;
  }
}

TEST(CorvaneRESTClient, AServersOwnIdThatSpellsACommunicationErrorIsRepeated) {
  // The loop looks at nothing but the id.
  Reply reply{"Lie", 1, 500};
  reply.body = "    " + enveloped(record({{"MsgId", "ERR_SERVER_COMM_RECV"}, {"MsgText", "t"}}));
  ScriptedNetwork network(
      Script().expectRequest().send(plain(reply)).expectRequest().send(plain(reply)).awaitClose());
  auto client = clientFor(kPersistent);
  EXPECT_EQ(runExchange(client, kCreateCollection).errorText, "t");
  EXPECT_EQ(network.requests(), 2U);
  EXPECT_EQ(network.connections(), 2U) << "a retry starts afresh, however sound the connection is";
}

TEST(CorvaneRESTClient, AFailedWriteIsAnInternalErrorWithoutArgumentsAndNotRepeated) {
  ScriptedNetwork network(answer(plain(ok(kCreateCollection))));
  network.failNextWrite(EPIPE);
  auto client = clientFor(kPersistent);
  const auto error = exchangeError(client, kCreateCollection);
  EXPECT_EQ(error.errorId, "ERR_CLIENT_INTERNAL");
  EXPECT_TRUE(error.errorArguments.empty());
  EXPECT_EQ(network.connections(), 1U);
  EXPECT_EQ(network.writes(), 1U);
  EXPECT_EQ(error.errorText, "") << "the write's own words are not reported";
}

/// A client one of whose steps fails in a way that the exchange does not know.
class ForeignlyFailingClient : public CorvaneRESTClient {
 public:
  enum class Step { Send, Reply, Portion };
  ForeignlyFailingClient(Step step, void (*fail)())
      : CorvaneRESTClient(u"127.0.0.1", 7, kPersistent), step_(step), fail_(fail) {}
  void sendMesg(RESTMessage& message) override {
    if (step_ == Step::Send) fail_();
    CorvaneRESTClient::sendMesg(message);
  }
  void recvMesg(ClientResponse& response) override {
    if (step_ == Step::Reply) fail_();
    CorvaneRESTClient::recvMesg(response);
  }
  void recvStream(ClientResponse& response) override {
    if (step_ == Step::Portion) fail_();
    CorvaneRESTClient::recvStream(response);
  }

 private:
  Step step_;
  void (*fail_)();
};

constexpr ForeignlyFailingClient::Step kSteps[] = {ForeignlyFailingClient::Step::Send,
                                                   ForeignlyFailingClient::Step::Reply,
                                                   ForeignlyFailingClient::Step::Portion};

// Each record of the reply is a chunk, so that its exchange pulls portions.
std::string parseResultsInPortions() {
  const auto& reply = replyNamed("ParseResultWithThreeRows");
  return chunkedAt(reply, {reply.recordStarts.begin() + 1, reply.recordStarts.end()}, true).text;
}

TEST(CorvaneRESTClient, AnInfrastructureErrorIsAnInternalErrorWithoutArgumentsAndNotRepeated) {
  for (const auto step : kSteps) {
    ScriptedNetwork network(answer(parseResultsInPortions()));
    ForeignlyFailingClient client(step, [] { throw tq::oss::NLSException(); });
    auto request = requestFor(kParseResult);
    ClientResponse response;
    const auto raised = raisedBy([&] { client.sendAndRecvMesg(request, response); });
    ASSERT_EQ(raised.size(), 1U);
    EXPECT_EQ(raised.front().id, "ERR_CLIENT_INTERNAL");
    EXPECT_TRUE(raised.front().arguments.empty());
    EXPECT_EQ(network.connections(), 1U);
    EXPECT_LE(network.requests(), 1U);
  }
}

TEST(CorvaneRESTClient, AnyOtherExceptionPassesThroughUnchangedAndIsNotRepeated) {
  for (const auto step : kSteps) {
    ScriptedNetwork network(answer(parseResultsInPortions()));
    auto request = requestFor(kParseResult);
    ClientResponse response;
    ForeignlyFailingClient standard(step, [] { throw std::runtime_error("from elsewhere"); });
    try {
      standard.sendAndRecvMesg(request, response);
      FAIL();
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "from elsewhere");
    }
    EXPECT_EQ(network.connections(), 1U);
    ForeignlyFailingClient memory(step, [] { throw std::bad_alloc(); });
    EXPECT_THROW(memory.sendAndRecvMesg(request, response), std::bad_alloc);
    ForeignlyFailingClient number(step, [] { throw 17; });
    EXPECT_THROW(number.sendAndRecvMesg(request, response), int);
    EXPECT_EQ(network.connections(), 3U) << "one each";
  }
}

TEST(CorvaneRESTClient, AfterAFailedWriteTheNextExchangeStartsOnAFreshConnection) {
  // Half a request may be with the server: what follows on that connection would be read as its
  // rest.
  ScriptedNetwork network({silence(), answer(plain(nextReply()))});
  network.failNextWrite(ENOBUFS);
  auto client = clientFor(kPersistent);
  EXPECT_EQ(exchangeError(client, kCreateCollection).errorId, "ERR_CLIENT_INTERNAL");
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 2U);
  EXPECT_EQ(network.connection(0).received, "");
  EXPECT_FALSE(network.waitedForever());
}

TEST(CorvaneRESTClient, IsCommnErrorKnowsExactlyFourIds) {
  for (auto id : {StaticDefs::ERR_SERVER_COMM_RECV, StaticDefs::ERR_CONNECT_SERVER,
                  StaticDefs::ERR_SERVER_COMM_SEND, StaticDefs::ERR_SERVER_COMM_TIMEOUT}) {
    EXPECT_TRUE(CorvaneRESTClient::isCommnError(id)) << utf8(id);
  }
  for (icu::UnicodeString id :
       {StaticDefs::ERR_CLIENT_INTERNAL, StaticDefs::ERR_INVALID_STATE, StaticDefs::ERR_SERVER_APP,
        StaticDefs::ERR_CLIENT_RESP_PARSING, StaticDefs::ERR_SERVER_PROTOCOL,
        StaticDefs::ERR_SERVER_INVALID_AUTH, icu::UnicodeString(u"ZVK0001E"), icu::UnicodeString(),
        icu::UnicodeString(u"ERR_SERVER_COMM_RECV "), icu::UnicodeString(u"err_server_comm_recv"),
        icu::UnicodeString(u"ERR_SERVER_COMM")}) {
    EXPECT_FALSE(CorvaneRESTClient::isCommnError(id)) << utf8(id);
  }
}

// Time-outs.

TEST(CorvaneRESTClient, ASilentServerRaisesTheTimeOutWithinOneHundredMilliseconds) {
  ScriptedNetwork network(silence());
  auto client = clientFor(kFresh);
  client.setNumRetries(0);
  client.setTimeOut(500);
  EXPECT_EQ(exchangeError(client, kCreateCollection).errorId, "ERR_SERVER_COMM_TIMEOUT");
  EXPECT_GE(network.elapsedMillis(), 500U);
  EXPECT_LE(network.elapsedMillis(), 600U);
}

TEST(CorvaneRESTClient, AfterATimeOutALateReplyIsNotTakenForTheNextOne) {
  ScriptedNetwork network(
      {Script().expectRequest().stall().send(plain(replyNamed("GetStatus"))).awaitClose(),
       answer(plain(nextReply()))});
  auto client = clientFor(kPersistent);
  client.setNumRetries(0);
  client.setTimeOut(100);
  EXPECT_EQ(exchangeError(client, kGetStatus).errorId, "ERR_SERVER_COMM_TIMEOUT");
  network.release();
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 2U);
}

TEST(CorvaneRESTClient, WithoutATimeOutItWaitsForAsLongAsItTakes) {
  ScriptedServer server(Script().expectRequest().stall().send(plain(nextReply())).awaitClose());
  std::thread releaser([&] {
    server.awaitRequests(0, 1);
    server.release();
  });
  CorvaneRESTClient client(u"127.0.0.1", server.port(), kFresh);
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  releaser.join();
}

TEST(CorvaneRESTClient, ADeadlineBoundsAllAttemptsTogether) {
  ScriptedNetwork network(silence());
  auto client = clientFor(kFresh);
  client.setNumRetries(50);
  client.setTimeOut(100);
  client.setDeadline(450);
  EXPECT_EQ(exchangeError(client, kCreateCollection).errorId, "ERR_SERVER_COMM_TIMEOUT");
  EXPECT_LE(network.elapsedMillis(), 550U);
  EXPECT_GE(network.elapsedMillis(), 400U);
}

TEST(CorvaneRESTClient, ADeadlineThatPassesBetweenAttemptsNamesWhatTheLastOneMet) {
  ScriptedNetwork network(silence());
  network.failConnects(ECONNREFUSED);
  auto client = clientFor(kFresh);
  client.setDeadline(300);
  client.setRetryPause(1000, 1000);
  auto request = requestFor(kCreateCollection);
  ClientResponse response;
  const auto raised = raisedBy([&] { client.sendAndRecvMesg(request, response); });
  ASSERT_EQ(raised.size(), 2U);
  EXPECT_EQ(raised[0].id, "ERR_SERVER_COMM_TIMEOUT");
  EXPECT_EQ(raised[0].file, "kruCorvaneRESTClient");
  EXPECT_EQ(raised[0].arguments, kHostAndPort);
  EXPECT_EQ(raised[1].id, "ERR_CONNECT_SERVER");
  EXPECT_EQ(network.connectAttempts(), 1U);
}

// Pulling further portions.

TEST(CorvaneRESTClient, AStreamingSearchsPortionsReplaceEachOtherAndAScalarSearchsAddUp) {
  for (const char* name : {"StreamSearchWithFortyHits", "ScalarSearchWithFortyHits"}) {
    const auto& reply = replyNamed(name);
    ScriptedNetwork network(answer(chunked(reply, 400, true).text));
    auto client = clientFor(kPersistent);
    auto request = requestFor(reply.kind);
    ClientResponse response;
    client.sendAndRecvMesg(request, response);
    const auto first = response.getSearchResponse().count();
    ASSERT_GT(first, 0U);
    ASSERT_FALSE(client.isEndOfStream());
    client.recv(response);
    const auto second = response.getSearchResponse().count();
    if (reply.kind == kStreamSearch) {
      EXPECT_LT(second, 20U) << "the first portion is gone";
    } else {
      EXPECT_GT(second, first);
    }
  }
}

TEST(CorvaneRESTClient, WhatIsCarriedStaysInFrontWhileAStepLeavesNothingOver) {
  // Chunks too short for a record's start: the size line between two of them is consumed whole,
  // and what was carried before it is neither dropped nor taken for a part of the line.
  const auto& reply = replyNamed("StreamSearchWithThreeHits");
  for (const std::vector<std::size_t>& ends :
       {std::vector<std::size_t>{3, 5, reply.body.size()},
        std::vector<std::size_t>{1, 2, 3, 4, 5, 6, 7, reply.body.size()},
        std::vector<std::size_t>{reply.recordStarts[1] + 2, reply.recordStarts[1] + 3,
                                 reply.body.size()}}) {
    for (const auto arrival : {kOnDemand, kAllThere}) {
      ScriptedNetwork network(answer(chunkedAt(reply, ends, true).text), arrival);
      auto client = clientFor(kPersistent);
      EXPECT_EQ(runExchange(client, reply.kind), reply.expected) << ends.size() << " chunks";
      EXPECT_FALSE(network.waitedForever());
    }
  }
}

TEST(CorvaneRESTClient, TheExchangeSetsTheResultCountTo0First) {
  const auto& reply = replyNamed("StreamSearchWithThreeHits");
  Script script;
  script.expectRequest().send(plain(reply)).expectRequest().send(plain(reply)).awaitClose();
  ScriptedNetwork network(script);
  auto client = clientFor(kPersistent);
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  for (int i = 0; i < 2; ++i) {
    client.sendAndRecvMesg(request, response);
    EXPECT_EQ(response.getResultCount(), 3);
    EXPECT_EQ(response.getSearchResponse().count(), 3U) << "a reused response starts empty";
  }
}

TEST(CorvaneRESTClient, ABrokenStreamEndsWithoutAnErrorAndSaysThatItIsTruncated) {
  const auto& reply = replyNamed("StreamSearchWithFortyHits");
  const auto form = chunked(reply, 400, true);
  for (const bool reset : {false, true}) {
    Script script;
    // The second chunk comes without its last byte: its complete records are dropped with it.
    script.expectRequest().send(form.text.substr(0, form.chunks[1].dataEnd - 1));
    if (reset) script.reset();
    ScriptedNetwork network(script);
    auto client = clientFor(kPersistent);
    auto request = requestFor(kStreamSearch);
    ClientResponse response;
    client.sendAndRecvMesg(request, response);
    EXPECT_FALSE(client.isTruncated());
    EXPECT_NO_THROW(client.recv(response));
    EXPECT_TRUE(client.isEndOfStream());
    EXPECT_TRUE(client.isTruncated());
    EXPECT_EQ(response.getSearchResponse().count(), 0U);
    EXPECT_EQ(network.connections(), 1U);
  }
}

TEST(CorvaneRESTClient, ATruncatedStreamIsForgottenByTheNextExchange) {
  const auto& reply = replyNamed("StreamSearchWithFortyHits");
  const auto form = chunked(reply, 400, true);
  ScriptedNetwork network(
      {Script().expectRequest().send(form.text.substr(0, form.chunks[1].dataEnd)),
       answer(plain(replyNamed("StreamSearchWithThreeHits")))});
  auto client = clientFor(kPersistent);
  EXPECT_TRUE(runExchange(client, kStreamSearch).truncated);
  EXPECT_EQ(runExchange(client, kStreamSearch), replyNamed("StreamSearchWithThreeHits").expected);
}

TEST(CorvaneRESTClient, AReplyWithALengthAndNoEndMarkEndsWithItsBody) {
  for (const int kind : {kStreamSearch, kScalarSearch}) {
    Reply reply = replyNamed("StreamSearchWithThreeHits");
    reply.kind = kind;
    reply.body.resize(reply.body.size() - 4);
    ScriptedNetwork network(Script()
                                .expectRequest()
                                .send(plain(reply))
                                .expectRequest()
                                .send(plain(nextReply()))
                                .awaitClose());
    auto client = clientFor(kPersistent);
    EXPECT_EQ(runExchange(client, kind), reply.expected);
    EXPECT_FALSE(network.waitedForever());
    EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
    EXPECT_EQ(network.connections(), 1U);
  }
}

TEST(CorvaneRESTClient, AReplyWithALengthThatEndsWithinARecordIsTruncated) {
  const auto& whole = replyNamed("StreamSearchWithThreeHits");
  for (const auto pull : {Pull::Looping, Pull::Single}) {
    for (std::size_t size = whole.recordStarts[1] + 1; size < whole.recordStarts[2]; ++size) {
      Reply reply = whole;
      reply.body.resize(size);
      reply.expected.hits.resize(1);
      reply.expected.truncated = true;
      ScriptedNetwork network(answer(plain(reply)));
      auto client = clientFor(kPersistent);
      EXPECT_EQ(runExchange(client, reply.kind, pull), reply.expected) << size;
      EXPECT_FALSE(network.waitedForever());
    }
  }
}

TEST(CorvaneRESTClient, AChunkedStreamWithoutAnEndMarkEndsWithItsLastChunk) {
  for (const int kind : {kStreamSearch, kScalarSearch}) {
    Reply reply = replyNamed("StreamSearchWithThreeHits");
    reply.kind = kind;
    reply.body.resize(reply.body.size() - 4);
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{20}}) {
      ScriptedNetwork network(answer(chunked(reply, size, true).text), kOnDemand);
      auto client = clientFor(kPersistent);
      const auto outcome = runExchange(client, kind);
      EXPECT_EQ(outcome.hits, reply.expected.hits);
      EXPECT_TRUE(outcome.endOfStream);
      EXPECT_FALSE(network.waitedForever());
    }
  }
}

TEST(CorvaneRESTClient, AChunkedStreamThatEndsWithinARecordIsTruncated) {
  const auto& whole = replyNamed("StreamSearchWithThreeHits");
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{20}}) {
    Reply reply = whole;
    reply.body.resize(whole.recordStarts[2] - 3);
    reply.expected.hits.resize(1);
    reply.expected.truncated = true;
    ScriptedNetwork network(answer(chunked(reply, size, true).text), kOnDemand);
    auto client = clientFor(kPersistent);
    EXPECT_EQ(runExchange(client, reply.kind), reply.expected) << size;
    EXPECT_FALSE(network.waitedForever());
  }
}

TEST(CorvaneRESTClient, ParseResultsInSeveralPortionsAreReadWithinTheirExchange) {
  const auto& reply = replyNamed("ParseResultWithThreeRows");
  // A portion for each record, and one for the end mark.
  const std::vector<std::size_t> ends(reply.recordStarts.begin() + 1, reply.recordStarts.end());
  for (const auto arrival : {kOnDemand, kAllThere}) {
    ScriptedNetwork network(answer(chunkedAt(reply, ends, true).text), arrival);
    auto client = clientFor(kPersistent);
    auto request = requestFor(kParseResult);
    ClientResponse response;
    client.sendAndRecvMesg(request, response);
    EXPECT_TRUE(client.isEndOfStream());
    EXPECT_FALSE(client.isTruncated());
    EXPECT_EQ(response.getParseResponse().count(), 3U);
    EXPECT_EQ(client.getRequestOutcome(), RequestOutcome::Answered);
    EXPECT_EQ(response.getSearchResponse().count(), 0U) << "rows are not taken for hits";
    EXPECT_FALSE(network.waitedForever());
  }
}

TEST(CorvaneRESTClient, ATimeOutInALaterPortionOfParseResultsRepeatsTheExchangeAndDoublesNoRow) {
  const auto& reply = replyNamed("ParseResultWithThreeRows");
  const std::vector<std::size_t> ends(reply.recordStarts.begin() + 1, reply.recordStarts.end());
  const auto form = chunkedAt(reply, ends, true);
  ScriptedNetwork network(
      {Script().expectRequest().send(form.text.substr(0, form.chunks[1].dataEnd)).awaitClose(),
       answer(form.text)});
  auto client = clientFor(kPersistent);
  client.setTimeOut(100);
  EXPECT_EQ(runExchange(client, kParseResult), reply.expected);
  EXPECT_EQ(network.requests(), 2U);
}

TEST(CorvaneRESTClient, RowsThatWereTakenAreNotHandedOutAgainWhenAFailedExchangeIsReadOn) {
  const auto& reply = replyNamed("ParseResultWithThreeRows");
  const std::vector<std::size_t> ends(reply.recordStarts.begin() + 1, reply.recordStarts.end());
  const auto form = chunkedAt(reply, ends, true);
  const std::size_t early = form.chunks[0].dataEnd + 2;
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(form.text.substr(0, early))
                              .stall()
                              .send(form.text.substr(early))
                              .awaitClose(),
                          kOnDemand);
  auto client = clientFor(kPersistent);
  client.setNumRetries(0);
  client.setTimeOut(100);
  auto request = requestFor(kParseResult);
  ClientResponse response;
  EXPECT_EQ(errorOf([&] { client.sendAndRecvMesg(request, response); }).errorId,
            "ERR_SERVER_COMM_TIMEOUT");
  Outcome taken;
  takeParsed(response.getParseResponse(), taken);
  EXPECT_EQ(taken.parsed.size(), 1U);
  network.release();
  while (!client.isEndOfStream()) client.recv(response);
  takeParsed(response.getParseResponse(), taken);
  EXPECT_EQ(taken.parsed, reply.expected.parsed);
}

TEST(CorvaneRESTClient, ARowThatIsAddedByHandBehindRowsThatWereTakenStartsTheirListAnew) {
  const auto& reply = replyNamed("ParseResultWithThreeRows");
  ScriptedNetwork network(answer(plain(reply)));
  auto client = clientFor(kPersistent);
  auto request = requestFor(kParseResult);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  Outcome taken;
  takeParsed(response.getParseResponse(), taken);
  ASSERT_EQ(taken.parsed, reply.expected.parsed);
  client.recv(response);
  response.addParseResult(tq::comm::ParseResult(false));
  Outcome next;
  takeParsed(response.getParseResponse(), next);
  ASSERT_EQ(next.parsed.size(), 1U);
  EXPECT_EQ(next.parsed.front(), reply.expected.parsed.front());
}

TEST(CorvaneRESTClient, RecvMultResponseHandsOutNoHitThatWasTaken) {
  const std::string stream =
      kChunkedHead + chunk(kUninterpreted + searchHit("a") + searchHit("b")) +
      chunk(searchHit("c")) + chunk(searchHit("d") + bigEndian(0)) + kLastChunk;
  ScriptedNetwork network(answer(stream), kOnDemand);
  auto client = clientFor(kPersistent);
  auto request = requestFor(kScalarSearch);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  EXPECT_EQ(idsOf(response), (std::vector<std::string>{"a", "b"}));
  client.recvMultResponse(response);
  EXPECT_EQ(idsOf(response), (std::vector<std::string>{"c", "d"}));
}

TEST(CorvaneRESTClient, AStreamWithALyingPortionIsRefusedAndOver) {
  const auto& reply = replyNamed("StreamSearchWithTenHits");
  const std::vector<std::size_t> ends{reply.recordStarts[2], reply.recordStarts[5],
                                      reply.body.size()};
  auto form = chunkedAt(reply, ends, true);
  // The key of the second portion's first hit claims to be as long as the rest of the world.
  form.text.replace(form.chunks[1].dataBegin + 4, 4, bigEndian(0x3FFFFFFF));
  ScriptedNetwork network({answer(form.text), answer(plain(nextReply()))});
  auto client = clientFor(kPersistent);
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  EXPECT_EQ(response.getSearchResponse().count(), 2U);
  EXPECT_EQ(errorOf([&] { client.recv(response); }).errorId, "ERR_CLIENT_RESP_PARSING");
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_TRUE(client.isTruncated());
  client.recv(response);
  EXPECT_EQ(response.getSearchResponse().count(), 0U);
  EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
  EXPECT_EQ(network.connections(), 2U);
}

TEST(CorvaneRESTClient, WhatAPortionCarriedIsForgottenWhenTheOneBehindItIsRefused) {
  // The first chunk is too short for a record's start and is joined to the second, whose record has
  // a field that runs past its end.
  std::string bad = hitRecord("a", "");
  bad.replace(bad.size() - 5, 4, bigEndian(2));
  ScriptedNetwork network(answer(kChunkedHead + chunk(kUninterpreted + std::string(2, '\0')) +
                                 chunk(enveloped(bad).substr(2)) + chunk(searchHit("b")) +
                                 chunk(bigEndian(0)) + kLastChunk));
  auto client = clientFor(kPersistent);
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  EXPECT_EQ(errorOf([&] { client.sendAndRecvMesg(request, response); }).errorId,
            "ERR_CLIENT_RESP_PARSING");
  client.recv(response);
  EXPECT_EQ(idsOf(response), std::vector<std::string>{"b"});
}

TEST(CorvaneRESTClient, AnErrorThatWasReadToItsEndLeavesAnEmptyStreamThatIsComplete) {
  Reply refusal{"Refusal", kStreamSearch, 500};
  refusal.body = kUninterpreted + enveloped(record({{"MsgId", "ZVK1"}, {"MsgText", "t"}}));
  Reply broken{"Broken", kStreamSearch};
  broken.body = kUninterpreted + bigEndian(5) + "12345";
  for (const auto& reply : {refusal, broken}) {
    ScriptedNetwork network(answer(plain(reply)));
    auto client = clientFor(kPersistent);
    client.setNumRetries(0);
    auto request = requestFor(kStreamSearch);
    ClientResponse response;
    EXPECT_NE(errorOf([&] { client.sendAndRecvMesg(request, response); }).errorId, "");
    EXPECT_TRUE(client.isEndOfStream()) << reply.name;
    EXPECT_EQ(client.isTruncated(), reply.name == "Broken");
    client.recv(response);
    EXPECT_FALSE(network.waitedForever());
  }
}

TEST(CorvaneRESTClient, TheLimitHoldsForEachLaterPortion) {
  const std::string hit = searchHit(std::string(500, 'i'));
  for (const std::size_t limit : {hit.size(), hit.size() - 1}) {
    ScriptedNetwork network(answer(kChunkedHead + chunk(kUninterpreted + searchHit("a")) +
                                   chunk(hit) + chunk(bigEndian(0)) + kLastChunk));
    auto client = clientFor(kPersistent);
    client.setMaxReplyBytes(limit);
    auto request = requestFor(kStreamSearch);
    ClientResponse response;
    client.sendAndRecvMesg(request, response);
    EXPECT_EQ(errorOf([&] { client.recv(response); }).errorId,
              limit == hit.size() ? "" : "ERR_CLIENT_RESP_PARSING");
  }
}

TEST(CorvaneRESTClient, AnEstimateInChunksCanBePulledToItsLastChunk) {
  const Reply whole = replyNamed("Selectivity");
  Reply marked = whole;
  marked.body += bigEndian(0);
  for (const auto& [reply, size] :
       {std::pair{whole, std::size_t{0}}, std::pair{whole, std::size_t{7}}, {marked, 0}}) {
    for (const auto arrival : {kOnDemand, kAllThere}) {
      ScriptedNetwork network(answer(chunked(reply, size, true).text), arrival);
      auto client = clientFor(kPersistent);
      auto request = requestFor(kSelectivity);
      ClientResponse response;
      client.sendAndRecvMesg(request, response);
      while (!client.isEndOfStream()) client.recv(response);
      EXPECT_FALSE(client.isTruncated());
      EXPECT_EQ(response.getSearchResponse().count(), 0U);
      EXPECT_EQ(response.getSelectivityInfo().getThird(), 100);
      EXPECT_FALSE(network.waitedForever());
    }
  }
}

TEST(CorvaneRESTClient, AnEstimateInChunksThatNobodyPullsKeepsItsConnection) {
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(kChunkedHead + kEstimate + kLastChunk)
                              .expectRequest()
                              .send(plain(nextReply()))
                              .awaitClose());
  auto client = clientFor(kPersistent);
  auto request = requestFor(kSelectivity);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  EXPECT_FALSE(client.isEndOfStream());
  EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
  EXPECT_EQ(network.connections(), 1u);
}

TEST(CorvaneRESTClient, AnEstimateWhosePullTimedOutCostsItsConnection) {
  // What was looked for comes in front of the next request.
  ScriptedNetwork network({Script()
                               .expectRequest()
                               .send(kChunkedHead + kEstimate)
                               .stall()
                               .send(kLastChunk)
                               .awaitClose(),
                           Script().expectRequest().send(plain(nextReply())).awaitClose()});
  auto client = clientFor(kPersistent);
  client.setNumRetries(0);
  client.setTimeOut(100);
  auto request = requestFor(kSelectivity);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  EXPECT_EQ(errorOf([&] { client.recv(response); }).errorId, "ERR_SERVER_COMM_TIMEOUT");
  network.release();
  EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
  EXPECT_EQ(network.connections(), 2u);
}

TEST(CorvaneRESTClient, AnEstimatesFurtherPortionsAreReadAsThoseOfASearch) {
  // The server never sends the last chunk: the zero length ends the stream.
  ScriptedNetwork network(
      Script().expectRequest().send(kChunkedHead + kEstimate + chunk(bigEndian(0))).awaitClose());
  auto client = clientFor(kPersistent);
  auto request = requestFor(kSelectivity);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  client.recv(response);
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_FALSE(client.isTruncated());
  EXPECT_FALSE(network.waitedForever());
}

TEST(CorvaneRESTClient, BytesBehindTheOneRecordOfAReplyDoNotMakeItTruncated) {
  for (const int kind : {kSelectivity, kGetStatus}) {
    Reply reply{"Behind", kind, 200};
    reply.body = kUninterpreted + enveloped(record({{"STATUS_CODE", "3"}})) + bigEndian(0);
    ScriptedNetwork network(Script().expectRequest().send(plain(reply)).awaitClose());
    auto client = clientFor(kPersistent);
    const auto outcome = runExchange(client, kind);
    EXPECT_EQ(outcome.errorId, "") << kind;
    EXPECT_TRUE(outcome.endOfStream) << kind;
    EXPECT_FALSE(outcome.truncated) << kind;
  }
}

TEST(CorvaneRESTClient, ARequestThatIsRefusedInTheMiddleOfAStreamDoesNotDisturbIt) {
  const auto& reply = replyNamed("StreamSearchWithTenHits");
  ScriptedNetwork network(answer(chunked(reply, 100, true).text));
  auto client = clientFor(kPersistent);
  auto search = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(search, response);
  std::vector<std::string> ids;
  const auto take = [&] {
    auto& hits = response.getSearchResponse();
    while (hits.hasMore()) ids.push_back(utf8(hits.getNext().getDocId()));
  };
  take();
  auto refused = requestFor(kDeleteDocument);
  refused.getMetadata().clear();
  ClientResponse unused;
  EXPECT_THROW(client.sendAndRecvMesg(refused, unused), RESTException);
  while (!client.isEndOfStream()) {
    client.recv(response);
    take();
  }
  std::vector<std::string> expected;
  for (const auto& hit : reply.expected.hits) expected.push_back(hit.id);
  EXPECT_EQ(ids, expected);
}

TEST(CorvaneRESTClient, AReplyThatIsReceivedByItselfDoesNotBeginWithWhatAStreamLeft) {
  ScriptedNetwork network(
      {Script()
           .expectRequest()
           .send(kChunkedHead +
                 chunk(kUninterpreted + searchHit("first") + bigEndian(100) + "part"))
           .awaitClose(),
       Script().expectRequest().send(plain(replyNamed("StreamSearchWithOneHit"))).awaitClose()});
  auto client = clientFor(kPersistent);
  auto search = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(search, response);

  client.close();
  client.open();
  client.send(search);
  client.recvMesg(response);
  EXPECT_EQ(idsOf(response),
            std::vector<std::string>{replyNamed("StreamSearchWithOneHit").expected.hits[0].id});
}

TEST(CorvaneRESTClient, AStreamIsNotReadOnWhenTheExchangeAfterItCouldNotBeSent) {
  const std::string half = searchHit("first") + searchHit("second").substr(0, 6);
  ScriptedNetwork network(
      {Script().expectRequest().send(kChunkedHead + chunk(kUninterpreted + half)).awaitClose(),
       Script().send(chunk(searchHit("second").substr(6))).awaitClose()});
  auto client = clientFor(kPersistent);
  auto search = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(search, response);
  network.failNextWrite(ENOBUFS);
  ClientResponse unsent;
  EXPECT_EQ(errorOf([&] { client.sendAndRecvMesg(search, unsent); }).errorId,
            "ERR_CLIENT_INTERNAL");
  EXPECT_EQ(errorOf([&] { client.recv(response); }).errorId, "ERR_INVALID_STATE")
      << "an earlier exchange has filled it";
  ClientResponse fresh;
  client.recv(fresh);
  EXPECT_TRUE(idsOf(fresh).empty());
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_TRUE(client.isTruncated());
}

TEST(CorvaneRESTClient, RecvAfterAFailedExchangeGoesOn) {
  ScriptedNetwork network(closeEarly());
  auto client = clientFor(kPersistent);
  client.setNumRetries(0);
  EXPECT_EQ(exchangeError(client, kStreamSearch).errorId, "ERR_SERVER_COMM_RECV");
  ASSERT_TRUE(client.isConnected());
  ClientResponse response;
  EXPECT_EQ(errorOf([&] { client.recv(response); }).errorId, "");
  EXPECT_TRUE(client.isEndOfStream());
}

/// The calls in force, but for receives, which find no memory.
class ReceivesWithoutMemory {
 public:
  ReceivesWithoutMemory() : calls_(tq::oss::systemCalls()) {
    calls_.recv = [](int, void*, std::size_t, int) -> ssize_t { throw std::bad_alloc(); };
    before_ = tq::oss::replaceSystemCalls(&calls_);
  }
  ~ReceivesWithoutMemory() { tq::oss::replaceSystemCalls(before_); }
  ReceivesWithoutMemory(const ReceivesWithoutMemory&) = delete;
  ReceivesWithoutMemory& operator=(const ReceivesWithoutMemory&) = delete;

 private:
  tq::oss::SystemCalls calls_;
  const tq::oss::SystemCalls* before_;
};

TEST(CorvaneRESTClient, AReceiveThatFindsNoMemoryBreaksTheStreamOff) {
  const auto form = chunked(replyNamed("StreamSearchWithThreeHits"), 20, true);
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(form.text.substr(0, form.chunks[0].dataEnd))
                              .send(form.text.substr(form.chunks[0].dataEnd))
                              .awaitClose(),
                          kOnDemand);
  auto client = clientFor(kPersistent);
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  ASSERT_FALSE(client.isEndOfStream());
  {
    const ReceivesWithoutMemory scarce;
    EXPECT_THROW(client.recv(response), std::bad_alloc);
  }
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_TRUE(client.isTruncated());
}

TEST(CorvaneRESTClient, RecvMultResponseReadsToTheEnd) {
  const auto& reply = replyNamed("ScalarSearchWithFortyHits");
  ScriptedNetwork network(answer(chunked(reply, 100, true).text));
  auto client = clientFor(kPersistent);
  auto request = requestFor(reply.kind);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  client.recvMultResponse(response);
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_EQ(response.getSearchResponse().count(), 40U);
}

TEST(CorvaneRESTClient, IsAtTheEndOfTheStreamAfterAKindThatDoesNotStream) {
  ScriptedNetwork network(answer(plain(nextReply())));
  auto client = clientFor(kPersistent);
  EXPECT_FALSE(client.isEndOfStream());
  runExchange(client, kGetStatus);
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_FALSE(client.isTruncated());
}

TEST(CorvaneRESTClient, Kind6IsReadAsASearchAndKind64AsAKindWithoutResults) {
  Reply reply = replyNamed("StreamSearchWithThreeHits");
  reply.kind = 6;
  {
    ScriptedNetwork network(answer(plain(reply)));
    auto client = clientFor(kPersistent);
    EXPECT_EQ(runExchange(client, 6), reply.expected);
  }
  ScriptedNetwork network(answer(plain(reply)));
  auto client = clientFor(kPersistent);
  EXPECT_EQ(runExchange(client, 64), ok(64).expected);
  EXPECT_EQ(network.requests(), 1U);
}

// Bad input.

TEST(CorvaneRESTClient, AnotherProtocolIsRefused) {
  const std::vector<std::string> greetings{
      "220 mail.example ESMTP ready\r\n\r\n",
      "SSH-2.0-OpenSSH_9.2p1\r\n\r\n",
      std::string("\x15\x03\x01\x00\x02\x02\x46\r\n\r\n", 11),
      "<html>\r\n<body>Content\r\n\r\n",
      std::string(300, '\0'),
      "\r\n\r\n\r\n\r\n",
  };
  for (const auto& greeting : greetings) {
    for (const auto arrival : {kOnDemand, kAllThere}) {
      ScriptedNetwork network(Script().expectRequest().send(greeting), arrival);
      auto client = clientFor(kPersistent);
      client.setTimeOut(100);
      const auto outcome = runExchange(client, kStreamSearch);
      EXPECT_TRUE(outcome.errorId == "ERR_CLIENT_RESP_PARSING" ||
                  outcome.errorId == "ERR_SERVER_COMM_RECV" ||
                  outcome.errorId == "ERR_SERVER_PROTOCOL")
          << greeting << outcome;
      EXPECT_TRUE(outcome.hits.empty());
      EXPECT_NE(outcome.returnCode, 0);
      EXPECT_LE(network.requests(), 2U);
    }
  }
}

TEST(CorvaneRESTClient, AnAnnouncedLengthOf2GibibytesIsRefusedAtOnce) {
  for (const char* line :
       {"Content-Length: 2147483648\r\n\r\n", "Content-Length: -5\r\n\r\n",
        "Content-Length: 1073741825\r\n\r\n", "Content-Length: 18446744073709551617\r\n\r\n",
        "Transfer-Encoding: chunked\r\n\r\n80000000\r\n",
        "Transfer-Encoding: chunked\r\n\r\n40000001\r\n",
        "Transfer-Encoding: chunked\r\n\r\n-1\r\n",
        "Transfer-Encoding: chunked\r\n\r\nFFFFFFFFFFFFFFFFFFFFF\r\n"}) {
    ScriptedNetwork network(answer(std::string("HTTP/1.1 200 OK\r\n") + line));
    auto client = clientFor(kPersistent);
    const auto error = exchangeError(client, kStreamSearch);
    EXPECT_EQ(error.errorId, "ERR_CLIENT_RESP_PARSING") << line;
    EXPECT_FALSE(network.waitedForever()) << line;
    EXPECT_EQ(network.requests(), 1U) << line;
  }
}

TEST(CorvaneRESTClient, ASizeLineThatIsNoNumberIsRefused) {
  const auto& reply = replyNamed("StreamSearchWithThreeHits");
  for (const char* line : {"hello\r\n", ";x=1\r\n", "\r\n\r\n", " \r\n"}) {
    const std::string start = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    ScriptedNetwork network(answer(start + line + reply.body));
    auto client = clientFor(kPersistent);
    EXPECT_EQ(exchangeError(client, kStreamSearch).errorId, "ERR_CLIENT_RESP_PARSING") << line;
  }
}

TEST(CorvaneRESTClient, ASizeLineThatIsNoNumberIsRefusedInAStreamToo) {
  const auto& reply = replyNamed("StreamSearchWithFortyHits");
  const auto form = chunked(reply, 400, true);
  // After the broken line comes what would be chunks of their own.
  const std::string rest = form.text.substr(form.chunks[0].dataEnd + 2);
  for (const std::string& line : {std::string("\r\nhello\r\n"), std::string("\r\nzz\r\n"),
                                  "garbage without an end of line" + std::string(200, 'g')}) {
    ScriptedNetwork network(answer(form.text.substr(0, form.chunks[0].dataEnd) + line + rest));
    auto client = clientFor(kPersistent);
    auto request = requestFor(kStreamSearch);
    ClientResponse response;
    client.sendAndRecvMesg(request, response);
    EXPECT_EQ(errorOf([&] { client.recv(response); }).errorId, "ERR_CLIENT_RESP_PARSING") << line;
    EXPECT_TRUE(client.isEndOfStream());
    EXPECT_TRUE(client.isTruncated());
    client.recv(response);
    EXPECT_EQ(idsOf(response), std::vector<std::string>()) << line;
  }
}

TEST(CorvaneRESTClient, ASizeLineIsAsLongAs125CharactersAndNoLonger) {
  Reply reply = replyNamed("StreamSearchWithThreeHits");
  const std::string start = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  char digits[32];
  std::snprintf(digits, sizeof digits, "%zx", reply.body.size());
  for (const std::size_t length : {std::size_t{125}, std::size_t{126}, std::size_t{5000}}) {
    const auto line = std::string(length - std::string(digits).size(), '0') + digits;
    for (const auto arrival : {kOnDemand, kAllThere}) {
      ScriptedNetwork network(
          Script().expectRequest().send(start + line + "\r\n" + reply.body, 50).awaitClose(),
          arrival);
      auto client = clientFor(kPersistent);
      const auto outcome = runExchange(client, kStreamSearch);
      if (length <= 125) {
        EXPECT_EQ(outcome, reply.expected) << length;
      } else {
        EXPECT_EQ(outcome.errorId, "ERR_CLIENT_RESP_PARSING") << length;
      }
      EXPECT_FALSE(network.waitedForever()) << length;
    }
  }
}

TEST(CorvaneRESTClient, AHeaderBlockMayBeLongButNotEndless) {
  const auto& reply = replyNamed("StreamSearchWithThreeHits");
  for (const auto& [length, fits] : std::vector<std::pair<std::size_t, bool>>{
           {100000, true}, {1000000, true}, {1100000, false}}) {
    Reply padded = reply;
    padded.headerLines = "X-Pad: " + std::string(length, 'p') + "\r\n";
    ScriptedNetwork network(answer(plain(padded)));
    auto client = clientFor(kPersistent);
    const auto outcome = runExchange(client, kStreamSearch);
    if (fits) {
      EXPECT_EQ(outcome, reply.expected) << length;
    } else {
      EXPECT_EQ(outcome.errorId, "ERR_CLIENT_RESP_PARSING") << length;
    }
  }
}

TEST(CorvaneRESTClient, AServerThatNeverEndsItsHeadersIsRefused) {
  ScriptedNetwork network(Script().expectRequest().send(bigBody(3000000)).awaitClose());
  auto client = clientFor(kPersistent);
  EXPECT_EQ(exchangeError(client, kStreamSearch).errorId, "ERR_CLIENT_RESP_PARSING");
  EXPECT_FALSE(network.waitedForever());
}

TEST(CorvaneRESTClient, TheLimitOfAReplyCanBeMovedAndHoldsToTheByte) {
  const auto& reply = replyNamed("StreamSearchWithThreeHits");
  const auto size = reply.body.size();
  for (const bool inChunks : {false, true}) {
    for (const auto limit : {size, size - 1}) {
      const auto text = inChunks ? chunked(reply, 0, true).text : plain(reply);
      ScriptedNetwork network(answer(text));
      auto client = clientFor(kPersistent);
      client.setMaxReplyBytes(limit);
      const auto outcome = runExchange(client, kStreamSearch);
      if (limit == size) {
        EXPECT_EQ(outcome, reply.expected);
      } else {
        EXPECT_EQ(outcome.errorId, "ERR_CLIENT_RESP_PARSING");
      }
    }
  }
}

TEST(CorvaneRESTClient, TheLimitHoldsForARecordThatManyChunksWouldBring) {
  // Every chunk is small; the record that they are pieces of is not.
  Reply reply{"Endless", kStreamSearch};
  reply.body = "    " + bigEndian(1U << 30) + std::string(1000, 'r');
  const auto form = chunked(reply, 100, false);
  ScriptedNetwork network(Script().expectRequest().send(form.text));
  auto client = clientFor(kPersistent);
  client.setMaxReplyBytes(5000);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "ERR_CLIENT_RESP_PARSING");
}

TEST(CorvaneRESTClient, AChunkThatWithWhatIsCarriedPassesTheLargestLengthIsRefusedUnread) {
  // Not one byte of its data ever comes.
  ScriptedNetwork network(
      Script()
          .expectRequest()
          .send(kChunkedHead + chunk(kUninterpreted + searchHit("first") + bigEndian(100) + "part"))
          .send("7fffffff\r\n")
          .awaitClose());
  auto client = clientFor(kPersistent);
  client.setMaxReplyBytes(std::numeric_limits<int>::max());
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);

  expectRefusal("ERR_CLIENT_RESP_PARSING", "a record is longer than any reply",
                [&] { client.recv(response); });
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_FALSE(network.waitedForever());
}

TEST(CorvaneRESTClient, AChunkThatWithWhatIsCarriedHasJustTheLargestLengthIsWaitedFor) {
  ScriptedNetwork network(
      Script()
          .expectRequest()
          .send(kChunkedHead + chunk(kUninterpreted + searchHit("first") + bigEndian(100) + "part"))
          .send("7ffffff7\r\n"));
  auto client = clientFor(kPersistent);
  client.setMaxReplyBytes(std::numeric_limits<int>::max());
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  client.recv(response);
  EXPECT_TRUE(client.isTruncated()) << "the peer has closed instead";
}

TEST(CorvaneRESTClient, BlocksThatAreNoReplyAreNotReadForEver) {
  std::string blocks;
  while (blocks.size() < std::size_t{3} << 20) blocks += "HTTP/1.1 100 Continue\r\n\r\n";
  for (const std::string& endless : {blocks, std::string(blocks.size(), '\n')}) {
    ScriptedNetwork network(Script().expectRequest().send(endless).awaitClose());
    auto client = clientFor(kPersistent);
    EXPECT_EQ(runExchange(client, kGetStatus).errorId, "ERR_CLIENT_RESP_PARSING");
    EXPECT_FALSE(network.waitedForever());
  }
}

// The whole reply has been read all the same, and its length says where the next one begins.
TEST(CorvaneRESTClient, ARecordThatCannotBeUsedKeepsTheConnectionOfAReplyWithALength) {
  const struct {
    int kind;
    std::string records;
    std::string errorId;
    std::vector<std::string> errorArguments;
  } rows[] = {
      {kStreamSearch, bigEndian(0x7fffffff) + "abc", "ERR_CLIENT_RESP_PARSING", {}},
      {kStreamSearch, enveloped(bigEndian(100) + "abcd"), "ERR_CLIENT_RESP_PARSING", {}},
      {kStreamSearch, enveloped(record({{"X", "y"}})), "TQ_ERR_PROPERTY_MISSING", {"URI"}},
      {kGetStatus,
       enveloped(record({{"STATUS_CODE", "abc"}})),
       "TQ_ERR_PROPERTY_NUMBER",
       {"STATUS_CODE", "abc"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.errorId);
    Reply refused;
    refused.body = kUninterpreted + row.records;
    ScriptedNetwork network(Script()
                                .expectRequest()
                                .send(plain(refused))
                                .expectRequest()
                                .send(plain(nextReply()))
                                .awaitClose());
    auto client = clientFor(kPersistent);
    const auto error = exchangeError(client, row.kind);
    EXPECT_EQ(error.errorId, row.errorId);
    EXPECT_EQ(error.errorArguments, row.errorArguments);
    EXPECT_EQ(client.getRequestOutcome(), RequestOutcome::MayBeApplied);
    EXPECT_EQ(runExchange(client, kGetStatus), nextReply().expected);
    EXPECT_EQ(network.connections(), 1U);
    EXPECT_EQ(network.requests(), 2U) << "it is not repeated";
  }
}

TEST(CorvaneRESTClient, AServerThatClosesAtOnceIsAnErrorOfTheCommunication) {
  for (const auto& script : {Script(), Script().reset()}) {
    ScriptedNetwork network(script);
    auto client = clientFor(kPersistent);
    const auto id = exchangeError(client, kCreateCollection).errorId;
    // A reset that comes before the request is written shows at the write.
    EXPECT_TRUE(id == "ERR_SERVER_COMM_RECV" || id == "ERR_CLIENT_INTERNAL") << id;
  }
}

TEST(CorvaneRESTClient, OverLoopbackAServerThatClosesEarlyIsAnErrorOfTheCommunication) {
  ScriptedServer server(closeEarly());
  CorvaneRESTClient client(u"127.0.0.1", server.port(), kPersistent);
  EXPECT_EQ(exchangeError(client, kCreateCollection).errorId, "ERR_SERVER_COMM_RECV");
  EXPECT_EQ(server.connections(), 2U);
}

TEST(CorvaneRESTClient, OverLoopbackAResetIsAnErrorOfTheCommunication) {
  ScriptedServer server(Script().expectRequest().reset());
  CorvaneRESTClient client(u"127.0.0.1", server.port(), kPersistent);
  EXPECT_EQ(exchangeError(client, kCreateCollection).errorId, "ERR_SERVER_COMM_RECV");
}

// Misuse.

constexpr auto kMisused = "ERR_INVALID_STATE";

TEST(CorvaneRESTClient, AReceiveByHandWithoutAConnectionIsAnErrorOfTheConnection) {
  auto client = clientFor(kPersistent);
  ClientResponse response;
  const Raised raised = raisedBy([&] { client.recvMesg(response); });
  ASSERT_EQ(raised.size(), 1U);
  EXPECT_EQ(raised[0].id, "ERR_CONNECT_SERVER");
  EXPECT_EQ(raised[0].arguments, kHostAndPort);
}

TEST(CorvaneRESTClient, AReceiveByHandThatNothingWasSentForIsRefused) {
  ScriptedNetwork network(answer(plain(ok(kCreateCollection))));
  auto client = clientFor(kPersistent);
  EXPECT_EQ(runExchange(client, kCreateCollection), ok(kCreateCollection).expected);
  ClientResponse response;
  expectRefusal(kMisused,
                "it is not known whose reply would arrive next; only the one to a single request "
                "that was sent by hand on a sound connection can be received by hand",
                [&] { client.recvMesg(response); });
}

TEST(CorvaneRESTClient, AReplyThatIsOwedIsNotSkippedAsThatOfAKindWithoutOne) {
  ScriptedNetwork network(Script().expectRequest().expectRequest().awaitClose());
  auto client = clientFor(kPersistent);
  EXPECT_EQ(runExchange(client, kAsynchAddDocument).errorId, "");
  auto request = requestFor(kCreateCollection);
  client.send(request);
  ClientResponse response;
  expectRefusal(kMisused,
                "the request that was sent by hand has a reply, and requests of the kind of the "
                "last exchange have none",
                [&] { client.recvMesg(response); });
}

TEST(CorvaneRESTClient, AStreamIsNotReadIntoTheResponseOfAnotherExchange) {
  const std::string text = chunked(replyNamed("StreamSearchWithFortyHits"), 400, true).text;
  ScriptedNetwork network({answer(text), answer(text)});
  auto client = clientFor(kPersistent);
  auto request = requestFor(kStreamSearch);
  ClientResponse first;
  ClientResponse second;
  client.sendAndRecvMesg(request, first);
  client.sendAndRecvMesg(request, second);
  expectRefusal(kMisused,
                "another exchange has filled this response; the stream of the last exchange can be "
                "read only into its own",
                [&] { client.recv(first); });
}

TEST(CorvaneRESTClient, NothingIsSentByHandBehindARequestThatWasWrittenInPart) {
  ScriptedNetwork network(silence());
  auto client = clientFor(kPersistent);
  network.failNextWrite(ENOBUFS);
  EXPECT_EQ(exchangeError(client, kCreateCollection).errorId, "ERR_CLIENT_INTERNAL");
  auto request = requestFor(kCreateCollection);
  expectRefusal(kMisused, "an earlier request was written in part; close the connection first",
                [&] { client.send(request); });
}

TEST(CorvaneRESTClient, WhatIsNoRestOfAChunkedReplyIsRefused) {
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(kChunkedHead + chunk(std::string(8, '\0')))
                              .expectRequest()
                              .send("garbage\r\n")
                              .awaitClose());
  auto client = clientFor(kPersistent);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
  auto request = requestFor(kGetStatus);
  ClientResponse response;
  expectRefusal("ERR_CLIENT_RESP_PARSING",
                "the rest of the reply before is not a chunked reply's, or has no end",
                [&] { client.sendAndRecvMesg(request, response); });
}

TEST(CorvaneRESTClient, TheLimitOfAReplyHoldsForAllPortionsThatOneReceiveTakes) {
  const std::string row = chunk(enveloped(record({{"Doc", std::string(200, 'd')}})));
  const std::string first = chunk(kUninterpreted + enveloped(record({{"Doc", "d"}})));
  const std::string further = row + row + row + chunk(bigEndian(0));
  for (const std::size_t limit : {further.size(), further.size() - 1}) {
    const std::string text = kChunkedHead + first + further + kLastChunk;
    ScriptedNetwork network(
        Script().expectRequest().send(text).expectRequest().send(text).awaitClose());
    auto client = clientFor(kPersistent);
    client.setMaxReplyBytes(limit);
    auto request = requestFor(kParseResult);
    ClientResponse response;
    const auto exchange = [&] { client.sendAndRecvMesg(request, response); };
    if (limit == further.size()) {
      for (int i = 0; i < 2; ++i) {
        exchange();
        EXPECT_EQ(response.getParseResponse().count(), 4U);
      }
    } else {
      expectRefusal("ERR_CLIENT_RESP_PARSING",
                    "the portions of the reply exceed the limit on its size", exchange);
      EXPECT_TRUE(client.isEndOfStream());
      EXPECT_TRUE(client.isTruncated());
    }
  }
}

// Threads that end.

TEST(CorvaneRESTClient, AThreadThatEndsInAnExchangeClosesTheConnection) {
  struct EndsItsThread : CorvaneRESTClient {
    using CorvaneRESTClient::CorvaneRESTClient;
    void recvMesg(ClientResponse&) override { ::pthread_exit(PTHREAD_CANCELED); }
  };
  ScriptedNetwork network(answer(plain(ok(kCreateCollection))));
  EndsItsThread client(u"127.0.0.1", 7, kPersistent);
  auto request = requestFor(kCreateCollection);
  ClientResponse response;
  EXPECT_TRUE(endsItsThread([&] { client.sendAndRecvMesg(request, response); }));
  EXPECT_FALSE(client.isConnected());
  EXPECT_EQ(network.requests(), 1U);
}

TEST(CorvaneRESTClient, ARequestThatEndsItsThreadDoesSoBeforeAnythingIsSent) {
  struct EndsItsThread : ClientRequest {
    using ClientRequest::getDocKey;
    const char* getDocKey(unsigned int&) override { ::pthread_exit(PTHREAD_CANCELED); }
  };
  ScriptedNetwork network(silence());
  auto client = clientFor(kPersistent);
  EndsItsThread request;
  request.buildRequest(u"c1", ClientRequest::ADD_DOCUMENT, {});
  request.setDocKey("key", 3);
  request.setContent({{u"title", u"one"}}, "content", 7);
  ClientResponse response;
  EXPECT_TRUE(endsItsThread([&] { client.sendAndRecvMesg(request, response); }));
  EXPECT_EQ(network.connectAttempts(), 0U);
}

// Cost.

TEST(CorvaneRESTClient, AnExchangeOnAPersistentConnectionCostsOneWriteAndOneReceive) {
  Script script;
  for (int i = 0; i < 11; ++i) script.expectRequest().send(plain(nextReply()));
  ScriptedNetwork network(script.awaitClose());
  auto client = clientFor(kPersistent);
  runExchange(client, kGetStatus);
  const auto writes = network.writes();
  const auto receives = network.receives();
  const auto polls = network.polls();
  for (int i = 0; i < 10; ++i) runExchange(client, kGetStatus);
  EXPECT_EQ(network.writes() - writes, 10U);
  // The one receive that waits, and no more than one that looks.
  EXPECT_LE(network.receives() - receives, 20U);
  EXPECT_EQ(network.polls() - polls, 0U);
}

/// The first word of a pointer to a virtual operation is its place in the class's table.
template <typename Operation>
std::size_t slotOf(Operation operation) {
  std::uintptr_t word = 0;
  static_assert(sizeof operation >= sizeof word);
  std::memcpy(&word, &operation, sizeof word);
  return word / sizeof word;
}

TEST(CorvaneRESTClient, ItsVirtualOperationsStandInTheOrderThatCallersWereBuiltWith) {
  EXPECT_EQ(slotOf(&tq::comm::CorvaneClient::setTimeOut), 0U);
  // The destructor has two places.
  EXPECT_EQ(slotOf(&CorvaneRESTClient::setNumRetries), 3U);
  EXPECT_EQ(slotOf(&CorvaneRESTClient::recv), 4U);
  EXPECT_EQ(slotOf(&CorvaneRESTClient::sendAndRecvMesgOnce), 5U);
  EXPECT_EQ(slotOf(&CorvaneRESTClient::sendMesg), 6U);
  EXPECT_EQ(slotOf(&CorvaneRESTClient::recvMesg), 7U);
  EXPECT_EQ(slotOf(&CorvaneRESTClient::recvStream), 8U);
}

TEST(CorvaneRESTClient, DerivesFromTheConnectionAndCannotBeCopied) {
  EXPECT_TRUE((std::is_base_of_v<tq::comm::CorvaneClient, CorvaneRESTClient>));
  EXPECT_FALSE(std::is_copy_constructible_v<CorvaneRESTClient>);
  EXPECT_TRUE(std::has_virtual_destructor_v<CorvaneRESTClient>);
}

// What the server says of the connection.

/// Replies of every shape that leave their connection to be used again.
std::vector<std::pair<int, std::string>> lastReplies() {
  Reply created = ok(kCreateCollection);
  Reply found = replyNamed("StreamSearchWithFortyHits");
  Reply refused{"", kCreateCollection, 500,
                kUninterpreted + enveloped(record({{"MsgId", "ZVK1E"}}))};
  for (Reply* reply : {&created, &found, &refused}) reply->headerLines = "Connection: close\r\n";
  return {{kCreateCollection, plain(created)},
          {kStreamSearch, plain(found)},
          {kStreamSearch, chunked(found, 400, true).text},
          {kCreateCollection, plain(refused)},
          {kCreateCollection, chunked(refused, 0, true).text}};
}

TEST(CorvaneRESTClient, AConnectionThatTheServerEndsIsNotUsedAgain) {
  for (const auto& [kind, text] : lastReplies()) {
    for (const int next : {kCreateCollection, kAsynchAddDocument}) {
      SCOPED_TRACE(text.substr(0, 100));
      // It does not close at once.
      ScriptedNetwork network(
          {Script().expectRequest().send(text).awaitClose(),
           Script().expectRequest().send(plain(ok(kCreateCollection))).awaitClose()});
      auto client = clientFor(kPersistent);
      client.setNumRetries(0);
      runExchange(client, kind);
      EXPECT_EQ(runExchange(client, next).errorId, "");
      EXPECT_EQ(network.connections(), 2U);
      EXPECT_EQ(network.connection(1).requests.size(), 1U);
    }
  }
}

TEST(CorvaneRESTClient, AnInterimReplyThatHasALengthLeavesNoReplyToTheNextRequest) {
  Reply foreign = ok(kGetStatus);
  foreign.body = kUninterpreted + enveloped(record({{"STATUS_CODE", "7"}}));
  const std::pair<const char*, const char*> cases[] = {
      {"Content-Length: 0\r\n\r\n", ""},
      {"Content-Length: 5\r\n\r\nhello", "ERR_SERVER_PROTOCOL"},
      {"Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", "ERR_SERVER_PROTOCOL"}};
  for (const char* status : {"100 Continue", "102 Processing", "103 Early Hints", "199 Any"}) {
    for (const auto& [rest, error] : cases) {
      SCOPED_TRACE(status + std::string(" ") + rest);
      // The final reply comes while the next request is under way.
      ScriptedNetwork network({Script()
                                   .expectRequest()
                                   .send(std::string("HTTP/1.1 ") + status + "\r\n" + rest)
                                   .expectRequest()
                                   .send(plain(foreign))
                                   .awaitClose(),
                               Script().expectRequest().send(plain(nextReply())).awaitClose()});
      auto client = clientFor(kPersistent);
      client.setNumRetries(0);
      EXPECT_EQ(exchangeError(client, kGetStatus).errorId, error);
      EXPECT_EQ(client.getRequestOutcome(), RequestOutcome::MayBeApplied);
      EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
      EXPECT_EQ(network.connections(), 2U);
    }
  }
}

TEST(CorvaneRESTClient, AReplyWithoutALengthIsTakenByItsStatus) {
  constexpr auto kRejected = RequestOutcome::Rejected;
  // A gateway that has lost sight of the request, and what refuses nothing.
  constexpr auto kOpen = RequestOutcome::MayBeApplied;
  const std::tuple<const char*, const char*, RequestOutcome> cases[] = {
      {"400 Bad Request", "ERR_SERVER_PROTOCOL", kRejected},
      {"401 Unauthorized", "ERR_SERVER_INVALID_AUTH", kRejected},
      {"500 Internal Server Error", "ERR_SERVER_APP", kRejected},
      {"501 Not Implemented", "ERR_SERVER_PROTOCOL", kRejected},
      {"502 Bad Gateway", "ERR_SERVER_PROTOCOL", kOpen},
      {"503 Service Unavailable", "ERR_SERVER_PROTOCOL", kRejected},
      {"504 Gateway Timeout", "ERR_SERVER_PROTOCOL", kOpen},
      {"201 Created", "ERR_SERVER_PROTOCOL", kOpen},
      {"299 Any", "ERR_SERVER_PROTOCOL", kOpen},
      {"300 Multiple Choices", "ERR_SERVER_PROTOCOL", kRejected},
      {"204 No Content", "", kOpen},
      {"304 Not Modified", "", kRejected}};
  for (const auto& [status, error, outcome] : cases) {
    for (const char* text :
         {"", "try again later", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"}) {
      for (const int kind : {kCreateCollection, kStreamSearch, kParseResult}) {
        const bool hasBody = *error != '\0';
        if (!hasBody && *text != '\0') continue;
        SCOPED_TRACE(status + std::string(", ") + text);
        // The connection stays open: nobody waits for its end.
        ScriptedNetwork network(
            {Script()
                 .expectRequest()
                 .send(std::string("HTTP/1.1 ") + status + "\r\ncontent-length: 15\r\n\r\n" + text)
                 .expectRequest()
                 .send(plain(nextReply()))
                 .awaitClose(),
             Script().expectRequest().send(plain(nextReply())).awaitClose()});
        auto client = clientFor(kPersistent);
        auto request = requestFor(kind);
        ClientResponse response;
        EXPECT_EQ(errorOf([&] { client.sendAndRecvMesg(request, response); }).errorId, error);
        EXPECT_FALSE(response.success());
        EXPECT_TRUE(client.isEndOfStream());
        EXPECT_EQ(client.getRequestOutcome(), outcome);
        EXPECT_EQ(network.requests(), 1U);
        EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
        EXPECT_EQ(network.connections(), hasBody ? 2U : 1U);
        EXPECT_FALSE(network.waitedForever());
      }
    }
  }
}

TEST(CorvaneRESTClient, AGatewaysRefusalWithALengthIsARefusal) {
  for (const char* status : {"502 Bad Gateway", "504 Gateway Timeout", "201 Created"}) {
    for (const char* rest : {"Content-Length: 0\r\n\r\n", "Content-Length: 4\r\n\r\nbusy"}) {
      ScriptedNetwork network(
          {Script().expectRequest().send(std::string("HTTP/1.1 ") + status + "\r\n" + rest)});
      auto client = clientFor(kPersistent);
      exchangeError(client, kCreateCollection);
      EXPECT_EQ(client.getRequestOutcome(), RequestOutcome::Rejected) << status << rest;
    }
  }
}

}  // namespace
