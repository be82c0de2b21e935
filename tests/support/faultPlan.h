#pragma once

#include <array>
#include <cstddef>
#include <optional>
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
    Short,       // moves no more bytes than the value says, at least one
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

/// Which calls go wrong, and a record of all.
class FaultPlan {
 public:
  /// The nth call of the entry from now on, counted from 1, goes wrong. Several may.
  void add(Entry entry, std::size_t nth, const Fault& fault);
  void clear() { planned_.clear(); }
  bool isOver() const { return planned_.empty(); }

  /// How often the entry was called; looks at the clock are counted only.
  std::size_t count(Entry entry) const { return counts_[static_cast<std::size_t>(entry)]; }
  /// The calls since the last `forgetCalls`, in their order.
  const std::vector<SeenCall>& calls() const { return calls_; }
  void forgetCalls() { calls_.clear(); }
  /// The record grows with every call; tests that do not read it switch it off.
  void record(bool on) { records_ = on; }

  /// Counts the call and tells how it goes wrong, if it does.
  std::optional<Fault> enter(Entry entry, Phase phase, std::size_t awaited = 0);
  /// The call that was entered last has moved bytes.
  void moved();

 private:
  struct Plan {
    Entry entry;
    std::size_t at;
    Fault fault;
  };

  std::array<std::size_t, 11> counts_{};
  std::vector<Plan> planned_;
  std::vector<SeenCall> calls_;
  bool records_ = true;
};

}  // namespace tq::test
