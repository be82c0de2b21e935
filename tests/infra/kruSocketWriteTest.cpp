#include <gtest/gtest.h>
#include <sys/socket.h>

#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "infra/oss/kruConverter.h"
#include "tests/infra/socketFixture.h"

namespace {

using SocketWrite = SocketFixture;

TEST_F(SocketWrite, SendsFromTheOffsetOn) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  socket.write("abcdef", 2, 3);
  EXPECT_EQ(peer.receive(3), "cde");
  EXPECT_TRUE(peer.isQuiet());
}

TEST_F(SocketWrite, PiecesLeaveTogetherInOneCall) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  const Socket::Piece pieces[] = {{"head\n", 5}, {"", 0}, {"prefix", 6}, {"content", 7}};
  socket.write(pieces, 4);
  EXPECT_EQ(peer.receive(18), "head\nprefixcontent");
  EXPECT_EQ(fake.count(Call::Sendmsg), 1U);
}

TEST_F(SocketWrite, NothingToSendAsksNobody) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  const Socket::Piece empty[] = {{nullptr, 0}, {"", 0}};
  socket.write(empty, 2);
  socket.write(nullptr, 0);
  socket.write("abc", 3, 0);
  EXPECT_EQ(fake.count(Call::Sendmsg), 0U);
}

TEST_F(SocketWrite, AnyNumberOfPiecesArrivesInOrder) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  std::vector<std::string> texts;
  std::vector<Socket::Piece> pieces;
  std::string expected;
  for (int i = 0; i < 100; ++i) {
    texts.push_back(i % 7 == 0 ? std::string() : std::to_string(i));
    expected += texts.back();
  }
  for (const std::string& text : texts) pieces.push_back({text.data(), text.size()});
  socket.write(pieces.data(), static_cast<unsigned int>(pieces.size()));
  EXPECT_EQ(peer.receive(expected.size()), expected);
  EXPECT_LT(fake.count(Call::Sendmsg), 10U);
}

// Within a deadline the clock is looked at between calls, so that none may take long.
TEST_F(SocketWrite, WithADeadlineNoCallSendsMoreThan128KiBOfAllPieces) {
  constexpr std::size_t kMax = 128 * 1024;
  Socket socket;
  tq::test::Peer peer = connected(socket);
  socket.setDeadline(Deadline::in(60000));
  const std::string text(100000, 'a');
  const Socket::Piece pieces[] = {{text.data(), 100000}, {text.data(), 40000}};
  std::string received;
  std::thread reader([&] { received = peer.receive(140000); });
  socket.write(pieces, 2);
  reader.join();
  EXPECT_EQ(received.size(), 140000U);
  for (const std::size_t length : fake.sendLengths()) EXPECT_LE(length, kMax);
  EXPECT_EQ(fake.sendLengths().front(), kMax);
}

TEST_F(SocketWrite, AShortTransferIsContinuedWhereItStopped) {
  const std::string expected = "abcdefghijklm";
  const Socket::Piece pieces[] = {{"abc", 3}, {"", 0}, {"defgh", 5}, {"ijklm", 5}};
  for (std::size_t limit = 1; limit <= 6; ++limit) {
    Socket socket;
    tq::test::Peer peer = connected(socket);
    fake.limitTransfer(Call::Sendmsg, limit);
    socket.write(pieces, 4);
    EXPECT_EQ(peer.receive(expected.size()), expected) << limit;
  }
}

TEST_F(SocketWrite, MoreThanTheKernelHoldsIsSentWhole) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  const std::string bytes(32 * 1024 * 1024, 'w');
  std::string got;
  std::thread reader([&] { got = peer.receive(bytes.size()); });
  socket.setDeadline(Deadline::in(50000));
  socket.write(bytes.data(), 0, bytes.size());
  reader.join();
  EXPECT_TRUE(got == bytes);
}

TEST_F(SocketWrite, ASignalOnlyDelaysASend) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.interrupt(Call::Sendmsg, 3);
  socket.write("abc", 0, 3);
  EXPECT_EQ(peer.receive(3), "abc");
}

TEST_F(SocketWrite, AFailureCarriesTheSystemsWordsAndNumber) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.fail(Call::Sendmsg, 1, ENETUNREACH);
  const SocketException failure = thrown([&] { socket.write("abc", 0, 3); });
  EXPECT_EQ(failure.getErrorNumber(), ENETUNREACH);
  EXPECT_EQ(tq::oss::Converter::toUTF8(failure.getMessageList().front().getMessageText()),
            std::strerror(ENETUNREACH));
  EXPECT_EQ(firstArgument(failure), describe(u"send to", listener.port()));
}

