#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "comm/kruClientRequest.h"
#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfClient.h"
#include "tests/comm/adversaryNetwork.h"
#include "tests/comm/taggedReplies.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/exchange.h"

namespace {

using namespace tq::test;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::DrestoPerfClient;

// The table of docs/connection-states.md.

enum class State { NotConnected, Clean, Tail, Outstanding, Ended, Dirty };

/// Whether the next exchange goes over the connection that is there, on a persistent client.
bool isReused(State state) { return state == State::Clean || state == State::Tail; }

enum class Call { Exchange, Stream, StreamAndRecv, Close, Open, Persist, DoNotPersist, Recv, Send };
enum class Peer {
  Answers,
  AnswersInChunks,
  AnswersWithoutLastChunk,
  Refuses,
  RefusesInChunks,
  Babbles,
  IsSilent,
  ClosesHalfWay,
  ResetsHalfWay,
  AnswersAndCloses,
  AnswersAndResets,
  AnswersTwice,
  AnswersInChunksTwice,
  AnswersInChunksAndCloses,
};
enum class Fault { None, Connect, Write, HalfWrite, Deadline };

struct Event {
  const char* name;
  Call call;
  Peer peer;
  int kind;
  State next;  // behind an exchange that got as far as its request
  const char* httpError = "";
  const char* binaryError = "";
  Fault fault = Fault::None;
  bool httpOnly = false;
};

constexpr bool kHttpOnly = true;
constexpr auto kTimeOutId = "ERR_SERVER_COMM_TIMEOUT";
constexpr auto kRecvId = "ERR_SERVER_COMM_RECV";
constexpr auto kParsingId = "ERR_CLIENT_RESP_PARSING";
constexpr auto kInternalId = "ERR_CLIENT_INTERNAL";
constexpr auto kSendId = "ERR_SERVER_COMM_SEND";
constexpr auto kServerId = "ZVK0001E";

const std::vector<Event>& events() {
  using enum Call;
  using enum Fault;
  using P = Peer;
  using S = State;
  static const std::vector<Event> all{
      {"reply", Exchange, P::Answers, kGetStatus, S::Clean},
      {"chunked reply", Exchange, P::AnswersInChunks, kGetStatus, S::Tail, "", "", None, kHttpOnly},
      {"chunked reply without last chunk", Exchange, P::AnswersWithoutLastChunk, kStreamSearch,
       S::Tail, "", "", None, kHttpOnly},
      {"server error", Exchange, P::Refuses, kCreateCollection, S::Clean, kServerId, kServerId},
      {"chunked server error", Exchange, P::RefusesInChunks, kCreateCollection, S::Tail, kServerId,
       "", None, kHttpOnly},
      {"no reply at all", Exchange, P::Babbles, kGetStatus, S::Outstanding, kParsingId,
       "ERR_SERVER_PROTOCOL"},
      {"time-out", Exchange, P::IsSilent, kGetStatus, S::Outstanding, kTimeOutId, kTimeOutId},
      {"deadline", Exchange, P::IsSilent, kGetStatus, S::Outstanding, kTimeOutId, kTimeOutId,
       Deadline},
      {"reply cut by a close", Exchange, P::ClosesHalfWay, kCreateCollection, S::Outstanding,
       kRecvId, kRecvId},
      {"reply cut by a reset", Exchange, P::ResetsHalfWay, kCreateCollection, S::Outstanding,
       kRecvId, kInternalId},
      {"reply and close", Exchange, P::AnswersAndCloses, kGetStatus, S::Ended},
      {"reply and reset", Exchange, P::AnswersAndResets, kGetStatus, S::Ended},
      {"chunked reply and close", Exchange, P::AnswersInChunksAndCloses, kGetStatus, S::Ended, "",
       "", None, kHttpOnly},
      {"reply and unasked bytes", Exchange, P::AnswersTwice, kGetStatus, S::Dirty},
      {"chunked reply and unasked bytes", Exchange, P::AnswersInChunksTwice, kGetStatus, S::Dirty,
       "", "", None, kHttpOnly},
      {"stream left at once", Stream, P::Answers, kStreamSearch, S::Outstanding},
      {"stream left when a receive times out", StreamAndRecv, P::Answers, kStreamSearch,
       S::Outstanding, kTimeOutId, kTimeOutId},
      {"kind without a reply", Exchange, P::Answers, kLastDocSent, S::Clean},
      {"connect refused", Exchange, P::Answers, kGetStatus, S::Clean, "", "", Connect},
      {"write failed", Exchange, P::Answers, kGetStatus, S::Outstanding, kInternalId, kSendId,
       Write},
      {"half a write failed", Exchange, P::Answers, kGetStatus, S::Outstanding, kInternalId,
       kSendId, HalfWrite},
      {"close()", Call::Close, P::Answers, 0, S::NotConnected},
      {"open()", Call::Open, P::Answers, 0, S::Clean},
      {"persistence on", Call::Persist, P::Answers, 0, S::Clean},
      {"persistence off", Call::DoNotPersist, P::Answers, 0, S::Clean},
      {"recv() behind the end", Call::Recv, P::Answers, 0, S::Clean},
      {"open() and send()", Call::Send, P::Answers, kCreateCollection, S::Outstanding},
  };
  return all;
}

/// What the table says of a client.
struct Model {
  State state = State::NotConnected;
  bool persistent = true;
  bool streamEnded = false;
  std::size_t connections = 0;

