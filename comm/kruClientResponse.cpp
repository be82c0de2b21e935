#include "comm/kruClientResponse.h"

#include "comm/kruFunctionIds.h"
#include "comm/kruKinds.h"
#include "comm/kruResultList.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

ClientResponse::ClientResponse() = default;

ClientResponse::ClientResponse(const icu::UnicodeString& text, int code)
    : text_(text), returnCode_(code) {}

void ClientResponse::setStatusMessage(const tq::oss::Message& message) {
  statusMessage_.setMessage(message);
}

void ClientResponse::addSearchResult(const SearchResult& result) {
  searchResponse_.addResult(result);
  ++resultCount_;
}

void ClientResponse::addParseResult(const ParseResult& result) {
  parseResponse_.addResult(result);
  ++resultCount_;
}

void ClientResponse::setSearchResponse(const SearchResponse& response) {
  const tq::oss::TraceScope scope(trace::ClientResponseSetSearchResponse);
  searchResponse_ = response;
}

void ClientResponse::setParseResponse(const ParseResponse& response) {
  const tq::oss::TraceScope scope(trace::ClientResponseSetParseResponse);
  parseResponse_ = response;
}

void ClientResponse::setSelectivityInfo(const SelectivityInfo& info) {
  const tq::oss::TraceScope scope(trace::ClientResponseSetSelectivityInfo);
  selectivity_ = info;
}

ClientResponse::TakenApart::TakenApart(ClientResponse& response) noexcept : response_(response) {
  if (response.searchResponse_.results_ != nullptr) response.searchResponse_.results_->goOn();
  if (response.parseResponse_.results_ != nullptr) response.parseResponse_.results_->goOn();
}

// What the host adds by hand to a list that has been taken starts it anew.
ClientResponse::TakenApart::~TakenApart() {
  if (response_.searchResponse_.results_ != nullptr)
    response_.searchResponse_.results_->startAnew();
  if (response_.parseResponse_.results_ != nullptr) response_.parseResponse_.results_->startAnew();
}

void ClientResponse::dropTakenHits() noexcept {
  if (searchResponse_.results_ != nullptr) searchResponse_.results_->dropTaken();
}

SearchResponse& ClientResponse::getSearchResponse() {
  resultsBuffered_ = false;
  return searchResponse_;
}

ParseResponse& ClientResponse::getParseResponse() {
  resultsBuffered_ = false;
  return parseResponse_;
}

bool ClientResponse::isMultiResp(ClientRequest::REQUEST kind) {
  return kindOf(kind).has(kMultipleReplies);
}
bool ClientResponse::isStreaming(ClientRequest::REQUEST kind) { return kindOf(kind).has(kStreams); }
bool ClientResponse::isRespReqd(ClientRequest::REQUEST kind) { return !kindOf(kind).has(kNoReply); }
bool ClientResponse::resultsExpected(ClientRequest::REQUEST kind) {
  return kindOf(kind).has(kBringsResults);
}

}  // namespace tq::comm
