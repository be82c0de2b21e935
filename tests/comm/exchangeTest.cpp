// What an exchange does whichever the protocol.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruRESTMessage.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruNLSException.h"
#include "infra/oss/kruTrace.h"
#include "tests/comm/bothProtocols.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/exchange.h"
#include "tests/support/protocolReplies.h"
#include "tests/support/raised.h"
#include "tests/support/recordingFacility.h"
#include "tests/support/script.h"
#include "tests/support/scriptedNetwork.h"
#include "tests/support/scriptedServer.h"

namespace {

using namespace tq::test;
using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::DrestoPerfClient;
using tq::comm::RequestOutcome;

class Exchange : public testing::TestWithParam<bool> {
 protected:
  static bool binary() { return GetParam(); }

  static std::unique_ptr<CorvaneRESTClient> clientOf(const char16_t* host = u"127.0.0.1",
                                                     unsigned int port = 7) {
    if (binary()) return std::make_unique<DrestoPerfClient>(host, port);
    return std::make_unique<CorvaneRESTClient>(host, port, true);
  }

  /// A peer that gives these answers in turn, then waits for the close.
  Script answers(const std::vector<std::string>& texts) const {
    Script script;
    for (const std::string& text : texts) replies.expect(script).send(text);
    return script.awaitClose();
  }

  static Raised exchange(CorvaneRESTClient& client, ClientRequest& request,
                         ClientResponse& response) {
    return raisedBy([&] { client.sendAndRecvMesg(request, response); });
  }
  static Raised exchange(CorvaneRESTClient& client, int kind, ClientResponse& response) {
    auto request = requestFor(kind);
    return exchange(client, request, response);
  }
  static Raised exchange(CorvaneRESTClient& client, int kind) {
    ClientResponse response;
    return exchange(client, kind, response);
  }

  static std::vector<std::string> idsHeld(ClientResponse& response) {
    std::vector<std::string> ids;
    auto& held = response.getSearchResponse();
    while (held.hasMore()) ids.push_back(utf8(held.getNext().getDocId()));
    return ids;
  }

  /// What a caller sees of an exchange that returned.
  static Outcome outcomeOf(const CorvaneRESTClient& client, ClientResponse& response) {
    Outcome outcome;
    noteResponse(response, outcome);
    takeHits(response.getSearchResponse(), outcome);
    takeParsed(response.getParseResponse(), outcome);
    outcome.endOfStream = client.isEndOfStream();
    outcome.truncated = client.isTruncated();
    return outcome;
  }
  static Outcome successWithoutResults() {
    Outcome outcome;
    outcome.returnCode = 0;
    outcome.endOfStream = true;
    return outcome;
  }

  /// What a request without a document is on the wire.
  static std::string bytesOf(ClientRequest& request) {
    tq::comm::RESTMessage message(u"127.0.0.1", request);
    const std::string header = message.getSerializedHeader();
    return (binary() ? word16(static_cast<unsigned int>(header.size())) : "") + header;
  }

  void expectRefusedUnsent(ClientRequest& request, const char* reason) const {
    ScriptedNetwork network(answers({replies.done()}));
    const auto client = clientOf();
    ClientResponse response;
    const Raised raised = exchange(*client, request, response);
    ASSERT_EQ(raised.size(), 1U);
    EXPECT_EQ(raised[0].id, "ERR_CLIENT_INTERNAL");
    EXPECT_EQ(raised[0].text, reason);
    EXPECT_EQ(raised[0].arguments, kHostAndPort);
    EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::NotSent);
    EXPECT_FALSE(response.success());
    // `send` is no way around it.
    client->open();
    EXPECT_FALSE(raisedBy([&] { client->send(request); }).empty());
    EXPECT_EQ(network.writes(), 0U);
  }

  Replies replies{GetParam()};
};

// What goes out.

TEST_P(Exchange, ContentWithoutAKeyIsNotSent) {
  ScriptedNetwork network(answers({replies.done()}));
  const auto client = clientOf();
  auto request = requestFor(kCreateCollection);
  request.setContent({{u"title", u"one"}}, "content", 7);
  ClientResponse response;
  EXPECT_EQ(exchange(*client, request, response), Raised());
  EXPECT_EQ(network.connection(0).received, bytesOf(request));
  EXPECT_EQ(network.connection(0).received.find("content"), std::string::npos);
  EXPECT_TRUE(response.success());
}

