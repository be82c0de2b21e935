// What became of a request, what may be sent twice, and how long the client waits in between.

#include <gtest/gtest.h>
#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <limits>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTMessage.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"
#include "infra/util/kruExtendedProperties.h"
#include "tests/comm/faultExchange.h"
#include "tests/comm/faultNetwork.h"
#include "tests/support/chunks.h"
#include "tests/support/exchange.h"
#include "tests/support/scriptedNetwork.h"

namespace tq::comm {

void PrintTo(RequestOutcome outcome, std::ostream* out) {
  static constexpr const char* kNames[] = {"NotSent", "MayBeApplied", "Rejected", "Answered"};
  *out << kNames[static_cast<std::size_t>(outcome)];
}

}  // namespace tq::comm

namespace {

using namespace tq::test;
using tq::comm::ClientRequest;
using tq::comm::CorvaneRESTClient;
using tq::comm::RequestOutcome;
using FaultKind = Fault::Kind;

constexpr std::uint64_t kMilli = 1000000;

FaultNetwork::Options optionsOf(Protocol protocol) {
  FaultNetwork::Options options;
  options.framed = protocol != Protocol::Http;
  options.writesWait = false;
  return options;
}

bool isHttp(Protocol protocol) { return protocol == Protocol::Http; }

class ByProtocol : public testing::TestWithParam<Protocol> {
 protected:
  FaultNetwork network{optionsOf(GetParam()), answererOf(GetParam())};
  std::unique_ptr<CorvaneRESTClient> client = clientOf(GetParam());
};

class RequestOutcomes : public ByProtocol {};

struct Case {
  const char* name;
  std::function<void(FaultNetwork&, CorvaneRESTClient&)> arrange;
  MarkedRequest marked;
  RequestOutcome expected;
};

Fault error(int number) { return {FaultKind::Error, number}; }
const Fault kEof{FaultKind::Eof};
const Fault kOneByte{FaultKind::Short};

std::vector<Case> singleAttempts() {
  const auto nothing = [](FaultNetwork&, CorvaneRESTClient&) {};
  const auto failing = [](Entry entry, const Fault& fault) {
    return [=](FaultNetwork& network, CorvaneRESTClient&) { network.plan(entry, 1, fault); };
  };
  return {
      {"answered", nothing, {kGetStatus}, RequestOutcome::Answered},
      {"answered with a stream", nothing, {kStreamSearch}, RequestOutcome::Answered},
      {"refused by the server", nothing, {4, 1, true}, RequestOutcome::Rejected},
      {"a search refused by the server", nothing, {8, 1, true}, RequestOutcome::Rejected},
      {"without a reply", nothing, {kAsynchAddDocument}, RequestOutcome::MayBeApplied},
      {"the last document", nothing, {kLastDocSent}, RequestOutcome::MayBeApplied},
      {"no such host",
       failing(Entry::Getaddrinfo, error(EAI_NONAME)),
       {kUpdateIndex},
       RequestOutcome::NotSent},
      {"no descriptor",
       failing(Entry::Socket, error(EMFILE)),
       {kUpdateIndex},
       RequestOutcome::NotSent},
      {"refused connection",
       failing(Entry::Connect, error(ECONNREFUSED)),
       {kUpdateIndex},
       RequestOutcome::NotSent},
      {"nothing was written",
       failing(Entry::Sendmsg, error(EPIPE)),
       {kUpdateIndex},
       RequestOutcome::NotSent},
      {"half was written",
       [](FaultNetwork& network, CorvaneRESTClient&) {
         network.plan(Entry::Sendmsg, 1, kOneByte);
         network.plan(Entry::Sendmsg, 2, error(ECONNRESET));
       },
       {kUpdateIndex},
       RequestOutcome::NotSent},
      {"the peer stopped reading",
       [](FaultNetwork& network, CorvaneRESTClient& client) {
         network.options().window = 40;
         client.setDeadline(100);
       },
       {kUpdateIndex},
       RequestOutcome::NotSent},
      {"closed before a reply",
       failing(Entry::Recv, kEof),
       {kUpdateIndex},
       RequestOutcome::MayBeApplied},
      {"reset before a reply",
       failing(Entry::Recv, error(ECONNRESET)),
       {kUpdateIndex},
       RequestOutcome::MayBeApplied},
      {"silence",
       [](FaultNetwork& network, CorvaneRESTClient& client) {
         network.options().silent = true;
         client.setTimeOut(100);
       },
       {kUpdateIndex},
       RequestOutcome::MayBeApplied},
      {"the deadline passed while waiting",
       [](FaultNetwork& network, CorvaneRESTClient& client) {
         network.options().silent = true;
         client.setDeadline(100);
       },
       {kUpdateIndex},
       RequestOutcome::MayBeApplied},
  };
}

TEST_P(RequestOutcomes, OfASingleAttemptSayWhatIsKnown) {
  for (const auto& one : singleAttempts()) {
    SCOPED_TRACE(one.name);
    client = clientOf(GetParam());
    client->setNumRetries(0);
    network.options() = optionsOf(GetParam());
    one.arrange(network, *client);
    runMarked(*client, one.marked);
    EXPECT_EQ(client->getRequestOutcome(), one.expected);
    EXPECT_TRUE(network.planIsOver());
  }
}

TEST_P(RequestOutcomes, BeforeAnyRequestIsThatNothingWasSent) {
  EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::NotSent);
}

