#include "comm/kruClientRequest.h"

#include <utility>

#include "comm/kruFunctionIds.h"
#include "comm/kruKinds.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruConverter.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

ClientRequest::ClientRequest() { const tq::oss::TraceScope scope(trace::ClientRequestConstruct); }

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
  tq::oss::Converter::checked(collectionId);
  request_ = kind;
  // Copied first: the argument may be a value of the property set that is replaced next.
  collectionId_ = collectionId;
  replaceProperties(props);
  properties_.putProperty(StaticDefs::PARAM_COLLECTION_ID, collectionId_);
  const icu::UnicodeString* mode = kindOf(kind).mode;
  if (mode != nullptr) properties_.putProperty(StaticDefs::PARAM_SEARCH_MODE, *mode);
  setRequestString();
}

void ClientRequest::replaceProperties(const tq::util::ExtendedProperties& props) {
  properties_ = props;
  properties_.putProperty(StaticDefs::PARAM_PROTO_VER, StaticDefs::PROTO_VERSION);
  // Most requests are sent once.
  kept_.header.reset();
  kept_.madeWithout = 0;
}

void ClientRequest::setRequestString() {
  const tq::oss::TraceScope scope(trace::ClientRequestSetRequestString);
  const icu::UnicodeString* name = kindOf(request_).displayName;
  if (name != nullptr) requestString_ = *name;
}

void ClientRequest::setContent(const std::list<KVPair>& metadata, const char* content,
                               unsigned int length) {
  const tq::oss::TraceScope scope(trace::ClientRequestSetContentWithMetadata);
  metadata_ = metadata;
  for (const KVPair& pair : metadata_) {
    tq::oss::Converter::checked(pair.key);
    tq::oss::Converter::checked(pair.value);
  }
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

const char* ClientRequest::getDocKey(unsigned int& length) {
  return std::as_const(*this).ClientRequest::getDocKey(length);
}

const char* ClientRequest::getDocKey(unsigned int& length) const {
  length = docKeyLength_;
  return docKey_;
}

void ClientRequest::print() { std::as_const(*this).print(); }

void ClientRequest::print() const { const tq::oss::TraceScope scope(trace::ClientRequestPrint); }

}  // namespace tq::comm