TEST_P(Exchange, AFailureIsNoSuccessOfAResponseThatHeldOne) {
  ScriptedNetwork network(
      answers({replies.done(), replies.refusal("ZVK0404E", "no collection"), replies.done()}));
  const auto client = clientOf();
  client->setNumRetries(0);
  ClientResponse response;
  EXPECT_EQ(exchange(*client, kCreateCollection, response), Raised());
  EXPECT_TRUE(response.success());
  EXPECT_FALSE(exchange(*client, kCreateCollection, response).empty());
  EXPECT_FALSE(response.success());
  EXPECT_EQ(exchange(*client, kCreateCollection, response), Raised());
  EXPECT_TRUE(response.success());
  client->close();
  network.failConnects(ECONNREFUSED);
  EXPECT_FALSE(exchange(*client, kCreateCollection, response).empty());
  EXPECT_FALSE(response.success());
}

TEST_P(Exchange, AResponseUsedAgainHoldsNothingOfTheEstimateBefore) {
  const std::string values = bigEndian(5) + bigEndian(7) + bigEndian(9);
  ScriptedNetwork network(
      answers({binary() ? word16(1) + envelope(1, values) + endOfResults() : replies.done(),
               binary() ? word16(1) + endOfResults() : replies.done()}));
  const auto client = clientOf();
  ClientResponse response;
  EXPECT_EQ(exchange(*client, kSelectivity, response), Raised());
  // No estimate over HTTP has values of its own.
  tq::comm::SelectivityInfo info(true);
  info.parseRecordNew(values.data(), 12, 1);
  if (!binary()) response.setSelectivityInfo(info);
  EXPECT_EQ(response.getSelectivityInfo().getFirst(), 5);
  EXPECT_EQ(exchange(*client, kSelectivity, response), Raised());
  EXPECT_EQ(response.getSelectivityInfo().getFirst(), 1);
  EXPECT_EQ(response.getSelectivityInfo().getSecond(), 1);
  EXPECT_EQ(response.getSelectivityInfo().getThird(), 100);
}

TEST_P(Exchange, AnEstimateIsForgottenAlsoIfOnlyOneOfItsValuesIsUnusual) {
  // The second value is the last one on the wire.
  const std::vector<std::string> estimates{estimate(2, 100, 1), estimate(1, 100, 2),
                                           estimate(1, 101, 1)};
  const std::string empty = binary() ? word16(1) + endOfResults() : replies.done();
  ScriptedNetwork network(answers(std::vector<std::string>(estimates.size(), empty)));
  const auto client = clientOf();
  for (const std::string& values : estimates) {
    tq::comm::SelectivityInfo before(false);
    before.parseRecordNew(values.data(), 12, 1);
    ClientResponse response;
    response.setSelectivityInfo(before);
    EXPECT_EQ(exchange(*client, kSelectivity, response), Raised());
    const auto& held = response.getSelectivityInfo();
    EXPECT_EQ(std::vector({held.getFirst(), held.getSecond(), held.getThird()}),
              (std::vector<std::int64_t>{1, 1, 100}));
  }
}

TEST_P(Exchange, AResponseUsedAgainHoldsNothingOfTheStatusBefore) {
  ScriptedNetwork network(
      answers({binary() ? replies.refusal("ZVK1E", "down") : replies.changesWait(),
               binary() ? replies.ready() : replies.done()}));
  const auto client = clientOf();
  ClientResponse response;
  EXPECT_EQ(exchange(*client, kGetStatus, response), Raised());
  EXPECT_EQ(response.getStatusCode(), binary() ? 2U : 1U);
  if (!binary()) response.setStatusMessage(tq::oss::Message(u"ZVK1E", u"down"));
  EXPECT_EQ(exchange(*client, kGetStatus, response), Raised());
  EXPECT_TRUE(response.success());
  EXPECT_EQ(response.getStatusCode(), 0U);
  EXPECT_EQ(utf8(response.getStatusMessage().getMessageText()), "");
}

TEST_P(Exchange, AResponseUsedAgainHoldsNothingOfTheVersionBefore) {
  ScriptedNetwork network(answers({binary() ? word16(1) + envelope(1, "1.0") : replies.done(),
                                   replies.refusal("ZVK1E", "down")}));
  const auto client = clientOf();
  ClientResponse response;
  EXPECT_EQ(exchange(*client, kGetServerVersion, response), Raised());
  if (!binary()) response.setContent(u"1.0");
  EXPECT_EQ(utf8(response.getContent()), "1.0");
  EXPECT_FALSE(exchange(*client, kGetServerVersion, response).empty());
  EXPECT_EQ(utf8(response.getContent()), "");
}

