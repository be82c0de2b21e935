#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "server/store/journal.h"
#include "server/store/store.h"

namespace corvaned {

/// The outcomes of a collection's queued documents that nobody has asked for yet, and of the
/// batches that were refused lately. They outlive the collection's being open. May be used from any
/// thread.
///
/// Documents are queued under the name of a client, which alone is told, or without one; then
/// whoever asks first without a name is told.
class ParseOutcomes {
 public:
  /// How many clients can have outcomes; those of the client that was heard of longest ago are
  /// dropped first.
  static constexpr std::size_t kClients = 1000;
  /// How many refused batches are kept; the oldest are dropped first.
  static constexpr std::size_t kRefusedBatches = 100;

  /// `limit`: how many are kept without a client, and how many of all clients together. The oldest
  /// are dropped first, of the clients those of the one that has most.
  explicit ParseOutcomes(std::size_t limit) : limit_(limit) {}

  /// What is taken at a time, and the journal's ticket that must be on disk before it is told.
  struct Taken {
    std::deque<ParseOutcome> outcomes;
    std::uint64_t ticket = 0;
  };

  /// Returns false if an older outcome was dropped for it.
  bool push(ParseOutcome outcome, std::uint64_t ticket, const std::string& client = {});
  Taken take(const std::string& client = {});
  /// After what was taken could not be told.
  void putBack(Taken taken, const std::string& client = {});

  /// The client queued the document, which ends there in the journal. Without a name nobody is its
  /// owner from now on.
  void setOwner(const std::string& key, const std::string& client, const JournalPosition& end);
  /// Whoever queued the document last; empty if nobody did under a name.
  std::string ownerOf(const std::string& key) const;
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
  struct Client {
    std::deque<ParseOutcome> outcomes;
    std::uint64_t lastUse = 0;
  };
  struct Owner {
    std::string client;
    JournalPosition end;
  };
  using Clients = std::unordered_map<std::string, Client>;

  bool pushFor(const std::string& client, ParseOutcome outcome);
  Clients::iterator clientWithMost();
  Clients::iterator oldestClient();
  void forgetClient(Clients::iterator client);

  const std::size_t limit_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::deque<ParseOutcome> outcomes_;
  std::uint64_t ticket_ = 0;
  std::deque<std::pair<std::string, BatchOutcome>> refused_;
  // Only clients that have outcomes are in there, and how many they have together.
  Clients clients_;
  std::size_t ofClients_ = 0;
  std::uint64_t uses_ = 0;
  std::unordered_map<std::string, Owner> owners_;
};

}  // namespace corvaned
