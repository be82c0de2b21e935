#include "server/store/indexUpdate.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <set>
#include <string_view>
#include <utility>

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

IndexUpdate::IndexUpdate(JournalPart part, JournalPosition removedTo, XapianIndex& index,
                         Slices slices, XapianIndex::StopCheck stop)
    : part_(std::move(part)),
      removedTo_(removedTo),
      index_(index),
      stop_(std::move(stop)),
      mostKeyBytes_(mostKeyBytes(index.limits(), slices)),
      memory_(index.emptyShare()) {}

bool IndexUpdate::step() {
  if (!counted_) count();
  bool more = true;
  if (isLookingAhead_) {
    findRemovals();
  } else if (searched_) {
    more = findEarlier();
  } else if (sliceEndMark_) {
    more = offerEarlier();
  } else if (counted_) {
    more = apply();
  }
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
    entry->second = {position_++, !isNew, false};
    if (isNew) keyBytes_ += entry->first.size() + kKeyCost;
  }
  chargeMemory();
  all_ = position_;
}

void IndexUpdate::endCount(bool isLast) {
  counted_ = true;
  isLastSlice_ = isLast;
  all_ = sliceEnd_ = position_;
  position_ = sliceBegin_;
  forgetReplacedRefusals();
  isLookingAhead_ = part_.end() < removedTo_;
  if (!isLookingAhead_) beginApplying();
}

// The index has lost those keys already, and would show what the slice has of them. What is known
// of them must not take memory for each deletion of the journal, so that they are read anew.
void IndexUpdate::findRemovals() {
  const std::uint64_t end = part_.bytesRead() + kBytesPerCount;
  while (part_.bytesRead() < end) {
    stop_();
    const bool isBehind = part_.end() >= removedTo_ && !part_.isInsideBatch();
    const auto change = isBehind ? std::nullopt : next();
    if (!change) return beginApplying();
    if (change->kind != ChangeKind::Remove) continue;
    const auto last = lastOfKey_.find(change->document.key);
    if (last != lastOfKey_.end()) last->second.isRemovedLater = true;
  }
}

void IndexUpdate::beginApplying() {
  isLookingAhead_ = false;
  part_.rewind(sliceMark_);
  bytesHeld_ = 0;
  chargeMemory();
}

// A refusal counts no more once a later change of its key comes. What becomes of a key must not
// depend on where one slice ends and the next begins.
void IndexUpdate::forgetReplacedRefusals() {
  std::erase_if(refused_,
                [this](const Refused& one) { return lastOfKey_.contains(one.outcome.key); });
}

// What a slice leaves visible that a later one deletes is hidden from searches until the update
// ends; where nothing is hidden there is one slice only.
void IndexUpdate::beginSlice() {
  counted_ = false;
  sliceMark_ = part_.mark();
  sliceBegin_ = position_;
  lastOfKey_.clear();
  keyBytes_ = 0;
  chargeMemory();
}

void IndexUpdate::chargeMemory() { memory_.force(keyBytes_ + bytesHeld_ + earlierBytes_); }

std::optional<Change> IndexUpdate::next() {
  std::optional<Change> change = part_.next();
  if (part_.bytesHeld() != bytesHeld_) {
    bytesHeld_ = part_.bytesHeld();
    chargeMemory();
  }
  return change;
}

// Only the last change of each key counts. The earlier ones would cost time and could make a
// deleted document visible between two transactions. A batch that fits into a transaction is not
// divided between two.
bool IndexUpdate::apply() {
  Transaction transaction;
  bool more = true;
  const std::uint64_t end = part_.bytesRead() + kBytesPerCount;
  while ((hasRoom(transaction, 1) && part_.bytesRead() < end) ||
         (hasRoom(transaction, 2) && part_.isInsideBatch())) {
    more = position_ < sliceEnd_;
    if (!more) break;
    auto change = next();
    const LastChange& last = lastOfKey_[change->document.key];
    if (last.number == position_++ && !last.isRemovedLater) {
      add(transaction, std::move(*change), true);
    }
  }
  std::vector<Refused> refused = bringIn(transaction);
  for (const Refused& one : refused) {
    const LastChange& last = lastOfKey_[one.outcome.key];
    if (last.isRepeated) earlier_[one.outcome.key].refused = last.number;
  }
  std::move(refused.begin(), refused.end(), std::back_inserter(refused_));
  if (more) return true;
  if (earlier_.empty()) return endSlice();
  sliceEndMark_ = part_.mark();
  search();
  return true;
}

void IndexUpdate::search() {
  part_.rewind(sliceMark_);
  searched_ = sliceBegin_;
  earlierBytes_ = 0;
  for (auto& [key, earlier] : earlier_) earlier.hasMore = false;
}

