#include "comm/kruClientResponse.h"

#include <cstdint>
#include <initializer_list>

#include "comm/kruFunctionIds.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

namespace {

class KindSet {
 public:
  constexpr KindSet(std::initializer_list<ClientRequest::REQUEST> kinds) {
    for (const ClientRequest::REQUEST kind : kinds) bits_ |= std::uint64_t{1} << kind;
  }

  // A kind is whatever number the caller has put there; outside the word there is no member.
  constexpr bool contains(ClientRequest::REQUEST kind) const {
    const auto number = static_cast<unsigned int>(kind);
    return number < 64 && ((bits_ >> number) & 1) != 0;
  }

 private:
  std::uint64_t bits_ = 0;
};

constexpr KindSet kStreaming{ClientRequest::STREAM_SEARCH, ClientRequest::PARSE_RESULT,
                             ClientRequest::SELECTIVITY, ClientRequest::SCALAR_SEARCH};
constexpr KindSet kWithResults{ClientRequest::STREAM_SEARCH, ClientRequest::PARSE_RESULT,
                               ClientRequest::SELECTIVITY, ClientRequest::SCALAR_SEARCH,
                               ClientRequest::GET_SERVER_VERSION};
constexpr KindSet kMultiple{ClientRequest::PARSE_RESULT};
constexpr KindSet kWithoutReply{ClientRequest::ASYNCH_ADD_DOCUMENT, ClientRequest::LAST_DOC_SENT};

}  // namespace

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

SearchResponse& ClientResponse::getSearchResponse() {
  resultsBuffered_ = false;
  return searchResponse_;
}

ParseResponse& ClientResponse::getParseResponse() {
  resultsBuffered_ = false;
  return parseResponse_;
}

bool ClientResponse::isMultiResp(ClientRequest::REQUEST kind) { return kMultiple.contains(kind); }
bool ClientResponse::isStreaming(ClientRequest::REQUEST kind) { return kStreaming.contains(kind); }
bool ClientResponse::isRespReqd(ClientRequest::REQUEST kind) {
  return !kWithoutReply.contains(kind);
}
bool ClientResponse::resultsExpected(ClientRequest::REQUEST kind) {
  return kWithResults.contains(kind);
}

}  // namespace tq::comm
