// What a host process asks of a client beyond exchanges: ending a wait, knowing the connection,
// keeping a queue on one connection, limits for one call.

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "comm/kruClientRequest.h"
#include "comm/kruDrestoPerfClient.h"
#include "tests/comm/binaryFixture.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/exchange.h"
#include "tests/support/protocolReplies.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/script.h"
#include "tests/support/scriptedNetwork.h"
#include "tests/support/waitingHost.h"

namespace {

using namespace tq::test;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::DrestoPerfClient;
using tq::comm::OperationLimits;
using tq::comm::RequestOutcome;

constexpr auto kCancelledId = "ERR_CLIENT_CANCELLED";
constexpr auto kSendId = "ERR_SERVER_COMM_SEND";
constexpr auto kTimeOutId = "ERR_SERVER_COMM_TIMEOUT";

class HostNeeds : public testing::TestWithParam<bool> {
 protected:
  static bool binary() { return GetParam(); }

  static Script& expect(Script& script) {
    return binary() ? script.expectFramedRequest() : script.expectRequest();
  }
  static std::string statusReply() { return binary() ? word16(5) : plain(replyNamed("GetStatus")); }
  /// A peer that answers this many status queries, then closes.
  static Script answers(std::size_t count) {
    Script script;
    for (std::size_t i = 0; i < count; ++i) expect(script).send(statusReply());
    return script;
  }
  /// A peer that takes this many requests without an answer, then closes.
  static Script takes(std::size_t count) {
    Script script;
    for (std::size_t i = 0; i < count; ++i) expect(script);
    return script;
  }
  static Script silent() {
    Script script;
    return expect(script).stall();
  }

  static std::unique_ptr<CorvaneRESTClient> makeClient() {
    auto client = binary() ? std::make_unique<DrestoPerfClient>(u"127.0.0.1", 7)
                           : std::make_unique<CorvaneRESTClient>(u"127.0.0.1", 7, true);
    client->setNumRetries(0);
    return client;
  }

  static Outcome failureOfExchange(CorvaneRESTClient& client, int kind) {
    auto request = requestFor(kind);
    ClientResponse response;
    return errorOf([&] { client.sendAndRecvMesg(request, response); });
  }
  static std::string errorOfExchange(CorvaneRESTClient& client, int kind) {
    return failureOfExchange(client, kind).errorId;
  }
};

TEST_P(HostNeeds, AWaitThatIsGivenUpEndsTheExchangeWhereverItIs) {
  std::size_t cancelled = 0;
  for (std::size_t giveUpAt = 1;; ++giveUpAt) {
    Script server = answers(1);
    ScriptedNetwork network(server.awaitClose(), ScriptedNetwork::Arrival::OnDemand);
    auto client = makeClient();
    client->setNumRetries(3);
    WaitingHost host{0, giveUpAt};
    client->setWaitHook(&WaitingHost::wait, &host);
    const std::string error = errorOfExchange(*client, kGetStatus);
    if (host.waits < giveUpAt) {
      EXPECT_EQ(error, "");
      break;
    }
    ++cancelled;
    EXPECT_EQ(error, kCancelledId) << giveUpAt;
    EXPECT_EQ(host.waits, giveUpAt) << "nothing is repeated";
    EXPECT_FALSE(client->isConnected());
    EXPECT_NE(client->getRequestOutcome(), RequestOutcome::Answered);
    client->setWaitHook(nullptr, nullptr);
    EXPECT_EQ(errorOfExchange(*client, kGetStatus), "") << "and the next one is answered";
    EXPECT_EQ(network.connections(), 2U);
  }
  EXPECT_GT(cancelled, 0U);
}

TEST_P(HostNeeds, AConnectCanBeGivenUp) {
  ScriptedNetwork network(silent());
  network.ignoreConnects();
  auto client = makeClient();
  WaitingHost host{0, 1};
  client->setWaitHook(&WaitingHost::wait, &host);
  EXPECT_EQ(errorOfExchange(*client, kGetStatus), kCancelledId);
  EXPECT_FALSE(client->isConnected());
}

TEST_P(HostNeeds, APauseBetweenAttemptsCanBeGivenUp) {
  ScriptedNetwork network(takes(1));
  auto client = makeClient();
  client->setNumRetries(1);
  client->setRetryPause(60000, 60000);
  WaitingHost host;
  client->setWaitHook(&WaitingHost::wait, &host);
  // The reply's end is there without a wait, so that the first wait is the pause.
  host.giveUpAt = 1;
  EXPECT_EQ(errorOfExchange(*client, kGetStatus), kCancelledId);
  EXPECT_EQ(network.connections(), 1U);
  EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::MayBeApplied);
}