TEST_P(Exchange, ARequestThatIsNotBegunLeavesTheResponseAsItWas) {
  ScriptedNetwork network(answers({replies.done()}));
  const auto client = clientOf();
  ClientResponse response;
  EXPECT_EQ(exchange(*client, kCreateCollection, response), Raised());
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::ADD_DOCUMENT, {});
  request.setDocKey("key", 3);
  EXPECT_FALSE(exchange(*client, request, response).empty());
  EXPECT_TRUE(response.success());
}

/// A request of a host that makes its key when it is asked for it, and cannot.
class KeylessRequest : public ClientRequest {
 public:
  explicit KeylessRequest(std::function<void()> fail) : fail_(std::move(fail)) {
    buildRequest(u"c1", ClientRequest::ADD_DOCUMENT, {});
    setDocKey("key", 3);
    setContent({{u"title", u"one"}}, "content", 7);
  }
  using ClientRequest::getDocKey;
  const char* getDocKey(unsigned int&) override {
    fail_();
    return nullptr;
  }

 private:
  std::function<void()> fail_;
};

TEST_P(Exchange, WhatADerivedRequestThrowsIsReportedAsWhatAnAttemptMeets) {
  Script script;
  replies.sendHits(replies.expect(script), {"k1", "k2"});
  ScriptedNetwork network(script.awaitClose(), kOnDemand);
  const auto client = clientOf();
  ClientResponse stream;
  EXPECT_EQ(exchange(*client, kStreamSearch, stream), Raised());

  ClientResponse response;
  response.setReturnCode(0);
  KeylessRequest libraryLike(
      [] { throw tq::oss::NLSException(tq::oss::Message(u"HOSTS_OWN", u"")); });
  const Raised raised = exchange(*client, libraryLike, response);
  ASSERT_EQ(raised.size(), 1U);
  EXPECT_EQ(raised[0].id, "ERR_CLIENT_INTERNAL");
  EXPECT_EQ(raised[0].arguments,
            binary() ? std::vector<std::string>{"unknown error from sendandrecvMesgOnce"}
                     : std::vector<std::string>{});
  EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::NotSent);

  KeylessRequest foreign([] { throw std::runtime_error("the host's own"); });
  if (binary()) {
    EXPECT_EQ(exchange(*client, foreign, response), raised);
  } else {
    EXPECT_THROW(client->sendAndRecvMesg(foreign, response), std::runtime_error);
  }
  EXPECT_TRUE(response.success()) << "it is as it was";
  EXPECT_EQ(network.writes(), 1U);
  client->recv(stream);
  EXPECT_EQ(idsHeld(stream), std::vector<std::string>{idOfKey("k2")}) << "the stream goes on";
}

TEST_P(Exchange, AKeyWithoutMetadataIsRefusedBeforeAnythingIsSent) {
  for (const int kind : {kAddDocument, kDeleteDocument, kAsynchAddDocument}) {
    ClientRequest request;
    request.buildRequest(u"c1", static_cast<ClientRequest::REQUEST>(kind), {});
    request.setDocKey("key", 3);
    expectRefusedUnsent(request, "a document key needs at least one metadata pair to be sent with");
  }
}

TEST_P(Exchange, NullWithALengthIsRefusedBeforeAnythingIsSent) {
  auto request = requestFor(kAddDocument);
  request.setDocKey(nullptr, 3);
  expectRefusedUnsent(request, "the document's key is null although it has a length");
  request = requestFor(kAddDocument);
  request.setContent({{u"title", u"one"}}, nullptr, 7);
  expectRefusedUnsent(request, "the document's content is null although it has a length");
}

TEST_P(Exchange, AContentLongerThanItsLengthFieldIsRefusedBeforeAnythingIsSent) {
  for (const unsigned int length : {0x40000000U, 0x40000005U, 0xFFFFFFFFU}) {
    auto request = requestFor(kAddDocument);
    // No byte of it is read.
    request.setContent({{u"title", u"one"}}, "content", length);
    expectRefusedUnsent(request, "the document's content is longer than a request can announce");
  }
  auto request = requestFor(kAddDocument);
  request.setDocKey("key", 0x40000000);
  expectRefusedUnsent(request, "the document's key is longer than a request can announce");
}

TEST_P(Exchange, AWriteThatTakesFewBytesAtATimeIsContinued) {
  std::string whole;
  for (const std::size_t limit : {SimulatedKernel::kUnlimited, std::size_t{1}, std::size_t{7}}) {
    ScriptedNetwork network(answers({replies.done()}));
    network.limitWrites(limit);
    EXPECT_EQ(exchange(*clientOf(), kAddDocument), Raised());
    EXPECT_EQ(network.requests(), 1U);
    if (whole.empty()) whole = network.connection(0).received;
    EXPECT_EQ(network.connection(0).received, whole);
  }
}

