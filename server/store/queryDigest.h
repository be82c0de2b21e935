#pragma once

#include <string>

#include "server/store/store.h"

namespace corvaned {

/// Different for queries that have different hits, or have them in another order.
std::string queryDigest(const SearchQuery& query);

}  // namespace corvaned
