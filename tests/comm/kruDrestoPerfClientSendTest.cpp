// What a binary client writes, write by write.

#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <string>
#include <vector>

#include "comm/kruDrestoPerfClient.h"
#include "comm/kruRESTException.h"
#include "infra/oss/kruNLSException.h"
#include "infra/oss/kruSocketException.h"
#include "infra/oss/kruSystemCalls.h"
#include "tests/comm/binaryFixture.h"
#include "tests/support/raised.h"

namespace tq::test {

// How many bytes a message has for its terminate record: always eight, so that only a test can
// make a message without one.
unsigned int& terminateRecordLength(tq::comm::RESTMessage& message);

template <unsigned int tq::comm::RESTMessage::*member>
struct Reach {
  friend unsigned int& terminateRecordLength(tq::comm::RESTMessage& message) {
    return message.*member;
  }
};
template struct Reach<&tq::comm::RESTMessage::termRecordLength_>;

}  // namespace tq::test

namespace {

using namespace tq::test;
using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::DrestoPerfClient;
using tq::comm::RESTMessage;

using Sizes = std::vector<std::size_t>;

constexpr auto kFile = "kruDrestoPerfClient";

// What one message is.

TEST(DrestoPerfClientSend, ASmallRequestLeavesInOneWrite) {
  for (const int kind : {1, 2, 3, 4, 5, 8, 9, 11, 12, 14, 15, 20, 21, 22, 23, 24}) {
    ScriptedNetwork network(Script().expectFramedRequest().send(kOk + endOfResults()).awaitClose());
    auto client = binaryClient();
    auto request = requestFor(kind);
    ClientResponse response;
    client.sendAndRecvMesg(request, response);
    const auto expected = Framed(request).whole();
    EXPECT_EQ(network.connection(0).received, expected) << kind;
    EXPECT_EQ(network.writeSizes(), Sizes{expected.size()}) << kind;
    EXPECT_EQ(network.requests(), 1U);
  }
}

TEST(DrestoPerfClientSend, TheBytesOfADocumentStandInTheirOrder) {
  const std::string content = "abcde";
  for (const std::size_t length : {0U, 1U, 5U}) {
    ScriptedNetwork network(answer(kOk));
    auto client = binaryClient();
    Document document(kAddDocument, length);
    ClientResponse response;
    client.sendAndRecvMesg(document.request, response);
    RESTMessage message(u"127.0.0.1", document.request);
    const std::string text = message.getSerializedHeader();
    std::string tail =
        enveloped("title") + enveloped("one") + enveloped("rowId") + enveloped("key");
    if (length != 0) tail += enveloped("data") + enveloped(content.substr(0, length));
    EXPECT_EQ(network.connection(0).received,
              word16(static_cast<unsigned int>(text.size())) + text + bigEndian(0) +
                  bigEndian(static_cast<std::uint32_t>(tail.size())) + tail);
  }
}

TEST(DrestoPerfClientSend, TheLastDocumentIsHeaderAndTerminateRecordAndNothingIsRead) {
  ScriptedNetwork network(Script().expectFramedRequest().awaitClose());
  auto client = binaryClient();
  Document document(kLastDocSent);
  ClientResponse response;
  client.sendAndRecvMesg(document.request, response);
  RESTMessage message(u"127.0.0.1", document.request);
  const std::string text = message.getSerializedHeader();
  EXPECT_EQ(network.connection(0).received,
            word16(static_cast<unsigned int>(text.size())) + text + std::string(8, '\0'));
  EXPECT_NE(text.find("Content-Length  : 8\n"), std::string::npos);
  EXPECT_EQ(network.writes(), 1U);
  EXPECT_EQ(network.receives(), 0U);
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_EQ(response.getReturnCode(), 0);
}

TEST(DrestoPerfClientSend, AQueuedDocumentWaitsForNoReply) {
  ScriptedNetwork network(Script().expectFramedRequest().awaitClose());
  auto client = binaryClient();
  Document document(kAsynchAddDocument);
  ClientResponse response;
  client.sendAndRecvMesg(document.request, response);
  EXPECT_EQ(network.requests(), 1U);
  EXPECT_EQ(network.receives(), 0U);
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_EQ(response.getReturnCode(), 0);
}

// The header's length.

TEST(DrestoPerfClientSend, AHeaderOf65535BytesIsSentAndALongerOneIsRefused) {
  Document probe(kCreateCollection, 0, 1000);
  const std::size_t around = Framed(probe.request).header.size() - 2 - 1000;
  for (const std::size_t length : {65534U, 65535U}) {
    ScriptedNetwork network(answer(kOk));
    auto client = binaryClient();
    Document document(kCreateCollection, 0, length - around);
    ClientResponse response;
    client.sendAndRecvMesg(document.request, response);
    EXPECT_TRUE(response.success());
    EXPECT_EQ(network.connection(0).received.substr(0, 2),
              word16(static_cast<unsigned int>(length)));
    EXPECT_EQ(network.requests(), 1U);
  }
  for (const std::size_t length : {65536U, 70000U}) {
    ScriptedNetwork network(answer(kOk));
    auto client = binaryClient();
    Document document(kCreateCollection, 0, length - around);
    ClientResponse response;
    const auto raised = raisedBy([&] { client.sendAndRecvMesg(document.request, response); });
    ASSERT_EQ(raised.size(), 1U);
    EXPECT_EQ(raised.front().id, "ERR_CLIENT_INTERNAL");
    EXPECT_EQ(raised.front().file, kFile);
    EXPECT_EQ(raised.front().text, "the header text of a request is longer than 65535 bytes");
    EXPECT_EQ(raised.front().arguments, (std::vector<std::string>{"127.0.0.1", "7"}));
    EXPECT_EQ(network.writes(), 0U);
    auto next = requestFor(kCreateCollection);
    client.sendAndRecvMesg(next, response);
    EXPECT_EQ(network.connection(0).received, Framed(next).whole()) << "nothing of it stays";
  }
}

TEST(DrestoPerfClientSend, TheHeaderEndsBeforeItsFirstZeroByte) {
  ScriptedNetwork network(Script().expectBytes(1).send(kOk).awaitClose());
  auto client = binaryClient();
  tq::util::ExtendedProperties properties;
  properties.putProperty(u"query", icu::UnicodeString(u"a\0b", 3));
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::CREATE_COLLECTION, properties);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  const auto& received = network.connection(0).received;
  EXPECT_TRUE(received.ends_with("query: a"));
  EXPECT_EQ(received.substr(0, 2), word16(static_cast<unsigned int>(received.size() - 2)));
}

