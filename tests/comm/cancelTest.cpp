// Twelve thousand waits are given up: at every wait of every kind of request, in the middle of
// connecting, writing, reading, pulling and pausing, on a fresh and on a kept connection. Nothing
// is left of any of them, and the request after it gets its own answer.

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "comm/kruDrestoPerfClient.h"
#include "tests/comm/faultExchange.h"
#include "tests/comm/faultNetwork.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/countedMemory.h"
#include "tests/support/exchange.h"
#include "tests/support/scriptedServer.h"
#include "tests/support/waitingHost.h"

namespace {

using namespace tq::test;
using tq::comm::CorvaneRESTClient;

constexpr auto kCancelledId = "ERR_CLIENT_CANCELLED";
constexpr std::size_t kCancelsOfEachProtocol = 4000;

/// What is cancelled: requests one after the other, until one fails.
struct Work {
  std::string name;
  std::vector<MarkedRequest> requests;
  bool batched = false;
  bool pauses = false;  // nobody is there, and it is tried again
};

std::vector<Work> worksOf(Protocol protocol) {
  std::vector<Work> all;
  for (int kind = 1; kind <= 24; ++kind) {
    if (kind != 6) all.push_back({std::string("kind ").append(std::to_string(kind)), {{kind}}});
  }
  all.push_back({"a refusal", {{kStreamSearch, 1, true}}});
  all.push_back({"a large document", {{kAddDocument, 1, false, 25000}}});
  all.push_back(
      {"a queue", {{kAsynchAddDocument}, {kAsynchAddDocument}, {kLastDocSent}, {kParseResult}}});
  all.push_back({"pauses", {{kGetStatus}}, false, true});
  if (protocol == Protocol::Http) return all;
  Work batch{"a batch", std::vector<MarkedRequest>(12, {kAsynchAddDocument, 1, false, 2000}), true};
  batch.requests.push_back({kStreamSearch});
  all.push_back(batch);
  return all;
}

FaultNetwork::Options optionsOf(Protocol protocol, bool nobodyThere) {
  FaultNetwork::Options options;
  options.framed = protocol != Protocol::Http;
  if (nobodyThere) options.connectError = ECONNREFUSED;
  return options;
}

class Cancels : public testing::TestWithParam<Protocol> {
 protected:
  /// Gives the work up at that wait, with the connection kept from an exchange before or without;
  /// false when the work has no such wait.
  bool cancelAt(const Work& work, std::size_t wait, bool kept) {
    FaultNetwork network(optionsOf(GetParam(), work.pauses), answererOf(GetParam()));
    auto client = clientOf(GetParam());
    client->setNumRetries(3);
    client->setRetryPause(100, 1000);
    WaitingHost host;
    client->setWaitHook(&WaitingHost::wait, &host);
    if (kept && !work.pauses) expectItsOwnAnswer(*client, network);
    client->useBufferedConnection(work.batched);
    host = WaitingHost{0, wait};
    const Ran ran = run(*client, work);
    if (host.waits < wait) return false;
    EXPECT_EQ(ran.errorId, kCancelledId);
    EXPECT_EQ(host.waits, wait) << "nothing is repeated, and nothing waited for any more";
    EXPECT_FALSE(client->isConnected());
    EXPECT_EQ(network.openDescriptors(), 0U);
    host = WaitingHost();
    network.options().connectError = 0;
    expectItsOwnAnswer(*client, network);
    expectItsOwnAnswer(*client, network);
    client.reset();
    EXPECT_EQ(network.openDescriptors(), 0U);
    EXPECT_EQ(network.misusedDescriptors(), 0U);
    EXPECT_FALSE(network.waitedForever());
    return true;
  }

 private:
  Ran run(CorvaneRESTClient& client, const Work& work) {
    Ran ran;
    for (MarkedRequest request : work.requests) {
      request.mark = ++mark_;
      ran = runMarked(client, request);
      if (ran.errorId == kCancelledId) break;
    }
    return ran;
  }

  void expectItsOwnAnswer(CorvaneRESTClient& client, const FaultNetwork& network) {
    const MarkedRequest next{kStreamSearch, ++mark_};
    const Ran ran = runMarked(client, next);
    EXPECT_EQ(ran.errorId, "");
    EXPECT_EQ(ran.results, resultsOf(GetParam(), next));
    EXPECT_FALSE(ran.truncated);
    EXPECT_EQ(timesSeen(network.journal(), next.mark), 1U);
  }

