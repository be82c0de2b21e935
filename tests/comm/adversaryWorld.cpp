#include "tests/comm/adversaryWorld.h"

#include <algorithm>
#include <charconv>
#include <list>
#include <utility>

#include "comm/kruClientRequest.h"
#include "comm/kruKVPair.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTMessage.h"
#include "infra/util/kruExtendedProperties.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/exchange.h"

namespace tq::test {

namespace {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::DrestoPerfClient;
using tq::comm::RESTException;

constexpr auto kInvalidState = "ERR_INVALID_STATE";
constexpr auto kInternal = "ERR_CLIENT_INTERNAL";
constexpr auto kNoConnection = "ERR_CONNECT_SERVER";
constexpr auto kTimeOutId = "ERR_SERVER_COMM_TIMEOUT";
constexpr auto kCancelledId = "ERR_CLIENT_CANCELLED";
// What is no RESTException.
constexpr auto kSocketId = "socket";
constexpr auto kServerId = "ZVK0001E";
constexpr auto kRefusedId = "ERR_SERVER_INVALID_AUTH";
constexpr std::string_view kMarker = "query: m";
// Clocks are rounded to whole milliseconds.
constexpr std::uint64_t kRounding = 1000;
constexpr std::uint64_t kMicrosPerMilli = 1000;

/// Ends a loop that goes round without end.
struct Spinning {};
constexpr unsigned int kMaxRounds = 5000;
bool spun = false;
unsigned int rounds = 0;

void countRound() {
  if (++rounds <= kMaxRounds) return;
  spun = true;
  throw Spinning();
}

/// A client whose receives are counted, and whose line can be seen.
template <typename Client>
class Counted final : public Client, public Inspected {
 public:
  using Client::Client;
  Line lineState() const override { return Client::line_->state(); }
  bool holdsBytes() const override { return Client::socket_.buffered() != 0; }
  void recv(ClientResponse& response) override {
    countRound();
    Client::recv(response);
  }
  void recvStream(ClientResponse& response) override {
    countRound();
    Client::recvStream(response);
  }
};

/// One number for many.
class Mixture {
 public:
  explicit Mixture(std::size_t first) : value_(first) {}
  void add(std::size_t other) { value_ = (value_ ^ other) * 0x9E3779B97F4A7C15U; }
  std::size_t value() const { return value_; }

