#pragma once

#include <xapian.h>

#include <cstddef>
#include <string>
#include <vector>

#include "server/store/stopCheck.h"

namespace corvaned {

/// A database of the documents in memory, each of which gets the term kPassingTerm. It only has the
/// words of the query, unless one of these stands for others, and their places only where the query
/// compares them. `text` is what the query was read from; documents can be sorted by the first
/// `slots` metadata names. `stop` throws to end it. Throws ServerError(QueryTooBroad) if words of
/// the query stand at too many places that have to be compared.
Xapian::WritableDatabase passingDocuments(const std::vector<Xapian::Document>& made,
                                          const Xapian::Query& words, const std::string& text,
                                          std::size_t slots, const StopCheck& stop);

}  // namespace corvaned