  /// False: not connected in the end, because the connect was refused.
  bool openForExchange(bool refused) {
    if (persistent && isReused(state)) return true;
    state = State::NotConnected;
    if (refused) return false;
    ++connections;
    state = State::Clean;
    return true;
  }
};

class Walker {
 public:
  explicit Walker(bool binary)
      : binary_(binary),
        network_(binary, true, [this](std::size_t c, const std::string&) { answer(c); }) {
    if (binary) {
      client_ = std::make_unique<DrestoPerfClient>(u"states", 7);
    } else {
      client_ = std::make_unique<CorvaneRESTClient>(u"states", 7, true);
    }
    client_->setNumRetries(0);
  }

  /// False: the table does not say what the event does here.
  bool step(const Event& event) {
    event_ = &event;
    if (event.call == Call::Exchange || event.call == Call::Stream ||
        event.call == Call::StreamAndRecv) {
      exchange(event);
      return true;
    }
    return act(event);
  }

  void expectModel(const std::string& path) const {
    EXPECT_EQ(network_.connections(), model_.connections) << path;
    EXPECT_EQ(client_->isConnected(), model_.state != State::NotConnected) << path;
    EXPECT_FALSE(network_.waitedForever()) << path;
  }

 private:
  void answer(std::size_t connection);
  void exchange(const Event& event);
  bool act(const Event& event);
  void expectOwnStatus(ClientResponse& response) const;

