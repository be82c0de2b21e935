// One deadline for everything: whatever the peer does or leaves undone, in whatever phase, an
// operation ends in time and says that the time was over.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruRESTException.h"
#include "infra/oss/kruClock.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"
#include "tests/comm/faultExchange.h"
#include "tests/comm/faultNetwork.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/chunks.h"
#include "tests/support/exchange.h"
#include "tests/support/protocolReplies.h"
#include "tests/support/raised.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/scriptedNetwork.h"
#include "tests/support/scriptedServer.h"
#include "tests/support/waitingHost.h"

namespace {

using namespace tq::test;
using tq::comm::RequestOutcome;

constexpr std::uint64_t kMilli = 1000000;
// Rounding to the milliseconds that poll knows, and what looking at the clock takes.
constexpr std::uint64_t kTolerance = 5;

constexpr auto kOnDemand = ScriptedNetwork::Arrival::OnDemand;
const std::vector<std::string> kHostAndPort{"127.0.0.1", "7"};

FaultNetwork::Options optionsOf(Protocol protocol) {
  FaultNetwork::Options options;
  options.framed = protocol != Protocol::Http;
  return options;
}

class Deadline : public testing::TestWithParam<Protocol> {
 protected:
  FaultNetwork::Options options() const { return optionsOf(GetParam()); }
  Answerer answerer() const { return answererOf(GetParam()); }

  /// A peer that sends a byte a second.
  FaultNetwork::Options dripping() const {
    auto network = options();
    network.dripMillis = 1000;
    return network;
  }

  /// Without reassembly the first portion of a stream that drips would be a single byte.
  std::unique_ptr<tq::comm::CorvaneRESTClient> reassemblingClient() const {
    auto client = clientOf(GetParam());
    auto* binary = dynamic_cast<tq::comm::DrestoPerfClient*>(client.get());
    if (binary != nullptr) binary->setReassembly(true);
    return client;
  }

  void expectInTime(const Ran& ran, std::uint64_t deadline) const {
    EXPECT_EQ(ran.errorId, "ERR_SERVER_COMM_TIMEOUT") << ran;
    EXPECT_EQ(ran.errorArguments, kHostAndPort);
    EXPECT_GE(ran.longestMillis + 1, deadline);
    EXPECT_LE(ran.longestMillis, deadline + kTolerance);
  }

