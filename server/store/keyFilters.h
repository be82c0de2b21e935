#pragma once

#include <xapian.h>

#include <cstddef>

#include "server/store/hiddenKeys.h"
#include "server/store/store.h"

namespace corvaned {

/// The query, but for the documents that have one of these keys. Scores stay as they are.
/// `databases`: how many share the documents.
Xapian::Query withoutHidden(const Xapian::Query& query, const Hidden& hidden,
                            std::size_t databases);

/// The query for those documents only whose keys are wanted.
Xapian::Query withinKeys(const Xapian::Query& query, const SearchQuery& wanted);

}  // namespace corvaned
