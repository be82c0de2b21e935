#pragma once

#include <xapian.h>

#include <string>

#include "server/store/indexLimits.h"
#include "server/store/queryGrammar.h"
#include "server/store/textAnalysis.h"
#include "server/store/xapianSchema.h"

namespace corvaned {

/// Reads queries as the documents of a collection are read.
class QueryReader {
 public:
  /// All of them must outlive it.
  QueryReader(const TextAnalysis& analysis, const IndexNames& names, const IndexLimits& limits)
      : analysis_(analysis), names_(names), limits_(limits) {}

  /// Throws ServerError(BadQuery) or ServerError(QueryTooBroad) that says why it cannot be read.
  Xapian::Query read(const std::string& text) const;

 private:
  Xapian::Query inLanguage(const QueryNode& query, const Xapian::Stem& stemmer) const;

  const TextAnalysis& analysis_;
  const IndexNames& names_;
  const IndexLimits& limits_;
};

}  // namespace corvaned