// Bodies.

struct BodyCase {
  std::size_t body;
  Sizes behindFixed;  // what the first write holds of the body, then the further writes
};

TEST(DrestoPerfClientSend, ALargeBodyGoesOutInPiecesBehindItsFirst5000Bytes) {
  for (const auto& c : std::vector<BodyCase>{{0, {0}},
                                             {1, {1}},
                                             {5000, {5000}},
                                             {9999, {9999}},
                                             {10000, {10000}},
                                             {10001, {5000, 5001}},
                                             {15000, {5000, 10000}},
                                             {15001, {5000, 10000, 1}},
                                             {25000, {5000, 10000, 10000}},
                                             {34999, {5000, 10000, 10000, 9999}}}) {
    ScriptedNetwork network(answer(kOk));
    auto client = binaryClient();
    Document document(kAddDocument, c.body);
    ClientResponse response;
    client.sendAndRecvMesg(document.request, response);
    const Framed framed(document.request);
    auto expected = c.behindFixed;
    expected.front() += framed.fixed();
    EXPECT_EQ(network.writeSizes(), expected) << c.body;
    EXPECT_EQ(network.connection(0).received, framed.whole()) << c.body;
    EXPECT_TRUE(response.success());
  }
}

TEST(DrestoPerfClientSend, ALargeBodyStartsInTheFirstWriteOnlyBelow5000Bytes) {
  Document probe(kAddDocument, 10001, 1000);
  const std::size_t around = Framed(probe.request).fixed() - 1000;
  for (const auto& [fixed, expected] :
       std::vector<std::pair<std::size_t, Sizes>>{{4999, {9999, 5001}},
                                                  {5000, {5000, 10000, 1}},
                                                  {5001, {5001, 10000, 1}},
                                                  {20000, {20000, 10000, 1}}}) {
    ScriptedNetwork network(answer(kOk));
    auto client = binaryClient();
    Document document(kAddDocument, 10001, fixed - around);
    ClientResponse response;
    client.sendAndRecvMesg(document.request, response);
    EXPECT_EQ(network.writeSizes(), expected) << fixed;
    EXPECT_EQ(network.connection(0).received, Framed(document.request).whole());
  }
}

TEST(DrestoPerfClientSend, ASmallBodyGoesOutWholeHoweverLongItsHeader) {
  ScriptedNetwork network(answer(kOk));
  auto client = binaryClient();
  Document document(kAddDocument, 10000, 20000);
  ClientResponse response;
  client.sendAndRecvMesg(document.request, response);
  EXPECT_EQ(network.writes(), 1U);
  EXPECT_EQ(network.connection(0).received, Framed(document.request).whole());
}

TEST(DrestoPerfClientSend, BodyChunksAreWritesOfTheirOwn) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  client.open();
  client.sendBodyChunks("0123456789", 3, 10);
  EXPECT_EQ(network.writeSizes(), (Sizes{3, 3, 3, 1}));
  EXPECT_EQ(network.connection(0).received, "0123456789");
  client.sendBodyChunks("0123456789", 10, 10);
  client.sendBodyChunks("0123456789", 11, 10);
  EXPECT_EQ(network.writes(), 6U);
  client.sendBodyChunks("0123456789", 3, 0);
  EXPECT_EQ(network.writes(), 6U) << "nothing is written of nothing";
  client.sendBodyChunks("x", 10, 1);
  EXPECT_EQ(network.writes(), 7U);
  for (const unsigned long size : {0UL, 1UL}) {
    const std::size_t before = network.writes();
    client.sendBodyChunks("abc", size, 3);
    EXPECT_EQ(network.writes(), before + 3) << "a byte at a time is the least";
  }
}

