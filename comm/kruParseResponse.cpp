#include "comm/kruParseResponse.h"

#include "comm/kruFunctionIds.h"
#include "comm/kruResultList.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

ParseResponse::ParseResponse() : results_(std::make_unique<ResultList<ParseResult>>()) {}

ParseResponse::ParseResponse(const std::list<ParseResult>& results) : ParseResponse() {
  results_->assign(results);
}

ParseResponse::ParseResponse(const ParseResponse& other) : ParseResponse() {
  results_->assign(other.results_->all());
}

ParseResponse& ParseResponse::operator=(const ParseResponse& other) {
  if (this != &other) results_->assign(other.results_->all());
  return *this;
}

ParseResponse::~ParseResponse() = default;

void ParseResponse::init() {
  const tq::oss::TraceScope scope(trace::ParseResponseInit);
  results_->init();
}

void ParseResponse::addResult(const ParseResult& result) { results_->add(result); }
bool ParseResponse::hasMore() const { return results_->hasMore(); }
ParseResult& ParseResponse::getNext() { return results_->next(); }
unsigned int ParseResponse::count() const { return results_->count(); }
void ParseResponse::incrCount() { results_->incrCount(); }

}  // namespace tq::comm
