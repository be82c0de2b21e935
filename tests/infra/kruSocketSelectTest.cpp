#include <gtest/gtest.h>

#include <limits>
#include <list>
#include <string>

#include "tests/infra/socketFixture.h"

namespace {

class SocketSelect : public SocketFixture {
 protected:
  using Sockets = std::list<Socket>;

  static int selectReaders(Sockets& readers, const unsigned long* timeout) {
    Sockets writers;
    Sockets excepts;
    return Socket::select(readers, writers, excepts, timeout);
  }
};

TEST_F(SocketSelect, ASocketWithDataIsReady) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("a");
  Sockets readers{socket};
  EXPECT_EQ(selectReaders(readers, nullptr), 1);
  EXPECT_EQ(readers.size(), 1U);
  EXPECT_EQ(socket.buffered(), 0U) << "waiting takes nothing";
}

TEST_F(SocketSelect, TheTimeOutGivesZeroAndEmptyLists) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.stall(Call::Poll);
  const std::uint64_t start = fake.now();
  const unsigned long timeout = 70;
  Sockets readers{socket};
  EXPECT_EQ(selectReaders(readers, &timeout), 0);
  EXPECT_TRUE(readers.empty());
  EXPECT_EQ(fake.now() - start, 70 * tq::test::FakeSystemCalls::kMilli) << "milliseconds";
}

TEST_F(SocketSelect, ARealTimeOutPasses) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  const unsigned long timeout = 5;
  const std::uint64_t start = tq::oss::monotonicNanos();
  Sockets readers{socket};
  EXPECT_EQ(selectReaders(readers, &timeout), 0);
  EXPECT_GE(tq::oss::monotonicNanos() - start, 5 * tq::test::FakeSystemCalls::kMilli);
}

TEST_F(SocketSelect, ATimeOutOfZeroOnlyLooks) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  const unsigned long timeout = 0;
  Sockets readers{socket};
  EXPECT_EQ(selectReaders(readers, &timeout), 0);
  peer.send("a");
  arrived();
  readers = {socket};
  EXPECT_EQ(selectReaders(readers, &timeout), 1);
}

TEST_F(SocketSelect, ASignalLeavesOnlyTheRestOfTheTime) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.stall(Call::Poll);
  fake.interrupt(Call::Poll, 4);
  const std::uint64_t start = fake.now();
  const unsigned long timeout = 30;
  Sockets readers{socket};
  EXPECT_EQ(selectReaders(readers, &timeout), 0);
  EXPECT_EQ(fake.now() - start, 30 * tq::test::FakeSystemCalls::kMilli);
}

TEST_F(SocketSelect, AnyTimeOutIsAllowed) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("a");
  const unsigned long timeout = std::numeric_limits<unsigned long>::max();
  Sockets readers{socket};
  EXPECT_EQ(selectReaders(readers, &timeout), 1);
}

TEST_F(SocketSelect, BufferedBytesAreReadyWithoutAskingTheSystem) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("ab");
  EXPECT_EQ(read(socket, 2), "ab");
  EXPECT_EQ(readOnce(socket, 1), "a");
  fake.resetCounts();
  Sockets readers{socket};
  EXPECT_EQ(selectReaders(readers, nullptr), 1);
  EXPECT_EQ(fake.count(Call::Poll), 0U);
}

TEST_F(SocketSelect, ACloseThatWasSeenIsReady) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.close();
  EXPECT_EQ(readOnce(socket, 1), "");
  fake.resetCounts();
  Sockets readers{socket};
  EXPECT_EQ(selectReaders(readers, nullptr), 1);
  EXPECT_EQ(fake.count(Call::Poll), 0U);
}

TEST_F(SocketSelect, ACloseThatWasNotSeenYetIsReadyToo) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.close();
  Sockets readers{socket};
  EXPECT_EQ(selectReaders(readers, nullptr), 1);
}

