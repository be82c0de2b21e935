#include <list>

#include "capi/kru.h"
#include "capi/kruCall.h"
#include "capi/kruTexts.h"
#include "comm/kruClientResponse.h"
#include "comm/kruKVPair.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruConverter.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::capi {

namespace {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::KVPair;
using tq::comm::StaticDefs;

// The word that announces it has 30 bits for its length.
constexpr std::uint32_t kLongestContent = 0x3FFFFFFF;

/// A caller's collection.
struct Collection {
  const char* name;
  std::uint32_t length;

  icu::UnicodeString text() const { return takeLine(name, length, "the collection's name"); }
};

/// A caller's document, or its key alone.
struct Document {
  const void* key;
  std::uint32_t keyLength;
  const void* content = nullptr;
  std::uint32_t contentLength = 0;
  const kru_pair* pairs = nullptr;
  std::uint32_t pairCount = 0;
};

void requireKey(const Document& document) {
  if (document.keyLength == 0) misuse("the document's key", "is empty");
  if (document.key == nullptr) misuse("the document's key", "is null although it has a length");
  if (document.keyLength > StaticDefs::MAX_KEY_LENGTH) {
    misuse("the document's key", "is longer than 128 bytes");
  }
}

std::list<KVPair> pairsOf(const Document& document) {
  std::list<KVPair> pairs;
  if (document.pairCount != 0 && document.pairs == nullptr) {
    misuse("the array of pairs", "is null although it has a length");
  }
  for (std::uint32_t i = 0; i < document.pairCount; ++i) {
    const kru_pair& pair = document.pairs[i];
    pairs.emplace_back(takeText(pair.name, pair.name_length, "a pair's name"),
                       takeText(pair.value, pair.value_length, "a pair's value"));
  }
  // Without a pair the protocols send no document at all, and so no key.
  if (pairs.empty()) {
    pairs.emplace_back(u"key", tq::oss::Converter::fromUTF8(static_cast<const char*>(document.key),
                                                            document.keyLength));
  }
  return pairs;
}

void attach(ClientRequest& request, const Document& document) {
  requireKey(document);
  if (document.contentLength != 0 && document.content == nullptr) {
    misuse("the document's content", "is null although it has a length");
  }
  if (document.contentLength > kLongestContent) {
    misuse("the document's content", "has more than 1073741823 bytes");
  }
  request.setDocKey(static_cast<const char*>(document.key), document.keyLength);
  request.setContent(pairsOf(document), static_cast<const char*>(document.content),
                     document.contentLength);
}

std::int32_t ask(kru_client* client, ClientRequest::REQUEST kind, const Collection& collection,
                 const Document* document, const kru_limits* limits, kru_error* error) {
  return perform(client, {kind}, error, [&](Core& core, kru_error&) {
    ClientRequest request;
    request.buildRequest(collection.text(), kind, {});
    if (document != nullptr) attach(request, *document);
    ClientResponse response;
    exchange(core, request, response, limits);
  });
}

void put(std::int64_t* out, std::int64_t value) {
  if (out != nullptr) *out = value;
}

}  // namespace

}  // namespace tq::capi

using namespace tq::capi;

int32_t kru_create_collection(kru_client* client, const char* collection,
                              uint32_t collection_length, const kru_limits* limits,
                              kru_error* error) {
  return ask(client, tq::comm::ClientRequest::CREATE_COLLECTION, {collection, collection_length},
             nullptr, limits, error);
}

int32_t kru_drop_collection(kru_client* client, const char* collection, uint32_t collection_length,
                            const kru_limits* limits, kru_error* error) {
  return ask(client, tq::comm::ClientRequest::DROP_COLLECTION, {collection, collection_length},
             nullptr, limits, error);
}

int32_t kru_update_index(kru_client* client, const char* collection, uint32_t collection_length,
                         const kru_limits* limits, kru_error* error) {
  return ask(client, tq::comm::ClientRequest::UPDATE_INDEX, {collection, collection_length},
             nullptr, limits, error);
}

int32_t kru_end_queue(kru_client* client, const char* collection, uint32_t collection_length,
                      const kru_limits* limits, kru_error* error) {
  return ask(client, tq::comm::ClientRequest::LAST_DOC_SENT, {collection, collection_length},
             nullptr, limits, error);
}

int32_t kru_add_document(kru_client* client, const char* collection, uint32_t collection_length,
                         const void* key, uint32_t key_length, const void* content,
                         uint32_t content_length, const kru_pair* pairs, uint32_t pair_count,
                         const kru_limits* limits, kru_error* error) {
  const Document document{key, key_length, content, content_length, pairs, pair_count};
  return ask(client, tq::comm::ClientRequest::ADD_DOCUMENT, {collection, collection_length},
             &document, limits, error);
}

int32_t kru_queue_document(kru_client* client, const char* collection, uint32_t collection_length,
                           const void* key, uint32_t key_length, const void* content,
                           uint32_t content_length, const kru_pair* pairs, uint32_t pair_count,
                           const kru_limits* limits, kru_error* error) {
  const Document document{key, key_length, content, content_length, pairs, pair_count};
  return ask(client, tq::comm::ClientRequest::ASYNCH_ADD_DOCUMENT, {collection, collection_length},
             &document, limits, error);
}

int32_t kru_delete_document(kru_client* client, const char* collection, uint32_t collection_length,
                            const void* key, uint32_t key_length, const kru_limits* limits,
                            kru_error* error) {
  const Document document{key, key_length};
  return ask(client, tq::comm::ClientRequest::DELETE_DOCUMENT, {collection, collection_length},
             &document, limits, error);
}

int32_t kru_estimate(kru_client* client, const char* collection, uint32_t collection_length,
                     const char* query, uint32_t query_length, const kru_limits* limits,
                     int64_t* matching, int64_t* most, int64_t* documents, kru_error* error) {
  using tq::comm::ClientRequest;
  return perform(client, {ClientRequest::SELECTIVITY}, error, [&](Core& core, kru_error&) {
    if (core.binary == nullptr) {
      throw Failure{KRU_UNSUPPORTED, "the HTTP-style protocol has no estimates"};
    }
    tq::util::ExtendedProperties properties;
    properties.putProperty(StaticDefs::PARAM_QUERY, takeLine(query, query_length, "the query"));
    ClientRequest request;
    request.buildRequest(Collection{collection, collection_length}.text(),
                         ClientRequest::SELECTIVITY, properties);
    ClientResponse response;
    exchange(core, request, response, limits);
    put(matching, response.getSelectivityInfo().getFirst());
    put(most, response.getSelectivityInfo().getSecond());
    put(documents, response.getSelectivityInfo().getThird());
  });
}

int32_t kru_status(kru_client* client, const char* collection, uint32_t collection_length,
                   const kru_limits* limits, uint32_t* status, kru_error* error) {
  using tq::comm::ClientRequest;
  return perform(client, {ClientRequest::GET_STATUS}, error, [&](Core& core, kru_error& report) {
    if (status == nullptr) misuse("the place for the status", "is null");
    ClientRequest request;
    if (collection_length == 0) {
      request.buildRequest(ClientRequest::GET_STATUS, {});
    } else {
      request.buildRequest(Collection{collection, collection_length}.text(),
                           ClientRequest::GET_STATUS, {});
    }
    ClientResponse response;
    exchange(core, request, response, limits);
    *status = response.getStatusCode();
    const tq::oss::Message message = response.getStatusMessage();
    addText(report.id, sizeof report.id, report.id_length, message.getMessageId());
    addText(report.message, sizeof report.message, report.message_length, message.getMessageText());
  });
}
