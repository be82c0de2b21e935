#include "server/store/idleReaders.h"

#include <fmt/format.h>

#include <iterator>
#include <limits>
#include <utility>

#include "server/base/errors.h"

namespace corvaned {

IdleReaders::IdleReaders(std::shared_ptr<MemoryBudget> memory)
    : memory_(std::move(memory)),
      most_(memory_ ? memory_->limit() / kShareOfMemory : std::numeric_limits<std::size_t>::max()) {
}

std::unique_ptr<IndexReader> IdleReaders::OfIndex::take() {
  KeptList taken;
  const std::lock_guard lock(all_->mutex_);
  if (kept_.empty()) return nullptr;
  taken.splice(taken.end(), all_->kept_, kept_.back());
  kept_.pop_back();
  all_->bytes_ -= taken.front().reader->memory();
  return std::move(taken.front().reader);
}

void IdleReaders::OfIndex::keep(std::unique_ptr<IndexReader> reader) {
  KeptList kept;
  kept.push_back({this, std::move(reader)});
  KeptList surplus;
  const std::lock_guard lock(all_->mutex_);
  kept_.push_back(kept.begin());
  all_->bytes_ += kept.front().reader->memory();
  all_->kept_.splice(all_->kept_.end(), kept);
  while (all_->bytes_ > all_->most_) all_->moveOldest(surplus);
}

void IdleReaders::OfIndex::release() {
  KeptList released;
  const std::lock_guard lock(all_->mutex_);
  for (const KeptList::iterator& each : kept_) {
    all_->bytes_ -= each->reader->memory();
    released.splice(released.end(), all_->kept_, each);
  }
  kept_.clear();
}

// A handle is no small use for its size, but for what it serves: a search that others with large
// documents must not keep from being served.
MemoryBudget::Share IdleReaders::memoryFor(const Need& need, std::size_t held) {
  constexpr auto kUse = MemoryBudget::Use::Small;
  MemoryBudget::Share share = memory_ ? MemoryBudget::Share(*memory_) : MemoryBudget::Share();
  const std::size_t bytes = (need.databases - need.had) * kDatabaseCost;
  const std::size_t whole = need.databases * kDatabaseCost;
  while (!share.resize(bytes, kUse)) {
    const bool passes = memory_->canEverFit(whole + held, kUse);
    if (passes && !takeOldest().empty()) continue;
    throw ServerError(passes ? ErrorKind::TryAgain : ErrorKind::OutOfMemory,
                      fmt::format("to search {} databases takes {} KiB of memory that are not "
                                  "free; {}raise --max-memory",
                                  need.databases, whole >> 10U, passes ? "try again, or " : ""));
  }
  return share;
}

IdleReaders::KeptList IdleReaders::takeOldest() {
  KeptList oldest;
  const std::lock_guard lock(mutex_);
  if (!kept_.empty()) moveOldest(oldest);
  return oldest;
}

// mutex_ is locked. The oldest of all is also the oldest of its index.
void IdleReaders::moveOldest(KeptList& destination) {
  Kept& oldest = kept_.front();
  bytes_ -= oldest.reader->memory();
  oldest.index->kept_.pop_front();
  destination.splice(destination.end(), kept_, kept_.begin());
}

}  // namespace corvaned