TEST_P(Exchange, SendWritesTheRequestAndReadsAndRecordsNothing) {
  ScriptedNetwork network(answers({"unread"}));
  const auto client = clientOf();
  client->open();
  // The message's own kind decides: nothing has told the client that this is the last document.
  auto request = requestFor(kLastDocSent);
  client->send(request);
  EXPECT_EQ(network.connection(0).received, bytesOf(request) + std::string(8, '\0'));
  EXPECT_EQ(network.receives(), 0U);
}

TEST_P(Exchange, ASingleAttemptIsOneOfItsOwnRequest) {
  ScriptedNetwork network(answers({replies.hitsAtOnce({"k1"}), replies.changesWait()}));
  const auto client = clientOf();
  EXPECT_EQ(exchange(*client, kStreamSearch), Raised());
  auto request = requestFor(kGetStatus);
  ClientResponse response;
  client->sendAndRecvMesgOnce(request, response);
  EXPECT_EQ(response.getStatusCode(), 1U);
  EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::Answered);

  request.buildRequest(u"c1", ClientRequest::ADD_DOCUMENT, {});
  request.setDocKey("key", 3);
  const Raised raised = raisedBy([&] { client->sendAndRecvMesgOnce(request, response); });
  ASSERT_EQ(raised.size(), 1U);
  EXPECT_EQ(raised[0].id, "ERR_CLIENT_INTERNAL");
  EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::NotSent);
  EXPECT_EQ(network.writes(), 2U);
}

// What the response holds.

TEST_P(Exchange, AnEstimatesPortionsClearNoHitsThatTheResponseHolds) {
  const std::vector<std::string> portions =
      binary() ? std::vector<std::string>{word16(1), envelope(1, estimate(1, 2, 3)),
                                          envelope(1, estimate(4, 5, 6)) + endOfResults()}
               : std::vector<std::string>{chunked(replyNamed("Selectivity"), 0, true).text};
  Script script;
  replies.expect(script);
  for (const std::string& portion : portions) script.send(portion);
  ScriptedNetwork network(script.awaitClose(), kOnDemand);
  const auto client = clientOf();
  ClientResponse response;
  response.addSearchResult(tq::comm::SearchResult(false));
  EXPECT_EQ(exchange(*client, kSelectivity, response), Raised());
  EXPECT_EQ(response.getSearchResponse().count(), 1U);
  // The binary client takes an estimate whole, the other one leaves the end to be pulled.
  EXPECT_EQ(client->isEndOfStream(), binary());
  if (!client->isEndOfStream()) client->recv(response);
  EXPECT_TRUE(client->isEndOfStream());
  EXPECT_EQ(response.getSearchResponse().count(), 1U) << "a portion replaces nothing";
  client->recv(response);
  EXPECT_EQ(response.getSearchResponse().count(), 0U) << "after the end the list is empty";
}

TEST_P(Exchange, EmptiesTheListsOfStreamedHitsAndParseResultsAlone) {
  // Kind 6 is read as a search over HTTP.
  std::vector<int> kinds{kStreamSearch, kParseResult, kScalarSearch};
  if (!binary()) kinds.push_back(6);
  for (const int kind : kinds) {
    const std::string reply =
        kind == kParseResult ? replies.outcomes() : replies.hitsAtOnce({"k1", "k2"});
    ScriptedNetwork network(answers({reply, reply}));
    const auto client = clientOf();
    ClientResponse response;
    for (int i = 0; i < 2; ++i) EXPECT_EQ(exchange(*client, kind, response), Raised());
    EXPECT_EQ(response.getResultCount(), 2) << "counted from the exchange on";
    EXPECT_EQ(response.getSearchResponse().count() + response.getParseResponse().count(),
              kind == kScalarSearch ? 4U : 2U)
        << kind;
  }
}

TEST_P(Exchange, TheSinglePullReplacesThePortionThatTheExchangeBrought) {
  Script script;
  replies.sendHits(replies.expect(script), {"k1", "k2", "k3"});
  ScriptedNetwork network(script.awaitClose(), kOnDemand);
  const auto client = clientOf();
  ClientResponse response;
  EXPECT_EQ(exchange(*client, kStreamSearch, response), Raised());
  ASSERT_EQ(response.getSearchResponse().count(), 1U);
  response.getSearchResponse(*client, false);
  EXPECT_EQ(idsHeld(response), std::vector<std::string>{idOfKey("k2")})
      << "whether the hits of the portion before were taken or not";
}

