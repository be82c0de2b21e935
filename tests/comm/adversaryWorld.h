#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruLine.h"
#include "tests/comm/adversaryNetwork.h"
#include "tests/comm/taggedReplies.h"
#include "tests/support/waitingHost.h"

namespace tq::test {

/// What a connection holds, in the words of docs/connection-states.md.
using Line = tq::comm::Line::State;

/// The states that a line may be in, as far as its caller can tell.
class Lines {
 public:
  template <typename... Others>
  constexpr Lines(Line one, Others... others) : bits_((bit(one) | ... | bit(others))) {}
  constexpr bool mayBe(Line line) const { return (bits_ & bit(line)) != 0; }
  constexpr bool mustBe(Line line) const { return bits_ == bit(line); }
  constexpr bool mayDifferFrom(Line line) const { return (bits_ & ~bit(line)) != 0; }
  constexpr bool operator==(const Lines&) const = default;
  constexpr unsigned int bits() const { return bits_; }
  void add(Lines others) { bits_ |= others.bits_; }
  /// Every state that `from` lists becomes `to`.
  void move(Lines from, Line to) {
    if ((bits_ & from.bits_) != 0) bits_ = (bits_ & ~from.bits_) | bit(to);
  }

 private:
  static constexpr unsigned int bit(Line line) { return 1U << static_cast<unsigned int>(line); }
  unsigned int bits_;
};

/// One request as its caller means it, and what became of it.
struct Question {
  struct Answer {
    TaggedReply reply;
    std::string text;
    bool begun;  // false when not even the beginning of it is ever sent
  };
  std::size_t number = 0;
  int kind = 0;
  std::size_t client = 0;
  bool byHand = false;
  bool written = false;        // all of it has arrived at the peer
  bool untold = false;         // unasked bytes stand where its reply begins
  bool failed = false;         // its caller was told of a failure other than a time-out
  bool gaps = false;           // received in a way that drops portions before the caller sees them
  bool inChunks = false;       // its bytes were written by hand, as part of no message
  bool unsent = false;         // its caller was told so, and the peer did not have all of it
  bool last = false;           // its reply is the last one to be had on the connection
  bool interim = false;        // what the client takes for its reply is an interim one
  std::size_t connection = 0;  // that it was written to last
  std::vector<Answer> answers{};         // one for each attempt that the server saw
  std::vector<std::string> delivered{};  // ids of hits, or documents
};

/// What a caller sees of one call.
struct Seen {
  bool failed = false;
  std::string errorId{};
  std::string errorText{};
  std::uint64_t waited = 0;  // MICROSECONDS
  bool gaveUp = false;       // the host, in one of the call's waits

  /// The connection of the documents that were queued before is gone.
  bool refusedWithoutQueue() const;
};

/// How an exchange is asked for: as the client's settings say, one attempt by hand, or with limits
/// of its own.
enum class Asking { AsSet, Once, Limited };

enum class Pulling { Recv, RecvStream, RecvMultResponse, Looping, Single, Parsed, Buffered };

/// What a caller reads of the results that a response holds before a call and after it.
enum class Reading { All, Nothing };

/// How far the bytes of a reply are taken off its connection by hand.
enum class UpTo { FirstByte, EndOfHeader, MiddleOfBody };

/// Tells the state of a client's line and buffer, which callers do not see.
class Inspected {
 public:
  virtual ~Inspected() = default;
  virtual Line lineState() const = 0;
  virtual bool holdsBytes() const = 0;
};

/// Two clients, their responses, the network in memory between them and their peer, and a judge who
/// knows of each request what the peer said to it. Each call is judged as it returns.
class World {
 public:
  static constexpr std::size_t kClients = 2;
  static constexpr std::size_t kResponses = 4;

  /// Of an exchange that has limits of its own.
  static constexpr unsigned int kOwnDeadlineMillis = 10;
  static constexpr unsigned int kOwnRetries = 1;

  /// How the peer answers: calls `say`, and sends.
  using Peer = std::function<void(std::size_t connection, Question&)>;

  World(bool binary, bool joined, bool persistent, Peer peer);

