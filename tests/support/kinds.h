#pragma once

#include <array>
#include <string_view>

namespace tq::test {

// Request kinds by number, so that what tests expect stands beside the library and not on it.
enum Kind : int {
  kCreateCollection = 1,
  kDropCollection = 2,
  kAddDocument = 3,
  kUpdateIndex = 4,
  kDeleteDocument = 5,
  kStreamSearch = 8,
  kAsynchAddDocument = 9,
  kLastDocSent = 10,
  kParseResult = 11,
  kOpenCollection = 12,
  kCloseCollection = 13,
  kSelectivity = 14,
  kGetStatus = 15,
  kBackup = 16,
  kRestore = 17,
  kTakeover = 18,
  kShutdown = 19,
  kScalarSearch = 20,
  kOpenCollectionAlt = 21,
  kGetServerVersion = 22,
  kSetConstructorConfiguration = 23,
  kVersionsValidation = 24,
};

struct NamedKind {
  std::string_view name;
  Kind kind;
};

/// Every kind, with the name that the corpora give it.
constexpr std::array<NamedKind, 22> kNamedKinds{{
    {"CREATE_COLLECTION", kCreateCollection},
    {"DROP_COLLECTION", kDropCollection},
    {"ADD_DOCUMENT", kAddDocument},
    {"UPDATE_INDEX", kUpdateIndex},
    {"DELETE_DOCUMENT", kDeleteDocument},
    {"STREAM_SEARCH", kStreamSearch},
    {"ASYNCH_ADD_DOCUMENT", kAsynchAddDocument},
    {"LAST_DOC_SENT", kLastDocSent},
    {"PARSE_RESULT", kParseResult},
    {"OPEN_COLLECTION", kOpenCollection},
    {"CLOSE_COLLECTION", kCloseCollection},
    {"SELECTIVITY", kSelectivity},
    {"GET_STATUS", kGetStatus},
    {"BACKUP", kBackup},
    {"RESTORE", kRestore},
    {"TAKEOVER", kTakeover},
    {"SHUTDOWN", kShutdown},
    {"SCALAR_SEARCH", kScalarSearch},
    {"OPEN_COLLECTION_ALT", kOpenCollectionAlt},
    {"GET_SERVER_VERSION", kGetServerVersion},
    {"SET_CONSTRUCTOR_CONFIGURATION", kSetConstructorConfiguration},
    {"VERSIONS_VALIDATION", kVersionsValidation},
}};

constexpr bool hasReply(int kind) { return kind != kAsynchAddDocument && kind != kLastDocSent; }
/// It adds to the queue of documents or relies on it.
constexpr bool needsQueue(int kind) {
  return kind == kAsynchAddDocument || kind == kLastDocSent || kind == kUpdateIndex ||
         kind == kParseResult;
}
constexpr bool isSearch(int kind) { return kind == kStreamSearch || kind == kScalarSearch; }
/// Its results may come in several portions.
constexpr bool isStreaming(int kind) { return isSearch(kind) || kind == kParseResult; }

}  // namespace tq::test