  /// An exchange with these settings of the network ends with its deadline.
  void expectTimeout(const FaultNetwork::Options& options, const MarkedRequest& marked,
                     unsigned int retries = 1) const {
    for (const unsigned int deadline : {1U, 50U, 2500U}) {
      SCOPED_TRACE(deadline);
      FaultNetwork network(options, answerer());
      auto client = clientOf(GetParam());
      client->setDeadline(deadline);
      client->setNumRetries(retries);
      expectInTime(runMarked(*client, marked), deadline);
      EXPECT_FALSE(network.waitedForever());
    }
  }
};

TEST_P(Deadline, HoldsAgainstAPeerThatSendsAByteASecond) {
  for (const int kind : {kCreateCollection, kUpdateIndex, kStreamSearch, kParseResult, kSelectivity,
                         kGetStatus, kScalarSearch, kGetServerVersion}) {
    SCOPED_TRACE(kind);
    // A reply of two bytes is whole after two of them.
    if (GetParam() != Protocol::Http && (kind == 1 || kind == 4)) continue;
    expectTimeout(dripping(), {kind});
  }
}

TEST_P(Deadline, HoldsAgainstAPeerThatSendsAByteASecondHoweverOftenItIsRetried) {
  expectTimeout(dripping(), {kGetStatus}, 1000);
}

TEST_P(Deadline, HoldsAgainstAPeerThatTakesNoMoreBytes) {
  for (const std::size_t window :
       {std::size_t{0}, std::size_t{1}, std::size_t{100}, std::size_t{5000}, std::size_t{20000}}) {
    SCOPED_TRACE(window);
    auto network = options();
    network.window = window;
    expectTimeout(network, {kAddDocument, 1, false, 50000});
  }
}

TEST_P(Deadline, HoldsWhileAPeerTakesByteAfterByteAndNoWriteHasToWait) {
  auto network = options();
  network.writesWait = false;
  network.writeMillis = 2;
  for (const std::size_t limit : {std::size_t{1}, std::size_t{100}, std::size_t{10000}}) {
    SCOPED_TRACE(limit);
    network.maxWrite = limit;
    expectTimeout(network, {kAddDocument, 1, false, 30000000});
  }
}

TEST_P(Deadline, IsLookedAtBetweenTheWritesOfAHugeBody) {
  auto network = options();
  network.writesWait = false;
  network.writeMillis = 4;
  FaultNetwork faulty(network, answerer());
  auto client = clientOf(GetParam());
  client->setDeadline(20);
  expectInTime(runMarked(*client, {kAddDocument, 1, false, 64000000}), 20);
  EXPECT_EQ(timesSeen(faulty.journal(), 1), 0U);
}

TEST_P(Deadline, HoldsAgainstAPeerThatNeverAccepts) {
  auto network = options();
  network.neverAccepts = true;
  expectTimeout(network, {kGetStatus});
  expectTimeout(network, {kGetStatus}, 100);
}

TEST_P(Deadline, BoundsASingleAttemptThatTheCallerAsksFor) {
  auto network = options();
  network.silent = true;
  FaultNetwork faulty(network, answerer());
  auto client = clientOf(GetParam());
  client->setDeadline(300);
  BuiltRequest built({kGetStatus});
  tq::comm::ClientResponse response;
  const auto begin = faulty.nowNanos();
  EXPECT_THROW(client->sendAndRecvMesgOnce(built.request, response), tq::comm::RESTException);
  EXPECT_LE((faulty.nowNanos() - begin) / kMilli, 300 + kTolerance);
  EXPECT_FALSE(faulty.waitedForever());
}

TEST_P(Deadline, BoundsAConnectThatTheCallerAsksFor) {
  auto network = options();
  network.neverAccepts = true;
  FaultNetwork faulty(network, answerer());
  auto client = clientOf(GetParam());
  client->setDeadline(300);
  const auto begin = faulty.nowNanos();
  try {
    client->open();
    FAIL() << "nobody accepts";
  } catch (const tq::comm::RESTException& error) {
    EXPECT_EQ(error.getMessageList().front().getMessageId(), u"ERR_SERVER_COMM_TIMEOUT");
  }
  EXPECT_LE((faulty.nowNanos() - begin) / kMilli, 300 + kTolerance);
  EXPECT_FALSE(faulty.waitedForever());
  EXPECT_FALSE(client->isConnected());
}

TEST_P(Deadline, HoldsForAllAddressesOfAHostTogether) {
  auto network = options();
  network.neverAccepts = true;
  network.addresses = {"127.0.0.1", "127.0.0.2", "::1", "127.0.0.3", "127.0.0.4"};
  expectTimeout(network, {kGetStatus});
}

TEST_P(Deadline, GivesEachAddressOfAHostItsShare) {
  auto network = options();
  network.neverAccepts = true;
  network.addresses = {"127.0.0.1", "127.0.0.2", "127.0.0.3", "127.0.0.4"};
  FaultNetwork faulty(network, answerer());
  auto client = clientOf(GetParam());
  client->setDeadline(4000);
  client->setNumRetries(0);
  runMarked(*client, {kGetStatus});
  ASSERT_EQ(faulty.connectTimes().size(), 4U);
  for (std::size_t i = 1; i < 4; ++i) {
    const auto waited = (faulty.connectTimes()[i] - faulty.connectTimes()[i - 1]) / kMilli;
    EXPECT_GE(waited, 1000 - kTolerance);
    EXPECT_LE(waited, 1000 + kTolerance);
  }
}

TEST_P(Deadline, HoldsAgainstAPeerThatNeverAnswers) {
  auto network = options();
  network.silent = true;
  expectTimeout(network, {kGetStatus});
  expectTimeout(network, {kStreamSearch}, 50);
}

TEST_P(Deadline, OutlastsShorterTimeOutsOfTheAttempts) {
  auto network = options();
  network.silent = true;
  FaultNetwork faulty(network, answerer());
  auto client = clientOf(GetParam());
  client->setDeadline(1050);
  client->setTimeOut(100);
  client->setNumRetries(1000);
  expectInTime(runMarked(*client, {kGetStatus}), 1050);
  EXPECT_EQ(timesSeen(faulty.journal(), 1), 11U);
}

TEST_P(Deadline, LeavesAShorterTimeOutAlone) {
  auto network = options();
  network.silent = true;
  FaultNetwork faulty(network, answerer());
  auto client = clientOf(GetParam());
  client->setDeadline(5000);
  client->setTimeOut(100);
  client->setNumRetries(0);
  expectInTime(runMarked(*client, {kGetStatus}), 100);
}

TEST_P(Deadline, IsNotMissedWhereverItPassesBetweenTwoLooksAtTheClock) {
  auto network = options();
  network.silent = true;
  constexpr unsigned int kDeadline = 1000;
  bool behindTheLast = false;
  for (std::size_t nth = 1; !behindTheLast; ++nth) {
    SCOPED_TRACE(nth);
    FaultNetwork faulty(network, answerer());
    faulty.plan(Entry::Clock, nth, {Fault::Kind::Delay, kDeadline});
    auto client = clientOf(GetParam());
    client->setDeadline(kDeadline);
    client->setTimeOut(60000);
    client->setNumRetries(0);
    const auto ran = runMarked(*client, {kGetStatus});
    EXPECT_EQ(ran.errorId, "ERR_SERVER_COMM_TIMEOUT");
    // The delay may come when the wait is over, and in front of the operation.
    EXPECT_LE(ran.longestMillis, 2 * kDeadline + kTolerance);
    behindTheLast = !faulty.planIsOver();
    ASSERT_LT(nth, 100U);
  }
}

TEST_P(Deadline, EndsTheAttemptsOnAHostThatRefuses) {
  auto network = options();
  network.connectError = ECONNREFUSED;
  FaultNetwork faulty(network, answerer());
  auto client = clientOf(GetParam());
  client->setDeadline(1000);
  client->setRetryPause(30, 30);
  client->setNumRetries(1000000);
  const auto ran = runMarked(*client, {kGetStatus});
  expectInTime(ran, 1000);
  EXPECT_EQ(ran.outcome, RequestOutcome::NotSent);
}

TEST_P(Deadline, CutsAPauseBetweenAttemptsShort) {
  auto network = options();
  network.connectError = ECONNREFUSED;
  FaultNetwork faulty(network, answerer());
  auto client = clientOf(GetParam());
  client->setDeadline(300);
  client->setRetryPause(3600000, 3600000);
  client->setNumRetries(3);
  expectInTime(runMarked(*client, {kGetStatus}), 300);
  EXPECT_EQ(faulty.connectTimes().size(), 1U);
}

TEST_P(Deadline, CannotInterruptALookUpOfTheNameButEndsRightBehindIt) {
  auto network = options();
  network.resolveMillis = 700;
  FaultNetwork faulty(network, answerer());
  auto client = clientOf(GetParam());
  client->setDeadline(500);
  client->setNumRetries(5);
  expectInTime(runMarked(*client, {kGetStatus}), 700);
  EXPECT_EQ(faulty.count(Entry::Getaddrinfo), 1U);
}

TEST_P(Deadline, MeetsNoLookUpWhereTheAddressesAreKnown) {
  tq::oss::Socket::_AddrInfoExternal addresses;
  ASSERT_TRUE(addresses.add(u"127.0.0.1", 0));
  auto network = options();
  network.resolveMillis = 700;
  FaultNetwork faulty(network, answerer());
  std::unique_ptr<tq::comm::CorvaneRESTClient> client;
  if (GetParam() == Protocol::Http) {
    client = std::make_unique<tq::comm::CorvaneRESTClient>(u"somewhere", 7, addresses, true);
  } else {
    client = std::make_unique<tq::comm::DrestoPerfClient>(u"somewhere", 7, addresses);
  }
  client->setDeadline(500);
  const MarkedRequest marked{kGetStatus};
  EXPECT_EQ(runMarked(*client, marked).results, resultsOf(GetParam(), marked));
  EXPECT_EQ(faulty.count(Entry::Getaddrinfo), 0U);
}

TEST_P(Deadline, OfNoneLetsAnOperationTakeAsLongAsItNeeds) {
  auto network = options();
  network.dripMillis = 60000;
  FaultNetwork faulty(network, answerer());
  auto client = clientOf(GetParam());
  client->setDeadline(1);
  client->setDeadline(0);
  client->setNumRetries(0);
  const MarkedRequest marked{kGetStatus};
  const auto ran = runMarked(*client, marked);
  EXPECT_EQ(ran.errorId, "");
  EXPECT_EQ(ran.results, resultsOf(GetParam(), marked));
  EXPECT_GE(ran.longestMillis, 600000U);
}

TEST_P(Deadline, DoesNotChangeAnOperationThatIsQuickEnough) {
  FaultNetwork faulty(options(), answerer());
  auto client = clientOf(GetParam());
  client->setDeadline(1000);
  for (int kind = 1; kind <= 24; ++kind) {
    if (kind == 6) continue;
    const MarkedRequest marked{kind, static_cast<unsigned int>(kind)};
    const auto ran = runMarked(*client, marked);
    EXPECT_EQ(ran.errorId, "") << kind;
    EXPECT_EQ(ran.results, resultsOf(GetParam(), marked)) << kind;
  }
}

TEST_P(Deadline, BeginsAnewWithEachOperation) {
  auto network = options();
  network.resolveMillis = 400;
  FaultNetwork faulty(network, answerer());
  auto client = clientOf(GetParam());
  client->usePeristentConnection(false);
  client->setDeadline(500);
  for (unsigned int mark = 1; mark <= 10; ++mark) {
    const MarkedRequest marked{kGetStatus, mark};
    EXPECT_EQ(runMarked(*client, marked).results, resultsOf(GetParam(), marked));
  }
}

TEST_P(Deadline, EndsWithItsOperation) {
  auto network = options();
  network.resolveMillis = 400;
  FaultNetwork faulty(network, answerer());
  auto client = clientOf(GetParam());
  client->usePeristentConnection(false);
  for (unsigned int mark = 1; mark <= 3; ++mark) {
    client->setDeadline(mark == 1 ? 500 : 0);
    const MarkedRequest marked{kGetStatus, mark};
    EXPECT_EQ(runMarked(*client, marked).results, resultsOf(GetParam(), marked)) << mark;
  }
}

TEST_P(Deadline, BoundsEachPullOfAStreamAndLosesNoHit) {
  for (const int kind : {kStreamSearch, kScalarSearch}) {
    SCOPED_TRACE(kind);
    FaultNetwork faulty(dripping(), answerer());
    const auto client = reassemblingClient();
    const MarkedRequest marked{kind, 42};
    BuiltRequest built(marked);
    tq::comm::ClientResponse response;
    client->sendAndRecvMesg(built.request, response);
    client->setDeadline(500);
    std::vector<std::string> hits;
    std::size_t timeouts = 0;
    const auto take = [&] {
      auto& list = response.getSearchResponse();
      while (list.hasMore()) {
        std::string id;
        list.getNext().getDocId().toUTF8String(id);
        hits.push_back(id);
      }
    };
    if (kind == kStreamSearch) take();
    for (int pull = 0; pull < 1000 && !client->isEndOfStream(); ++pull) {
      const auto begin = faulty.nowNanos();
      try {
        client->recv(response);
      } catch (const tq::comm::RESTException&) {
        ++timeouts;
        const auto elapsed = (faulty.nowNanos() - begin) / kMilli;
        EXPECT_GE(elapsed + 1, 500U);
        EXPECT_LE(elapsed, 500 + kTolerance);
      }
      if (kind == kStreamSearch) take();
    }
    if (kind == kScalarSearch) take();
    EXPECT_EQ(hits, resultsOf(GetParam(), marked));
    EXPECT_FALSE(client->isTruncated());
    EXPECT_GT(timeouts, 3U);
  }
}

TEST_P(Deadline, BoundsAllPortionsThatALoopingPullTakesAndLosesNoHit) {
  for (const int kind : {kStreamSearch, kScalarSearch, kParseResult}) {
    // Over HTTP the exchange reads parse results to their end.
    if (kind == kParseResult && GetParam() == Protocol::Http) continue;
    SCOPED_TRACE(kind);
    FaultNetwork faulty(dripping(), answerer());
    const auto client = reassemblingClient();
    const MarkedRequest marked{kind, 42};
    BuiltRequest built(marked);
    tq::comm::ClientResponse response;
    client->sendAndRecvMesg(built.request, response);
    client->setDeadline(2500);
    std::vector<icu::UnicodeString> results;
    std::size_t timeouts = 0;
    const auto take = [&] {
      auto& hits = response.getSearchResponse();
      while (hits.hasMore()) results.push_back(hits.getNext().getDocId());
      auto& rows = response.getParseResponse();
      while (rows.hasMore()) results.push_back(rows.getNext().getDocument());
    };
    take();
    for (int pull = 0; pull < 1000 && !client->isEndOfStream(); ++pull) {
      const auto begin = faulty.nowNanos();
      try {
        if (kind == kParseResult) {
          response.getParseResponse(*client);
        } else {
          response.getSearchResponse(*client, true);
        }
      } catch (const tq::comm::RESTException& error) {
        EXPECT_EQ(error.getMessageList().front().getMessageId(), u"ERR_SERVER_COMM_TIMEOUT");
        ++timeouts;
      }
      EXPECT_LE((faulty.nowNanos() - begin) / kMilli, 2500 + kTolerance);
      take();
    }
    std::vector<icu::UnicodeString> expected;
    for (const auto& result : resultsOf(GetParam(), marked)) {
      expected.push_back(icu::UnicodeString::fromUTF8(result));
    }
    EXPECT_EQ(results, expected);
    EXPECT_FALSE(client->isTruncated());
    EXPECT_GT(timeouts, 3U);
  }
}

TEST(DeadlineOverHttp, BoundsAllPortionsThatOneCallPullsTogether) {
  auto network = optionsOf(Protocol::Http);
  network.dripMillis = 1000;
  FaultNetwork faulty(network, answererOf(Protocol::Http));
  auto client = clientOf(Protocol::Http);
  const MarkedRequest marked{kScalarSearch, 42};
  BuiltRequest built(marked);
  tq::comm::ClientResponse response;
  client->sendAndRecvMesg(built.request, response);
  ASSERT_FALSE(client->isEndOfStream());
  // Long enough for each portion by itself, and not for all that are left.
  constexpr unsigned int kDeadline = 95000;
  client->setDeadline(kDeadline);
  std::size_t timeouts = 0;
  while (!client->isEndOfStream()) {
    const auto begin = faulty.nowNanos();
    const auto held = response.getSearchResponse().count();
    try {
      client->recvMultResponse(response);
    } catch (const tq::comm::RESTException&) {
      ASSERT_LT(++timeouts, 1000U);
      const auto elapsed = (faulty.nowNanos() - begin) / kMilli;
      EXPECT_GE(elapsed + 1, kDeadline);
      EXPECT_LE(elapsed, kDeadline + kTolerance);
      EXPECT_GE(response.getSearchResponse().count(), held + 1);
    }
  }
  EXPECT_GT(timeouts, 0U);
  EXPECT_EQ(response.getSearchResponse().count(), resultsOf(Protocol::Http, marked).size());
  EXPECT_FALSE(client->isTruncated());
}

// A time-out instead of a deadline.

class TimeOut : public testing::TestWithParam<Protocol> {
 protected:
  /// A reply that stops behind these bytes.
  struct Wait {
    std::string what;
    int kind;
    std::string arrived;
    const Reply* whole = nullptr;  // where they may be all that is waited for
  };