TEST_P(HostNeeds, AHookHasAWaitWithoutAnyLimit) {
  ScriptedNetwork network(silent());
  auto client = makeClient();
  WaitingHost host{0, 1};
  client->setWaitHook(&WaitingHost::wait, &host);
  EXPECT_EQ(errorOfExchange(*client, kGetStatus), kCancelledId);
  EXPECT_FALSE(network.waitedForever());
}

TEST_P(HostNeeds, TheConnectionNumberChangesWithEveryConnectionAndOnlyThen) {
  ScriptedNetwork network(answers(3).awaitClose());
  auto client = makeClient();
  EXPECT_EQ(client->getConnectionNumber(), 0U);
  EXPECT_EQ(errorOfExchange(*client, kGetStatus), "");
  const auto first = client->getConnectionNumber();
  EXPECT_NE(first, 0U);
  EXPECT_EQ(errorOfExchange(*client, kGetStatus), "");
  EXPECT_EQ(client->getConnectionNumber(), first);
  client->close();
  EXPECT_EQ(client->getConnectionNumber(), first);
  client->open();
  EXPECT_NE(client->getConnectionNumber(), first);
}

TEST_P(HostNeeds, AQueueThatLosesItsConnectionFailsUntilItIsBegunAnew) {
  Script second = takes(9);
  ScriptedNetwork network({takes(1), second});
  auto client = makeClient();
  client->setNumRetries(3);
  client->setQueueOnOneConnection(true);
  EXPECT_EQ(errorOfExchange(*client, kAsynchAddDocument), "");
  for (const int kind : std::initializer_list<int>{kAsynchAddDocument, kAsynchAddDocument,
                                                   kLastDocSent, kUpdateIndex, kParseResult}) {
    const Outcome failure = failureOfExchange(*client, kind);
    EXPECT_EQ(failure.errorId, kSendId) << kind;
    EXPECT_EQ(failure.errorText,
              "the connection of the documents queued before is gone; queue them again");
    EXPECT_EQ(failure.errorArguments, (std::vector<std::string>{"127.0.0.1", "7"}));
    EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::NotSent) << kind;
  }
  EXPECT_EQ(network.connections(), 2U) << "nothing is repeated";
  EXPECT_EQ(network.connection(1).received, "");
  client->setQueueOnOneConnection(true);
  EXPECT_EQ(errorOfExchange(*client, kAsynchAddDocument), "");
}

TEST_P(HostNeeds, AQueueGoesOnOverAnotherConnectionUnlessThatIsForbidden) {
  ScriptedNetwork network({takes(1), takes(9)});
  auto client = makeClient();
  EXPECT_EQ(errorOfExchange(*client, kAsynchAddDocument), "");
  EXPECT_EQ(errorOfExchange(*client, kAsynchAddDocument), "");
  EXPECT_EQ(network.connections(), 2U);
}

TEST_P(HostNeeds, AnAnswerOnTheConnectionOfAQueueMeansThatTheServerHasIt) {
  Script first;
  expect(first);
  expect(first).send(statusReply());
  ScriptedNetwork network({first, takes(9)});
  auto client = makeClient();
  client->setQueueOnOneConnection(true);
  EXPECT_EQ(errorOfExchange(*client, kAsynchAddDocument), "");
  EXPECT_EQ(errorOfExchange(*client, kGetStatus), "");
  EXPECT_EQ(errorOfExchange(*client, kAsynchAddDocument), "") << "a queue of its own";
  EXPECT_EQ(network.connections(), 2U);
}