TEST(DrestoPerfClientSend, TheChunksBeforeOneThatFailsAreNotHeldBack) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  client.open();
  network.failNextWrite(ENOBUFS, 2);
  EXPECT_THROW(client.sendBodyChunks("0123456789", 3, 10), tq::oss::SocketException);
  EXPECT_EQ(network.connection(0).received, "012345");
}

// The server takes them for the start of a request, and the next one for the rest of it.
TEST(DrestoPerfClientSend, BodyChunksByHandCostTheNextExchangeItsConnection) {
  ScriptedNetwork network({Script().awaitClose(), answer(kOk)});
  auto client = binaryClient();
  client.setNumRetries(0);
  client.open();
  client.sendBodyChunks("0123456789", 3, 10);
  EXPECT_EQ(runExchange(client, kCreateCollection).errorId, "");
  EXPECT_EQ(network.connections(), 2U);
  EXPECT_EQ(network.connection(0).received, "0123456789");
}

TEST(DrestoPerfClientSend, BehindBodyChunksByHandNoRequestIsSentByHand) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  client.open();
  client.sendBodyChunks("0123456789", 10, 10);
  auto request = requestFor(kCreateCollection);
  EXPECT_EQ(errorOf([&] { client.send(request); }).errorId, "ERR_INVALID_STATE");
  EXPECT_EQ(network.connection(0).received, "0123456789");
  client.sendBodyChunks("0123456789", 10, 0);
  client.close();
  client.open();
  client.sendBodyChunks("0123456789", 10, 0);
  EXPECT_EQ(errorOf([&] { client.send(request); }).errorId, "") << "nothing was written by hand";
}

TEST(DrestoPerfClientSend, ABodyInPiecesGoesOutWholeWhenAWriteTakesFewBytes) {
  ScriptedNetwork network(answer(kOk));
  network.limitWrites(7);
  auto client = binaryClient();
  Document document(kAddDocument, 10001);
  ClientResponse response;
  client.sendAndRecvMesg(document.request, response);
  EXPECT_EQ(network.connection(0).received, Framed(document.request).whole());
  EXPECT_EQ(network.requests(), 1U);
}

// Failed writes.

TEST(DrestoPerfClientSend, AFailedWriteIsASendErrorWithHostAndPort) {
  for (const std::size_t size : {10U, 20001U}) {
    // The first write, or a piece of the body after it.
    for (std::size_t behind = 0; behind < (size > 10000 ? 3U : 1U); ++behind) {
      ScriptedNetwork network(Script().awaitClose());
      auto client = binaryClient();
      client.setNumRetries(0);
      network.failNextWrite(EPIPE, behind);
      Document document(kAddDocument, size);
      ClientResponse response;
      EXPECT_EQ(raisedBy([&] { client.sendAndRecvMesg(document.request, response); }),
                (Raised{{"ERR_SERVER_COMM_SEND", kFile, 281, kHostAndPort}}));
      EXPECT_EQ(network.connections(), 1U);
      EXPECT_EQ(network.writes(), behind + 1);
    }
  }
}

TEST(DrestoPerfClientSend, AFailedWriteIsRepeatedOnAFreshConnection) {
  for (std::size_t behind = 0; behind < 3; ++behind) {
    ScriptedNetwork network(answer(kOk));
    auto client = binaryClient();
    network.failNextWrite(ECONNRESET, behind);
    Document document(kAddDocument, 20001);
    ClientResponse response;
    client.sendAndRecvMesg(document.request, response);
    EXPECT_TRUE(response.success());
    ASSERT_EQ(network.connections(), 2U);
    EXPECT_TRUE(network.connection(0).clientClosed);
    EXPECT_EQ(network.connection(1).received, Framed(document.request).whole());
  }
}

TEST(DrestoPerfClientSend, AFailedWriteLeavesNothingOfItsMessage) {
  for (const std::size_t size : {10U, 20001U}) {
    for (std::size_t behind = 0; behind < (size > 10000 ? 3U : 1U); ++behind) {
      ScriptedNetwork network(answer(kOk));
      auto client = binaryClient();
      client.setNumRetries(0);
      network.failNextWrite(EPIPE, behind);
      Document failed(kAddDocument, size);
      ClientResponse response;
      EXPECT_FALSE(raisedBy([&] { client.sendAndRecvMesg(failed.request, response); }).empty());
      Document next(kAddDocument, 3);
      client.sendAndRecvMesg(next.request, response);
      ASSERT_EQ(network.connections(), 2U) << "half a message spoils a connection";
      EXPECT_EQ(network.connection(1).received, Framed(next.request).whole());
      EXPECT_TRUE(response.success());
    }
  }
}

