#include <memory>
#include <optional>
#include <string>

#include "capi/kru.h"
#include "capi/kruCall.h"
#include "capi/kruTexts.h"
#include "comm/kruClientResponse.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruConverter.h"
#include "infra/util/kruBase64.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::capi {

/// What a cursor reads. The call that is under way keeps it as well.
struct Reading {
  std::shared_ptr<Core> core;
  tq::comm::ClientRequest::REQUEST kind;
  tq::comm::ClientResponse response{};
  // Of each fetch, when the caller limited the request.
  std::optional<std::uint32_t> deadline{};

  // Nothing more is to be fetched. What the client says of that holds for its last exchange only.
  bool ended = false;
  bool truncated = false;
  // A fetch that failed for good.
  std::optional<kru_error> broken{};

  // What was handed out last.
  const tq::comm::SearchResult* hit = nullptr;
  std::string key{};
  std::string name{};
  std::string id{};
  std::string message{};
};

}  // namespace tq::capi

struct kru_cursor {
  std::shared_ptr<tq::capi::Reading> reading;
};

namespace tq::capi {

namespace {

using tq::comm::ClientRequest;
using tq::comm::StaticDefs;
using tq::oss::Converter;

constexpr char16_t kIdPrefix[] = u"base64:";
constexpr std::int32_t kIdPrefixLength = 7;

icu::UnicodeString digits(std::uint64_t number) {
  const std::string text = std::to_string(number);
  return Converter::fromUTF8(text.data(), text.size());
}

tq::util::ExtendedProperties searchProperties(const icu::UnicodeString& query,
                                              const kru_search_options* options) {
  const kru_search_options given =
      takeIn(options, kru_search_options{sizeof(kru_search_options), 0, 0, 0}, "the options");
  tq::util::ExtendedProperties properties;
  properties.putProperty(StaticDefs::PARAM_QUERY, query);
  if (given.without_scores == 0) {
    properties.putProperty(StaticDefs::PARAM_SCORE_WANTED, StaticDefs::STRING_true);
  }
  if (given.start != 0) {
    properties.putProperty(StaticDefs::PARAM_START_OFFSET, digits(given.start));
  }
  if (given.most != 0) properties.putProperty(StaticDefs::PARAM_SEARCH_SIZE, digits(given.most));
  return properties;
}

void noteEnd(Reading& reading) {
  reading.ended = reading.core->client->isEndOfStream();
  reading.truncated = reading.core->client->isTruncated();
}

/// Makes a cursor of the reply to one request.
template <typename Build>
std::int32_t openCursor(kru_client* client, ClientRequest::REQUEST kind, const kru_limits* limits,
                        kru_cursor** cursor, kru_error* error, Build build) {
  if (cursor != nullptr) *cursor = nullptr;
  return perform(client, {kind}, error, [&](Core& core, kru_error&) {
    if (cursor == nullptr) misuse("the place for the cursor", "is null");
    auto made = std::make_unique<kru_cursor>();
    made->reading = std::make_shared<Reading>(Reading{client->core, kind});
    ClientRequest request;
    build(request);
    exchange(core, request, made->reading->response, limits);
    if (limits != nullptr) made->reading->deadline = limits->deadline;
    noteEnd(*made->reading);
    *cursor = made.release();
  });
}

bool hasMore(Reading& reading) {
  return reading.kind == ClientRequest::PARSE_RESULT
             ? reading.response.getParseResponse().hasMore()
             : reading.response.getSearchResponse().hasMore();
}

/// For its lifetime the cursor's own deadline, if it has one, takes the place of the client's.
class OwnDeadline {
 public:
  explicit OwnDeadline(const Reading& reading) : core_(*reading.core) {
    if (reading.deadline) core_.client->setDeadline(*reading.deadline);
  }
  ~OwnDeadline() { core_.client->setDeadline(core_.deadline); }
  OwnDeadline(const OwnDeadline&) = delete;
  OwnDeadline& operator=(const OwnDeadline&) = delete;

