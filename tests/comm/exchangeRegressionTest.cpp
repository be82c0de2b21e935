#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <memory_resource>
#include <new>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruRESTException.h"
#include "infra/oss/kruSystemCalls.h"
#include "tests/support/exchange.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/script.h"
#include "tests/support/scriptedNetwork.h"

namespace {

using namespace tq::test;
using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::DrestoPerfClient;

constexpr bool kPersistent = true;
constexpr auto kOnDemand = ScriptedNetwork::Arrival::OnDemand;

const std::string kChunkedReply = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
const std::string kUninterpreted(4, '\0');
const std::string kLastChunk = "0\r\n\r\n";

std::string chunk(const std::string& data) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string size;
  for (std::size_t rest = data.size(); rest != 0; rest /= 16) {
    size.insert(size.begin(), kDigits[rest % 16]);
  }
  return size + "\r\n" + data + "\r\n";
}

std::string hit(const std::string& id) { return enveloped(hitRecord(id, "1")); }

std::string manyHits(const std::string& prefix, int count) {
  std::string all;
  for (int i = 0; i < count; ++i) all += hit(prefix + std::to_string(i));
  return all;
}

std::vector<std::string> idsOf(ClientResponse& response) {
  std::vector<std::string> ids;
  auto& hits = response.getSearchResponse();
  while (hits.hasMore()) ids.push_back(utf8(hits.getNext().getDocId()));
  return ids;
}

// The two-byte forms of the binary protocol.
std::string word(std::size_t value) {
  return {static_cast<char>(value / 256), static_cast<char>(value % 256)};
}
std::string envelope(const std::string& payload) {
  return word(1) + word(payload.size()) + payload;
}
std::string field(const std::string& key, const std::string& value) {
  return word(key.size()) + key + word(value.size()) + value;
}

/// The memory of the lists that are made during its life, until it runs out.
class ScarceMemory : public std::pmr::memory_resource {
 public:
  static constexpr int kPlenty = 1000000;

  ScarceMemory() : before_(std::pmr::set_default_resource(this)) {}
  ~ScarceMemory() override { std::pmr::set_default_resource(before_); }
  /// There are so many blocks left.
  void leave(int blocks) { left_ = blocks; }

 private:
  void* do_allocate(std::size_t bytes, std::size_t alignment) override {
    if (left_-- <= 0) throw std::bad_alloc();
    return before_->allocate(bytes, alignment);
  }
  void do_deallocate(void* p, std::size_t bytes, std::size_t alignment) override {
    before_->deallocate(p, bytes, alignment);
  }
  bool do_is_equal(const memory_resource& other) const noexcept override { return this == &other; }

  std::pmr::memory_resource* before_;
  int left_ = kPlenty;
};

// A stream that cannot be read on.

TEST(ExchangeRegression, AStreamWhoseFramingBrokeIsNotReadOnInItsMiddle) {
  // Behind the broken size line stands what would be a chunk of its own.
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(kChunkedReply + chunk(kUninterpreted + hit("first")))
                              .send("this is no number\r\n" + chunk(hit("wrong")) + kLastChunk)
                              .awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  EXPECT_EQ(idsOf(response), std::vector<std::string>{"first"});

  EXPECT_EQ(errorOf([&] { client.recv(response); }).errorId, "ERR_CLIENT_RESP_PARSING");
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_TRUE(client.isTruncated());
  client.recv(response);
  EXPECT_EQ(idsOf(response), std::vector<std::string>{});
}

TEST(ExchangeRegression, APortionForWhichThereWasNoMemoryIsNotHandedOutTwice) {
  ScarceMemory memory;
  ScriptedNetwork network(
      Script()
          .expectRequest()
          .send(kChunkedReply + chunk(kUninterpreted + hit("first")))
          .send(chunk(manyHits("second", 200)) + chunk(hit("third") + bigEndian(0)) + kLastChunk)
          .awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  auto request = requestFor(kScalarSearch);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);

  memory.leave(0);
  EXPECT_THROW(client.recv(response), std::bad_alloc);
  memory.leave(ScarceMemory::kPlenty);
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_TRUE(client.isTruncated());
  const auto ids = idsOf(response);
  EXPECT_GE(ids.size(), 1u);
  EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
}