  TimedNetwork& network() { return network_; }
  bool binary() const { return binary_; }
  tq::comm::CorvaneRESTClient& client(std::size_t c) { return *clients_[c].client; }
  /// Null for a client of the other protocol.
  tq::comm::DrestoPerfClient* binaryClient(std::size_t c);
  tq::comm::ClientResponse& response(std::size_t r) { return responses_[r].response; }

  /// What the peer says to a question; `begun` is false when it will send nothing of it.
  void say(Question& question, const TaggedReply& reply, std::string text, bool begun);

  // What a caller may do. Responses are numbers; `kFresh` is one that nothing has filled.
  static constexpr std::size_t kFresh = kResponses - 1;
  Seen exchange(std::size_t c, std::size_t r, int kind, Asking how = Asking::AsSet,
                Reading reading = Reading::All);
  Seen exchangeUnsendable(std::size_t c, std::size_t r);
  Seen send(std::size_t c, int kind, bool asMessage);
  /// Writes bytes of a request, of the binary protocol alone, in pieces that are part of no
  /// message.
  enum class Bytes { Half, All };
  Seen sendBodyChunks(std::size_t c, int kind, Bytes bytes);
  Seen recvMesg(std::size_t c, std::size_t r, Reading reading = Reading::All);
  /// Past all replies, and without a response.
  Seen readByHand(std::size_t c, UpTo point);
  Seen pull(Pulling how, std::size_t c, std::size_t r, Reading reading = Reading::All);
  Seen open(std::size_t c);
  void close(std::size_t c);
  void setTimeOut(std::size_t c, unsigned int millis);
  void setDeadline(std::size_t c, unsigned int millis);
  void setNumRetries(std::size_t c, unsigned int count);
  void init(std::size_t c);
  void setQueueOnOneConnection(std::size_t c, bool on);
  /// Has a host wait for the client from now on.
  void setWaitHook(std::size_t c);
  /// In the next call the host gives up the wait of this number, if there is one; 0: none.
  enum class Wait { OfAConnect, Other };
  void giveUpNext(std::size_t number, Wait wait = Wait::Other);
  void renew(std::size_t r);
  /// Ends a response with all that it holds.
  void destroy(std::size_t r);
  void copy(std::size_t from, std::size_t to);
  void rebuild(std::size_t c);

  /// Takes what the responses still hold.
  void takeAll();

  /// What was delivered to the wrong request, or is not what the documents promise; empty when all
  /// is well.
  const std::string& violation() const { return violation_; }
  void require(bool holds, const char* what, const std::string& more = {});

  Lines line(std::size_t c) const { return clients_[c].line; }
  /// Documents were queued, nothing has confirmed them, and they bind the queue to a connection.
  bool hasQueue(std::size_t c) const { return clients_[c].queue.has_value(); }
  int lastKind(std::size_t c) const { return clients_[c].lastKind; }
  /// The line's own word for its state.
  Line inspected(std::size_t c) const { return clients_[c].inspect->lineState(); }
  /// A number for all that a caller could know of the clients, their responses and their network.
  std::size_t fingerprint();
  /// The same for one client, one response and that client's connection.
  std::size_t fingerprintOf(std::size_t c, std::size_t r);
  const Question* lastQuestion() const { return questions_.empty() ? nullptr : &questions_.back(); }

