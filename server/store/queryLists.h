#pragma once

#include <xapian.h>

#include <cstddef>
#include <set>
#include <string>

#include "server/base/memoryBudget.h"
#include "server/store/indexLimits.h"

namespace corvaned {

/// How many words a query may stand for, with those that words with a trailing * stand for.
constexpr std::size_t kMostWords = 10000;

/// The words of its phrases, NEAR and ADJ: only of these it matters where they stand.
std::set<std::string> placedWords(const Xapian::Query& query);

/// Sets aside what the engine takes to read the lists of documents of all words of a query, in each
/// database, at the same time, and those of the places where words of phrases, NEAR and ADJ stand
/// in a document. Throws ServerError(QueryTooBroad) if they are too many: while it opens the lists,
/// or compares the places, nothing can end it. `held` as in setAside().
MemoryBudget::Share memoryForWords(const Xapian::Query& words, const Xapian::Database& database,
                                   const IndexLimits& limits, std::size_t held = 0);

}  // namespace corvaned