TEST(ExchangeRegression, AFirstBodyForWhichThereWasNoMemoryIsNotReadAgain) {
  ScarceMemory memory;
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(kChunkedReply + chunk(kUninterpreted + manyHits("first", 200)))
                              .send(chunk(hit("second") + bigEndian(0)) + kLastChunk)
                              .awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  auto request = requestFor(kScalarSearch);
  ClientResponse response;
  memory.leave(1);
  EXPECT_THROW(client.sendAndRecvMesg(request, response), std::bad_alloc);
  memory.leave(ScarceMemory::kPlenty);

  client.recv(response);
  const auto ids = idsOf(response);
  ASSERT_GE(ids.size(), 2u);
  EXPECT_EQ(ids.back(), "second");
  EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
}

TEST(ExchangeRegression, ABinaryPortionForWhichThereWasNoMemoryIsNotHandedOutTwice) {
  ScarceMemory memory;
  std::string many;
  for (int i = 0; i < 200; ++i) many += envelope("second" + std::to_string(i));
  ScriptedNetwork network(Script()
                              .expectFramedRequest()
                              .send(word(1) + envelope("first"))
                              .send(many)
                              .send(envelope("third") + envelope(""))
                              .awaitClose(),
                          kOnDemand);
  DrestoPerfClient client(u"127.0.0.1", 7);
  auto request = requestFor(kScalarSearch);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);

  memory.leave(0);
  EXPECT_EQ(errorOf([&] { client.recv(response); }).errorId, "ERR_CLIENT_INTERNAL");
  memory.leave(ScarceMemory::kPlenty);
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_TRUE(client.isTruncated());
  const auto ids = idsOf(response);
  EXPECT_GE(ids.size(), 1u);
  EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
}

TEST(ExchangeRegression, ABinaryPortionWithARecordThatIsNoParseResultEndsTheStream) {
  const std::string good = envelope(field("Doc", "d1"));
  ScriptedNetwork network(Script()
                              .expectFramedRequest()
                              .send(word(1) + good)
                              .send(good + envelope(field("Other", "x")) + envelope(""))
                              .awaitClose(),
                          kOnDemand);
  DrestoPerfClient client(u"127.0.0.1", 7);
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

TEST(ExchangeRegression, AChunkThatWithWhatIsCarriedPassesTheLargestLengthIsRefusedUnread) {
  // Not one byte of its data ever comes.
  ScriptedNetwork network(
      Script()
          .expectRequest()
          .send(kChunkedReply + chunk(kUninterpreted + hit("first") + bigEndian(100) + "part"))
          .send("7fffffff\r\n")
          .awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  client.setMaxReplyBytes(std::numeric_limits<int>::max());
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);

  EXPECT_EQ(errorOf([&] { client.recv(response); }).errorId, "ERR_CLIENT_RESP_PARSING");
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_FALSE(network.waitedForever());
}

// What another call does to an open stream.

TEST(ExchangeRegression, ARefusedRequestLeavesTheOpenStreamAsItWas) {
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(kChunkedReply + chunk(kUninterpreted + hit("first")))
                              .send(chunk(hit("second") + bigEndian(0)) + kLastChunk)
                              .awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);

  auto keyAlone = requestFor(kCreateCollection);
  keyAlone.setDocKey("k", 1);
  ClientResponse refused;
  EXPECT_EQ(errorOf([&] { client.sendAndRecvMesg(keyAlone, refused); }).errorId,
            "ERR_CLIENT_INTERNAL");
  // The portion replaces the one before it, as a streaming search's does.
  client.recv(response);
  EXPECT_EQ(idsOf(response), std::vector<std::string>{"second"});
  EXPECT_EQ(network.connections(), 1u);
}

TEST(ExchangeRegression, AMessageWithoutAReplyDoesNotMakeAnOpenStreamForgotten) {
  // The line end behind the first chunk comes late: nothing has arrived when the stream is given
  // up.
  const std::string begun = chunk(kUninterpreted + hit("first"));
  ScriptedNetwork network({Script()
                               .expectRequest()
                               .send(kChunkedReply + begun.substr(0, begun.size() - 2))
                               .expectRequest()
                               .expectRequest()
                               .send("\r\n" + chunk(hit("second") + bigEndian(0)) + kLastChunk)
                               .awaitClose(),
                           Script().expectRequest().send(plain(nextReply())).awaitClose()});
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  auto search = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(search, response);
  auto document = requestFor(kAsynchAddDocument);
  client.send(document);

  EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
  EXPECT_EQ(network.connections(), 2u);
}

