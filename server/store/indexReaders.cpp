#include "server/store/indexReaders.h"

#include <optional>
#include <random>

#include "server/base/errors.h"
#include "server/store/indexUndo.h"

namespace corvaned {

IndexRevisions IndexReaders::revisions() {
  const CommitGate::Hold hold = commits_.hold();
  const ChangeGate::Opening opening(changes_);
  const std::shared_lock staying(exchangeMutex_);
  const IndexParts parts = IndexParts::in(path_);
  // What is still to be undone counts for nobody: other blocks will have its revision.
  if (parts.size() > 1) requireWhole();
  return parts.revisions();
}

std::shared_ptr<IdleReaders> IndexReaders::idleReadersOf(const IndexLimits& limits) {
  return limits.idleReaders ? limits.idleReaders : std::make_shared<IdleReaders>(limits.memory);
}

void IndexReaders::refreshAll(std::span<IndexReaders* const> indexes, Handles& handles,
                              std::size_t held) {
  std::vector<std::size_t> missing(indexes.size());
  IdleReaders::Need need;
  for (std::size_t i = 0; i < indexes.size(); ++i) {
    if (handles[i]) {
      need.had += handles[i]->database().size();
    } else {
      missing[i] = IndexParts::in(indexes[i]->path_).size();
    }
    need.databases += missing[i];
  }
  const bool lacksSome = need.databases > 0;
  need.databases += need.had;
  MemoryBudget::Share memory;
  if (lacksSome) memory = indexes.front()->idle_.all().memoryFor(need, held);
  for (std::size_t i = 0; i < indexes.size(); ++i) {
    indexes[i]->refresh(handles[i], memory.split(missing[i] * IdleReaders::kDatabaseCost));
  }
}

// A handle for an index that has been replaced must not be refreshed: it would take the new files
// for its own.
void IndexReaders::refresh(std::unique_ptr<IndexReader>& reader, MemoryBudget::Share memory) {
  // While several databases are being changed, whoever sees what was there before need not wait.
  if (reader && reader->isInParts() && reader->state() == state_) return;
  IndexReader::Resources resources{std::move(memory),
                                   DescriptorBudget::Share(limits_.descriptors.get())};
  // Others may have to close something for that, so no lock is held.
  if (!reader) {
    resources.descriptors.add(IndexReader::kDescriptors * IndexParts::in(path_).size());
  }
  // How many databases there are is known for sure when one of them has been opened.
  std::optional<ChangeGate::Opening> opening;
  if (!reader || reader->isInParts()) opening.emplace(changes_);
  const std::shared_lock staying(exchangeMutex_);
  if (opening) requireWhole();
  if (reader && reader->generation() == generation_) {
    reader->refresh();
  } else {
    if (reader) resources = reader->takeResources();
    // Without its resources it must not be used again, should the next one fail to open.
    reader.reset();
    reader =
        std::make_unique<IndexReader>(IndexParts::in(path_), std::move(resources), generation_);
  }
  reader->setState(state_);
}

bool IndexReaders::isWhole() const { return !IndexUndo::isPending(path_.parent_path()); }

void IndexReaders::requireWhole() const {
  if (isWhole()) return;
  throw ServerError(ErrorKind::StorageFailed,
                    "an update of " + path_.string() +
                        " has failed and could not be undone; the next updateIndex tries again");
}

// Places in results name the generation, and must not be taken for those of an index that another
// process has opened.
std::uint64_t IndexReaders::anyNumber() {
  std::random_device device;
  return static_cast<std::uint64_t>(device()) << 32U | device();
}

}  // namespace corvaned
