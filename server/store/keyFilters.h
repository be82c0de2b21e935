#pragma once

#include <xapian.h>

#include <string>
#include <vector>

#include "server/store/store.h"

namespace corvaned {

/// The query, but for the documents that have one of these keys.
Xapian::Query withoutHidden(const Xapian::Query& query, const std::vector<std::string>& hidden);

/// The query for those documents only whose keys are wanted.
Xapian::Query withinKeys(const Xapian::Query& query, const SearchQuery& wanted);

}  // namespace corvaned
