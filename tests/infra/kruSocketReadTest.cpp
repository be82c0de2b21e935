#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <string>
#include <thread>

#include "tests/infra/socketFixture.h"
#include "tests/support/failingMemory.h"

namespace {

using SocketRead = SocketFixture;

constexpr unsigned long kBuffer = 64 * 1024;

std::string pattern(std::size_t length) {
  std::string bytes(length, '\0');
  for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(i * 31 + i / 251);
  return bytes;
}

TEST_F(SocketRead, ReadLeavesAndReadOnceTakes) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("hello world");
  EXPECT_EQ(read(socket, 5), "hello");
  EXPECT_EQ(read(socket, 11), "hello world");
  EXPECT_EQ(readOnce(socket, 6), "hello ");
  EXPECT_EQ(read(socket, 5), "world");
  EXPECT_EQ(readOnce(socket, 5), "world");
}

TEST_F(SocketRead, OneCallOfEachIntoTheSamePlaceGivesTheBytesOnce) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abcdef");
  char buffer[4] = {};
  EXPECT_EQ(socket.read(buffer, 0, 3), 3U);
  EXPECT_EQ(socket.readOnce(buffer, 0, 3), 3U);
  EXPECT_STREQ(buffer, "abc");
  EXPECT_EQ(readOnce(socket, 3), "def");
}

TEST_F(SocketRead, ReadWaitsForAllOfIt) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.limitTransfer(Call::Recv, 1);
  peer.send("abcdefgh");
  EXPECT_EQ(read(socket, 8), "abcdefgh");
  EXPECT_EQ(fake.count(Call::Recv), 8U);
}

TEST_F(SocketRead, ReadOnceWaitsForOneByteOnly) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.limitTransfer(Call::Recv, 1);
  peer.send("abc");
  EXPECT_EQ(readOnce(socket, 3), "a");
}

TEST_F(SocketRead, TheOffsetCountsFromTheBuffersStart) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("xyz");
  char buffer[] = "......";
  EXPECT_EQ(socket.read(buffer, 2, 3), 3U);
  EXPECT_STREQ(buffer, "..xyz.");
  EXPECT_EQ(socket.readOnce(buffer, 1, 3), 3U);
  EXPECT_STREQ(buffer, ".xyzz.");
}

TEST_F(SocketRead, ALengthOfZeroReturnsZeroAtOnce) {
  Socket socket;
  EXPECT_EQ(socket.read(nullptr, 0, 0), 0U);
  EXPECT_EQ(socket.readOnce(nullptr, 0, 0), 0U);
  tq::test::Peer peer = connected(socket);
  EXPECT_EQ(socket.read(nullptr, 0, 0), 0U);
  EXPECT_EQ(socket.readOnce(nullptr, 0, 0), 0U);
  EXPECT_EQ(fake.count(Call::Recv), 0U);
}

TEST_F(SocketRead, ASocketThatIsNotConnectedSaysSo) {
  Socket socket;
  char byte = 0;
  EXPECT_EQ(thrown([&] { socket.read(&byte, 0, 1); }).getErrorNumber(), ENOTCONN);
  EXPECT_EQ(thrown([&] { socket.readOnce(&byte, 0, 1); }).getErrorNumber(), ENOTCONN);
}

// The end of the connection.

TEST_F(SocketRead, AClosedPeerGivesZeroForEver) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.close();
  EXPECT_EQ(read(socket, 4), "");
  EXPECT_EQ(readOnce(socket, 4), "");
  EXPECT_EQ(read(socket, 4), "");
  EXPECT_EQ(readOnce(socket, 4), "");
  EXPECT_EQ(fake.count(Call::Recv), 1U) << "a close that was seen need not be asked for again";
}

TEST_F(SocketRead, WhatCameBeforeTheCloseIsGivenFirst) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  peer.close();
  EXPECT_EQ(read(socket, 10), "abc");
  EXPECT_EQ(read(socket, 10), "abc");
  EXPECT_EQ(readOnce(socket, 2), "ab");
  EXPECT_EQ(readOnce(socket, 10), "c");
  EXPECT_EQ(readOnce(socket, 10), "");
}

