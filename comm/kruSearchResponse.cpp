#include "comm/kruSearchResponse.h"

#include "comm/kruFunctionIds.h"
#include "comm/kruResultList.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

SearchResponse::SearchResponse() = default;

SearchResponse::SearchResponse(const std::list<SearchResult>& results) { list().assign(results); }

SearchResponse::SearchResponse(const SearchResponse& other) { *this = other; }

SearchResponse& SearchResponse::operator=(const SearchResponse& other) {
  if (this == &other) return *this;
  if (other.results_ != nullptr) {
    list().copy(*other.results_);
  } else if (results_ != nullptr) {
    results_->init();
  }
  return *this;
}

SearchResponse::~SearchResponse() = default;

ResultList<SearchResult>& SearchResponse::list() {
  if (results_ == nullptr) results_ = std::make_unique<ResultList<SearchResult>>();
  return *results_;
}

void SearchResponse::init() {
  const tq::oss::TraceScope scope(trace::SearchResponseInit);
  if (results_ != nullptr) results_->init();
}

void SearchResponse::addResult(const SearchResult& result) { list().add(result); }
bool SearchResponse::hasMore() const { return results_ != nullptr && results_->hasMore(); }
SearchResult& SearchResponse::getNext() {
  return results_ != nullptr ? results_->next() : list().next();
}
unsigned int SearchResponse::count() const { return results_ != nullptr ? results_->count() : 0; }
void SearchResponse::incrCount() { list().incrCount(); }

}  // namespace tq::comm
