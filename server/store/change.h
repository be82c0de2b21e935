#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "server/store/store.h"

namespace corvaned {

enum class ChangeKind : std::uint8_t { Put = 1, Remove = 2, Batch = 3 };

/// A batch as it was accepted.
struct BatchEntry {
  std::string name;
  /// See Batch::digest.
  std::string digest;
  /// How many of its deletions found no document.
  std::uint32_t unknown = 0;
  BatchChanges changes;
};

/// One change of a collection. A removal has only a key, and a batch nothing but itself.
struct Change {
  ChangeKind kind = ChangeKind::Put;
  Document document;
  std::shared_ptr<BatchEntry> batch{};
};

/// How many documents it adds or removes.
inline std::size_t changesIn(const Change& change) {
  if (change.kind != ChangeKind::Batch) return 1;
  return change.batch->changes.documents.size() + change.batch->changes.deletions.size();
}

}  // namespace corvaned