TEST_P(Exchange, HitsThatWereTakenAreNotHandedOutAgainWithTheNextPortion) {
  // More than stand in one piece of the list's memory.
  std::vector<std::string> keys;
  std::vector<std::string> ids;
  for (int i = 0; i < 20; ++i) {
    keys.push_back("k" + std::to_string(i));
    ids.push_back(idOfKey(keys.back()));
  }
  for (const int kind : {kScalarSearch, kStreamSearch}) {
    for (const bool pulls : {false, true}) {
      Script script;
      replies.sendHits(replies.expect(script), keys);
      ScriptedNetwork network(script.awaitClose(), kOnDemand);
      const auto client = clientOf();
      ClientResponse response;
      EXPECT_EQ(exchange(*client, kind, response), Raised());
      std::vector<std::string> taken = idsHeld(response);
      while (!client->isEndOfStream()) {
        if (pulls) {
          response.getSearchResponse(*client, false);
        } else {
          client->recv(response);
        }
        for (const std::string& id : idsHeld(response)) taken.push_back(id);
      }
      EXPECT_EQ(taken, ids) << kind << pulls;
    }
  }
}

TEST_P(Exchange, HitsThatWereTakenAreNotHandedOutAgainUnderTrace) {
  const RecordingFacility facility;
  Script script;
  replies.sendHits(replies.expect(script), {"k1", "k2"});
  ScriptedNetwork network(script.awaitClose(), kOnDemand);
  const auto client = clientOf();
  ClientResponse response;
  EXPECT_EQ(exchange(*client, kScalarSearch, response), Raised());
  EXPECT_EQ(idsHeld(response), std::vector<std::string>{idOfKey("k1")});
  client->recv(response);
  EXPECT_EQ(idsHeld(response), std::vector<std::string>{idOfKey("k2")});
}

TEST_P(Exchange, AHitThatWasTakenStaysWhereItIsWhileAScalarSearchGoesOn) {
  Script script;
  replies.sendHits(replies.expect(script), {"k1", "k2", "k3"});
  ScriptedNetwork network(script.awaitClose(), kOnDemand);
  const auto client = clientOf();
  ClientResponse response;
  EXPECT_EQ(exchange(*client, kScalarSearch, response), Raised());
  const tq::comm::SearchResult& first = response.getSearchResponse().getNext();
  client->recv(response);
  client->recv(response);
  EXPECT_EQ(idsHeld(response), (std::vector<std::string>{idOfKey("k2"), idOfKey("k3")}));
  EXPECT_EQ(utf8(first.getDocId()), idOfKey("k1"));
}

TEST_P(Exchange, HitsThatAreLeftToTakeComeBeforeThoseOfTheNextPortion) {
  Script script;
  replies.sendHits(replies.expect(script), {"k1", "k2", "k3"});
  ScriptedNetwork network(script.awaitClose(), kOnDemand);
  const auto client = clientOf();
  ClientResponse response;
  EXPECT_EQ(exchange(*client, kScalarSearch, response), Raised());
  client->recv(response);
  EXPECT_EQ(utf8(response.getSearchResponse().getNext().getDocId()), idOfKey("k1"));
  client->recv(response);
  EXPECT_EQ(response.getSearchResponse().count(), 2U);
  EXPECT_EQ(idsHeld(response), (std::vector<std::string>{idOfKey("k2"), idOfKey("k3")}));
}

TEST_P(Exchange, WhatIsAddedByHandAfterAReceiveThatBroughtNothingStartsTheListAnew) {
  Script script;
  replies.sendHits(replies.expect(script), {"k1"}, false);
  ScriptedNetwork network(script, kOnDemand);
  const auto client = clientOf();
  ClientResponse response;
  EXPECT_EQ(exchange(*client, kScalarSearch, response), Raised());
  EXPECT_EQ(idsHeld(response), std::vector<std::string>{idOfKey("k1")});
  try {
    client->recv(response);
  } catch (const tq::comm::RESTException&) {
    // Over the binary protocol the cut is a failure.
  }
  tq::comm::SearchResult own(true);
  own.getProperties()->putProperty(u"URI", u"own");
  own.reset();
  response.getSearchResponse().addResult(own);
  EXPECT_EQ(utf8(response.getSearchResponse().getNext().getDocId()), idOfKey("k1"));
}

