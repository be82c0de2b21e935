#pragma once

#include "comm/kruClientRequest.h"

namespace tq::comm {

// No request has this kind, yet its replies are those of a streaming search.
constexpr int kUnassignedSearchKind = 6;

/// The kinds whose portions replace each other.
inline bool isStreamSearch(ClientRequest::REQUEST kind) {
  return kind == ClientRequest::STREAM_SEARCH || static_cast<int>(kind) == kUnassignedSearchKind;
}

/// The kinds that bring hits.
inline bool isSearch(ClientRequest::REQUEST kind) {
  return isStreamSearch(kind) || kind == ClientRequest::SCALAR_SEARCH;
}

}  // namespace tq::comm
