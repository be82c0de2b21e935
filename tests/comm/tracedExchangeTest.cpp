// The trace that exchanges leave: each operation has its own number, and no record is left open.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "comm/kruDrestoPerfClient.h"
#include "comm/kruFunctionIds.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/exchange.h"
#include "tests/support/recordingFacility.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/script.h"
#include "tests/support/scriptedNetwork.h"

namespace {

using namespace tq::test;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::DrestoPerfClient;
namespace trace = tq::comm::trace;

void expectEachTraced(const RecordingFacility& facility, unsigned int first, unsigned int last) {
  for (unsigned int id = first; id <= last; ++id) {
    EXPECT_GE(facility.entries.count(id), 1U) << std::hex << id;
  }
  EXPECT_EQ(facility.entries, facility.exits) << "failures leave no record open";
}

void exchangeOverHttp(const std::string& text, int kind) {
  ScriptedNetwork network(Script().expectRequest().send(text).awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, true);
  client.setNumRetries(0);
  client.setTimeOut(100);
  runExchange(client, kind);
}

TEST(TracedExchange, OverHttpLeavesARecordOfEveryOperation) {
  RecordingFacility facility;
  for (const char* name : {"StreamSearchWithThreeHits", "ParseResultWithThreeRows", "Selectivity",
                           "GetStatus", "ServerErrorOnStreamSearch"}) {
    exchangeOverHttp(plain(replyNamed(name)), replyNamed(name).kind);
  }
  const auto& rows = replyNamed("ParseResultWithThreeRows");
  exchangeOverHttp(
      chunkedAt(rows, {rows.recordStarts.begin() + 1, rows.recordStarts.end()}, true).text,
      rows.kind);
  exchangeOverHttp(chunked(replyNamed("StreamSearchWithTenHits"), 100, true).text, kStreamSearch);
  exchangeOverHttp("", kGetStatus);
  {
    ScriptedNetwork network(Script().send("ab").expectRequest().awaitClose());
    CorvaneRESTClient client(u"127.0.0.1", 7, true);
    client.open();
    char byte = 0;
    client.read(&byte, 0, 1, false);
    client.readOnce(&byte, 0, 1, false);
    auto request = requestFor(kGetStatus);
    client.send(request);
    ClientResponse response;
    response.getParseResponse(client);
  }
  expectEachTraced(facility, trace::ClientResponsePullSearchResponse,
                   trace::ClientResponsePullParseResponse);
  expectEachTraced(facility, trace::RESTResponseParseMesg,
                   trace::CorvaneRESTClientRecvMultResponse);
}

TEST(TracedExchange, AReadWaitsAndReadsTwiceASingleReadNeitherWaitsNorReadsAgain) {
  ScriptedNetwork network(Script().send("ab").awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, true);
  client.open();
  RecordingFacility facility;
  char byte = 0;
  client.read(&byte, 0, 1, true);
  EXPECT_EQ(facility.sequence, (std::vector<unsigned int>{
                                   trace::CorvaneClientRead, trace::CorvaneClientDataToRead,
                                   trace::CorvaneClientGenericRead, trace::CorvaneClientDataToRead,
                                   trace::CorvaneClientGenericRead}));
  facility.sequence.clear();
  client.readOnce(&byte, 0, 1, true);
  EXPECT_EQ(facility.sequence, (std::vector<unsigned int>{trace::CorvaneClientReadOnce,
                                                          trace::CorvaneClientGenericRead}));
}

TEST(TracedExchange, TheEndOfAConnectionIsNoCloseAndThatOfAClientIs) {
  ScriptedNetwork network(Script().awaitClose());
  RecordingFacility facility;
  {
    tq::comm::CorvaneClient connection(u"127.0.0.1", 7, tq::oss::Socket::NullAddrInfoExternal, true,
                                       false);
    connection.open();
  }
  EXPECT_EQ(facility.entries.count(trace::CorvaneClientClose), 0U);
  {
    CorvaneRESTClient client(u"127.0.0.1", 7, true);
    client.open();
  }
  EXPECT_EQ(facility.entries.count(trace::CorvaneClientClose), 1U);
}

void exchangeBinary(const std::string& text, int kind) {
  ScriptedNetwork network(Script().expectFramedRequest().send(text).awaitClose());
  DrestoPerfClient client(u"127.0.0.1", 7);
  client.setNumRetries(0);
  client.setTimeOut(100);
  auto request = requestFor(kind);
  ClientResponse response;
  errorOf([&] {
    client.sendAndRecvMesg(request, response);
    client.recv(response);
  });
}

TEST(TracedExchange, OverTheBinaryProtocolLeavesARecordOfEveryOperation) {
  RecordingFacility facility;
  const auto ok = word16(1);
  exchangeBinary(ok + plainHit("a") + endOfResults(), kStreamSearch);
  exchangeBinary(ok + envelope(1, record16({{"Doc", "d"}})) + endOfResults(), kParseResult);
  exchangeBinary(ok + envelope(1, estimate(1, 2, 3)) + endOfResults(), kSelectivity);
  exchangeBinary(ok + envelope(1, "text"), kGetServerVersion);
  exchangeBinary(word16(6) + errorRecord({{"MsgId", "ZVK1"}, {"MsgText", "t"}}), kStreamSearch);
  exchangeBinary("", kGetStatus);
  expectEachTraced(facility, trace::DrestoPerfClientSendAndRecvMesgOnce,
                   trace::DrestoPerfResponseValidateRespEnv);
}

}  // namespace
