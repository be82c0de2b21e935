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
#include "tests/e2e/serverModel.h"

// The same operations over both protocols must have the same results, and those that a model of the
// server expects.
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
  tq::comm::ClientRequest requestFor(const Operation& operation) const;
  void notePlace(const Operation& operation, const Answer& answer);
  void makeNeutral(const Operation& operation, Answer& answer) const;

  std::string prefix_;
  std::unique_ptr<tq::comm::CorvaneRESTClient> client_;
  std::string place_;
};

/// The servers that the sides talk to.
class Arena {
 public:
  enum class Layout {
    /// Both sides talk to one server.
    Shared,
    /// The binary side has a server of its own, which divides a collection among several databases.
    Divided,
  };

  explicit Arena(Layout layout = Layout::Shared);

  const CorvanedProcess& serverOf(Protocol protocol) const;
  bool isDivided() const { return divided_ != nullptr; }
  /// The sides' backups, and what they have replaced, go away.
  void removeBackups();
  /// The exit code of the first that does not end with 0.
  int stop();

 private:
  TemporaryDirectory backups_;
  std::unique_ptr<CorvanedProcess> single_, divided_;
};

/// Where the two sides parted.
struct Difference {
  Operation operation;
  bool probe = false;  // an operation that looks at the server's state
  Answer http, binary;
  std::string expected{};  // what the sides agree on and the model does not
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
  std::size_t furtherPages = 0;
  std::size_t jointHits = 0;

  void add(const Operation& operation, const Answer& answer);
};

/// Lets both sides carry out sequences.
class Duel {
 public:
  /// Makes another side of one; for tests that must find it wrong.
  using Disguise = std::function<std::unique_ptr<Side>(std::unique_ptr<Side>)>;

  explicit Duel(Arena& arena, Disguise binaryDisguise = {}, Disguise httpDisguise = {});
  ~Duel();

  /// The first difference in what the sides see of the sequence's operations and of the state that
  /// the server is left in. Nothing of the sequence stays in the server.
  std::optional<Difference> fight(const Sequence& sequence, bool batching);

  const Tally& tally() const { return tally_; }
  bool isDivided() const { return arena_.isDivided(); }

 private:
  class Fight;

  tq::comm::CorvaneRESTClient& arbiterOf(Protocol protocol);
  void makeSharedCollection(Protocol protocol);
  bool sameEstimates(const std::string& collection, const std::string& query, Difference& found);
  void dropAll();

  Arena& arena_;
  Disguise binaryDisguise_, httpDisguise_;
  std::map<Protocol, std::unique_ptr<tq::comm::CorvaneRESTClient>> arbiters_;
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
