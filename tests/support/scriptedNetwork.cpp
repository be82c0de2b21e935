#include "tests/support/scriptedNetwork.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>

namespace tq::test {

/// Does one step of its script after the other, as far as the client lets it.
class ScriptedNetwork::ScriptedPeer : public SimulatedPeer {
 public:
  ScriptedPeer(ScriptedNetwork& network, std::size_t index)
      : network_(network),
        record_(network.records_[index]),
        steps_(network.scripts_[std::min(index, network.scripts_.size() - 1)].steps()) {}

  void accepted(Wire& wire) override { advance(wire); }

  void received(Wire& wire, std::string_view bytes) override {
    network_.writeSizes_.push_back(bytes.size());
    record_.received += bytes;
    pending_ += bytes;
    advance(wire);
  }

  void closed(Wire&) override { record_.clientClosed = true; }

  void advance(Wire& wire) {
    for (; step_ < steps_.size(); ++step_) {
      if (!play(wire, steps_[step_])) return;
    }
    wire.close();
  }

 private:
  /// True when the step is done.
  bool play(Wire& wire, const Step& step) {
    switch (step.kind) {
      case Step::Kind::ExpectRequest:
        return takeRequest(completeRequestLength(pending_, false));
      case Step::Kind::ExpectFramedRequest:
        return takeRequest(completeRequestLength(pending_, true));
      case Step::Kind::ExpectBytes:
        return takeRequest(pending_.size() >= step.count ? step.count : 0);
      case Step::Kind::Send:
        sendInSegments(wire, step);
        return true;
      case Step::Kind::Stall:
        return network_.released_;
      case Step::Kind::AwaitClose:
        return false;
      case Step::Kind::Reset:
        wire.reset();
        return true;
    }
    return false;
  }

  bool takeRequest(std::size_t length) {
    if (length == 0) return false;
    record_.requests.push_back(pending_.substr(0, length));
    pending_.erase(0, length);
    return true;
  }

  void sendInSegments(Wire& wire, const Step& step) const {
    const std::string_view bytes = step.bytes;
    const std::size_t segment = step.count == 0 ? bytes.size() : step.count;
    const auto delay = network_.arrival_ == Arrival::AllThere ? 0 : Wire::kOnDemand;
    for (std::size_t at = 0; at < bytes.size(); at += segment) {
      wire.send(bytes.substr(at, segment), delay);
    }
  }

  ScriptedNetwork& network_;
  ConnectionRecord& record_;
  const std::vector<Step>& steps_;
  std::size_t step_ = 0;
  std::string pending_;  // from the client, not yet part of a complete request
};

ScriptedNetwork::ScriptedNetwork(std::vector<Script> scripts, Arrival arrival)
    : scripts_(std::move(scripts)),
      arrival_(arrival),
      kernel_(options_,
              [this](std::size_t index) {
                records_.emplace_back();
                return std::make_unique<ScriptedPeer>(*this, index);
              }),
      start_(kernel_.now()) {
  if (scripts_.empty()) throw std::logic_error("a scripted network needs a script");
  kernel_.faults().record(false);
}

void ScriptedNetwork::release() {
  released_ = true;
  for (std::size_t i = 0; i < connections(); ++i) {
    static_cast<ScriptedPeer&>(kernel_.peer(i)).advance(kernel_.connection(i));
  }
}

std::size_t ScriptedNetwork::requests() const {
  std::size_t total = 0;
  for (const auto& record : records_) total += record.requests.size();
  return total;
}

}  // namespace tq::test
