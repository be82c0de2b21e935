#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/faultPlan.h"

struct pollfd;

namespace tq::test {

/// One simulated TCP connection, as its peer sees it. What the peer does reaches the client in the
/// order in which it was done, each at its time.
class Wire {
 public:
  /// Delays are in NANOSECONDS. This one stands for "when the client waits for it": a look that
  /// does not wait never finds it.
  static constexpr std::uint64_t kOnDemand = std::numeric_limits<std::uint64_t>::max();

  /// Sends what one receive gets at most. Bytes that are `extra` are not needed by the client: the
  /// tail of a reply, or bytes that it did not ask for.
  void send(std::string_view bytes, std::uint64_t delay = 0, bool extra = false);
  void close(std::uint64_t delay = 0);
  void reset(std::uint64_t delay = 0);
  /// Does nothing more, whatever the client does.
  void fallSilent() { ended_ = true; }
  /// Extra bytes that would arrive later than this many nanoseconds from now never do.
  void withdrawExtra(std::uint64_t delay);

  /// The number of the connection, in the order in which they were made.
  std::size_t index() const { return index_; }
  bool isOpen() const { return open_; }
  /// Bytes that are on their way to the client and not extra.
  std::size_t awaited() const { return awaited_; }
  /// Bytes that the client has written, read by the peer or not.
  std::size_t taken() const { return taken_; }
  /// The client has received every byte that was sent.
  bool drained() const { return awaited_ + extra_ == 0; }
  /// Extra bytes have arrived, received by the client or not.
  bool extraArrived() const;
  /// A number for what is on its way to the client: what it is, how much, and when it comes.
  std::size_t fingerprint() const;

 private:
  friend class SimulatedKernel;

  enum class State { Fresh, Connecting, Established };

  struct Arrival {
    enum class Kind { Bytes, Close, Reset };
    Kind kind;
    std::uint64_t at;
    bool extra = false;
    std::string bytes{};
    std::size_t taken = 0;
  };

  void add(Arrival arrival);
  void die(int error);
  std::size_t& countOf(const Arrival& arrival) { return arrival.extra ? extra_ : awaited_; }
  void take(std::size_t count);
  void drop(std::deque<Arrival>::iterator arrival);
  void dropFrom(std::size_t first);

  const std::uint64_t* now_ = nullptr;
  std::size_t index_ = 0;
  bool open_ = true;
  bool nonBlocking_ = false;
  State state_ = State::Fresh;
  bool neverConnects_ = false;
  bool connectPending_ = false;  // one that went on in the background, and was not asked about

  std::deque<Arrival> arrivals_;
  std::size_t arrived_ = 0;  // how many of them can be received
  std::size_t awaited_ = 0;  // bytes in all of them
  std::size_t extra_ = 0;
  bool extraReceived_ = false;
  bool ended_ = false;    // the peer does nothing more
  bool closed_ = false;   // its close has arrived
  bool dead_ = false;     // a reset has arrived, or the connection could not be made
  int pendingError_ = 0;  // told once: to a receive, a send or a look at SO_ERROR
  bool stalled_ = false;
  bool roomAwaited_ = false;
  std::size_t taken_ = 0;
  std::vector<std::string> heldBack_;  // written as beginnings whose rest follows
};

/// Who is at the other end of a connection.
class SimulatedPeer {
 public:
  virtual ~SimulatedPeer() = default;
  virtual void accepted(Wire&) {}
  virtual void received(Wire& wire, std::string_view bytes) = 0;
  /// What the client wrote after the peer's close had arrived. It gets a reset for it.
  virtual void receivedAfterClose(Wire&, std::string_view) {}
  virtual void closed(Wire&) {}
};

/// The system's calls in memory, in place of the real ones for as long as the object lives. Sockets
/// behave as Linux's do, resets and closes above all, which a test holds against the real ones. The
/// clock moves only during waits, and by a step at each look, so that a client that spins until a
/// deadline gets there. A fault plan stands in front. One object at a time, one thread.
class SimulatedKernel {
 public:
  static constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();

