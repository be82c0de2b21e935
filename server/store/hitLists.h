#pragma once

#include <xapian.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "server/base/memoryBudget.h"
#include "server/store/indexLimits.h"
#include "server/store/store.h"

namespace corvaned {

/// A hit's score; `best` is the highest weight of the whole result.
std::uint16_t milliScore(double weight, double best, ScoreScale scale);

/// A hit as it is ranked.
struct RankedHit {
  double weight;
  std::string key;
};

/// The hits of a search, or of a page of it.
class HitList : public HitSource {
 public:
  std::optional<ResultPlace> nextPage() const override { return nextPage_; }
  void setNextPage(std::optional<ResultPlace> place) { nextPage_ = std::move(place); }

  /// How many next() will give.
  virtual std::size_t left() const = 0;
  /// Of the last one: by what it was sorted. Nothing that is not there is asked for.
  virtual std::string lastSortKey() const = 0;
  virtual double lastWeight() const = 0;

 private:
  std::optional<ResultPlace> nextPage_;
};

/// All hits of a search. The keys stand back to back in one string: one allocation instead of one
/// per hit.
class HitBuffer : public HitList {
 public:
  using KeyIn = std::string_view (*)(std::string_view sortKey);

  /// `keyIn` takes the key of a hit out of what it was sorted by.
  HitBuffer(const Xapian::MSet& matches, KeyIn keyIn, ScoreScale scale, MemoryBudget::Share memory);
  /// All of the hits but the first ones. `best`: the highest weight of the whole result.
  HitBuffer(const std::vector<RankedHit>& hits, std::uint64_t start, double best, ScoreScale scale,
            MemoryBudget::Share memory);

  bool next(Hit& hit) override;
  std::size_t left() const override { return entries_.size() - position_; }
  std::string lastSortKey() const override { return lastSortKey_; }
  double lastWeight() const override { return lastWeight_; }

 private:
  struct Entry {
    std::size_t keyEnd;
    std::uint16_t milliScore;
  };

  void add(std::string_view key, std::uint16_t score);
  void countMemory();

  // Declared first, so that it is given back when the others are gone.
  MemoryBudget::Share memory_;
  std::string keys_;
  std::vector<Entry> entries_;
  std::size_t position_ = 0;
  std::size_t keyStart_ = 0;
  std::string lastSortKey_;
  double lastWeight_ = 0;
};

/// Keys without scores.
class KeyBuffer : public HitList {
 public:
  explicit KeyBuffer(const IndexLimits& limits)
      : budget_(limits.memory), memory_(shareOf(limits)) {}

  std::size_t size() const { return entries_.size(); }

  void add(const std::string& key);
  /// Drops all but the first `count` in the order of keys, and puts these in order.
  void keepFirst(std::uint64_t count);
  /// next() begins with that one.
  void start(std::uint64_t position);

  bool next(Hit& hit) override;
  std::size_t left() const override { return entries_.size() - position_; }
  std::string lastSortKey() const override { return std::string(keyOf(entries_.back())); }
  double lastWeight() const override { return 0; }

 private:
  struct Entry {
    std::size_t begin;
    std::size_t length;
  };

  std::string_view keyOf(const Entry& entry) const {
    return std::string_view(keys_).substr(entry.begin, entry.length);
  }
  void dropUnused();
  void grow(std::size_t bytes);

  // Declared first, so that it is given back when the others are gone.
  std::shared_ptr<MemoryBudget> budget_;
  MemoryBudget::Share memory_;
  std::string keys_;
  std::vector<Entry> entries_;
  std::size_t position_ = 0;
};

/// Puts the keys of all documents that match into a buffer. Of more than `wanted` it keeps the
/// first ones, by key or as they come.
class KeyGatherer : public Xapian::MatchSpy {
 public:
  KeyGatherer(KeyBuffer& buffer, std::uint64_t wanted, bool byKey)
      : buffer_(buffer), wanted_(wanted), byKey_(byKey) {}

  void operator()(const Xapian::Document& document, double weight) override;

 private:
  KeyBuffer& buffer_;
  const std::uint64_t wanted_;
  const bool byKey_;
};

/// Of all documents that match, keeps the best of those that are ranked behind a place: no more
/// than are wanted, however many come before.
class HitsBehind : public Xapian::MatchSpy {
 public:
  HitsBehind(const ResultPlace& place, std::uint64_t wanted) : place_(place), wanted_(wanted) {}

  void operator()(const Xapian::Document& document, double weight) override;

  /// How many hits there are up to the place.
  std::uint64_t before() const { return before_; }
  /// The highest weight of all.
  double best() const { return best_; }
  /// Those that were kept, the best first.
  std::vector<RankedHit> take();

 private:
  void keep(RankedHit&& hit);

  const ResultPlace& place_;
  const std::uint64_t wanted_;
  std::uint64_t before_ = 0;
  double best_ = 0;
  // A heap, with the one on top that is the first to go.
  std::vector<RankedHit> kept_;
};

}  // namespace corvaned
