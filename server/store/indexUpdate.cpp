#include "server/store/indexUpdate.h"

#include <iterator>
#include <utility>

#include "server/store/indexingMemory.h"

namespace corvaned {
namespace {

// What is read in one step before anything is applied.
constexpr std::uint64_t kBytesPerCount = std::uint64_t{32} << 20U;
// What a key takes in the map beside its bytes.
constexpr std::size_t kKeyCost = 80;

}  // namespace

IndexUpdate::IndexUpdate(JournalPart part, XapianIndex& index, XapianIndex::StopCheck stop)
    : part_(std::move(part)), index_(index), stop_(std::move(stop)), memory_(index.emptyShare()) {}

bool IndexUpdate::step() {
  if (!counted_) count();
  const bool more = !counted_ || apply();
  part_.closeFile();
  return more;
}

void IndexUpdate::count() {
  const std::uint64_t end = part_.bytesRead() + kBytesPerCount;
  while (part_.bytesRead() < end) {
    stop_();
    const auto change = next();
    if (!change) {
      counted_ = true;
      all_ = position_;
      part_.rewind();
      position_ = 0;
      break;
    }
    const auto [entry, isNew] = lastOfKey_.insert_or_assign(change->document.key, position_++);
    if (isNew) keyBytes_ += entry->first.size() + kKeyCost;
  }
  memory_.force(keyBytes_ + bytesHeld_);
  if (!counted_) all_ = position_;
}

std::optional<Change> IndexUpdate::next() {
  std::optional<Change> change = part_.next();
  if (part_.bytesHeld() != bytesHeld_) {
    bytesHeld_ = part_.bytesHeld();
    memory_.force(keyBytes_ + bytesHeld_);
  }
  return change;
}

// Only the last change of each key counts. The earlier ones would cost time and could make a
// deleted document visible between two transactions. A batch that fits into a transaction is not
// divided between two.
bool IndexUpdate::apply() {
  const IndexLimits& limits = index_.limits();
  std::vector<Change> batch;
  IndexingMemory memory;
  bool more = true;
  const std::uint64_t end = part_.bytesRead() + kBytesPerCount;
  const auto hasRoom = [&](std::size_t times) {
    return batch.size() < times * limits.batchChanges &&
           memory.bytes() < times * limits.batchMemory();
  };
  while ((hasRoom(1) && part_.bytesRead() < end) || (hasRoom(2) && part_.isInsideBatch())) {
    auto change = next();
    more = change.has_value();
    if (!more) break;
    if (lastOfKey_[change->document.key] != position_++) continue;
    memory.add(*change);
    batch.push_back(std::move(*change));
  }
  std::vector<ParseOutcome> refused = index_.applyBatch(batch, stop_);
  std::move(refused.begin(), refused.end(), std::back_inserter(refused_));
  return more;
}

}  // namespace corvaned
