#include "server/store/keyFilters.h"

#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

Xapian::Query inRange(const Xapian::Query& query, const std::string& after,
                      const std::string& upTo) {
  if (query.empty() || (after.empty() && upTo.empty())) return query;
  // The first key behind another one is that key and a zero byte.
  const std::string first = after.empty() ? after : after + '\0';
  const Xapian::Query range =
      upTo.empty() ? Xapian::Query(Xapian::Query::OP_VALUE_GE, kKeySlot, first)
                   : Xapian::Query(Xapian::Query::OP_VALUE_RANGE, kKeySlot, first, upTo);
  if (range.empty()) return range;
  return {Xapian::Query::OP_FILTER, query, range};
}

Xapian::Query amongKeys(const Xapian::Query& query, const std::vector<std::string>& keys) {
  if (query.empty() || keys.empty()) return query;
  std::vector<Xapian::Query> terms;
  terms.reserve(keys.size());
  for (const std::string& key : keys) terms.emplace_back(identityTerm(key));
  return {Xapian::Query::OP_FILTER, query,
          Xapian::Query(Xapian::Query::OP_OR, terms.begin(), terms.end())};
}

}  // namespace

Xapian::Query withoutHidden(const Xapian::Query& query, const std::vector<std::string>& hidden) {
  if (hidden.empty() || query.empty()) return query;
  std::vector<Xapian::Query> terms;
  terms.reserve(hidden.size());
  for (const std::string& key : hidden) terms.emplace_back(identityTerm(key));
  return {Xapian::Query::OP_AND_NOT, query,
          Xapian::Query(Xapian::Query::OP_OR, terms.begin(), terms.end())};
}

Xapian::Query withinKeys(const Xapian::Query& query, const SearchQuery& wanted) {
  return amongKeys(inRange(query, wanted.after, wanted.upTo), wanted.keys);
}

}  // namespace corvaned