/// The calls in force, but for writes, which find no memory.
class WritesWithoutMemory {
 public:
  WritesWithoutMemory() : calls_(tq::oss::systemCalls()) {
    calls_.sendmsg = [](int, const msghdr*, int) -> ssize_t { throw std::bad_alloc(); };
    before_ = tq::oss::replaceSystemCalls(&calls_);
  }
  ~WritesWithoutMemory() { tq::oss::replaceSystemCalls(before_); }
  WritesWithoutMemory(const WritesWithoutMemory&) = delete;
  WritesWithoutMemory& operator=(const WritesWithoutMemory&) = delete;

 private:
  tq::oss::SystemCalls calls_;
  const tq::oss::SystemCalls* before_;
};

TEST(DrestoPerfClientSend, AMessageThatFoundNoMemoryIsNotSentWithTheNextOne) {
  ScriptedNetwork network(
      {Script().awaitClose(), Script().expectFramedRequest().send(word16(5)).awaitClose()});
  auto client = binaryClient();
  {
    const WritesWithoutMemory scarce;
    auto search = requestFor(kStreamSearch);
    ClientResponse response;
    EXPECT_EQ(errorOf([&] { client.sendAndRecvMesg(search, response); }).errorId,
              "ERR_CLIENT_INTERNAL");
    EXPECT_EQ(client.getRequestOutcome(), tq::comm::RequestOutcome::NotSent);
  }
  EXPECT_EQ(runExchange(client, kGetStatus).statusCode, 1u);
  ASSERT_EQ(network.connections(), 2u);
  ASSERT_EQ(network.connection(1).requests.size(), 1u);
  EXPECT_EQ(network.connection(1).received, network.connection(1).requests[0]);
  EXPECT_NE(network.connection(1).received.find("getStatus"), std::string::npos);
}

/// A message whose content cannot be had.
class FailingMessage : public RESTMessage {
 public:
  using RESTMessage::RESTMessage;
  const char* getMsgBody() override {
    tq::oss::NLSException error;
    error.getMessageList().add(tq::oss::Message(u"TQ_ERR_NO_BODY", u"the content is gone"));
    error.getMessageList().add(tq::oss::Message(u"TQ_ERR_SECOND", u"not reported"));
    throw error;
  }
};

TEST(DrestoPerfClientSend, AnotherFailureNamesTheHostAndThenItsCause) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  client.open();
  Document document(kAddDocument);
  FailingMessage message(u"127.0.0.1", document.request);
  EXPECT_EQ(raisedBy([&] { client.sendMesg(message); }),
            (Raised{{"ERR_CLIENT_INTERNAL", kFile, 286, {"127.0.0.1"}},
                    {"TQ_ERR_NO_BODY", "(null)", 0, {}, "the content is gone"}}));
  EXPECT_EQ(network.writes(), 0U);
}

TEST(DrestoPerfClientSend, AMissingTerminateRecordIsReportedAndNotWrappedAgain) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  client.open();
  auto request = requestFor(kLastDocSent);
  RESTMessage message(u"127.0.0.1", request);
  terminateRecordLength(message) = 0;
  EXPECT_EQ(raisedBy([&] { client.sendMesg(message); }),
            (Raised{{"ERR_CLIENT_INTERNAL", kFile, 192, {"NULL terminator record in sendMesg"}}}));
  EXPECT_EQ(network.writes(), 0U);
}

// Batching.

/// The count of messages held back is the process's; a write of any client begins it anew.
class DrestoPerfClientBatching : public testing::Test {
 protected:
  DrestoPerfClientBatching() { resetCount(); }

  static void resetCount() {
    ScriptedNetwork network(Script().awaitClose());
    auto client = binaryClient();
    queue(client, 1);
  }

  static std::string queue(DrestoPerfClient& client, std::size_t size) {
    Document document(kAsynchAddDocument, size);
    ClientResponse response;
    client.sendAndRecvMesg(document.request, response);
    EXPECT_TRUE(response.success());
    EXPECT_TRUE(client.isEndOfStream());
    return Framed(document.request).whole();
  }

  static std::string sendLast(DrestoPerfClient& client) {
    auto request = requestFor(kLastDocSent);
    ClientResponse response;
    client.sendAndRecvMesg(request, response);
    EXPECT_TRUE(response.success());
    return Framed(request).whole();
  }

  static void batching(DrestoPerfClient& client) { client.useBufferedConnection(true); }
};

TEST_F(DrestoPerfClientBatching, IsOffByDefault) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  std::string all;
  for (int i = 0; i < 3; ++i) all += queue(client, 10);
  EXPECT_EQ(network.writes(), 3U);
  EXPECT_EQ(network.connection(0).received, all);
}

TEST_F(DrestoPerfClientBatching, ARefusedDocumentSaysNothingOfWhatIsSentByHandLater) {
  ScriptedNetwork network({Script().expectFramedRequest().expectFramedRequest().awaitClose(),
                           Script().expectFramedRequest().awaitClose()});
  auto client = binaryClient();
  batching(client);
  client.setQueueOnOneConnection(true);
  EXPECT_EQ(runExchange(client, kAsynchAddDocument).errorId, "");
  EXPECT_EQ(runExchange(client, kLastDocSent).errorId, "");
  client.close();
  client.open();
  EXPECT_EQ(runExchange(client, kAsynchAddDocument).errorId, "ERR_SERVER_COMM_SEND");
  auto search = requestFor(kStreamSearch);
  search.getReqProperties().putProperty(u"query", icu::UnicodeString(10000, u'q', 10000));
  client.send(search);
  EXPECT_EQ(network.connection(1).requests.size(), 1U);
}