  unsigned int mark_ = 1000;
};

TEST_P(Cancels, AtEveryWaitOfEveryKindLeaveNothing) {
  const auto works = worksOf(GetParam());
  std::size_t cancels = 0;
  for (std::size_t round = 0; cancels < kCancelsOfEachProtocol; ++round) {
    const std::size_t before = cancels;
    for (const Work& work : works) {
      for (std::size_t wait = 1;; ++wait) {
        SCOPED_TRACE(testing::Message() << work.name << ", wait " << wait);
        const long live = liveBlocks();
        const bool cancelled = cancelAt(work, wait, round % 2 != 0);
        EXPECT_TRUE(liveBlocks() == live || round < 2) << "leaked";
        ASSERT_FALSE(HasFailure());
        if (!cancelled) break;
        ++cancels;
      }
    }
    ASSERT_GT(cancels, before + works.size()) << "every work waits";
  }
  RecordProperty("cancels", static_cast<int>(cancels));
}

INSTANTIATE_TEST_SUITE_P(Over, Cancels,
                         testing::Values(Protocol::Http, Protocol::Binary,
                                         Protocol::BinaryReassembled),
                         [](const auto& test) { return nameOf(test.param); });

// The same over real sockets, where a wait for a reply and one for a further portion can be had at
// will, and one client lives through all of them.

std::string keyOf(std::size_t number) { return std::string("k").append(std::to_string(number)); }

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

class RealCancels : public testing::TestWithParam<bool> {
 protected:
  static constexpr std::size_t kRounds = 300;

  static bool binary() { return GetParam(); }

  static Script& expect(Script& script) {
    return binary() ? script.expectFramedRequest() : script.expectRequest();
  }

  static std::string hit(std::size_t number) {
    const std::string key = keyOf(number);
    return binary() ? scoredHit(500, key) : enveloped(hitRecord(idOfKey(key), "0.5"));
  }

  static std::string search(const std::string& hits) {
    if (binary()) return word16(1) + hits + endOfResults();
    Reply reply{"", kStreamSearch};
    reply.body = std::string(4, '\0') + hits + bigEndian(0);
    return plain(reply);
  }

  /// Of two hits, in a portion each, up to the second one.
  static std::string firstPortion() {
    if (binary()) return word16(1) + hit(0);
    Reply reply{"", kStreamSearch};
    reply.body = std::string(4, '\0') + hit(0);
    const std::size_t first = reply.body.size();
    reply.body += hit(0) + bigEndian(0);
    const auto whole = chunkedAt(reply, {first, reply.body.size()}, true);
    return whole.text.substr(0, whole.chunks.at(1).dataBegin);
  }

  /// One that answers nothing, one that breaks off after a hit, one that answers.
  static void addPeers(std::vector<Script>& scripts, std::size_t round) {
    Script silent;
    scripts.push_back(expect(silent).stall());
    Script half;
    scripts.push_back(expect(half).send(firstPortion()).stall());
    Script good;
    scripts.push_back(expect(good).send(search(hit(round))));
  }

  static Outcome search(CorvaneRESTClient& client) { return runExchange(client, kStreamSearch); }

  static void cancelTheWaitForAReply(CorvaneRESTClient& client, WaitingHost& host) {
    // A wait for the connection, if there is one, is over then.
    host = WaitingHost();
    client.open();
    host = WaitingHost{0, 1};
    EXPECT_EQ(search(client).errorId, kCancelledId);
    EXPECT_FALSE(client.isConnected());
  }

  static void cancelTheWaitForAFurtherPortion(CorvaneRESTClient& client, WaitingHost& host) {
    host = WaitingHost();
    auto request = requestFor(kStreamSearch);
    tq::comm::ClientResponse response;
    client.sendAndRecvMesg(request, response);
    Outcome seen;
    takeHits(response.getSearchResponse(), seen);
    EXPECT_EQ(seen.hits.size(), 1U);
    host = WaitingHost{0, 1};
    EXPECT_EQ(errorOf([&] { client.recv(response); }).errorId, kCancelledId);
    EXPECT_FALSE(client.isConnected());
  }

  static void runRounds(CorvaneRESTClient& client, WaitingHost& host, std::size_t rounds,
                        std::size_t first) {
    for (std::size_t round = first; round < first + rounds; ++round) {
      SCOPED_TRACE(round);
      cancelTheWaitForAReply(client, host);
      cancelTheWaitForAFurtherPortion(client, host);
      host = WaitingHost();
      const Outcome seen = search(client);
      EXPECT_EQ(seen.errorId, "");
      ASSERT_EQ(seen.hits.size(), 1U);
      EXPECT_EQ(seen.hits.front().id, idOfKey(keyOf(round)));
      client.close();
    }
  }
};

TEST_P(RealCancels, LeaveNoDescriptorAndNoMemory) {
  const std::size_t descriptors = openDescriptors();
  {
    std::vector<Script> scripts;
    for (std::size_t round = 0; round < kRounds; ++round) addPeers(scripts, round);
    ScriptedServer server(scripts);
    auto client =
        clientOf(binary() ? Protocol::BinaryReassembled : Protocol::Http, true, server.port());
    client->setNumRetries(3);
    WaitingHost host;
    client->setWaitHook(&WaitingHost::wait, &host);
    runRounds(*client, host, 20, 0);
    const long live = liveBlocks();
    runRounds(*client, host, kRounds - 20, 20);
    EXPECT_EQ(liveBlocks(), live);
    EXPECT_EQ(server.connections(), 3 * kRounds);
  }
  EXPECT_EQ(openDescriptors(), descriptors);
}

INSTANTIATE_TEST_SUITE_P(Over, RealCancels, testing::Bool(), [](const auto& over) {
  return std::string(over.param ? "Binary" : "Http");
});

}  // namespace
