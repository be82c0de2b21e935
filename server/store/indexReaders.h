#pragma once

#include <xapian.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <utility>
#include <vector>

#include "server/store/commitGate.h"
#include "server/store/indexLimits.h"
#include "server/store/indexReader.h"

namespace corvaned {

/// The handles for searching one index; idle ones are kept for the next searches. May be used from
/// any thread.
class IndexReaders {
 public:
  /// How often commits may overtake a search. If that happens once more, they wait for it.
  static constexpr int kFreeAttempts = 4;

  /// `patience`: how long a commit waits.
  IndexReaders(std::filesystem::path path, const IndexLimits& limits,
               std::chrono::milliseconds patience = CommitGate::kPatience)
      : path_(std::move(path)), limits_(limits), commits_(patience) {}

  /// Runs `work` with a handle that sees what is there now. If a writer commits twice meanwhile,
  /// the handle's snapshot no longer exists and the database says so; then another attempt is made,
  /// and commits wait for the last one.
  template <typename Work>
  auto run(const Work& work) {
    return run(work, [] { return 0; });
  }

  /// The same for work that each attempt goes on with. `progress` tells how far it is: it may be
  /// overtaken once more as long as that changes.
  template <typename Work, typename Progress>
  auto run(const Work& work, const Progress& progress) {
    std::unique_ptr<IndexReader> reader = takeIdle();
    for (int attempt = 1;; ++attempt) {
      CommitGate::Hold hold;
      if (attempt > kFreeAttempts) hold = commits_.hold();
      const auto before = progress();
      try {
        refresh(reader);
        auto result = work(*reader);
        giveBack(std::move(reader));
        return result;
      } catch (const Xapian::DatabaseModifiedError&) {
        if (hold && progress() == before) throw;
      }
    }
  }

  /// Calls `exchange`, which puts another index in the place of this one. No handle is opened or
  /// refreshed meanwhile, and none of the earlier index is used again.
  template <typename Exchange>
  void exchange(const Exchange& exchange) {
    {
      const std::unique_lock exchanging(exchangeMutex_);
      // Also if a later step fails: the files may be others by then.
      ++generation_;
      exchange();
    }
    release();
  }

  /// What writers have to pass.
  CommitGate& commits() { return commits_; }
  /// That of the last transaction. Commits wait meanwhile.
  std::uint64_t revision();

  /// Closes the idle ones.
  void release();

 private:
  std::unique_ptr<IndexReader> takeIdle();
  void refresh(std::unique_ptr<IndexReader>& reader);
  void giveBack(std::unique_ptr<IndexReader> reader);

  static std::uint64_t anyNumber();

  const std::filesystem::path path_;
  const IndexLimits& limits_;
  CommitGate commits_;
  // Held shared while a handle is opened or refreshed, so that the index does not change places
  // with another one meanwhile. Guards generation_.
  std::shared_mutex exchangeMutex_;
  std::uint64_t generation_ = anyNumber();
  std::mutex mutex_;
  std::vector<std::unique_ptr<IndexReader>> idle_;  // Guarded by mutex_.
};

}  // namespace corvaned