  static constexpr unsigned int kMillis = 300;

  static bool binary() { return GetParam() != Protocol::Http; }

  static std::vector<Wait> waitsOverHttp();
  static std::vector<Wait> waitsOverBinary();

  static Script stallingBehind(const std::string& arrived) {
    Script script;
    return Replies(binary()).expect(script).send(arrived).stall();
  }

  static std::unique_ptr<tq::comm::CorvaneRESTClient> impatientClient(bool persistent = true) {
    auto client = clientOf(GetParam(), persistent);
    client->setTimeOut(kMillis);
    return client;
  }

  static void expectExchangeInTime(const Wait& wait, unsigned int retries) {
    SCOPED_TRACE(testing::Message() << retries << " retries");
    ScriptedNetwork network(stallingBehind(wait.arrived).awaitClose(), kOnDemand);
    const auto client = impatientClient();
    client->setNumRetries(retries);
    const Raised raised = raisedBy([&] {
      auto request = requestFor(wait.kind);
      tq::comm::ClientResponse response;
      client->sendAndRecvMesg(request, response);
    });
    ASSERT_FALSE(network.waitedForever());
    if (network.elapsedMillis() == 0) {
      EXPECT_NE(wait.whole, nullptr);
      EXPECT_EQ(network.requests(), 1U);
      return;
    }
    ASSERT_EQ(raised.size(), 1U);
    EXPECT_EQ(raised.front().id, "ERR_SERVER_COMM_TIMEOUT");
    EXPECT_EQ(raised.front().arguments, kHostAndPort);
    EXPECT_EQ(network.requests(), retries + 1);
    EXPECT_EQ(network.elapsedMillis(), kMillis * (retries + 1));
  }

