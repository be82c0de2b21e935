#include "server/store/indexLimits.h"

#include "server/store/indexingMemory.h"

namespace corvaned {

std::size_t IndexLimits::batchMemory() const { return batchBytes * IndexingMemory::kCostOfByte; }

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
