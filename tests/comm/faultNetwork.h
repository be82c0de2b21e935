#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/simulatedKernel.h"

namespace tq::test {

/// A reply, cut into what one receive gets at most. What follows the last byte that the
/// client needs is its tail.
struct Answer {
  std::vector<std::string> segments;
  std::string tail{};
};
/// What the peer answers to the whole request; no segment at all for a request without a reply.
using Answerer = std::function<Answer(const std::string& request)>;

/// A network in memory with an answering peer, in place of the system's for as long as it lives.
/// It counts the calls of the table, makes one of them go wrong, keeps account of descriptors and
/// of what its peers have seen whole, and has a clock that moves only during waits.
/// One at a time, one thread.
class FaultNetwork {
 public:
  struct Options : SimulatedKernel::Options {
    Options() {
      connectInBackground = true;
      writesWait = true;
      addresses = {"127.0.0.1"};
    }

    bool framed = false;          // requests of the binary protocol
    unsigned int dripMillis = 0;  // a reply comes byte by byte, with so much time between
    bool silent = false;          // takes requests and answers none
  };

  FaultNetwork(const Options& options, Answerer answerer);

  Options& options() { return options_; }

  /// The nth call of the entry from now on, counted from 1, goes wrong. Several may.
  void plan(Entry entry, std::size_t nth, const Fault& fault) {
    kernel_.faults().add(entry, nth, fault);
  }
  bool planIsOver() const { return kernel_.faults().isOver(); }

  /// The calls since the last `forgetCalls`, in their order.
  const std::vector<SeenCall>& calls() const { return kernel_.faults().calls(); }
  void forgetCalls() { kernel_.faults().forgetCalls(); }
  /// How often the entry was called since the network began; looks at the clock are counted only.
  std::size_t count(Entry entry) const { return kernel_.faults().count(entry); }

  std::size_t openDescriptors() const { return kernel_.openDescriptors(); }
  /// When each connect began, in nanoseconds of the network's clock.
  const std::vector<std::uint64_t>& connectTimes() const { return kernel_.connectTimes(); }
  /// Descriptors that were closed twice, or used when they were not open.
  std::size_t misusedDescriptors() const { return kernel_.misusedDescriptors(); }
  /// Every request that a peer has seen whole.
  const std::vector<std::string>& journal() const { return journal_; }
  /// True when the client waited without a limit for what would never come.
  bool waitedForever() const { return kernel_.waitedForever(); }
  std::uint64_t nowNanos() const { return kernel_.now(); }

 private:
  class AnsweringPeer;

  Options options_;
  Answerer answerer_;
  std::vector<std::string> journal_;
  SimulatedKernel kernel_;
};

}  // namespace tq::test
