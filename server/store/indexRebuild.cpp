#include "server/store/indexRebuild.h"

#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/store/directory.h"
#include "server/store/engineErrors.h"
#include "server/store/files.h"
#include "server/store/indexParts.h"
#include "server/store/indexReader.h"
#include "server/store/indexSums.h"
#include "server/store/indexWriter.h"
#include "server/store/indexingMemory.h"
#include "server/store/textAnalysis.h"
#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

namespace fs = std::filesystem;

fs::path incompleteIn(const fs::path& collection) { return collection / "index-rebuilding"; }
fs::path completeIn(const fs::path& collection) { return collection / "index-rebuilt"; }
fs::path replacedIn(const fs::path& collection) { return collection / "index-replaced"; }
fs::path indexIn(const fs::path& directory) { return directory / IndexSums::kIndexDirectory; }

Change takenOver(const Xapian::Document& stored, const fs::path& index) {
  const std::string key = stored.get_value(kKeySlot);
  auto document = readDocument(key, stored.get_data());
  if (document) return {ChangeKind::Put, std::move(*document)};
  throw ServerError(ErrorKind::StorageFailed,
                    "the text of the document " + shown(key) + " in " + index.string() +
                        " cannot be read, so the index cannot be brought into its present form; "
                        "restore the collection, or stop the server and run corvaned repair");
}

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

IndexRebuild::IndexRebuild(fs::path collection, const IndexLimits& limits)
    : collection_(std::move(collection)), limits_(limits) {
  const fs::path directory = incompleteIn(collection_);
  removeTree(directory);
  fs::create_directory(directory);
  const IndexParts parts = IndexParts::in(indexIn(collection_));
  IndexForm form = TextAnalysis(Xapian::Database(parts.paths().front().string())).form();
  form.parts = parts.size();
  IndexWriter::create(directory, form);
  for (const fs::path& part : parts.paths()) all_ += Xapian::Database(part.string()).get_doccount();
}

// The database is opened for one step only: of all indexes that take turns only as many are open as
// there are threads.
bool IndexRebuild::step(const StopCheck& stop) {
  const IndexParts parts = IndexParts::in(indexIn(collection_));
  DescriptorBudget::Share descriptors(limits_.descriptors.get());
  // The process keeps what one database takes.
  descriptors.add(IndexReader::kDescriptors * (parts.size() - 1));
  const Xapian::Database earlier = parts.open();
  auto next = earlier.postlist_begin("");
  const auto end = earlier.postlist_end("");
  if (next != end) next.skip_to(last_ + 1);
  std::vector<Change> changes;
  IndexingMemory memory;
  const auto hasRoom = [&] {
    return changes.size() < limits_.batchChanges && memory.bytes() < limits_.batchMemory();
  };
  for (; next != end && hasRoom(); ++next) {
    changes.push_back(takenOver(earlier.get_document(*next), indexIn(collection_)));
    memory.add(changes.back());
    last_ = *next;
  }
  // Nobody searches it yet.
  IndexWriter writer(incompleteIn(collection_), limits_, stop);
  writer.apply(changes);
  const std::vector<ParseOutcome> refused = writer.takeRefused();
  if (!refused.empty()) {
    throw ServerError(ErrorKind::StorageFailed,
                      "the document " + shown(refused.front().key) +
                          " cannot be brought into the present form of the index: " +
                          refused.front().messageText);
  }
  done_ += changes.size();
  return next != end;
}

void IndexRebuild::decide() {
  const fs::path directory = incompleteIn(collection_);
  IndexSums::create(directory, IndexParts::in(indexIn(directory)).revisions());
  removeTree(completeIn(collection_));
  fs::rename(directory, completeIn(collection_));
  syncDirectory(collection_);
}

bool IndexRebuild::isDecided(const fs::path& collection) {
  return fs::exists(completeIn(collection));
}

// Until the new index has begun to take its place, all of the earlier one is there.
bool IndexRebuild::isDispensable(const fs::path& collection, const fs::path& name) {
  if (name == completeIn({})) {
    return fs::exists(indexIn(collection)) && fs::exists(indexIn(completeIn(collection)));
  }
  return name == incompleteIn({}) || name == replacedIn({});
}

void IndexRebuild::giveUp() noexcept {
  try {
    removeTree(incompleteIn(collection_));
  } catch (const std::exception&) {
    // The next attempt removes it, or the next opening.
  }
}

void IndexRebuild::finish(const fs::path& collection) {
  if (!isDecided(collection)) return;
  placeIndex(collection);
  placeSums(collection);
  removeTree(completeIn(collection));
  syncDirectory(collection);
}

void IndexRebuild::clear(const fs::path& collection) {
  removeTree(incompleteIn(collection));
  removeTree(replacedIn(collection));
}

}  // namespace corvaned
