#pragma once

#include <list>
#include <memory>

#include "comm/kruParseResult.h"
#include "infra/oss/kruExport.h"

namespace tq::comm {

class ClientResponse;
class ParseFiller;
template <typename Result>
class ResultList;

/// Parse results in arrival order, with the cursor and count of SearchResponse. Calls on one object
/// must not overlap; different objects are independent.
class KRU_EXPORT ParseResponse {
 public:
  ParseResponse();
  /// A copy of each result; the cursor stands at the first, the count is their number.
  explicit ParseResponse(const std::list<ParseResult>& results);
  /// A copy begins at the first result as well, also where the other's cursor has passed it.
  ParseResponse(const ParseResponse& other);
  ParseResponse& operator=(const ParseResponse& other);
  ~ParseResponse();

  /// Empties the list; nothing is left to take.
  void init();
  /// Appends a copy. When everything has been taken, the list begins anew: call `init()` before
  /// adding to it.
  void addResult(const ParseResult& result);

  /// True while a result is left to take.
  bool hasMore() const;
  /// Takes the result at the cursor. Ask `hasMore` first: after the last result this gives an empty
  /// one and the count is wrong. The reference lives until `init`, assignment or the response's
  /// end.
  ParseResult& getNext();

  /// Results added and not yet taken.
  unsigned int count() const;
  /// Makes the count one larger without adding a result. No operation of the library needs it.
  void incrCount();

 private:
  friend class ClientResponse;
  friend class ParseFiller;

  ResultList<ParseResult>& list();

  // Null until something is added.
  std::unique_ptr<ResultList<ParseResult>> results_;
};

}  // namespace tq::comm
