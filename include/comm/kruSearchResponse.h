#pragma once

#include <list>
#include <memory>

#include "comm/kruSearchResult.h"
#include "infra/oss/kruExport.h"

namespace tq::comm {

template <typename Result>
class ResultList;

/// The hits of one portion of a reply, in arrival order, with a cursor for walking them and the
/// count of those not yet taken. One object serves one thread at a time; different objects need no
/// locking.
///
///   while (response.hasMore()) use(response.getNext());
class KRU_EXPORT SearchResponse {
 public:
  SearchResponse();
  /// A copy of each hit; the cursor stands at the first, the count is their number.
  explicit SearchResponse(const std::list<SearchResult>& results);
  SearchResponse(const SearchResponse& other);
  SearchResponse& operator=(const SearchResponse& other);
  ~SearchResponse();

  /// Drops all hits and sets the count to 0. The cursor is not moved to what is added next unless
  /// that makes the count 1.
  void init();
  /// Appends a copy. When the count becomes 1 the cursor moves to the list's FIRST hit: a list that
  /// was walked to its end and not emptied begins again.
  void addResult(const SearchResult& result);

  /// True while a hit is left to take.
  bool hasMore() const;
  /// The hit at the cursor, which advances; the count falls by one. Not checked against `hasMore`:
  /// behind the last hit it gives an empty one. The reference lives until `init`, assignment or the
  /// response's end.
  SearchResult& getNext();

  /// Hits added and not yet taken.
  unsigned int count() const;
  void incrCount();

 private:
  std::unique_ptr<ResultList<SearchResult>> results_;
};

}  // namespace tq::comm