TEST_P(RequestOutcomes, OfALaterRequestReplaceThoseOfAnEarlierOne) {
  runMarked(*client, {kGetStatus});
  ASSERT_EQ(client->getRequestOutcome(), RequestOutcome::Answered);
  client->close();
  network.options().connectError = ECONNREFUSED;
  runMarked(*client, {kGetStatus});
  EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::NotSent);
}

TEST_P(RequestOutcomes, OfARequestThatCannotBeSentAreThatNothingWasSent) {
  runMarked(*client, {kGetStatus});
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::ADD_DOCUMENT, tq::util::ExtendedProperties());
  request.setDocKey("key", 3);
  tq::comm::ClientResponse response;
  EXPECT_ANY_THROW(client->sendAndRecvMesg(request, response));
  EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::NotSent);
}

TEST_P(RequestOutcomes, AreNotChangedByWhatIsSentByHand) {
  EXPECT_EQ(runMarked(*client, {kGetStatus}).outcome, RequestOutcome::Answered);
  BuiltRequest search({kStreamSearch});
  client->send(search.request);
  EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::Answered);
  BuiltRequest document({kAsynchAddDocument});
  tq::comm::RESTMessage message(u"127.0.0.1", document.request);
  client->sendMesg(message);
  EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::Answered);
}

/// A request that is sent by hand on a connection of its own, and its reply.
Outcome askByHand(CorvaneRESTClient& client, const MarkedRequest& marked) {
  client.close();
  client.open();
  BuiltRequest built(marked);
  client.send(built.request);
  tq::comm::ClientResponse response;
  return errorOf([&] { client.recvMesg(response); });
}

TEST_P(RequestOutcomes, OfAFailedExchangeAreNotChangedByWhatIsReceivedByHand) {
  for (const MarkedRequest& byHand : {MarkedRequest{4, 2}, MarkedRequest{4, 3, true}}) {
    client->setNumRetries(0);
    network.plan(Entry::Recv, 1, kEof);
    EXPECT_EQ(runMarked(*client, {4}).outcome, RequestOutcome::MayBeApplied);
    const std::string error = askByHand(*client, byHand).errorId;
    EXPECT_EQ(error, byHand.refused && isHttp(GetParam()) ? "ZVK0404E" : "");
    EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::MayBeApplied);
  }
}

TEST_P(RequestOutcomes, OfAnAnsweredExchangeAreNotChangedByARefusalByHand) {
  if (!isHttp(GetParam())) return;  // There nothing is received by hand after a finished reply.
  EXPECT_EQ(runMarked(*client, {4}).outcome, RequestOutcome::Answered);
  EXPECT_EQ(askByHand(*client, {4, 2, true}).errorId, "ZVK0404E");
  EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::Answered);
}