TEST_F(SocketRead, AResetIsAnExceptionForEver) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.reset();
  for (int i = 0; i < 2; ++i) {
    const SocketException once = thrown([&] { readOnce(socket, 4); });
    EXPECT_EQ(once.getErrorNumber(), ECONNRESET);
    EXPECT_EQ(firstArgument(once), describe(u"receive from", listener.port()));
    EXPECT_EQ(thrown([&] { read(socket, 4); }).getErrorNumber(), ECONNRESET);
  }
}

TEST_F(SocketRead, WhatCameBeforeAResetIsGivenFirst) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abcdef");
  EXPECT_EQ(readOnce(socket, 2), "ab");
  peer.reset();
  arrived();
  EXPECT_EQ(read(socket, 10), "cdef");
  EXPECT_EQ(readOnce(socket, 3), "cde");
  EXPECT_EQ(readOnce(socket, 3), "f");
  EXPECT_EQ(thrown([&] { readOnce(socket, 3); }).getErrorNumber(), ECONNRESET);
  EXPECT_EQ(thrown([&] { read(socket, 3); }).getErrorNumber(), ECONNRESET);
}

TEST_F(SocketRead, AResetMetWhileToppingUpIsKeptForTheNextRead) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abcd");
  EXPECT_EQ(readOnce(socket, 2), "ab");
  fake.fail(Call::Recv, 1, ECONNRESET);
  EXPECT_EQ(readOnce(socket, 10), "cd");
  EXPECT_EQ(thrown([&] { readOnce(socket, 10); }).getErrorNumber(), ECONNRESET);
}

TEST_F(SocketRead, ACloseMetWhileToppingUpIsKeptForTheNextRead) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abcd");
  peer.close();
  EXPECT_EQ(readOnce(socket, 2), "ab");
  EXPECT_EQ(readOnce(socket, 10), "cd");
  EXPECT_EQ(readOnce(socket, 10), "");
  EXPECT_EQ(fake.count(Call::Recv), 2U);
}

// System calls.

TEST_F(SocketRead, SmallPortionsShareOneReceive) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  const std::string bytes = pattern(1000);
  peer.send(bytes);
  EXPECT_EQ(read(socket, 1000), bytes);
  const unsigned int before = fake.count(Call::Recv);
  std::string got;
  while (got.size() < 1000) got += readOnce(socket, 8);
  EXPECT_EQ(got, bytes);
  EXPECT_EQ(fake.count(Call::Recv), before);
}

TEST_F(SocketRead, AWaitWithoutADeadlineIsOneBlockingReceive) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  std::thread sender([&] { peer.send("abc"); });
  fake.resetCounts();
  EXPECT_EQ(readOnce(socket, 100).substr(0, 1), "a");
  sender.join();
  EXPECT_EQ(fake.count(Call::Recv), 1U);
  EXPECT_EQ(fake.count(Call::Poll), 0U);
  EXPECT_EQ(fake.count(Call::Clock), 0U);
  EXPECT_EQ(fake.lastFlags(Call::Recv), 0);
}

TEST_F(SocketRead, ReceivesAreLargeWhateverIsAskedFor) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  EXPECT_EQ(readOnce(socket, 1), "a");
  EXPECT_EQ(fake.recvLengths(), std::vector<std::size_t>{kBuffer});
  EXPECT_EQ(socket.buffered(), 2U);
}

TEST_F(SocketRead, ReadOnceTopsUpWithOneReceiveThatDoesNotWait) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abcd");
  EXPECT_EQ(read(socket, 4), "abcd");
  peer.send("efgh");
  arrived();
  fake.resetCounts();
  EXPECT_EQ(readOnce(socket, 7), "abcdefg");
  EXPECT_EQ(fake.count(Call::Recv), 1U);
  EXPECT_EQ(fake.lastFlags(Call::Recv), MSG_DONTWAIT);
  EXPECT_EQ(socket.buffered(), 1U);
  EXPECT_EQ(readOnce(socket, 7), "h") << "nothing more is there, and nothing is waited for";
}

TEST_F(SocketRead, ReadOnceAsksForNothingMoreWhenItHasEnough) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abcd");
  EXPECT_EQ(read(socket, 4), "abcd");
  fake.resetCounts();
  EXPECT_EQ(readOnce(socket, 4), "abcd");
  EXPECT_EQ(fake.count(Call::Recv), 0U);
}

