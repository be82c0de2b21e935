#pragma once

#include <algorithm>
#include <cstddef>
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

  void add(const std::string& key, const JournalPosition& position);
  bool contains(const std::string& key) const;
  std::size_t size() const;
  std::vector<std::string> keys() const;

  /// The same without those for which `isGone(key, position)` holds; null if it holds for none.
  /// `memory`: an empty share.
  template <typename IsGone>
  std::shared_ptr<HiddenKeys> without(const IsGone& isGone, MemoryBudget::Share memory) const {
    const std::shared_lock lock(mutex_);
    const auto goes = [&](const auto& entry) { return isGone(entry.first, entry.second); };
    if (std::none_of(positions_.begin(), positions_.end(), goes)) return nullptr;
    auto rest = std::make_shared<HiddenKeys>(std::move(memory));
    for (const auto& entry : positions_) {
      if (!goes(entry)) rest->put(entry.first, entry.second);
    }
    rest->memory_.force(rest->keyBytes_);
    return rest;
  }

 private:
  void put(const std::string& key, const JournalPosition& position);

  mutable std::shared_mutex mutex_;
  // Guarded by mutex_.
  MemoryBudget::Share memory_;
  std::unordered_map<std::string, JournalPosition> positions_;
  std::size_t keyBytes_ = 0;
};

/// What a search leaves out. Null: nothing.
using Hidden = std::shared_ptr<const HiddenKeys>;

}  // namespace corvaned