/// Speaks a protocol of its own, of which nothing but the sending is known here.
template <typename Base>
class OwnProtocol : public Base {
 public:
  using Base::Base;
  unsigned int attempts = 0;

  void sendAndRecvMesgOnce(ClientRequest& request, tq::comm::ClientResponse&) override {
    ++attempts;
    this->open();
    this->send(request);
    tq::oss::MessageList reasons;
    reasons.add(tq::oss::Message(tq::comm::StaticDefs::ERR_SERVER_COMM_RECV, {}));
    throw tq::comm::RESTException(reasons);
  }
};

template <typename Client>
void expectUncertain(Client& client) {
  client.setRetryUnsafe(false);
  BuiltRequest built({kCreateCollection});
  tq::comm::ClientResponse response;
  EXPECT_EQ(errorOf([&] { client.sendAndRecvMesg(built.request, response); }).errorId,
            "ERR_SERVER_COMM_RECV");
  EXPECT_EQ(client.attempts, 1U) << "it may have been applied";
  EXPECT_EQ(client.getRequestOutcome(), RequestOutcome::MayBeApplied);
}

TEST_P(RequestOutcomes, OfAProtocolOfTheCallersAreUncertainOnceSomethingWasSent) {
  if (isHttp(GetParam())) {
    OwnProtocol<CorvaneRESTClient> own(u"127.0.0.1", 7, true);
    expectUncertain(own);
  } else {
    OwnProtocol<tq::comm::DrestoPerfClient> own(u"127.0.0.1", 7);
    expectUncertain(own);
  }
}

// Over several attempts.

TEST_P(RequestOutcomes, StayUncertainWhenALaterAttemptIsNotSent) {
  network.plan(Entry::Recv, 1, kEof);
  network.plan(Entry::Connect, 2, error(ECONNREFUSED));
  const auto ran = runMarked(*client, {kUpdateIndex});
  EXPECT_EQ(ran.errorId, "ERR_CONNECT_SERVER");
  EXPECT_EQ(ran.outcome, RequestOutcome::MayBeApplied);
  EXPECT_EQ(timesSeen(network.journal(), 1), 1U);
}

TEST_P(RequestOutcomes, StayUncertainWhenALaterAttemptIsRefused) {
  network.plan(Entry::Recv, 1, kEof);
  const auto ran = runMarked(*client, {4, 1, true});
  EXPECT_EQ(ran.errorId, "ZVK0404E");
  EXPECT_EQ(ran.outcome, RequestOutcome::MayBeApplied);
  EXPECT_EQ(timesSeen(network.journal(), 1), 2U);
}

TEST_P(RequestOutcomes, AreAnAnswerWhenALaterAttemptIsAnswered) {
  network.plan(Entry::Recv, 1, kEof);
  EXPECT_EQ(runMarked(*client, {kUpdateIndex}).outcome, RequestOutcome::Answered);
  EXPECT_EQ(timesSeen(network.journal(), 1), 2U);
}

TEST_P(RequestOutcomes, OfAKindThatNeedsNoQueueDoNotDependOnTheQueueUnderWay) {
  client->setQueueOnOneConnection(true);
  EXPECT_EQ(runMarked(*client, {kAsynchAddDocument}).errorId, "");
  client->close();
  network.plan(Entry::Connect, 1, error(ECONNREFUSED));
  EXPECT_EQ(runMarked(*client, {kStreamSearch}).outcome, RequestOutcome::Answered);
}

TEST_P(RequestOutcomes, DoNotSufferFromALookAtTheConnectionThatFails) {
  EXPECT_EQ(runMarked(*client, {kGetStatus}).outcome, RequestOutcome::Answered);
  network.plan(Entry::Recv, 1, error(ENOBUFS));
  EXPECT_EQ(runMarked(*client, {kGetStatus}).outcome, RequestOutcome::Answered);
  EXPECT_EQ(network.connectTimes().size(), 2U) << "what it was about is not used again";
}

