#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server/store/store.h"

namespace corvaned {

/// The outcomes of a collection's queued documents that nobody has asked for yet, and of the
/// batches that were refused lately. They outlive the collection's being open. May be used from any
/// thread.
class ParseOutcomes {
 public:
  /// How many refused batches are kept; the oldest are dropped first.
  static constexpr std::size_t kRefusedBatches = 100;

  /// `limit`: how many are kept; the oldest are dropped first.
  explicit ParseOutcomes(std::size_t limit) : limit_(limit) {}

  /// What is taken at a time, and the journal's ticket that must be on disk before it is told.
  struct Taken {
    std::deque<ParseOutcome> outcomes;
    std::uint64_t ticket = 0;
  };

  /// Returns false if an older outcome was dropped for it.
  bool push(ParseOutcome outcome, std::uint64_t ticket);
  Taken take();
  /// After what was taken could not be told.
  void putBack(Taken taken);

  /// Replaces what is known of the batch.
  void pushRefused(const std::string& batch, BatchOutcome outcome);
  /// Nothing if it was not refused lately.
  std::optional<BatchOutcome> refused(const std::string& batch) const;

  bool empty() const;
  /// The journal is closed, all of it on disk; the tickets of the next one begin anew.
  void forgetTickets();

 private:
  const std::size_t limit_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::deque<ParseOutcome> outcomes_;
  std::uint64_t ticket_ = 0;
  std::deque<std::pair<std::string, BatchOutcome>> refused_;
};

}  // namespace corvaned
