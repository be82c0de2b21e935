#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "tests/support/script.h"

namespace tq::test {

/// A network in memory, in place of the system's for as long as the object lives: peers follow
/// scripts, each segment is what one receive gets at most, and the clock moves only while somebody
/// waits. Thousands of exchanges run in the time of one real one, and a wait that could never end
/// is told from one that does.
///
/// The n-th connection follows the n-th script; further ones follow the last. One object at a time,
/// one thread.
class ScriptedNetwork {
 public:
  enum class Arrival {
    AllThere,  // every segment has arrived before it is asked for
    OnDemand,  // a segment arrives when somebody waits for it, never for a look that does not wait
  };

  explicit ScriptedNetwork(std::vector<Script> scripts, Arrival arrival = Arrival::AllThere);
  explicit ScriptedNetwork(Script script, Arrival arrival = Arrival::AllThere)
      : ScriptedNetwork(std::vector{std::move(script)}, arrival) {}
  ~ScriptedNetwork();
  ScriptedNetwork(const ScriptedNetwork&) = delete;
  ScriptedNetwork& operator=(const ScriptedNetwork&) = delete;

  /// Every connect from now on fails with this errno; 0 ends that.
  void failConnects(int error);
  /// Every connect from now on is never answered.
  void ignoreConnects();
  /// No host name is known from now on.
  void failLookups();
  /// The next write fails with this errno, or the one behind so many that succeed.
  void failNextWrite(int error, std::size_t behind = 0);
  /// A write takes at most so many bytes.
  void limitWrites(std::size_t bytes);
  /// Ends the stalls of all scripts.
  void release();

  std::size_t connections() const;
  std::size_t connectAttempts() const;
  std::size_t requests() const;
  const ConnectionRecord& connection(std::size_t index) const;
  std::size_t receives() const;
  std::size_t writes() const;
  /// The bytes that each write took, over all connections.
  const std::vector<std::size_t>& writeSizes() const;
  std::size_t polls() const;

  /// True when somebody waited without a time limit for what no script will send.
  bool waitedForever() const;
  /// What the clock has moved.
  std::uint64_t elapsedMillis() const;

  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace tq::test
