#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "server/base/memoryBudget.h"
#include "server/store/journal.h"
#include "server/store/store.h"

namespace corvaned {

/// The memory of the outcomes of all collections, which together take at most a quarter of the
/// budget. May be used from any thread; it must outlive its parts.
class OutcomeMemory {
 public:
  static constexpr std::size_t kShareOfMemory = 4;
  /// What every collection can have.
  static constexpr std::size_t kStep = std::size_t{4} << 10U;

  /// Null: without a limit.
  explicit OutcomeMemory(std::shared_ptr<MemoryBudget> budget);

  /// What one collection takes, in steps. Used by one thread at a time.
  class Part {
   public:
    explicit Part(OutcomeMemory& all);

    /// Whether the collection may take so much: no more than it leaves for others, so that those
    /// who take all that they can get still leave something for the next one.
    bool fits(std::size_t bytes) const;
    /// What it takes, whether that fits or not.
    void set(std::size_t bytes);

   private:
    OutcomeMemory& all_;
    MemoryBudget::Share ofBudget_;
    MemoryBudget::Share ofAll_;
  };

  /// A share of the whole budget, for what is being told.
  MemoryBudget::Share emptyShare() const;

 private:
  const std::shared_ptr<MemoryBudget> budget_;
  MemoryBudget all_;
};

/// The outcomes of a collection's queued documents that nobody has asked for yet, and of the
/// batches that were refused lately. They outlive the collection's being open. May be used from any
/// thread.
///
/// Documents are queued under the name of a client, which alone is told, or without one; then
/// whoever asks first without a name is told.
///
/// What updates of the index left out stands beside the outcomes of these documents, in short:
/// until somebody has taken one of these, or an update follows after somebody was given it in
/// short.
class ParseOutcomes {
 public:
  /// How many clients can have outcomes; those of the client that was heard of longest ago are
  /// dropped first.
  static constexpr std::size_t kClients = 1000;
  /// How many refused batches are kept; the oldest are dropped first.
  static constexpr std::size_t kRefusedBatches = 100;

  /// `limit`: how many are kept without a client, and how many of all clients together. The oldest
  /// are dropped first, of the clients those of the one that has most. If the memory does not allow
  /// that many, whoever's take most of it lose their oldest.
  explicit ParseOutcomes(std::size_t limit, std::shared_ptr<OutcomeMemory> memory =
                                                std::make_shared<OutcomeMemory>(nullptr));

  /// What updates left out: how many documents, and the first of them in words.
  struct LeftOut {
    std::uint64_t count = 0;
    std::uint64_t named = 0;
    std::string names{};
    /// The number of the last of these updates, and whether somebody was given this.
    std::uint64_t update = 0;
    bool isGiven = false;
  };
  /// What is taken at a time, and the journal's ticket that must be on disk before it is told.
  struct Taken {
    std::deque<ParseOutcome> outcomes;
    std::uint64_t ticket = 0;
    MemoryBudget::Share memory{};
    /// If they are the first outcomes of these documents.
    std::optional<LeftOut> leftOut{};
  };

  /// Returns false if an older outcome was dropped for it.
  bool push(ParseOutcome outcome, std::uint64_t ticket, const std::string& client = {});
  Taken take(const std::string& client = {});
  /// After what was taken could not be told.
  void putBack(Taken taken, const std::string& client = {});

  /// What stands now, and whether no older outcome was dropped.
  struct Noted {
    std::optional<LeftOut> leftOut{};
    bool keptAll = true;
  };
  /// An update has changed the index and left out so much. The outcomes of these documents go to
  /// their owners.
  Noted noteUpdate(LeftOut leftOut, std::vector<ParseOutcome> refused);
  /// Nothing if no document was left out of which somebody is still to be told.
  std::optional<LeftOut> leftOut() const;
  /// Somebody has been given what stood after that update.
  void noteGiven(std::uint64_t update);

  /// The client, which may have no name, queued the document, which ends there in the journal.
  /// Does nothing after a later version of it.
  void setOwner(const std::string& key, const std::string& client, const JournalPosition& end);
  /// Nobody has queued the document that ends there whom anything more is to be told of it.
  void forgetOwner(const std::string& key, const JournalPosition& end);
  /// Whoever queued the document last; empty if nobody did under a name.
  std::string ownerOf(const std::string& key) const;
  /// A document and the client that has queued it.
  struct Owned {
    std::string key;
    std::string client;
  };
  /// Those that end after the one place and up to the other, in their order, and that were not
  /// taken before.
  std::vector<Owned> takeUntold(const JournalPosition& after, const JournalPosition& upTo);
  /// The index has all that ends up to there, so that nothing more can become of it.
  void forgetOwnersUpTo(const JournalPosition& position);

  /// Replaces what is known of the batch.
  void pushRefused(const std::string& batch, BatchOutcome outcome);
  /// Nothing if it was not refused lately.
  std::optional<BatchOutcome> refused(const std::string& batch) const;

  bool empty() const;
  /// The journal is closed, all of it on disk; the tickets of the next one begin anew.
  void forgetTickets();

 private:
  /// Outcomes in their order, and the bytes that they take.
  struct Queue {
    std::deque<ParseOutcome> outcomes;
    std::size_t bytes = 0;
    /// The last update that has left out a document of these.
    std::uint64_t leftOutBy = 0;
  };
  struct Client {
    Queue queue;
    std::uint64_t lastUse = 0;
  };
  struct Owner {
    std::string client;
    JournalPosition end;
    bool isTold = false;
  };
  using Clients = std::unordered_map<std::string, Client>;

  bool pushOne(ParseOutcome outcome, const std::string& client);
  bool pushFor(const std::string& client, ParseOutcome outcome);
  void append(Queue& queue, ParseOutcome outcome);
  void dropOldest(Queue& queue);
  void dropOldest(Clients::iterator client);
  bool dropUntilItFits();
  Taken takeFrom(Queue& queue);
  Client& clientNamed(const std::string& name);
  Clients::iterator clientWithMost();
  Clients::iterator clientThatTakesMost();
  Clients::iterator oldestClient();
  void forgetClient(Clients::iterator client);
  void setLeftOut(std::optional<LeftOut> leftOut);
  void eraseOwner(std::unordered_map<std::string, Owner>::iterator owner);
  void forgetRefused(std::deque<std::pair<std::string, BatchOutcome>>::iterator refused);

  const std::size_t limit_;
  const std::shared_ptr<OutcomeMemory> allMemory_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  OutcomeMemory::Part memory_;
  // Of all that follows.
  std::size_t bytes_ = 0;
  Queue outcomes_;
  std::uint64_t ticket_ = 0;
  std::deque<std::pair<std::string, BatchOutcome>> refused_;
  // Only clients that have outcomes are in there, and how many they have together.
  Clients clients_;
  std::size_t ofClients_ = 0;
  std::uint64_t uses_ = 0;
  std::unordered_map<std::string, Owner> owners_;
  std::uint64_t updates_ = 0;
  std::optional<LeftOut> leftOut_;
};

}  // namespace corvaned
