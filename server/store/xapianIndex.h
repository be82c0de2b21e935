#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "server/base/memoryBudget.h"
#include "server/store/change.h"
#include "server/store/hiddenKeys.h"
#include "server/store/indexForm.h"
#include "server/store/indexLimits.h"
#include "server/store/indexSums.h"
#include "server/store/stopCheck.h"
#include "server/store/store.h"

namespace corvaned {

class IndexReaders;
class IndexRebuild;

/// How far long work has come.
struct IndexProgress {
  std::uint64_t done = 0;
  std::uint64_t all = 0;
};

/// The searchable part of a collection: one or more Xapian databases in a directory. Xapian's types
/// stay inside this class. Any number of threads may search, also while one thread applies changes;
/// only one thread at a time may apply changes. Errors are ServerError.
class XapianIndex {
 public:
  /// Creates, in the directory of a collection, an empty database whose words are stemmed for
  /// the language ("en_us", "de", ...). If there is no stemmer for the language, words are indexed
  /// unchanged.
  static void create(const std::filesystem::path& collection, const IndexForm& form);

  /// Compares the database with its checksums first, and throws if it is damaged: the engine must
  /// not see that. Calls `stop` meanwhile. A database of an earlier version gets checksums.
  XapianIndex(
      const std::filesystem::path& collection, IndexLimits limits, const StopCheck& stop = [] {});
  ~XapianIndex();
  XapianIndex(const XapianIndex&) = delete;
  XapianIndex& operator=(const XapianIndex&) = delete;

  using ChangeSource = std::function<void(const std::function<void(Change&&)>& take)>;
  /// Called between changes.
  using StopCheck = corvaned::StopCheck;

  /// What it knows of how changes become searchable: see IndexForm.
  const std::string& refresh() const { return refresh_; }

  /// Whether the database is of an earlier form. It can be searched, and must be rebuilt before
  /// documents are added to it.
  bool isOfEarlierForm() const { return earlierForm_; }
  /// Brings it some way towards the present form. Returns whether there is more to do; searches go
  /// on meanwhile. If it throws, the database is as it was.
  bool rebuildStep(const StopCheck& stop);
  /// How many documents of the earlier form have been taken over. Nothing while none are.
  IndexProgress rebuildProgress() const;

  /// Comes before changes are applied. Throws if the database is damaged, or what `stop` throws.
  void beginUpdate(const StopCheck& stop = [] {});
  /// Whether an update has begun that has not ended; another one may go on with it.
  bool isUpdating() const { return sums_->isChanging(); }
  /// Applies changes to the database in one transaction, durably. Leaves out and returns the
  /// documents that the database refuses. Throws if the storage fails, or what `stop` throws; part
  /// of the changes may then be applied, and applying all of them again is safe.
  std::vector<ParseOutcome> applyBatch(std::span<const Change> changes, const StopCheck& stop);
  /// Brings new checksums to disk. `lastChange`: the number of the last change of the journal that
  /// the database has now, unless it is no later one than before.
  void endUpdate(std::optional<std::uint64_t> lastChange = std::nullopt);
  /// That number, if it is known. To be asked before the first update.
  std::optional<std::uint64_t> lastChange() const { return sums_->lastChange(); }
  /// Applies any number of changes, in batches, and ends the update.
  std::vector<ParseOutcome> apply(const ChangeSource& changes, const StopCheck& stop);

  const IndexLimits& limits() const { return limits_; }
  /// A share of the memory, empty yet.
  MemoryBudget::Share emptyShare() const;

  /// `hidden`: keys that the search must not find.
  std::unique_ptr<HitSource> search(const SearchQuery& query, const Hidden& hidden);
  /// What search() would find of these documents, and with what scores, if all of them were in the
  /// database besides what is there. Stores nothing. Their keys differ.
  std::unique_ptr<HitSource> match(const SearchQuery& query,
                                   const std::vector<Document>& documents);
  Estimate estimate(const std::string& query, std::uint64_t exactHits, const Hidden& hidden);

  /// The number of hits.
  std::uint64_t count(const SearchQuery& query, const Hidden& hidden);
  /// Passes the documents that the query finds to `take`, in the order of their keys.
  void visit(SearchQuery query, const Hidden& hidden, const Store::DocumentVisitor& take);
  /// Of each key whether it has a document of that key, at some time during the call. `stop` is
  /// called between two keys.
  std::vector<bool> contain(std::span<const std::string> keys, const StopCheck& stop);
  /// The hits with what is to be told of them.
  std::vector<HitDetails> details(const SearchQuery& query, const DetailsWanted& wanted,
                                  const Hidden& hidden);
  /// One of several indexes that are searched together, and what of it must not be found.
  struct Member {
    XapianIndex& index;
    std::string collection;
    Hidden hidden;
    /// What the open collection takes of the memory.
    std::size_t held = 0;
  };
  /// As details(), of all these in one ranking. Everybody gives indexes in the same order.
  static std::vector<HitDetails> details(std::span<const Member> members, const SearchQuery& query,
                                         const DetailsWanted& wanted);
  /// That of the last transaction.
  IndexRevisions revisions() const;
  /// What the database knows of it.
  CollectionSummary summary();

  /// Closes the handles that are kept open for the next searches.
  void releaseHandles();

  /// The memory that the checksums take.
  std::size_t bytesOfSums() const { return sums_->bytes(); }

 private:
  /// What the work returns; the engine's errors as those of the server, and where the files are
  /// damaged, that instead.
  template <typename Work>
  static auto diagnosed(std::span<const XapianIndex* const> indexes, const StopCheck& stop,
                        const Work& work);
  template <typename Work>
  auto diagnosed(const StopCheck& stop, const Work& work) const;
  template <typename Work>
  auto diagnosed(const Work& work) const;
  void throwIfDamaged(const StopCheck& stop) const;
  std::optional<Damage> knownDamage() const;
  void lookForDamage(const StopCheck& stop) const;
  void beginRebuild(const StopCheck& stop);
  void endRebuild();

  const std::filesystem::path collection_;
  const std::filesystem::path path_;
  const IndexLimits limits_;
  const std::unique_ptr<IndexReaders> readers_;
  // Used by the thread that applies changes.
  std::optional<IndexSums> sums_;
  std::unique_ptr<IndexRebuild> rebuild_;
  std::string refresh_;
  std::atomic<bool> earlierForm_ = false;
  // Whether the new index is being put in the place of the earlier one.
  bool ending_ = false;

  mutable std::mutex damageMutex_;
  mutable std::optional<Damage> damage_;  // What was found. Guarded by damageMutex_.
  // Held by whoever looks for it. Guards when and how long that was done last.
  mutable std::mutex lookMutex_;
  mutable std::chrono::steady_clock::time_point lookedAt_;
  mutable std::chrono::steady_clock::duration lookCost_{};
};

}  // namespace corvaned
