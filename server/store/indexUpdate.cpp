#include "server/store/indexUpdate.h"

#include <iterator>
#include <limits>
#include <utility>

#include "server/store/indexingMemory.h"

namespace corvaned {
namespace {

// What is read in one step before anything is applied.
constexpr std::uint64_t kBytesPerCount = std::uint64_t{32} << 20U;
// What a key takes in the map beside its bytes.
constexpr std::size_t kKeyCost = 80;
// The part of the memory that the keys of an update may take.
constexpr std::size_t kUpdatesPerBudget = 16;

std::size_t mostKeyBytes(const IndexLimits& limits, IndexUpdate::Slices slices) {
  return limits.memory && slices == IndexUpdate::Slices::AsMemoryAllows
             ? limits.memory->limit() / kUpdatesPerBudget
             : std::numeric_limits<std::size_t>::max();
}

}  // namespace

IndexUpdate::IndexUpdate(JournalPart part, XapianIndex& index, Slices slices,
                         XapianIndex::StopCheck stop)
    : part_(std::move(part)),
      index_(index),
      stop_(std::move(stop)),
      mostKeyBytes_(mostKeyBytes(index.limits(), slices)),
      memory_(index.emptyShare()) {}

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
    if (keyBytes_ >= mostKeyBytes_ && !part_.isInsideBatch()) return endCount(false);
    const auto change = next();
    if (!change) return endCount(true);
    const auto [entry, isNew] = lastOfKey_.try_emplace(change->document.key);
    entry->second.number = position_++;
    if (change->kind == ChangeKind::Remove) entry->second.removes = true;
    if (isNew) keyBytes_ += entry->first.size() + kKeyCost;
  }
  memory_.force(keyBytes_ + bytesHeld_);
  all_ = position_;
}

void IndexUpdate::endCount(bool isLast) {
  counted_ = true;
  isLastSlice_ = isLast;
  all_ = sliceEnd_ = position_;
  part_.rewind(sliceMark_);
  bytesHeld_ = 0;
  position_ = sliceBegin_;
  memory_.force(keyBytes_);
  forgetReplacedRefusals();
}

// Within a slice the index is not given a version that another one follows. What becomes of a key
// must not depend on where one slice ends and the next begins.
void IndexUpdate::forgetReplacedRefusals() {
  std::erase_if(refused_, [this](const ParseOutcome& one) { return lastOfKey_.contains(one.key); });
}

// What a slice leaves visible that a later one deletes is hidden from searches until the update
// ends; where nothing is hidden there is one slice only.
void IndexUpdate::beginSlice() {
  counted_ = false;
  sliceMark_ = part_.mark();
  sliceBegin_ = position_;
  lastOfKey_.clear();
  keyBytes_ = 0;
  memory_.force(bytesHeld_);
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
    more = position_ < sliceEnd_;
    if (!more) break;
    auto change = next();
    if (lastOfKey_[change->document.key].number != position_++) continue;
    memory.addAsSent(*change);
    batch.push_back(std::move(*change));
  }
  std::vector<ParseOutcome> refused = index_.applyBatch(batch, stop_);
  removeWhatReplacesNothing(refused);
  std::move(refused.begin(), refused.end(), std::back_inserter(refused_));
  if (more || isLastSlice_) return more;
  beginSlice();
  return true;
}

// A document that the index refuses leaves the earlier one of its key. If that was deleted before,
// it must not come back.
void IndexUpdate::removeWhatReplacesNothing(const std::vector<ParseOutcome>& refused) {
  std::vector<Change> removals;
  for (const ParseOutcome& one : refused) {
    if (lastOfKey_[one.key].removes) removals.push_back({ChangeKind::Remove, {one.key, {}, {}}});
  }
  if (!removals.empty()) index_.applyBatch(removals, stop_);
}

}  // namespace corvaned
