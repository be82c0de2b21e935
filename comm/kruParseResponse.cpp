#include "comm/kruParseResponse.h"

#include "comm/kruFunctionIds.h"
#include "comm/kruResultList.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

ParseResponse::ParseResponse() = default;

ParseResponse::ParseResponse(const std::list<ParseResult>& results) { list().assign(results); }

ParseResponse::ParseResponse(const ParseResponse& other) { *this = other; }

ParseResponse& ParseResponse::operator=(const ParseResponse& other) {
  if (this == &other) return *this;
  if (other.results_ != nullptr) {
    list().copy(*other.results_);
  } else if (results_ != nullptr) {
    results_->init();
  }
  return *this;
}

ParseResponse::~ParseResponse() = default;

ResultList<ParseResult>& ParseResponse::list() {
  if (results_ == nullptr) results_ = std::make_unique<ResultList<ParseResult>>();
  return *results_;
}

void ParseResponse::init() {
  const tq::oss::TraceScope scope(trace::ParseResponseInit);
  if (results_ != nullptr) results_->init();
}

void ParseResponse::addResult(const ParseResult& result) { list().add(result); }
bool ParseResponse::hasMore() const { return results_ != nullptr && results_->hasMore(); }
ParseResult& ParseResponse::getNext() { return list().next(); }
unsigned int ParseResponse::count() const { return results_ != nullptr ? results_->count() : 0; }
void ParseResponse::incrCount() { list().incrCount(); }

}  // namespace tq::comm
