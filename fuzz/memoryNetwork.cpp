#include "fuzz/memoryNetwork.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include "fuzz/check.h"

namespace tq::fuzz {

namespace {

// What any number of connections may cost, and what each byte that a script sends may.
constexpr std::size_t kCallsBase = 2000;
constexpr std::size_t kCallsPerByte = 16;
// A write that takes something is progress, of however many bytes.
constexpr std::size_t kCallsPerWrite = 4;

std::size_t bytesOf(const std::vector<PeerScript>& scripts) {
  std::size_t total = 0;
  for (const PeerScript& script : scripts) {
    for (const PeerStep& step : script) total += step.bytes.size() + 1;
  }
  return total;
}

bool endsConnection(PeerStep::Kind kind) {
  return kind == PeerStep::Kind::Close || kind == PeerStep::Kind::Reset;
}

}  // namespace

std::vector<PeerScript> parseScripts(std::string_view text, PeerStep::Kind end) {
  constexpr std::string_view kCommand = "\xFF\xFE";
  std::vector<PeerScript> scripts(1);
  const auto add = [&](PeerStep step) {
    scripts.back().push_back(step);
    if (endsConnection(step.kind)) scripts.emplace_back();
  };
  while (!text.empty()) {
    const std::size_t command = text.find(kCommand);
    const std::string_view bytes = text.substr(0, command);
    if (!bytes.empty()) add({PeerStep::Kind::Send, bytes});
    text.remove_prefix(std::min(text.size(), bytes.size() + kCommand.size()));
    if (text.empty() || command == std::string_view::npos) break;
    const char letter = text.front();
    text.remove_prefix(1);
    if (letter == 'N') add({PeerStep::Kind::Await});
    if (letter == 'C') add({PeerStep::Kind::Close});
    if (letter == 'R') add({PeerStep::Kind::Reset});
    if (letter == 'S') add({PeerStep::Kind::Silence});
  }
  scripts.back().push_back({end});
  return scripts;
}

/// Does one step of its script after the other, or answers everything once it has to behave.
class MemoryNetwork::ScriptPeer : public tq::test::SimulatedPeer {
 public:
  ScriptPeer(MemoryNetwork& network, const PeerScript* script)
      : network_(network), script_(script) {}

  void accepted(tq::test::Wire& wire) override { advance(wire); }

  void received(tq::test::Wire& wire, std::string_view) override {
    network_.mostCalls_ += kCallsPerWrite;
    if (network_.behaving_) {
      if (wire.drained()) wire.send(network_.reply_);
      return;
    }
    if (script_ == nullptr || step_ == script_->size() || !wire.drained()) return;
    if ((*script_)[step_].kind == PeerStep::Kind::Await) ++step_;
    advance(wire);
  }

  /// What the client had written at the mark.
  std::size_t marked = 0;

 private:
  /// Does the steps that do not wait for the client.
  void advance(tq::test::Wire& wire) {
    for (; script_ != nullptr && step_ < script_->size(); ++step_) {
      const PeerStep& step = (*script_)[step_];
      switch (step.kind) {
        case PeerStep::Kind::Await:
        case PeerStep::Kind::Silence:
          return;
        case PeerStep::Kind::Send:
          send(wire, step.bytes);
          break;
        case PeerStep::Kind::Close:
          wire.close();
          break;
        case PeerStep::Kind::Reset:
          wire.reset();
          break;
      }
    }
  }

  void send(tq::test::Wire& wire, std::string_view bytes) {
    if (!network_.manners_.onDemand) return wire.send(bytes);
    while (!bytes.empty()) {
      const std::string_view piece = bytes.substr(0, network_.manners_.pieces.next());
      wire.send(piece, tq::test::Wire::kOnDemand);
      bytes.remove_prefix(piece.size());
    }
  }

  MemoryNetwork& network_;
  const PeerScript* script_;
  std::size_t step_ = 0;
};

MemoryNetwork::MemoryNetwork(const std::vector<PeerScript>& scripts, const NetworkManners& manners)
    : scripts_(scripts),
      manners_(manners),
      mostCalls_(kCallsBase + kCallsPerByte * bytesOf(scripts)),
      kernel_(options_, [this](std::size_t index) { return accept(index); }) {
  using tq::test::Entry;
  using tq::test::Fault;
  options_.maxSockets = kMaxConnections;
  options_.clockStep = 1;
  if (manners_.writeLimit != 0) options_.maxWrite = manners_.writeLimit;
  options_.maxReceive = [this] { return manners_.pieces.next(); };
  options_.beforeCall = [this] { countCall(); };
  auto& faults = kernel_.faults();
  faults.record(false);
  for (unsigned int i = 1; i <= manners_.refusals; ++i) {
    faults.add(Entry::Connect, i, {Fault::Kind::Error, ECONNREFUSED});
  }
  if (manners_.failingWrite != 0) {
    faults.add(Entry::Sendmsg, manners_.failingWrite, {Fault::Kind::Error, EPIPE});
  }
}

MemoryNetwork::~MemoryNetwork() = default;

std::unique_ptr<tq::test::SimulatedPeer> MemoryNetwork::accept(std::size_t index) {
  const bool scripted = !behaving_ && index < scripts_.size();
  return std::make_unique<ScriptPeer>(*this, scripted ? &scripts_[index] : nullptr);
}

MemoryNetwork::ScriptPeer& MemoryNetwork::peer(std::size_t index) const {
  return static_cast<ScriptPeer&>(kernel_.peer(index));
}

void MemoryNetwork::behave(std::string_view reply) {
  behaving_ = true;
  reply_ = reply;
  manners_ = NetworkManners();
  options_.maxWrite = tq::test::SimulatedKernel::kUnlimited;
  kernel_.faults().clear();
}

void MemoryNetwork::closeAll() {
  for (std::size_t i = 0; i < kernel_.connections(); ++i) kernel_.connection(i).close();
}

void MemoryNetwork::mark() {
  for (std::size_t i = 0; i < kernel_.connections(); ++i)
    peer(i).marked = kernel_.connection(i).taken();
}

std::size_t MemoryNetwork::mostWritten() const {
  std::size_t most = 0;
  for (std::size_t i = 0; i < kernel_.connections(); ++i) {
    most = std::max(most, kernel_.connection(i).taken() - peer(i).marked);
  }
  return most;
}

void MemoryNetwork::countCall() {
  ++calls_;
  require(calls_ <= mostCalls_, "every call of the system brings an exchange forward");
}

}  // namespace tq::fuzz