TEST_F(SocketRead, LargePortionsGoStraightToTheCaller) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  EXPECT_EQ(readOnce(socket, 3 * kBuffer), "abc");
  EXPECT_EQ(fake.recvLengths(), std::vector<std::size_t>{3 * kBuffer});
  peer.send("defg");
  arrived();
  EXPECT_EQ(readOnce(socket, 1), "d");
  peer.send("hij");
  arrived();
  fake.resetCounts();
  EXPECT_EQ(readOnce(socket, 3 * kBuffer), "efghij");
  EXPECT_EQ(fake.recvLengths(), std::vector<std::size_t>{3 * kBuffer - 3});
}

TEST_F(SocketRead, ASignalOnlyDelaysAReceive) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abcd");
  arrived();
  fake.interrupt(Call::Recv, 3);
  EXPECT_EQ(readOnce(socket, 2), "ab");
  fake.interrupt(Call::Recv, 2);
  EXPECT_EQ(readOnce(socket, 10), "cd");
}

// Memory.

TEST_F(SocketRead, MoreThanTheBufferIsReadWhole) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  const std::string bytes = pattern(40 * kBuffer + 17);
  std::thread sender([&] { peer.send(bytes); });
  EXPECT_EQ(readOnce(socket, 3), bytes.substr(0, 3));
  EXPECT_TRUE(read(socket, bytes.size() - 3) == bytes.substr(3));
  sender.join();
  EXPECT_EQ(socket.buffered(), bytes.size() - 3);
  EXPECT_TRUE(readOnce(socket, bytes.size()) == bytes.substr(3));
  EXPECT_EQ(socket.buffered(), 0U);
  peer.send("after");
  EXPECT_EQ(read(socket, 5), "after");
}

TEST_F(SocketRead, MemoryGrowsWithWhatArrivesAndNotWithWhatIsWanted) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  const std::string bytes = pattern(3 * kBuffer);
  std::thread sender([&] {
    peer.send(bytes);
    peer.close();
  });
  std::string place(bytes.size(), '?');
  EXPECT_EQ(socket.read(place.data(), 0, ~0UL), bytes.size());
  sender.join();
  EXPECT_TRUE(place == bytes);
  for (const std::size_t length : fake.recvLengths()) EXPECT_LE(length, 4 * kBuffer);
}

TEST_F(SocketRead, WithoutMemoryForABufferReadOnceStillReads) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  const tq::test::OutOfMemory out;
  EXPECT_EQ(readOnce(socket, 2), "ab");
  EXPECT_EQ(readOnce(socket, 2), "c");
}

TEST_F(SocketRead, WithoutMemoryReadSaysSoAndLosesNothing) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  {
    const tq::test::OutOfMemory out;
    EXPECT_THROW(read(socket, 2), tq::oss::NLSException);
  }
  EXPECT_EQ(read(socket, 3), "abc");
}

// Bytes put back.

TEST_F(SocketRead, PushedBackBytesComeFirst) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abcdef");
  EXPECT_EQ(readOnce(socket, 4), "abcd");
  socket.pushBack("cd", 2);
  socket.pushBack("XYZ", 3);
  socket.pushBack(nullptr, 0);
  EXPECT_EQ(socket.buffered(), 7U);
  EXPECT_EQ(read(socket, 7), "XYZcdef");
  EXPECT_EQ(readOnce(socket, 7), "XYZcdef");
}

TEST_F(SocketRead, BytesCanBePushedBackBeforeAnyHaveArrived) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  socket.pushBack("a", 1);
  EXPECT_EQ(readOnce(socket, 1), "a");
  socket.pushBack("bc", 2);
  peer.send("de");
  arrived();
  EXPECT_EQ(read(socket, 4), "bcde");
  EXPECT_EQ(readOnce(socket, 4), "bcde");
}

TEST_F(SocketRead, MoreThanTheBufferCanBePushedBack) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("tail");
  EXPECT_EQ(read(socket, 4), "tail");
  const std::string bytes = pattern(5 * kBuffer + 1);
  socket.pushBack(bytes.data(), bytes.size());
  EXPECT_TRUE(readOnce(socket, bytes.size()) == bytes);
  EXPECT_EQ(readOnce(socket, 10), "tail");
}

TEST_F(SocketRead, PushedBackBytesSurviveAClosedPeer) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.close();
  EXPECT_EQ(readOnce(socket, 1), "");
  socket.pushBack("ab", 2);
  EXPECT_EQ(read(socket, 10), "ab");
  EXPECT_EQ(readOnce(socket, 10), "ab");
  EXPECT_EQ(readOnce(socket, 10), "");
}

