#pragma once

#include <cstddef>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <utility>

#include "server/base/memoryBudget.h"
#include "server/store/indexReader.h"

namespace corvaned {

/// The handles for searching that nobody uses at the moment, of all indexes together. Each handle
/// counts in the memory budget for as long as it is open, in use or not; idle ones take at most an
/// eighth of the budget, and are closed, longest unused first, where they would take more or where
/// a search needs the memory for a handle of another index.
///
/// May be used from any thread. Its mutex comes after every other lock: nothing is opened, closed
/// or waited for while it is held.
class IdleReaders {
  struct Kept;
  using KeptList = std::list<Kept>;

 public:
  /// What a handle takes of each database that it has searched: in each table the blocks on the way
  /// from the root to where it has read last. Measured as what the process keeps after a search for
  /// a phrase and a word with *, with one database: 147 KiB of 5 documents, 198 of 3000, 245 of
  /// 60,000, which are 287 MB; with sixteen for each 110 and 160 KiB of 5 and 300 documents.
  static constexpr std::size_t kDatabaseCost = std::size_t{200} << 10U;
  /// The part of the budget that idle handles take at most.
  static constexpr std::size_t kShareOfMemory = 8;

  /// Null: without a limit.
  explicit IdleReaders(std::shared_ptr<MemoryBudget> memory);

  /// Of how many databases a search needs handles, and of how many it has some.
  struct Need {
    std::size_t databases = 0;
    std::size_t had = 0;
  };
  /// What the handles take that a search still needs, in one step: two searches that have a part of
  /// theirs each would keep each other from the rest. Throws ServerError if that is not there when
  /// all idle handles have been closed: TryAgain if it can be there some time, beside `held`, which
  /// the search keeps from being freed.
  MemoryBudget::Share memoryFor(const Need& need, std::size_t held);

  /// Those of one index. They are closed when it goes.
  class OfIndex {
   public:
    explicit OfIndex(std::shared_ptr<IdleReaders> all) : all_(std::move(all)) {}
    OfIndex(const OfIndex&) = delete;
    OfIndex& operator=(const OfIndex&) = delete;
    ~OfIndex() { release(); }

    /// The one that was used last; null if there is none.
    std::unique_ptr<IndexReader> take();
    void keep(std::unique_ptr<IndexReader> reader);
    /// Closes all of them.
    void release();

    IdleReaders& all() const { return *all_; }

   private:
    friend class IdleReaders;

    const std::shared_ptr<IdleReaders> all_;
    // In the order in which they were used. Guarded by the mutex of all_.
    std::deque<KeptList::iterator> kept_;
  };

 private:
  struct Kept {
    OfIndex* index;
    std::unique_ptr<IndexReader> reader;
  };

  KeptList takeOldest();
  void moveOldest(KeptList& destination);

  const std::shared_ptr<MemoryBudget> memory_;
  const std::size_t most_;

  std::mutex mutex_;
  // Guarded by mutex_. The one that has not been used for the longest time stands first.
  KeptList kept_;
  std::size_t bytes_ = 0;
};

}  // namespace corvaned
