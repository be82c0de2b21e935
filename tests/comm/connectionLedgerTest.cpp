#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/comm/adversaryWorld.h"

namespace {

using namespace tq::test;

constexpr auto kInvalidState = "ERR_INVALID_STATE";
constexpr auto kTimeOutId = "ERR_SERVER_COMM_TIMEOUT";
constexpr unsigned int kLimitMillis = 10;
// MICROSECONDS: within the limit, beyond it, and beyond two waits of it.
constexpr std::uint64_t kSoon = 1000;
constexpr std::uint64_t kLate = 15000;
constexpr std::uint64_t kLatest = 28000;

constexpr std::size_t kA = 0;
constexpr std::size_t kB = 1;
constexpr std::size_t kFirst = 0;
constexpr std::size_t kSecond = 1;

enum class Peer {
  Answers,
  LastChunkIsLate,
  BodyIsLate,
  IsLate,
  Refuses,
  RefusesInChunks,
  Resets,
  Streams
};

/// Whose reply a call gets, in both protocols: the smallest sequences in which one was ever given
/// to another request, half of one taken for the whole, or waited for without end.
class ConnectionLedger : public testing::TestWithParam<bool> {
 public:
  bool binary() const { return GetParam(); }

 protected:
  void SetUp() override {
    for (const std::size_t client : {kA, kB}) {
      world_.setNumRetries(client, 0);
      world_.setTimeOut(client, kLimitMillis);
    }
  }

  Seen exchange(int kind, Peer peer, std::size_t response = kFirst, std::size_t client = kA) {
    peer_ = peer;
    return world_.exchange(client, response, kind);
  }
  Seen stream(std::size_t response, std::size_t client = kA) {
    return exchange(kStreamSearch, Peer::Streams, response, client);
  }
  Seen send(int kind, Peer peer) {
    peer_ = peer;
    return world_.send(kA, kind, false);
  }
  Seen recvMesg() { return world_.recvMesg(kA, kSecond); }
  Seen pull(Pulling how, std::size_t response = kFirst) { return world_.pull(how, kA, response); }

  /// An exchange gets its own reply, whatever came before.
  void expectTheNextExchangeToGetItsOwnReply() {
    world_.setTimeOut(kA, 100);
    world_.setDeadline(kA, 0);
    EXPECT_EQ(exchange(kGetStatus, Peer::Answers, World::kFresh).errorId, "");
    EXPECT_EQ(world_.violation(), "");
  }

  Peer peer_ = Peer::Answers;
  World world_{GetParam(), true, true, [this](std::size_t connection, Question& question) {
                 answer(connection, question);
               }};

 private:
  void answer(std::size_t connection, Question& question);