TEST_F(SocketRead, NothingCanBePushedBackIntoASocketThatIsNotConnected) {
  Socket socket;
  EXPECT_EQ(thrown([&] { socket.pushBack("a", 1); }).getErrorNumber(), ENOTCONN);
}

TEST_F(SocketRead, APushBackWithoutMemoryChangesNothing) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("ab");
  EXPECT_EQ(read(socket, 2), "ab");
  const std::string bytes(2 * kBuffer, 'x');
  const tq::test::OutOfMemory out;
  EXPECT_THROW(socket.pushBack(bytes.data(), bytes.size()), tq::oss::NLSException);
  EXPECT_EQ(readOnce(socket, 2), "ab");
}

// Showing what is buffered.

TEST_F(SocketRead, FillShowsWithoutTaking) {
  Socket socket;
  EXPECT_EQ(socket.peek(), "");
  tq::test::Peer peer = connected(socket);
  peer.send("hello");
  arrived();
  EXPECT_EQ(socket.peek(), "") << "peeking receives nothing";
  EXPECT_EQ(socket.fill(), 5U);
  EXPECT_EQ(socket.peek(), "hello");
  EXPECT_EQ(socket.peek(), "hello");
  socket.consume(2);
  EXPECT_EQ(socket.peek(), "llo");
  EXPECT_EQ(socket.buffered(), 3U);
  EXPECT_EQ(readOnce(socket, 9), "llo");
  EXPECT_EQ(socket.peek(), "");
}

TEST_F(SocketRead, FillReceivesOnceAndKeepsWhatIsThere) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.limitTransfer(Call::Recv, 2);
  peer.send("abcde");
  EXPECT_EQ(socket.fill(), 2U);
  EXPECT_EQ(socket.fill(), 4U);
  EXPECT_EQ(socket.fill(), 5U);
  EXPECT_EQ(socket.peek(), "abcde");
  EXPECT_EQ(fake.count(Call::Recv), 3U);
  EXPECT_EQ(fake.count(Call::Poll), 1U) << "that of connecting";
}

TEST_F(SocketRead, ConsumeTakesNoMoreThanIsBuffered) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  arrived();
  socket.fill();
  socket.consume(100);
  EXPECT_EQ(socket.peek(), "");
  peer.send("d");
  EXPECT_EQ(readOnce(socket, 1), "d");
}

TEST_F(SocketRead, FillTellsTheEndAndKeepsWhatIsThere) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  peer.close();
  EXPECT_EQ(socket.fill(), 3U);
  EXPECT_EQ(socket.fill(), 0U);
  EXPECT_EQ(socket.fill(), 0U);
  EXPECT_EQ(socket.peek(), "abc");
  EXPECT_EQ(fake.count(Call::Recv), 2U) << "an end that was seen is not asked for again";
}

TEST_F(SocketRead, FillThrowsAResetAndKeepsWhatIsThere) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  EXPECT_EQ(socket.fill(), 3U);
  peer.reset();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(thrown([&] { socket.fill(); }).getErrorNumber(), ECONNRESET);
    EXPECT_EQ(socket.peek(), "abc");
  }
}

TEST_F(SocketRead, FillWaitsUntilTheDeadline) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  arrived();
  socket.setDeadline(Deadline::in(5));
  EXPECT_EQ(socket.fill(), 3U);
  const auto late = thrown<SocketTimeoutException>([&] { socket.fill(); });
  EXPECT_EQ(firstArgument(late), describe(u"receive from", listener.port()));
  EXPECT_EQ(socket.peek(), "abc");
}

TEST_F(SocketRead, FillSaysWhenThereIsNoConnection) {
  Socket socket;
  EXPECT_EQ(thrown([&] { socket.fill(); }).getErrorNumber(), ENOTCONN);
}

TEST_F(SocketRead, FillWithoutMemoryBringsOneByteAtATime) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  arrived();
  {
    const tq::test::OutOfMemory out;
    EXPECT_EQ(socket.fill(), 1U);
    EXPECT_EQ(socket.peek(), "a");
    EXPECT_THROW(socket.fill(), tq::oss::NLSException);
    EXPECT_EQ(socket.peek(), "a") << "nothing is lost";
    socket.consume(1);
    EXPECT_EQ(socket.fill(), 1U);
  }
  EXPECT_EQ(socket.fill(), 2U);
  EXPECT_EQ(socket.peek(), "bc");
}

