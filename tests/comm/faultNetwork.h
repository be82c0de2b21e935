#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace tq::test {

/// The entries of the table of system calls that can go wrong.
enum class Entry {
  Socket,
  Setsockopt,
  Connect,
  Getsockopt,
  Fcntl,
  Poll,
  Recv,
  Sendmsg,
  Close,
  Getaddrinfo,
  Clock,
};
const char* nameOf(Entry entry);

/// What a call was good for: the failure of one call means something else in each.
enum class Phase {
  Resolve,
  Connect,
  Look,  // at a connection on which nothing is awaited
  Send,
  Receive,
  Close,
  Clock,
};

/// How one call goes wrong.
struct Fault {
  enum class Kind {
    Error,       // fails with the errno, or, of the resolver, with the code
    Interrupt,   // a signal arrives
    WouldBlock,  // nothing can be moved just now, although poll has said so
    Short,       // moves one byte
    Eof,         // the peer has closed
    SoError,     // the connect that went on in the background has failed
    Stall,       // nothing more is moved on the connection, ever
    Delay,       // of a look at the clock: the process has not run for so many milliseconds
  };
  Kind kind;
  int value = 0;
};
std::string nameOf(const Fault& fault);

struct SeenCall {
  Entry entry;
  Phase phase;
  std::size_t awaited = 0;  // bytes of a reply that the client needs and has not got
  bool moved = false;       // bytes, in either direction
};

/// A reply, cut into what one receive gets at most. What stands behind the last byte that the
/// client needs is its tail.
struct Answer {
  std::vector<std::string> segments;
  std::string tail{};
};
/// What the peer answers to the whole request; no segment at all for a request without a reply.
using Answerer = std::function<Answer(const std::string& request)>;

/// A network in memory with an answering peer, in place of the system's for as long as it lives.
/// It counts the calls of the table, makes one of them go wrong, keeps account of descriptors and
/// of what its peers have seen whole, and has a clock that moves only while somebody waits.
/// One at a time, one thread.
class FaultNetwork {
 public:
  struct Options {
    bool framed = false;              // requests of the binary protocol
    bool connectInBackground = true;  // as over a real network; else at once, as over loopback
    bool writesWait = true;           // a write that must not wait finds no room at first
    unsigned int dripMillis = 0;      // a reply comes byte by byte, with so much time between
    std::size_t window = std::numeric_limits<std::size_t>::max();  // bytes a connection takes
    unsigned int writeMillis = 0;  // what each write takes, however little it moves
    std::size_t writeMost = std::numeric_limits<std::size_t>::max();  // bytes a write moves
    bool neverAccepts = false;
    bool refuses = false;
    bool silent = false;  // takes requests and answers none
    unsigned int resolveMillis = 0;
    std::size_t clockFailsFrom = std::numeric_limits<std::size_t>::max();  // that look on
    std::vector<std::string> addresses{"127.0.0.1"};                       // those of every name
  };

  FaultNetwork(const Options& options, Answerer answerer);
  ~FaultNetwork();
  FaultNetwork(const FaultNetwork&) = delete;
  FaultNetwork& operator=(const FaultNetwork&) = delete;

  Options& options();

  /// The nth call of the entry from now on, counted from 1, goes wrong. Several may.
  void plan(Entry entry, std::size_t nth, const Fault& fault);
  bool planIsOver() const;

  /// The calls since the last `forgetCalls`, in their order.
  const std::vector<SeenCall>& calls() const;
  void forgetCalls();
  /// How often the entry was called since the network began; looks at the clock are counted only.
  std::size_t count(Entry entry) const;

  std::size_t openDescriptors() const;
  /// When each connect began, in nanoseconds of the network's clock.
  const std::vector<std::uint64_t>& connectTimes() const;
  /// Descriptors that were closed twice, or used when they were not open.
  std::size_t misusedDescriptors() const;
  /// Every request that a peer has seen whole.
  const std::vector<std::string>& journal() const;
  /// True when somebody waited without a limit for what would never come.
  bool waitedForever() const;
  std::uint64_t nowNanos() const;

  /// Told when the network itself begins to work, and when the code under test goes on: a test that
  /// fails allocations means the latter's. Null, as at first: nobody is told.
  static void tellOfWork(void (*listener)(bool begins));

  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace tq::test