TEST_F(SocketWrite, ASocketThatIsNotConnectedSaysSo) {
  Socket socket;
  EXPECT_EQ(thrown([&] { socket.write("abc", 0, 3); }).getErrorNumber(), ENOTCONN);
}

TEST_F(SocketWrite, APeerThatIsGoneRaisesAnExceptionAndNoSignal) {
  ASSERT_NE(std::signal(SIGPIPE, SIG_DFL), SIG_ERR);
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.reset();
  arrived();
  EXPECT_EQ(socket.look(), Socket::Look::Closed);
  const SocketException failure = thrown([&] { socket.write("abc", 0, 3); });
  EXPECT_EQ(failure.getErrorNumber(), EPIPE);
  EXPECT_EQ(fake.lastFlags(Call::Sendmsg) & MSG_NOSIGNAL, MSG_NOSIGNAL);
}

TEST_F(SocketWrite, AReplyThatWasSentBeforeTheCloseCanStillBeRead) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  peer.send("sorry");
  arrived();
  EXPECT_EQ(socket.look(), Socket::Look::Data);
  fake.fail(Call::Sendmsg, 1, EPIPE);
  thrown([&] { socket.write("abc", 0, 3); });
  EXPECT_EQ(readOnce(socket, 5), "sorry");
}

TEST_F(SocketWrite, TheWaitForRoomEndsAtTheDeadline) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.stall(Call::Sendmsg);
  const std::uint64_t deadline = fake.now() + 25 * tq::test::FakeSystemCalls::kMilli;
  socket.setDeadline(Deadline::at(deadline));
  const auto late = thrown<SocketTimeoutException>([&] { socket.write("abc", 0, 3); });
  EXPECT_EQ(firstArgument(late), describe(u"send to", listener.port()));
  EXPECT_EQ(fake.now(), deadline);
}

TEST_F(SocketWrite, BehindItsDeadlineNothingIsSent) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  socket.setDeadline(Deadline::at(1));
  const auto late = thrown<SocketTimeoutException>([&] { socket.write("abc", 0, 3); });
  EXPECT_EQ(firstArgument(late), describe(u"send to", listener.port()));
  EXPECT_EQ(fake.count(Call::Sendmsg), 0U);
}

TEST_F(SocketWrite, APeerThatDoesNotReadCannotHoldAWriterForEver) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  const std::string bytes(64 * 1024 * 1024, 'w');
  socket.setDeadline(Deadline::in(20));
  thrown<SocketTimeoutException>([&] { socket.write(bytes.data(), 0, bytes.size()); });
}

TEST_F(SocketWrite, AFailingPollIsReported) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.fail(Call::Sendmsg, 1, EAGAIN);
  fake.fail(Call::Poll, 1, ENOMEM);
  EXPECT_EQ(thrown([&] { socket.write("abc", 0, 3); }).getErrorNumber(), ENOMEM);
}

TEST_F(SocketWrite, WithoutADeadlineASendIsOneBlockingCall) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  fake.resetCounts();
  socket.write("abc", 0, 3);
  EXPECT_EQ(fake.count(Call::Sendmsg), 1U);
  EXPECT_EQ(fake.count(Call::Poll), 0U);
  EXPECT_EQ(fake.count(Call::Clock), 0U);
  EXPECT_EQ(fake.lastFlags(Call::Sendmsg), MSG_NOSIGNAL);
}

TEST_F(SocketWrite, ABeginningTellsTheSystemThatMoreFollowsAndTheRestThatNothingDoes) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  socket.writeBeginning("xabc", 1, 3);
  EXPECT_EQ(fake.lastFlags(Call::Sendmsg), MSG_NOSIGNAL | MSG_MORE);
  socket.write("def", 0, 3);
  EXPECT_EQ(fake.lastFlags(Call::Sendmsg), MSG_NOSIGNAL);
  EXPECT_EQ(peer.receive(6), "abcdef");
}

TEST_F(SocketWrite, ABeginningWithoutARestIsPushedOut) {
  Socket socket;
  tq::test::Peer peer = connected(socket);
  socket.writeBeginning("abc", 0, 3);
  fake.resetCounts();
  socket.pushOut();
  EXPECT_EQ(fake.count(Call::Setsockopt), 1U);
  EXPECT_EQ(peer.receive(3), "abc");
  socket.close();
  socket.pushOut();
  EXPECT_EQ(fake.count(Call::Setsockopt), 1U);
}

}  // namespace