TEST_F(DrestoPerfClientBatching, HoldsFortyNineMessagesAndWritesFifty) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  batching(client);
  std::string all;
  for (int round = 1; round <= 2; ++round) {
    for (int i = 0; i < 49; ++i) {
      all += queue(client, 1);
      ASSERT_EQ(network.writes(), static_cast<std::size_t>(round - 1)) << i;
    }
    if (round == 1) {
      EXPECT_EQ(network.receives(), 0U) << "nobody looks at the connection";
    }
    all += queue(client, 1);
    ASSERT_LT(all.size(), static_cast<std::size_t>(round) * 10000) << "the bytes do not decide";
    EXPECT_EQ(network.writes(), static_cast<std::size_t>(round));
    EXPECT_EQ(network.connection(0).received, all);
  }
}

TEST_F(DrestoPerfClientBatching, WritesWhenTheBufferHolds10000Bytes) {
  Document probe(kAsynchAddDocument, 1000);
  const std::size_t around = Framed(probe.request).fixed();
  for (const auto& [total, writes] :
       std::vector<std::pair<std::size_t, std::size_t>>{{9999, 0}, {10000, 1}, {10001, 1}}) {
    ScriptedNetwork network(Script().awaitClose());
    auto client = binaryClient();
    batching(client);
    const std::size_t first = queue(client, 1000).size();
    EXPECT_EQ(network.writes(), 0U);
    const std::size_t second = queue(client, total - first - around).size();
    ASSERT_EQ(first + second, total);
    EXPECT_EQ(network.writes(), writes) << total;
    if (writes == 1) {
      EXPECT_EQ(network.writeSizes(), Sizes{total});
    }
  }
}

TEST_F(DrestoPerfClientBatching, ATerminateRecordTakesEverythingHeldAlong) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  batching(client);
  std::string all;
  for (int i = 0; i < 3; ++i) all += queue(client, 10);
  EXPECT_EQ(network.writes(), 0U);
  all += sendLast(client);
  EXPECT_EQ(network.writeSizes(), Sizes{all.size()});
  EXPECT_EQ(network.connection(0).received, all);
  all += sendLast(client);
  EXPECT_EQ(network.writes(), 2U) << "alone as well";
  EXPECT_EQ(network.connection(0).received, all);
}

TEST_F(DrestoPerfClientBatching, ALargeBodyTakesEverythingHeldAlong) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  batching(client);
  std::string all = queue(client, 10);
  const auto held = all.size();
  Document large(kAsynchAddDocument, 10001);
  const auto fixed = Framed(large.request).fixed();
  all += queue(client, 10001);
  EXPECT_EQ(network.writeSizes(), (Sizes{held + fixed + 5000, 5001}));
  EXPECT_EQ(network.connection(0).received, all);
}

TEST_F(DrestoPerfClientBatching, WhatIsHeldCountsWhenALargeBodyLooksForRoom) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  batching(client);
  std::string all = queue(client, 5000);
  const auto held = all.size();
  Document large(kAsynchAddDocument, 10001);
  const auto fixed = Framed(large.request).fixed();
  all += queue(client, 10001);
  EXPECT_EQ(network.writeSizes(), (Sizes{held + fixed, 10000, 1}));
  EXPECT_EQ(network.connection(0).received, all);
}

TEST_F(DrestoPerfClientBatching, IsFlushedBeforeAReplyIsAwaited) {
  for (const int kind : {kStreamSearch, kAddDocument, kGetStatus, kParseResult}) {
    ScriptedNetwork network(Script()
                                .expectFramedRequest()
                                .expectFramedRequest()
                                .expectFramedRequest()
                                .send(kOk + endOfResults())
                                .awaitClose());
    auto client = binaryClient();
    batching(client);
    std::string all = queue(client, 10);
    all += queue(client, 20);
    EXPECT_EQ(network.writes(), 0U);
    auto request = requestFor(kind);
    ClientResponse response;
    client.sendAndRecvMesg(request, response);
    all += Framed(request).whole();
    EXPECT_TRUE(response.success());
    EXPECT_FALSE(network.waitedForever());
    EXPECT_EQ(network.writeSizes(), Sizes{all.size()});
    EXPECT_EQ(network.connection(0).received, all);
  }
}