  /// With all that is pulled after the exchange.
  static void expectAllInTime(const Wait& wait) {
    ScriptedNetwork network(stallingBehind(wait.arrived).awaitClose(), kOnDemand);
    const auto client = impatientClient(false);
    client->setNumRetries(0);
    const Outcome outcome = runExchange(*client, wait.kind);
    ASSERT_FALSE(network.waitedForever());
    if (network.elapsedMillis() != 0) {
      EXPECT_EQ(outcome.errorId, "ERR_SERVER_COMM_TIMEOUT");
      EXPECT_EQ(network.elapsedMillis(), kMillis);
    } else {
      ASSERT_NE(wait.whole, nullptr);
      EXPECT_EQ(outcome, wait.whole->expected);
    }
  }
};

/// Wherever the server stops.
std::vector<TimeOut::Wait> TimeOut::waitsOverHttp() {
  std::vector<Wait> waits;
  for (const char* name : {"StreamSearchWithOneHit", "GetStatus", "ParseResultWithOneRow",
                           "ServerErrorOnStreamSearch", "CreateCollectionWithoutBody"}) {
    const Reply& reply = replyNamed(name);
    for (const std::string& text : {plain(reply), chunked(reply, 0, true).text}) {
      for (std::size_t length = 0; length < text.size(); ++length) {
        const std::string arrived = text.substr(0, length);
        waits.push_back(
            {reply.name + " that begins with\n" + arrived, reply.kind, arrived, &reply});
      }
    }
  }
  return waits;
}

std::vector<TimeOut::Wait> TimeOut::waitsOverBinary() {
  const std::string ok = word16(1);
  const std::string error = errorRecord({{"MsgId", "ZVK0404E"}, {"MsgText", "no"}});
  std::vector<Wait> waits{
      {"the header", kCreateCollection, ""},
      {"half the header", kCreateCollection, ok.substr(0, 1)},
      {"the body", kStreamSearch, ok},
      {"parse results", kParseResult, ok},
      {"the end of an estimate", kSelectivity, ok + envelope(1, estimate(1, 2, 3))},
      {"an error record", kStreamSearch, word16(6)},
      {"the rest of an error record", kGetStatus, word16(6) + error.substr(0, 9)}};
  if (GetParam() == Protocol::BinaryReassembled) {
    waits.push_back(
        {"the rest of a first envelope", kStreamSearch, ok + plainHit("key").substr(0, 5)});
    waits.push_back(
        {"the rest of a content", kGetServerVersion, ok + envelope(1, "v").substr(0, 4)});
  }
  return waits;
}

TEST_P(TimeOut, EndsEveryWaitOfAnExchange) {
  for (const Wait& wait : binary() ? waitsOverBinary() : waitsOverHttp()) {
    SCOPED_TRACE(wait.what);
    expectExchangeInTime(wait, 0);
    expectExchangeInTime(wait, 1);
    expectAllInTime(wait);
  }
}

/// A stream of hits that stalls somewhere behind its first portion.
struct StallingStream {
  std::string text;
  std::size_t firstCut;
  std::size_t endOfCuts;
  std::size_t behindHits;  // there the end is known, whether it is marked or not
  std::vector<std::string> ids;
};

StallingStream stallingStream(bool binary) {
  if (!binary) {
    const Chunked form = chunked(replyNamed("StreamSearchWithThreeHits"), 20, true);
    return {form.text,
            form.chunks.front().dataEnd,
            form.text.size() - 7,
            form.chunks.back().dataEnd,
            {"base64:AAECAw==", "base64:a2V5", "base64:/+8="}};
  }
  const std::string first = word16(1) + plainHit("first");
  const std::string second = scoredHit(250, "the second");
  const std::string text = first + second + endOfResults();
  return {text,
          first.size(),
          first.size() + second.size(),
          text.size(),
          {idOfKey("first"), idOfKey("the second")}};
}

TEST_P(TimeOut, BetweenPortionsLosesNothing) {
  const StallingStream stream = stallingStream(binary());
  for (std::size_t cut = stream.firstCut; cut < stream.endOfCuts; ++cut) {
    SCOPED_TRACE(testing::Message() << "cut at " << cut);
    ScriptedNetwork network(
        stallingBehind(stream.text.substr(0, cut)).send(stream.text.substr(cut)).awaitClose(),
        kOnDemand);
    const auto client = impatientClient();
    tq::comm::ClientResponse response;
    std::vector<std::string> ids;
    const auto take = [&] {
      auto& hits = response.getSearchResponse();
      while (hits.hasMore()) ids.push_back(utf8(hits.getNext().getDocId()));
    };
    const auto receive = [&] {
      Raised raised = raisedBy([&] { client->recv(response); });
      if (raised.empty()) take();
      return raised;
    };
    auto request = requestFor(kStreamSearch);
    ASSERT_EQ(raisedBy([&] { client->sendAndRecvMesg(request, response); }), Raised());
    take();
    if (binary()) {
      ASSERT_EQ(ids, std::vector<std::string>{stream.ids.front()});
    }
    Raised raised;
    for (std::size_t receives = 0; raised.empty() && !client->isEndOfStream(); ++receives) {
      ASSERT_LT(receives, stream.text.size());
      raised = receive();
    }
    ASSERT_FALSE(network.waitedForever());
    if (raised.empty()) {
      ASSERT_GE(cut, stream.behindHits) << "the stream ended too early";
      continue;
    }
    ASSERT_EQ(raised.size(), 1U);
    ASSERT_EQ(raised.front().id, "ERR_SERVER_COMM_TIMEOUT");
    ASSERT_EQ(receive(), raised) << "and again";
    ASSERT_FALSE(client->isEndOfStream());
    ASSERT_EQ(network.elapsedMillis(), 2 * kMillis);
    network.release();
    for (std::size_t receives = 0; !client->isEndOfStream(); ++receives) {
      ASSERT_LT(receives, binary() ? 1U : stream.text.size()) << "one brings all that has come";
      ASSERT_EQ(receive(), Raised());
    }
    ASSERT_FALSE(client->isTruncated());
    ASSERT_EQ(ids, stream.ids);
    ASSERT_EQ(network.requests(), 1U);
  }
}

INSTANTIATE_TEST_SUITE_P(Of, TimeOut,
                         testing::Values(Protocol::Http, Protocol::Binary,
                                         Protocol::BinaryReassembled),
                         [](const auto& test) { return nameOf(test.param); });

/// Switches the client's time-out off while it waits for it.
struct SwitchesTimeOutOff : WaitingHost {
  tq::comm::CorvaneRESTClient* client = nullptr;