TEST(BatchedQueue, OfWhichNothingWasWrittenMayTakeAnyConnection) {
  ScriptedNetwork network({Script(), Script().expectFramedRequest().expectFramedRequest()});
  DrestoPerfClient client(u"127.0.0.1", 7);
  client.setNumRetries(0);
  client.useBufferedConnection(true);
  client.setQueueOnOneConnection(true);
  const auto add = [&](int kind) {
    auto request = requestFor(kind);
    ClientResponse response;
    return errorOf([&] { client.sendAndRecvMesg(request, response); }).errorId;
  };
  EXPECT_EQ(add(kAsynchAddDocument), "");
  EXPECT_EQ(network.writes(), 0U);
  EXPECT_EQ(add(kLastDocSent), "") << "what is held back is not lost with a connection";
  EXPECT_EQ(network.connections(), 2U);
  EXPECT_EQ(network.writes(), 1U);
}

TEST(BatchedQueue, LosesNothingOfWhatIsHeldInFrontOfALargeBody) {
  ScriptedNetwork network(Script().awaitClose());
  DrestoPerfClient client(u"127.0.0.1", 7);
  client.useBufferedConnection(true);
  client.setQueueOnOneConnection(true);
  std::string all;
  const auto queue = [&](std::size_t size) {
    Document document(kAsynchAddDocument, size);
    ClientResponse response;
    client.sendAndRecvMesg(document.request, response);
    all += Framed(document.request).whole();
  };
  queue(10);
  queue(20);
  EXPECT_EQ(network.writes(), 0U);
  network.failNextWrite(ECONNRESET, 2);
  queue(30000);
  ASSERT_EQ(network.connections(), 2U);
  EXPECT_EQ(network.connection(1).received, all) << "or the caller is told";
}

TEST_P(HostNeeds, LimitsOfOneCallHoldForItAlone) {
  ScriptedNetwork network(silent());
  auto client = makeClient();
  client->setDeadline(90000);
  auto request = requestFor(kGetStatus);
  ClientResponse response;
  EXPECT_EQ(errorOf([&] {
              client->sendAndRecvMesg(request, response, OperationLimits{20, 5});
            }).errorId,
            kTimeOutId);
  EXPECT_EQ(network.elapsedMillis(), 20U);
  const auto before = network.elapsedMillis();
  EXPECT_EQ(errorOfExchange(*client, kGetStatus), kTimeOutId);
  EXPECT_EQ(network.elapsedMillis() - before, 90000U);
}

TEST_P(HostNeeds, LimitsOfOneCallDoNotHoldForWhatIsPulledLater) {
  const Replies replies(binary());
  Script script;
  replies.sendHits(replies.expect(script), {"k1"}, false).stall();
  ScriptedNetwork network(script, ScriptedNetwork::Arrival::OnDemand);
  auto client = makeClient();
  client->setDeadline(20);
  auto request = requestFor(kStreamSearch);
  ClientResponse response;
  client->sendAndRecvMesg(request, response, OperationLimits{90000, 5});
  EXPECT_EQ(errorOf([&] { client->recv(response); }).errorId, kTimeOutId);
  EXPECT_EQ(network.elapsedMillis(), 20U);
  EXPECT_EQ(network.connections(), 1U);
}

TEST_P(HostNeeds, RetriesOfOneCallHoldForItAlone) {
  ScriptedNetwork network(takes(1));
  auto client = makeClient();
  auto request = requestFor(kGetStatus);
  ClientResponse response;
  errorOf([&] { client->sendAndRecvMesg(request, response, OperationLimits{0, 3}); });
  EXPECT_EQ(network.connections(), 4U);
  errorOfExchange(*client, kGetStatus);
  EXPECT_EQ(network.connections(), 5U);
}

INSTANTIATE_TEST_SUITE_P(Over, HostNeeds, testing::Bool(), [](const auto& over) {
  return std::string(over.param ? "Binary" : "Http");
});

}  // namespace