TEST(ExchangeRegression, ABinaryMessageWithoutAReplyDoesNotMakeAnOpenStreamForgotten) {
  // What is left of the stream would pass for the reply of a status query.
  ScriptedNetwork network({Script()
                               .expectFramedRequest()
                               .send(word(1) + envelope("first"))
                               .expectFramedRequest()
                               .expectFramedRequest()
                               .send(word(1) + word(0))
                               .awaitClose(),
                           Script().expectFramedRequest().send(word(5)).awaitClose()});
  DrestoPerfClient client(u"127.0.0.1", 7);
  auto search = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(search, response);
  auto document = requestFor(kAsynchAddDocument);
  client.send(document);

  EXPECT_EQ(runExchange(client, kGetStatus).statusCode, 1u);
  EXPECT_EQ(network.connections(), 2u);
}

TEST(ExchangeRegression, AReplyThatIsReceivedByItselfDoesNotBeginWithWhatAStreamLeft) {
  ScriptedNetwork network(
      {Script()
           .expectRequest()
           .send(kChunkedReply + chunk(kUninterpreted + hit("first") + bigEndian(100) + "part"))
           .awaitClose(),
       Script().expectRequest().send(plain(replyNamed("StreamSearchWithOneHit"))).awaitClose()});
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
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

TEST(ExchangeRegression, AnEstimateInChunksThatIsPulledToItsEndIsNotTruncated) {
  const std::string body = kUninterpreted + enveloped(record({{"any", "1"}})) + bigEndian(0);
  ScriptedNetwork network(
      Script().expectRequest().send(kChunkedReply + chunk(body) + kLastChunk).awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  auto request = requestFor(kSelectivity);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  while (!client.isEndOfStream()) client.recv(response);
  EXPECT_FALSE(client.isTruncated());
}

// What lies between two replies.

const std::string kEmptySearch = kUninterpreted + bigEndian(0);

TEST(ExchangeRegression, WhatIsNoChunkBehindAChunkedReplyCostsItsConnection) {
  for (const std::string& garbage :
       {std::string("garbage\r\n"), std::string("x"), std::string("5z\r\n"), std::string("12\n"),
        "1" + std::string(200, '0') + "\r\n"}) {
    ScriptedNetwork network(
        {Script().expectRequest().send(kChunkedReply + chunk(kEmptySearch) + garbage).awaitClose(),
         Script().expectRequest().send(plain(nextReply())).awaitClose()});
    CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
    client.setNumRetries(0);
    EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "") << garbage;
    EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected) << garbage;
    EXPECT_EQ(network.connections(), 2u) << garbage;
  }
}

TEST(ExchangeRegression, WhatIsNoChunkBehindAChunkedReplyIsRefusedWhenItComesLate) {
  // Behind the second one a reply begins where a line ends.
  for (const char* garbage : {"garbage\r\n", "5z\r\n"}) {
    ScriptedNetwork network(Script()
                                .expectRequest()
                                .send(kChunkedReply + chunk(kEmptySearch))
                                .expectRequest()
                                .send(garbage + plain(nextReply()))
                                .awaitClose());
    CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
    EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
    EXPECT_EQ(runExchange(client, nextReply().kind).errorId, "ERR_CLIENT_RESP_PARSING") << garbage;
  }
}

