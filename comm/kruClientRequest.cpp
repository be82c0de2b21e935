#include "comm/kruClientRequest.h"

#include "comm/kruFunctionIds.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

namespace {

const icu::UnicodeString* searchModeOf(ClientRequest::REQUEST kind) noexcept {
  switch (kind) {
    case ClientRequest::SELECTIVITY:
      return &StaticDefs::PARAM_SEARCH_MODE_SELECTIVITY;
    case ClientRequest::STREAM_SEARCH:
      return &StaticDefs::PARAM_SEARCH_MODE_STREAMING;
    case ClientRequest::SCALAR_SEARCH:
      return &StaticDefs::PARAM_SEARCH_MODE_SCALAR;
    default:
      return nullptr;
  }
}

const icu::UnicodeString* displayNameOf(ClientRequest::REQUEST kind) noexcept {
  switch (kind) {
    case ClientRequest::CREATE_COLLECTION:
    // On purpose: this name, not one of its own, is what callers know an added document by.
    case ClientRequest::ADD_DOCUMENT:
      return &StaticDefs::REQ_CREATE_COLLECTION;
    case ClientRequest::DROP_COLLECTION:
      return &StaticDefs::REQ_DROP_COLLECTION;
    case ClientRequest::UPDATE_INDEX:
      return &StaticDefs::REQ_UPDATE_INDEX;
    case ClientRequest::DELETE_DOCUMENT:
      return &StaticDefs::REQ_DELETE_DOCUMENT;
    case ClientRequest::STREAM_SEARCH:
      return &StaticDefs::REQ_STREAM_SEARCH;
    case ClientRequest::ASYNCH_ADD_DOCUMENT:
      return &StaticDefs::REQ_ASYNCH_ADD_DOCUMENT;
    case ClientRequest::LAST_DOC_SENT:
      return &StaticDefs::REQ_LAST_DOC_SENT;
    case ClientRequest::PARSE_RESULT:
      return &StaticDefs::REQ_PARSE_RESULT;
    case ClientRequest::OPEN_COLLECTION:
      return &StaticDefs::REQ_OPEN_COLLECTION;
    case ClientRequest::CLOSE_COLLECTION:
      return &StaticDefs::REQ_CLOSE_COLLECTION;
    case ClientRequest::SELECTIVITY:
      return &StaticDefs::REQ_SELECTIVITY;
    case ClientRequest::GET_STATUS:
      return &StaticDefs::REQ_GET_STATUS;
    case ClientRequest::BACKUP:
      return &StaticDefs::REQ_BACKUP;
    case ClientRequest::RESTORE:
      return &StaticDefs::REQ_RESTORE;
    case ClientRequest::TAKEOVER:
      return &StaticDefs::REQ_TAKEOVER;
    case ClientRequest::SHUTDOWN:
      return &StaticDefs::REQ_SHUTDOWN;
    case ClientRequest::SCALAR_SEARCH:
      return &StaticDefs::REQ_SCALAR_SEARCH;
    case ClientRequest::GET_SERVER_VERSION:
      return &StaticDefs::REQ_GET_SERVER_VERSION;
    default:
      return nullptr;
  }
}

}  // namespace

ClientRequest::ClientRequest() = default;

void ClientRequest::buildRequest(REQUEST kind, const tq::util::ExtendedProperties& props) {
  const tq::oss::TraceScope scope(trace::ClientRequestBuildRequest);
  request_ = kind;
  collectionId_.remove();
  replaceProperties(props);
  setRequestString();
}

void ClientRequest::buildRequest(const icu::UnicodeString& collectionId, REQUEST kind,
                                 const tq::util::ExtendedProperties& props) {
  const tq::oss::TraceScope scope(trace::ClientRequestBuildRequestForCollection);
  request_ = kind;
  // Copied first: the argument may be a value of the property set that is replaced next.
  collectionId_ = collectionId;
  replaceProperties(props);
  properties_.putProperty(StaticDefs::PARAM_COLLECTION_ID, collectionId_);
  const icu::UnicodeString* mode = searchModeOf(kind);
  if (mode != nullptr) properties_.putProperty(StaticDefs::PARAM_SEARCH_MODE, *mode);
  setRequestString();
}

void ClientRequest::replaceProperties(const tq::util::ExtendedProperties& props) {
  properties_ = props;
  properties_.putProperty(StaticDefs::PARAM_PROTO_VER, StaticDefs::PROTO_VERSION);
}

void ClientRequest::setRequestString() {
  const tq::oss::TraceScope scope(trace::ClientRequestSetRequestString);
  const icu::UnicodeString* name = displayNameOf(request_);
  if (name != nullptr) requestString_ = *name;
}

void ClientRequest::setContent(const std::list<KVPair>& metadata, const char* content,
                               unsigned int length) {
  const tq::oss::TraceScope scope(trace::ClientRequestSetContentWithMetadata);
  metadata_ = metadata;
  content_ = content;
  contentLength_ = length;
}

void ClientRequest::setContent(const char* content, unsigned int length) {
  const tq::oss::TraceScope scope(trace::ClientRequestSetContent);
  content_ = content;
  contentLength_ = length;
}

void ClientRequest::setDocKey(const char* key, unsigned int length) {
  const tq::oss::TraceScope scope(trace::ClientRequestSetDocKey);
  docKey_ = key;
  docKeyLength_ = length;
}

const char* ClientRequest::getDocKey(unsigned int& length) const {
  length = docKeyLength_;
  return docKey_;
}

}  // namespace tq::comm
