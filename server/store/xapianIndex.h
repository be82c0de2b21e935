#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "server/base/descriptorBudget.h"
#include "server/base/memoryBudget.h"
#include "server/store/change.h"
#include "server/store/indexSums.h"
#include "server/store/store.h"

namespace corvaned {

struct IndexLimits {
  /// Maximum length of a query in bytes.
  std::size_t queryBytes = 16384;
  /// Maximum number of words in a query, counted before wildcards are expanded.
  std::size_t queryTerms = 256;
  /// Maximum number of words that a word with a trailing * may stand for.
  std::size_t expansion = 1000;
  /// Maximum number of changes per transaction, and the size in bytes at which a transaction is
  /// full.
  std::size_t batchChanges = 1000;
  std::size_t batchBytes = std::size_t{4} << 20U;
  /// What results and transactions take their memory from. None: without a limit.
  std::shared_ptr<MemoryBudget> memory;
  /// What handles for searching take their descriptors from. None: without a limit.
  std::shared_ptr<DescriptorBudget> descriptors;
};

/// The size of a change, as it counts for a batch.
std::size_t bytesOf(const Change& change);

/// The searchable part of a collection: a Xapian database in a directory. Xapian's types stay
/// inside this class. Any number of threads may search, also while one thread applies changes; only
/// one thread at a time may apply changes. Errors are ServerError.
class XapianIndex {
 public:
  /// Creates, in the directory of a collection, an empty database whose words are stemmed for
  /// `language` ("en_us", "de", ...). If there is no stemmer for the language, words are indexed
  /// unchanged.
  static void create(const std::filesystem::path& collection, const std::string& language);

  /// Compares the database with its checksums first, and throws if it is damaged: the engine must
  /// not see that. A database of an earlier version gets checksums.
  XapianIndex(const std::filesystem::path& collection, IndexLimits limits);
  ~XapianIndex();
  XapianIndex(const XapianIndex&) = delete;
  XapianIndex& operator=(const XapianIndex&) = delete;

  using ChangeSource = std::function<void(const std::function<void(Change&&)>& take)>;
  /// Called between changes; throws to end the work.
  using StopCheck = std::function<void()>;

  /// Comes before changes are applied. Throws if the database is damaged.
  void beginUpdate();
  /// Whether an update has begun that has not ended; another one may go on with it.
  bool isUpdating() const { return sums_->isChanging(); }
  /// Applies changes to the database in one transaction, durably. Leaves out and returns the
  /// documents that the database refuses. Throws if the storage fails, or what `stop` throws; part
  /// of the changes may then be applied, and applying all of them again is safe.
  std::vector<ParseOutcome> applyBatch(std::span<const Change> changes, const StopCheck& stop);
  /// Brings new checksums to disk.
  void endUpdate();
  /// Applies any number of changes, in batches, and ends the update.
  std::vector<ParseOutcome> apply(const ChangeSource& changes, const StopCheck& stop);

  const IndexLimits& limits() const { return limits_; }
  /// A share of the memory, empty yet.
  MemoryBudget::Share emptyShare() const;

  /// `hidden`: keys that the search must not find.
  std::unique_ptr<HitSource> search(const SearchQuery& query,
                                    const std::vector<std::string>& hidden);
  /// What search() would find of these documents, and with what scores, if all of them were in the
  /// database besides what is there. Stores nothing. Their keys differ.
  std::unique_ptr<HitSource> match(const SearchQuery& query,
                                   const std::vector<Document>& documents);
  Estimate estimate(const std::string& query, std::uint64_t exactHits,
                    const std::vector<std::string>& hidden);

  /// The number of hits.
  std::uint64_t count(const SearchQuery& query, const std::vector<std::string>& hidden);
  /// Passes the documents that the query finds to `take`, in the order of their keys.
  void visit(SearchQuery query, const std::vector<std::string>& hidden,
             const Store::DocumentVisitor& take);
  /// Whether it has a document of that key.
  bool contains(const std::string& key);
  /// What the database knows of it.
  CollectionSummary summary();

  /// Closes the handles that are kept open for the next searches.
  void releaseHandles();

  /// The memory that the checksums take.
  std::size_t bytesOfSums() const { return sums_->bytes(); }

 private:
  class Reader;
  class Writer;
  class Lease;

  const std::filesystem::path path_;
  const IndexLimits limits_;
  std::optional<IndexSums> sums_;  // Used by the thread that applies changes.
  std::mutex mutex_;
  std::vector<std::unique_ptr<Reader>> idleReaders_;  // Guarded by mutex_.
};

}  // namespace corvaned