TEST_P(RequestOutcomes, AreThatNothingWasSentWhenNoAttemptGotThrough) {
  network.options().connectError = ECONNREFUSED;
  client->setNumRetries(5);
  EXPECT_EQ(runMarked(*client, {kUpdateIndex}).outcome, RequestOutcome::NotSent);
  EXPECT_EQ(network.connectTimes().size(), 6U);
}

TEST_P(RequestOutcomes, AreARefusalWhenOnlyTheLastAttemptGotThrough) {
  network.plan(Entry::Connect, 1, error(ECONNREFUSED));
  EXPECT_EQ(runMarked(*client, {4, 1, true}).outcome, RequestOutcome::Rejected);
}

TEST_P(RequestOutcomes, AreOfAllAttemptsWhereARefusalIsOfTheLast) {
  client->setNumRetries(1);
  network.plan(Entry::Recv, 1, kEof);
  EXPECT_EQ(runMarked(*client, {4, 1, true}).outcome, RequestOutcome::MayBeApplied);
  EXPECT_TRUE(client->isRefused());
  ClientRequest unsendable;
  unsendable.buildRequest(ClientRequest::DELETE_DOCUMENT, {});
  unsendable.setDocKey(nullptr, 3);
  tq::comm::ClientResponse response;
  EXPECT_THROW(client->sendAndRecvMesg(unsendable, response), tq::comm::RESTException);
  EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::NotSent);
  EXPECT_FALSE(client->isRefused());
}

