#pragma once

#include <xapian.h>

#include "server/store/hiddenKeys.h"
#include "server/store/store.h"

namespace corvaned {

/// The query, but for the documents that have one of these keys. Scores stay as they are.
Xapian::Query withoutHidden(const Xapian::Query& query, const Hidden& hidden);

/// The query for those documents only whose keys are wanted.
Xapian::Query withinKeys(const Xapian::Query& query, const SearchQuery& wanted);

}  // namespace corvaned
