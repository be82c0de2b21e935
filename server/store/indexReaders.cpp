#include "server/store/indexReaders.h"

#include <random>

namespace corvaned {

void IndexReaders::release() {
  const std::lock_guard lock(mutex_);
  idle_.clear();
}

std::uint64_t IndexReaders::revision() {
  const CommitGate::Hold hold = commits_.hold();
  const std::shared_lock staying(exchangeMutex_);
  return Xapian::Database(path_.string()).get_revision();
}

std::unique_ptr<IndexReader> IndexReaders::takeIdle() {
  const std::lock_guard lock(mutex_);
  if (idle_.empty()) return nullptr;
  std::unique_ptr<IndexReader> reader = std::move(idle_.back());
  idle_.pop_back();
  return reader;
}

// A handle for an index that has been replaced must not be refreshed: it would take the new files
// for its own.
void IndexReaders::refresh(std::unique_ptr<IndexReader>& reader) {
  DescriptorBudget::Share descriptors(limits_.descriptors.get());
  // Others may have to close something for that, so no lock is held.
  if (!reader) descriptors.add(IndexReader::kDescriptors);
  const std::shared_lock staying(exchangeMutex_);
  if (reader && reader->generation() == generation_) return reader->refresh();
  if (reader) descriptors = reader->takeDescriptors();
  reader = std::make_unique<IndexReader>(path_, std::move(descriptors), generation_);
}

// Places in results name the generation, and must not be taken for those of an index that another
// process has opened.
std::uint64_t IndexReaders::anyNumber() {
  std::random_device device;
  return static_cast<std::uint64_t>(device()) << 32U | device();
}

void IndexReaders::giveBack(std::unique_ptr<IndexReader> reader) {
  const std::lock_guard lock(mutex_);
  idle_.push_back(std::move(reader));
}

}  // namespace corvaned