TEST_F(DrestoPerfClientBatching, CountsTheMessagesOfAllClients) {
  ScriptedNetwork network(Script().awaitClose());
  auto first = binaryClient();
  auto second = binaryClient();
  batching(first);
  batching(second);
  std::string held;
  for (int i = 0; i < 49; ++i) held += queue(first, 1);
  EXPECT_EQ(network.writes(), 0U);
  const auto fiftieth = queue(second, 1);
  EXPECT_EQ(network.writeSizes(), Sizes{fiftieth.size()}) << "and writes its own alone";
  held += queue(first, 1);
  EXPECT_EQ(network.writes(), 1U) << "the count has begun anew";
  held += sendLast(first);
  EXPECT_EQ(network.connection(0).received, held);
  EXPECT_EQ(network.connection(1).received, fiftieth);
}

TEST_F(DrestoPerfClientBatching, TheCountBeginsAnewWithAnyClientsWrite) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  batching(client);
  std::string held;
  for (int i = 0; i < 49; ++i) held += queue(client, 1);
  auto other = binaryClient();
  queue(other, 1);
  EXPECT_EQ(network.writes(), 1U);
  for (int i = 0; i < 10; ++i) held += queue(client, 1);
  EXPECT_EQ(network.writes(), 1U);
  held += sendLast(client);
  EXPECT_EQ(network.writes(), 2U);
  EXPECT_EQ(network.connection(0).received, held);
}

TEST_F(DrestoPerfClientBatching, AMessageWhoseWriteFailsIsNotCounted) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  batching(client);
  client.setNumRetries(0);
  for (int i = 0; i < 48; ++i) queue(client, 1);
  network.failNextWrite(EPIPE);
  auto request = requestFor(kLastDocSent);
  ClientResponse response;
  EXPECT_EQ(raisedBy([&] { client.sendAndRecvMesg(request, response); }).size(), 1U);
  const auto writes = network.writes();
  queue(client, 1);
  EXPECT_EQ(network.writes(), writes) << "the forty-ninth";
  queue(client, 1);
  EXPECT_EQ(network.writes(), writes + 1);
}

TEST_F(DrestoPerfClientBatching, TheDestructorDoesNotSendWhatIsHeld) {
  ScriptedNetwork network(Script().awaitClose());
  {
    auto client = binaryClient();
    batching(client);
    queue(client, 10);
  }
  EXPECT_EQ(network.writes(), 0U);
  EXPECT_EQ(network.connection(0).received, "");
  EXPECT_TRUE(network.connection(0).clientClosed);
}

TEST_F(DrestoPerfClientBatching, SwitchedOffItSendsWhatIsHeldWithTheNextMessage) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  batching(client);
  std::string all = queue(client, 10);
  client.useBufferedConnection(false);
  all += queue(client, 20);
  EXPECT_EQ(network.writeSizes(), Sizes{all.size()});
  EXPECT_EQ(network.connection(0).received, all);
}

TEST_F(DrestoPerfClientBatching, AFailedWriteKeepsWhatWasHeldBeforeItsMessage) {
  for (const unsigned int retries : {1U, 0U}) {
    ScriptedNetwork network(Script().awaitClose());
    network.limitWrites(50);
    auto client = binaryClient();
    batching(client);
    client.setNumRetries(retries);
    std::string all;
    for (const std::size_t size : {10U, 20U, 30U}) all += queue(client, size);
    network.failNextWrite(EPIPE, 2);  // in the midst of it
    if (retries == 0) {
      auto request = requestFor(kLastDocSent);
      ClientResponse response;
      EXPECT_EQ(raisedBy([&] { client.sendAndRecvMesg(request, response); }).front().id,
                "ERR_SERVER_COMM_SEND");
    }
    all += sendLast(client);
    ASSERT_EQ(network.connections(), 2U);
    EXPECT_EQ(network.connection(1).received, all) << "each message once";
  }
}

// The network holds back what is written as a beginning until it is told that no more follows.
TEST_F(DrestoPerfClientBatching,
       WhatWasWrittenBeforeALargeBodyArrivesThoughTheBodyCannotBeWritten) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  batching(client);
  client.setNumRetries(0);
  std::string all;
  for (const std::size_t size : {10U, 20U}) all += queue(client, size);
  Document large(kAsynchAddDocument, 30000);
  const Framed framed(large.request);
  network.failNextWrite(ENOBUFS, 2);
  ClientResponse response;
  EXPECT_EQ(raisedBy([&] { client.sendAndRecvMesg(large.request, response); }).front().id,
            "ERR_SERVER_COMM_SEND");
  all += framed.whole().substr(0, framed.fixed() + 15000);
  EXPECT_EQ(network.connection(0).received, all);
}

// What the first connection has taken of it comes a second time, which replaces each document by
// itself; dropping it would lose documents of which nobody was told.
TEST_F(DrestoPerfClientBatching, WhatIsHeldGoesOutAgainWhenALargeBodyBehindItCannotBeWritten) {
  for (const unsigned int retries : {1U, 0U}) {
    for (const std::size_t written : {0U, 1U, 2U}) {
      ScriptedNetwork network(Script().awaitClose());
      auto client = binaryClient();
      batching(client);
      client.setNumRetries(retries);
      std::string all;
      for (const std::size_t size : {10U, 20U}) all += queue(client, size);
      Document large(kAsynchAddDocument, 30000);
      network.failNextWrite(EPIPE, written);
      ClientResponse response;
      const Raised raised = raisedBy([&] { client.sendAndRecvMesg(large.request, response); });
      if (retries == 0) {
        EXPECT_EQ(raised, (Raised{{"ERR_SERVER_COMM_SEND", kFile, 281, kHostAndPort}}));
        all += sendLast(client);
      } else {
        EXPECT_EQ(raised, Raised());
        all += Framed(large.request).whole();
      }
      ASSERT_EQ(network.connections(), 2U);
      EXPECT_EQ(network.connection(1).received, all) << written;
    }
  }
}

