#pragma once

#include <xapian.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "server/base/memoryBudget.h"
#include "server/store/indexLimits.h"
#include "server/store/store.h"

namespace corvaned {

/// All hits of a search. The keys stand back to back in one string: one allocation instead of one
/// per hit.
class HitBuffer : public HitSource {
 public:
  using KeyIn = std::string_view (*)(std::string_view sortKey);

  /// `keyIn` takes the key of a hit out of what it was sorted by.
  HitBuffer(const Xapian::MSet& matches, KeyIn keyIn, ScoreScale scale, MemoryBudget::Share memory);

  bool next(Hit& hit) override;

 private:
  struct Entry {
    std::size_t keyEnd;
    std::uint16_t milliScore;
  };
  // Declared first, so that it is given back when the others are gone.
  MemoryBudget::Share memory_;
  std::string keys_;
  std::vector<Entry> entries_;
  std::size_t position_ = 0;
  std::size_t keyStart_ = 0;
};

/// Keys without scores.
class KeyBuffer : public HitSource {
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

}  // namespace corvaned
