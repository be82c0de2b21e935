#include "server/store/indexReplacement.h"

#include <cstdint>
#include <exception>
#include <optional>
#include <utility>

#include "server/store/directory.h"
#include "server/store/files.h"
#include "server/store/indexParts.h"
#include "server/store/indexSums.h"

namespace corvaned {
namespace {

namespace fs = std::filesystem;

fs::path incompleteIn(const fs::path& collection) { return collection / "index-rebuilding"; }
fs::path completeIn(const fs::path& collection) { return collection / "index-rebuilt"; }
fs::path replacedIn(const fs::path& collection) { return collection / "index-replaced"; }
fs::path indexIn(const fs::path& directory) { return directory / IndexSums::kIndexDirectory; }

void placeIndex(const fs::path& collection) {
  const fs::path fresh = indexIn(completeIn(collection));
  if (!fs::exists(fresh)) return;
  const fs::path index = indexIn(collection);
  if (fs::exists(index)) {
    removeTree(replacedIn(collection));
    fs::rename(index, replacedIn(collection));
    syncDirectory(collection);
  }
  fs::rename(fresh, index);
  syncDirectory(collection);
}

void placeSums(const fs::path& collection) {
  const fs::path fresh = IndexSums::pathIn(completeIn(collection));
  if (fs::exists(fresh)) fs::rename(fresh, IndexSums::pathIn(collection));
  fs::remove(IndexSums::changingPathIn(collection));
  syncDirectory(collection);
}

}  // namespace

IndexReplacement::IndexReplacement(fs::path collection) : collection_(std::move(collection)) {
  removeTree(directory());
  fs::create_directory(directory());
}

fs::path IndexReplacement::directory() const { return incompleteIn(collection_); }

void IndexReplacement::decide() const {
  // The new index has the same changes.
  std::optional<std::uint64_t> lastChange;
  if (IndexSums::existIn(collection_)) lastChange = IndexSums(collection_).lastChange();
  IndexSums::create(directory(), IndexParts::in(indexIn(directory())).revisions(), lastChange);
  removeTree(completeIn(collection_));
  fs::rename(directory(), completeIn(collection_));
  syncDirectory(collection_);
}

bool IndexReplacement::isDecided(const fs::path& collection) {
  return fs::exists(completeIn(collection));
}

// Until the new index has begun to take its place, all of the earlier one is there.
bool IndexReplacement::isDispensable(const fs::path& collection, const fs::path& name) {
  if (name == completeIn({})) {
    return fs::exists(indexIn(collection)) && fs::exists(indexIn(completeIn(collection)));
  }
  return name == incompleteIn({}) || name == replacedIn({});
}

void IndexReplacement::giveUp() const noexcept {
  try {
    removeTree(directory());
  } catch (const std::exception&) {
    // The next attempt removes it, or the next opening.
  }
}

void IndexReplacement::finish(const fs::path& collection) {
  if (!isDecided(collection)) return;
  placeIndex(collection);
  placeSums(collection);
  removeTree(completeIn(collection));
  syncDirectory(collection);
}

void IndexReplacement::clear(const fs::path& collection) {
  removeTree(incompleteIn(collection));
  removeTree(replacedIn(collection));
}

}  // namespace corvaned
