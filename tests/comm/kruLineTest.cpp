#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "comm/kruLine.h"
#include "infra/oss/kruSocket.h"
#include "tests/support/loopback.h"

namespace tq::comm {
namespace {

using State = Line::State;

constexpr std::uint64_t kMine = 7;
constexpr std::uint64_t kOther = 8;
constexpr std::size_t kMaxChunk = 1000;

void write(Line& line, unsigned int questions) { Line::Sending(line).done(questions); }

/// Part of a request was written.
void leaveUnwritten(Line& line) { const Line::Sending sending(line); }

/// Owes its reply to `kMine`.
void owe(Line& line) {
  line.connected();
  write(line, 1);
  line.beginReply(kMine);
}

/// A line in this state; one in which a reply was begun if that can be.
Line lineIn(State state) {
  Line line;
  if (state == State::NotConnected) return line;
  owe(line);
  if (state == State::Clean) line.endReply(kMine);
  if (state == State::Tail) line.endChunkedReply(kMine, false, kMaxChunk);
  if (state == State::Uncertain) line.doubt();
  if (state == State::Asked) {
    line.endReply(kMine);
    write(line, 1);
  }
  if (state == State::Broken) leaveUnwritten(line);
  return line;
}

constexpr State kStates[] = {State::NotConnected, State::Clean,     State::Tail,  State::Owed,
                             State::Asked,        State::Uncertain, State::Broken};

/// What an event makes of each state, in the order of `kStates`.
struct Case {
  const char* event;
  std::function<void(Line&)> happens;
  State becomes[std::size(kStates)];
};

constexpr State N = State::NotConnected;
constexpr State C = State::Clean;
constexpr State T = State::Tail;
constexpr State O = State::Owed;
constexpr State A = State::Asked;
constexpr State U = State::Uncertain;
constexpr State B = State::Broken;

TEST(Line, EachEventMakesOfEachStateWhatTheLedgerSays) {
  const Case cases[] = {
      {"connected", [](Line& l) { l.connected(); }, {C, C, C, C, C, C, C}},
      {"closed", [](Line& l) { l.closed(); }, {N, N, N, N, N, N, N}},
      {"no question", [](Line& l) { write(l, 0); }, {N, C, T, O, A, U, B}},
      {"one question", [](Line& l) { write(l, 1); }, {U, A, A, U, U, U, U}},
      {"two questions", [](Line& l) { write(l, 2); }, {U, U, U, U, U, U, U}},
      {"broken write", leaveUnwritten, {N, B, B, B, B, B, B}},
      {"begin", [](Line& l) { l.beginReply(kOther); }, {N, O, O, O, O, U, B}},
      {"read on", [](Line& l) { l.readOn(kMine); }, {N, O, O, O, U, U, B}},
      {"read on, other", [](Line& l) { l.readOn(kOther); }, {N, U, U, O, U, U, B}},
      {"read on, none", [](Line& l) { l.readOn(0); }, {N, U, U, O, U, U, B}},
      {"end", [](Line& l) { l.endReply(kMine); }, {N, C, T, C, A, U, B}},
      {"end, other", [](Line& l) { l.endReply(kOther); }, {N, C, T, O, A, U, B}},
      {"end in chunks",
       [](Line& l) { l.endChunkedReply(kMine, true, kMaxChunk); },
       {N, C, T, T, A, U, B}},
      {"end in chunks, other",
       [](Line& l) { l.endChunkedReply(kOther, true, kMaxChunk); },
       {N, C, T, O, A, U, B}},
      {"abandon", [](Line& l) { l.abandonReply(); }, {N, C, T, U, U, U, B}},
      {"doubt", [](Line& l) { l.doubt(); }, {N, U, U, U, U, U, B}},
      {"disturb", [](Line& l) { l.disturb(); }, {N, U, U, U, U, U, B}},
  };
  for (const Case& c : cases) {
    for (std::size_t i = 0; i < std::size(kStates); ++i) {
      Line line = lineIn(kStates[i]);
      ASSERT_EQ(line.state(), kStates[i]) << i;
      c.happens(line);
      EXPECT_EQ(static_cast<int>(line.state()), static_cast<int>(c.becomes[i]))
          << c.event << " in state " << i;
    }
  }
}

TEST(Line, TheNumberOfEachConnectionIsItsOwn) {
  Line line;
  EXPECT_EQ(line.connectionNumber(), 0U);
  line.connected();
  EXPECT_EQ(line.connectionNumber(), 1U);
  line.closed();
  EXPECT_EQ(line.connectionNumber(), 1U);
  line.connected();
  EXPECT_EQ(line.connectionNumber(), 2U);
}

TEST(Line, ANewConnectionOwesNothingToAnExchangeOfTheOldOne) {
  for (const std::uint64_t exchange : {kMine, std::uint64_t{1}}) {
    Line line = lineIn(State::Clean);
    line.connected();
    line.readOn(exchange);
    EXPECT_EQ(line.state(), State::Uncertain) << exchange;
  }
}

TEST(Line, OnAConnectionWithoutAReplyYetNobodyReadsOn) {
  Line line;
  line.connected();
  line.readOn(0);
  EXPECT_EQ(line.state(), State::Uncertain);
}

TEST(Line, OnlyANewConnectionIsUndisturbed) {
  Line line = lineIn(State::Owed);
  EXPECT_FALSE(line.isDisturbed());
  line.disturb();
  EXPECT_TRUE(line.isDisturbed());
  line.closed();
  EXPECT_TRUE(line.isDisturbed());
  line.connected();
  EXPECT_FALSE(line.isDisturbed());
}

/// A line over a real connection.
class LineOnASocket : public testing::Test {
 protected:
  LineOnASocket() { owe(line); }