 private:
  // Which exchange of which client filled a response. Zero: none.
  struct Mark {
    std::uint64_t client = 0;
    std::uint64_t exchange = 0;
    bool operator==(const Mark&) const = default;
  };
  struct Caller {
    std::unique_ptr<tq::comm::CorvaneRESTClient> client{};
    const Inspected* inspect = nullptr;
    std::uint64_t number = 0;
    Lines line{Line::NotConnected};
    // The present exchange; where that cannot be told, any from the first of these on may be it.
    std::uint64_t firstExchange = 0;
    std::uint64_t exchange = 0;
    int lastKind = 0;
    bool exchangeFailed = true;  // or there was none
    Question* stream = nullptr;  // whose reply a receive brings
    std::size_t made = 0;        // connections
    std::size_t streamMade = 0;  // of which the stream began on this one; 0: on none
    bool disturbed = false;      // bytes were taken off the present one by hand
    bool hooked = false;
    Question* asked = nullptr;  // by hand, on a line that owed nothing
    unsigned int timeOut = 0;
    unsigned int deadline = 0;
    unsigned int retries = 0;
    // Since the exchange: each leaves a parser in a state of its own.
    bool received = false;
    bool receivedReply = false;
    std::size_t connection = 0;  // the one that was made last
    // Whether the queue of documents must stay on one connection, which one that is, and where a
    // document of the present call went.
    bool queueBound = false;
    std::optional<std::size_t> queue{};
    const Question* queueBegun = nullptr;
    const Question* queueWritten = nullptr;
  };
  struct Held {
    tq::comm::ClientResponse response{};
    Mark mark{};
    Question* owner = nullptr;
    // What else it may be, after exchanges of which it is not known whether they received.
    std::vector<std::pair<Mark, Question*>> others{};
    int parsedAs = 0;
    // What it holds that was judged and not read, and whether a call has used it since.
    std::vector<std::string> leftHits{};
    std::vector<std::string> leftRows{};
    bool usedSince = false;
  };
  enum class Stale { No, Perhaps, Yes };
  // What a refused call leaves as it is.
  struct Shape {
    unsigned int hits = 0;
    unsigned int rows = 0;
    int results = 0;
    int code = 0;
    bool ended = false;
    bool truncated = false;
    std::uint64_t bytesTaken = 0;
    bool operator==(const Shape&) const = default;
  };

  void makeClient(Caller& caller);
  void answer(std::size_t connection, const std::string& request);
  Question& ask(std::size_t c, int kind, bool byHand);
  template <typename Call>
  Seen run(std::size_t c, Call&& call);
  template <typename Call>
  void runInHost(Caller& caller, Call&& call, Seen& seen);
  void judgeWaits(const Caller& caller, const Seen& seen);
  void judgeGivingUp(const Caller& caller, const Seen& seen);
  bool readOneByHand(std::size_t c, bool first, char& byte, Seen& seen);
  void judgeId(const Seen& seen);

  std::size_t knownOf(const Caller& caller) const;
  std::size_t knownOf(const Caller& caller, Held& held) const;
  Shape shapeOf(const Caller& caller, Held& held) const;
  bool isCurrent(const Caller& caller, const Mark& mark) const;
  Stale staleness(const Caller& caller, const Held& held) const;
  static bool findsResults(Pulling how, const Shape& before);
  void pullRaw(Pulling how, Caller& caller, Held& held);
  void judgePull(Pulling how, Caller& caller, Held& held, Stale stale, const Shape& before,
                 const Seen& seen, Reading reading);
  void judgeEnd(const Caller& caller, const Held& held);

  void take(Held& held);
  void look(Held& held);
  void read(Held& held, Reading reading);
  void dropLeft(const Held& held, const std::vector<std::string>& left,
                std::vector<std::string>& names);
  void beginUse(Held& held, Reading reading);
  void noteConnections(Caller& caller, std::size_t before) const;
  void noteQueue(Caller& caller);
  void judgeQueue(Caller& caller, const Question& question, const Seen& seen);
  void judgeNames(const Held& held, std::vector<std::string> names);
  void markAfterExchange(const Caller& caller, Held& held, Question& question, const Seen& seen);
  void clearScalars(Held& held) const;
  void judgeExchange(const Caller& caller, Held& held, const Seen& seen);
  void judgeError(const Question& question, const Seen& seen);
  void judgeSuccess(const Caller& caller, Held& held);
  void judgeScalars(const TaggedReply& said, Held& held, bool cut);
  void lineAfterExchange(Caller& caller, const Seen& seen, bool reconnected, bool askedMeanwhile);
  void settleMark(Pulling how, const Caller& caller, Held& held, const Shape& before) const;
  void lineAfterPull(Caller& caller, const Seen& seen, bool endedBefore);

  bool binary_;
  bool persistent_;
  Peer peer_;
  std::deque<Question> questions_{};
  std::uint64_t clientsMade_ = 0;
  std::size_t askedByHand_ = 0;               // questions that have arrived
  std::unordered_set<std::size_t> ending_{};  // connections on which no further reply is to be had
  std::string violation_{};
  WaitingHost host_{};
  Wait givenUp_ = Wait::Other;
  bool readsByHand_ = false;
  TimedNetwork network_;
  std::array<Caller, kClients> clients_{};
  std::array<Held, kResponses> responses_{};
};

}  // namespace tq::test
