#pragma once

#include <cstddef>
#include <iterator>

#include "comm/kruClientRequest.h"

namespace tq::comm {

/// What a request kind says about its reply and about repeating it.
enum KindProperty : unsigned int {
  kStreams = 1U << 0,          // The reply may come in portions that the caller pulls.
  kBringsResults = 1U << 1,    // The reply has results besides its outcome.
  kMultipleReplies = 1U << 2,  // The exchange collects all portions before it returns.
  kNoReply = 1U << 3,          // The server sends none.
  kHits = 1U << 4,             // The results are search hits.
  kReplacesPortion = 1U << 5,  // Each portion replaces the hits of the one before.
  kOneRecord = 1U << 6,        // The body of the reply is one record.
  kRepeatable = 1U << 7,       // Sending it twice does, and answers, what sending it once does.
  kUsesQueue = 1U << 8,        // It adds to the queue of documents or relies on it.
};

/// All that the library knows of one request kind. The names are pointers, so that the table needs
/// no initialisation and can be read from any static constructor.
struct Kind {
  int number;
  const icu::UnicodeString* displayName;  // Null when the kind has none.
  const char16_t* action;                 // Empty when the kind has none.
  const icu::UnicodeString* actionType;
  const icu::UnicodeString* mode;  // Null when the kind has none.
  unsigned int properties;

  constexpr bool has(KindProperty property) const noexcept { return (properties & property) != 0; }
};

/// One row per kind, in the order of their numbers, the unassigned numbers included.
extern const Kind kKinds[ClientRequest::VERSIONS_VALIDATION + 1];

/// The row of a kind; that of the unassigned kind 0 for a number outside the table, since a kind is
/// whatever number the caller has put there.
inline const Kind& kindOf(ClientRequest::REQUEST kind) noexcept {
  const auto number = static_cast<std::size_t>(static_cast<unsigned int>(kind));
  return kKinds[number < std::size(kKinds) ? number : 0];
}

// No request has this kind, yet its replies are those of a streaming search.
constexpr int kUnassignedSearchKind = 6;

/// The kinds whose portions replace each other.
inline bool isStreamSearch(ClientRequest::REQUEST kind) {
  return kindOf(kind).has(kReplacesPortion);
}

/// The kinds that bring hits.
inline bool isSearch(ClientRequest::REQUEST kind) { return kindOf(kind).has(kHits); }

}  // namespace tq::comm
