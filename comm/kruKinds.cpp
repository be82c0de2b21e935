#include "comm/kruKinds.h"

#include "comm/kruStaticDefs.h"

namespace tq::comm {

namespace {

using D = StaticDefs;
using R = ClientRequest;

constexpr const icu::UnicodeString* kUnnamed = nullptr;
constexpr const icu::UnicodeString* kNoMode = nullptr;

}  // namespace

// Pointers to constants that may not have been built yet, hence nothing that reads their texts.
constexpr Kind kKinds[] = {
    {0, kUnnamed, u"", &D::ACT_UNKNOWN, kNoMode, 0},
    {R::CREATE_COLLECTION, &D::REQ_CREATE_COLLECTION, u"createCollection", &D::ACT_ADMIN, kNoMode,
     0},
    {R::DROP_COLLECTION, &D::REQ_DROP_COLLECTION, u"deleteCollection", &D::ACT_ADMIN, kNoMode, 0},
    // On purpose: this name, not one of its own, is what callers know an added document by.
    {R::ADD_DOCUMENT, &D::REQ_CREATE_COLLECTION, u"addDocument", &D::ACT_UNKNOWN, kNoMode,
     kRepeatable},
    {R::UPDATE_INDEX, &D::REQ_UPDATE_INDEX, u"updateIndex", &D::ACT_ADMIN, kNoMode,
     kRepeatable | kUsesQueue},
    {R::DELETE_DOCUMENT, &D::REQ_DELETE_DOCUMENT, u"deleteDocument", &D::ACT_UPDATE, kNoMode,
     kRepeatable},
    {kUnassignedSearchKind, kUnnamed, u"", &D::ACT_UNKNOWN, kNoMode, kHits | kReplacesPortion},
    {7, kUnnamed, u"", &D::ACT_UNKNOWN, kNoMode, 0},
    {R::STREAM_SEARCH, &D::REQ_STREAM_SEARCH, u"search", &D::ACT_SELECT,
     &D::PARAM_SEARCH_MODE_STREAMING,
     kStreams | kBringsResults | kHits | kReplacesPortion | kRepeatable},
    {R::ASYNCH_ADD_DOCUMENT, &D::REQ_ASYNCH_ADD_DOCUMENT, u"asyncAddDocument", &D::ACT_UPDATE,
     kNoMode, kNoReply | kRepeatable | kUsesQueue},
    {R::LAST_DOC_SENT, &D::REQ_LAST_DOC_SENT, u"asyncAddDocument", &D::ACT_UPDATE, kNoMode,
     kNoReply | kRepeatable | kUsesQueue},
    // Each parse result is handed out once, so a repeated request would lose those of a lost reply.
    {R::PARSE_RESULT, &D::REQ_PARSE_RESULT, u"getParseResult", &D::ACT_UPDATE, kNoMode,
     kStreams | kBringsResults | kMultipleReplies | kUsesQueue},
    {R::OPEN_COLLECTION, &D::REQ_OPEN_COLLECTION, u"openCollection", &D::ACT_UPDATE, kNoMode,
     kRepeatable},
    {R::CLOSE_COLLECTION, &D::REQ_CLOSE_COLLECTION, u"closeCollection", &D::ACT_UPDATE, kNoMode,
     kRepeatable},
    {R::SELECTIVITY, &D::REQ_SELECTIVITY, u"selectivity", &D::ACT_SELECT,
     &D::PARAM_SEARCH_MODE_SELECTIVITY, kStreams | kBringsResults | kOneRecord | kRepeatable},
    {R::GET_STATUS, &D::REQ_GET_STATUS, u"getStatus", &D::ACT_MONITOR, kNoMode,
     kOneRecord | kRepeatable},
    {R::BACKUP, &D::REQ_BACKUP, u"backup", &D::ACT_ADMIN, kNoMode, 0},
    {R::RESTORE, &D::REQ_RESTORE, u"restore", &D::ACT_ADMIN, kNoMode, 0},
    {R::TAKEOVER, &D::REQ_TAKEOVER, u"takeover", &D::ACT_MONITOR, kNoMode, 0},
    {R::SHUTDOWN, &D::REQ_SHUTDOWN, u"shutdown", &D::ACT_MONITOR, kNoMode, 0},
    {R::SCALAR_SEARCH, &D::REQ_SCALAR_SEARCH, u"search", &D::ACT_SELECT,
     &D::PARAM_SEARCH_MODE_SCALAR, kStreams | kBringsResults | kHits | kRepeatable},
    {R::OPEN_COLLECTION_ALT, kUnnamed, u"openCollection", &D::ACT_UNKNOWN, kNoMode, kRepeatable},
    {R::GET_SERVER_VERSION, &D::REQ_GET_SERVER_VERSION, u"getServerVersion", &D::ACT_MONITOR,
     kNoMode, kBringsResults | kRepeatable},
    {R::SET_CONSTRUCTOR_CONFIGURATION, kUnnamed, u"setConstructorConfiguration", &D::ACT_UPDATE,
     kNoMode, 0},
    {R::VERSIONS_VALIDATION, kUnnamed, u"versionsValidation", &D::ACT_MONITOR, kNoMode,
     kRepeatable},
};

namespace {

constexpr bool rowsStandAtTheirNumbers() {
  for (std::size_t i = 0; i < std::size(kKinds); ++i) {
    if (kKinds[i].number != static_cast<int>(i)) return false;
  }
  return true;
}
static_assert(rowsStandAtTheirNumbers());

}  // namespace

}  // namespace tq::comm