TEST(ExchangeRegression, AChunkBehindTheResultsMayAnnounceNoMoreThanAnyOther) {
  for (const auto& [size, connections] : {std::pair{"64", 1u}, std::pair{"65", 2u}}) {
    const std::string data(std::strtoul(size, nullptr, 16), 'd');
    ScriptedNetwork network(
        {Script()
             .expectRequest()
             .send(kChunkedReply + chunk(kEmptySearch) + size + "\r\n" + data + "\r\n" + kLastChunk)
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

TEST(ExchangeRegression, AReplyThatNobodyAskedForIsSeenBehindTheLastChunk) {
  const std::string results = kChunkedReply + chunk(kEmptySearch);
  const std::string stray = plain(replyNamed("GetStatus"));
  // The last chunk has come with the results and the stray reply by itself, or with the last chunk.
  for (const auto& [first, second] :
       {std::pair{results + kLastChunk, stray}, std::pair{results, kLastChunk + stray}}) {
    ScriptedNetwork network({Script()
                                 .expectRequest()
                                 .send(first)
                                 .send(second)
                                 .expectRequest()
                                 .send(plain(nextReply()))
                                 .awaitClose(),
                             Script().expectRequest().send(plain(nextReply())).awaitClose()});
    CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
    EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
    EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
    EXPECT_EQ(network.connections(), 2u);
  }
}

TEST(ExchangeRegression, ACloseIsSeenBehindTheLastChunk) {
  // Nobody would ever learn that the document went nowhere.
  ScriptedNetwork network(
      {Script().expectRequest().send(kChunkedReply + chunk(kEmptySearch) + kLastChunk),
       Script().expectRequest().awaitClose()});
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
  EXPECT_EQ(runExchange(client, kAsynchAddDocument).errorId, "");
  ASSERT_EQ(network.connections(), 2u);
  EXPECT_EQ(network.connection(1).requests.size(), 1u);
}

TEST(ExchangeRegression, ALastChunkInSeveralPiecesDoesNotCostItsConnection) {
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(kChunkedReply + chunk(kEmptySearch))
                              .send(kLastChunk, 1)
                              .expectRequest()
                              .send(plain(nextReply()))
                              .awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
  EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
  EXPECT_EQ(network.connections(), 1u);
}

TEST(ExchangeRegression, ChunksWithoutEndBehindTheResultsCostTheirConnection) {
  std::string chunks;
  while (chunks.size() < std::size_t{3} << 20) chunks += chunk(std::string(1000, 'c'));
  ScriptedNetwork network(
      {Script().expectRequest().send(kChunkedReply + chunk(kEmptySearch) + chunks).awaitClose(),
       Script().expectRequest().send(plain(nextReply())).awaitClose()});
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  client.setNumRetries(0);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
  EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
  EXPECT_EQ(network.connections(), 2u);
}

TEST(ExchangeRegression, ParseResultsThatBreakOffAreNoAnswerToTheirRequest) {
  const Reply& reply = replyNamed("ParseResultWithThreeRows");
  const std::string one = reply.body.substr(0, reply.recordStarts[1]);
  ScriptedNetwork network(Script().expectRequest().send(kChunkedReply + chunk(one)));
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  EXPECT_EQ(runExchange(client, kParseResult).errorId, "");
  EXPECT_TRUE(client.isTruncated());
  EXPECT_EQ(client.getRequestOutcome(), tq::comm::RequestOutcome::MayBeApplied);
}

TEST(ExchangeRegression, ChunksWithoutEndInFrontOfTheReplyAreNotReadForEver) {
  std::string chunks;
  while (chunks.size() < std::size_t{3} << 20) chunks += chunk(std::string(1000, 'c'));
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(kChunkedReply + chunk(kEmptySearch))
                              .expectRequest()
                              .send(chunks)
                              .awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
  EXPECT_EQ(runExchange(client, nextReply().kind).errorId, "ERR_CLIENT_RESP_PARSING");
  EXPECT_FALSE(network.waitedForever());
}

TEST(ExchangeRegression, ATrailerBehindAReplyOfTheLastChunkAloneDoesNotCostItsConnection) {
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(kChunkedReply + "0\r\nX-Checksum: 1\r\n\r\n")
                              .expectRequest()
                              .send(plain(nextReply()))
                              .awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  EXPECT_EQ(runExchange(client, kCreateCollection).errorId, "");
  EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
  EXPECT_EQ(network.connections(), 1u);
}

// What an estimate leaves.

const std::string kEstimate = chunk(kUninterpreted + enveloped(record({{"any", "1"}})));

TEST(ExchangeRegression, AnEstimateInChunksThatNobodyPullsKeepsItsConnection) {
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send(kChunkedReply + kEstimate + kLastChunk)
                              .expectRequest()
                              .send(plain(nextReply()))
                              .awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  auto request = requestFor(kSelectivity);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  EXPECT_FALSE(client.isEndOfStream());
  EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
  EXPECT_EQ(network.connections(), 1u);
}

TEST(ExchangeRegression, AnEstimateWhosePullTimedOutCostsItsConnection) {
  // What was looked for comes in front of the next request.
  ScriptedNetwork network({Script()
                               .expectRequest()
                               .send(kChunkedReply + kEstimate)
                               .stall()
                               .send(kLastChunk)
                               .awaitClose(),
                           Script().expectRequest().send(plain(nextReply())).awaitClose()});
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
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

TEST(ExchangeRegression, AnEstimatesFurtherPortionsAreReadAsThoseOfASearch) {
  // The server never sends the last chunk: the zero length ends the stream.
  ScriptedNetwork network(
      Script().expectRequest().send(kChunkedReply + kEstimate + chunk(bigEndian(0))).awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  auto request = requestFor(kSelectivity);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  client.recv(response);
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_FALSE(client.isTruncated());
  EXPECT_FALSE(network.waitedForever());
}

TEST(ExchangeRegression, BytesBehindTheOneRecordOfAReplyDoNotMakeItTruncated) {
  for (const int kind : {kSelectivity, kGetStatus}) {
    Reply reply{"Behind", kind, 200};
    reply.body = kUninterpreted + enveloped(record({{"STATUS_CODE", "3"}})) + bigEndian(0);
    ScriptedNetwork network(Script().expectRequest().send(plain(reply)).awaitClose());
    CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
    const auto outcome = runExchange(client, kind);
    EXPECT_EQ(outcome.errorId, "") << kind;
    EXPECT_TRUE(outcome.endOfStream) << kind;
    EXPECT_FALSE(outcome.truncated) << kind;
  }
}

// A server that never stops.

TEST(ExchangeRegression, ADeadlineEndsAReplyWhoseBytesAreAlwaysThere) {
  // The clock moves a microsecond at each look, and no wait ever finds nothing.
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n")
                              .send(std::string(100000, 'b'), 1)
                              .awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  client.setNumRetries(0);
  client.setDeadline(1);
  EXPECT_EQ(runExchange(client, kCreateCollection).errorId, "ERR_SERVER_COMM_TIMEOUT");
  EXPECT_LT(network.receives(), 10000u);
}

/// The calls in force, but for a clock that moves on by a millisecond at each look.
class ClockThatMoves {
 public:
  ClockThatMoves() : calls_(tq::oss::systemCalls()) {
    looks() = 0;
    before() = tq::oss::replaceSystemCalls(&calls_);
    calls_.clock_gettime = [](clockid_t clock, timespec* now) {
      const int result = before()->clock_gettime(clock, now);
      const long nanos = now->tv_nsec + ++looks() * 1000000L;
      now->tv_sec += nanos / 1000000000L;
      now->tv_nsec = nanos % 1000000000L;
      return result;
    };
  }
  ~ClockThatMoves() { tq::oss::replaceSystemCalls(before()); }
  ClockThatMoves(const ClockThatMoves&) = delete;
  ClockThatMoves& operator=(const ClockThatMoves&) = delete;

 private:
  static long& looks() {
    static long count = 0;
    return count;
  }
  static const tq::oss::SystemCalls*& before() {
    static const tq::oss::SystemCalls* calls = nullptr;
    return calls;
  }
  tq::oss::SystemCalls calls_;
};

TEST(ExchangeRegression, ADeadlineThatPassesBetweenTwoLooksAtTheClockEndsTheWait) {
  // Whichever two looks of the exchange it falls between.
  for (unsigned int deadline = 1; deadline <= 40; ++deadline) {
    ScriptedNetwork network(Script().expectRequest().awaitClose());
    const ClockThatMoves clock;
    CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
    client.setNumRetries(0);
    client.setTimeOut(60000);
    client.setDeadline(deadline);
    EXPECT_EQ(runExchange(client, kGetStatus).errorId, "ERR_SERVER_COMM_TIMEOUT") << deadline;
    EXPECT_LE(network.elapsedMillis(), deadline);
  }
}

TEST(ExchangeRegression, BlocksThatAreNoReplyAreNotReadForEver) {
  std::string blocks;
  while (blocks.size() < std::size_t{3} << 20) blocks += "HTTP/1.1 100 Continue\r\n\r\n";
  for (const std::string& endless : {blocks, std::string(blocks.size(), '\n')}) {
    ScriptedNetwork network(Script().expectRequest().send(endless).awaitClose());
    CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
    EXPECT_EQ(runExchange(client, kGetStatus).errorId, "ERR_CLIENT_RESP_PARSING");
    EXPECT_FALSE(network.waitedForever());
  }
}

TEST(ExchangeRegression, ABlockThatIsNoReplyIsFollowedByOneThatIs) {
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send("HTTP/1.1 100 Continue\r\n\r\n\r\n" + plain(nextReply()))
                              .awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
}

// Sending.

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

TEST(ExchangeRegression, AMessageThatFoundNoMemoryIsNotSentWithTheNextOne) {
  ScriptedNetwork network(
      {Script().awaitClose(), Script().expectFramedRequest().send(word(5)).awaitClose()});
  DrestoPerfClient client(u"127.0.0.1", 7);
  {
    const WritesWithoutMemory scarce;
    auto search = requestFor(kStreamSearch);
    ClientResponse response;
    EXPECT_EQ(errorOf([&] { client.sendAndRecvMesg(search, response); }).errorId,
              "ERR_CLIENT_INTERNAL");
  }
  EXPECT_EQ(runExchange(client, kGetStatus).statusCode, 1u);
  ASSERT_EQ(network.connections(), 2u);
  ASSERT_EQ(network.connection(1).requests.size(), 1u);
  EXPECT_EQ(network.connection(1).received, network.connection(1).requests[0]);
  EXPECT_NE(network.connection(1).received.find("getStatus"), std::string::npos);
}

TEST(ExchangeRegression, AMessageThatWasHeldBackDoesNotLeaveItsReplyToAnExchange) {
  ScriptedNetwork network({Script()
                               .expectFramedRequest()
                               .send(word(1))
                               .expectFramedRequest()
                               .send(word(5))
                               .awaitClose(),
                           Script().expectFramedRequest().send(word(5)).awaitClose()});
  DrestoPerfClient client(u"127.0.0.1", 7);
  client.useBufferedConnection(true);
  client.open();
  auto create = requestFor(kCreateCollection);
  client.send(create);
  EXPECT_EQ(network.writes(), 0u);
  EXPECT_EQ(runExchange(client, kGetStatus).statusCode, 1u);
  EXPECT_EQ(network.connection(0).requests.size(), 1u);
  EXPECT_EQ(network.connections(), 2u);
}

// A stream and the connection it began on.

TEST(ExchangeRegression, AStreamIsNotReadOnOverAConnectionMadeSince) {
  ScriptedNetwork network({Script()
                               .expectRequest()
                               .send(kChunkedReply + chunk(kUninterpreted + hit("first")))
                               .awaitClose(),
                           Script().send(chunk(hit("stray"))).awaitClose()});
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  auto search = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(search, response);
  client.close();
  client.open();
  client.recv(response);
  EXPECT_TRUE(idsOf(response).empty());
  EXPECT_TRUE(client.isEndOfStream());
  EXPECT_TRUE(client.isTruncated());
}

TEST(ExchangeRegression, AStreamThatLostItsConnectionDoesNotSpoilTheOneMadeSince) {
  ScriptedNetwork network({Script()
                               .expectRequest()
                               .send(kChunkedReply + chunk(kUninterpreted + hit("first")))
                               .awaitClose(),
                           Script().expectRequest().send(plain(nextReply())).awaitClose()});
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
  auto search = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(search, response);
  client.close();
  client.open();
  client.recv(response);
  EXPECT_TRUE(client.isTruncated());
  EXPECT_EQ(runExchange(client, nextReply().kind), nextReply().expected);
  EXPECT_EQ(network.connections(), 2u);
}

TEST(ExchangeRegression, AStreamIsNotReadOnWhenTheExchangeAfterItCouldNotBeSent) {
  const std::string half = hit("first") + hit("second").substr(0, 6);
  ScriptedNetwork network(
      {Script().expectRequest().send(kChunkedReply + chunk(kUninterpreted + half)).awaitClose(),
       Script().send(chunk(hit("second").substr(6))).awaitClose()});
  CorvaneRESTClient client(u"127.0.0.1", 7, kPersistent);
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

TEST(ExchangeRegression, ABinaryStreamIsNotReadOnOverAConnectionMadeSince) {
  ScriptedNetwork network(
      {Script().expectFramedRequest().send(word(1) + envelope("first") + word(1)).awaitClose(),
       Script().send(word(2) + "xx").awaitClose()});
  DrestoPerfClient client(u"127.0.0.1", 7);
  client.setReassembly(true);
  auto search = requestFor(kStreamSearch);
  ClientResponse response;
  client.sendAndRecvMesg(search, response);
  client.close();
  client.open();
  EXPECT_EQ(errorOf([&] { client.recv(response); }).errorId, "ERR_SERVER_COMM_RECV");
  EXPECT_TRUE(idsOf(response).empty());
  EXPECT_TRUE(client.isTruncated());
}

TEST(ExchangeRegression, ABinaryRecordAboveTheLimitIsRefused) {
  const std::string reply = word(1) + envelope("12345") + word(1) + word(0);
  ScriptedNetwork network(
      Script().expectFramedRequest().send(reply).expectFramedRequest().send(reply).awaitClose());
  DrestoPerfClient client(u"127.0.0.1", 7);
  client.setMaxReplyBytes(5);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "");
  client.setMaxReplyBytes(4);
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "ERR_CLIENT_RESP_PARSING");
}

}  // namespace
