#pragma once

#include <cstddef>
#include <memory>

#include "server/base/descriptorBudget.h"
#include "server/base/memoryBudget.h"
#include "server/store/change.h"
#include "server/store/parallel.h"
#include "server/store/stopCheck.h"

namespace corvaned {

class IdleReaders;

/// What a byte of an ordinary text takes in memory while its words are gathered.
constexpr std::size_t kIndexingCost = 16;

struct IndexLimits {
  /// Maximum length of a query in bytes.
  std::size_t queryBytes = 16384;
  /// Maximum number of words that a query may have; a wildcard counts as one.
  std::size_t queryTerms = 256;
  /// Maximum number of words that a word with a trailing * may stand for.
  std::size_t expansion = 1000;
  /// Maximum number of changes per transaction, and the size in bytes at which a transaction of
  /// ordinary texts is full. One with more words is full when it takes as much memory.
  std::size_t batchChanges = 1000;
  /// Of a key whose last document is refused, how many before it are remembered at a time.
  std::size_t earlierDocuments = 1000;
  std::size_t batchBytes = std::size_t{4} << 20U;
  std::size_t batchMemory() const { return batchBytes * kIndexingCost; }
  /// What results and transactions take their memory from. None: without a limit.
  std::shared_ptr<MemoryBudget> memory;
  /// What handles for searching take their descriptors from. None: without a limit.
  std::shared_ptr<DescriptorBudget> descriptors;
  /// Where handles for searching are kept that nobody uses. None: in a place of each index's own.
  std::shared_ptr<IdleReaders> idleReaders;
  /// Who helps to change the databases of an index that has several. None: nobody.
  Helpers helpers;
};

/// A share of the memory, empty yet.
MemoryBudget::Share shareOf(const IndexLimits& limits);

/// The size of a document and of a change, as they count for a batch.
std::size_t bytesOf(const Document& document);
std::size_t bytesOf(const Change& change);

}  // namespace corvaned