 private:
  std::size_t value_;
};

/// Kinds whose replies are read alike.
int shapeOfReply(int kind) {
  if (kind == kScalarSearch) return kStreamSearch;
  if (isStreaming(kind) || kind == kSelectivity || kind == kGetStatus ||
      kind == kGetServerVersion || !hasReply(kind)) {
    return kind;
  }
  return kCreateCollection;
}

ClientRequest requestNamed(std::size_t number, int kind) {
  static constexpr char kKey[] = "key";
  static constexpr char kContent[] = "the text";
  char16_t name[24] = {u'm'};
  std::size_t length = 1;
  const std::string digits = std::to_string(number);
  for (const char digit : digits) name[length++] = static_cast<char16_t>(digit);
  tq::util::ExtendedProperties properties;
  properties.putProperty(u"query", icu::UnicodeString(name, static_cast<int>(length)));
  ClientRequest request;
  request.buildRequest(u"c1", static_cast<ClientRequest::REQUEST>(kind), properties);
  if (kind == kAsynchAddDocument || kind == kAddDocument || kind == kDeleteDocument) {
    request.setContent(std::list<tq::comm::KVPair>{{u"title", u"one"}}, kContent,
                       kind == kDeleteDocument ? 0 : sizeof kContent - 1);
    request.setDocKey(kKey, sizeof kKey - 1);
  }
  return request;
}

void noteError(const tq::oss::BaseException& error, Seen& seen) {
  const auto& messages = error.getMessageList();
  if (messages.empty()) return;
  seen.errorId = utf8(messages.front().getMessageId());
  seen.errorText = utf8(messages.front().getMessageText());
}

std::vector<std::string> hitsIn(ClientResponse& response) {
  std::vector<std::string> names;
  tq::comm::SearchResponse hits(response.getSearchResponse());
  while (hits.hasMore()) names.push_back(utf8(hits.getNext().getDocId()));
  return names;
}

std::vector<std::string> rowsIn(ClientResponse& response) {
  std::vector<std::string> names;
  tq::comm::ParseResponse rows(response.getParseResponse());
  while (rows.hasMore()) names.push_back(utf8(rows.getNext().getDocument()));
  return names;
}

bool isBeginningOf(const std::vector<std::string>& some, const std::vector<std::string>& all) {
  return some.size() <= all.size() && std::equal(some.begin(), some.end(), all.begin());
}

/// Whether all that is in `some` comes in `all`, in that order.
bool isPartOf(const std::vector<std::string>& some, const std::vector<std::string>& all) {
  auto at = all.begin();
  for (const std::string& name : some) {
    at = std::find(at, all.end(), name);
    if (at == all.end()) return false;
    ++at;
  }
  return true;
}

/// Whether the portions that a pull receives replace each other before its caller sees them.
bool dropsPortions(Pulling how, int kind) {
  return how == Pulling::RecvMultResponse || (how == Pulling::Parsed && kind != kParseResult) ||
         (how == Pulling::Looping && kind == kParseResult);
}

}  // namespace

bool Seen::refusedWithoutQueue() const {
  return errorText.starts_with("the connection of the documents queued before is gone");
}

World::World(bool binary, bool joined, bool persistent, Peer peer)
    : binary_(binary),
      persistent_(persistent),
      peer_(std::move(peer)),
      network_(binary, joined, [this](std::size_t c, const std::string& r) { answer(c, r); }) {
  for (Caller& caller : clients_) makeClient(caller);
}

void World::makeClient(Caller& caller) {
  caller.number = ++clientsMade_;
  if (binary_) {
    auto client = std::make_unique<Counted<DrestoPerfClient>>(u"world", 7);
    client->usePeristentConnection(persistent_);
    caller.inspect = client.get();
    caller.client = std::move(client);
  } else {
    auto client = std::make_unique<Counted<CorvaneRESTClient>>(u"world", 7, persistent_);
    caller.inspect = client.get();
    caller.client = std::move(client);
  }
}

DrestoPerfClient* World::binaryClient(std::size_t c) {
  return binary_ ? static_cast<DrestoPerfClient*>(clients_[c].client.get()) : nullptr;
}

void World::require(bool holds, const char* what, const std::string& more) {
  if (!holds && violation_.empty()) violation_ = what + more;
}

std::size_t World::fingerprint() {
  Mixture all(network_.fingerprint());
  for (const Caller& caller : clients_) {
    all.add(knownOf(caller));
    for (Held& held : responses_) all.add(knownOf(caller, held));
  }
  return all.value();
}

std::size_t World::fingerprintOf(std::size_t c, std::size_t r) {
  const Caller& caller = clients_[c];
  Mixture all(caller.client->isConnected() ? network_.fingerprintOf(caller.connection) : 0);
  all.add(knownOf(caller));
  all.add(knownOf(caller, responses_[r]));
  return all.value();
}

std::size_t World::knownOf(const Caller& caller) const {
  Mixture all(caller.line.bits());
  all.add(static_cast<std::size_t>(shapeOfReply(caller.lastKind)));
  all.add(caller.exchangeFailed * 8U + caller.client->isEndOfStream() * 4U +
          caller.client->isTruncated() * 2U + (caller.asked != nullptr));
  all.add((caller.streamMade == caller.made) + 2U * (caller.made != 0) +
          4U * (caller.firstExchange == caller.exchange));
  all.add(caller.received * 2U + caller.receivedReply);
  all.add((caller.disturbed && !caller.client->isEndOfStream()) * 2U +
          caller.inspect->holdsBytes());
  all.add(caller.queueBound * 4U + caller.queue.has_value() * 2U +
          (caller.queue == caller.connection));
  return all.value();
}

std::size_t World::knownOf(const Caller& caller, Held& held) const {
  Mixture all(static_cast<std::size_t>(staleness(caller, held)) * 2 + (held.mark == Mark{}));
  all.add(held.owner != nullptr && held.owner == caller.stream);
  all.add(held.response.getSearchResponse().count());
  all.add(held.response.getParseResponse().count());
  const std::size_t left = held.leftHits.size() * 8 + held.leftRows.size();
  all.add(left == 0 ? 0 : left * 2 + held.usedSince);
  return all.value();
}

// The peer.

void World::answer(std::size_t connection, const std::string& request) {
  const auto at = request.find(kMarker);
  if (at == std::string::npos) return;
  std::size_t number = 0;
  std::from_chars(request.data() + at + kMarker.size(), request.data() + request.size(), number);
  Question& question = questions_[number];
  question.written = true;
  question.connection = connection;
  Caller& caller = clients_[question.client];
  // What completes half a request, or is part of none, is no document that the client queued.
  const bool queued = question.kind == kAsynchAddDocument && !question.unsent && !question.inChunks;
  if (queued && caller.queueBound) {
    // A batch whose connection broke is written once more, and with it the queue begins anew.
    if (caller.queueBegun == &question) caller.queue.reset();
    caller.queueWritten = &question;
  }
  if (question.byHand && !question.inChunks) {
    question.untold = network_.holdsUnasked(connection);
    if (hasReply(question.kind)) {
      ++askedByHand_;
      caller.line.move({Line::Owed, Line::Asked, Line::Uncertain}, Line::Uncertain);
      caller.asked =
          caller.line.mayBe(Line::Clean) || caller.line.mayBe(Line::Tail) ? &question : nullptr;
      caller.line.move({Line::Clean, Line::Tail}, Line::Asked);
    }
  }
  require(question.byHand || !ending_.contains(connection),
          "asks on a connection that gives no further reply");
  peer_(connection, question);
  if (question.last) ending_.insert(connection);
}

void World::say(Question& question, const TaggedReply& reply, std::string text, bool begun) {
  question.answers.push_back({reply, std::move(text), begun});
}

Question& World::ask(std::size_t c, int kind, bool byHand) {
  Question& question = questions_.emplace_back();
  question.number = questions_.size() - 1;
  question.kind = kind;
  question.client = c;
  question.byHand = byHand;
  return question;
}

// Calls.

template <typename Call>
Seen World::run(std::size_t c, Call&& call) {
  Seen seen;
  rounds = 0;
  spun = false;
  const std::uint64_t start = network_.nowMicros();
  network_.takeLongestWait();
  try {
    runInHost(clients_[c], call, seen);
  } catch (const Spinning&) {
    seen.failed = true;
  } catch (const tq::oss::BaseException& error) {
    seen.failed = true;
    noteError(error, seen);
    if (dynamic_cast<const RESTException*>(&error) == nullptr) seen.errorId = kSocketId;
  }
  seen.waited = network_.nowMicros() - start;
  require(!spun, "goes round without end");
  judgeWaits(clients_[c], seen);
  judgeGivingUp(clients_[c], seen);
  if (seen.failed) judgeId(seen);
  return seen;
}

/// The host waits for a client that it was set for, or in whose call it shall give up.
template <typename Call>
void World::runInHost(Caller& caller, Call&& call, Seen& seen) {
  struct Host {
    World& world;
    Caller& caller;
    Seen& seen;
    ~Host() {
      WaitingHost& host = world.host_;
      if (host.giveUpAt == 0) return;
      seen.gaveUp = host.waits >= host.giveUpAt;
      world.require(host.waits <= host.giveUpAt, "waits on although its host has given up");
      host.giveUpAt = 0;
      if (!caller.hooked) caller.client->setWaitHook(nullptr, nullptr);
    }
  };
  const Host host{*this, caller, seen};
  if (host_.giveUpAt != 0) caller.client->setWaitHook(&WaitingHost::wait, &host_);
  call();
}

void World::judgeGivingUp(const Caller& caller, const Seen& seen) {
  const bool cancelled = seen.errorId == kCancelledId;
  require(!cancelled || seen.gaveUp, "is cancelled although its host has not given up");
  const bool ended = readsByHand_ ? seen.errorId == kSocketId : cancelled;
  require(!seen.gaveUp || ended, "goes on although its host has given up: ", seen.errorId);
  require(!cancelled || !caller.client->isConnected(), "keeps the connection of a cancelled call");
}

void World::judgeWaits(const Caller& caller, const Seen& seen) {
  const bool limited = caller.timeOut != 0 || caller.deadline != 0;
  const bool forEver = network_.takeWaitedForever();
  require(!limited || !forEver, "waits for ever in spite of a limit");
  if (caller.deadline != 0) {
    require(seen.waited <= caller.deadline * kMicrosPerMilli + kRounding,
            "goes on past its deadline");
  }
  if (caller.timeOut != 0) {
    require(network_.takeLongestWait() <= caller.timeOut * kMicrosPerMilli + kRounding,
            "waits longer than its time-out");
  }
}

void World::judgeId(const Seen& seen) {
  static constexpr std::array<std::string_view, 14> kDocumented{kNoConnection,
                                                                kCancelledId,
                                                                "ERR_SERVER_COMM_SEND",
                                                                "ERR_SERVER_COMM_RECV",
                                                                kTimeOutId,
                                                                "ERR_SERVER_PROTOCOL",
                                                                kRefusedId,
                                                                "ERR_SERVER_APP",
                                                                "ERR_CLIENT_RESP_PARSING",
                                                                kInternal,
                                                                kInvalidState,
                                                                kServerId,
                                                                "TQ_ERR_PROPERTY_MISSING",
                                                                "TQ_ERR_PROPERTY_NUMBER"};
  const bool known =
      std::find(kDocumented.begin(), kDocumented.end(), seen.errorId) != kDocumented.end() ||
      seen.errorId == kSocketId;
  require(known || spun, "fails with an error that no document names: ", seen.errorId);
}

Seen World::exchange(std::size_t c, std::size_t r, int kind, Asking how, Reading reading) {
  Caller& caller = clients_[c];
  const unsigned int deadline = caller.deadline;
  const unsigned int retries = caller.retries;
  if (how == Asking::Limited) caller.deadline = kOwnDeadlineMillis;
  if (how != Asking::AsSet) caller.retries = how == Asking::Once ? 0 : kOwnRetries;
  Held& held = responses_[r];
  beginUse(held, reading);
  clearScalars(held);
  Question& question = ask(c, kind, false);
  ClientRequest request = requestNamed(question.number, kind);
  const std::size_t connections = network_.connections();
  const std::size_t askedByHand = askedByHand_;
  Seen seen = run(c, [&] {
    if (how == Asking::Once) return caller.client->sendAndRecvMesgOnce(request, held.response);
    if (how == Asking::AsSet) return caller.client->sendAndRecvMesg(request, held.response);
    caller.client->sendAndRecvMesg(request, held.response, {caller.deadline, caller.retries});
  });
  require(seen.errorId != kSocketId || how == Asking::Once,
          "an exchange fails with what is no RESTException");
  noteConnections(caller, connections);
  // A repeated exchange that runs out of time has closed the connection that it was bound to.
  const bool unconnected = seen.gaveUp && givenUp_ == Wait::OfAConnect;
  const bool begun = seen.errorId != kNoConnection && !unconnected && !seen.refusedWithoutQueue();
  caller.streamMade = begun ? caller.made : 0;
  caller.exchange += 2;
  caller.firstExchange = caller.exchange;
  caller.lastKind = kind;
  caller.exchangeFailed = seen.failed;
  caller.received = caller.receivedReply = false;
  caller.stream = &question;
  caller.asked = nullptr;
  markAfterExchange(caller, held, question, seen);
  held.parsedAs = kind;
  question.failed = seen.failed && seen.errorId != kTimeOutId;
  question.unsent = seen.failed && !question.written;
  lineAfterExchange(caller, seen, network_.connections() != connections,
                    askedByHand_ != askedByHand);
  // The first portion of these takes the place of what the response held.
  const bool replaced = !seen.failed && kind == kStreamSearch && !held.leftHits.empty();
  if (replaced) {
    require(!isBeginningOf(held.leftHits, hitsIn(held.response)),
            "adds the hits of a search to those of another exchange");
  }
  if (!seen.failed || isStreaming(kind)) read(held, reading);
  judgeExchange(caller, held, seen);
  judgeQueue(caller, question, seen);
  caller.deadline = deadline;
  caller.retries = retries;
  return seen;
}

/// A response is marked when a receive into it begins, which is not always seen from outside.
void World::markAfterExchange(const Caller& caller, Held& held, Question& question,
                              const Seen& seen) {
  if (!seen.failed) {
    held.others.clear();
  } else {
    held.others.emplace_back(held.mark, held.owner);
    // It may be of an earlier attempt, which is another exchange.
    if (caller.retries != 0)
      held.others.push_back({{caller.number, caller.exchange - 1}, &question});
  }
  held.mark = {caller.number, caller.exchange};
  held.owner = &question;
}

Seen World::exchangeUnsendable(std::size_t c, std::size_t r) {
  static constexpr char kKey[] = "key";
  Caller& caller = clients_[c];
  Held& held = responses_[r];
  ClientRequest request = requestNamed(0, kCreateCollection);
  request.setDocKey(kKey, sizeof kKey - 1);
  const Shape before = shapeOf(caller, held);
  Seen seen = run(c, [&] { caller.client->sendAndRecvMesg(request, held.response); });
  require(seen.errorId == kInternal, "sends a key without metadata");
  require(shapeOf(caller, held) == before, "a request that cannot be sent changes something");
  return seen;
}

Seen World::send(std::size_t c, int kind, bool asMessage) {
  Caller& caller = clients_[c];
  Question& question = ask(c, kind, true);
  ClientRequest request = requestNamed(question.number, kind);
  const bool broken = caller.line.mustBe(Line::Broken);
  Seen seen = run(c, [&] {
    if (!asMessage) return caller.client->send(request);
    tq::comm::RESTMessage message(caller.client->getHost(), request);
    caller.client->sendMesg(message);
  });
  question.unsent = seen.failed && !question.written;
  noteQueue(caller);
  if (broken) {
    require(!question.written, "writes behind half a request");
    require(seen.errorId == kInvalidState, "sends by hand behind half a request");
  }
  if (seen.failed && seen.errorId != kInvalidState) {
    const bool certain = seen.errorId != kTimeOutId && seen.errorId != kInternal;
    if (!caller.client->isConnected()) {
      caller.line = Line::NotConnected;
    } else if (certain) {
      caller.line = Line::Broken;
    } else {
      caller.line.add(Line::Broken);
    }
  }
  return seen;
}

Seen World::sendBodyChunks(std::size_t c, int kind, Bytes bytes) {
  // Shorter than a request, so that it takes several.
  constexpr unsigned long kPiece = 16;
  Caller& caller = clients_[c];
  Question& question = ask(c, kind, true);
  question.inChunks = true;
  ClientRequest request = requestNamed(question.number, kind);
  tq::comm::RESTMessage message(caller.client->getHost(), request);
  const std::string header = message.getSerializedHeader();
  const std::string text = word16(static_cast<unsigned int>(header.size())) + header;
  const std::size_t length = bytes == Bytes::All ? text.size() : text.size() / 2;
  Seen seen = run(c, [&] { binaryClient(c)->sendBodyChunks(text.data(), kPiece, length); });
  if (caller.client->isConnected()) {
    caller.line = Line::Broken;
  } else {
    caller.line = Line::NotConnected;
    require(seen.errorId == kSocketId || seen.gaveUp, "writes bytes without a connection");
  }
  return seen;
}

Seen World::recvMesg(std::size_t c, std::size_t r, Reading reading) {
  Caller& caller = clients_[c];
  Held& held = responses_[r];
  beginUse(held, reading);
  clearScalars(held);
  const std::uint64_t bytes = network_.bytesTaken();
  caller.receivedReply = true;
  const auto outcome = caller.client->getRequestOutcome();
  Seen seen = run(c, [&] { caller.client->recvMesg(held.response); });
  require(caller.client->getRequestOutcome() == outcome,
          "a reply by hand changes what became of the last exchange");
  noteQueue(caller);
  // What batching held back was written first.
  const Lines line = caller.line;
  const bool tookBytes = network_.bytesTaken() != bytes;
  if (caller.lastKind != 0 && !hasReply(caller.lastKind)) {
    require(!tookBytes, "reads a reply for a kind that has none");
    if (line.mustBe(Line::Asked)) {
      require(seen.errorId == kInvalidState, "passes by the reply to a question sent by hand");
    }
    if (!line.mayBe(Line::Asked)) require(!seen.failed, "fails for a kind without a reply");
    if (!seen.failed) {
      ++caller.exchange;
      held.others.emplace_back(held.mark, held.owner);
      held.mark = {caller.number, caller.exchange};
    }
    return seen;
  }
  const bool refused =
      seen.errorId == kInvalidState || seen.errorId == kInternal || seen.errorId == kNoConnection;
  if (refused) {
    require(!tookBytes, "refuses a receive and reads all the same");
    if (!binary_ && line.mustBe(Line::Asked)) {
      require(false, "refuses the reply to a question sent by hand: ", seen.errorId);
    }
    return seen;
  }
  if (seen.errorId == "ERR_SERVER_COMM_SEND") {
    // What batching held back did not go out.
    require(!tookBytes, "reads a reply behind half a request");
    caller.line = caller.client->isConnected() ? Line::Broken : Line::NotConnected;
    return seen;
  }
  require(line.mayBe(Line::Asked), "reads a reply that nobody can name");
  caller.line = caller.client->isConnected() ? Line::Uncertain : Line::NotConnected;
  caller.firstExchange = ++caller.exchange;
  held.others.clear();
  held.mark = {caller.number, caller.exchange};
  held.parsedAs = caller.lastKind;
  held.owner = caller.stream = caller.asked;
  caller.streamMade = caller.made;
  if (held.owner == nullptr) return seen;
  read(held, reading);
  if (!held.owner->untold) judgeExchange(caller, held, seen);
  return seen;
}

bool World::readOneByHand(std::size_t c, bool first, char& byte, Seen& seen) {
  auto& client = *clients_[c].client;
  unsigned long taken = 0;
  readsByHand_ = true;
  seen = run(c, [&] {
    if (first) {
      taken = client.read(&byte, 0, 1, true);
      return;
    }
    client.dataToRead(true);
    taken = client.readOnce(&byte, 0, 1, false);
  });
  readsByHand_ = false;
  return taken != 0;
}

Seen World::readByHand(std::size_t c, UpTo point) {
  constexpr std::size_t kBinaryHeader = 2;
  constexpr std::size_t kPartOfBody = 3;
  constexpr std::size_t kLongestHeader = 200;
  Caller& caller = clients_[c];
  const bool connected = caller.client->isConnected();
  std::string header;
  std::size_t body = 0;
  Seen seen;
  for (char byte = '\0'; readOneByHand(c, header.empty(), byte, seen);) {
    const bool ended = binary_ ? header.size() == kBinaryHeader : header.ends_with("\r\n\r\n");
    if (ended) {
      ++body;
    } else {
      header += byte;
    }
    const bool endsNow = binary_ ? header.size() == kBinaryHeader : header.ends_with("\r\n\r\n");
    if (point == UpTo::FirstByte || body == kPartOfBody || header.size() == kLongestHeader) break;
    if (point == UpTo::EndOfHeader && endsNow) break;
  }
  require(caller.client->isConnected() == connected, "a read by hand ends the connection");
  if (!connected) {
    require(header.empty() && seen.errorId == kSocketId, "reads without a connection");
  } else if (!header.empty()) {
    caller.disturbed = true;
    caller.line.move({Line::Clean, Line::Tail, Line::Owed, Line::Asked}, Line::Uncertain);
  }
  return seen;
}

Seen World::open(std::size_t c) {
  Caller& caller = clients_[c];
  const std::size_t connections = network_.connections();
  Seen seen = run(c, [&] { caller.client->open(); });
  if (network_.connections() != connections) {
    noteConnections(caller, connections);
    caller.line = Line::Clean;
    caller.asked = nullptr;
  }
  if (!caller.client->isConnected()) {
    caller.line = Line::NotConnected;
    caller.asked = nullptr;
  }
  return seen;
}

void World::close(std::size_t c) {
  Caller& caller = clients_[c];
  run(c, [&] { caller.client->close(); });
  caller.line = Line::NotConnected;
  caller.asked = nullptr;
}

void World::setTimeOut(std::size_t c, unsigned int millis) {
  clients_[c].client->setTimeOut(clients_[c].timeOut = millis);
}

void World::setDeadline(std::size_t c, unsigned int millis) {
  clients_[c].client->setDeadline(clients_[c].deadline = millis);
}

void World::setNumRetries(std::size_t c, unsigned int count) {
  clients_[c].client->setNumRetries(clients_[c].retries = count);
}

void World::init(std::size_t c) {
  clients_[c].client->init();
  clients_[c].retries = 1;
}

void World::setQueueOnOneConnection(std::size_t c, bool on) {
  clients_[c].client->setQueueOnOneConnection(on);
  clients_[c].queueBound = on;
  clients_[c].queue.reset();
}

void World::setWaitHook(std::size_t c) {
  clients_[c].client->setWaitHook(&WaitingHost::wait, &host_);
  clients_[c].hooked = true;
}

void World::giveUpNext(std::size_t number, Wait wait) {
  host_.giveUpAt = number == 0 ? 0 : host_.waits + number;
  givenUp_ = wait;
}

void World::destroy(std::size_t r) { responses_[r] = Held(); }

void World::noteConnections(Caller& caller, std::size_t before) const {
  const std::size_t made = network_.connections() - before;
  caller.made += made;
  if (made == 0) return;
  caller.connection = network_.connections() - 1;
  caller.disturbed = false;
}

// The queue of documents.

/// It begins with the first document that is written.
void World::noteQueue(Caller& caller) {
  if (!caller.queue && caller.queueWritten != nullptr) {
    caller.queueBegun = caller.queueWritten;
    caller.queue = caller.queueBegun->connection;
  }
  caller.queueWritten = nullptr;
}

void World::judgeQueue(Caller& caller, const Question& question, const Seen& seen) {
  using tq::comm::RequestOutcome;
  noteQueue(caller);
  if (seen.refusedWithoutQueue()) {
    require(caller.queue && *caller.queue != caller.connection,
            "refuses although the connection of its queue is there");
  }
  if (!caller.queue || !question.written) return;
  const bool there = question.connection == *caller.queue;
  require(there || !needsQueue(question.kind), "goes on with its queue over another connection");
  const RequestOutcome outcome = caller.client->getRequestOutcome();
  const bool verdict = outcome == RequestOutcome::Answered || outcome == RequestOutcome::Rejected;
  if (there && verdict) caller.queue.reset();
}

void World::renew(std::size_t r) {
  take(responses_[r]);
  responses_[r] = Held();
}

void World::copy(std::size_t from, std::size_t to) {
  take(responses_[from]);
  take(responses_[to]);
  responses_[to] = responses_[from];
}

void World::rebuild(std::size_t c) {
  Caller& caller = clients_[c];
  caller.client.reset();
  caller = Caller();
  makeClient(caller);
}

void World::takeAll() {
  for (Held& held : responses_) take(held);
}

// Pulling.

World::Shape World::shapeOf(const Caller& caller, Held& held) const {
  return {held.response.getSearchResponse().count(),
          held.response.getParseResponse().count(),
          held.response.getResultCount(),
          held.response.getReturnCode(),
          caller.client->isEndOfStream(),
          caller.client->isTruncated(),
          network_.bytesTaken()};
}

bool World::isCurrent(const Caller& caller, const Mark& mark) const {
  return mark == Mark{} || (mark.client == caller.number && mark.exchange >= caller.firstExchange);
}

World::Stale World::staleness(const Caller& caller, const Held& held) const {
  std::size_t current = isCurrent(caller, held.mark) ? 1 : 0;
  for (const auto& [mark, owner] : held.others) {
    if (isCurrent(caller, mark)) ++current;
  }
  if (current == 0) return Stale::Yes;
  return current <= held.others.size() || caller.firstExchange != caller.exchange ? Stale::Perhaps
                                                                                  : Stale::No;
}

/// A pull that returns at once, because results or the end of the stream are there.
bool World::findsResults(Pulling how, const Shape& before) {
  return (how == Pulling::Looping && (before.ended || before.hits != 0)) ||
         (how == Pulling::Parsed && (before.ended || before.rows != 0)) ||
         (how == Pulling::RecvMultResponse && before.ended);
}

Seen World::pull(Pulling how, std::size_t c, std::size_t r, Reading reading) {
  Caller& caller = clients_[c];
  Held& held = responses_[r];
  const Stale stale = staleness(caller, held);
  // What a receive would replace is taken first; what a refusal must not touch is left.
  const bool replaces = how == Pulling::Recv || how == Pulling::RecvStream ||
                        how == Pulling::RecvMultResponse || how == Pulling::Single;
  if (replaces && stale != Stale::Yes) beginUse(held, reading);
  held.usedSince = true;
  const Shape before = shapeOf(caller, held);
  caller.received = true;
  if (how == Pulling::Buffered) held.response.setResultsBuffered(true);
  Seen seen = run(c, [&] { pullRaw(how, caller, held); });
  judgePull(how, caller, held, stale, before, seen, reading);
  return seen;
}

void World::pullRaw(Pulling how, Caller& caller, Held& held) {
  switch (how) {
    case Pulling::Recv:
      return caller.client->recv(held.response);
    case Pulling::RecvStream:
      return caller.client->recvStream(held.response);
    case Pulling::RecvMultResponse:
      return caller.client->recvMultResponse(held.response);
    case Pulling::Single:
      held.response.getSearchResponse(*caller.client, false);
      return;
    case Pulling::Parsed:
      held.response.getParseResponse(*caller.client);
      return;
    default:
      held.response.getSearchResponse(*caller.client, true);
      return;
  }
}

void World::judgePull(Pulling how, Caller& caller, Held& held, Stale stale, const Shape& before,
                      const Seen& seen, Reading reading) {
  const bool unchanged = shapeOf(caller, held) == before;
  if (how == Pulling::Buffered) {
    require(!seen.failed && unchanged, "receives although the results are marked as buffered");
    return;
  }
  const bool away = !caller.client->isConnected() && !seen.gaveUp;
  if (stale == Stale::Yes) {
    require(seen.errorId == kInvalidState || (away && seen.errorId == kNoConnection),
            "pulls into a response of another exchange", " " + seen.errorId);
    if (seen.errorId == kInvalidState) require(unchanged, "a refused pull changes something");
    if (seen.failed) return;
  }
  if (seen.errorId == kInvalidState) {
    require(stale != Stale::No || (binary_ && caller.exchangeFailed),
            "refuses to pull into the response of the present exchange");
    require(network_.bytesTaken() == before.bytesTaken, "refuses a pull and reads all the same");
    return;
  }
  if (away) {
    require(network_.bytesTaken() == before.bytesTaken, "reads without a connection");
    if (how == Pulling::Recv)
      require(seen.errorId == kNoConnection, "receives without a connection");
  }
  if (seen.errorId == kNoConnection) return;
  settleMark(how, caller, held, before);
  held.parsedAs = caller.lastKind;
  const bool tookBytes = network_.bytesTaken() != before.bytesTaken;
  const bool receives = !before.ended && !findsResults(how, before);
  const bool lost = caller.streamMade != caller.made || caller.disturbed;
  if (receives && caller.streamMade != 0 && lost) {
    require(!tookBytes && seen.waited == 0, "reads a stream on without its connection");
    require(seen.failed || caller.client->isTruncated(), "ends as whole without its connection");
  }
  lineAfterPull(caller, seen, before.ended);
  if (held.owner != nullptr && dropsPortions(how, caller.lastKind)) held.owner->gaps = true;
  read(held, reading);
  if (seen.failed) {
    if (held.owner != nullptr) {
      if (seen.errorId != kTimeOutId) held.owner->failed = true;
      judgeError(*held.owner, seen);
    }
    return;
  }
  judgeEnd(caller, held);
}

/// Whose the response is that was pulled into.
void World::settleMark(Pulling how, const Caller& caller, Held& held, const Shape& before) const {
  // An exchange that got no further than its request has left the response to the one before.
  bool unmarked = held.mark == Mark{};
  for (const auto& [mark, owner] : held.others) {
    unmarked = unmarked || mark == Mark{};
    if (isCurrent(caller, held.mark) || !isCurrent(caller, mark)) continue;
    held.mark = mark;
    held.owner = owner;
  }
  if (findsResults(how, before)) return;
  held.others.clear();
  if (!unmarked) return;
  held.owner = caller.stream != nullptr ? caller.stream : caller.asked;
  held.mark = {caller.number, caller.exchange};
}

/// A stream that says it is over and whole has brought all of it.
void World::judgeEnd(const Caller& caller, const Held& held) {
  const Question* owner = held.owner;
  if (owner == nullptr || owner != caller.stream || owner->untold || owner->failed) return;
  if (owner->gaps || owner->interim) return;
  if (!isStreaming(owner->kind) || shapeOfReply(held.parsedAs) != shapeOfReply(owner->kind)) return;
  if (!caller.client->isEndOfStream() || caller.client->isTruncated()) return;
  const bool whole =
      !owner->answers.empty() && owner->delivered == owner->answers.back().reply.names(binary_);
  require(whole, "ends as whole, but not all was delivered");
}

// The judge of what was delivered.

void World::clearScalars(Held& held) const {
  held.response.setReturnCode(-1);
  held.response.setGetStatusCode(0);
  if (binary_) {
    held.response.setStatusMessage(tq::oss::Message());
    held.response.setContent(icu::UnicodeString());
    held.response.setSelectivityInfo(tq::comm::SelectivityInfo(false));
  }
}

/// Reads all results, which are gone from the response then.
void World::take(Held& held) {
  auto& hits = held.response.getSearchResponse();
  auto& rows = held.response.getParseResponse();
  if (!held.leftHits.empty() || !held.leftRows.empty()) {
    look(held);
    held.leftHits.clear();
    held.leftRows.clear();
    hits.init();
    rows.init();
    return;
  }
  if (hits.count() == 0 && rows.count() == 0) return;
  std::vector<std::string> names;
  while (rows.hasMore()) names.push_back(utf8(rows.getNext().getDocument()));
  while (hits.hasMore()) names.push_back(utf8(hits.getNext().getDocId()));
  hits.init();
  rows.init();
  judgeNames(held, std::move(names));
}

/// Judges what the response holds and leaves it there.
void World::look(Held& held) {
  std::vector<std::string> hits = hitsIn(held.response);
  std::vector<std::string> names = rowsIn(held.response);
  std::vector<std::string> allHits = hits;
  std::vector<std::string> allRows = names;
  dropLeft(held, held.leftHits, hits);
  dropLeft(held, held.leftRows, names);
  held.leftHits = std::move(allHits);
  held.leftRows = std::move(allRows);
  held.usedSince = false;
  names.insert(names.end(), hits.begin(), hits.end());
  if (!names.empty()) judgeNames(held, std::move(names));
}

void World::read(Held& held, Reading reading) {
  if (reading == Reading::All) {
    take(held);
  } else {
    look(held);
  }
}

/// What lies in a response stays as it is there, or goes as a whole when a call uses the response.
void World::dropLeft(const Held& held, const std::vector<std::string>& left,
                     std::vector<std::string>& names) {
  const bool kept = isBeginningOf(left, names);
  require(kept || held.usedSince, "changes results that were left in a response");
  if (kept) names.erase(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(left.size()));
}

void World::beginUse(Held& held, Reading reading) {
  if (reading == Reading::All) take(held);
  held.usedSince = true;
}

void World::judgeNames(const Held& held, std::vector<std::string> names) {
  if (held.owner == nullptr) {
    require(false, "delivers to a response that nothing was asked for: ", names.front());
    return;
  }
  Question& owner = *held.owner;
  if (owner.untold) return;
  const auto isOf = [&](const Question& question, const std::string& name) {
    return std::any_of(question.answers.begin(), question.answers.end(), [&](const auto& answer) {
      const auto all = answer.reply.names(binary_);
      return std::find(all.begin(), all.end(), name) != all.end();
    });
  };
  if (owner.byHand && shapeOfReply(held.parsedAs) != shapeOfReply(owner.kind)) {
    // What the caller has read as another kind may be anything, but no other's.
    for (const Question& other : questions_) {
      if (&other == &owner) continue;
      require(!isOf(other, names.front()), "delivers another's ", names.front());
    }
    return;
  }
  for (auto& name : names) owner.delivered.push_back(std::move(name));
  const bool begins = std::any_of(owner.answers.begin(), owner.answers.end(), [&](const auto& a) {
    const auto all = a.reply.names(binary_);
    return owner.gaps ? isPartOf(owner.delivered, all) : isBeginningOf(owner.delivered, all);
  });
  require(begins, "delivers what the server did not say to it, or not in its order: ",
          owner.delivered.back());
}

void World::judgeExchange(const Caller& caller, Held& held, const Seen& seen) {
  const Question& question = *held.owner;
  if (!hasReply(question.kind)) return;
  if (question.answers.empty()) {
    require(seen.failed, "succeeds although the server never saw its request");
    require(seen.errorId != kServerId, "has an error although the server never saw its request");
  } else if (seen.failed) {
    judgeError(question, seen);
  } else {
    judgeSuccess(caller, held);
    judgeEnd(caller, held);
  }
}

void World::judgeError(const Question& question, const Seen& seen) {
  using Verdict = TaggedReply::Verdict;
  if (question.untold) return;
  const bool mayBeError = seen.errorId == kServerId;
  if (!mayBeError && seen.errorId != kRefusedId) return;
  require(!question.answers.empty(), "has the server's error without an answer");
  if (question.answers.empty()) return;
  const TaggedReply& said = question.answers.back().reply;
  if (mayBeError) {
    require(said.verdict == Verdict::Error, "has an error that the server did not mean");
    require(seen.errorText == tagText(said.tag), "has the error of another: ", seen.errorText);
  } else {
    require(said.verdict == Verdict::Refused, "is refused, which the server did not mean");
  }
}

void World::judgeSuccess(const Caller& caller, Held& held) {
  const Question& question = *held.owner;
  const auto& [said, text, begun] = question.answers.back();
  const bool sameShape = shapeOfReply(held.parsedAs) == shapeOfReply(question.kind);
  require(begun, "succeeds although the server did not answer");
  if (question.interim) {
    require(!held.response.success(), "takes an interim reply for the final one");
    return;
  }
  if (!sameShape || (question.byHand && !held.response.success())) return;
  const bool errorIsStatus = binary_ && said.kind == kGetStatus;
  require(said.verdict == TaggedReply::Verdict::Ok ||
              (errorIsStatus && said.verdict == TaggedReply::Verdict::Error),
          "succeeds although the server refused it");
  judgeScalars(said, held, caller.client->isTruncated());
}

void World::judgeScalars(const TaggedReply& said, Held& held, bool cut) {
  ClientResponse& response = held.response;
  if (said.kind == kGetStatus && !binary_) {
    require(response.getStatusCode() == said.tag, "has the status of another");
  }
  if (!binary_) return;
  if (said.kind == kGetStatus) {
    const std::string text = utf8(response.getStatusMessage().getMessageText());
    require((cut && text.empty()) || text == tagText(said.tag),
            "has the status of another: ", text);
  }
  if (said.kind == kGetServerVersion) {
    require(utf8(response.getContent()) == tagText(said.tag), "has another's version");
  }
  if (said.kind == kSelectivity && !held.owner->byHand) {
    require(response.getSelectivityInfo().getFirst() == said.tag, "has another's estimate");
  }
}

// What the line holds afterwards.

void World::lineAfterExchange(Caller& caller, const Seen& seen, bool reconnected,
                              bool askedMeanwhile) {
  if (!caller.client->isConnected()) {
    caller.line = Line::NotConnected;
    return;
  }
  if ((!seen.failed && !hasReply(caller.lastKind)) || seen.refusedWithoutQueue()) {
    if (reconnected) caller.line = Line::Clean;
    // A question that batching held back went out, and this message may still be held.
    if (askedMeanwhile) caller.line = {Line::Clean, Line::Asked};
    return;
  }
  const bool truncated = caller.client->isTruncated();
  const bool last = lastQuestion()->last;
  if (!seen.failed) {
    const bool over = caller.client->isEndOfStream() || caller.lastKind == kSelectivity;
    if (!over) {
      caller.line = Line::Owed;
    } else if (last) {
      caller.line = Line::Uncertain;
    } else if (truncated) {
      caller.line = {Line::Clean, Line::Tail, Line::Uncertain};
    } else {
      caller.line = {Line::Clean, Line::Tail};
    }
    return;
  }
  // A failed write, and one of an attempt by hand over HTTP.
  if (seen.errorId == "ERR_SERVER_COMM_SEND" || seen.errorId == kSocketId) {
    caller.line = Line::Broken;
  } else if (seen.errorId == kInternal) {
    // A write over HTTP, a read over the binary protocol.
    caller.line = binary_ ? Lines(Line::Uncertain) : Lines(Line::Broken);
  } else if (seen.errorId == kServerId || seen.errorId == kRefusedId) {
    caller.line = last ? Lines(Line::Uncertain) : Lines(Line::Clean, Line::Tail);
  } else {
    caller.line = {Line::Clean, Line::Tail, Line::Uncertain, Line::Broken};
  }
}

void World::lineAfterPull(Caller& caller, const Seen& seen, bool endedBefore) {
  if (!caller.client->isConnected()) {
    caller.line = Line::NotConnected;
    return;
  }
  // Only another connection mends this.
  if (caller.line.mustBe(Line::Broken) || endedBefore) return;
  // The end of an estimate and the reply to a later question may have been read in one.
  if (caller.line.mayBe(Line::Asked)) caller.line.add(Line::Uncertain);
  const bool ended = caller.client->isEndOfStream();
  if (!seen.failed && !ended) return;
  if (seen.errorId == kTimeOutId) {
    if (caller.exchangeFailed) caller.line = Line::Uncertain;
    // An estimate is complete without its end; whoever asks for that end is owed it.
    if (caller.line.mayBe(Line::Tail)) caller.line.add(Line::Owed);
    return;
  }
  if (!seen.failed && !caller.client->isTruncated() && !caller.exchangeFailed) {
    if (!caller.line.mayBe(Line::Owed)) return;
    if (caller.stream->last) {
      caller.line.move({Line::Owed}, Line::Uncertain);
      return;
    }
    caller.line.move({Line::Owed}, Line::Clean);
    caller.line.add(Line::Tail);
    return;
  }
  // A stream of an earlier connection ends without touching the present one.
  if (caller.streamMade == 0 || caller.streamMade == caller.made) caller.line = Line::Uncertain;
}

}  // namespace tq::test