bool IndexUpdate::hasRoom(const Transaction& transaction, std::size_t times) const {
  const IndexLimits& limits = index_.limits();
  return transaction.changes.size() < times * limits.batchChanges &&
         transaction.memory.bytes() < times * limits.batchMemory();
}

void IndexUpdate::add(Transaction& transaction, Change change, bool isLast) {
  transaction.memory.addAsSent(change);
  transaction.origins.push_back({part_.end(), part_.batch(), isLast});
  transaction.changes.push_back(std::move(change));
}

std::vector<IndexUpdate::Refused> IndexUpdate::bringIn(const Transaction& transaction) {
  const std::vector<Change>& changes = transaction.changes;
  std::vector<Refused> refused;
  for (ParseOutcome& outcome : index_.applyBatch(changes, stop_)) {
    const auto change = std::find_if(changes.begin(), changes.end(), [&](const Change& each) {
      return each.document.key == outcome.key;
    });
    const Origin& origin =
        transaction.origins.at(static_cast<std::size_t>(change - changes.begin()));
    refused.push_back({std::move(outcome), origin.end, origin.batch, origin.isLast});
  }
  return refused;
}

// Of the keys whose last document was refused, where the earlier ones stand.
bool IndexUpdate::findEarlier() {
  const std::uint64_t end = part_.bytesRead() + kBytesPerCount;
  Place place;
  while ((*searched_ < sliceEnd_ && part_.bytesRead() < end) || part_.isInsideBatch()) {
    stop_();
    if (part_.isInsideBatch()) {
      ++place.before;
    } else {
      place = {part_.mark(), 0};
    }
    const auto change = next();
    const std::uint64_t number = (*searched_)++;
    const auto found = earlier_.find(change->document.key);
    if (found == earlier_.end() || number >= found->second.refused) continue;
    Earlier& earlier = found->second;
    if (change->kind == ChangeKind::Remove) {
      earlier.documents.clear();
      earlier.hasMore = false;
      earlier.removes = true;
      continue;
    }
    place.number = number;
    earlier.documents.push_back(place);
    if (earlier.documents.size() > index_.limits().earlierDocuments) {
      earlier.documents.pop_front();
      earlier.hasMore = true;
    } else {
      earlierBytes_ += sizeof(Place);
    }
  }
  chargeMemory();
  if (*searched_ >= sliceEnd_) searched_.reset();
  return true;
}

// The latest that the index takes is what it gets. A document that was deleted before must not come
// back if it takes none.
bool IndexUpdate::offerEarlier() {
  Transaction transaction;
  std::uint64_t read = 0;
  for (auto one = earlier_.begin();
       one != earlier_.end() && hasRoom(transaction, 1) && read < kBytesPerCount;) {
    Earlier& earlier = one->second;
    if (!earlier.documents.empty()) {
      stop_();
      earlier.refused = earlier.documents.back().number;
      add(transaction, documentAt(earlier.documents.back(), read), false);
      earlier.documents.pop_back();
    } else if (!earlier.hasMore) {
      if (earlier.removes) add(transaction, {ChangeKind::Remove, {one->first, {}, {}}}, false);
      one = earlier_.erase(one);
      continue;
    }
    ++one;
  }
  std::vector<Refused> refused = bringIn(transaction);
  std::set<std::string_view> refusedKeys;
  for (const Refused& one : refused) refusedKeys.insert(one.outcome.key);
  for (const Change& change : transaction.changes) {
    if (!refusedKeys.contains(change.document.key)) earlier_.erase(change.document.key);
  }
  std::move(refused.begin(), refused.end(), std::back_inserter(refused_));
  if (!earlier_.empty()) {
    const bool allHaveMore = std::all_of(earlier_.begin(), earlier_.end(), [](const auto& one) {
      return one.second.documents.empty() && one.second.hasMore;
    });
    if (allHaveMore) search();
    return true;
  }
  earlierBytes_ = 0;
  chargeMemory();
  part_.rewind(*sliceEndMark_);
  sliceEndMark_.reset();
  return endSlice();
}

Change IndexUpdate::documentAt(const Place& place, std::uint64_t& bytesRead) {
  part_.rewind(place.entry);
  std::optional<Change> change = next();
  bytesRead += std::max<std::uint64_t>(part_.bytesHeld(), change->document.content.size());
  for (std::size_t i = 0; i < place.before; ++i) change = next();
  return std::move(*change);
}

bool IndexUpdate::endSlice() {
  if (isLastSlice_) return false;
  beginSlice();
  return true;
}

}  // namespace corvaned
