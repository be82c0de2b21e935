#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tests/comm/adversaryWorld.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/sanitized.h"

namespace {

using namespace tq::test;

// The table of docs/connection-states.md.

enum class Call {
  Exchange,
  Unsendable,
  Send,
  SendMesg,
  SendBodyChunks,
  RecvMesg,
  ReadByHand,
  Pull,
  Destroy,
  Close,
  Open,
  Reopen,
  Set,
  Idle,
};

enum class Peer {
  Answers,
  AnswersInChunks,
  AnswersWithoutLastChunk,
  LastChunkIsLate,
  Refuses,
  RefusesInChunks,
  Babbles,
  IsLate,
  BodyIsLate,
  HalfIsLate,
  ClosesHalfWay,
  ResetsHalfWay,
  ResetsAtOnce,
  AnswersAndCloses,
  AnswersAndResets,
  AnswersInChunksAndCloses,
  AnswersForTheLastTime,
  AnswersBehindAnInterimReply,
  RefusesWithoutALength,
  AnswersTwice,
  AnswersInChunksTwice,
  Streams,
  StreamsLate,
};

enum class Fault { None, Connect, Write, HalfWrite };

/// Which wait the host gives up, where the call comes to it.
enum class GivesUp { Never, Connecting, HalfWritten, Receiving };

enum class Setting {
  None,
  Persistent,
  NotPersistent,
  Batching,
  NoBatching,
  Reassembly,
  Deadline,
  OneRetry,
  Init,
  QueueOnOneConnection,
  WhatDoesNotMatter,
};

enum class Only { Both, Http, Binary };

constexpr std::size_t kA = 0;
constexpr std::size_t kB = 1;
constexpr std::size_t kFirst = 0;
constexpr std::size_t kSecond = 1;
constexpr std::size_t kFresh = World::kFresh;

struct Event {
  const char* name;
  Call call;
  std::size_t client = kA;
  std::size_t response = kFirst;
  int kind = 0;
  Peer peer = Peer::Answers;
  // After an exchange that got as far as its request: over HTTP, and over the binary protocol.
  Line next = Line::Clean;
  Line binaryNext = Line::Clean;
  const char* httpError = "";
  const char* binaryError = "";
  Fault fault = Fault::None;
  Pulling pull = Pulling::Recv;
  Setting setting = Setting::None;
  Only only = Only::Both;
  Asking asking = Asking::AsSet;
  Reading reading = Reading::All;
  World::Bytes bytes = World::Bytes::All;
  UpTo upTo = UpTo::FirstByte;
  GivesUp givesUp = GivesUp::Never;
  // A path with two of these is one event shorter than others.
  bool rare = false;
};

constexpr auto kTimeOutId = "ERR_SERVER_COMM_TIMEOUT";
constexpr auto kRecvId = "ERR_SERVER_COMM_RECV";
constexpr auto kParsingId = "ERR_CLIENT_RESP_PARSING";
constexpr auto kInternalId = "ERR_CLIENT_INTERNAL";
constexpr auto kSendId = "ERR_SERVER_COMM_SEND";
constexpr auto kConnectId = "ERR_CONNECT_SERVER";
constexpr auto kProtocolId = "ERR_SERVER_PROTOCOL";
constexpr auto kServerId = "ZVK0001E";
constexpr auto kUnnamedId = "ERR_SERVER_APP";
constexpr auto kCancelledId = "ERR_CLIENT_CANCELLED";

// A kind without results of its own, and any with a reply; each path takes another one.
constexpr int kAnyPlain = -1;
constexpr int kAnyAnswered = -2;

/// An exchange, which leaves its connection clean unless said otherwise.
Event exchange(const char* name, int kind, Peer peer, Line next = Line::Clean,
               const char* httpError = "", const char* binaryError = "") {
  Event event{name, Call::Exchange};
  event.kind = kind;
  event.peer = peer;
  event.next = event.binaryNext = next;
  event.httpError = httpError;
  event.binaryError = binaryError;
  return event;
}

Event http(Event event) {
  event.only = Only::Http;
  return event;
}
Event binary(Event event) {
  event.only = Only::Binary;
  return event;
}
Event with(Event event, Fault fault) {
  event.fault = fault;
  return event;
}
Event into(std::size_t response, Event event) {
  event.response = response;
  return event;
}
Event byOther(Event event) {
  event.client = kB;
  return event;
}

Event asked(Asking asking, Event event) {
  event.asking = asking;
  return event;
}

Event rare(Event event) {
  event.rare = true;
  return event;
}
/// What the response holds before it, and what it brings, is not read.
Event unread(Event event) {
  event.reading = Reading::Nothing;
  return rare(event);
}

/// The call ends there, if it waits there.
Event givenUp(GivesUp when, Event event) {
  event.givesUp = when;
  return rare(event);
}
/// An exchange whose reply comes, or goes on, only after its host has lost patience.
Event givenUpExchange(const char* name, int kind, Peer peer) {
  return givenUp(GivesUp::Receiving,
                 exchange(name, kind, peer, Line::NotConnected, kCancelledId, kCancelledId));
}

Event readByHand(const char* name, UpTo upTo) {
  Event event{name, Call::ReadByHand};
  event.upTo = upTo;
  return rare(event);
}

Event bodyChunks(const char* name, World::Bytes bytes) {
  Event event{name, Call::SendBodyChunks};
  event.kind = kStreamSearch;
  event.bytes = bytes;
  return rare(binary(event));
}

Event byHand(const char* name, Call call, int kind, Peer peer, Fault fault = Fault::None) {
  Event event{name, call};
  event.kind = kind;
  event.peer = peer;
  event.fault = fault;
  return event;
}

Event pulling(const char* name, Pulling pull, std::size_t response = kFirst) {
  Event event{name, Call::Pull};
  event.pull = pull;
  event.response = response;
  return event;
}

Event setting(const char* name, Setting setting) {
  Event event{name, Call::Set};
  event.setting = setting;
  return event;
}

std::vector<Event> exchanges() {
  using L = Line;
  using P = Peer;
  Event parsed =
      exchange("late parse results", kParseResult, P::StreamsLate, L::Uncertain, kTimeOutId);
  parsed.binaryNext = L::Owed;
  return {
      exchange("reply", kGetStatus, P::Answers),
      exchange("reply without results", kAnyPlain, P::Answers),
      http(exchange("chunked reply", kGetStatus, P::AnswersInChunks, L::Tail)),
      http(
          exchange("reply without last chunk", kStreamSearch, P::AnswersWithoutLastChunk, L::Tail)),
      http(exchange("late last chunk", kStreamSearch, P::LastChunkIsLate, L::Tail)),
      exchange("server error", kCreateCollection, P::Refuses, L::Clean, kServerId, kServerId),
      http(exchange("chunked server error", kCreateCollection, P::RefusesInChunks, L::Tail,
                    kServerId)),
      exchange("no reply at all", kGetStatus, P::Babbles, L::Uncertain, kParsingId, kProtocolId),
      exchange("time-out", kCreateCollection, P::IsLate, L::Uncertain, kTimeOutId, kTimeOutId),
      exchange("time-out of a search", kStreamSearch, P::IsLate, L::Uncertain, kTimeOutId,
               kTimeOutId),
      http(exchange("time-out after the header", kStreamSearch, P::BodyIsLate, L::Uncertain,
                    kTimeOutId)),
      exchange("reply cut by a close", kCreateCollection, P::ClosesHalfWay, L::Uncertain, kRecvId,
               kRecvId),
      exchange("reply cut by a reset", kCreateCollection, P::ResetsHalfWay, L::Uncertain, kRecvId,
               kInternalId),
      exchange("addition reset", kAddDocument, P::ResetsAtOnce, L::Uncertain, kRecvId, kInternalId),
      exchange("reply and close", kGetStatus, P::AnswersAndCloses),
      exchange("reply and reset", kGetStatus, P::AnswersAndResets),
      http(exchange("chunked reply and close", kGetStatus, P::AnswersInChunksAndCloses, L::Tail)),
      rare(http(exchange("reply that ends its connection", kGetStatus, P::AnswersForTheLastTime,
                         L::Uncertain))),
      rare(http(exchange("interim reply with a body", kGetStatus, P::AnswersBehindAnInterimReply,
                         L::Uncertain, kProtocolId))),
      rare(http(exchange("server error without a length", kCreateCollection,
                         P::RefusesWithoutALength, L::Uncertain, kUnnamedId))),
      exchange("reply and unasked bytes", kGetStatus, P::AnswersTwice),
      http(exchange("chunked reply and unasked bytes", kGetStatus, P::AnswersInChunksTwice,
                    L::Tail)),
      exchange("stream", kStreamSearch, P::Streams, L::Owed),
      exchange("stream that is late", kStreamSearch, P::StreamsLate, L::Owed),
      exchange("scalar stream", kScalarSearch, P::Streams, L::Owed),
      parsed,
      exchange("estimate", kSelectivity, P::Answers),
      exchange("version", kGetServerVersion, P::Answers),
      exchange("addition without a reply", kAsynchAddDocument, P::Answers),
      exchange("end of additions", kLastDocSent, P::Answers),
      with(exchange("connect refused", kGetStatus, P::Answers), Fault::Connect),
      with(exchange("write failed", kGetStatus, P::Answers, L::Broken, kInternalId, kSendId),
           Fault::Write),
      with(exchange("half a write failed", kGetStatus, P::Answers, L::Broken, kInternalId, kSendId),
           Fault::HalfWrite),
      asked(Asking::Once, exchange("one attempt", kGetStatus, P::Answers)),
      asked(Asking::Once, exchange("one attempt, reset", kAddDocument, P::ResetsAtOnce,
                                   L::Uncertain, kRecvId, kInternalId)),
      asked(Asking::Once, with(exchange("one attempt, write failed", kGetStatus, P::Answers,
                                        L::Broken, "socket", kSendId),
                               Fault::Write)),
      asked(Asking::Limited, exchange("reset, with limits of its own", kAddDocument,
                                      P::ResetsAtOnce, L::Uncertain, kRecvId, kInternalId)),
      asked(Asking::Limited, exchange("time-out, with limits of its own", kCreateCollection,
                                      P::IsLate, L::Uncertain, kTimeOutId, kTimeOutId)),
      asked(Asking::Limited,
            exchange("stream, with limits of its own", kStreamSearch, P::StreamsLate, L::Owed)),
      Event{"unsendable request", Call::Unsendable},
      into(kSecond,
           exchange("stream into the second response", kStreamSearch, P::Streams, L::Owed)),
      byOther(exchange("other client's stream", kStreamSearch, P::Streams, L::Owed)),
      byOther(into(kSecond, exchange("other client's reply into the second response", kGetStatus,
                                     P::Answers))),
      givenUpExchange("given up", kAnyAnswered, P::IsLate),
      givenUpExchange("given up in the middle of the reply", kGetStatus, P::HalfIsLate),
      givenUp(GivesUp::Connecting, exchange("given up while connecting", kGetStatus, P::Answers)),
      givenUp(GivesUp::HalfWritten, exchange("given up half-way", kAddDocument, P::Answers)),
      unread(exchange("stream, left unread", kStreamSearch, P::Streams, L::Owed)),
      unread(exchange("scalar stream, left unread", kScalarSearch, P::Streams, L::Owed)),
  };
}

std::vector<Event> steps() {
  using P = Peer;
  Event otherPulls = pulling("other client pulls", Pulling::Looping);
  otherPulls.client = kB;
  return {
      byHand("send", Call::Send, kCreateCollection, P::Answers),
      byHand("send, answered late", Call::Send, kAddDocument, P::IsLate),
      byHand("send, reset", Call::Send, kAddDocument, P::ResetsAtOnce),
      byHand("send of a search", Call::Send, kStreamSearch, P::Streams),
      byHand("send without a reply", Call::Send, kAsynchAddDocument, P::Answers),
      byHand("send that fails half-way", Call::Send, kCreateCollection, P::Answers,
             Fault::HalfWrite),
      byHand("sendMesg", Call::SendMesg, kGetStatus, P::Answers),
      Event{"recvMesg", Call::RecvMesg},
      into(kSecond, Event{"recvMesg into the second response", Call::RecvMesg}),
      into(kFresh, Event{"recvMesg into a fresh response", Call::RecvMesg}),
      pulling("recv", Pulling::Recv),
      pulling("recv into the second response", Pulling::Recv, kSecond),
      pulling("recv into a fresh response", Pulling::Recv, kFresh),
      pulling("recvStream", Pulling::RecvStream),
      pulling("recvStream into a fresh response", Pulling::RecvStream, kFresh),
      pulling("recvMultResponse", Pulling::RecvMultResponse),
      pulling("recvMultResponse into a fresh response", Pulling::RecvMultResponse, kFresh),
      pulling("pull", Pulling::Looping),
      pulling("pull into the second response", Pulling::Looping, kSecond),
      pulling("pull one portion", Pulling::Single),
      pulling("pull of parse results", Pulling::Parsed),
      pulling("pull of what is buffered", Pulling::Buffered),
      otherPulls,
      unread(pulling("recv, left unread", Pulling::Recv)),
      rare(Event{"end of the response", Call::Destroy}),
      givenUp(GivesUp::Receiving, pulling("recv, given up", Pulling::Recv)),
      givenUp(GivesUp::Receiving, pulling("pull, given up", Pulling::Looping)),
      givenUp(GivesUp::Receiving, Event{"recvMesg, given up", Call::RecvMesg}),
      givenUp(GivesUp::HalfWritten,
              byHand("send, given up half-way", Call::Send, kCreateCollection, P::Answers)),
      givenUp(GivesUp::Connecting, Event{"open(), given up", Call::Open}),
      readByHand("first byte by hand", UpTo::FirstByte),
      readByHand("header by hand", UpTo::EndOfHeader),
      readByHand("header and part of the body by hand", UpTo::MiddleOfBody),
      givenUp(GivesUp::Receiving, readByHand("first byte by hand, given up", UpTo::FirstByte)),
      bodyChunks("half a request by hand", World::Bytes::Half),
      bodyChunks("bytes of a request by hand", World::Bytes::All),
      Event{"close()", Call::Close},
      Event{"open()", Call::Open},
      Event{"close() and open()", Call::Reopen},
      setting("persistence on", Setting::Persistent),
      setting("persistence off", Setting::NotPersistent),
      binary(setting("batching on", Setting::Batching)),
      binary(setting("batching off", Setting::NoBatching)),
      binary(setting("reassembly", Setting::Reassembly)),
      setting("a deadline and no time-out", Setting::Deadline),
      setting("one retry", Setting::OneRetry),
      setting("init()", Setting::Init),
      rare(setting("queue on one connection", Setting::QueueOnOneConnection)),
      setting("settings that do not matter", Setting::WhatDoesNotMatter),
      Event{"a pause", Call::Idle},
  };
}

const std::vector<Event>& eventsOf(bool binary) {
  static const auto make = [](Only without) {
    std::vector<Event> all = exchanges();
    for (Event& step : steps()) all.push_back(step);
    std::erase_if(all, [&](const Event& event) { return event.only == without; });
    return all;
  };
  static const std::vector<Event> http = make(Only::Binary);
  static const std::vector<Event> binaries = make(Only::Http);
  return binary ? binaries : http;
}

// MICROSECONDS. A time-out is 10 milliseconds.
constexpr std::uint64_t kSoon = 1000;
constexpr std::uint64_t kLate = 15000;
constexpr std::uint64_t kLatest = 28000;
constexpr std::uint64_t kPause = 20000;
constexpr unsigned int kLimitMillis = 10;
constexpr std::uint64_t kLimit = kLimitMillis * std::uint64_t{1000};
constexpr unsigned int kPatienceMillis = 100;

// Taken for the reply because it has a body.
constexpr auto kInterimReply = "HTTP/1.1 100 Continue\r\nContent-Length: 5\r\n\r\nhello";

/// What the table says of a client.
struct Model {
  Line state = Line::NotConnected;
  bool spoilt = false;  // the peer has closed, or has sent what nobody asked for
  bool persistent = true;
  bool retries = false;
  bool deadline = false;
  bool reassembly = false;
  bool batching = false;
  bool queueBound = false;
  std::size_t connections = 0;
  std::uint64_t tailAt = 0;  // when the end of the last reply comes
  bool endless = false;      // it never does

