#include "server/store/indexLimits.h"

namespace corvaned {

MemoryBudget::Share shareOf(const IndexLimits& limits) {
  return limits.memory ? MemoryBudget::Share(*limits.memory) : MemoryBudget::Share();
}

std::size_t bytesOf(const Document& document) {
  std::size_t bytes = document.key.size() + document.content.size();
  for (const auto& [name, value] : document.metadata) bytes += name.size() + value.size();
  return bytes;
}

std::size_t bytesOf(const Change& change) { return bytesOf(change.document); }

}  // namespace corvaned
