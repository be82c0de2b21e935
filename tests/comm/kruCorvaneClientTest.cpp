#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "comm/kruCorvaneClient.h"
#include "comm/kruRESTException.h"
#include "infra/oss/kruNLSException.h"
#include "infra/oss/kruSocketException.h"
#include "infra/oss/kruSystemCalls.h"
#include "tests/support/endedThread.h"
#include "tests/support/exchange.h"
#include "tests/support/fakeSystemCalls.h"
#include "tests/support/raised.h"
#include "tests/support/script.h"
#include "tests/support/scriptedNetwork.h"
#include "tests/support/scriptedServer.h"
#include "tests/support/waitingHost.h"

namespace {

using namespace tq::test;
using tq::comm::CorvaneClient;
using tq::comm::RESTException;
using tq::oss::Socket;

constexpr bool kFresh = false;
constexpr bool kPersistent = true;

/// A client that can also write, as the protocol clients do.
class TestClient : public CorvaneClient {
 public:
  TestClient() = default;
  TestClient(unsigned int port, bool persistent)
      : CorvaneClient(u"127.0.0.1", port, Socket::NullAddrInfoExternal, persistent, false) {}
  void write(const std::string& bytes) { socket_.write(bytes.data(), 0, bytes.size()); }
  bool persistent() const { return persistent_; }
  bool buffered() const { return buffered_; }
};

std::string readOnce(CorvaneClient& client, std::size_t length, bool wait = true) {
  std::string buffer(length, '?');
  buffer.resize(client.readOnce(buffer.data(), 0, length, wait));
  return buffer;
}

std::string read(CorvaneClient& client, std::size_t length, bool wait = false) {
  std::string buffer(length, '?');
  buffer.resize(client.read(buffer.data(), 0, length, wait));
  return buffer;
}

TEST(CorvaneClient, StartsUnconnectedAndWithoutATimeOut) {
  ScriptedNetwork network(Script().awaitClose());
  TestClient client(7, kFresh);
  EXPECT_FALSE(client.isConnected());
  EXPECT_EQ(utf8(client.getHost()), "127.0.0.1");
  EXPECT_EQ(client.getPort(), 7U);
  EXPECT_EQ(network.connectAttempts(), 0U);
}

TEST(CorvaneClient, TakesPersistentFourthAndBufferedFifth) {
  struct Open : CorvaneClient {
    using CorvaneClient::buffered_;
    using CorvaneClient::CorvaneClient;
    using CorvaneClient::persistent_;
  };
  const Open persistent(u"h", 1, Socket::NullAddrInfoExternal, true, false);
  EXPECT_TRUE(persistent.persistent_);
  EXPECT_FALSE(persistent.buffered_);
  const Open buffered(u"h", 1, Socket::NullAddrInfoExternal, false, true);
  EXPECT_FALSE(buffered.persistent_);
  EXPECT_TRUE(buffered.buffered_);
}

template <typename Client>
concept TellsItsTimeOut = requires(Client& client) {
  client.getTimeOut();
};

TEST(CorvaneClient, ItsTimeOutCanBeSetAndNotAskedFor) {
  EXPECT_FALSE(TellsItsTimeOut<CorvaneClient>);
}

TEST(CorvaneClient, ItsSettersSetWhatTheyName) {
  TestClient client(7, kFresh);
  client.usePeristentConnection(true);
  EXPECT_TRUE(client.persistent());
  client.useBufferedConnection(true);
  EXPECT_TRUE(client.buffered());
  client.usePeristentConnection(false);
  client.useBufferedConnection(false);
  EXPECT_FALSE(client.persistent());
  EXPECT_FALSE(client.buffered());
}

TEST(CorvaneClient, ByDefaultIsUnspecifiedAndFailsAtOnce) {
  ScriptedNetwork network(Script().awaitClose());
  TestClient client;
  EXPECT_EQ(utf8(client.getHost()), "<unspecified>");
  EXPECT_EQ(client.getPort(), 0U);
  EXPECT_FALSE(client.persistent());
  EXPECT_FALSE(client.buffered());
  const Raised raised = raisedBy([&] { client.open(); });
  ASSERT_EQ(raised.size(), 1U) << "no system was asked, so that there is no cause";
  EXPECT_EQ(raised[0].id, "ERR_CONNECT_SERVER");
  EXPECT_EQ(raised[0].arguments, (std::vector<std::string>{"<unspecified>", "0"}));
  EXPECT_EQ(network.connectAttempts(), 0U);
  EXPECT_FALSE(client.isConnected());
}

TEST(CorvaneClient, OpensAndCloses) {
  ScriptedNetwork network(Script().awaitClose());
  TestClient client(7, kFresh);
  client.open();
  EXPECT_TRUE(client.isConnected());
  EXPECT_EQ(network.connections(), 1U);
  client.close();
  EXPECT_FALSE(client.isConnected());
  EXPECT_TRUE(network.connection(0).clientClosed);
}

TEST(CorvaneClient, AnOpenPersistentConnectionIsNotTouchedByOpen) {
  ScriptedNetwork network(Script().awaitClose());
  TestClient client(7, kPersistent);
  client.open();
  const auto receives = network.receives();
  const auto polls = network.polls();
  client.open();
  EXPECT_EQ(network.connections(), 1U);
  EXPECT_EQ(network.receives(), receives);
  EXPECT_EQ(network.polls(), polls);
  EXPECT_TRUE(client.isConnected());
}

TEST(CorvaneClient, APersistentConnectionThatTheServerHasClosedIsLeftAloneByOpen) {
  ScriptedNetwork network(Script().send("x"));
  TestClient client(7, kPersistent);
  client.open();
  client.open();
  EXPECT_EQ(network.connections(), 1U);
}

TEST(CorvaneClient, AnOpenConnectionThatIsNotPersistentIsReplacedByOpen) {
  ScriptedNetwork network(Script().awaitClose());
  TestClient client(7, kFresh);
  client.open();
  client.open();
  EXPECT_EQ(network.connections(), 2U);
  EXPECT_TRUE(network.connection(0).clientClosed);
  EXPECT_FALSE(network.connection(1).clientClosed);
}

TEST(CorvaneClient, CloseIgnoresPersistent) {
  ScriptedNetwork network(Script().awaitClose());
  TestClient client(7, kPersistent);
  client.open();
  client.close();
  EXPECT_TRUE(network.connection(0).clientClosed);
  EXPECT_FALSE(client.isConnected());
  client.open();
  EXPECT_EQ(network.connections(), 2U);
}

TEST(CorvaneClient, CloseWithoutAConnectionDoesNothing) {
  ScriptedNetwork network(Script().awaitClose());
  TestClient client(7, kPersistent);
  EXPECT_NO_THROW(client.close());
  client.open();
  client.close();
  EXPECT_NO_THROW(client.close());
  EXPECT_EQ(network.connections(), 1U);
}

TEST(CorvaneClient, ItsEndReleasesTheConnection) {
  ScriptedNetwork network(Script().awaitClose());
  {
    TestClient client(7, kPersistent);
    client.open();
  }
  EXPECT_TRUE(network.connection(0).clientClosed);
}

TEST(CorvaneClient, AConnectThatFailsCarriesTheSystemsMessageBehindItsOwn) {
  ScriptedNetwork network(Script().awaitClose());
  network.failConnects(ECONNREFUSED);
  TestClient client(7, kFresh);
  try {
    client.open();
    FAIL();
  } catch (const RESTException& error) {
    const auto& messages = error.getMessageList();
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(utf8(messages.begin()->getMessageId()), "ERR_CONNECT_SERVER");
    ASSERT_EQ(messages.begin()->getArguments().size(), 2U);
    EXPECT_EQ(utf8(messages.begin()->getArguments()[0]), "127.0.0.1");
    EXPECT_EQ(utf8(messages.begin()->getArguments()[1]), "7");
    EXPECT_STREQ(messages.begin()->getFileName(), "kruCorvaneClient");
    EXPECT_GT(messages.begin()->getLineNumber(), 0U);
    EXPECT_EQ(utf8((messages.begin() + 1)->getMessageId()), "TQ_ERR_SOCKET");
    EXPECT_EQ(utf8((messages.begin() + 1)->getMessageText()), "Connection refused");
  }
  EXPECT_FALSE(client.isConnected());
  EXPECT_EQ(network.connectAttempts(), 1U) << "open does not retry";
  network.failConnects(0);
  EXPECT_NO_THROW(client.open());
  EXPECT_TRUE(client.isConnected());
}

/// A system whose look-up of a name goes wrong in a way that is no error of a socket.
class StrangeSystem {
 public:
  explicit StrangeSystem(void (*fail)()) : calls_(tq::oss::realSystemCalls()) {
    reason() = fail;
    calls_.getaddrinfo = [](const char*, const char*, const addrinfo*, addrinfo**) {
      reason()();
      return EAI_FAIL;
    };
    previous_ = tq::oss::replaceSystemCalls(&calls_);
  }
  ~StrangeSystem() { tq::oss::replaceSystemCalls(previous_); }
  StrangeSystem(const StrangeSystem&) = delete;
  StrangeSystem& operator=(const StrangeSystem&) = delete;

