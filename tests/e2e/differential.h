#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/e2e/operations.h"

// The same operations over both protocols must have the same results.
namespace tq::test {

/// An application that carries out operations over one protocol and sees what comes of them.
class Side {
 public:
  virtual ~Side() = default;
  virtual Answer perform(const Operation& operation) = 0;
};

/// One side against the server, with a connection and collections of its own.
class ProtocolSide : public Side {
 public:
  /// `batching`: small messages are held back and sent together, where the protocol can.
  ProtocolSide(Protocol protocol, const CorvanedProcess& server, bool batching);

  Answer perform(const Operation& operation) override;

  /// What the side puts in front of its collections' names. Those of both sides have one length.
  static std::string prefixOf(Protocol protocol);

 private:
  Answer reconnect();

  std::string prefix_;
  std::unique_ptr<tq::comm::CorvaneRESTClient> client_;
};

/// Where the two sides parted.
struct Difference {
  Operation operation;
  bool probe = false;  // an operation that looks at the server's state behind the sequence
  Answer http, binary;
};
std::ostream& operator<<(std::ostream& out, const Difference& difference);

/// Counts what sequences did, so that a test can tell whether they did anything.
struct Tally {
  std::vector<std::size_t> succeeded = std::vector<std::size_t>(kVerbs);
  std::vector<std::size_t> failed = std::vector<std::size_t>(kVerbs);
  std::map<std::string, std::size_t> errors;
  std::size_t fruitfulSearches = 0;  // in collections of the side's own
  std::size_t parsed = 0;
  std::size_t refusedDocuments = 0;
  std::size_t severalPortions = 0;

  void add(const Operation& operation, const Answer& answer);
};

/// Lets both sides carry out sequences against one server.
class Duel {
 public:
  /// Makes another side of one; for tests that must find the sides different.
  using Disguise = std::function<std::unique_ptr<Side>(std::unique_ptr<Side>)>;

  explicit Duel(const CorvanedProcess& server, Disguise binaryDisguise = {});
  ~Duel();

  /// The first difference in what the sides see of the sequence's operations and of the state that
  /// the server is left in. Nothing of the sequence stays in the server.
  std::optional<Difference> fight(const Sequence& sequence, bool batching);

  const Tally& tally() const { return tally_; }

 private:
  class Fight;

  void makeSharedCollection();
  bool sameEstimates(const std::string& collection, const std::string& query, Difference& found);
  void dropAll();

  const CorvanedProcess& server_;
  Disguise disguise_;
  std::unique_ptr<tq::comm::CorvaneRESTClient> arbiter_;
  Tally tally_;
};

/// A sequence that still fails and of which no operation can be left out without it failing no
/// more. `fails(sequence)` must be true.
Sequence shortest(Sequence sequence, const std::function<bool(const Sequence&)>& fails);

/// Runs the sequence of the seed. Empty when the sides agree; else what a person needs to know: the
/// seed, the shortest failing sequence and the difference.
std::string disagreement(Duel& duel, std::uint64_t seed);

/// True for the seeds whose binary side holds messages back.
bool isBatching(std::uint64_t seed);

}  // namespace tq::test