  /// `tailIsLate`: not all of it has come.
  bool reusable(int kind, bool tailIsLate) const {
    if (!persistent || spoilt) return false;
    return state == Line::Clean || (state == Line::Tail && (hasReply(kind) || !tailIsLate));
  }
  void connected() {
    ++connections;
    state = Line::Clean;
    spoilt = false;
    tailAt = 0;
    endless = false;
  }
};

class Walker {
 public:
  Walker(bool binary, std::size_t ordinal)
      : binary_(binary),
        ordinal_(ordinal),
        world_(binary, true, true, [this](std::size_t c, Question& q) { answer(c, q); }) {
    for (std::size_t c : {kA, kB}) {
      world_.setNumRetries(c, 0);
      world_.setTimeOut(c, kLimitMillis);
    }
  }

  void step(const Event& event);
  void finish();
  bool failed() const { return !world_.violation().empty(); }
  const std::string& violation() const { return world_.violation(); }
  /// All that the table and the caller know of the two clients.
  std::size_t fingerprint();
  /// The same of the first client and its first response alone, which are those of the rare events.
  std::size_t ownFingerprint();

 private:
  void answer(std::size_t connection, Question& question);
  void stream(std::size_t connection, Question& question, bool late);
  int kindOf(const Event& event) const;
  void act(const Event& event);
  void exchange(const Event& event);
  void expectExchange(const Event& event, const Seen& seen);
  bool attempt(const Event& event, bool first, const char*& error);
  void send(const Event& event);
  void arrange(const Event& event);
  void set(Setting setting, std::size_t client);
  void expectModel(std::size_t client);
  void mixModel(std::size_t client, std::size_t& all);
  void settle(std::size_t client);
  std::size_t connectionsMissing();
  std::size_t adoptConnections(Model& model);

