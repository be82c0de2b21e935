#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "infra/oss/kruConverter.h"
#include "tests/infra/socketFixture.h"

namespace {

using tq::oss::Converter;

/// The process lacks one of its standard streams while this lives, so that the next descriptor gets
/// its number. Nothing may be printed meanwhile.
class WithoutStream {
 public:
  explicit WithoutStream(int number)
      : number_(number), kept_(::fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
    std::fflush(nullptr);
    ::close(number);
  }
  ~WithoutStream() {
    if (kept_ < 0) return;
    ::dup2(kept_, number_);
    ::close(kept_);
  }
  WithoutStream(const WithoutStream&) = delete;
  WithoutStream& operator=(const WithoutStream&) = delete;

 private:
  int number_;
  int kept_;
};

constexpr int kStandardStreams[] = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};

class SocketConnect : public SocketFixture {
 protected:
  static constexpr std::uint64_t kMilli = tq::test::FakeSystemCalls::kMilli;

  void connect(Socket& socket, unsigned int port,
               const Socket::_AddrInfoExternal& addresses = Socket::NullAddrInfoExternal,
               const unsigned long* timeout = nullptr) {
    socket.connect(u"127.0.0.1", port, addresses, timeout);
  }

  static Socket::_AddrInfoExternal addresses(const std::vector<unsigned int>& ports) {
    Socket::_AddrInfoExternal result;
    for (const unsigned int port : ports) EXPECT_TRUE(result.add(u"127.0.0.1", port));
    return result;
  }

  int option(int level, int name) {
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(::getsockopt(fake.lastDescriptor(), level, name, &value, &length), 0);
    return value;
  }

  tq::test::DeadPort dead;
};

TEST_F(SocketConnect, ReachesAServerByItsAddress) {
  Socket socket;
  EXPECT_FALSE(socket.isOpen());
  connect(socket, listener.port());
  EXPECT_TRUE(socket.isOpen());
  tq::test::Peer peer = listener.accept();
  peer.send("hi");
  EXPECT_EQ(read(socket, 2), "hi");
}

TEST_F(SocketConnect, ReachesAServerByItsName) {
  Socket socket;
  socket.connect(u"localhost", listener.port(), Socket::NullAddrInfoExternal, nullptr);
  EXPECT_TRUE(socket.isOpen());
}

TEST_F(SocketConnect, ARefusalNamesHostPortAndReason) {
  Socket socket;
  const SocketException failure = thrown([&] { connect(socket, dead.port()); });
  EXPECT_EQ(failure.getErrorNumber(), ECONNREFUSED);
  EXPECT_EQ(firstArgument(failure), describe(u"connect to", dead.port()));
  EXPECT_STREQ(failure.getMessageList().front().getFileName(), "kruSocket");
  EXPECT_FALSE(socket.isOpen());
}