TEST_P(Exchange, AnotherScalarSearchHandsOutNoHitThatWasTaken) {
  ScriptedNetwork network(answers({replies.hitsAtOnce({"k1", "k2"}),
                                   replies.hitsAtOnce({"k3", "k4"}), replies.hitsAtOnce({"k5"})}));
  const auto client = clientOf();
  ClientResponse response;
  EXPECT_EQ(exchange(*client, kScalarSearch, response), Raised());
  EXPECT_EQ(idsHeld(response), (std::vector<std::string>{idOfKey("k1"), idOfKey("k2")}));
  EXPECT_EQ(exchange(*client, kScalarSearch, response), Raised());
  EXPECT_EQ(utf8(response.getSearchResponse().getNext().getDocId()), idOfKey("k3"));
  EXPECT_EQ(exchange(*client, kScalarSearch, response), Raised());
  EXPECT_EQ(idsHeld(response), (std::vector<std::string>{idOfKey("k4"), idOfKey("k5")}))
      << "what nobody has taken is not lost";
}

TEST_P(Exchange, BytesThatACallerTakesEndTheStreamAndCostItsConnection) {
  using Take = unsigned long (CorvaneRESTClient::*)(char*, unsigned long, unsigned long, bool);
  for (const Take take : {Take(&CorvaneRESTClient::readOnce), Take(&CorvaneRESTClient::read),
                          Take(&CorvaneRESTClient::genericRead)}) {
    Script stream;
    replies.sendHits(replies.expect(stream), {"k1", "k2"});
    ScriptedNetwork network({stream.awaitClose(), answers({replies.ready()})}, kOnDemand);
    const auto client = clientOf();
    ClientResponse response;
    EXPECT_EQ(exchange(*client, kStreamSearch, response), Raised());
    EXPECT_EQ(idsHeld(response), std::vector<std::string>{idOfKey("k1")});
    char byte = 0;
    EXPECT_EQ(((*client).*take)(&byte, 0, 1, true), 1U);
    const Raised raised = raisedBy([&] { client->recv(response); });
    EXPECT_EQ(raised.empty(), !binary()) << "over the binary protocol an empty body is an error";
    EXPECT_EQ(idsHeld(response), std::vector<std::string>());
    EXPECT_TRUE(client->isEndOfStream());
    EXPECT_TRUE(client->isTruncated());
    EXPECT_EQ(exchange(*client, kGetStatus), Raised());
    EXPECT_EQ(network.connections(), 2U);
    EXPECT_FALSE(network.waitedForever());
  }
}

TEST_P(Exchange, ReceivingBehindTheEndOfTheStreamReadsNothingAndEmptiesOneList) {
  const std::string estimated =
      binary() ? word16(1) + envelope(1, estimate(1, 2, 3)) + endOfResults() : replies.done();
  const std::string hits = replies.hitsAtOnce({"k1", "k2", "k3"});
  for (const auto& [kind, reply] :
       std::vector<std::pair<int, std::string>>{{kStreamSearch, hits},
                                                {kScalarSearch, hits},
                                                {kParseResult, replies.outcomes()},
                                                {kSelectivity, estimated}}) {
    for (const bool results : {false, true}) {
      SCOPED_TRACE(testing::Message() << "kind " << kind << ", results " << results);
      ScriptedNetwork network(answers({results ? reply : replies.hitsAtOnce({})}));
      const auto client = clientOf();
      ClientResponse response;
      EXPECT_EQ(exchange(*client, kind, response), Raised());
      ASSERT_TRUE(client->isEndOfStream());
      EXPECT_EQ(response.getSearchResponse().count(), results && isSearch(kind) ? 3U : 0U);
      response.addSearchResult(tq::comm::SearchResult(false));
      response.addParseResult(tq::comm::ParseResult(false));
      const auto receives = network.receives();
      EXPECT_EQ(raisedBy([&] { client->recv(response); }), Raised());
      EXPECT_EQ(network.receives(), receives);
      // Over HTTP only the search results are replaced, whatever the kind.
      const bool parsedGo = binary() && kind == kParseResult;
      EXPECT_EQ(response.getSearchResponse().count(), parsedGo ? 1U : 0U);
      EXPECT_EQ(response.getSearchResponse().hasMore(), parsedGo);
      const std::size_t parsed = results && kind == kParseResult ? 3 : 1;
      EXPECT_EQ(response.getParseResponse().count(), parsedGo ? 0U : parsed);
    }
  }
}

TEST_P(Exchange, ReceivingWithoutAConnectionIsAConnectError) {
  ScriptedNetwork network(answers({replies.hitsAtOnce({"k1"})}));
  const auto client = clientOf();
  const auto expectRefused = [&] {
    ClientResponse response;
    const Raised raised = raisedBy([&] { client->recv(response); });
    ASSERT_EQ(raised.size(), 1U);
    EXPECT_EQ(raised[0].id, "ERR_CONNECT_SERVER");
    EXPECT_EQ(raised[0].text, "");
    EXPECT_EQ(raised[0].arguments, kHostAndPort);
    EXPECT_EQ(raised[0].level, 2);
    EXPECT_EQ(raised[0].file, binary() ? "kruDrestoPerfClient" : "kruCorvaneRESTClient");
    if (binary()) {
      EXPECT_EQ(raised[0].line, 132U) << "which support tools know";
    }
  };
  expectRefused();
  EXPECT_EQ(exchange(*client, kStreamSearch), Raised());
  client->close();
  expectRefused();
  EXPECT_EQ(network.connectAttempts(), 1U);
}