TEST_F(SocketRead, FillTakesALongStreamThroughABufferThatStaysSmall) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  const std::string bytes = pattern(3000001);
  std::thread writer([&] {
    peer.send(bytes);
    peer.close();
  });
  std::string got;
  while (socket.fill() != 0) {
    // All but a few bytes, as whoever parses records would.
    const std::string_view there = socket.peek();
    const std::size_t whole = there.size() - there.size() % 7;
    got.append(there.substr(0, whole));
    socket.consume(whole);
    ASSERT_LE(socket.buffered(), 6U);
  }
  got.append(socket.peek());
  writer.join();
  EXPECT_TRUE(got == bytes);
  for (const std::size_t length : fake.recvLengths()) {
    ASSERT_GE(length, kBuffer - 6);
    ASSERT_LE(length, kBuffer);
  }
}

// Looking.

TEST_F(SocketRead, ALookTellsQuietDataAndClosedApart) {
  Socket socket;
  EXPECT_EQ(socket.look(), Socket::Look::Closed);
  tq::test::Peer peer = connected(socket);
  EXPECT_EQ(socket.look(), Socket::Look::Quiet);
  EXPECT_EQ(fake.lastFlags(Call::Recv), MSG_DONTWAIT);
  peer.send("abc");
  arrived();
  EXPECT_EQ(socket.look(), Socket::Look::Data);
  EXPECT_EQ(socket.buffered(), 3U);
  EXPECT_EQ(readOnce(socket, 3), "abc");
  peer.close();
  arrived();
  EXPECT_EQ(socket.look(), Socket::Look::Closed);
  EXPECT_EQ(socket.look(), Socket::Look::Closed);
  EXPECT_EQ(readOnce(socket, 1), "");
}

TEST_F(SocketRead, ALookAtBufferedBytesAsksNobody) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  EXPECT_EQ(readOnce(socket, 1), "a");
  fake.resetCounts();
  EXPECT_EQ(socket.look(), Socket::Look::Data);
  EXPECT_EQ(fake.count(Call::Recv), 0U);
}

TEST_F(SocketRead, AResetLooksClosedAndIsStillThrown) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.reset();
  arrived();
  EXPECT_EQ(socket.look(), Socket::Look::Closed);
  EXPECT_EQ(thrown([&] { readOnce(socket, 1); }).getErrorNumber(), ECONNRESET);
}

TEST_F(SocketRead, ALookAtAConnectionThatHasEndedAsksNobody) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.close();
  EXPECT_EQ(socket.fill(), 0U);
  const unsigned int before = fake.count(Call::Recv);
  EXPECT_EQ(socket.look(), Socket::Look::Closed);
  socket.close();
  EXPECT_EQ(socket.look(), Socket::Look::Closed);
  EXPECT_EQ(fake.count(Call::Recv), before);
}

TEST_F(SocketRead, ALookNeedsNoMemory) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  const tq::test::OutOfMemory out;
  EXPECT_EQ(socket.look(), Socket::Look::Quiet);
  peer.send("abc");
  arrived();
  EXPECT_EQ(socket.look(), Socket::Look::Data);
  EXPECT_EQ(socket.buffered(), 1U);
  EXPECT_EQ(readOnce(socket, 3), "abc") << "the byte that the look met comes first";
  peer.close();
  arrived();
  EXPECT_EQ(socket.look(), Socket::Look::Closed);
}

// Deadlines.

TEST_F(SocketRead, EveryWaitForBytesEndsAtTheDeadline) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.stall(Call::Recv);
  const std::uint64_t deadline = fake.now() + 30 * tq::test::FakeSystemCalls::kMilli;
  socket.setDeadline(Deadline::at(deadline));
  const auto late = thrown<SocketTimeoutException>([&] { readOnce(socket, 4); });
  EXPECT_EQ(late.getErrorNumber(), ETIMEDOUT);
  EXPECT_EQ(firstArgument(late), describe(u"receive from", listener.port()));
  EXPECT_EQ(fake.now(), deadline);
  thrown<SocketTimeoutException>([&] { read(socket, 4); });
  EXPECT_EQ(fake.now(), deadline) << "a deadline that has passed allows no further wait";
}

