#pragma once

#include <xapian.h>

#include <cstddef>
#include <cstdint>

#include "server/base/memoryBudget.h"
#include "server/store/indexLimits.h"
#include "server/store/store.h"

namespace corvaned {

/// What a hit is sorted by where that is a value: the value, of which a zero byte takes two, and
/// the key.
constexpr std::size_t kValueKeyBytes = 512;

std::uint64_t saturatedSum(std::uint64_t a, std::uint64_t b);

/// The part of a result that was asked for: from, and to before, so many hits.
struct Page {
  std::uint64_t start = 0;
  std::uint64_t end = 0;

  Page behind(std::uint64_t hits) const {
    return {saturatedSum(start, hits), saturatedSum(end, hits)};
  }
};

/// What is asked for, counted from where the result is gone on with. `documents`: how many of them
/// may be hits.
Page pageOf(const SearchQuery& query, std::uint64_t documents);

/// Sets aside what the engine takes to find the first `hits` hits; for each of them also
/// `sortKeyBytes` if they are sorted by more than a key. `held` as in setAside().
MemoryBudget::Share memoryToSort(const Xapian::Enquire& enquire, std::uint64_t hits,
                                 std::size_t sortKeyBytes, const IndexLimits& limits,
                                 std::size_t held = 0);

}  // namespace corvaned