// Whose reply it is.

TEST_P(Exchange, AnAbandonedStreamIsNotTakenForTheNextReply) {
  const NextExchange& next = nextOver(binary());
  const std::string stream = binary()
                                 ? longSearch(kStreamSearch, 40).text
                                 : chunked(replyNamed("StreamSearchWithFortyHits"), 100, true).text;
  for (const bool hitByHit : {false, true}) {
    for (const auto arrival : {kOnDemand, kAllThere}) {
      Script first;
      replies.expect(first);
      if (hitByHit) {
        // No byte of a portion comes with the one before.
        replies.sendHits(first, {"k1", "k2"});
      } else {
        first.send(stream, 50);
      }
      replies.expect(first).send(next.text).awaitClose();
      ScriptedNetwork network({first, answers({next.text})}, arrival);
      const auto client = clientOf();
      EXPECT_EQ(exchange(*client, kStreamSearch), Raised());
      EXPECT_FALSE(client->isEndOfStream());
      EXPECT_TRUE(client->isConnected());
      EXPECT_EQ(runOver(*client, next.kind), next.expected);
      EXPECT_EQ(network.connections(), 2U);
    }
  }
}

TEST_P(Exchange, BytesBehindAReplyAreNotTakenForTheNextOneAndCostItsConnection) {
  const NextExchange& next = nextOver(binary());
  for (const auto& [kind, reply] :
       std::vector<std::pair<int, std::string>>{{kCreateCollection, replies.done()},
                                                {kStreamSearch, replies.hitsAtOnce({"k1"})},
                                                {kGetStatus, replies.refusal("ZVK1", "t")}}) {
    for (const std::string& stray : {std::string("stray"), replies.changesWait()}) {
      SCOPED_TRACE(testing::Message() << "kind " << kind << ", stray bytes " << stray.size());
      // They come with the reply, into the same receive.
      ScriptedNetwork network({answers({reply + stray}), answers({next.text})});
      const auto client = clientOf();
      client->setNumRetries(0);
      ClientResponse response;
      const Raised raised = exchange(*client, kind, response);
      // Over the binary protocol a status that is refused is one.
      EXPECT_EQ(raised.empty(), kind != kGetStatus || binary());
      if (kind == kCreateCollection) {
        EXPECT_EQ(outcomeOf(*client, response), successWithoutResults());
      }
      EXPECT_EQ(runOver(*client, next.kind), next.expected);
      EXPECT_EQ(network.connections(), 2U);
    }
  }
}

// Attempts.

TEST_P(Exchange, IsAttemptedOnceMoreUnlessToldOtherwise) {
  for (const unsigned int retries : {0U, 1U, 2U, 7U}) {
    Script closes;
    ScriptedNetwork network(replies.expect(closes));
    const auto client = clientOf();
    if (retries != 1) client->setNumRetries(retries);
    const Raised raised = exchange(*client, kGetStatus);
    ASSERT_EQ(raised.size(), 1U);
    EXPECT_EQ(raised[0].id, "ERR_SERVER_COMM_RECV");
    EXPECT_EQ(raised[0].arguments, kHostAndPort);
    EXPECT_EQ(network.requests(), retries + 1);
    EXPECT_EQ(network.connections(), retries + 1);
    EXPECT_EQ(network.elapsedMillis(), 0U) << "without a pause";
  }
}

TEST_P(Exchange, AConnectThatFailsIsRepeatedAndNamesHostAndPort) {
  ScriptedNetwork network(answers({replies.done()}));
  network.failConnects(ECONNREFUSED);
  const auto client = clientOf();
  client->setNumRetries(3);
  const Raised raised = exchange(*client, kGetStatus);
  ASSERT_EQ(raised.size(), 2U) << "and what the system said";
  EXPECT_EQ(raised[0].id, "ERR_CONNECT_SERVER");
  EXPECT_EQ(raised[0].arguments, kHostAndPort);
  EXPECT_EQ(raised[0].file, "kruCorvaneClient") << "the messages are carried unchanged";
  EXPECT_EQ(network.connectAttempts(), 4U);
}