  static tq::oss::WaitResult wait(void* host, int fd, short events, int timeoutMillis) noexcept {
    auto& self = *static_cast<SwitchesTimeOutOff*>(host);
    self.client->setTimeOut(0);
    return WaitingHost::wait(&self, fd, events, timeoutMillis);
  }
};

TEST(TimeOutOverHttp, ThatIsSwitchedOffInAWaitHoldsForThatWaitAlone) {
  auto network = optionsOf(Protocol::Http);
  network.dripMillis = 1000;
  FaultNetwork faulty(network, answererOf(Protocol::Http));
  const auto client = clientOf(Protocol::Http);
  client->setNumRetries(0);
  client->setTimeOut(2500);
  SwitchesTimeOutOff host;
  host.client = client.get();
  client->setWaitHook(&SwitchesTimeOutOff::wait, &host);
  const MarkedRequest marked{kGetStatus, 42};
  EXPECT_EQ(runMarked(*client, marked).results, resultsOf(Protocol::Http, marked));
}

TEST(TimeOutOverHttp, OfFortyDaysLastsThatLong) {
  constexpr unsigned int kDay = 24 * 60 * 60 * 1000;
  auto network = optionsOf(Protocol::Http);
  network.dripMillis = 30 * kDay;  // more than one poll can wait
  FaultNetwork faulty(network, answererOf(Protocol::Http));
  const auto client = clientOf(Protocol::Http);
  client->setNumRetries(0);
  client->setTimeOut(40 * kDay);
  const MarkedRequest marked{kGetStatus, 42};
  EXPECT_EQ(runMarked(*client, marked).results, resultsOf(Protocol::Http, marked));
}

// Chunks of a body by hand, to a peer that takes no more bytes.

class BodyChunksByHand : public testing::Test {
 protected:
  static FaultNetwork::Options fullPeer() {
    auto options = optionsOf(Protocol::Binary);
    options.window = 100;
    return options;
  }

