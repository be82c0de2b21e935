#include "cli/request.h"

#include "cli/text.h"

namespace corvane {

tq::comm::ClientRequest collectionRequest(tq::comm::ClientRequest::REQUEST kind,
                                          const icu::UnicodeString& collection,
                                          const tq::util::ExtendedProperties& properties) {
  tq::comm::ClientRequest request;
  request.buildRequest(collection, kind, properties);
  return request;
}

void attachDocument(tq::comm::ClientRequest& request, const std::string& key,
                    const std::string& text, std::list<tq::comm::KVPair> metadata) {
  if (metadata.empty()) {
    // A key that is no UTF-8 still needs a pair; its name says what it stands for.
    metadata.emplace_back(u"key", fromUtf8(key).value_or(icu::UnicodeString()));
  }
  request.setDocKey(key.data(), static_cast<unsigned int>(key.size()));
  const char* content = text.empty() ? nullptr : text.data();
  request.setContent(metadata, content, static_cast<unsigned int>(text.size()));
}

}  // namespace corvane