  bool binary_;
  std::size_t ordinal_;
  unsigned int tag_ = 1000;
  World world_;
  std::vector<const Event*> plans_{};
  std::array<Model, World::kClients> models_{};
  std::uint64_t begun_ = 0;  // the exchange
  bool connectRefused_ = false;
  bool hadQueue_ = false;
  bool queueRefused_ = false;
  // Sent by hand, and held back by batching.
  const Question* held_ = nullptr;
};

int Walker::kindOf(const Event& event) const {
  static constexpr std::array kPlain{kCreateCollection,
                                     kDropCollection,
                                     kAddDocument,
                                     kUpdateIndex,
                                     kDeleteDocument,
                                     kOpenCollection,
                                     kCloseCollection,
                                     kBackup,
                                     kRestore,
                                     kTakeover,
                                     kShutdown,
                                     kOpenCollectionAlt,
                                     kSetConstructorConfiguration,
                                     kVersionsValidation};
  if (event.kind == kAnyPlain) return kPlain[ordinal_ % kPlain.size()];
  if (event.kind != kAnyAnswered) return event.kind;
  static constexpr std::array kResults{kStreamSearch, kScalarSearch,     kParseResult,
                                       kGetStatus,    kGetServerVersion, kSelectivity};
  const std::size_t any = ordinal_ % (kPlain.size() + kResults.size());
  return any < kResults.size() ? kResults[any] : kPlain[any - kResults.size()];
}

void Walker::answer(std::size_t connection, Question& question) {
  const Event& event = *plans_[question.number];
  TaggedReply reply{question.kind, ++tag_, 2, TaggedReply::Verdict::Ok};
  if (question.kind == kAsynchAddDocument || question.kind == kLastDocSent) {
    return world_.say(question, reply, {}, true);
  }
  if (event.peer == Peer::Streams || event.peer == Peer::StreamsLate) {
    return stream(connection, question, event.peer == Peer::StreamsLate);
  }
  const Peer peer = event.peer;
  if (peer == Peer::Refuses || peer == Peer::RefusesInChunks ||
      peer == Peer::RefusesWithoutALength) {
    reply.verdict = TaggedReply::Verdict::Error;
  }
  HttpForm form;
  form.chunked = peer == Peer::AnswersInChunks || peer == Peer::RefusesInChunks ||
                 peer == Peer::AnswersWithoutLastChunk || peer == Peer::LastChunkIsLate ||
                 peer == Peer::BodyIsLate || peer == Peer::AnswersInChunksTwice ||
                 peer == Peer::AnswersInChunksAndCloses;
  form.lastChunk = peer != Peer::AnswersWithoutLastChunk && peer != Peer::LastChunkIsLate;
  if (peer == Peer::AnswersForTheLastTime) {
    form.headerLines = "Connection: close\r\n";
    question.last = true;
  }
  form.measured = peer != Peer::RefusesWithoutALength;
  question.interim = peer == Peer::AnswersBehindAnInterimReply;
  question.last = question.last || question.interim || !form.measured;
  const std::string front = question.interim ? kInterimReply : "";
  const std::string text = front + (binary_ ? binaryReply(reply) : httpReply(reply, form));
  TimedNetwork& network = world_.network();
  world_.say(question, reply, text, peer != Peer::ResetsAtOnce);
  switch (peer) {
    case Peer::Babbles:
      return network.send(connection, binary_ ? std::string("\0\7", 2) : "garbage\r\n", 0);
    case Peer::IsLate:
      return network.send(connection, text, kLatest);
    case Peer::BodyIsLate: {
      const std::size_t header = text.find("\r\n\r\n") + 4;
      network.send(connection, text.substr(0, header), 0);
      return network.send(connection, text.substr(header), kLate);
    }
    case Peer::HalfIsLate:
      network.send(connection, text.substr(0, text.size() / 2), 0);
      return network.send(connection, text.substr(text.size() / 2), kLate);
    case Peer::ResetsAtOnce:
      return network.reset(connection, 0);
    case Peer::ClosesHalfWay:
      network.send(connection, text.substr(0, text.size() / 2), 0);
      return network.close(connection, 0);
    case Peer::ResetsHalfWay:
      network.send(connection, text.substr(0, text.size() / 2), 0);
      return network.reset(connection, 0);
    default:
      break;
  }
  network.send(connection, text, 0);
  if (peer == Peer::LastChunkIsLate) network.send(connection, "0\r\n\r\n", kLate);
  if (peer == Peer::AnswersTwice || peer == Peer::AnswersInChunksTwice) {
    network.sendUnasked(connection, text, 0);
  }
  if (peer == Peer::AnswersAndCloses || peer == Peer::AnswersInChunksAndCloses) {
    network.close(connection, 0);
  }
  if (peer == Peer::AnswersAndResets) network.reset(connection, 0);
}

/// A reply in two portions, of which the second comes soon, or too late for whoever waits once.
void Walker::stream(std::size_t connection, Question& question, bool late) {
  const TaggedReply reply{question.kind, tag_, 2, TaggedReply::Verdict::Ok};
  const Portions portions = portionsOf(reply, binary_);
  world_.say(question, reply, portions.first + portions.rest, true);
  world_.network().send(connection, portions.first, 0);
  world_.network().send(connection, portions.rest, late ? kLate : kSoon);
}

void Walker::step(const Event& event) {
  const bool usesFresh = event.response == kFresh;
  if (usesFresh) world_.renew(kFresh);
  const bool asks = event.call == Call::Exchange || event.call == Call::Send ||
                    event.call == Call::SendMesg || event.call == Call::SendBodyChunks;
  if (asks) plans_.push_back(&event);
  arrange(event);
  act(event);
  if (held_ != nullptr && held_->written) held_ = nullptr;
  world_.network().heal();
  expectModel(event.client);
}

/// What goes wrong in the event's call, and what its host does.
void Walker::arrange(const Event& event) {
  TimedNetwork& network = world_.network();
  if (event.fault == Fault::Connect) network.failNextConnect();
  if (event.fault == Fault::Write) network.failNextWrite(0);
  if (event.fault == Fault::HalfWrite) network.failNextWrite(20);
  if (event.givesUp == GivesUp::Never) return;
  if (event.givesUp == GivesUp::Connecting) network.connectInBackground();
  if (event.givesUp == GivesUp::HalfWritten) network.blockNextWrite(20);
  world_.giveUpNext(
      1, event.givesUp == GivesUp::Connecting ? World::Wait::OfAConnect : World::Wait::Other);
}

void Walker::act(const Event& event) {
  Model& model = models_[event.client];
  switch (event.call) {
    case Call::Exchange:
      return exchange(event);
    case Call::Unsendable:
      world_.exchangeUnsendable(event.client, event.response);
      return;
    case Call::Send:
    case Call::SendMesg:
      return send(event);
    case Call::SendBodyChunks:
      world_.sendBodyChunks(event.client, event.kind, event.bytes);
      if (model.state != Line::NotConnected) model.state = Line::Broken;
      return;
    case Call::RecvMesg:
      world_.recvMesg(event.client, event.response);
      return settle(event.client);
    case Call::ReadByHand:
      world_.readByHand(event.client, event.upTo);
      return settle(event.client);
    case Call::Pull:
      world_.pull(event.pull, event.client, event.response, event.reading);
      return settle(event.client);
    case Call::Destroy:
      return world_.destroy(event.response);
    case Call::Close:
      world_.close(event.client);
      model.state = Line::NotConnected;
      return;
    case Call::Reopen:
      world_.close(event.client);
      model.state = Line::NotConnected;
      [[fallthrough]];
    case Call::Open:
      if (world_.open(event.client).gaveUp) {
        model.state = Line::NotConnected;
        return;
      }
      if (model.state == Line::NotConnected || !model.persistent) model.connected();
      return;
    case Call::Set:
      return set(event.setting, event.client);
    case Call::Idle:
      return world_.network().idle(kPause);
  }
}

void Walker::exchange(const Event& event) {
  begun_ = world_.network().nowMicros();
  connectRefused_ = false;
  hadQueue_ = world_.hasQueue(event.client);
  expectExchange(event, world_.exchange(event.client, event.response, kindOf(event), event.asking,
                                        event.reading));
}

/// One attempt, as the table says it goes. False when it fails.
bool Walker::attempt(const Event& event, bool first, const char*& error) {
  Model& model = models_[event.client];
  const bool blocked = event.givesUp == GivesUp::HalfWritten;
  const bool writes =
      first && (blocked || event.fault == Fault::Write || event.fault == Fault::HalfWrite);
  const auto cancelled = [&] {
    model.state = Line::NotConnected;
    error = kCancelledId;
    return false;
  };
  error = "";
  const auto connects = [&] {
    if (model.reusable(event.kind, model.endless || model.tailAt > begun_)) return true;
    model.state = Line::NotConnected;
    if (event.givesUp == GivesUp::Connecting) return cancelled();
    if (event.fault == Fault::Connect && !std::exchange(connectRefused_, true)) {
      error = kConnectId;
      return false;
    }
    model.connected();
    return true;
  };
  const bool sendsHeld = held_ != nullptr && event.client == kA;
  if (sendsHeld && !connects()) return false;
  if (sendsHeld) {
    if (blocked) return cancelled();
    if (writes) {
      model.state = Line::Broken;
      error = kSendId;
      return false;
    }
    // The question that was held back goes out by itself, and takes the connection with it.
    held_ = nullptr;
    model.state = Line::Asked;
  }
  // What batching may hold back can be refused before its connection is looked at.
  const bool mayBeHeld = model.batching && model.persistent && !hasReply(event.kind) &&
                         model.state != Line::NotConnected && model.state != Line::Broken;
  const bool unlooked = queueRefused_ && mayBeHeld && connectionsMissing() == 0;
  if (!unlooked && !connects()) return false;
  if (queueRefused_) {
    error = kSendId;
    return false;
  }
  if (event.kind == kAsynchAddDocument || event.kind == kLastDocSent) return true;
  if (blocked) return cancelled();
  if (event.givesUp == GivesUp::Connecting && model.tailAt > begun_) return cancelled();
  if (!writes && event.givesUp == GivesUp::Never && model.tailAt > begun_ + kLimit) {
    error = kTimeOutId;
    model.state = Line::Uncertain;
    return false;
  }
  const bool fails = event.fault == Fault::None || writes;
  if (fails) error = binary_ ? event.binaryError : event.httpError;
  // What the server breaks off is told as such.
  if (model.reassembly && !writes && std::string_view(error) == kInternalId) error = kRecvId;
  model.state = writes || event.fault == Fault::None ? (binary_ ? event.binaryNext : event.next)
                                                     : Line::Clean;
  model.spoilt = event.peer == Peer::AnswersAndCloses || event.peer == Peer::AnswersAndResets ||
                 event.peer == Peer::AnswersInChunksAndCloses || event.peer == Peer::AnswersTwice ||
                 event.peer == Peer::AnswersInChunksTwice;
  model.tailAt = event.peer == Peer::LastChunkIsLate ? begun_ + kLate : 0;
  model.endless = event.peer == Peer::AnswersWithoutLastChunk;
  return *error == '\0';
}

void Walker::expectExchange(const Event& event, const Seen& seen) {
  Model& model = models_[event.client];
  // A document that batching holds back leaves the connection alone.
  if (model.batching && !world_.lastQuestion()->written && !seen.failed) {
    const std::size_t made = adoptConnections(model);
    const bool asked = held_ != nullptr && held_->written;
    if (asked && made < 2) model.state = Line::Asked;
    return;
  }
  const char* error = "";
  queueRefused_ = seen.refusedWithoutQueue();
  bool ok = attempt(event, true, error);
  const std::string_view id(error);
  const bool repeated = id == kTimeOutId || id == kRecvId || id == kSendId || id == kConnectId;
  const bool limited = event.asking == Asking::Limited;
  // A queue under way does not leave its connection.
  const bool bound = (hadQueue_ || world_.hasQueue(event.client)) && needsQueue(kindOf(event));
  const bool repeats = !bound && (limited || (model.retries && event.asking == Asking::AsSet));
  if (!ok && repeats && repeated) {
    model.state = Line::NotConnected;
    // A deadline that has passed leaves no time for another attempt.
    if (!((model.deadline || limited) && id == kTimeOutId)) ok = attempt(event, false, error);
  }
  world_.require(seen.errorId == error, "an exchange fails otherwise than the table says: ",
                 seen.errorId + " and not " + error);
}

void Walker::send(const Event& event) {
  const Seen seen = world_.send(event.client, event.kind, event.call == Call::SendMesg);
  const Question* question = world_.lastQuestion();
  if (!seen.failed && !question->written && event.kind != kAsynchAddDocument) held_ = question;
  settle(event.client);
}

/// Those that were made and that no model has counted.
std::size_t Walker::connectionsMissing() {
  const std::size_t counted = models_[kA].connections + models_[kB].connections;
  return world_.network().connections() - counted;
}

/// Whether connections are made for what is only held back is up to the client. How many were.
std::size_t Walker::adoptConnections(Model& model) {
  const std::size_t made = connectionsMissing();
  for (std::size_t i = 0; i < made; ++i) model.connected();
  return made;
}

/// Where the world leaves one state, that is the model's.
void Walker::settle(std::size_t client) {
  Model& model = models_[client];
  const Lines lines = world_.line(client);
  if (lines.mayBe(model.state) && model.state != Line::Owed) return;
  if (model.state == Line::Owed && lines.mayBe(Line::Tail)) {
    model.state = binary_ ? Line::Clean : Line::Tail;
    return;
  }
  for (const Line line : {Line::NotConnected, Line::Clean, Line::Tail, Line::Owed, Line::Asked,
                          Line::Uncertain, Line::Broken}) {
    if (lines.mustBe(line)) model.state = line;
  }
}

void Walker::set(Setting setting, std::size_t client) {
  auto& caller = world_.client(client);
  Model& model = models_[client];
  switch (setting) {
    case Setting::Persistent:
    case Setting::NotPersistent:
      model.persistent = setting == Setting::Persistent;
      return caller.usePeristentConnection(model.persistent);
    case Setting::Batching:
    case Setting::NoBatching:
      model.batching = setting == Setting::Batching;
      return caller.useBufferedConnection(model.batching);
    case Setting::Reassembly:
      model.reassembly = true;
      return world_.binaryClient(client)->setReassembly(true);
    case Setting::Deadline:
      model.deadline = true;
      world_.setTimeOut(client, 0);
      return world_.setDeadline(client, kLimitMillis);
    case Setting::OneRetry:
      model.retries = true;
      return world_.setNumRetries(client, 1);
    case Setting::Init:
      model.retries = true;
      return world_.init(client);
    case Setting::QueueOnOneConnection:
      model.queueBound = true;
      return world_.setQueueOnOneConnection(client, true);
    default:
      caller.setRetryUnsafe(true);
      caller.setRetryPause(0, 0);
      caller.setMaxReplyBytes(std::size_t{1} << 20);
      // A host that only waits, as the library does by itself.
      return world_.setWaitHook(client);
  }
}

void Walker::expectModel(std::size_t client) {
  if (failed()) return;
  const std::size_t connections = models_[kA].connections + models_[kB].connections;
  if (world_.network().connections() != connections) {
    world_.require(
        false, "makes another number of connections than the table says: ",
        std::to_string(world_.network().connections()) + " and not " + std::to_string(connections));
  }
  const Model& model = models_[client];
  world_.require(world_.client(client).isConnected() == (model.state != Line::NotConnected),
                 "is connected, or not, against the table");
  const Line inspected = world_.inspected(client);
  // The line alone knows how much of a tail has come, and whether it has seen unasked bytes.
  const bool same = inspected == model.state ||
                    (inspected == Line::Clean && model.state == Line::Tail) ||
                    (inspected == Line::Uncertain && model.spoilt);
  if (!same) {
    world_.require(false, "the line is in another state than the table says: ",
                   std::to_string(static_cast<int>(inspected)) + " and not " +
                       std::to_string(static_cast<int>(model.state)));
  }
}

std::size_t Walker::fingerprint() {
  std::size_t all = world_.fingerprint();
  for (const std::size_t client : {kA, kB}) mixModel(client, all);
  return all;
}

std::size_t Walker::ownFingerprint() {
  std::size_t all = world_.fingerprintOf(kA, kFirst);
  mixModel(kA, all);
  return all;
}

void Walker::mixModel(std::size_t client, std::size_t& all) {
  const Model& model = models_[client];
  const auto mix = [&](std::size_t value) { all = (all ^ value) * 0x9E3779B97F4A7C15U; };
  mix(static_cast<std::size_t>(model.state));
  mix(model.spoilt * 32U + model.persistent * 16U + model.retries * 8U + model.deadline * 4U +
      model.reassembly * 2U + model.batching);
  mix(model.tailAt > world_.network().nowMicros() || model.endless);
  mix(client == kA && held_ != nullptr);
}

/// An exchange of each client, which must get its own reply, and an end of the queue.
void Walker::finish() {
  static const Event last = ::exchange("last exchange", kGetStatus, Peer::Answers);
  static const Event otherLast = byOther(last);
  static const Event update = ::exchange("last update", kUpdateIndex, Peer::Answers);
  world_.takeAll();
  for (const std::size_t client : {kA, kB}) {
    world_.setTimeOut(client, kPatienceMillis);
    world_.setDeadline(client, 0);
    models_[client].tailAt = 0;
  }
  step(last);
  if (models_[kB].connections != 0) step(otherLast);
  // A queue that has lost its connection refuses this one, whatever was answered on another.
  if (models_[kA].queueBound) step(update);
}

using Path = std::vector<std::size_t>;

std::string textOf(bool binary, const Path& path) {
  std::string text = binary ? "binary" : "HTTP";
  for (const std::size_t index : path) text += std::string(", ") + eventsOf(binary)[index].name;
  return text;
}

struct Walked {
  std::string violation{};
  // Before the last exchanges.
  std::size_t fingerprint = 0;
  std::size_t ownFingerprint = 0;
};

/// Walks one path and, after it, exchanges that must get their own replies.
Walked walk(bool binary, const Path& path) {
  std::size_t ordinal = 0;
  for (const std::size_t index : path) ordinal = ordinal * 31 + index;
  Walker walker(binary, ordinal);
  for (const std::size_t index : path) {
    walker.step(eventsOf(binary)[index]);
    if (walker.failed()) return {walker.violation()};
  }
  Walked walked{{}, walker.fingerprint(), walker.ownFingerprint()};
  walker.finish();
  walked.violation = walker.violation();
  return walked;
}

/// The shortest path that dropping events leads to and that still fails.
Path shortened(bool binary, Path path) {
  for (std::size_t i = 0; i < path.size();) {
    Path shorter;
    for (std::size_t j = 0; j < path.size(); ++j) {
      if (j != i) shorter.push_back(path[j]);
    }
    if (walk(binary, shorter).violation.empty()) {
      ++i;
    } else {
      path = shorter;
      i = 0;
    }
  }
  return path;
}

// A sanitizer makes a path about ten times as expensive.
constexpr std::size_t kLength = kSanitized ? 3 : 4;

/// All paths of one protocol.
class Walk {
 public:
  explicit Walk(bool binary)
      : binary_(binary), everything_(std::getenv("KRUCOMM_LONG") != nullptr) {}

