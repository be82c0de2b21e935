#pragma once

#include <xapian.h>

#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "server/base/memoryBudget.h"
#include "server/store/indexLimits.h"
#include "server/store/store.h"
#include "server/store/textAnalysis.h"

namespace corvaned {

/// The values of metadata with these names, in the document's order; long ones are cut.
std::vector<std::pair<std::string, std::string>> valuesIn(const Document& document,
                                                          const std::set<std::string>& names);

/// Adds one, and what it takes to the memory that is set aside for as long as one of them lives.
/// Throws a ServerError if there is none.
void keep(std::vector<HitDetails>& details, HitDetails&& one,
          const std::shared_ptr<MemoryBudget::Share>& share, const IndexLimits& limits);

/// Parts of texts that show why a query finds them.
class Snippets {
 public:
  /// The database and the analysis must outlive it. Opens the lists of all words of the query, for
  /// which memory must be set aside until it returns.
  Snippets(const Xapian::Database& database, const TextAnalysis& analysis,
           const Xapian::Query& query);

  /// About so many bytes of the document's text, with the words of the query between <b> and </b>.
  /// Everything else is escaped as HTML text.
  std::string of(const Document& document, std::size_t bytes) const;

 private:
  const TextAnalysis& analysis_;
  Xapian::MSet matches_;
};

/// None if they are not wanted.
std::unique_ptr<const Snippets> snippetsFor(const DetailsWanted& wanted,
                                            const Xapian::Database& database,
                                            const TextAnalysis& analysis,
                                            const Xapian::Query& query);

}  // namespace corvaned
