#include "tests/comm/adversaryNetwork.h"

#include <cerrno>
#include <memory>
#include <string_view>
#include <utility>

#include "tests/support/script.h"

namespace tq::test {

namespace {

constexpr std::uint64_t kNanosPerMicro = 1000;

std::size_t mixed(std::size_t one, std::size_t other) {
  return (one * 0x9E3779B97F4A7C15U ^ other) * 0x9E3779B97F4A7C15U;
}

SimulatedKernel::Options optionsOf(bool joined) {
  SimulatedKernel::Options options;
  options.clockStep = 0;
  options.addresses = {"127.0.0.1"};
  options.receivesJoin = joined;
  return options;
}

}  // namespace

/// Hands over each request as soon as it is complete.
class TimedNetwork::AnsweringPeer : public SimulatedPeer {
 public:
  explicit AnsweringPeer(TimedNetwork& network) : network_(network) {}

  void received(Wire& wire, std::string_view bytes) override {
    if (pending_.empty()) wire.withdrawExtra(1);
    pending_ += bytes;
    while (const std::size_t length = completeRequestLength(pending_, network_.framed_)) {
      const std::string request = pending_.substr(0, length);
      pending_.erase(0, length);
      network_.answer_(wire.index(), request);
      // The next request has begun already: there is no time for anything unasked.
      if (!pending_.empty()) wire.withdrawExtra(0);
    }
  }

  // Whether its answer can arrive is for the wire to know; that it was written is told.
  void receivedAfterClose(Wire& wire, std::string_view bytes) override { received(wire, bytes); }

  std::size_t pending() const { return pending_.size(); }

 private:
  TimedNetwork& network_;
  std::string pending_;  // from the client, not yet part of a complete request
};

TimedNetwork::TimedNetwork(bool framed, bool joined, Answer answer)
    : framed_(framed),
      answer_(std::move(answer)),
      options_(optionsOf(joined)),
      kernel_(options_, [this](std::size_t) { return std::make_unique<AnsweringPeer>(*this); }) {
  kernel_.faults().record(false);
}

void TimedNetwork::send(std::size_t connection, const std::string& bytes, std::uint64_t delay) {
  kernel_.connection(connection).send(bytes, delay * kNanosPerMicro);
}

void TimedNetwork::sendUnasked(std::size_t connection, const std::string& bytes,
                               std::uint64_t delay) {
  kernel_.connection(connection).send(bytes, delay * kNanosPerMicro, true);
}

void TimedNetwork::close(std::size_t connection, std::uint64_t delay) {
  kernel_.connection(connection).close(delay * kNanosPerMicro);
}

void TimedNetwork::reset(std::size_t connection, std::uint64_t delay) {
  kernel_.connection(connection).reset(delay * kNanosPerMicro);
}

void TimedNetwork::idle(std::uint64_t micros) { kernel_.idle(micros * kNanosPerMicro); }

void TimedNetwork::failNextConnect() {
  kernel_.faults().add(Entry::Connect, 1, {Fault::Kind::Error, ECONNREFUSED});
}

// An error that leaves the connection up, so that only the client knows that half a request went
// out.
void TimedNetwork::failNextWrite(std::size_t bytes) {
  auto& faults = kernel_.faults();
  if (bytes != 0) faults.add(Entry::Sendmsg, 1, {Fault::Kind::Short, static_cast<int>(bytes)});
  faults.add(Entry::Sendmsg, bytes != 0 ? 2 : 1, {Fault::Kind::Error, ENOBUFS});
}

void TimedNetwork::blockNextWrite(std::size_t bytes) {
  auto& faults = kernel_.faults();
  if (bytes != 0) faults.add(Entry::Sendmsg, 1, {Fault::Kind::Short, static_cast<int>(bytes)});
  faults.add(Entry::Sendmsg, bytes != 0 ? 2 : 1, {Fault::Kind::WouldBlock});
}

void TimedNetwork::heal() {
  kernel_.faults().clear();
  options_.connectInBackground = false;
}

std::uint64_t TimedNetwork::nowMicros() const { return kernel_.now() / kNanosPerMicro; }

bool TimedNetwork::takeWaitedForever() {
  return std::exchange(waitsForever_, kernel_.waitsForever()) != kernel_.waitsForever();
}

std::uint64_t TimedNetwork::takeLongestWait() { return kernel_.takeLongestWait() / kNanosPerMicro; }

std::uint64_t TimedNetwork::calls() const {
  const FaultPlan& faults = kernel_.faults();
  return faults.count(Entry::Poll) + faults.count(Entry::Recv) + faults.count(Entry::Sendmsg);
}

bool TimedNetwork::holdsUnasked(std::size_t connection) const {
  return kernel_.connection(connection).extraArrived();
}

std::size_t TimedNetwork::fingerprint() const {
  std::size_t all = 0;
  for (std::size_t i = 0; i < connections(); ++i) {
    if (kernel_.connection(i).isOpen()) all = mixed(all, fingerprintOf(i));
  }
  return all;
}

std::size_t TimedNetwork::fingerprintOf(std::size_t connection) const {
  const Wire& wire = kernel_.connection(connection);
  if (!wire.isOpen()) return 0;
  return mixed(static_cast<const AnsweringPeer&>(kernel_.peer(connection)).pending(),
               wire.fingerprint());
}

}  // namespace tq::test