TEST_F(SocketSelect, AResetThatWasSeenIsReady) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.reset();
  arrived();
  EXPECT_EQ(socket.look(), Socket::Look::Closed);
  Sockets readers{socket};
  EXPECT_EQ(selectReaders(readers, nullptr), 1);
}

TEST_F(SocketSelect, OnlyTheReadyOnesStayInTheLists) {
  Socket quiet;
  tq::test::Peer quietPeer = connected(quiet);
  Socket buffered;
  tq::test::Peer bufferedPeer = connected(buffered);
  bufferedPeer.send("ab");
  EXPECT_EQ(readOnce(buffered, 1), "a");
  Socket waiting;
  tq::test::Peer waitingPeer = connected(waiting);
  waitingPeer.send("c");
  arrived();
  Sockets readers{quiet, buffered, waiting};
  EXPECT_EQ(selectReaders(readers, nullptr), 2);
  ASSERT_EQ(readers.size(), 2U);
  EXPECT_EQ(readers.front().buffered(), 1U);
  EXPECT_EQ(readOnce(readers.back(), 1), "c");
}

TEST_F(SocketSelect, BesideOneThatIsKnownToBeReadyTheOthersAreNotWaitedFor) {
  Socket quiet;
  tq::test::Peer quietPeer = connected(quiet);
  Socket buffered;
  tq::test::Peer bufferedPeer = connected(buffered);
  bufferedPeer.send("ab");
  EXPECT_EQ(readOnce(buffered, 1), "a");
  fake.stall(Call::Poll);
  const std::uint64_t start = fake.now();
  const unsigned long timeout = 70;
  Sockets readers{quiet, buffered};
  EXPECT_EQ(selectReaders(readers, &timeout), 1);
  EXPECT_EQ(fake.now(), start) << "no time passes";
  EXPECT_EQ(fake.pollTimeouts().back(), 0);
}

TEST_F(SocketSelect, AWriterWithRoomIsReady) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  Sockets readers{socket};
  Sockets writers{socket};
  Sockets excepts{socket};
  EXPECT_EQ(Socket::select(readers, writers, excepts, nullptr), 1);
  EXPECT_TRUE(readers.empty());
  EXPECT_EQ(writers.size(), 1U);
  EXPECT_TRUE(excepts.empty());
}

TEST_F(SocketSelect, UrgentDataIsAnException) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("!", MSG_OOB);
  Sockets readers;
  Sockets writers;
  Sockets excepts{socket};
  EXPECT_EQ(Socket::select(readers, writers, excepts, nullptr), 1);
  EXPECT_EQ(excepts.size(), 1U);
}

TEST_F(SocketSelect, BufferedBytesDoNotMakeAWriter) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("ab");
  EXPECT_EQ(readOnce(socket, 1), "a");
  fake.stall(Call::Poll);
  const unsigned long timeout = 10;
  Sockets readers;
  Sockets writers{socket};
  Sockets excepts;
  EXPECT_EQ(Socket::select(readers, writers, excepts, &timeout), 0);
}

TEST_F(SocketSelect, EmptyListsGiveZeroAtOnce) {
  Sockets readers;
  EXPECT_EQ(selectReaders(readers, nullptr), 0);
  const unsigned long timeout = 60000;
  EXPECT_EQ(selectReaders(readers, &timeout), 0);
}

TEST_F(SocketSelect, ASocketThatIsNotConnectedSaysSo) {
  Sockets readers{Socket()};
  EXPECT_EQ(thrown([&] { selectReaders(readers, nullptr); }).getErrorNumber(), ENOTCONN);
}

TEST_F(SocketSelect, AFailingPollIsReported) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.fail(Call::Poll, 1, ENOMEM);
  Sockets readers{socket};
  const SocketException failure = thrown([&] { selectReaders(readers, nullptr); });
  EXPECT_EQ(failure.getErrorNumber(), ENOMEM);
  EXPECT_EQ(firstArgument(failure), u"wait for sockets");
}

}  // namespace