  std::string errorOfChunks() {
    const std::string body(1000, 'b');
    return errorOf([&] { client.sendBodyChunks(body.data(), 10, body.size()); }).errorId;
  }

  FaultNetwork network{fullPeer(), answererOf(Protocol::Binary)};
  tq::comm::DrestoPerfClient client{u"127.0.0.1", 7};
};

TEST_F(BodyChunksByHand, EndWithTheDeadline) {
  client.setDeadline(50);
  client.open();
  const auto begin = network.nowNanos();
  EXPECT_EQ(errorOfChunks(), "ERR_SERVER_COMM_TIMEOUT");
  const auto elapsed = (network.nowNanos() - begin) / kMilli;
  EXPECT_GE(elapsed + 1, 50U);
  EXPECT_LE(elapsed, 50 + kTolerance);
  EXPECT_FALSE(network.waitedForever());
}

TEST_F(BodyChunksByHand, ThatTheHostGivesUpCloseTheConnection) {
  client.open();
  WaitingHost host{0, 1};
  client.setWaitHook(&WaitingHost::wait, &host);
  EXPECT_EQ(errorOfChunks(), "ERR_CLIENT_CANCELLED");
  EXPECT_FALSE(client.isConnected());
}

// An estimate brings no results that would end a loop over its portions, so that the peer could
// stretch the loop at will: no wait is as long as the time-out.

TEST(TimeOutOfAnEstimate, HoldsForAllOfAnExchangesPortionsTogether) {
  auto network = optionsOf(Protocol::BinaryReassembled);
  network.dripMillis = 200;
  FaultNetwork faulty(network, answererOf(Protocol::BinaryReassembled));
  const auto client = clientOf(Protocol::BinaryReassembled);
  client->setNumRetries(0);
  client->setTimeOut(300);
  const Ran ran = runMarked(*client, {kSelectivity});
  EXPECT_EQ(ran.errorId, "ERR_SERVER_COMM_TIMEOUT") << ran;
  EXPECT_LE(ran.longestMillis, 2 * 200 + 300 + kTolerance) << "the header, and one time-out";
  EXPECT_FALSE(faulty.waitedForever());
}

TEST(TimeOutOfAnEstimate, HoldsForAllPortionsThatOnePullTakes) {
  auto network = optionsOf(Protocol::Http);
  network.dripMillis = 200;
  std::string reply =
      kChunkedHead + chunk(std::string(4, '\0') + enveloped(record({{"any", "1"}})));
  // A record that no portion completes.
  for (const char byte : enveloped(std::string(100, 'r'))) reply += chunk(std::string(1, byte));
  const std::function<void(tq::comm::ClientResponse&, tq::comm::CorvaneRESTClient&)> pulls[] = {
      [](auto& response, auto& client) { response.getSearchResponse(client, true); },
      [](auto& response, auto& client) { response.getParseResponse(client); },
      [](auto& response, auto& client) { client.recvMultResponse(response); }};
  for (const auto& pull : pulls) {
    FaultNetwork faulty(network, [&](const std::string&) { return Answer{{reply}}; });
    const auto client = clientOf(Protocol::Http);
    client->setNumRetries(0);
    client->setTimeOut(300);
    BuiltRequest built({kSelectivity});
    tq::comm::ClientResponse response;
    client->sendAndRecvMesg(built.request, response);
    ASSERT_FALSE(client->isEndOfStream());
    const auto begin = faulty.nowNanos();
    EXPECT_EQ(errorOf([&] { pull(response, *client); }).errorId, "ERR_SERVER_COMM_TIMEOUT")
        << "the peer has ended nothing";
    EXPECT_LE((faulty.nowNanos() - begin) / kMilli, 300 + kTolerance);
  }
}

TEST(DeadlineOverHttp, EndsAReplyWhoseBytesAreAlwaysThere) {
  // The clock moves a microsecond at each look, and no wait ever finds nothing.
  ScriptedNetwork network(Script()
                              .expectRequest()
                              .send("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n")
                              .send(std::string(100000, 'b'), 1)
                              .awaitClose());
  const auto client = clientOf(Protocol::Http);
  client->setNumRetries(0);
  client->setDeadline(1);
  EXPECT_EQ(runMarked(*client, {kCreateCollection}).errorId, "ERR_SERVER_COMM_TIMEOUT");
  EXPECT_LT(network.receives(), 10000u);
}

INSTANTIATE_TEST_SUITE_P(Of, Deadline,
                         testing::Values(Protocol::Http, Protocol::Binary,
                                         Protocol::BinaryReassembled),
                         [](const auto& test) { return nameOf(test.param); });

// The same over real sockets. Nothing but a hang is measured from above, by the limit of the run.

class RealDeadline : public testing::TestWithParam<Protocol> {
 protected:
  static constexpr unsigned int kMillis = 40;