  struct Options {
    std::uint64_t clockStep = 1000;
    std::size_t clockFailsFrom = kUnlimited;  // that look at the clock on
    std::size_t maxSockets = kUnlimited;

    std::vector<std::string> addresses{};  // those of every name; empty: the system's own answer
    unsigned int resolveMillis = 0;        // what each look-up takes
    bool knowsNoName = false;

    bool connectInBackground = false;  // as over a network; else at once
    int connectError = 0;
    bool neverAccepts = false;

    bool receivesJoin = false;                // one receive may get several of the peer's pieces
    std::function<std::size_t()> maxReceive;  // bytes that the next receive gets; null: all

    bool writesWait = false;            // a write that must not wait finds room only after a poll
    std::size_t window = kUnlimited;    // bytes that a connection takes in all
    std::size_t maxWrite = kUnlimited;  // bytes that one write moves
    unsigned int writeMillis = 0;       // what each write takes, however little it moves

    std::function<void()> beforeCall;
  };
  using Accept = std::function<std::unique_ptr<SimulatedPeer>(std::size_t connection)>;

  /// The options may change while the kernel lives, and must outlive it.
  SimulatedKernel(const Options& options, Accept accept);
  ~SimulatedKernel();
  SimulatedKernel(const SimulatedKernel&) = delete;
  SimulatedKernel& operator=(const SimulatedKernel&) = delete;

  FaultPlan& faults() { return faults_; }
  const FaultPlan& faults() const { return faults_; }

  /// The connections that were made.
  std::size_t connections() const { return connections_.size(); }
  Wire& connection(std::size_t index) const { return *connections_.at(index); }
  SimulatedPeer& peer(std::size_t index) const { return *peers_.at(index); }

  /// When each attempt to connect began, in NANOSECONDS of the simulated clock.
  const std::vector<std::uint64_t>& connectTimes() const { return connectTimes_; }

  std::size_t openDescriptors() const;
  /// Descriptors that were closed twice, or used when they were not open.
  std::size_t misusedDescriptors() const { return misused_; }
  /// True when a client waited without a limit for what would never come. The wait ended by a
  /// reset.
  bool waitedForever() const { return waitsForever_ != 0; }
  std::size_t waitsForever() const { return waitsForever_; }
  /// The longest wait on a socket since the last call of this, in NANOSECONDS.
  std::uint64_t takeLongestWait() { return std::exchange(longestWait_, 0); }
  /// How many bytes all receives have brought.
  std::uint64_t bytesReceived() const { return bytesReceived_; }

  /// NANOSECONDS of the simulated clock.
  std::uint64_t now() const { return now_; }
  void idle(std::uint64_t nanos) { now_ += nanos; }

  /// The listener is told when the kernel itself begins to work and when the code under test goes
  /// on, for tests that count or fail only the latter's allocations. Null, the default, means none.
  static void tellOfWork(void (*listener)(bool begins));

 private:
  class Calls;

  Wire* find(int fd);
  void establish(Wire& wire);
  int await(pollfd* entries, unsigned long count, int timeoutMillis);
  int pass(pollfd* entries, unsigned long count, int timeoutMillis);
  bool arrive(Wire& wire, bool waits);
  short readiness(Wire& wire, short events, bool waits);
  std::uint64_t nextArrival(const pollfd* entries, unsigned long count);
  void breakOff(Wire& wire);
  long deliver(Wire& wire, char* out, std::size_t length, bool keep);
  void take(Wire& wire, std::string_view bytes);
  void holdBack(Wire& wire, std::string bytes);
  void pushOut(Wire& wire);
  std::size_t roomOf(const Wire& wire) const;

  const Options& options_;
  Accept accept_;
  FaultPlan faults_;
  std::uint64_t now_ = 1000000000000;
  std::deque<Wire> sockets_;
  std::vector<Wire*> connections_;
  std::vector<std::unique_ptr<SimulatedPeer>> peers_;
  std::vector<std::uint64_t> connectTimes_;
  std::size_t misused_ = 0;
  std::size_t waitsForever_ = 0;
  std::uint64_t longestWait_ = 0;
  std::uint64_t bytesReceived_ = 0;
};

}  // namespace tq::test
