#include "comm/kruMessageTables.h"

#include <memory>

#include "comm/kruGenRespRecord.h"
#include "comm/kruKinds.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruConverter.h"

namespace tq::comm {

namespace {

// Texts that are frequent without being words of the protocol. The locale is registered in its
// proper case although the default language is spelled otherwise.
constexpr const char16_t* kFrequentValues[] = {u"text/plain", u"UTF-8", u"en_US", u"en", u"en-us"};

void registerFrequentTexts() {
  for (const char16_t* value : kFrequentValues) GenRespRecord::AddStringToConversionCache(value);
  const icu::UnicodeString* const words[] = {
      &StaticDefs::PARAM_COLLECTION_ID,
      &StaticDefs::PARAM_DOCUMENT_ID,
      &StaticDefs::PARAM_ROWID,
      &StaticDefs::PARAM_DOCDATA,
      &StaticDefs::PARAM_DISPLAY_NAME,
      &StaticDefs::PARAM_COLLECTION_DIR,
      &StaticDefs::PARAM_COLLECTION_NAME,
      &StaticDefs::PARAM_ACTION,
      &StaticDefs::PARAM_ACTION_TYPE,
      &StaticDefs::PARAM_CONN_PERSIST,
      &StaticDefs::PARAM_DOCING_USEQUEUE,
      &StaticDefs::PARAM_SEARCH_MODE,
      &StaticDefs::PARAM_RESP_FORMAT,
      &StaticDefs::PARAM_AUTHENTICATION_TOKEN,
      &StaticDefs::PARAM_AUTHENTICATION,
      &StaticDefs::PARAM_DOCUMENT_TYPE,
      &StaticDefs::PARAM_KNOWN_DOCUMENT_TYPE,
      &StaticDefs::PARAM_OPCODE,
      &StaticDefs::PARAM_SCOPE,
      &StaticDefs::PARAM_COL_CONFIG,
      &StaticDefs::PARAM_COL_DATA,
      &StaticDefs::PARAM_INCREMENTAL,
      &StaticDefs::PARAM_CHECK_VER,
      &StaticDefs::PARAM_DB_NAME,
      &StaticDefs::PARAM_TAB_NAME,
      &StaticDefs::PARAM_TAB_UID,
      &StaticDefs::PARAM_TAB_PASSWORD,
      &StaticDefs::PARAM_DB_HOST,
      &StaticDefs::PARAM_DB_PORT,
      &StaticDefs::PARAM_PROTO_VER,
      &StaticDefs::PROTO_VERSION,
      &StaticDefs::PARAM_START_OFFSET,
      &StaticDefs::PARAM_SEARCH_SIZE,
      &StaticDefs::PARAM_QUERY,
      &StaticDefs::PARAM_MIME_TYPE,
      &StaticDefs::PARAM_LANGUAGE,
      &StaticDefs::PARAM_FALLBACK_LANGUAGE,
      &StaticDefs::PARAM_KNOWN_LANGUAGE,
      &StaticDefs::PARAM_CHARSET,
      &StaticDefs::PARAM_KNOWN_CHARSET,
      &StaticDefs::PARAM_KNOWN_CHARSET_UTF8,
      &StaticDefs::PARAM_DATA_SOURCE_TYPE,
      &StaticDefs::PARAM_DATA_SOURCE_NAME,
      &StaticDefs::PARAM_CLIENT_LOCALE,
      &StaticDefs::PARAM_QUERY_LANGUAGE,
      &StaticDefs::PARAM_DEFAULT_LANGUAGE,
      &StaticDefs::PARAM_SCORE_TYPE,
      &StaticDefs::PARAM_RESULT_LIMIT,
      &StaticDefs::PARAM_SCORE_WANTED,
      &StaticDefs::PARAM_SEARCH_MODE_SCALAR,
      &StaticDefs::PARAM_SEARCH_MODE_STREAMING,
      &StaticDefs::PARAM_SEARCH_MODE_SELECTIVITY,
      &StaticDefs::PARAM_RESP_FORMAT_RDX,
      &StaticDefs::PARAM_AUTH_BASIC,
      &StaticDefs::PARAM_COLLECTION_SCOPE,
      &StaticDefs::PARAM_SYSTEM_SCOPE,
  };
  for (const icu::UnicodeString* word : words) GenRespRecord::AddStringToConversionCache(*word);
}

// Any other model takes memory at the first use where the library was loaded with dlopen, and the
// system ends the process when there is none.
[[gnu::tls_model("initial-exec")]] constinit thread_local const MessageTables* inFilling = nullptr;

/// While it lives its thread fills these tables.
class Filling {
 public:
  explicit Filling(const MessageTables& tables) noexcept { inFilling = &tables; }
  ~Filling() { inFilling = nullptr; }
  Filling(const Filling&) = delete;
  Filling& operator=(const Filling&) = delete;
};

}  // namespace

constinit std::atomic<const MessageTables*> MessageTables::filled{nullptr};

/// No thread waits for another one to fill: a child that is forked meanwhile has no such thread. Of
/// tables that several threads have filled one becomes the process's.
const MessageTables& MessageTables::fillOnce() {
  if (inFilling != nullptr) return *inFilling;
  std::unique_ptr<MessageTables> own(new MessageTables);
  {
    const Filling filling(*own);
    own->fill();
  }
  const MessageTables* first = nullptr;
  if (!filled.compare_exchange_strong(first, own.get(), std::memory_order_acq_rel)) return *first;
  // Never destroyed: a thread of the host may still be encoding while the process ends.
  return *own.release();
}

void MessageTables::fill() {
  fillActions();
  registerFrequentTexts();
  utf8RowId_ = tq::oss::Converter::toUTF8(StaticDefs::PARAM_ROWID);
  utf8DocData_ = tq::oss::Converter::toUTF8(StaticDefs::PARAM_DOCDATA);
}

void MessageTables::fillActions() {
  for (const Kind& kind : kKinds) {
    icu::UnicodeString& action = actionMap_[static_cast<std::size_t>(kind.number)];
    action = icu::UnicodeString(kind.action);
    tq::oss::Converter::checked(action);
  }
}

const icu::UnicodeString& MessageTables::actionOf(ClientRequest::REQUEST kind) const noexcept {
  const auto number = static_cast<std::size_t>(static_cast<unsigned int>(kind));
  return number < actionMap_.size() ? actionMap_[number] : actionMap_[0];
}

}  // namespace tq::comm
