#pragma once

#include <list>
#include <memory>

#include "comm/kruParseResult.h"
#include "infra/oss/kruExport.h"

namespace tq::comm {

template <typename Result>
class ResultList;

/// Parse results in arrival order, with the cursor and count of SearchResponse. One object serves
/// one thread at a time; different objects need no locking.
class KRU_EXPORT ParseResponse {
 public:
  ParseResponse();
  /// A copy of each result; the cursor stands at the first, the count is their number.
  explicit ParseResponse(const std::list<ParseResult>& results);
  ParseResponse(const ParseResponse& other);
  ParseResponse& operator=(const ParseResponse& other);
  ~ParseResponse();

  /// Drops all results and sets the count to 0. The cursor is not moved to what is added next
  /// unless that makes the count 1.
  void init();
  /// Appends a copy. When the count becomes 1 the cursor moves to the list's FIRST result.
  void addResult(const ParseResult& result);

  /// True while a result is left to take.
  bool hasMore() const;
  /// The result at the cursor, which advances; the count falls by one. Not checked against
  /// `hasMore`: behind the last result it gives an empty one. The reference lives until `init`,
  /// assignment or the response's end.
  ParseResult& getNext();

  /// Results added and not yet taken.
  unsigned int count() const;
  void incrCount();

 private:
  std::unique_ptr<ResultList<ParseResult>> results_;
};

}  // namespace tq::comm
