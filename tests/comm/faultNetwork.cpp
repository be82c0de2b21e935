#include "tests/comm/faultNetwork.h"

#include <memory>
#include <string_view>
#include <utility>

#include "tests/support/script.h"

namespace tq::test {

/// Answers each request as soon as it is complete.
class FaultNetwork::AnsweringPeer : public SimulatedPeer {
 public:
  explicit AnsweringPeer(FaultNetwork& network) : network_(network) {}

  void received(Wire& wire, std::string_view bytes) override {
    pending_ += bytes;
    while (const auto length = completeRequestLength(pending_, network_.options_.framed)) {
      const auto request = pending_.substr(0, length);
      pending_.erase(0, length);
      network_.journal_.push_back(request);
      if (!network_.options_.silent) answer(wire, network_.answerer_(request));
    }
  }

 private:
  void answer(Wire& wire, const Answer& reply) {
    if (network_.options_.dripMillis != 0) return drip(wire, reply);
    for (const auto& bytes : reply.segments) wire.send(bytes, Wire::kOnDemand);
    wire.send(reply.tail, Wire::kOnDemand, true);
  }

  void drip(Wire& wire, const Answer& reply) const {
    std::string whole;
    for (const auto& bytes : reply.segments) whole += bytes;
    const std::size_t needed = whole.size();
    whole += reply.tail;
    for (std::size_t i = 0; i < whole.size(); ++i) {
      const auto delay = std::uint64_t{1000000} * network_.options_.dripMillis * (i + 1);
      wire.send(whole.substr(i, 1), delay, i >= needed);
    }
  }

  FaultNetwork& network_;
  std::string pending_;
};

FaultNetwork::FaultNetwork(const Options& options, Answerer answerer)
    : options_(options),
      answerer_(std::move(answerer)),
      kernel_(options_, [this](std::size_t) { return std::make_unique<AnsweringPeer>(*this); }) {}

}  // namespace tq::test
