#include "comm/kruSearchResponse.h"

#include "comm/kruFunctionIds.h"
#include "comm/kruResultList.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

SearchResponse::SearchResponse() : results_(std::make_unique<ResultList<SearchResult>>()) {}

SearchResponse::SearchResponse(const std::list<SearchResult>& results) : SearchResponse() {
  results_->assign(results);
}

SearchResponse::SearchResponse(const SearchResponse& other) : SearchResponse() {
  results_->assign(other.results_->all());
}

SearchResponse& SearchResponse::operator=(const SearchResponse& other) {
  if (this != &other) results_->assign(other.results_->all());
  return *this;
}

SearchResponse::~SearchResponse() = default;

void SearchResponse::init() {
  const tq::oss::TraceScope scope(trace::SearchResponseInit);
  results_->init();
}

void SearchResponse::addResult(const SearchResult& result) { results_->add(result); }
bool SearchResponse::hasMore() const { return results_->hasMore(); }
SearchResult& SearchResponse::getNext() { return results_->next(); }
unsigned int SearchResponse::count() const { return results_->count(); }
void SearchResponse::incrCount() { results_->incrCount(); }

}  // namespace tq::comm