TEST_F(SocketConnect, DescriptorsAreClosedOnExecAndDoNotDelaySmallWrites) {
  Socket socket;
  connect(socket, listener.port());
  EXPECT_EQ(::fcntl(fake.lastDescriptor(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(fake.lastFlags(Call::Socket) & SOCK_CLOEXEC, SOCK_CLOEXEC)
      << "set when the descriptor is made, so that no fork can come in between";
  EXPECT_NE(option(IPPROTO_TCP, TCP_NODELAY), 0);
  EXPECT_EQ(::fcntl(fake.lastDescriptor(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(SocketConnect, NoConnectionGetsTheNumberOfAStandardStreamThatTheHostHasClosed) {
  for (const int stream : kStandardStreams) {
    fake.resetCounts();
    bool streamIsClosed = false;
    std::string received;
    Socket socket;
    {
      const WithoutStream none(stream);
      connect(socket, 1, addresses({dead.port(), listener.port(), dead.port()}));
      streamIsClosed = ::fcntl(stream, F_GETFD) < 0;
      tq::test::Peer peer = listener.accept();
      peer.send("hi");
      received = read(socket, 2);
    }
    EXPECT_TRUE(streamIsClosed) << stream;
    EXPECT_GT(fake.lastDescriptor(), STDERR_FILENO);
    EXPECT_EQ(::fcntl(fake.lastDescriptor(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(received, "hi");
    EXPECT_EQ(fake.count(Call::Close), 3U) << "the failed attempt's, and the number of each stream";
  }
}

TEST_F(SocketConnect, NoConnectionGetsTheNumberOfOneOfSeveralStreamsThatTheHostHasClosed) {
  std::string received;
  Socket socket;
  {
    const WithoutStream noInput(STDIN_FILENO);
    const WithoutStream noOutput(STDOUT_FILENO);
    const WithoutStream noErrors(STDERR_FILENO);
    connect(socket, listener.port());
    tq::test::Peer peer = listener.accept();
    peer.send("hi");
    received = read(socket, 2);
  }
  EXPECT_GT(fake.lastDescriptor(), STDERR_FILENO);
  EXPECT_EQ(received, "hi");
}

TEST_F(SocketConnect, ANumberThatCannotBeReplacedIsReportedAndGivenBack) {
  for (const int stream : kStandardStreams) {
    fake.resetCounts();
    fake.fail(Call::Fcntl, 1, EMFILE);
    int errorNumber = 0;
    bool streamIsClosed = false;
    Socket socket;
    {
      const WithoutStream none(stream);
      errorNumber = thrown([&] { connect(socket, listener.port()); }).getErrorNumber();
      streamIsClosed = ::fcntl(stream, F_GETFD) < 0;
    }
    EXPECT_EQ(errorNumber, EMFILE);
    EXPECT_TRUE(streamIsClosed) << stream;
    EXPECT_EQ(fake.count(Call::Close), 1U);
    EXPECT_EQ(fake.count(Call::Connect), 0U);
    EXPECT_FALSE(socket.isOpen());
  }
}

TEST_F(SocketConnect, AnyOtherNumberIsKeptWithoutACall) {
  Socket socket;
  connect(socket, listener.port());
  EXPECT_EQ(fake.count(Call::Fcntl), 1U) << "the one that makes it blocking";
  EXPECT_EQ(fake.count(Call::Close), 0U);
}

TEST_F(SocketConnect, DescriptorsFarAbove1024Work) {
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  ASSERT_GE(limit.rlim_max, 1300U);
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  fake.descriptorsFrom(1200);
  Socket socket;
  const unsigned long timeout = 10000;
  connect(socket, listener.port(), Socket::NullAddrInfoExternal, &timeout);
  ASSERT_GE(fake.lastDescriptor(), 1200);
  tq::test::Peer peer = listener.accept();
  peer.send("hi");
  std::list<Socket> readers{socket};
  std::list<Socket> none;
  EXPECT_EQ(Socket::select(readers, none, none, &timeout), 1);
  socket.setDeadline(Deadline::in(10000));
  EXPECT_EQ(read(socket, 2), "hi");
}

// Several addresses.

TEST_F(SocketConnect, EveryGivenAddressIsTried) {
  Socket socket;
  connect(socket, 1, addresses({dead.port(), dead.port(), listener.port()}));
  EXPECT_TRUE(socket.isOpen());
  EXPECT_EQ(fake.count(Call::Connect), 3U);
  EXPECT_EQ(fake.count(Call::Close), 2U) << "descriptors of failed attempts leaked";
  EXPECT_EQ(fake.count(Call::Getaddrinfo), 3U) << "only for the digits; nothing is resolved";
}

TEST_F(SocketConnect, EveryResolvedAddressIsTried) {
  fake.resolveTo({"127.0.0.9", "127.0.0.1"});
  fake.fail(Call::Connect, 1, EHOSTUNREACH);
  Socket socket;
  socket.connect(u"db.example", listener.port(), Socket::NullAddrInfoExternal, nullptr);
  EXPECT_TRUE(socket.isOpen());
  EXPECT_EQ(fake.count(Call::Connect), 2U);
}

TEST_F(SocketConnect, WhenAllFailTheLastReasonIsGiven) {
  fake.fail(Call::Connect, 1, EHOSTUNREACH);
  Socket socket;
  const auto failure = thrown([&] {
    connect(socket, 1, addresses({listener.port(), dead.port()}));
  });
  EXPECT_EQ(failure.getErrorNumber(), ECONNREFUSED);
  EXPECT_EQ(fake.count(Call::Close), 2U);
}

TEST_F(SocketConnect, AnAddressFamilyThatIsNotThereIsPassedOver) {
  Socket::_AddrInfoExternal both;
  ASSERT_TRUE(both.add(u"::1", listener.port()));
  ASSERT_TRUE(both.add(u"127.0.0.1", listener.port()));
  fake.fail(Call::Socket, 1, EAFNOSUPPORT);
  Socket socket;
  connect(socket, 1, both);
  EXPECT_TRUE(socket.isOpen());
}

TEST_F(SocketConnect, AnAddressWithoutAPortGetsTheOneOfTheCall) {
  Socket socket;
  connect(socket, listener.port(), addresses({0}));
  EXPECT_TRUE(socket.isOpen());
}

TEST_F(SocketConnect, ThePortOfTheCallMattersOnlyWhereItIsUsed) {
  Socket socket;
  connect(socket, 0, addresses({listener.port()}));
  EXPECT_TRUE(socket.isOpen());
  EXPECT_EQ(thrown([&] { connect(socket, 0, addresses({0})); }).getErrorNumber(), EINVAL);
}

// Time-outs.

TEST_F(SocketConnect, ASilentServerRaisesWithinTheTimeOut) {
  fake.stall(Call::Connect);
  const std::uint64_t start = fake.now();
  const unsigned long timeout = 250;
  Socket socket;
  const auto late = thrown<SocketTimeoutException>(
      [&] { connect(socket, listener.port(), Socket::NullAddrInfoExternal, &timeout); });
  EXPECT_EQ(firstArgument(late), describe(u"connect to", listener.port()));
  EXPECT_EQ(fake.now() - start, 250 * kMilli);
  EXPECT_EQ(fake.count(Call::Close), 1U);
  EXPECT_FALSE(socket.isOpen());
}

TEST_F(SocketConnect, OneDeadlineIsSharedByAllAddresses) {
  fake.stall(Call::Connect);
  const std::uint64_t start = fake.now();
  const unsigned long timeout = 300;
  Socket socket;
  thrown<SocketTimeoutException>([&] {
    connect(socket, 1, addresses({listener.port(), listener.port(), dead.port()}), &timeout);
  });
  EXPECT_EQ(fake.count(Call::Connect), 3U);
  EXPECT_EQ(fake.now() - start, 300 * kMilli);
}

TEST_F(SocketConnect, AnAddressThatSwallowsPacketsLeavesTimeForTheNext) {
  fake.stallConnects(1);
  const std::uint64_t start = fake.now();
  const unsigned long timeout = 300;
  Socket socket;
  connect(socket, 1, addresses({dead.port(), listener.port()}), &timeout);
  EXPECT_TRUE(socket.isOpen());
  EXPECT_EQ(fake.now() - start, 150 * kMilli);
}

TEST_F(SocketConnect, TheDeadlineOfTheSocketHoldsForConnectingToo) {
  fake.stall(Call::Connect);
  Socket socket;
  socket.setDeadline(Deadline::in(40));
  const std::uint64_t start = fake.now();
  const unsigned long timeout = 1000;
  thrown<SocketTimeoutException>(
      [&] { connect(socket, listener.port(), Socket::NullAddrInfoExternal, &timeout); });
  EXPECT_EQ(fake.now() - start, 40 * kMilli);
}

TEST_F(SocketConnect, AnyTimeOutIsAllowed) {
  for (const unsigned long timeout : {std::numeric_limits<unsigned long>::max(), 1000000UL}) {
    Socket socket;
    connect(socket, listener.port(), Socket::NullAddrInfoExternal, &timeout);
    EXPECT_TRUE(socket.isOpen());
  }
}

// What else can fail.

TEST_F(SocketConnect, ASignalOnlyDelaysTheWaitForTheServer) {
  fake.interrupt(Call::Poll, 2);
  Socket socket;
  connect(socket, listener.port());
  EXPECT_EQ(fake.count(Call::Poll), 3U);
  EXPECT_TRUE(socket.isOpen());
}

TEST_F(SocketConnect, AnInterruptedConnectGoesOnByItself) {
  fake.fail(Call::Connect, 1, EINTR);
  Socket socket;
  tq::test::Peer peer = connected(socket);
  EXPECT_EQ(fake.count(Call::Connect), 1U);
  peer.send("hi");
  EXPECT_EQ(read(socket, 2), "hi");
}

TEST_F(SocketConnect, EachStepThatFailsIsReportedAndLeaksNothing) {
  const struct {
    Call call;
    unsigned int closes;
  } cases[] = {{Call::Socket, 0}, {Call::Setsockopt, 1}, {Call::Connect, 1},
               {Call::Poll, 1},   {Call::Getsockopt, 1}, {Call::Fcntl, 1}};
  for (const auto& c : cases) {
    fake.resetCounts();
    fake.fail(c.call, 1, ENOMEM);
    Socket socket;
    EXPECT_EQ(thrown([&] { connect(socket, listener.port()); }).getErrorNumber(), ENOMEM);
    EXPECT_FALSE(socket.isOpen());
    EXPECT_EQ(fake.count(Call::Close), c.closes) << static_cast<int>(c.call);
  }
}

TEST_F(SocketConnect, TheResolversWordsAreGiven) {
  fake.failResolver(EAI_NONAME);
  Socket socket;
  const SocketException failure = thrown(
      [&] { socket.connect(u"nowhere.example", 80, Socket::NullAddrInfoExternal, nullptr); });
  EXPECT_EQ(failure.getErrorNumber(), EAI_NONAME);
  EXPECT_EQ(Converter::toUTF8(failure.getMessageList().front().getMessageText()),
            ::gai_strerror(EAI_NONAME));
  EXPECT_EQ(firstArgument(failure), u"resolve nowhere.example port 80");
}

TEST_F(SocketConnect, ASystemErrorOfTheResolverIsGivenAsSuch) {
  fake.failResolver(EAI_SYSTEM, EMFILE);
  Socket socket;
  EXPECT_EQ(thrown([&] { connect(socket, 80); }).getErrorNumber(), EMFILE);
}

TEST_F(SocketConnect, ASignalOnlyDelaysTheResolver) {
  fake.interruptResolver(2);
  Socket socket;
  connect(socket, listener.port());
  EXPECT_TRUE(socket.isOpen());
}

TEST_F(SocketConnect, HostsAndPortsThatCannotBeAreRefusedBeforeAnythingIsAsked) {
  Socket socket;
  for (const unsigned int port : {0U, 65536U, 4294967295U}) {
    EXPECT_EQ(thrown([&] { connect(socket, port); }).getErrorNumber(), EINVAL) << port;
  }
  for (const icu::UnicodeString& host : {icu::UnicodeString(), icu::UnicodeString(u"a\0b", 3)}) {
    const SocketException failure =
        thrown([&] { socket.connect(host, 80, Socket::NullAddrInfoExternal, nullptr); });
    EXPECT_EQ(failure.getErrorNumber(), EINVAL);
  }
  EXPECT_EQ(fake.count(Call::Getaddrinfo), 0U);
  EXPECT_EQ(fake.count(Call::Socket), 0U);
}

// Life.

TEST_F(SocketConnect, AConnectClosesWhatWasOpenAndEmptiesTheBuffer) {
  Socket socket;
  tq::test::Peer first = connected(socket);
  first.send("old bytes");
  EXPECT_EQ(readOnce(socket, 1), "o");
  tq::test::Peer second = connected(socket);
  EXPECT_EQ(socket.buffered(), 0U);
  EXPECT_TRUE(first.seesClose());
  second.send("new");
  EXPECT_EQ(read(socket, 3), "new");
}

TEST_F(SocketConnect, AFailedConnectLeavesTheSocketUnconnectedAndUsableAgain) {
  Socket socket;
  tq::test::Peer first = connected(socket);
  thrown([&] { connect(socket, dead.port()); });
  EXPECT_FALSE(socket.isOpen());
  EXPECT_TRUE(first.seesClose());
  tq::test::Peer second = connected(socket);
  EXPECT_TRUE(socket.isOpen());
}

TEST_F(SocketConnect, AfterAReconnectTheOldEndIsForgotten) {
  Socket socket;
  {
    tq::test::Peer first = connected(socket);
    first.close();
    EXPECT_EQ(readOnce(socket, 1), "");
  }
  {
    tq::test::Peer second = connected(socket);
    second.send("a");
    EXPECT_EQ(readOnce(socket, 1), "a");
    second.reset();
    thrown([&] { readOnce(socket, 1); });
  }
  tq::test::Peer third = connected(socket);
  third.send("b");
  EXPECT_EQ(readOnce(socket, 1), "b");
}

TEST_F(SocketConnect, AFailureToCloseNamesThePeer) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.fail(Call::Close, 1, EIO);
  const SocketException failure = thrown([&] { socket.close(); });
  EXPECT_EQ(failure.getErrorNumber(), EIO);
  EXPECT_EQ(firstArgument(failure), describe(u"close connection to", listener.port()));
}

TEST_F(SocketConnect, AnOlderErrorOfTheSystemIsNotTakenForOneOfClosing) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  errno = EIO;
  socket.close();
  EXPECT_FALSE(socket.isOpen());
}

TEST_F(SocketConnect, CloseEmptiesTheBuffer) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  EXPECT_EQ(readOnce(socket, 1), "a");
  socket.close();
  EXPECT_FALSE(socket.isOpen());
  EXPECT_EQ(socket.buffered(), 0U);
  EXPECT_EQ(thrown([&] { readOnce(socket, 1); }).getErrorNumber(), ENOTCONN);
}

TEST_F(SocketConnect, ClosingTwiceClosesOnce) {
  Socket socket;
  socket.close();
  EXPECT_EQ(fake.count(Call::Close), 0U);
  tq::test::Peer peer = connected(socket);
  socket.close();
  socket.close();
  EXPECT_EQ(fake.count(Call::Close), 1U);
}

TEST_F(SocketConnect, AFailingCloseIsReportedAndTheSocketIsClosed) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.fail(Call::Close, 1, EIO);
  const SocketException failure = thrown([&] { socket.close(); });
  EXPECT_EQ(failure.getErrorNumber(), EIO);
  EXPECT_FALSE(socket.isOpen());
}

TEST_F(SocketConnect, AnInterruptedCloseIsNotRepeated) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.fail(Call::Close, 1, EINTR);
  socket.close();
  EXPECT_FALSE(socket.isOpen());
  EXPECT_EQ(fake.count(Call::Close), 1U);
}

TEST_F(SocketConnect, CopiesShareOneConnectionAndItsBuffer) {
  Socket socket;
  Socket before(socket);
  tq::test::Peer peer = connected(socket);
  Socket after;
  after = socket;
  peer.send("abc");
  EXPECT_EQ(readOnce(before, 1), "a");
  EXPECT_EQ(after.buffered(), 2U);
  EXPECT_EQ(readOnce(after, 1), "b");
  EXPECT_EQ(readOnce(socket, 1), "c");
  after.close();
  EXPECT_FALSE(socket.isOpen());
}

TEST_F(SocketConnect, TheLastCopyCloses) {
  Socket last;
  tq::test::Peer peer = [&] {
    Socket socket;
    tq::test::Peer accepted = connected(socket);
    last = socket;
    return accepted;
  }();
  EXPECT_EQ(fake.count(Call::Close), 0U);
  EXPECT_TRUE(peer.isQuiet());
  last = Socket();
  EXPECT_EQ(fake.count(Call::Close), 1U);
  EXPECT_TRUE(peer.seesClose());
}

TEST_F(SocketConnect, AMovedFromSocketIsStillASocket) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  // NOLINTNEXTLINE(performance-move-const-arg): moving copies, as promised
  const Socket moved = std::move(socket);
  EXPECT_TRUE(moved.isOpen());
  EXPECT_TRUE(socket.isOpen());  // NOLINT(bugprone-use-after-move)
}

// Addresses that were resolved beforehand.

using Addresses = tq::oss::Socket::_AddrInfoExternal;

static_assert(std::is_trivially_copyable_v<Addresses>);
static_assert(std::is_trivially_destructible_v<Addresses>);

TEST_F(SocketConnect, ThereAreNoAddressesAtFirst) {
  EXPECT_EQ(Addresses().size(), 0U);
  EXPECT_EQ(Socket::NullAddrInfoExternal.size(), 0U);
}

TEST_F(SocketConnect, OnlyAddressesInDigitsAreAdded) {
  Addresses known;
  for (const char16_t* host : {u"127.0.0.1", u"::1", u"2001:db8::7", u"255.255.255.255"}) {
    EXPECT_TRUE(known.add(host, 80));
  }
  for (const char16_t* host : {u"localhost", u"", u"127.0.0.1 ", u"1.2.3.4.5", u":::1"}) {
    EXPECT_FALSE(known.add(host, 80));
  }
  EXPECT_FALSE(known.add(icu::UnicodeString(u"127.0.0.1\0x", 11), 80));
  EXPECT_FALSE(known.add(u"127.0.0.1", 65536));
  EXPECT_EQ(known.size(), 4U);
}

TEST_F(SocketConnect, SixteenAddressesFit) {
  Addresses known;
  for (unsigned int i = 0; i < Addresses::kCapacity; ++i) EXPECT_TRUE(known.add(u"127.0.0.1", 80));
  EXPECT_FALSE(known.add(u"127.0.0.1", 80));
  EXPECT_EQ(known.size(), 16U);
}

TEST_F(SocketConnect, ResolvedAddressesConnectWithoutTheResolver) {
  const Addresses known = Addresses::resolve(u"127.0.0.1", listener.port());
  EXPECT_EQ(known.size(), 1U);
  fake.failResolver(EAI_FAIL);
  Socket socket;
  socket.connect(u"any name", listener.port(), known, nullptr);
  EXPECT_TRUE(socket.isOpen());
}

TEST_F(SocketConnect, OfManyResolvedAddressesTheFirstSixteenAreKept) {
  fake.resolveTo(std::vector<std::string>(40, "127.0.0.1"));
  EXPECT_EQ(Addresses::resolve(u"db.example", 80).size(), 16U);
}

TEST_F(SocketConnect, AHostThatCannotBeResolvedIsReported) {
  fake.failResolver(EAI_AGAIN);
  EXPECT_EQ(thrown([] { Addresses::resolve(u"db.example", 80); }).getErrorNumber(), EAI_AGAIN);
}

}  // namespace