 private:
  Core& core_;
};

void fetch(Reading& reading) {
  const OwnDeadline deadline(reading);
  if (reading.kind == ClientRequest::PARSE_RESULT) {
    reading.response.getParseResponse(*reading.core->client);
  } else {
    reading.response.getSearchResponse(*reading.core->client, true);
  }
  noteEnd(reading);
}

/// Makes sure that there is something to hand out. False: the end.
bool advance(Reading& reading) {
  reading.hit = nullptr;
  if (reading.core->destroyed) {
    throw Failure{KRU_CURSOR_LOST, "the cursor's client", "was destroyed"};
  }
  while (!hasMore(reading)) {
    reading.core->asked = true;
    if (!reading.ended) {
      fetch(reading);
      continue;
    }
    if (!reading.truncated) return false;
    throw Failure{KRU_TRUNCATED, "the reply broke off before its end"};
  }
  return true;
}

bool isFinal(std::int32_t code) {
  return code != KRU_OK && code != KRU_END && code != KRU_MISUSE && code != KRU_TIMEOUT;
}

/// Hands out the next record by `take`, which fills its caller's record.
template <typename Record, typename Take>
std::int32_t nextRecord(kru_cursor* cursor, bool outcomes, Record* out, kru_error* error,
                        Take take) {
  if (!hasSize(error)) return KRU_MISUSE;
  if (cursor == nullptr) return refuse(error, "the cursor is null");
  const std::shared_ptr<Reading> reading = cursor->reading;
  // From here to the end: what the cursor remembers is its client's, like the client itself.
  const Use use(*reading->core);
  if (!use.granted()) return refuseUse(error);
  if (reading->broken) {
    handOut(error, *reading->broken);
    return reading->broken->code;
  }
  kru_error seen = noError();
  const std::int32_t code =
      performGranted(*reading->core, {reading->kind, true}, &seen, [&](Core&, kru_error& report) {
        if (out == nullptr || !hasSize(out)) misuse("the place for the result", "has no size");
        if ((reading->kind == ClientRequest::PARSE_RESULT) != outcomes) {
          misuse("the cursor", "hands out something else");
        }
        if (advance(*reading)) {
          handOut(out, take(*reading));
        } else {
          report.code = KRU_END;
        }
      });
  if (isFinal(code)) reading->broken = seen;
  handOut(error, seen);
  return code;
}

/// The key that the text names, if it names one.
bool decodeKey(const icu::UnicodeString& name, std::string& key) {
  return name.startsWith(kIdPrefix, kIdPrefixLength) &&
         tq::util::Base64::decode(name.tempSubString(kIdPrefixLength), key);
}

kru_hit takeHit(Reading& reading) {
  const tq::comm::SearchResult& hit = reading.response.getSearchResponse().getNext();
  reading.hit = &hit;
  kru_hit taken{sizeof(kru_hit), 0, nullptr, hit.getScore()};
  if (hit.getKey() != nullptr) {
    taken.key = hit.getKey();
    taken.key_length = hit.getKeyLen();
  } else if (decodeKey(hit.getDocId(), reading.key)) {
    taken.key = reading.key.data();
    taken.key_length = static_cast<std::uint32_t>(reading.key.size());
  }
  return taken;
}

std::uint32_t lengthOf(const std::string& text) { return static_cast<std::uint32_t>(text.size()); }

kru_outcome takeOutcome(Reading& reading) {
  const tq::comm::ParseResult& result = reading.response.getParseResponse().getNext();
  kru_outcome taken{};
  reading.name = Converter::toUTF8(result.getDocument());
  taken.name = reading.name.c_str();
  taken.name_length = lengthOf(reading.name);
  if (decodeKey(result.getDocument(), reading.key)) {
    taken.key = reading.key.data();
    taken.key_length = lengthOf(reading.key);
  }
  if (!result.hasMessage()) return taken;
  reading.id = Converter::toUTF8(result.getMessage().getMessageId());
  reading.message = Converter::toUTF8(result.getMessage().getMessageText());
  taken.id = reading.id.c_str();
  taken.id_length = lengthOf(reading.id);
  taken.message = reading.message.c_str();
  taken.message_length = lengthOf(reading.message);
  taken.level = result.getMessage().getLevel();
  return taken;
}

}  // namespace

}  // namespace tq::capi

using namespace tq::capi;

int32_t kru_search(kru_client* client, const char* collection, uint32_t collection_length,
                   const char* query, uint32_t query_length, const kru_search_options* options,
                   const kru_limits* limits, kru_cursor** cursor, kru_error* error) {
  return openCursor(
      client, ClientRequest::STREAM_SEARCH, limits, cursor, error, [&](ClientRequest& request) {
        request.buildRequest(takeLine(collection, collection_length, "the collection's name"),
                             ClientRequest::STREAM_SEARCH,
                             searchProperties(takeLine(query, query_length, "the query"), options));
      });
}

int32_t kru_ask_outcomes(kru_client* client, const char* collection, uint32_t collection_length,
                         const kru_limits* limits, kru_cursor** cursor, kru_error* error) {
  return openCursor(
      client, ClientRequest::PARSE_RESULT, limits, cursor, error, [&](ClientRequest& request) {
        request.buildRequest(takeLine(collection, collection_length, "the collection's name"),
                             ClientRequest::PARSE_RESULT, {});
      });
}

int32_t kru_cursor_next(kru_cursor* cursor, kru_hit* hit, kru_error* error) {
  return nextRecord(cursor, false, hit, error, takeHit);
}

int32_t kru_cursor_next_outcome(kru_cursor* cursor, kru_outcome* outcome, kru_error* error) {
  return nextRecord(cursor, true, outcome, error, takeOutcome);
}

int32_t kru_cursor_document(kru_cursor* cursor, const char** name, uint32_t* name_length,
                            kru_error* error) {
  if (!hasSize(error)) return KRU_MISUSE;
  if (cursor == nullptr) return refuse(error, "the cursor is null");
  return perform(cursor->reading->core, {}, error, [&](Core&, kru_error&) {
    Reading& reading = *cursor->reading;
    if (name == nullptr || name_length == nullptr) misuse("the place for the name", "is null");
    if (reading.hit == nullptr) misuse("the cursor", "stands on no hit");
    reading.name = Converter::toUTF8(reading.hit->getDocId());
    *name = reading.name.c_str();
    *name_length = lengthOf(reading.name);
  });
}

void kru_cursor_close(kru_cursor* cursor) { delete cursor; }