TEST_F(DrestoPerfClientBatching, WhatIsHeldSurvivesAConnectionThatTheServerHasClosed) {
  ScriptedNetwork network({Script(), Script().awaitClose()});
  auto client = binaryClient();
  batching(client);
  std::string all = queue(client, 10);
  all += queue(client, 20);
  all += sendLast(client);
  EXPECT_EQ(network.connection(0).received, "");
  ASSERT_EQ(network.connections(), 2U);
  EXPECT_EQ(network.connection(1).received, all);
}

TEST_F(DrestoPerfClientBatching, ASearchThatIsHeldIsSentAgainOnlyOnceWhenItsWriteFails) {
  ScriptedNetwork network(Script()
                              .expectFramedRequest()
                              .expectFramedRequest()
                              .send(kOk + plainHit("key") + endOfResults())
                              .awaitClose());
  auto client = binaryClient();
  batching(client);
  std::string all = queue(client, 10);
  network.failNextWrite(EPIPE);
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  all += Framed(request).whole();
  EXPECT_EQ(response.getResultCount(), 1);
  ASSERT_EQ(network.connections(), 2U);
  EXPECT_EQ(network.connection(1).received, all);
}

/// Holds a document, a request that will be answered, and a document after it.
class HeldQuestion : public DrestoPerfClientBatching {
 protected:
  std::string hold(DrestoPerfClient& client) {
    batching(client);
    client.open();
    std::string all;
    for (ClientRequest* request : {&first_.request, &question_, &last_.request}) {
      client.send(*request);
      all += Framed(*request).whole();
    }
    return all;
  }

  static Raised askStatus(DrestoPerfClient& client) {
    auto request = requestFor(kGetStatus);
    ClientResponse response;
    return raisedBy([&] { client.sendAndRecvMesg(request, response); });
  }

  Document first_{kAsynchAddDocument, 10};
  ClientRequest question_ = requestFor(kCreateCollection);
  Document last_{kAsynchAddDocument, 20};
};

TEST_F(HeldQuestion, SurvivesAFailedWriteWithAllThatIsHeldAroundIt) {
  for (const unsigned int retries : {1U, 0U}) {
    ScriptedNetwork network({Script().awaitClose(), Script().awaitClose(), answer(kOk)});
    auto client = binaryClient();
    client.setNumRetries(retries);
    const auto all = hold(client);
    network.failNextWrite(EPIPE);
    if (retries == 0) {
      EXPECT_EQ(askStatus(client), (Raised{{"ERR_SERVER_COMM_SEND", kFile, 281, kHostAndPort}}));
    }
    EXPECT_EQ(askStatus(client), Raised());
    ASSERT_EQ(network.connections(), 3U);
    EXPECT_EQ(network.connection(1).received, all);
    EXPECT_EQ(network.connection(2).requests.size(), 1U);
  }
}

TEST_F(HeldQuestion, IsNotSentBehindHalfOfItself) {
  ScriptedNetwork network({Script().awaitClose(), Script().awaitClose(), answer(kOk)});
  network.limitWrites(50);
  auto client = binaryClient();
  client.setNumRetries(0);
  const auto all = hold(client);
  network.failNextWrite(EPIPE, 1);
  EXPECT_EQ(askStatus(client).size(), 1U);
  EXPECT_EQ(askStatus(client), Raised());
  EXPECT_EQ(network.connection(0).received, all.substr(0, 50));
  ASSERT_EQ(network.connections(), 3U);
  EXPECT_EQ(network.connection(1).received, all);
}

TEST_F(HeldQuestion, SaysNothingOfTheRequestOfTheExchange) {
  ScriptedNetwork network(Script().awaitClose());
  auto client = binaryClient();
  const auto all = hold(client);
  network.failConnects(ECONNREFUSED);
  EXPECT_EQ(askStatus(client).front().id, "ERR_CONNECT_SERVER");
  EXPECT_EQ(network.connection(0).received, all);
  EXPECT_EQ(client.getRequestOutcome(), tq::comm::RequestOutcome::NotSent);
}

TEST_F(HeldQuestion, DoesNotLeaveItsReplyToAnExchange) {
  ScriptedNetwork network(
      {Script().expectFramedRequest().send(kOk).expectFramedRequest().send(word16(5)).awaitClose(),
       Script().expectFramedRequest().send(word16(5)).awaitClose()});
  auto client = binaryClient();
  client.useBufferedConnection(true);
  client.open();
  auto create = requestFor(kCreateCollection);
  client.send(create);
  EXPECT_EQ(network.writes(), 0u);
  EXPECT_EQ(runExchange(client, kGetStatus).statusCode, 1u);
  EXPECT_EQ(network.connection(0).requests.size(), 1u);
  EXPECT_EQ(network.connections(), 2u);
}

