#pragma once

#include <xapian.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <shared_mutex>
#include <span>
#include <utility>
#include <vector>

#include "server/store/changeGate.h"
#include "server/store/commitGate.h"
#include "server/store/idleReaders.h"
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
      : path_(std::move(path)), limits_(limits), commits_(patience), idle_(idleReadersOf(limits)) {}

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
    IndexReaders* const only = this;
    return attempts(
        std::span(&only, 1), [&](const Handles& handles) { return work(*handles.front()); },
        progress);
  }

  using Handles = std::vector<std::unique_ptr<IndexReader>>;

  /// Runs `work` with a handle of each index, in their order. Everybody gives indexes in the same
  /// order: whoever holds up the commits of one may wait for a commit of the next. `held` is what
  /// of the memory cannot be free meanwhile.
  template <typename Work>
  static auto runTogether(std::span<IndexReaders* const> indexes, const Work& work,
                          std::size_t held = 0) {
    return attempts(
        indexes, work, [] { return 0; }, held);
  }

  /// Calls `commit`, which changes several databases of the index. No handle is opened or refreshed
  /// meanwhile, so that none sees one of them newer than another; those that see what was there
  /// before go on.
  template <typename Commit>
  void publish(const Commit& commit) {
    const ChangeGate::Change change(changes_);
    settled_ = false;
    try {
      commit();
      settled_ = true;
    } catch (...) {
      // Until that has been undone, handles that see what was there before are all that there is.
      if (isWhole()) ++state_;
      throw;
    }
    ++state_;
  }

  /// Whether the last change of several databases is complete or undone, also after a crash: not if
  /// publish() has failed, nor before it is called, since another process may have failed. Both
  /// belong to whoever calls publish().
  bool isSettled() const { return settled_; }
  void settle() { settled_ = true; }

  /// Calls `exchange`, which puts another index in the place of this one. No handle is opened or
  /// refreshed meanwhile, and none of the earlier index is used again.
  template <typename Exchange>
  void exchange(const Exchange& exchange) {
    {
      const std::unique_lock exchanging(exchangeMutex_);
      // Also if a later step fails: the files may be others by then.
      ++generation_;
      ++state_;
      exchange();
    }
    release();
  }

  /// What writers have to pass.
  CommitGate& commits() { return commits_; }
  /// Those of the last transaction. Commits wait meanwhile.
  IndexRevisions revisions();

  /// Closes the idle ones.
  void release() { idle_.release(); }

 private:
  template <typename Work, typename Progress>
  static auto attempts(std::span<IndexReaders* const> indexes, const Work& work,
                       const Progress& progress, std::size_t held = 0) {
    Handles handles;
    for (IndexReaders* const index : indexes) handles.push_back(index->idle_.take());
    for (int attempt = 1;; ++attempt) {
      std::vector<CommitGate::Hold> holds;
      if (attempt > kFreeAttempts) {
        for (IndexReaders* const index : indexes) holds.push_back(index->commits_.hold());
      }
      const auto before = progress();
      try {
        refreshAll(indexes, handles, held);
        auto result = work(std::as_const(handles));
        for (std::size_t i = 0; i < indexes.size(); ++i) {
          indexes[i]->idle_.keep(std::move(handles[i]));
        }
        return result;
      } catch (const Xapian::DatabaseModifiedError&) {
        if (!holds.empty() && progress() == before) throw;
        for (const auto& handle : handles) {
          if (handle) handle->setState(0);
        }
      }
    }
  }

  static void refreshAll(std::span<IndexReaders* const> indexes, Handles& handles,
                         std::size_t held);
  void refresh(std::unique_ptr<IndexReader>& reader, MemoryBudget::Share memory);
  bool isWhole() const;
  void requireWhole() const;

  static std::shared_ptr<IdleReaders> idleReadersOf(const IndexLimits& limits);
  static std::uint64_t anyNumber();

  const std::filesystem::path path_;
  const IndexLimits& limits_;
  CommitGate commits_;
  // What changes several databases passes it, and whoever opens or refreshes a handle for them.
  ChangeGate changes_;
  // Held shared while a handle is opened or refreshed, so that the index does not change places
  // with another one meanwhile. Guards generation_.
  std::shared_mutex exchangeMutex_;
  std::uint64_t generation_ = anyNumber();
  // How many states of the index there have been, as far as they are counted.
  std::atomic<std::uint64_t> state_ = 1;
  bool settled_ = false;
  IdleReaders::OfIndex idle_;
};

}  // namespace corvaned
