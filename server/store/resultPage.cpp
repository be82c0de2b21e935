#include "server/store/resultPage.h"

#include <algorithm>
#include <limits>

#include "server/store/searchMemory.h"

namespace corvaned {

std::uint64_t saturatedSum(std::uint64_t a, std::uint64_t b) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
  return a > kMost - b ? kMost : a + b;
}

Page pageOf(const SearchQuery& query, std::uint64_t documents) {
  const std::uint64_t before = query.from ? query.from->rank : 0;
  const std::uint64_t limit = query.limit - std::min(query.limit, before);
  const std::uint64_t end = std::min({saturatedSum(query.start, query.size), limit, documents});
  return {std::min(query.start, end), end};
}

MemoryBudget::Share memoryToSort(const Xapian::Enquire& enquire, std::uint64_t hits,
                                 std::size_t sortKeyBytes, const IndexLimits& limits,
                                 std::size_t held) {
  std::uint64_t most = hits;
  if (most > kFewHits) {
    most = std::min<std::uint64_t>(most, enquire.get_mset(0, 0).get_matches_upper_bound());
  }
  return memoryFor(most, sortKeyBytes, limits, held);
}

}  // namespace corvaned