/// A host whose trace facility closes the client as soon as it has opened its connection.
class ClosingFacility : public tq::oss::TraceFacility {
 public:
  explicit ClosingFacility(CorvaneRESTClient& client) : client_(client) {
    tq::oss::setTraceFacility(this);
  }
  ~ClosingFacility() override { tq::oss::setTraceFacility(nullptr); }
  unsigned long getComponentTraceFlags(unsigned int) override { return 2; }
  void traceEntry(unsigned int) override {}
  void traceExit(unsigned int functionId, long) override {
    if (functionId == tq::comm::trace::CorvaneClientOpen) client_.close();
  }

 private:
  CorvaneRESTClient& client_;
};

TEST_P(Exchange, AConnectionThatIsNotUpAfterOpeningIsAConnectErrorAndRepeated) {
  ScriptedNetwork network(answers({replies.done()}));
  const auto client = clientOf();
  const ClosingFacility facility(*client);
  const Raised raised = exchange(*client, kGetStatus);
  ASSERT_EQ(raised.size(), 1U);
  EXPECT_EQ(raised[0].id, "ERR_CONNECT_SERVER");
  EXPECT_EQ(raised[0].file, binary() ? "kruDrestoPerfClient" : "kruCorvaneRESTClient");
  if (binary()) {
    EXPECT_EQ(raised[0].line, 68U) << "which support tools know";
  }
  EXPECT_EQ(raised[0].arguments, kHostAndPort);
  EXPECT_EQ(network.connectAttempts(), 2U);
  EXPECT_EQ(network.writes(), 0U);
}

// Over loopback.

TEST_P(Exchange, SpeaksWithAServerThatHasAnIpv6AddressAlone) {
  ScriptedServer server({answers({replies.ready()})}, true);
  const auto client = clientOf(u"::1", server.port());
  EXPECT_EQ(exchange(*client, kGetStatus), Raised());
  EXPECT_EQ(server.connections(), 1U);
}

/// Gives the client its time-out for replies alone: how long a connect takes is up to the machine.
class TimeOutOfReplies : public tq::oss::TraceFacility {
 public:
  TimeOutOfReplies(CorvaneRESTClient& client, unsigned int milliseconds)
      : client_(client), milliseconds_(milliseconds) {
    tq::oss::setTraceFacility(this);
  }
  ~TimeOutOfReplies() override { tq::oss::setTraceFacility(nullptr); }
  unsigned long getComponentTraceFlags(unsigned int) override { return 3; }
  void traceEntry(unsigned int functionId) override {
    if (functionId == tq::comm::trace::CorvaneClientOpen) client_.setTimeOut(0);
  }
  void traceExit(unsigned int functionId, long) override {
    if (functionId == tq::comm::trace::CorvaneClientOpen) client_.setTimeOut(milliseconds_);
  }

 private:
  CorvaneRESTClient& client_;
  const unsigned int milliseconds_;
};

TEST_P(Exchange, OverLoopbackASilentServerIsATimeOut) {
  Script silent;
  ScriptedServer server(replies.expect(silent).stall());
  const auto client = clientOf(u"127.0.0.1", server.port());
  const TimeOutOfReplies timeOut(*client, 20);
  const Raised raised = exchange(*client, kStreamSearch);
  ASSERT_EQ(raised.size(), 1U);
  EXPECT_EQ(raised[0].id, "ERR_SERVER_COMM_TIMEOUT");
  EXPECT_EQ(raised[0].arguments,
            (std::vector<std::string>{"127.0.0.1", std::to_string(server.port())}));
  // The client may be done before the server has run.
  server.awaitRequests(2);
  EXPECT_EQ(server.connections(), 2U);
}

TEST_P(Exchange, OverLoopbackAClosedPortIsAConnectError) {
  const RefusedPort refused;
  const Raised raised = exchange(*clientOf(u"127.0.0.1", refused.port()), kGetStatus);
  ASSERT_EQ(raised.size(), 2U) << "and what the system said";
  EXPECT_EQ(raised[0].id, "ERR_CONNECT_SERVER");
}

TEST_P(Exchange, AnUnknownHostIsAConnectError) {
  ScriptedNetwork network(answers({}));
  network.failLookups();
  const Raised raised = exchange(*clientOf(u"nowhere.invalid"), kGetStatus);
  ASSERT_FALSE(raised.empty());
  EXPECT_EQ(raised[0].id, "ERR_CONNECT_SERVER");
  EXPECT_EQ(raised[0].arguments, (std::vector<std::string>{"nowhere.invalid", "7"}));
}

INSTANTIATE_TEST_SUITE_P(Over, Exchange, testing::Bool(), [](const auto& over) {
  return std::string(over.param ? "Binary" : "Http");
});

}  // namespace
