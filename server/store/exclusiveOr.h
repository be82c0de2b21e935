#pragma once

#include <xapian.h>

namespace corvaned {

/// The query as it can be asked of several databases, with the same hits and weights: without XOR,
/// on which the engine crashes if it need not rank the hits and some databases have few of the
/// words. Throws ServerError(QueryTooBroad) if it would get too long.
Xapian::Query forSeveralDatabases(const Xapian::Query& query);

}  // namespace corvaned
