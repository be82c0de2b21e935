#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "server/base/memoryBudget.h"
#include "server/store/journal.h"

namespace corvaned {

/// Keys of deleted documents that the index may still have, each with its deletion's place in the
/// journal. Searches leave them out.
///
/// May be used from any thread. Keys are only added: a search that has begun needs all that its
/// snapshot of the index may have. When the index has lost documents, without() makes another
/// object for the searches that follow.
class HiddenKeys {
 public:
  HiddenKeys() = default;
  explicit HiddenKeys(MemoryBudget::Share memory) : memory_(std::move(memory)) {}

  /// The memory that a key takes.
  static std::size_t bytesOf(const std::string& key);

  void add(const std::string& key, const JournalPosition& position);
  /// The same if there is memory for that; false, and nothing, if not.
  bool addIfItFits(const std::string& key, const JournalPosition& position);
  bool contains(const std::string& key) const;
  /// The memory that they take.
  std::size_t bytes() const;
  std::size_t size() const;
  std::vector<std::string> keys() const;

  /// Changes whenever other keys are hidden, by this object or by the one that takes its place.
  std::uint64_t version() const;
  /// Those of an earlier version, to which no key is added any more; null if they are not known. It
  /// looks at `present`, which may hold a million of them, and copies none.
  static std::shared_ptr<const HiddenKeys> asOf(const std::shared_ptr<const HiddenKeys>& present,
                                                std::uint64_t version);

  /// The same without those for which `isGone(key, position)` holds; null if it holds for none.
  /// `memory`: an empty share.
  template <typename IsGone>
  std::shared_ptr<HiddenKeys> without(const IsGone& isGone, MemoryBudget::Share memory) const {
    const std::shared_lock lock(mutex_);
    const auto goes = [&](const auto& entry) { return isGone(entry.first, entry.second.position); };
    if (std::none_of(deletions_.begin(), deletions_.end(), goes)) return nullptr;
    auto rest = std::make_shared<HiddenKeys>(std::move(memory));
    for (const auto& entry : deletions_) {
      if (!goes(entry)) rest->put(entry.first, entry.second.position);
    }
    rest->firstVersion_ = rest->version_ = version_ + 1;
    rest->firstSize_ = rest->deletions_.size();
    rest->memory_.force(rest->keyBytes_);
    return rest;
  }

 private:
  struct Deletion {
    JournalPosition position;
    /// The first version that has it.
    std::uint64_t version = 0;
  };

  void put(const std::string& key, const JournalPosition& position);
  bool contains(const std::string& key, std::uint64_t version) const;
  std::vector<std::string> keys(std::uint64_t version) const;

  // Of an earlier version: where its keys are.
  std::shared_ptr<const HiddenKeys> present_;
  mutable std::shared_mutex mutex_;
  // Guarded by mutex_.
  MemoryBudget::Share memory_;
  std::unordered_map<std::string, Deletion> deletions_;
  std::size_t keyBytes_ = 0;
  // Keys that this object has had from the beginning count as those of its first version; each that
  // comes makes another one.
  std::uint64_t firstVersion_ = 0;
  std::size_t firstSize_ = 0;
  std::uint64_t version_ = 0;
};

/// What a search leaves out. Null: nothing.
using Hidden = std::shared_ptr<const HiddenKeys>;

}  // namespace corvaned