  void expectTimeout(unsigned int port, const MarkedRequest& marked) const {
    auto client = clientOf(GetParam(), true, port);
    client->setDeadline(kMillis);
    client->setNumRetries(1000);
    const auto ran = runMarked(*client, marked);
    EXPECT_EQ(ran.errorId, "ERR_SERVER_COMM_TIMEOUT") << ran;
    EXPECT_GE(ran.longestMillis + 1, kMillis);
  }

  Script expectRequest() const {
    return GetParam() == Protocol::Http ? Script().expectRequest() : Script().expectFramedRequest();
  }
};

TEST_P(RealDeadline, HoldsAgainstSilence) {
  ScriptedServer server(expectRequest().stall());
  expectTimeout(server.port(), {kGetStatus});
}

TEST_P(RealDeadline, HoldsInTheMiddleOfAReply) {
  const std::string begun = GetParam() == Protocol::Http
                                ? "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc"
                                : std::string("\0\x06\0\x50", 4) + "abc";
  ScriptedServer server(expectRequest().send(begun, 1).stall());
  expectTimeout(server.port(), {kGetStatus});
}

TEST_P(RealDeadline, HoldsAgainstAPeerThatReadsNothing) {
  ScriptedServer server(Script().stall());
  expectTimeout(server.port(), {kAddDocument, 1, false, std::size_t{64} << 20});
}

/// Listens, and has no room for another connection.
class FullListener {
 public:
  FullListener() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(::bind(fd_, generic, length), 0);
    EXPECT_EQ(::listen(fd_, 0), 0);
    EXPECT_EQ(::getsockname(fd_, generic, &length), 0);
    port_ = ntohs(address.sin_port);
    for (int& filler : fillers_) {
      filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      // None is accepted: each takes a place, or waits for one.
      static_cast<void>(::connect(filler, generic, length));
    }
  }
  ~FullListener() {
    for (const int filler : fillers_) ::close(filler);
    ::close(fd_);
  }
  FullListener(const FullListener&) = delete;
  FullListener& operator=(const FullListener&) = delete;

  unsigned int port() const { return port_; }

 private:
  int fd_;
  int fillers_[4] = {};
  unsigned int port_ = 0;
};

TEST_P(RealDeadline, HoldsAgainstAPeerThatNeverAccepts) {
  const FullListener listener;
  expectTimeout(listener.port(), {kGetStatus});
}

INSTANTIATE_TEST_SUITE_P(Of, RealDeadline,
                         testing::Values(Protocol::Http, Protocol::Binary,
                                         Protocol::BinaryReassembled),
                         [](const auto& test) { return nameOf(test.param); });

}  // namespace
