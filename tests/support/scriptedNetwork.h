#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "tests/support/script.h"
#include "tests/support/simulatedKernel.h"

namespace tq::test {

/// A network in memory, in place of the system's for as long as the object lives: peers follow
/// scripts, each segment is what one receive gets at most, and the clock moves only during
/// waits. Thousands of exchanges run in the time of one real one, and a wait that could never end
/// is told from one that does.
///
/// The n-th connection follows the n-th script; further ones follow the last. One object at a time,
/// one thread.
class ScriptedNetwork {
 public:
  enum class Arrival {
    AllThere,  // every segment has arrived before it is asked for
    OnDemand,  // a segment arrives when the client waits for it; a non-blocking look never finds it
  };

  explicit ScriptedNetwork(std::vector<Script> scripts, Arrival arrival = Arrival::AllThere);
  explicit ScriptedNetwork(Script script, Arrival arrival = Arrival::AllThere)
      : ScriptedNetwork(std::vector{std::move(script)}, arrival) {}

  /// Every connect from now on fails with this errno; 0 ends that.
  void failConnects(int error) { options_.connectError = error; }
  /// Every connect from now on is never answered.
  void ignoreConnects() { options_.neverAccepts = true; }
  /// No host name is known from now on.
  void failLookups() { options_.knowsNoName = true; }
  /// The next write fails with this errno, or the one after this many that succeed.
  void failNextWrite(int error, std::size_t successes = 0) {
    kernel_.faults().add(Entry::Sendmsg, successes + 1, {Fault::Kind::Error, error});
  }
  /// A write takes at most this many bytes.
  void limitWrites(std::size_t bytes) { options_.maxWrite = bytes; }
  /// Ends the stalls of all scripts.
  void release();

  std::size_t connections() const { return kernel_.connections(); }
  std::size_t connectAttempts() const { return kernel_.faults().count(Entry::Connect); }
  std::size_t requests() const;
  const ConnectionRecord& connection(std::size_t index) const { return records_.at(index); }
  std::size_t receives() const { return kernel_.faults().count(Entry::Recv); }
  std::size_t writes() const { return kernel_.faults().count(Entry::Sendmsg); }
  /// The bytes that each write took, over all connections.
  const std::vector<std::size_t>& writeSizes() const { return writeSizes_; }
  std::size_t polls() const { return kernel_.faults().count(Entry::Poll); }

  /// True when the client waited without a time limit for what no script will send.
  bool waitedForever() const { return kernel_.waitedForever(); }
  /// What the clock has moved.
  std::uint64_t elapsedMillis() const { return (kernel_.now() - start_) / 1000000; }

 private:
  class ScriptedPeer;

  std::vector<Script> scripts_;
  Arrival arrival_;
  bool released_ = false;
  std::deque<ConnectionRecord> records_;
  std::vector<std::size_t> writeSizes_;
  SimulatedKernel::Options options_;
  SimulatedKernel kernel_;
  std::uint64_t start_;
};

}  // namespace tq::test