TEST_F(HeldQuestion, IsNotWrittenByAReceiveBehindAFinishedReply) {
  ScriptedNetwork network(Script().expectFramedRequest().send(kOk).awaitClose());
  auto client = binaryClient();
  client.setNumRetries(0);
  EXPECT_EQ(runExchange(client, kGetStatus).errorId, "");
  client.useBufferedConnection(true);
  client.send(question_);
  EXPECT_EQ(network.writes(), 1U);
  ClientResponse response;
  // The reply before is finished, so that a receive has to be told of another.
  EXPECT_EQ(raisedBy([&] { client.recvMesg(response); }).front().id, "ERR_CLIENT_INTERNAL");
  EXPECT_EQ(network.writes(), 1U);
}

TEST_F(HeldQuestion, OfTwoIsNotWrittenByAReceiveThatIsRefused) {
  ScriptedNetwork network(Script().expectFramedRequest().awaitClose());
  auto client = binaryClient();
  client.setNumRetries(0);
  client.setTimeOut(100);
  ClientResponse response;
  auto search = requestFor(kStreamSearch);
  // Nothing has come of its reply, whose parser waits for a header still.
  EXPECT_EQ(raisedBy([&] { client.sendAndRecvMesg(search, response); }).front().id,
            "ERR_SERVER_COMM_TIMEOUT");
  client.close();
  client.open();
  client.useBufferedConnection(true);
  client.send(question_);
  client.send(question_);
  const std::size_t before = network.writes();
  EXPECT_EQ(raisedBy([&] { client.recvMesg(response); }).front().id, "ERR_INVALID_STATE");
  EXPECT_EQ(network.writes(), before);
}

TEST_F(HeldQuestion, IsWrittenAndAnsweredByAReceiveByHand) {
  for (const bool sound : {true, false}) {
    ScriptedNetwork network(
        {Script().expectFramedRequest().awaitClose(),
         Script().send(sound ? "" : "?").expectFramedRequest().send(kOk).awaitClose()});
    auto client = binaryClient();
    client.setNumRetries(0);
    client.setTimeOut(100);
    ClientResponse response;
    auto create = requestFor(kCreateCollection);
    EXPECT_EQ(raisedBy([&] { client.sendAndRecvMesg(create, response); }).front().id,
              "ERR_SERVER_COMM_TIMEOUT");
    client.close();
    client.open();
    char taken = '\0';
    if (!sound) client.readOnce(&taken, 0, 1, false);
    client.useBufferedConnection(true);
    client.send(question_);
    const std::size_t before = network.writes();
    const Raised raised = raisedBy([&] { client.recvMesg(response); });
    EXPECT_EQ(raised.empty(), sound);
    EXPECT_EQ(network.writes(), before + (sound ? 1 : 0));
  }
}

/// The queue of documents is with a connection that the peer has closed.
TEST_F(DrestoPerfClientBatching, AQueueWhoseConnectionIsGoneWhenItIsDueIsNotWrittenElsewhere) {
  ScriptedNetwork network({Script().expectFramedRequest().expectFramedRequest(),
                           Script().expectFramedRequest().expectFramedRequest().awaitClose()});
  auto client = binaryClient();
  batching(client);
  client.setQueueOnOneConnection(true);
  EXPECT_EQ(runExchange(client, kAsynchAddDocument).errorId, "");
  EXPECT_EQ(runExchange(client, kLastDocSent).errorId, "");
  EXPECT_EQ(network.writes(), 1U);
  EXPECT_EQ(runExchange(client, kAsynchAddDocument).errorId, "") << "held back, unseen";
  EXPECT_EQ(runExchange(client, kLastDocSent).errorId, "ERR_SERVER_COMM_SEND");
  EXPECT_EQ(network.writes(), 1U);
  client.setQueueOnOneConnection(true);
  EXPECT_EQ(runExchange(client, kLastDocSent).errorId, "");
  ASSERT_EQ(network.connections(), 2U);
  auto document = requestFor(kAsynchAddDocument);
  auto last = requestFor(kLastDocSent);
  EXPECT_EQ(network.connection(1).received, Framed(document).whole() + Framed(last).whole())
      << "the refused one is not among them";
}

TEST_F(HeldQuestion, IsNotSentToAPeerThatHasClosed) {
  ScriptedNetwork network({Script(), Script().awaitClose(), answer(kOk)});
  auto client = binaryClient();
  client.setNumRetries(0);
  const auto all = hold(client);
  EXPECT_EQ(askStatus(client), Raised());
  EXPECT_EQ(network.connection(0).received, "");
  ASSERT_EQ(network.connections(), 3U);
  EXPECT_EQ(network.connection(1).received, all);
}

}  // namespace