TEST_P(RequestOutcomes, AreNoRefusalOfARequestWithoutAReplyThatFollowsARefusedOne) {
  client->setNumRetries(0);
  const auto fails = [&](bool asOneAttempt, const MarkedRequest& marked) {
    BuiltRequest built(marked);
    tq::comm::ClientResponse response;
    const auto exchange = [&] {
      asOneAttempt ? client->sendAndRecvMesgOnce(built.request, response)
                   : client->sendAndRecvMesg(built.request, response);
    };
    EXPECT_THROW(exchange(), tq::comm::RESTException);
  };
  for (const bool asOneAttempt : {false, true}) {
    for (const auto& [entry, fault] :
         {std::pair(Entry::Connect, error(ECONNREFUSED)), std::pair(Entry::Recv, kEof)}) {
      fails(asOneAttempt, {4, 1, true});
      EXPECT_TRUE(client->isRefused());
      client->close();
      network.plan(entry, 1, fault);
      fails(asOneAttempt, {4});
      EXPECT_FALSE(client->isRefused());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Of, RequestOutcomes,
                         testing::Values(Protocol::Http, Protocol::Binary,
                                         Protocol::BinaryReassembled),
                         [](const auto& test) { return nameOf(test.param); });

TEST(GarbledOutcomes, AreUncertainBecauseWhatCameIsNoReply) {
  for (const auto protocol : {Protocol::Http, Protocol::Binary, Protocol::BinaryReassembled}) {
    SCOPED_TRACE(nameOf(protocol));
    const std::string garbage =
        isHttp(protocol) ? "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nnonsense\r\n"
                         : "\x27\x0f";
    FaultNetwork network(optionsOf(protocol),
                         [&](const std::string&) { return Answer{{garbage}}; });
    auto client = clientOf(protocol);
    client->setTimeOut(100);
    client->setNumRetries(0);
    EXPECT_NE(runMarked(*client, {kUpdateIndex}).errorId, "");
    EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::MayBeApplied);
  }
}

TEST(TruncatedOutcomes, OfParseResultsAreUncertain) {
  const Reply& reply = replyNamed("ParseResultWithThreeRows");
  const std::string one = reply.body.substr(0, reply.recordStarts[1]);
  ScriptedNetwork network(Script().expectRequest().send(kChunkedHead + chunk(one)));
  const auto client = clientOf(Protocol::Http);
  EXPECT_EQ(runExchange(*client, kParseResult).errorId, "");
  EXPECT_TRUE(client->isTruncated());
  EXPECT_EQ(client->getRequestOutcome(), RequestOutcome::MayBeApplied);
}

TEST(BinaryCodeOutcomes, AreARefusalOnlyWhereTheServerSaysSo) {
  struct Code {
    std::string reply;
    RequestOutcome expected;
  };
  for (const auto& code : {Code{std::string("\x01\x91", 2), RequestOutcome::Rejected},
                           // A status where none was asked for says nothing of the request.
                           Code{std::string("\0\x05", 2), RequestOutcome::MayBeApplied}}) {
    FaultNetwork network(optionsOf(Protocol::Binary),
                         [&](const std::string&) { return Answer{{code.reply}}; });
    auto client = clientOf(Protocol::Binary);
    EXPECT_NE(runMarked(*client, {kUpdateIndex}).errorId, "");
    EXPECT_EQ(client->getRequestOutcome(), code.expected);
    EXPECT_EQ(timesSeen(network.journal(), 1), 1U);
  }
}

// Batching.

TEST(BatchedOutcomes, AreThatNothingWasSentForAsLongAsTheMessageIsHeldBack) {
  FaultNetwork network(optionsOf(Protocol::Binary), answererOf(Protocol::Binary));
  auto client = clientOf(Protocol::Binary);
  client->useBufferedConnection(true);
  EXPECT_EQ(runMarked(*client, {kAsynchAddDocument, 1}).outcome, RequestOutcome::NotSent);
  EXPECT_EQ(timesSeen(network.journal(), 1), 0U);
  EXPECT_EQ(runMarked(*client, {kAsynchAddDocument, 2}).outcome, RequestOutcome::NotSent);
  EXPECT_EQ(runMarked(*client, {kLastDocSent, 3}).outcome, RequestOutcome::MayBeApplied);
  for (const unsigned int mark : {1U, 2U, 3U}) EXPECT_EQ(timesSeen(network.journal(), mark), 1U);
}

TEST(BatchedOutcomes, AreOfTheRequestThatMadeThemGoOut) {
  FaultNetwork network(optionsOf(Protocol::Binary), answererOf(Protocol::Binary));
  auto client = clientOf(Protocol::Binary);
  client->useBufferedConnection(true);
  runMarked(*client, {kAsynchAddDocument, 1});
  const MarkedRequest status{kGetStatus, 2};
  const auto ran = runMarked(*client, status);
  EXPECT_EQ(ran.outcome, RequestOutcome::Answered);
  EXPECT_EQ(ran.results, resultsOf(Protocol::Binary, status));
  EXPECT_EQ(timesSeen(network.journal(), 1), 1U);
}

TEST(BatchedOutcomes, OfAFailedWriteAreThatNothingWasSent) {
  FaultNetwork network(optionsOf(Protocol::Binary), answererOf(Protocol::Binary));
  auto client = clientOf(Protocol::Binary);
  client->useBufferedConnection(true);
  client->setNumRetries(0);
  runMarked(*client, {kAsynchAddDocument, 1});
  network.plan(Entry::Sendmsg, 1, error(EPIPE));
  const auto ran = runMarked(*client, {kGetStatus, 2});
  EXPECT_EQ(ran.errorId, "ERR_SERVER_COMM_SEND");
  EXPECT_EQ(ran.outcome, RequestOutcome::NotSent);
  EXPECT_EQ(timesSeen(network.journal(), 1) + timesSeen(network.journal(), 2), 0U);
}

// What may be sent twice.

class RetryUnsafe : public ByProtocol {};

struct Repeatable {
  int kind;
  bool repeatable;
};
constexpr Repeatable kKinds[] = {
    {kCreateCollection, false},  {kDropCollection, false},  {kAddDocument, true},
    {kUpdateIndex, true},        {kDeleteDocument, true},   {kStreamSearch, true},
    {kAsynchAddDocument, true},  {kLastDocSent, true},      {kParseResult, false},
    {kOpenCollection, true},     {kCloseCollection, true},  {kSelectivity, true},
    {kGetStatus, true},          {kBackup, false},          {kRestore, false},
    {kTakeover, false},          {kShutdown, false},        {kScalarSearch, true},
    {kOpenCollectionAlt, true},  {kGetServerVersion, true}, {kSetConstructorConfiguration, false},
    {kVersionsValidation, true},
};

TEST(Repeatable, EveryKindIsOrIsNot) {
  for (const auto& [kind, repeatable] : kKinds) {
    EXPECT_EQ(CorvaneRESTClient::isRepeatable(static_cast<ClientRequest::REQUEST>(kind)),
              repeatable)
        << kind;
  }
  for (const int unknown : {-1, 0, 6, 7, 25, 64, 1000}) {
    EXPECT_FALSE(CorvaneRESTClient::isRepeatable(static_cast<ClientRequest::REQUEST>(unknown)))
        << unknown;
  }
}

TEST_P(RetryUnsafe, OffOnlyWhatBearsItIsSentAgainOnceItMayHaveBeenApplied) {
  for (const auto& [kind, repeatable] : kKinds) {
    if (!hasReply(kind)) continue;
    SCOPED_TRACE(kind);
    client = clientOf(GetParam());
    client->setRetryUnsafe(false);
    client->setNumRetries(3);
    network.plan(Entry::Recv, 1, kEof);
    const MarkedRequest marked{kind, static_cast<unsigned int>(100 + kind)};
    const auto ran = runMarked(*client, marked);
    EXPECT_EQ(timesSeen(network.journal(), marked.mark), repeatable ? 2U : 1U);
    EXPECT_EQ(ran.errorId, repeatable ? "" : "ERR_SERVER_COMM_RECV");
    EXPECT_EQ(ran.outcome, repeatable ? RequestOutcome::Answered : RequestOutcome::MayBeApplied);
  }
}

TEST_P(RetryUnsafe, OffATimeOutIsNotRepeatedEither) {
  network.options().silent = true;
  client->setRetryUnsafe(false);
  client->setNumRetries(3);
  client->setTimeOut(100);
  EXPECT_EQ(runMarked(*client, {kCreateCollection, 16}).errorId, "ERR_SERVER_COMM_TIMEOUT");
  EXPECT_EQ(timesSeen(network.journal(), 16), 1U);
}

TEST_P(RetryUnsafe, OffWhatWasNotSentIsSentWhateverItsKind) {
  for (const auto& [kind, repeatable] : kKinds) {
    SCOPED_TRACE(kind);
    client = clientOf(GetParam());
    client->setRetryUnsafe(false);
    client->setNumRetries(1);
    network.plan(Entry::Connect, 1, error(ECONNREFUSED));
    const MarkedRequest marked{kind, static_cast<unsigned int>(100 + kind)};
    EXPECT_EQ(runMarked(*client, marked).errorId, "");
    EXPECT_EQ(timesSeen(network.journal(), marked.mark), 1U);
  }
}

TEST_P(RetryUnsafe, OffAHalfWrittenRequestIsSentAgain) {
  if (isHttp(GetParam())) return;  // There a failed write is repeated for no kind.
  client->setRetryUnsafe(false);
  network.plan(Entry::Sendmsg, 1, kOneByte);
  network.plan(Entry::Sendmsg, 2, error(ECONNRESET));
  EXPECT_EQ(runMarked(*client, {kBackup, 7}).errorId, "");
  EXPECT_EQ(timesSeen(network.journal(), 7), 1U);
}

TEST_P(RetryUnsafe, IsOnUnlessSwitchedOff) {
  for (const auto& [kind, repeatable] : kKinds) {
    if (!hasReply(kind)) continue;
    SCOPED_TRACE(kind);
    client = clientOf(GetParam());
    network.plan(Entry::Recv, 1, kEof);
    const MarkedRequest marked{kind, static_cast<unsigned int>(100 + kind)};
    EXPECT_EQ(runMarked(*client, marked).errorId, "");
    EXPECT_EQ(timesSeen(network.journal(), marked.mark), 2U);
  }
}

INSTANTIATE_TEST_SUITE_P(Of, RetryUnsafe,
                         testing::Values(Protocol::Http, Protocol::Binary,
                                         Protocol::BinaryReassembled),
                         [](const auto& test) { return nameOf(test.param); });

// The pause between attempts.

class RetryPause : public ByProtocol {
 protected:
  /// The milliseconds between the attempts on a host that refuses.
  std::vector<double> pauses(unsigned int retries) {
    network.options().connectError = ECONNREFUSED;
    client->setNumRetries(retries);
    const std::size_t before = network.connectTimes().size();
    runMarked(*client, {kGetStatus});
    const auto& times = network.connectTimes();
    EXPECT_EQ(times.size() - before, retries + 1);
    std::vector<double> out;
    for (std::size_t i = before + 1; i < times.size(); ++i) {
      out.push_back(static_cast<double>(times[i] - times[i - 1]) / kMilli);
    }
    return out;
  }
};

// Rounding up to the milliseconds that a wait knows.
constexpr double kRounding = 1.1;

TEST_P(RetryPause, IsNoneUnlessItIsSet) {
  for (const double pause : pauses(20)) EXPECT_LT(pause, kRounding);
}

TEST_P(RetryPause, DoublesUpToTheMostAndLastsBetweenHalfAndAllOfIt) {
  client->setRetryPause(100, 1000);
  for (int run = 0; run < 50; ++run) {
    const auto waited = pauses(6);
    const std::vector<double> full{100, 200, 400, 800, 1000, 1000};
    ASSERT_EQ(waited.size(), full.size());
    for (std::size_t i = 0; i < full.size(); ++i) {
      EXPECT_GE(waited[i], full[i] / 2) << i;
      EXPECT_LE(waited[i], full[i] + kRounding) << i;
    }
  }
}

TEST_P(RetryPause, IsDrawnFromTheWholeOfItsRange) {
  client->setRetryPause(1000, 1000);
  const auto waited = pauses(400);
  const auto [shortest, longest] = std::minmax_element(waited.begin(), waited.end());
  EXPECT_LT(*shortest, 600);
  EXPECT_GT(*longest, 900);
  EXPECT_GT(std::set<double>(waited.begin(), waited.end()).size(), 200U);
}

TEST_P(RetryPause, NeverGrowsBeyondWhatItsNumbersCanSay) {
  constexpr auto kMax = std::numeric_limits<unsigned int>::max();
  client->setRetryPause(kMax, kMax);
  for (const double pause : pauses(3)) {
    EXPECT_GE(pause, kMax / 2.0);
    EXPECT_LE(pause, kMax + kRounding);
  }
}

TEST_P(RetryPause, IsTheFirstOneWhenTheMostIsLess) {
  client->setRetryPause(100, 10);
  for (const double pause : pauses(3)) {
    EXPECT_GE(pause, 50);
    EXPECT_LE(pause, 100 + kRounding);
  }
}

TEST_P(RetryPause, EndsWithTheDeadline) {
  network.options().connectError = ECONNREFUSED;
  client->setRetryPause(100, 100000);
  client->setNumRetries(100);
  client->setDeadline(500);
  const auto ran = runMarked(*client, {kGetStatus});
  EXPECT_EQ(ran.errorId, "ERR_SERVER_COMM_TIMEOUT");
  EXPECT_GE(ran.longestMillis + 1, 500U);
  EXPECT_LE(ran.longestMillis, 502U);
}

TEST_P(RetryPause, DoesNotPrecedeTheFirstAttemptNorFollowTheLast) {
  client->setRetryPause(1000, 1000);
  EXPECT_EQ(runMarked(*client, {kGetStatus}).longestMillis, 0U);
  client->close();
  network.options().connectError = ECONNREFUSED;
  client->setNumRetries(0);
  EXPECT_EQ(runMarked(*client, {kGetStatus}).longestMillis, 0U);
}

INSTANTIATE_TEST_SUITE_P(Of, RetryPause, testing::Values(Protocol::Http, Protocol::Binary),
                         [](const auto& test) { return nameOf(test.param); });

}  // namespace
