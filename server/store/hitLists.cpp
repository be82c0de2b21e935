#include "server/store/hitLists.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "server/store/searchMemory.h"
#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

// By how much the memory of keys grows at a time.
constexpr std::size_t kKeysStep = std::size_t{64} << 10U;

bool isBefore(const RankedHit& a, const RankedHit& b) {
  return a.weight > b.weight || (a.weight == b.weight && a.key < b.key);
}

}  // namespace

std::uint16_t milliScore(double weight, double best, ScoreScale scale) {
  constexpr double kMax = std::numeric_limits<std::uint16_t>::max();
  double score = weight;
  if (scale == ScoreScale::Normalized) score = best > 0 ? weight / best : 0;
  return static_cast<std::uint16_t>(std::lround(std::clamp(score * 1000, 0.0, kMax)));
}

HitBuffer::HitBuffer(const Xapian::MSet& matches, KeyIn keyIn, ScoreScale scale,
                     MemoryBudget::Share memory)
    : memory_(std::move(memory)) {
  entries_.reserve(matches.size());
  const double best = matches.get_max_attained();
  for (auto match = matches.begin(); match != matches.end(); ++match) {
    lastSortKey_ = match.get_sort_key();
    lastWeight_ = match.get_weight();
    add(keyIn(lastSortKey_), milliScore(lastWeight_, best, scale));
  }
  countMemory();
}

HitBuffer::HitBuffer(const std::vector<RankedHit>& hits, std::uint64_t start, double best,
                     ScoreScale scale, MemoryBudget::Share memory)
    : memory_(std::move(memory)) {
  const std::size_t first = std::min<std::size_t>(start, hits.size());
  entries_.reserve(hits.size() - first);
  for (std::size_t i = first; i < hits.size(); ++i) {
    lastSortKey_ = hits[i].key;
    lastWeight_ = hits[i].weight;
    add(lastSortKey_, milliScore(lastWeight_, best, scale));
  }
  countMemory();
}

void HitBuffer::add(std::string_view key, std::uint16_t score) {
  keys_ += key;
  entries_.push_back({keys_.size(), score});
}

void HitBuffer::countMemory() {
  memory_.force(keys_.capacity() + entries_.capacity() * sizeof(Entry));
}

bool HitBuffer::next(Hit& hit) {
  if (position_ == entries_.size()) return false;
  const Entry& entry = entries_[position_++];
  hit.key.assign(keys_, keyStart_, entry.keyEnd - keyStart_);
  hit.milliScore = entry.milliScore;
  keyStart_ = entry.keyEnd;
  return true;
}

void KeyBuffer::add(const std::string& key) {
  entries_.push_back({keys_.size(), key.size()});
  keys_ += key;
  const std::size_t bytes = keys_.capacity() + entries_.capacity() * sizeof(Entry);
  if (bytes > memory_.bytes()) grow(bytes);
}

void KeyBuffer::keepFirst(std::uint64_t count) {
  const auto before = [&](const Entry& a, const Entry& b) { return keyOf(a) < keyOf(b); };
  if (count < entries_.size()) {
    const auto end = entries_.begin() + static_cast<std::ptrdiff_t>(count);
    std::nth_element(entries_.begin(), end, entries_.end(), before);
    entries_.erase(end, entries_.end());
    dropUnused();
  }
  std::sort(entries_.begin(), entries_.end(), before);
}

void KeyBuffer::start(std::uint64_t position) {
  position_ = std::min<std::size_t>(position, size());
}

bool KeyBuffer::next(Hit& hit) {
  if (position_ == entries_.size()) return false;
  hit.key.assign(keyOf(entries_[position_++]));
  hit.milliScore = 0;
  return true;
}

void KeyBuffer::dropUnused() {
  std::string kept;
  for (Entry& entry : entries_) {
    const std::size_t begin = kept.size();
    kept += keyOf(entry);
    entry.begin = begin;
  }
  keys_.swap(kept);
}

void KeyBuffer::grow(std::size_t bytes) {
  setAside(memory_, bytes + kKeysStep, budget_.get(), ErrorKind::QueryTooBroad,
           [](std::size_t mebibytes) {
             return fmt::format(
                 "the keys found so far take {} MiB of memory, and no more is free; ask for fewer "
                 "with \"size\", or raise --max-memory",
                 mebibytes);
           });
}

void KeyGatherer::operator()(const Xapian::Document& document, double) {
  if (!byKey_ && buffer_.size() >= wanted_) return;
  buffer_.add(document.get_value(kKeySlot));
  // Rarely, so that a page of many costs little.
  if (byKey_ && buffer_.size() / 2 > wanted_ + kFewHits) buffer_.keepFirst(wanted_);
}

// The key of a document is only read if it counts.
void HitsBehind::operator()(const Xapian::Document& document, double weight) {
  best_ = std::max(best_, weight);
  const bool isAtPlace = weight == place_.weight;
  if (weight > place_.weight) {
    ++before_;
    return;
  }
  const bool isFull = kept_.size() >= wanted_;
  if (!isAtPlace && isFull && (kept_.empty() || weight < kept_.front().weight)) return;
  RankedHit hit{weight, document.get_value(kKeySlot)};
  if (isAtPlace && hit.key <= place_.sortedBy) {
    ++before_;
  } else {
    keep(std::move(hit));
  }
}

void HitsBehind::keep(RankedHit&& hit) {
  if (kept_.size() >= wanted_) {
    if (kept_.empty() || !isBefore(hit, kept_.front())) return;
    std::pop_heap(kept_.begin(), kept_.end(), isBefore);
    kept_.pop_back();
  }
  kept_.push_back(std::move(hit));
  std::push_heap(kept_.begin(), kept_.end(), isBefore);
}

std::vector<RankedHit> HitsBehind::take() {
  std::sort_heap(kept_.begin(), kept_.end(), isBefore);
  return std::move(kept_);
}

}  // namespace corvaned
