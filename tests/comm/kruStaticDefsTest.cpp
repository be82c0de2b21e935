#include <gtest/gtest.h>

#include "comm/kruClientRequest.h"
#include "comm/kruStaticDefs.h"
#include "tests/comm/kruCommText.h"

namespace tq::comm {
namespace {

using test::utf8;

struct Word {
  const char* name;
  const icu::UnicodeString* value;
  const char* literal;
};

const Word kWords[] = {
    {"PARAM_COLLECTION_ID", &StaticDefs::PARAM_COLLECTION_ID, "index"},
    {"PARAM_DOCUMENT_ID", &StaticDefs::PARAM_DOCUMENT_ID, "docId"},
    {"PARAM_ROWID", &StaticDefs::PARAM_ROWID, "rowId"},
    {"PARAM_DOCDATA", &StaticDefs::PARAM_DOCDATA, "data"},
    {"PARAM_DISPLAY_NAME", &StaticDefs::PARAM_DISPLAY_NAME, "collectionName"},
    {"PARAM_COLLECTION_DIR", &StaticDefs::PARAM_COLLECTION_DIR, "dataDir"},
    {"PARAM_COLLECTION_NAME", &StaticDefs::PARAM_COLLECTION_NAME, "collectionName"},
    {"PARAM_ACTION", &StaticDefs::PARAM_ACTION, "action"},
    {"PARAM_CONN_PERSIST", &StaticDefs::PARAM_CONN_PERSIST, "conPersist"},
    {"PARAM_ACTION_TYPE", &StaticDefs::PARAM_ACTION_TYPE, "actionType"},
    {"PARAM_DOCING_USEQUEUE", &StaticDefs::PARAM_DOCING_USEQUEUE, "useQueue"},
    {"PARAM_SEARCH_MODE", &StaticDefs::PARAM_SEARCH_MODE, "mode"},
    {"PARAM_RESP_FORMAT", &StaticDefs::PARAM_RESP_FORMAT, "output"},
    {"PARAM_AUTHENTICATION_TOKEN", &StaticDefs::PARAM_AUTHENTICATION_TOKEN, "authToken"},
    {"PARAM_AUTHENTICATION", &StaticDefs::PARAM_AUTHENTICATION, "Authorization"},
    {"PARAM_DOCUMENT_TYPE", &StaticDefs::PARAM_DOCUMENT_TYPE, "docType"},
    {"PARAM_OPCODE", &StaticDefs::PARAM_OPCODE, "opcode"},
    {"PARAM_SCOPE", &StaticDefs::PARAM_SCOPE, "scope"},
    {"PARAM_COL_CONFIG", &StaticDefs::PARAM_COL_CONFIG, "colConfig"},
    {"PARAM_COL_DATA", &StaticDefs::PARAM_COL_DATA, "colData"},
    {"PARAM_INCREMENTAL", &StaticDefs::PARAM_INCREMENTAL, "incremental"},
    {"PARAM_CHECK_VER", &StaticDefs::PARAM_CHECK_VER, "checkVersion"},
    {"PARAM_DB_NAME", &StaticDefs::PARAM_DB_NAME, "dbName"},
    {"PARAM_TAB_NAME", &StaticDefs::PARAM_TAB_NAME, "tabName"},
    {"PARAM_TAB_UID", &StaticDefs::PARAM_TAB_UID, "tabUID"},
    {"PARAM_TAB_PASSWORD", &StaticDefs::PARAM_TAB_PASSWORD, "tabPassword"},
    {"PARAM_DB_HOST", &StaticDefs::PARAM_DB_HOST, "dbHost"},
    {"PARAM_DB_PORT", &StaticDefs::PARAM_DB_PORT, "dbPort"},
    {"PARAM_START_OFFSET", &StaticDefs::PARAM_START_OFFSET, "start"},
    {"PARAM_SEARCH_SIZE", &StaticDefs::PARAM_SEARCH_SIZE, "size"},
    {"PARAM_QUERY", &StaticDefs::PARAM_QUERY, "query"},
    {"PARAM_PROTO_VER", &StaticDefs::PARAM_PROTO_VER, "ver"},
    {"PARAM_LANGUAGE", &StaticDefs::PARAM_LANGUAGE, "docLang"},
    {"PARAM_FALLBACK_LANGUAGE", &StaticDefs::PARAM_FALLBACK_LANGUAGE, "fallbackLanguage"},
    {"PARAM_KNOWN_LANGUAGE", &StaticDefs::PARAM_KNOWN_LANGUAGE, "KnownLanguage"},
    {"PARAM_KNOWN_DOCUMENT_TYPE", &StaticDefs::PARAM_KNOWN_DOCUMENT_TYPE, "KnownContentType"},
    {"PARAM_KNOWN_CHARSET", &StaticDefs::PARAM_KNOWN_CHARSET, "KnownCharset"},
    {"PARAM_MIME_TYPE", &StaticDefs::PARAM_MIME_TYPE, "mimeType"},
    {"PARAM_EXTENSION", &StaticDefs::PARAM_EXTENSION, "extension"},
    {"PARAM_CHARSET", &StaticDefs::PARAM_CHARSET, "charset"},
    {"PARAM_DATA_SOURCE_TYPE", &StaticDefs::PARAM_DATA_SOURCE_TYPE, "dataSourceType"},
    {"PARAM_DATA_SOURCE_NAME", &StaticDefs::PARAM_DATA_SOURCE_NAME, "dataSourceName"},
    {"PARAM_CLIENT_LOCALE", &StaticDefs::PARAM_CLIENT_LOCALE, "locale"},
    {"PARAM_QUERY_LANGUAGE", &StaticDefs::PARAM_QUERY_LANGUAGE, "queryLang"},
    {"PARAM_SCORE_TYPE", &StaticDefs::PARAM_SCORE_TYPE, "scoreType"},
    {"PARAM_RESULT_LIMIT", &StaticDefs::PARAM_RESULT_LIMIT, "resultLimit"},
    {"PARAM_SCORE_WANTED", &StaticDefs::PARAM_SCORE_WANTED, "scoreWanted"},
    {"PARAM_SORT_FIELD", &StaticDefs::PARAM_SORT_FIELD, "sortField"},
    {"PARAM_PAGE_NUMBER", &StaticDefs::PARAM_PAGE_NUMBER, "pageNumber"},
    {"PARAM_CONTENT_TYPE_UNDEF", &StaticDefs::PARAM_CONTENT_TYPE_UNDEF, "ContentTypeNotDefined"},
    {"PARAM_CONTENT_TYPE_TEXT", &StaticDefs::PARAM_CONTENT_TYPE_TEXT, "text"},
    {"PARAM_CONTENT_TYPE_XML", &StaticDefs::PARAM_CONTENT_TYPE_XML, "xml"},
    {"PARAM_CONTENT_TYPE_BIN", &StaticDefs::PARAM_CONTENT_TYPE_BIN, "bin"},
    {"PARAM_CONTENT_TYPE_UNKNOWN", &StaticDefs::PARAM_CONTENT_TYPE_UNKNOWN, "unknown"},
    {"PARAM_KNOWN_CHARSET_UTF8", &StaticDefs::PARAM_KNOWN_CHARSET_UTF8, "UTF-8"},
    {"PARAM_INDEXABLE_METADATA_PREFIX", &StaticDefs::PARAM_INDEXABLE_METADATA_PREFIX, "Indexable:"},
    {"PARAM_SORTABLE_METADATA_PREFIX", &StaticDefs::PARAM_SORTABLE_METADATA_PREFIX, "[sortable]"},
    {"PARAM_DEFAULT_LANGUAGE", &StaticDefs::PARAM_DEFAULT_LANGUAGE, "en_us"},
    {"PARAM_SORT_BY_SCORE", &StaticDefs::PARAM_SORT_BY_SCORE, "SCORE"},
    {"PARAM_UNSORTED", &StaticDefs::PARAM_UNSORTED, "UNSORTED"},
    {"PARAM_SEARCH_MODE_SCALAR", &StaticDefs::PARAM_SEARCH_MODE_SCALAR, "scalar"},
    {"PARAM_SEARCH_MODE_SELECTIVITY", &StaticDefs::PARAM_SEARCH_MODE_SELECTIVITY, "selectivity"},
    {"PARAM_SEARCH_MODE_STREAMING", &StaticDefs::PARAM_SEARCH_MODE_STREAMING, "streaming"},
    {"PARAM_RESP_FORMAT_RDX", &StaticDefs::PARAM_RESP_FORMAT_RDX, "rdx"},
    {"PARAM_COLLECTION_SCOPE", &StaticDefs::PARAM_COLLECTION_SCOPE, "collection"},
    {"PARAM_SYSTEM_SCOPE", &StaticDefs::PARAM_SYSTEM_SCOPE, "system"},
    {"PARAM_AUTH_BASIC", &StaticDefs::PARAM_AUTH_BASIC, "Basic"},
    {"STRING_true", &StaticDefs::STRING_true, "true"},
    {"STRING_false", &StaticDefs::STRING_false, "false"},
    {"DOC", &StaticDefs::DOC, "Doc"},
    {"PROTO_VERSION", &StaticDefs::PROTO_VERSION, "1.1"},
    {"VERSION_BUILD_SEPARATOR", &StaticDefs::VERSION_BUILD_SEPARATOR, "-"},
    {"IMPLEMENTATION_VERSION", &StaticDefs::IMPLEMENTATION_VERSION, "Implementation-Version"},
    {"VERSIONS_SEPARATOR", &StaticDefs::VERSIONS_SEPARATOR, ","},
    {"SUPPORTED_SERVER_VERSIONS", &StaticDefs::SUPPORTED_SERVER_VERSIONS,
     "Supported-Server-Versions"},
    {"SUPPORTED_CLIENT_VERSIONS", &StaticDefs::SUPPORTED_CLIENT_VERSIONS,
     "Supported-Client-Versions"},
    {"RESP_TRANSFER_ENCODING", &StaticDefs::RESP_TRANSFER_ENCODING, "Transfer-Encoding"},
    {"RESP_TRANSFER_ENCODING_CHUNK", &StaticDefs::RESP_TRANSFER_ENCODING_CHUNK, "chunked"},
    {"RESP_CONTENT_LENGTH", &StaticDefs::RESP_CONTENT_LENGTH, "Content-Length"},
    {"PARAM_HTTP_HOST", &StaticDefs::PARAM_HTTP_HOST, "host "},
    {"HTTP_11", &StaticDefs::HTTP_11, " HTTP/1.1\n"},
    {"HTTP_10", &StaticDefs::HTTP_10, " HTTP/1.0\n"},
    {"HTTP_POST", &StaticDefs::HTTP_POST, "POST  "},
    {"HTTP_GET", &StaticDefs::HTTP_GET, "GET  "},
    {"HTTP_DELETE", &StaticDefs::HTTP_DELETE, "DELETE  "},
    {"HTTP_CONTENT_LEN", &StaticDefs::HTTP_CONTENT_LEN, "Content-Length  "},
    {"REQ_CREATE_COLLECTION", &StaticDefs::REQ_CREATE_COLLECTION, "CreateCollection"},
    {"REQ_DROP_COLLECTION", &StaticDefs::REQ_DROP_COLLECTION, "DropCollection"},
    {"REQ_UPDATE_INDEX", &StaticDefs::REQ_UPDATE_INDEX, "UpdateIndex"},
    {"REQ_DELETE_DOCUMENT", &StaticDefs::REQ_DELETE_DOCUMENT, "DeleteDocument"},
    {"REQ_STREAM_SEARCH", &StaticDefs::REQ_STREAM_SEARCH, "StreamSearch"},
    {"REQ_ASYNCH_ADD_DOCUMENT", &StaticDefs::REQ_ASYNCH_ADD_DOCUMENT, "AsyncAddDocument"},
    {"REQ_LAST_DOC_SENT", &StaticDefs::REQ_LAST_DOC_SENT, "LastDocSent"},
    {"REQ_PARSE_RESULT", &StaticDefs::REQ_PARSE_RESULT, "ParseResult"},
    {"REQ_OPEN_COLLECTION", &StaticDefs::REQ_OPEN_COLLECTION, "OpenCollection"},
    {"REQ_CLOSE_COLLECTION", &StaticDefs::REQ_CLOSE_COLLECTION, "CloseCollection"},
    {"REQ_SELECTIVITY", &StaticDefs::REQ_SELECTIVITY, "Selectivity"},
    {"REQ_GET_STATUS", &StaticDefs::REQ_GET_STATUS, "GetStatus"},
    {"REQ_BACKUP", &StaticDefs::REQ_BACKUP, "Backup"},
    {"REQ_RESTORE", &StaticDefs::REQ_RESTORE, "Restore"},
    {"REQ_TAKEOVER", &StaticDefs::REQ_TAKEOVER, "Takeover"},
    {"REQ_SHUTDOWN", &StaticDefs::REQ_SHUTDOWN, "Shutdown"},
    {"REQ_SCALAR_SEARCH", &StaticDefs::REQ_SCALAR_SEARCH, "ScalarSearch"},
    {"REQ_GET_SERVER_VERSION", &StaticDefs::REQ_GET_SERVER_VERSION, "GetServerVersion"},
    {"ACT_UNKNOWN", &StaticDefs::ACT_UNKNOWN, "unknown"},
    {"ACT_UPDATE", &StaticDefs::ACT_UPDATE, "update"},
    {"ACT_MONITOR", &StaticDefs::ACT_MONITOR, "monitor"},
    {"ACT_SELECT", &StaticDefs::ACT_SELECT, "select"},
    {"ACT_ADMIN", &StaticDefs::ACT_ADMIN, "admin"},
    {"STRING_empty", &StaticDefs::STRING_empty, ""},
    {"ERR_CONNECT_SERVER", &StaticDefs::ERR_CONNECT_SERVER, "ERR_CONNECT_SERVER"},
    {"ERR_SERVER_PROTOCOL", &StaticDefs::ERR_SERVER_PROTOCOL, "ERR_SERVER_PROTOCOL"},
    {"ERR_SERVER_APP", &StaticDefs::ERR_SERVER_APP, "ERR_SERVER_APP"},
    {"ERR_SERVER_INVALID_AUTH", &StaticDefs::ERR_SERVER_INVALID_AUTH, "ERR_SERVER_INVALID_AUTH"},
    {"ERR_CLIENT_RESP_PARSING", &StaticDefs::ERR_CLIENT_RESP_PARSING, "ERR_CLIENT_RESP_PARSING"},
    {"ERR_CLIENT_INTERNAL", &StaticDefs::ERR_CLIENT_INTERNAL, "ERR_CLIENT_INTERNAL"},
    {"ERR_INVALID_STATE", &StaticDefs::ERR_INVALID_STATE, "ERR_INVALID_STATE"},
    {"ERR_SERVER_COMM_RECV", &StaticDefs::ERR_SERVER_COMM_RECV, "ERR_SERVER_COMM_RECV"},
    {"ERR_SERVER_COMM_SEND", &StaticDefs::ERR_SERVER_COMM_SEND, "ERR_SERVER_COMM_SEND"},
    {"ERR_SERVER_COMM_TIMEOUT", &StaticDefs::ERR_SERVER_COMM_TIMEOUT, "ERR_SERVER_COMM_TIMEOUT"},
    {"ERR_CLIENT_CANCELLED", &StaticDefs::ERR_CLIENT_CANCELLED, "ERR_CLIENT_CANCELLED"},
    {"CRLF", &StaticDefs::CRLF, "\r\n"},
    {"COLON_SPACE", &StaticDefs::COLON_SPACE, ": "},
    {"NEWLINE", &StaticDefs::NEWLINE, "\n"},
    {"QUESTIONMARK", &StaticDefs::QUESTIONMARK, "?"},
    {"AMPERSAND", &StaticDefs::AMPERSAND, "&"},
    {"EQUALS", &StaticDefs::EQUALS, "="},
};

TEST(StaticDefs, EveryWordIsExactlyWhatGoesOverTheWire) {
  for (const Word& word : kWords) EXPECT_EQ(word.literal, utf8(*word.value)) << word.name;
}

TEST(StaticDefs, TheNumericLimitsAreThoseOfTheServer) {
  EXPECT_EQ(8192U, StaticDefs::MAX_RES_LEN);
  EXPECT_EQ(128U, StaticDefs::MAX_KEY_LENGTH);
}

TEST(StaticDefs, TheTwoScoreTypesAreRawAndNormalized) {
  EXPECT_EQ("raw", utf8(PARAM_RAW_SCORE_TYPE));
  EXPECT_EQ("normalized", utf8(PARAM_NORMALIZED_SCORE_TYPE));
}

TEST(StaticDefs, TheRequestsLengthHeaderKeepsBothTrailingBlanks) {
  EXPECT_EQ("Content-Length  ", utf8(StaticDefs::HTTP_CONTENT_LEN));
  EXPECT_NE(StaticDefs::RESP_CONTENT_LENGTH, StaticDefs::HTTP_CONTENT_LEN);
}

TEST(StaticDefs, TheHttpPiecesKeepTheirBlanksAndBareLineFeeds) {
  EXPECT_EQ("host ", utf8(StaticDefs::PARAM_HTTP_HOST));
  EXPECT_EQ(" HTTP/1.1\n", utf8(StaticDefs::HTTP_11));
  EXPECT_EQ(" HTTP/1.0\n", utf8(StaticDefs::HTTP_10));
  EXPECT_EQ("POST  ", utf8(StaticDefs::HTTP_POST));
  EXPECT_EQ("GET  ", utf8(StaticDefs::HTTP_GET));
  EXPECT_EQ("DELETE  ", utf8(StaticDefs::HTTP_DELETE));
}

TEST(StaticDefs, DisplayNameAndCollectionNameAreOneText) {
  EXPECT_EQ(StaticDefs::PARAM_DISPLAY_NAME, StaticDefs::PARAM_COLLECTION_NAME);
}

TEST(StaticDefs, TheDefaultLanguageIsSpelledInLowerCase) {
  EXPECT_EQ("en_us", utf8(StaticDefs::PARAM_DEFAULT_LANGUAGE));
}

struct Kind {
  int value;
  ClientRequest::REQUEST kind;
};

constexpr Kind kKinds[] = {
    {1, ClientRequest::CREATE_COLLECTION},
    {2, ClientRequest::DROP_COLLECTION},
    {3, ClientRequest::ADD_DOCUMENT},
    {4, ClientRequest::UPDATE_INDEX},
    {5, ClientRequest::DELETE_DOCUMENT},
    {8, ClientRequest::STREAM_SEARCH},
    {9, ClientRequest::ASYNCH_ADD_DOCUMENT},
    {10, ClientRequest::LAST_DOC_SENT},
    {11, ClientRequest::PARSE_RESULT},
    {12, ClientRequest::OPEN_COLLECTION},
    {13, ClientRequest::CLOSE_COLLECTION},
    {14, ClientRequest::SELECTIVITY},
    {15, ClientRequest::GET_STATUS},
    {16, ClientRequest::BACKUP},
    {17, ClientRequest::RESTORE},
    {18, ClientRequest::TAKEOVER},
    {19, ClientRequest::SHUTDOWN},
    {20, ClientRequest::SCALAR_SEARCH},
    {21, ClientRequest::OPEN_COLLECTION_ALT},
    {22, ClientRequest::GET_SERVER_VERSION},
    {23, ClientRequest::SET_CONSTRUCTOR_CONFIGURATION},
    {24, ClientRequest::VERSIONS_VALIDATION},
};

TEST(RequestKinds, CarryTheirNumbers) {
  for (const Kind& kind : kKinds) EXPECT_EQ(kind.value, static_cast<int>(kind.kind));
}

}  // namespace
}  // namespace tq::comm