  /// Returns when the bytes are in the socket's buffer.
  void arrive(const char* bytes) {
    const unsigned long before = socket.buffered();
    peer.send(bytes);
    while (socket.buffered() < before + std::string_view(bytes).size()) socket.fill();
  }

  support::Listener listener;
  tq::oss::Socket socket;
  Line line;
  support::Peer peer{[this] {
    socket.connect(u"127.0.0.1", listener.port(), tq::oss::Socket::NullAddrInfoExternal, nullptr);
    return listener.accept();
  }()};
};

TEST_F(LineOnASocket, WithoutATailNothingIsSkipped) {
  line.endReply(kMine);
  arrive("0\r\n\r\n");
  EXPECT_FALSE(line.skipArrivedTail(socket));
  EXPECT_EQ(socket.buffered(), 5U);
  EXPECT_FALSE(line.isReusable(socket));
}

TEST_F(LineOnASocket, ATailThatHasArrivedIsSkipped) {
  line.endChunkedReply(kMine, true, kMaxChunk);
  arrive("\r\nHTTP");
  EXPECT_TRUE(line.skipArrivedTail(socket));
  EXPECT_EQ(socket.peek(), "HTTP");
  EXPECT_FALSE(line.skipArrivedTail(socket));
}

TEST_F(LineOnASocket, OneByteOfATailIsSkippedToo) {
  line.endChunkedReply(kMine, true, kMaxChunk);
  arrive("X");
  EXPECT_TRUE(line.skipArrivedTail(socket));
  EXPECT_EQ(socket.buffered(), 0U);
}

TEST_F(LineOnASocket, AfterTheResultsTheLastChunkMayStillCome) {
  line.endChunkedReply(kMine, false, kMaxChunk);
  EXPECT_TRUE(line.isReusable(socket));
  arrive("\r\n0\r\n\r\n");
  EXPECT_TRUE(line.isReusable(socket));
  EXPECT_EQ(socket.buffered(), 0U);
  EXPECT_EQ(line.state(), State::Clean);
}

TEST_F(LineOnASocket, AChunkOfTheTailMayNotBeLongerThanAllowed) {
  line.endChunkedReply(kMine, false, 15);
  arrive("\r\n10\r\n");
  EXPECT_TRUE(line.skipArrivedTail(socket));
  EXPECT_TRUE(line.tailIsBroken());
}

TEST_F(LineOnASocket, ABrokenTailCountsAsFoundAndIsNotReused) {
  line.endChunkedReply(kMine, false, kMaxChunk);
  arrive("x");
  EXPECT_TRUE(line.skipArrivedTail(socket)) << "although nothing was skipped";
  EXPECT_TRUE(line.tailIsBroken());
  EXPECT_FALSE(line.isReusable(socket));
}

TEST_F(LineOnASocket, AStatusLineThatBeganAsATrailerIsGivenBackWhole) {
  line.endChunkedReply(kMine, true, kMaxChunk);
  arrive("HTT");
  EXPECT_TRUE(line.skipArrivedTail(socket));
  EXPECT_EQ(socket.buffered(), 0U);
  EXPECT_FALSE(line.isReusable(socket)) << "undecided";
  arrive("P/1.1");
  EXPECT_TRUE(line.skipArrivedTail(socket)) << "although nothing more was skipped";
  EXPECT_EQ(socket.peek(), "HTTP/1.1");
}

TEST_F(LineOnASocket, ItsOwnTailIsPartOfAStreamThatIsReadOn) {
  line.endChunkedReply(kMine, false, kMaxChunk);
  line.readOn(kMine);
  arrive("\r\n0\r\n\r\n");
  EXPECT_FALSE(line.skipArrivedTail(socket));
}

TEST_F(LineOnASocket, TheTailOfAnotherExchangeIsNot) {
  line.endChunkedReply(kMine, false, kMaxChunk);
  line.readOn(kOther);
  arrive("\r\n0\r\n\r\n");
  EXPECT_TRUE(line.skipArrivedTail(socket));
}

TEST_F(LineOnASocket, ATailEndsWithItsConnection) {
  arrive("\r\n0\r\n");
  Line closed = lineIn(State::Tail);
  closed.closed();
  EXPECT_FALSE(closed.skipArrivedTail(socket));
  Line made = lineIn(State::Tail);
  made.connected();
  EXPECT_FALSE(made.skipArrivedTail(socket));
}

TEST_F(LineOnASocket, OnlyACleanLineIsReused) {
  for (const State state : kStates) {
    EXPECT_EQ(lineIn(state).isReusable(socket), state == State::Clean || state == State::Tail);
  }
  line.endReply(kMine);
  EXPECT_TRUE(line.isReusable(socket));
  arrive("unasked");
  EXPECT_FALSE(line.isReusable(socket));
}

TEST_F(LineOnASocket, OneWhosePeerHasClosedIsNotReused) {
  line.endReply(kMine);
  peer.close();
  EXPECT_EQ(socket.fill(), 0U);
  EXPECT_FALSE(line.isReusable(socket));
}

}  // namespace
}  // namespace tq::comm
