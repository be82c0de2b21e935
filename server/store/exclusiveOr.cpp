#include "server/store/exclusiveOr.h"

#include <cstddef>
#include <span>
#include <vector>

#include "server/base/errors.h"

namespace corvaned {
namespace {

using Xapian::Query;

// Whether the engine tells all that it takes to make such a query of other operands.
bool canBeRemade(Query::op type) {
  switch (type) {
    case Query::OP_AND:
    case Query::OP_OR:
    case Query::OP_XOR:
    case Query::OP_AND_NOT:
    case Query::OP_AND_MAYBE:
    case Query::OP_FILTER:
      return true;
    default:
      // An XOR is in none of the others.
      return false;
  }
}

// Each XOR in an XOR multiplies the words of the inner one, so that a short text could ask for more
// words than memory holds.
constexpr double kMostWords = 4096;

// How many words the query has when it is remade.
double wordsIn(const Query& query) {
  if (!canBeRemade(query.get_type())) return 1;
  const std::size_t operands = query.get_num_subqueries();
  double words = 0;
  for (std::size_t i = 0; i < operands; ++i) words += wordsIn(query.get_subquery(i));
  return query.get_type() == Query::OP_XOR ? words * static_cast<double>(1 + operands) : words;
}

// What an odd number of the operands finds. Each half comes twice, so halves keep that small.
Query odd(std::span<const Query> operands) {
  if (operands.size() == 1) return operands.front();
  const Query left = odd(operands.first(operands.size() / 2));
  const Query right = odd(operands.subspan(operands.size() / 2));
  return {Query::OP_OR, Query(Query::OP_AND_NOT, left, right),
          Query(Query::OP_AND_NOT, right, left)};
}

Query remade(const Query& query) {
  if (!canBeRemade(query.get_type())) return query;
  std::vector<Query> operands;
  for (std::size_t i = 0; i < query.get_num_subqueries(); ++i) {
    operands.push_back(remade(query.get_subquery(i)));
  }
  if (query.get_type() != Query::OP_XOR) {
    return {query.get_type(), operands.begin(), operands.end()};
  }
  return {Query::OP_FILTER, Query(Query::OP_OR, operands.begin(), operands.end()), odd(operands)};
}

}  // namespace

Query forSeveralDatabases(const Query& query) {
  if (wordsIn(query) <= kMostWords) return remade(query);
  throw ServerError(ErrorKind::QueryTooBroad,
                    "XOR joins too many words to be matched; give fewer of them");
}

}  // namespace corvaned
