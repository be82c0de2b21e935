#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <ostream>
#include <string>
#include <string_view>

#include "comm/kruLine.h"
#include "infra/oss/kruSocket.h"
#include "tests/support/forkedChild.h"
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

/// The first letters of `kStates`, which stand for them in the table below.
constexpr std::string_view kLetters = "NCTOAUB";

char letterOf(State state) {
  return kLetters[static_cast<std::size_t>(
      std::find(std::begin(kStates), std::end(kStates), state) - std::begin(kStates))];
}

TEST(Line, EachEventMakesOfEachStateWhatTheLedgerSays) {
  const struct {
    const char* event;
    std::function<void(Line&)> happens;
    const char* becomes;
  } cases[] = {
      {"nothing", [](Line&) {}, "NCTOAUB"},
      {"connected", [](Line& l) { l.connected(); }, "CCCCCCC"},
      {"closed", [](Line& l) { l.closed(); }, "NNNNNNN"},
      {"no question", [](Line& l) { write(l, 0); }, "NCTOAUB"},
      {"one question", [](Line& l) { write(l, 1); }, "UAAUUUU"},
      {"two questions", [](Line& l) { write(l, 2); }, "UUUUUUU"},
      {"broken write", leaveUnwritten, "NBBBBBB"},
      {"begin", [](Line& l) { l.beginReply(kOther); }, "NOOOOUB"},
      {"read on", [](Line& l) { l.readOn(kMine); }, "NOOOUUB"},
      {"read on, other", [](Line& l) { l.readOn(kOther); }, "NUUOUUB"},
      {"read on, none", [](Line& l) { l.readOn(0); }, "NUUOUUB"},
      {"end", [](Line& l) { l.endReply(kMine); }, "NCTCAUB"},
      {"end, other", [](Line& l) { l.endReply(kOther); }, "NCTOAUB"},
      {"end in chunks", [](Line& l) { l.endChunkedReply(kMine, true, kMaxChunk); }, "NCTTAUB"},
      {"end in chunks, other", [](Line& l) { l.endChunkedReply(kOther, true, kMaxChunk); },
       "NCTOAUB"},
      {"abandon", [](Line& l) { l.abandonReply(); }, "NCTUUUB"},
      {"doubt", [](Line& l) { l.doubt(); }, "NUUUUUB"},
      {"disturb", [](Line& l) { l.disturb(); }, "NUUUUUB"},
  };
  for (const auto& c : cases) {
    std::string became;
    for (const State state : kStates) {
      Line line = lineIn(state);
      c.happens(line);
      became += letterOf(line.state());
    }
    EXPECT_EQ(became, c.becomes) << c.event;
  }
}

TEST(Line, IsUncertainBehindTheLastReplyOfItsConnection) {
  for (const bool chunked : {false, true}) {
    Line line = lineIn(State::Owed);
    line.noteLastReply();
    EXPECT_EQ(line.state(), State::Owed) << "until it has been read";
    if (chunked) {
      line.endChunkedReply(kMine, false, kMaxChunk);
    } else {
      line.endReply(kMine);
    }
    EXPECT_EQ(line.state(), State::Uncertain);
    owe(line);
    line.endReply(kMine);
    EXPECT_EQ(line.state(), State::Clean) << "on another connection";
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

  tq::test::Listener listener;
  tq::oss::Socket socket;
  Line line;
  tq::test::Peer peer{[this] {
    socket.connect(u"127.0.0.1", listener.port(), tq::oss::Socket::NullAddrInfoExternal, nullptr);
    return listener.accept();
  }()};
};

/// How a reply ended, what arrived then, and what of that is left after the tail.
struct Arrived {
  const char* name;
  std::function<void(Line&)> ends;
  const char* bytes;
  bool found;
  const char* left;
};

void PrintTo(const Arrived& arrived, std::ostream* out) { *out << arrived.name; }

void endsWithTheLastChunk(Line& line) { line.endChunkedReply(kMine, true, kMaxChunk); }
void endsBeforeTheLastChunk(Line& line) { line.endChunkedReply(kMine, false, kMaxChunk); }

class TailOnASocket : public LineOnASocket, public testing::WithParamInterface<Arrived> {};

TEST_P(TailOnASocket, IsSkippedAsFarAsItHasArrived) {
  GetParam().ends(line);
  arrive(GetParam().bytes);
  EXPECT_EQ(line.skipArrivedTail(socket), GetParam().found);
  EXPECT_EQ(socket.peek(), GetParam().left);
  EXPECT_FALSE(line.tailIsBroken());
  EXPECT_FALSE(line.skipArrivedTail(socket)) << "for the second time";
  EXPECT_EQ(socket.peek(), GetParam().left);
}

const Arrived kArrived[] = {
    {"WithoutATailNothing", [](Line& line) { line.endReply(kMine); }, "0\r\n\r\n", false,
     "0\r\n\r\n"},
    {"Trailer", endsWithTheLastChunk, "\r\nHTTP", true, "HTTP"},
    {"OneByte", endsWithTheLastChunk, "X", true, ""},
    {"LastChunk", endsBeforeTheLastChunk, "\r\n0\r\n\r\nHTTP", true, "HTTP"},
    {"NotTheOwnOfAStreamThatIsReadOn",
     [](Line& line) {
       endsBeforeTheLastChunk(line);
       line.readOn(kMine);
     },
     "\r\n0\r\n\r\n", false, "\r\n0\r\n\r\n"},
    {"ThatOfAnotherStream",
     [](Line& line) {
       endsBeforeTheLastChunk(line);
       line.readOn(kOther);
     },
     "\r\n0\r\n\r\n", true, ""},
};

INSTANTIATE_TEST_SUITE_P(Arrived, TailOnASocket, testing::ValuesIn(kArrived),
                         [](const auto& arrived) { return arrived.param.name; });

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

TEST(Line, OfAForkedChildIsUncertainUntilTheChildHasConnected) {
  pid_t (*const ways[])() = {::fork, test::cloneQuietly};
  for (const auto make : ways) {
    for (const State state : kStates) {
      Line line = lineIn(state);
      const bool itself = state == State::NotConnected || state == State::Broken;
      const auto says = [&] {
        if (line.state() != (itself ? state : State::Uncertain)) return false;
        if (state != State::NotConnected && !line.isDisturbed()) return false;
        line.connected();
        return line.state() == State::Clean && !line.isDisturbed();
      };
      EXPECT_TRUE(test::holdsInChild(says, make)) << letterOf(state);
      EXPECT_EQ(line.state(), state);
      EXPECT_FALSE(line.isDisturbed());
    }
  }
}

}  // namespace
}  // namespace tq::comm