  void all() {
    from();
    testing::Test::RecordProperty("paths", std::to_string(paths_));
  }

 private:
  void from(std::size_t rares = 0) {
    const Walked walked = walk(binary_, path_);
    ++paths_;
    if (!walked.violation.empty()) {
      failed_ = true;
      const Path shortest = shortened(binary_, path_);
      FAIL() << textOf(binary_, shortest) << "\n  " << walk(binary_, shortest).violation;
    }
    const std::size_t length = longest(rares);
    if (endsRarely() || path_.size() == length ||
        !goesOn(walked.fingerprint, length - path_.size(), rares))
      return;
    const bool takesRare = isNewToRare(walked, rares);
    path_.push_back(0);
    for (std::size_t i = 0; i < eventsOf(binary_).size() && !failed_; ++i) {
      const bool rare = eventsOf(binary_)[i].rare;
      const std::size_t all = rares + (rare ? 1 : 0);
      if (path_.size() > longest(all) || (rare && !takesRare)) continue;
      path_.back() = i;
      from(all);
    }
    path_.pop_back();
  }

  /// After a rare event that is the last but one a path ends.
  bool endsRarely() const {
    const bool last = path_.size() + 1 == kLength && eventsOf(binary_)[path_.back()].rare;
    return last && !everything_;
  }