 private:
  static void (*&reason())() {
    static void (*fail)() = nullptr;
    return fail;
  }
  tq::oss::SystemCalls calls_;
  const tq::oss::SystemCalls* previous_;
};

TEST(CorvaneClient, AConnectThatFailsForAnotherReasonCarriesItsOwnMessageAlone) {
  const auto raisedFor = [](void (*fail)()) {
    const StrangeSystem system(fail);
    TestClient client(7, kFresh);
    auto raised = raisedBy([&] { client.open(); });
    EXPECT_FALSE(client.isConnected());
    return raised;
  };
  std::vector<unsigned long> lines;
  for (const auto fail : {+[] { throw tq::oss::NLSException(); },
                          +[] { throw std::runtime_error("from elsewhere"); }, +[] { throw 17; }}) {
    const auto raised = raisedFor(fail);
    ASSERT_EQ(raised.size(), 1U);
    EXPECT_EQ(raised.front().id, "ERR_CONNECT_SERVER");
    EXPECT_EQ(raised.front().file, "kruCorvaneClient");
    EXPECT_EQ(raised.front().arguments, (std::vector<std::string>{"127.0.0.1", "7"}));
    lines.push_back(raised.front().line);
  }
  EXPECT_NE(lines[0], lines[1]) << "each case is told from the others by its line";
  EXPECT_EQ(lines[1], lines[2]);
}

TEST(CorvaneClient, ACloseThatFailsIsSwallowedAndCountsAsClosed) {
  for (const bool byOpen : {false, true}) {
    ScriptedServer server(Script().awaitClose());
    tq::test::FakeSystemCalls system;
    TestClient client(server.port(), kFresh);
    client.open();
    system.fail(tq::test::Call::Close, 1, EIO);
    if (byOpen) {
      EXPECT_NO_THROW(client.open()) << "the old connection is given up";
    } else {
      EXPECT_NO_THROW(client.close());
      EXPECT_FALSE(client.isConnected());
      EXPECT_NO_THROW(client.open());
    }
    EXPECT_TRUE(client.isConnected());
  }
}

TEST(CorvaneClient, APortInItsArgumentsHasPlainDigits) {
  ScriptedNetwork network(Script().awaitClose());
  network.failConnects(ECONNREFUSED);
  TestClient client(54321, kFresh);
  EXPECT_EQ(errorOf([&] { client.open(); }).errorArguments,
            (std::vector<std::string>{"127.0.0.1", "54321"}));
}

TEST(CorvaneClient, AThreadThatIsCancelledWhileConnectingEnds) {
  tq::test::FakeSystemCalls fake;
  fake.cancelIn(tq::test::Call::Connect, 1);
  TestClient client(7, kFresh);
  EXPECT_TRUE(endsItsThread([&] { client.open(); }));
  EXPECT_FALSE(client.isConnected());
}

TEST(CorvaneClient, AFailedReopenLeavesItUnconnected) {
  ScriptedNetwork network(Script().awaitClose());
  TestClient client(7, kFresh);
  client.open();
  network.failConnects(EHOSTUNREACH);
  EXPECT_THROW(client.open(), RESTException);
  EXPECT_FALSE(client.isConnected());
  EXPECT_TRUE(network.connection(0).clientClosed);
}

TEST(CorvaneClient, AConnectThatIsNeverAnsweredEndsWithTheTimeOut) {
  ScriptedNetwork network(Script().awaitClose());
  network.ignoreConnects();
  TestClient client(7, kFresh);
  client.setTimeOut(250);
  EXPECT_EQ(errorOf([&] { client.open(); }).errorId, "ERR_CONNECT_SERVER");
  EXPECT_GE(network.elapsedMillis(), 249U);
  EXPECT_LE(network.elapsedMillis(), 350U);
  EXPECT_FALSE(network.waitedForever());
}

TEST(CorvaneClient, WithoutATimeOutAConnectWaitsWithoutLimit) {
  ScriptedNetwork network(Script().awaitClose());
  network.ignoreConnects();
  TestClient client(7, kFresh);
  EXPECT_EQ(errorOf([&] { client.open(); }).errorId, "ERR_CONNECT_SERVER");
  EXPECT_TRUE(network.waitedForever());
  EXPECT_EQ(network.elapsedMillis(), 0U);
}

TEST(CorvaneClient, ConnectsToTheAddressesItIsGivenInsteadOfLookingTheNameUp) {
  ScriptedServer server(Script().send("hi"));
  Socket::_AddrInfoExternal addresses;
  ASSERT_TRUE(addresses.add(u"127.0.0.1", server.port()));
  CorvaneClient client(u"no such host.invalid", 1, addresses, false, false);
  client.open();
  EXPECT_EQ(readOnce(client, 1), "h");
}

TEST(CorvaneClient, DataToReadIsTrueAtOnceWithoutATimeOutOrWithoutWaiting) {
  ScriptedNetwork network(Script().awaitClose());
  TestClient client(7, kFresh);
  client.open();
  const auto polls = network.polls();
  EXPECT_TRUE(client.dataToRead(true)) << "no time-out is set";
  client.setTimeOut(100);
  EXPECT_TRUE(client.dataToRead(false));
  EXPECT_EQ(network.polls(), polls);
  EXPECT_EQ(network.receives(), 0U);
  EXPECT_EQ(network.elapsedMillis(), 0U);
  client.setTimeOut(0);
  EXPECT_TRUE(client.dataToRead(true)) << "0 switches the time-out off";
  EXPECT_EQ(network.polls(), polls);
}

TEST(CorvaneClient, DataToReadRaisesTheTimeOutWithHostAndPort) {
  ScriptedNetwork network(Script().awaitClose());
  TestClient client(7, kFresh);
  client.open();
  client.setTimeOut(300);
  const auto error = errorOf([&] { client.dataToRead(true); });
  EXPECT_EQ(error.errorId, "ERR_SERVER_COMM_TIMEOUT");
  EXPECT_EQ(error.errorArguments, (std::vector<std::string>{"127.0.0.1", "7"}));
  EXPECT_EQ(error.errorFile, "kruCorvaneClient");
  EXPECT_GE(network.elapsedMillis(), 300U);
  EXPECT_LE(network.elapsedMillis(), 400U);
}

TEST(CorvaneClient, DataToReadReturnsWhenBytesArriveOrThePeerCloses) {
  for (const auto& script : {Script().send("x").awaitClose(), Script()}) {
    ScriptedNetwork network(script, ScriptedNetwork::Arrival::OnDemand);
    TestClient client(7, kFresh);
    client.setTimeOut(100);
    client.open();
    EXPECT_TRUE(client.dataToRead(true));
    EXPECT_EQ(network.elapsedMillis(), 0U);
  }
}

TEST(CorvaneClient, DataToReadOnAConnectionThatIsNotThereIsASocketException) {
  TestClient client(7, kFresh);
  client.setTimeOut(100);
  EXPECT_THROW(client.dataToRead(true), tq::oss::SocketException);
}

TEST(CorvaneClient, ReadWaitsForAllBytesAndReturnsEachOnce) {
  ScriptedNetwork network(Script().send("abcdefghij", 3).awaitClose(),
                          ScriptedNetwork::Arrival::OnDemand);
  TestClient client(7, kFresh);
  client.open();
  EXPECT_EQ(read(client, 4), "abcd");
  EXPECT_EQ(read(client, 4), "efgh");
  EXPECT_EQ(read(client, 2), "ij");
}

TEST(CorvaneClient, ReadGivesWhatThereIsBeforeTheClose) {
  ScriptedNetwork network(Script().send("abc"));
  TestClient client(7, kFresh);
  client.open();
  EXPECT_EQ(read(client, 10), "abc");
  EXPECT_EQ(read(client, 10), "");
  EXPECT_EQ(read(client, 10), "");
}

TEST(CorvaneClient, ReadPutsTheBytesBehindTheOffset) {
  ScriptedNetwork network(Script().send("abcdef").awaitClose());
  TestClient client(7, kFresh);
  client.open();
  std::string buffer = "0123456789";
  EXPECT_EQ(client.read(buffer.data(), 2, 3, false), 3U);
  EXPECT_EQ(buffer, "01abc56789");
  EXPECT_EQ(client.readOnce(buffer.data(), 7, 2, false), 2U);
  EXPECT_EQ(buffer, "01abc56de9");
}

TEST(CorvaneClient, ReadAppliesTheTimeOutWhenToldToWait) {
  ScriptedNetwork network(Script().awaitClose());
  TestClient client(7, kFresh);
  client.setTimeOut(200);
  client.open();
  EXPECT_EQ(errorOf([&] { read(client, 4, true); }).errorId, "ERR_SERVER_COMM_TIMEOUT");
  EXPECT_LE(network.elapsedMillis(), 300U);
  EXPECT_FALSE(network.waitedForever());
}

TEST(CorvaneClient, ReadWithoutWaitingAppliesNoTimeOut) {
  ScriptedNetwork network(Script().awaitClose());
  TestClient client(7, kFresh);
  client.setTimeOut(200);
  client.open();
  EXPECT_THROW(read(client, 4, false), tq::oss::SocketException);
  EXPECT_TRUE(network.waitedForever());
}

TEST(CorvaneClient, ReadOnceTakesWhatIsThere) {
  ScriptedNetwork network(Script().send("abc").send("defgh").awaitClose(),
                          ScriptedNetwork::Arrival::OnDemand);
  TestClient client(7, kFresh);
  client.open();
  EXPECT_EQ(readOnce(client, 100), "abc");
  EXPECT_EQ(readOnce(client, 2), "de");
  EXPECT_EQ(readOnce(client, 100), "fgh");
}

TEST(CorvaneClient, ReadOnceReturns0WhenThePeerHasClosed) {
  ScriptedNetwork network{Script()};
  TestClient client(7, kFresh);
  client.open();
  EXPECT_EQ(readOnce(client, 100), "");
}

TEST(CorvaneClient, ReadOnceNeverAppliesTheTimeOut) {
  ScriptedNetwork network(Script().awaitClose());
  TestClient client(7, kFresh);
  client.setTimeOut(200);
  client.open();
  EXPECT_THROW(readOnce(client, 4, true), tq::oss::SocketException);
  EXPECT_TRUE(network.waitedForever()) << "only the peer could have ended this wait";
  EXPECT_EQ(network.elapsedMillis(), 0U);
}

TEST(CorvaneClient, AReadWithWaitEndsWithTheTimeOutAlsoWhenSomeOfItsBytesHaveCome) {
  ScriptedNetwork network(Script().send("ab").stall());
  TestClient client(7, kFresh);
  client.setTimeOut(200);
  client.open();
  const auto error = errorOf([&] { read(client, 4, true); });
  EXPECT_EQ(error.errorId, "ERR_SERVER_COMM_TIMEOUT");
  EXPECT_EQ(error.errorArguments, (std::vector<std::string>{"127.0.0.1", "7"}));
  EXPECT_FALSE(network.waitedForever());
  EXPECT_GE(network.elapsedMillis(), 200U);
  EXPECT_LE(network.elapsedMillis(), 300U);
  EXPECT_EQ(readOnce(client, 4), "ab") << "it has taken nothing";
}

TEST(CorvaneClient, AReadWithWaitEndsWithTheLastByteThatItAskedFor) {
  ScriptedNetwork network(Script().send("ab").send("cd").stall(),
                          ScriptedNetwork::Arrival::OnDemand);
  TestClient client(7, kFresh);
  client.setTimeOut(200);
  client.open();
  EXPECT_EQ(read(client, 4, true), "abcd");
  EXPECT_EQ(network.elapsedMillis(), 0U);
}

TEST(CorvaneClient, AReadWithWaitGivesWhatThereIsBeforeTheEnd) {
  for (const auto& script : {Script().send("ab"), Script().send("ab").reset()}) {
    ScriptedNetwork network(script);
    TestClient client(7, kFresh);
    client.setTimeOut(200);
    client.open();
    EXPECT_EQ(read(client, 4, true), "ab");
  }
}

TEST(CorvaneClient, AReadWithWaitThatTheHostGivesUpInItsMiddleTakesNothing) {
  ScriptedNetwork network(Script().send("ab").stall());
  TestClient client(7, kFresh);
  client.setTimeOut(200);
  client.open();
  WaitingHost host{0, 1};
  client.setWaitHook(&WaitingHost::wait, &host);
  EXPECT_THROW(read(client, 4, true), tq::oss::SocketCancelledException);
  EXPECT_EQ(host.waits, 1U);
  EXPECT_TRUE(client.isConnected());
  EXPECT_EQ(readOnce(client, 4), "ab");
}

TEST(CorvaneClient, EveryReadByHandEndsWithTheDeadline) {
  std::string buffer(4, '?');
  const std::function<void(CorvaneClient&)> reads[] = {
      [](CorvaneClient& client) { readOnce(client, 4); },
      [](CorvaneClient& client) { read(client, 4); },
      [](CorvaneClient& client) { read(client, 4, true); },
      [&](CorvaneClient& client) { client.genericRead(buffer.data(), 0, 4, false); },
      [](CorvaneClient& client) {
        client.setTimeOut(5000);
        client.dataToRead(true);
      },
  };
  for (const auto& readByHand : reads) {
    ScriptedNetwork network(Script().stall());
    TestClient client(7, kFresh);
    client.open();
    client.setDeadline(200);
    EXPECT_EQ(errorOf([&] { readByHand(client); }).errorId, "ERR_SERVER_COMM_TIMEOUT");
    EXPECT_FALSE(network.waitedForever());
    EXPECT_GE(network.elapsedMillis(), 200U);
    EXPECT_LE(network.elapsedMillis(), 300U);
  }
}

TEST(CorvaneClient, ABrokenConnectionIsTheSocketsOwnException) {
  ScriptedNetwork network(Script().send("ab").reset());
  TestClient client(7, kFresh);
  client.open();
  EXPECT_EQ(readOnce(client, 2), "ab");
  EXPECT_THROW(readOnce(client, 2), tq::oss::SocketException);
  EXPECT_THROW(read(client, 2), tq::oss::SocketException);
  EXPECT_THROW(read(client, 2, true), tq::oss::SocketException);
}

TEST(CorvaneClient, GenericReadChoosesBetweenTakingOnceAndWaitingForAll) {
  ScriptedNetwork network(Script().send("abcd", 2).awaitClose(),
                          ScriptedNetwork::Arrival::OnDemand);
  TestClient client(7, kFresh);
  client.open();
  std::string buffer(4, '?');
  EXPECT_EQ(client.genericRead(buffer.data(), 0, 4, false), 4U);
  EXPECT_EQ(buffer, "abcd");
  // The full read has left the bytes in the socket.
  std::string again(4, '?');
  EXPECT_EQ(client.genericRead(again.data(), 0, 4, true), 4U);
  EXPECT_EQ(again, "abcd");
}

TEST(CorvaneClient, AReadByHandThatTheHostGivesUpIsTheSocketsOwnExceptionAndClosesNothing) {
  const std::function<void(CorvaneClient&)> reads[] = {
      [](CorvaneClient& client) { readOnce(client, 4); },
      [](CorvaneClient& client) { read(client, 4); },
      [](CorvaneClient& client) { client.dataToRead(true); },
  };
  for (const auto& readByHand : reads) {
    ScriptedNetwork network(Script().send("abcd").awaitClose(), ScriptedNetwork::Arrival::OnDemand);
    TestClient client(7, kFresh);
    client.setTimeOut(200);
    client.open();
    WaitingHost host{0, 1};
    client.setWaitHook(&WaitingHost::wait, &host);
    EXPECT_THROW(readByHand(client), tq::oss::SocketCancelledException);
    EXPECT_EQ(host.waits, 1U);
    EXPECT_TRUE(client.isConnected());
    EXPECT_EQ(readOnce(client, 4), "abcd") << "what comes later is not lost";
  }
}

TEST(CorvaneClient, IsPolymorphicAndCannotBeCopied) {
  EXPECT_TRUE(std::has_virtual_destructor_v<CorvaneClient>);
  EXPECT_FALSE(std::is_copy_constructible_v<CorvaneClient>);
  EXPECT_FALSE(std::is_copy_assignable_v<CorvaneClient>);
}

TEST(CorvaneClient, OverLoopbackARefusedPortIsAClearError) {
  const RefusedPort refused;
  TestClient client(refused.port(), kFresh);
  const auto error = errorOf([&] { client.open(); });
  EXPECT_EQ(error.errorId, "ERR_CONNECT_SERVER");
  EXPECT_EQ(error.errorArguments,
            (std::vector<std::string>{"127.0.0.1", std::to_string(refused.port())}));
}

TEST(CorvaneClient, AHostThatCannotBeResolvedIsAClearError) {
  ScriptedNetwork network(Script().awaitClose());
  network.failLookups();
  CorvaneClient client(u"nowhere.invalid", 7, Socket::NullAddrInfoExternal, false, false);
  const auto error = errorOf([&] { client.open(); });
  EXPECT_EQ(error.errorId, "ERR_CONNECT_SERVER");
  EXPECT_EQ(error.errorArguments, (std::vector<std::string>{"nowhere.invalid", "7"}));
  EXPECT_EQ(network.connectAttempts(), 0U);
}

TEST(CorvaneClient, ANameThatNoHostCanHaveFailsInTheSystemsOwnLookUp) {
  // A label of 64 characters is refused before anybody is asked for it.
  const icu::UnicodeString host(64, U'x', 64);
  CorvaneClient client(host, 7, Socket::NullAddrInfoExternal, false, false);
  const auto raised = raisedBy([&] { client.open(); });
  ASSERT_EQ(raised.size(), 2U);
  EXPECT_EQ(raised[0].id, "ERR_CONNECT_SERVER");
  EXPECT_EQ(raised[0].arguments, (std::vector<std::string>{std::string(64, 'x'), "7"}));
  EXPECT_FALSE(raised[1].text.empty()) << "the reason that the system gives";
  EXPECT_FALSE(client.isConnected());
}

TEST(CorvaneClient, OverLoopbackItConnectsByName) {
  ScriptedServer server(Script().send("hello"));
  CorvaneClient client(u"localhost", server.port(), Socket::NullAddrInfoExternal, false, false);
  client.open();
  EXPECT_EQ(read(client, 5), "hello");
}

TEST(CorvaneClient, OverLoopbackTheTimeOutEndsAWaitAndCloseShowsAtTheServer) {
  ScriptedServer server(Script().stall());
  TestClient client(server.port(), kFresh);
  client.open();
  client.setTimeOut(20);
  EXPECT_EQ(errorOf([&] { client.dataToRead(true); }).errorId, "ERR_SERVER_COMM_TIMEOUT");
  client.close();
  server.awaitClientClose(0);
}

TEST(CorvaneClient, OverLoopbackWhatItWritesIsWhatTheServerReceives) {
  ScriptedServer server(Script().expectBytes(5).send("ok").awaitClose());
  TestClient client(server.port(), kFresh);
  client.open();
  client.write("12345");
  EXPECT_EQ(read(client, 2), "ok");
  EXPECT_EQ(server.connection(0).requests, std::vector<std::string>{"12345"});
}

}  // namespace
