#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "fuzz/input.h"
#include "tests/support/simulatedKernel.h"

namespace tq::fuzz {

/// What one peer does, in order. Bytes between two commands are sent.
///
/// A script is the bytes themselves with commands among them, each FF FE and a letter: N awaits the
/// next request, C closes, R resets, S falls silent, P ends a segment. Behind a C or R the script
/// of the next connection begins.
struct PeerStep {
  enum class Kind : unsigned char { Send, Await, Close, Reset, Silence };
  Kind kind;
  std::string_view bytes{};
};
using PeerScript = std::vector<PeerStep>;

/// The scripts of all connections. The last one ends with `end`.
std::vector<PeerScript> parseScripts(std::string_view text, PeerStep::Kind end);

struct NetworkManners {
  Cutter pieces = Cutter::whole();
  /// A segment arrives when the client waits for it; a non-blocking look never finds it.
  bool onDemand = false;
  /// The n-th write fails, counted from 1; 0 for none.
  unsigned int failingWrite = 0;
  /// The most that a write takes; 0 for everything.
  std::size_t writeLimit = 0;
  /// So many connection attempts are refused first.
  unsigned int refusals = 0;
};

/// A network in memory, in place of the system's while it lives. It has no threads and no waiting:
/// the clock moves during waits, and a client that would wait for ever is disconnected. One at a
/// time.
class MemoryNetwork {
 public:
  /// `scripts` and what they point to must outlive the network.
  MemoryNetwork(const std::vector<PeerScript>& scripts, const NetworkManners& manners);
  ~MemoryNetwork();
  MemoryNetwork(const MemoryNetwork&) = delete;
  MemoryNetwork& operator=(const MemoryNetwork&) = delete;

  /// From now on every connection answers each write with `reply`, after the bytes that its script
  /// has sent; nothing else goes wrong. `reply` must outlive the network.
  void behave(std::string_view reply);
  /// The peers of all connections that are open close.
  void closeAll();

  /// What `mostWritten` counts from.
  void mark();
  /// The most bytes that any one connection has taken since the mark.
  std::size_t mostWritten() const;

  std::size_t calls() const { return calls_; }
  std::size_t openDescriptors() const { return kernel_.openDescriptors(); }

 private:
  class ScriptPeer;

  static constexpr std::size_t kMaxConnections = 64;

  std::unique_ptr<tq::test::SimulatedPeer> accept(std::size_t index);
  ScriptPeer& peer(std::size_t index) const;
  void countCall();

  const std::vector<PeerScript>& scripts_;
  NetworkManners manners_;
  std::size_t calls_ = 0;
  std::size_t mostCalls_;
  bool behaving_ = false;
  std::string_view reply_;
  tq::test::SimulatedKernel::Options options_;
  tq::test::SimulatedKernel kernel_;
};

}  // namespace tq::fuzz