  /// How many events a path with so many rare ones has at most.
  std::size_t longest(std::size_t rares) const {
    return rares < 2 || everything_ ? kLength : kLength - 1;
  }

  /// From the third step on a rare event is taken once from each state of what it is about.
  bool isNewToRare(const Walked& walked, std::size_t rares) {
    if (everything_ || path_.size() < 2) return true;
    const bool fits = path_.size() < longest(rares + 1);
    return fits && rareSeen_[kLength - path_.size()].insert(walked.ownFingerprint).second;
  }

  /// The last step is taken once from each state, and so is each step after a rare event.
  bool goesOn(std::size_t fingerprint, std::size_t steps, std::size_t rares) {
    if (everything_) return true;
    const bool isNew = seen_[steps].insert(fingerprint).second;
    return isNew || (steps != 1 && rares == 0);
  }

  bool binary_;
  bool everything_;
  Path path_{};
  bool failed_ = false;
  std::size_t paths_ = 0;
  // With so many steps to go.
  std::array<std::unordered_set<std::size_t>, kLength + 1> seen_{};
  std::array<std::unordered_set<std::size_t>, kLength + 1> rareSeen_{};
};

TEST(ConnectionStates, EveryPathOverHttpEndsWithAReplyOfItsOwn) { Walk(false).all(); }

TEST(ConnectionStates, EveryPathOverTheBinaryProtocolEndsWithAReplyOfItsOwn) { Walk(true).all(); }

}  // namespace
