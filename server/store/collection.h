#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "server/base/descriptorBudget.h"
#include "server/base/memoryBudget.h"
#include "server/store/journal.h"
#include "server/store/parseOutcomes.h"
#include "server/store/store.h"
#include "server/store/xapianIndex.h"

namespace corvaned {

struct StoreLimits {
  IndexLimits index;
  /// Maximum size of a document in bytes, metadata and content together.
  std::size_t documentBytes = std::size_t{64} << 20U;
  /// Maximum number of outcomes that are kept until a client asks for them. The oldest are dropped
  /// first.
  std::size_t outcomes = 1000000;
  /// Maximum number of deleted keys that searches filter out. If there are more, they are removed
  /// from the index at once.
  std::size_t hiddenKeys = 500;
};

/// One collection in one directory: a journal of accepted changes, and the index into which
/// updateIndex brings them. May be used from any thread. Store says what each operation promises.
class Collection {
 public:
  static void create(const std::filesystem::path& directory, const std::string& language);

  /// What an open collection takes of the memory, beside the checksums of its index.
  static constexpr std::size_t kOpenBytes = std::size_t{40} << 10U;

  /// `outcomes` outlive the collection's being open; `stopping` ends the opening when it becomes
  /// true. Throws ServerError(TryAgain) if there is no memory or no descriptor for one more.
  Collection(std::string name, const std::filesystem::path& directory, StoreLimits limits,
             std::shared_ptr<ParseOutcomes> outcomes, const std::atomic<bool>& stopping);

  void add(const Document& document);
  void queue(const Document& document);
  void reportOutcome(ParseOutcome outcome);
  void remove(const std::string& key);
  void updateIndex();
  std::vector<ParseOutcome> takeOutcomes();
  std::unique_ptr<HitSource> search(const SearchQuery& query);
  std::unique_ptr<HitSource> match(const SearchQuery& query,
                                   const std::vector<Document>& documents);
  Estimate estimate(const std::string& query, std::uint64_t exactHits);
  std::uint64_t count(const SearchQuery& query);
  void visit(const SearchQuery& query, const Store::DocumentVisitor& take);
  CollectionState state() const;
  CollectionSummary summary();

  /// Brings everything to disk, so that the object can go and another be made of the same files.
  /// False if that would lose something: the journal refuses changes since the disk failed. Nothing
  /// else may be called at the same time.
  bool close();

  /// Makes all further operations fail, and returns when no operation uses the directory any more.
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
  const std::filesystem::path directory_;
  const StoreLimits limits_;
  // What the open collection takes of the budgets.
  MemoryBudget::Share memory_;
  DescriptorBudget::Share descriptors_;

  // Held shared while a change is appended, so that retire() can wait for appends that have begun.
  mutable std::shared_mutex gate_;
  std::atomic<bool> retired_ = false;

  // Keys deleted since the last updateIndex, each with the journal segment of its deletion, and the
  // last segment that is in the index.
  mutable std::mutex hiddenMutex_;
  std::unordered_map<std::string, std::uint64_t> hidden_;
  std::uint64_t indexed_ = 0;

  const std::shared_ptr<ParseOutcomes> outcomes_;

  // One writer at a time.
  std::mutex indexMutex_;

  // Opening the journal fills the members above, so it must be declared after them.
  Journal journal_;
  XapianIndex index_;
};

}  // namespace corvaned
