#pragma once

#include <xapian.h>

#include <cstddef>
#include <string>
#include <vector>

namespace corvaned {

/// A database of the documents in memory, each of which gets the term kPassingTerm. It only has the
/// words of the query, unless one of these stands for others. `text` is what the query was read
/// from; documents can be sorted by the first `slots` metadata names.
Xapian::WritableDatabase passingDocuments(std::vector<Xapian::Document> made,
                                          const Xapian::Query& words, const std::string& text,
                                          std::size_t slots);

}  // namespace corvaned