  bool binary_;
  const Event* event_ = nullptr;
  unsigned int tag_ = 0;
  TimedNetwork network_;
  std::unique_ptr<CorvaneRESTClient> client_{};
  Model model_{};
};

void Walker::answer(std::size_t connection) {
  TaggedReply reply{event_->kind, ++tag_, 2, TaggedReply::Verdict::Ok};
  const bool refuses = event_->peer == Peer::Refuses || event_->peer == Peer::RefusesInChunks;
  if (refuses) reply.verdict = TaggedReply::Verdict::Error;
  HttpForm form;
  form.chunked = event_->peer == Peer::AnswersInChunks || event_->peer == Peer::RefusesInChunks ||
                 event_->peer == Peer::AnswersWithoutLastChunk ||
                 event_->peer == Peer::AnswersInChunksTwice ||
                 event_->peer == Peer::AnswersInChunksAndCloses;
  form.lastChunk = event_->peer != Peer::AnswersWithoutLastChunk;
  std::string text = binary_ ? binaryReply(reply) : httpReply(reply, form);
  if (event_->call == Call::Stream || event_->call == Call::StreamAndRecv) {
    // The first hit, and nothing behind it in time.
    form = {true, 0, false, false, {}};
    reply.results = 1;
    text = binary_ ? binaryReply(reply) : httpReply(reply, form);
    if (binary_) text.resize(text.size() - 4);
    network_.send(connection, text, 0);
    network_.send(connection, binary_ ? envelope(1, "x") : "5\r\n", 11000);
    return;
  }
  switch (event_->peer) {
    case Peer::Babbles:
      return network_.send(connection, binary_ ? std::string("\0\7", 2) : "garbage\r\n", 0);
    case Peer::IsSilent:
      // Later than anybody waits, yet on its way.
      return network_.send(connection, text, 11000);
    case Peer::ClosesHalfWay:
    case Peer::ResetsHalfWay:
      network_.send(connection, text.substr(0, text.size() / 2), 0);
      if (event_->peer == Peer::ClosesHalfWay) return network_.close(connection, 0);
      return network_.reset(connection, 0);
    default:
      break;
  }
  if (event_->kind != kLastDocSent) network_.send(connection, text, 0);
  if (event_->peer == Peer::AnswersTwice || event_->peer == Peer::AnswersInChunksTwice) {
    network_.sendUnasked(connection, text, 0);
  }
  if (event_->peer == Peer::AnswersAndCloses || event_->peer == Peer::AnswersInChunksAndCloses) {
    network_.close(connection, 0);
  }
  if (event_->peer == Peer::AnswersAndResets) network_.reset(connection, 0);
}

void Walker::expectOwnStatus(ClientResponse& response) const {
  if (binary_) {
    EXPECT_EQ(utf8(response.getStatusMessage().getMessageText()), tagText(tag_));
  } else {
    EXPECT_EQ(response.getStatusCode(), tag_);
  }
}

void Walker::exchange(const Event& event) {
  client_->setTimeOut(event.fault == Fault::Deadline ? 0 : 10);
  client_->setDeadline(event.fault == Fault::Deadline ? 10 : 0);
  if (event.fault == Fault::Connect) network_.failNextConnect();
  if (event.fault == Fault::Write) network_.failNextWrite(0);
  if (event.fault == Fault::HalfWrite) network_.failNextWrite(20);
  auto request = requestFor(event.kind);
  ClientResponse response;
  const Outcome outcome = errorOf([&] {
    client_->sendAndRecvMesg(request, response);
    if (event.call == Call::StreamAndRecv) client_->recv(response);
  });
  network_.heal();

  const bool hadTail = model_.state == State::Tail && model_.persistent;
  if (!model_.openForExchange(event.fault == Fault::Connect)) {
    EXPECT_EQ(outcome.errorId, "ERR_CONNECT_SERVER");
    model_.streamEnded = false;
    return;
  }
  EXPECT_EQ(outcome.errorId, binary_ ? event.binaryError : event.httpError);
  // A message that nobody answers skips nothing.
  model_.state = event.kind == kLastDocSent && hadTail ? State::Tail : event.next;
  model_.streamEnded = outcome.errorId.empty() && event.call == Call::Exchange;
  if (outcome.errorId.empty() && event.kind == kGetStatus) expectOwnStatus(response);
}

bool Walker::act(const Event& event) {
  ClientResponse response;
  auto request = requestFor(kCreateCollection);
  switch (event.call) {
    case Call::Close:
      client_->close();
      model_.state = State::NotConnected;
      return true;
    case Call::Open:
    case Call::Send:
      client_->open();
      if (model_.state == State::NotConnected || !model_.persistent) {
        ++model_.connections;
        model_.state = State::Clean;
      }
      if (event.call == Call::Open) return true;
      // Onto a connection that is not in order nobody sends by hand.
      if (!isReused(model_.state)) return false;
      client_->send(request);
      model_.state = State::Outstanding;
      return true;
    case Call::Persist:
    case Call::DoNotPersist:
      model_.persistent = event.call == Call::Persist;
      client_->usePeristentConnection(model_.persistent);
      return true;
    default:
      break;
  }
  if (model_.state == State::NotConnected) {
    EXPECT_EQ(errorOf([&] { client_->recv(response); }).errorId, "ERR_CONNECT_SERVER");
    return true;
  }
  if (!model_.streamEnded) return false;
  EXPECT_EQ(errorOf([&] { client_->recv(response); }).errorId, "");
  EXPECT_EQ(response.getSearchResponse().count(), 0u);
  return true;
}

/// Walks one path and, behind it, an exchange that must get its own reply.
void walk(bool binary, const std::vector<const Event*>& path) {
  static const Event marker{"marker", Call::Exchange, Peer::Answers, kGetStatus, State::Clean};
  std::string text = binary ? "binary" : "HTTP";
  Walker walker(binary);
  for (const Event* event : path) {
    if (!walker.step(*event)) return;
    text += std::string(", ") + event->name;
    walker.expectModel(text);
  }
  walker.step(marker);
  walker.expectModel(text + ", marker");
  if (testing::Test::HasFailure()) FAIL() << text;
}

std::vector<const Event*> eventsOf(bool binary) {
  std::vector<const Event*> all;
  for (const Event& event : events()) {
    if (!binary || !event.httpOnly) all.push_back(&event);
  }
  return all;
}

void walkAll(bool binary, std::vector<const Event*>& path, std::size_t length) {
  walk(binary, path);
  if (path.size() == length || testing::Test::HasFailure()) return;
  for (const Event* event : eventsOf(binary)) {
    path.push_back(event);
    walkAll(binary, path, length);
    path.pop_back();
  }
}

std::size_t longestPath() { return std::getenv("KRUCOMM_LONG") != nullptr ? 4 : 3; }

TEST(ConnectionStates, EveryPathOverHttpEndsWithAReplyOfItsOwn) {
  std::vector<const Event*> path;
  walkAll(false, path, longestPath());
}

TEST(ConnectionStates, EveryPathOverTheBinaryProtocolEndsWithAReplyOfItsOwn) {
  std::vector<const Event*> path;
  walkAll(true, path, longestPath());
}

}  // namespace
