#pragma once

#include <list>
#include <memory>

#include "comm/kruSearchResult.h"
#include "infra/oss/kruExport.h"

namespace tq::comm {

class ClientResponse;
class HitFiller;
template <typename Result>
class ResultList;

/// The hits of one portion of a reply, in arrival order, with a cursor for walking them and the
/// count of those not yet taken. Calls on one object must not overlap; different objects are
/// independent.
///
///   while (response.hasMore()) use(response.getNext());
class KRU_EXPORT SearchResponse {
 public:
  SearchResponse();
  /// A copy of each hit; the cursor stands at the first, the count is their number.
  explicit SearchResponse(const std::list<SearchResult>& results);
  /// A copy begins at the first hit as well, also where the other's cursor has passed it.
  SearchResponse(const SearchResponse& other);
  SearchResponse& operator=(const SearchResponse& other);
  ~SearchResponse();

  /// Empties the list; nothing is left to take.
  void init();
  /// Appends a copy. When everything has been taken, the list begins anew, with the hits that were
  /// taken: call `init()` before adding to it.
  void addResult(const SearchResult& result);

  /// True while a hit is left to take.
  bool hasMore() const;
  /// Takes the hit at the cursor. Ask `hasMore` first: after the last hit this gives an empty one
  /// and the count is wrong. The reference lives until `init`, assignment or the response's end.
  SearchResult& getNext();

  /// Hits added and not yet taken.
  unsigned int count() const;
  /// Makes the count one larger without adding a hit. No operation of the library needs it.
  void incrCount();

 private:
  friend class ClientResponse;
  friend class HitFiller;

  ResultList<SearchResult>& list();

  // Null until something is added.
  std::unique_ptr<ResultList<SearchResult>> results_;
};

}  // namespace tq::comm