TEST_F(SocketRead, ATimeOutAgainstARealPeerLosesNothing) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  arrived();
  const Deadline deadline = Deadline::in(20);
  socket.setDeadline(deadline);
  thrown<SocketTimeoutException>([&] { read(socket, 4); });
  EXPECT_TRUE(deadline.passed());
  EXPECT_EQ(socket.buffered(), 3U);
  socket.setDeadline(Deadline::none());
  peer.send("d");
  EXPECT_EQ(read(socket, 4), "abcd");
}

TEST_F(SocketRead, BytesThatAreThereAreGivenAfterTheDeadlineToo) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  arrived();
  socket.setDeadline(Deadline::at(1));
  EXPECT_EQ(read(socket, 3), "abc");
  EXPECT_EQ(readOnce(socket, 3), "abc");
  thrown<SocketTimeoutException>([&] { readOnce(socket, 3); });
}

TEST_F(SocketRead, APeerThatTricklesCannotStretchTheDeadline) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("ab");
  arrived();
  fake.limitTransfer(Call::Recv, 1);
  socket.setDeadline(Deadline::in(0));
  thrown<SocketTimeoutException>([&] { read(socket, 3); });
  EXPECT_EQ(socket.buffered(), 2U);
}

TEST_F(SocketRead, WithADeadlineTheWaitingIsDoneByPoll) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("abc");
  arrived();
  socket.setDeadline(Deadline::in(60000));
  fake.resetCounts();
  fake.fail(Call::Recv, 1, EAGAIN);
  EXPECT_EQ(readOnce(socket, 3), "abc");
  EXPECT_EQ(fake.count(Call::Recv), 2U);
  EXPECT_EQ(fake.count(Call::Poll), 1U);
  EXPECT_EQ(fake.lastFlags(Call::Recv), MSG_DONTWAIT);
}

TEST_F(SocketRead, ASignalDuringTheWaitLeavesTheDeadlineWhereItWas) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.stall(Call::Recv);
  const std::uint64_t deadline = fake.now() + 10 * tq::test::FakeSystemCalls::kMilli;
  socket.setDeadline(Deadline::at(deadline));
  fake.interrupt(Call::Poll, 5);
  thrown<SocketTimeoutException>([&] { readOnce(socket, 1); });
  EXPECT_EQ(fake.now(), deadline);
}

TEST_F(SocketRead, AFailingPollIsReported) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.failAll(Call::Poll, ENOMEM);
  socket.setDeadline(Deadline::in(0));
  const SocketException failure = thrown([&] { readOnce(socket, 1); });
  EXPECT_EQ(failure.getErrorNumber(), ENOMEM);
  EXPECT_EQ(firstArgument(failure), describe(u"wait for", listener.port()));
}

// Without a connection.

TEST_F(SocketRead, AClosedSocketNamesWhatItCannotDo) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  socket.close();
  char byte = 0;
  std::list<Socket> sockets{socket};
  std::list<Socket> none;
  const struct {
    const char16_t* verb;
    std::function<void()> operation;
  } cases[] = {
      {u"receive from", [&] { socket.read(&byte, 0, 1); }},
      {u"receive from", [&] { socket.readOnce(&byte, 0, 1); }},
      {u"receive from", [&] { socket.fill(); }},
      {u"send to", [&] { socket.write("a", 0, 1); }},
      {u"give bytes back to", [&] { socket.pushBack("a", 1); }},
      {u"wait for", [&] { Socket::select(sockets, none, none, nullptr); }},
  };
  for (const auto& c : cases) {
    const SocketException failure = thrown(c.operation);
    EXPECT_EQ(failure.getErrorNumber(), ENOTCONN);
    EXPECT_EQ(firstArgument(failure), describe(c.verb, listener.port()));
  }
}

TEST_F(SocketRead, FillingAtOnceTellsHowMuchIsThereWhenSomethingCame) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  EXPECT_EQ(socket.fillAtOnce(), 0U);
  peer.send("a");
  arrived();
  EXPECT_EQ(socket.fillAtOnce(), 1U);
  EXPECT_EQ(socket.fillAtOnce(), 0U);
  peer.send("bc");
  arrived();
  EXPECT_EQ(socket.fillAtOnce(), 3U);
}

}  // namespace
