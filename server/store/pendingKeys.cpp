#include "server/store/pendingKeys.h"

#include <algorithm>
#include <utility>

namespace corvaned {
namespace {

// What a key takes beside its bytes.
constexpr std::size_t kKeyCost = 96;

}  // namespace

bool PendingKeys::isKept() const {
  const std::lock_guard lock(mutex_);
  return kept_;
}

void PendingKeys::begin() {
  const std::lock_guard lock(mutex_);
  noting_ = true;
}

void PendingKeys::keep() {
  const std::lock_guard lock(mutex_);
  kept_ = true;
}

void PendingKeys::need() {
  const std::lock_guard lock(mutex_);
  needed_ = true;
}

bool PendingKeys::isIdle() {
  const std::lock_guard lock(mutex_);
  return holds_ == 0 && !std::exchange(needed_, false);
}

void PendingKeys::drop() {
  const std::lock_guard lock(mutex_);
  noting_ = false;
  kept_ = false;
  std::exchange(last_, {});
  keyBytes_ = 0;
  countMemory();
}

void PendingKeys::miss() {
  const std::lock_guard lock(mutex_);
  kept_ = false;
  ++misses_;
}

std::uint64_t PendingKeys::misses() const {
  const std::lock_guard lock(mutex_);
  return misses_;
}

void PendingKeys::note(const JournalPosition& end, const Change& change) {
  const std::lock_guard lock(mutex_);
  if (!noting_ || end <= forgotten_) return;
  if (change.kind == ChangeKind::Batch) {
    const BatchChanges& changes = change.batch->changes;
    for (const Document& document : changes.documents) noteKey(end, document.key, true);
    for (const std::string& key : changes.deletions) noteKey(end, key, false);
  } else {
    noteKey(end, change.document.key, change.kind == ChangeKind::Put);
  }
  countMemory();
}

void PendingKeys::noteKey(const JournalPosition& end, const std::string& key, bool isThere) {
  const auto [place, isNew] = last_.try_emplace(key);
  if (isNew) keyBytes_ += key.size();
  if (isNew || place->second.end <= end) place->second = {end, isThere};
}

void PendingKeys::forgetUpTo(const JournalPosition& position) {
  const std::lock_guard lock(mutex_);
  indexed_ = std::max(indexed_, position);
  if (holds_ == 0) forget();
}

void PendingKeys::forget() {
  forgotten_ = indexed_;
  std::erase_if(last_, [&](const auto& entry) {
    const bool old = entry.second.end <= forgotten_;
    if (old) keyBytes_ -= entry.first.size();
    return old;
  });
  countMemory();
}

PendingKeys::Hold PendingKeys::hold() {
  const std::lock_guard lock(mutex_);
  ++holds_;
  return Hold(this);
}

void PendingKeys::letGo() {
  const std::lock_guard lock(mutex_);
  if (--holds_ == 0 && forgotten_ < indexed_) forget();
}

std::optional<bool> PendingKeys::find(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = last_.find(key);
  return found == last_.end() ? std::nullopt : std::optional(found->second.isThere);
}

void PendingKeys::countMemory() { memory_.force(keyBytes_ + last_.size() * kKeyCost); }

}  // namespace corvaned