  unsigned int tag_ = 1000;
};

void ConnectionLedger::answer(std::size_t connection, Question& question) {
  TimedNetwork& network = world_.network();
  TaggedReply reply{question.kind, ++tag_, 2, TaggedReply::Verdict::Ok};
  if (peer_ == Peer::Refuses || peer_ == Peer::RefusesInChunks)
    reply.verdict = TaggedReply::Verdict::Refused;
  HttpForm form;
  form.chunked =
      peer_ == Peer::LastChunkIsLate || peer_ == Peer::BodyIsLate || peer_ == Peer::RefusesInChunks;
  form.lastChunk = peer_ != Peer::LastChunkIsLate && peer_ != Peer::RefusesInChunks;
  const std::string text = binary() ? binaryReply(reply) : httpReply(reply, form);
  world_.say(question, reply, text, peer_ != Peer::Resets);
  if (question.kind == kAsynchAddDocument) return;
  const std::size_t headerEnd = binary() ? 0 : text.find("\r\n\r\n") + 4;
  switch (peer_) {
    case Peer::Resets:
      return network.reset(connection, 0);
    case Peer::IsLate:
      return network.send(connection, text, kLatest);
    case Peer::BodyIsLate:
      network.send(connection, text.substr(0, headerEnd), 0);
      return network.send(connection, text.substr(headerEnd), kLate);
    case Peer::Streams: {
      const Portions portions = portionsOf(reply, binary());
      network.send(connection, portions.first, 0);
      return network.send(connection, portions.rest, kSoon);
    }
    default:
      network.send(connection, text, 0);
      if (binary()) return;
      if (peer_ == Peer::LastChunkIsLate) network.send(connection, "0\r\n\r\n", kLate);
      if (peer_ == Peer::RefusesInChunks) network.send(connection, "0\r\n\r\n", kSoon);
  }
}

constexpr Pulling kPulls[] = {Pulling::Recv,    Pulling::RecvStream, Pulling::RecvMultResponse,
                              Pulling::Looping, Pulling::Single,     Pulling::Parsed};

// Several responses.

TEST_P(ConnectionLedger, APullIntoTheResponseOfAnEarlierExchangeIsRefusedAndTouchesNothing) {
  stream(kFirst);
  stream(kSecond);
  for (const Pulling how : kPulls) EXPECT_EQ(pull(how).errorId, kInvalidState);
  EXPECT_EQ(world_.violation(), "");
  // The stream of the later exchange is still all there.
  EXPECT_EQ(pull(Pulling::Recv, kSecond).errorId, "");
  EXPECT_EQ(world_.violation(), "");
}

TEST_P(ConnectionLedger, APullIntoTheResponseOfAnEarlierExchangeIsRefusedAfterAFailedOne) {
  stream(kFirst);
  world_.client(kA).close();
  world_.network().failNextConnect();
  EXPECT_EQ(exchange(kGetStatus, Peer::Answers, kSecond).errorId, "ERR_CONNECT_SERVER");
  world_.network().heal();
  world_.open(kA);
  for (const Pulling how : kPulls) EXPECT_EQ(pull(how).errorId, kInvalidState);
  EXPECT_EQ(world_.violation(), "");
}

TEST_P(ConnectionLedger, APullIntoTheResponseOfAnotherClientIsRefused) {
  stream(kFirst, kB);
  stream(kSecond, kA);
  for (const Pulling how : kPulls) EXPECT_EQ(pull(how).errorId, kInvalidState);
  EXPECT_EQ(world_.violation(), "");
}

TEST_P(ConnectionLedger, ACopyOfAResponseIsOfTheSameExchange) {
  stream(kFirst);
  world_.copy(kFirst, kSecond);
  EXPECT_EQ(pull(Pulling::Recv, kSecond).errorId, "");
  stream(kFirst);
  EXPECT_EQ(pull(Pulling::Recv, kSecond).errorId, kInvalidState);
  EXPECT_EQ(world_.violation(), "");
}

TEST_P(ConnectionLedger, AResponseThatNoExchangeFilledTakesWhatIsPulled) {
  stream(kFirst);
  EXPECT_EQ(pull(Pulling::Recv, kSecond).errorId, "");
  EXPECT_EQ(world_.violation(), "");
  EXPECT_EQ(pull(Pulling::Recv, kFirst).errorId, "");
  expectTheNextExchangeToGetItsOwnReply();
}

// Receives after a failure.

class ConnectionLedgerOverHttp : public ConnectionLedger {};

TEST_P(ConnectionLedgerOverHttp, AReceiveAfterATimeOutDoesNotTakeTheOldTailForTheReplysEnd) {
  for (const Pulling how : {Pulling::Recv, Pulling::RecvMultResponse, Pulling::Looping}) {
    exchange(kStreamSearch, Peer::LastChunkIsLate);
    EXPECT_EQ(exchange(kCreateCollection, Peer::IsLate).errorId, kTimeOutId);
    EXPECT_EQ(pull(how).errorId, kTimeOutId) << "what has come belongs to the reply before";
    EXPECT_FALSE(world_.client(kA).isEndOfStream());
    expectTheNextExchangeToGetItsOwnReply();
    world_.setTimeOut(kA, kLimitMillis);
  }
}

TEST_P(ConnectionLedgerOverHttp, AReceiveAfterHalfARequestLeavesTheConnectionBroken) {
  exchange(kGetStatus, Peer::RefusesInChunks);
  world_.network().failNextWrite(80);
  EXPECT_EQ(exchange(kGetStatus, Peer::Answers).errorId, "ERR_CLIENT_INTERNAL");
  pull(Pulling::Recv);
  pull(Pulling::Recv);
  expectTheNextExchangeToGetItsOwnReply();
}

TEST_P(ConnectionLedgerOverHttp, AReceiveAfterATimeOutBehindTheHeaderIsNotTakenForTheWhole) {
  EXPECT_EQ(exchange(kStreamSearch, Peer::BodyIsLate).errorId, kTimeOutId);
  pull(Pulling::Recv);
  EXPECT_EQ(world_.violation(), "");
  expectTheNextExchangeToGetItsOwnReply();
}

TEST_P(ConnectionLedger, ReceivingEverythingAfterAFailedExchangeEnds) {
  for (const Peer peer : {Peer::Refuses, Peer::Resets, Peer::IsLate}) {
    exchange(kGetStatus, peer);
    pull(Pulling::RecvMultResponse);
    EXPECT_EQ(world_.violation(), "");
  }
}

// Questions by hand.

TEST_P(ConnectionLedger, AQuestionByHandDuringAStreamLeavesItsReplyToNobody) {
  stream(kFirst);
  EXPECT_EQ(send(kCreateCollection, Peer::IsLate).errorId, "");
  EXPECT_EQ(pull(Pulling::Looping).errorId, "");
  EXPECT_EQ(world_.violation(), "");
  EXPECT_TRUE(world_.client(kA).isEndOfStream());
  EXPECT_FALSE(world_.client(kA).isTruncated());
  expectTheNextExchangeToGetItsOwnReply();
}

TEST_P(ConnectionLedger, AnAdditionByHandDoesNotMakeAnOpenStreamForgotten) {
  stream(kFirst);
  EXPECT_EQ(send(kAsynchAddDocument, Peer::Answers).errorId, "");
  expectTheNextExchangeToGetItsOwnReply();
}

TEST_P(ConnectionLedgerOverHttp, TheReplyToOneQuestionByHandIsReceived) {
  exchange(kCreateCollection, Peer::Answers);
  EXPECT_EQ(send(kCreateCollection, Peer::Answers).errorId, "");
  EXPECT_EQ(recvMesg().errorId, "");
  EXPECT_TRUE(world_.response(kSecond).success());
  expectTheNextExchangeToGetItsOwnReply();
}

TEST_P(ConnectionLedger, OfTwoQuestionsByHandNoReplyIsReceived) {
  exchange(kGetStatus, Peer::Answers);
  send(kCreateCollection, Peer::Answers);
  send(kCreateCollection, Peer::IsLate);
  EXPECT_EQ(recvMesg().errorId, binary() ? "ERR_CLIENT_INTERNAL" : kInvalidState);
  EXPECT_EQ(world_.violation(), "");
  expectTheNextExchangeToGetItsOwnReply();
}

TEST_P(ConnectionLedger, AQuestionByHandAfterATimeOutIsNotGivenTheOldReply) {
  EXPECT_EQ(exchange(kCreateCollection, Peer::IsLate).errorId, kTimeOutId);
  send(kAddDocument, Peer::Resets);
  EXPECT_EQ(recvMesg().errorId, kInvalidState);
  EXPECT_FALSE(world_.response(kSecond).success());
  EXPECT_EQ(world_.violation(), "");
}

TEST_P(ConnectionLedger, AReceiveByHandWithoutAQuestionIsRefused) {
  EXPECT_EQ(exchange(kStreamSearch, Peer::IsLate).errorId, kTimeOutId);
  world_.network().idle(kLatest);
  EXPECT_EQ(recvMesg().errorId, kInvalidState);
  EXPECT_EQ(world_.violation(), "");
  expectTheNextExchangeToGetItsOwnReply();
}

TEST_P(ConnectionLedger, AReceiveAfterTheEndDoesNotMakeAReplysHeaderItsBody) {
  exchange(kAddDocument, Peer::Answers);
  EXPECT_EQ(pull(Pulling::Recv).errorId, "");
  send(kCreateCollection, Peer::Refuses);
  recvMesg();
  EXPECT_FALSE(world_.response(kSecond).success());
  EXPECT_EQ(world_.violation(), "");
}

TEST_P(ConnectionLedger, NothingIsSentByHandBehindHalfARequest) {
  world_.network().failNextWrite(20);
  EXPECT_NE(exchange(kGetStatus, Peer::Answers).errorId, "");
  EXPECT_EQ(send(kCreateCollection, Peer::Answers).errorId, kInvalidState);
  EXPECT_EQ(world_.violation(), "");
  expectTheNextExchangeToGetItsOwnReply();
}

TEST_P(ConnectionLedger, HalfAQuestionByHandLeavesTheConnectionBroken) {
  exchange(kGetStatus, Peer::RefusesInChunks);
  world_.network().failNextWrite(20);
  EXPECT_NE(send(kAddDocument, Peer::Answers).errorId, "");
  pull(Pulling::Parsed);
  expectTheNextExchangeToGetItsOwnReply();
}

// Streams and their connection.

TEST_P(ConnectionLedger, AStreamIsNotReadOnFromAnotherConnection) {
  stream(kFirst);
  world_.close(kA);
  world_.open(kA);
  send(kStreamSearch, Peer::Answers);
  pull(Pulling::Recv);
  EXPECT_EQ(world_.violation(), "");
  EXPECT_TRUE(world_.client(kA).isTruncated());
  expectTheNextExchangeToGetItsOwnReply();
}

TEST_P(ConnectionLedger, AStreamWithoutItsConnectionIsNotWaitedFor) {
  stream(kFirst);
  world_.close(kA);
  world_.open(kA);
  send(kAsynchAddDocument, Peer::Answers);
  EXPECT_EQ(pull(Pulling::Looping).waited, 0u);
  EXPECT_EQ(world_.violation(), "");
  EXPECT_TRUE(world_.client(kA).isTruncated());
}

TEST_P(ConnectionLedgerOverHttp, AFailedExchangeIsNotReadOnFromAnotherConnection) {
  EXPECT_EQ(exchange(kStreamSearch, Peer::IsLate).errorId, kTimeOutId);
  world_.close(kA);
  world_.open(kA);
  send(kStreamSearch, Peer::Answers);
  pull(Pulling::Recv);
  EXPECT_EQ(world_.violation(), "");
}

// Limits.

TEST_P(ConnectionLedger, AnAttemptByHandThatFindsNoServerIsTheLastExchangeAllTheSame) {
  exchange(kGetStatus, Peer::Answers);
  world_.close(kA);
  world_.network().failNextConnect();
  const Seen seen = world_.exchange(kA, kFirst, kLastDocSent, Asking::Once);
  EXPECT_EQ(seen.errorId, "ERR_CONNECT_SERVER");
  EXPECT_EQ(recvMesg().errorId, "") << "its kind has no reply";
  EXPECT_EQ(world_.violation(), "");
}

TEST_P(ConnectionLedger, EveryStepByHandIsBoundedByADeadline) {
  exchange(kGetStatus, Peer::Answers);
  world_.setTimeOut(kA, 0);
  world_.setDeadline(kA, kLimitMillis);
  send(kCreateCollection, Peer::IsLate);
  recvMesg();
  recvMesg();
  for (const Pulling how : kPulls) pull(how, World::kFresh);
  EXPECT_EQ(world_.violation(), "");
}

std::string nameOf(const testing::TestParamInfo<bool>& protocol) {
  return protocol.param ? "Binary" : "Http";
}

INSTANTIATE_TEST_SUITE_P(Over, ConnectionLedger, testing::Bool(), nameOf);
INSTANTIATE_TEST_SUITE_P(Over, ConnectionLedgerOverHttp, testing::Values(false), nameOf);

}  // namespace
