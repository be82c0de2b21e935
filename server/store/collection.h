#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "server/store/journal.h"
#include "server/store/store.h"
#include "server/store/xapianIndex.h"

namespace corvaned {

struct StoreLimits {
  IndexLimits index;
  /// Largest document, metadata and content together, in bytes.
  std::size_t documentBytes = std::size_t{64} << 20U;
  /// Outcomes kept for a client that does not ask for them; the oldest are forgotten beyond that.
  std::size_t outcomes = 1000000;
  /// Deletions that searches filter out; more of them are brought into the index at once.
  std::size_t hiddenKeys = 500;
};

/// One collection in one directory: a journal of accepted changes and the index they go to with
/// updateIndex. May be used from any thread; see Store for what each operation promises.
class Collection {
 public:
  static void create(const std::filesystem::path& directory, const std::string& language);

  Collection(std::string name, const std::filesystem::path& directory, StoreLimits limits);

  void add(const Document& document);
  void queue(const Document& document);
  void reportOutcome(ParseOutcome outcome);
  void remove(const std::string& key);
  void updateIndex();
  std::vector<ParseOutcome> takeOutcomes();
  std::unique_ptr<HitSource> search(const SearchQuery& query);
  Estimate estimate(const std::string& query);
  CollectionState state() const;
  void releaseHandles() { index_.releaseHandles(); }

  /// Refuses everything from now on and returns when nothing is under way that would touch the
  /// directory.
  void retire();

 private:
  Journal::Place append(const Change& change);
  void checkSize(const Document& document) const;
  void requireActive() const;
  void hide(std::uint64_t segment, const std::string& key);
  std::vector<std::string> hidden() const;
  void removeHiddenFromIndex();
  void lastChanges(std::uint64_t segment, const std::function<void(Change&&)>& take) const;
  void pushOutcome(ParseOutcome outcome, std::uint64_t ticket);

  const std::string name_;
  const StoreLimits limits_;

  // Held shared while a change is appended, so that retire() can wait for the last one.
  mutable std::shared_mutex gate_;
  std::atomic<bool> retired_ = false;

  // Keys deleted since the index was last updated, with the journal segment that says so, and the
  // last segment that the index has.
  mutable std::mutex hiddenMutex_;
  std::unordered_map<std::string, std::uint64_t> hidden_;
  std::uint64_t indexed_ = 0;

  // What became of queued documents.
  std::mutex outcomesMutex_;
  std::deque<ParseOutcome> outcomes_;
  std::uint64_t outcomesTicket_ = 0;

  // One writer at a time.
  std::mutex indexMutex_;

  // Behind the members that opening it fills.
  Journal journal_;
  XapianIndex index_;
};

}  // namespace corvaned
