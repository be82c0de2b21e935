#pragma once

#include <xapian.h>

#include <cstddef>

#include "server/base/memoryBudget.h"
#include "server/store/indexLimits.h"

namespace corvaned {

/// How many words a query may stand for, with those that words with a trailing * stand for.
constexpr std::size_t kMostWords = 10000;

/// Sets aside what the engine takes to read the lists of documents of all words of a query, in each
/// database, at the same time. Throws ServerError(QueryTooBroad) if they are too many: while it
/// opens them, nothing can end it. `held` as in setAside().
MemoryBudget::Share memoryForWords(const Xapian::Query& words, const Xapian::Database& database,
                                   const IndexLimits& limits, std::size_t held = 0);

}  // namespace corvaned
