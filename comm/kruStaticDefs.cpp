#include "comm/kruStaticDefs.h"

#include "comm/kruBuiltFirst.h"

namespace tq::comm {

using icu::UnicodeString;

KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_COLLECTION_ID(u"index");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_DOCUMENT_ID(u"docId");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_ROWID(u"rowId");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_DOCDATA(u"data");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_DISPLAY_NAME(u"collectionName");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_COLLECTION_DIR(u"dataDir");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_COLLECTION_NAME(u"collectionName");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_ACTION(u"action");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_CONN_PERSIST(u"conPersist");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_ACTION_TYPE(u"actionType");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_DOCING_USEQUEUE(u"useQueue");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_SEARCH_MODE(u"mode");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_RESP_FORMAT(u"output");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_AUTHENTICATION_TOKEN(u"authToken");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_AUTHENTICATION(u"Authorization");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_DOCUMENT_TYPE(u"docType");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_OPCODE(u"opcode");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_SCOPE(u"scope");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_COL_CONFIG(u"colConfig");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_COL_DATA(u"colData");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_INCREMENTAL(u"incremental");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_CHECK_VER(u"checkVersion");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_DB_NAME(u"dbName");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_TAB_NAME(u"tabName");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_TAB_UID(u"tabUID");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_TAB_PASSWORD(u"tabPassword");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_DB_HOST(u"dbHost");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_DB_PORT(u"dbPort");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_START_OFFSET(u"start");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_SEARCH_SIZE(u"size");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_QUERY(u"query");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_PROTO_VER(u"ver");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_LANGUAGE(u"docLang");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_FALLBACK_LANGUAGE(u"fallbackLanguage");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_KNOWN_LANGUAGE(u"KnownLanguage");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_KNOWN_DOCUMENT_TYPE(u"KnownContentType");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_KNOWN_CHARSET(u"KnownCharset");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_MIME_TYPE(u"mimeType");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_EXTENSION(u"extension");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_CHARSET(u"charset");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_DATA_SOURCE_TYPE(u"dataSourceType");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_DATA_SOURCE_NAME(u"dataSourceName");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_CLIENT_LOCALE(u"locale");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_QUERY_LANGUAGE(u"queryLang");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_SCORE_TYPE(u"scoreType");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_RESULT_LIMIT(u"resultLimit");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_SCORE_WANTED(u"scoreWanted");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_SORT_FIELD(u"sortField");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_PAGE_NUMBER(u"pageNumber");

KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_CONTENT_TYPE_UNDEF(u"ContentTypeNotDefined");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_CONTENT_TYPE_TEXT(u"text");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_CONTENT_TYPE_XML(u"xml");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_CONTENT_TYPE_BIN(u"bin");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_CONTENT_TYPE_UNKNOWN(u"unknown");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_KNOWN_CHARSET_UTF8(u"UTF-8");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_INDEXABLE_METADATA_PREFIX(u"Indexable:");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_SORTABLE_METADATA_PREFIX(u"[sortable]");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_DEFAULT_LANGUAGE(u"en_us");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_SORT_BY_SCORE(u"SCORE");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_UNSORTED(u"UNSORTED");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_SEARCH_MODE_SCALAR(u"scalar");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_SEARCH_MODE_SELECTIVITY(u"selectivity");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_SEARCH_MODE_STREAMING(u"streaming");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_RESP_FORMAT_RDX(u"rdx");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_COLLECTION_SCOPE(u"collection");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_SYSTEM_SCOPE(u"system");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_AUTH_BASIC(u"Basic");
KRU_BUILT_FIRST const UnicodeString StaticDefs::STRING_true(u"true");
KRU_BUILT_FIRST const UnicodeString StaticDefs::STRING_false(u"false");
KRU_BUILT_FIRST const UnicodeString StaticDefs::STRING_empty(u"");
KRU_BUILT_FIRST const UnicodeString StaticDefs::DOC(u"Doc");

KRU_BUILT_FIRST const UnicodeString StaticDefs::PROTO_VERSION(u"1.1");
KRU_BUILT_FIRST const UnicodeString StaticDefs::VERSION_BUILD_SEPARATOR(u"-");
KRU_BUILT_FIRST const UnicodeString StaticDefs::IMPLEMENTATION_VERSION(u"Implementation-Version");
KRU_BUILT_FIRST const UnicodeString StaticDefs::VERSIONS_SEPARATOR(u",");
KRU_BUILT_FIRST const UnicodeString
    StaticDefs::SUPPORTED_SERVER_VERSIONS(u"Supported-Server-Versions");
KRU_BUILT_FIRST const UnicodeString
    StaticDefs::SUPPORTED_CLIENT_VERSIONS(u"Supported-Client-Versions");

KRU_BUILT_FIRST const UnicodeString StaticDefs::ERR_CONNECT_SERVER(u"ERR_CONNECT_SERVER");
KRU_BUILT_FIRST const UnicodeString StaticDefs::ERR_SERVER_PROTOCOL(u"ERR_SERVER_PROTOCOL");
KRU_BUILT_FIRST const UnicodeString StaticDefs::ERR_SERVER_APP(u"ERR_SERVER_APP");
KRU_BUILT_FIRST const UnicodeString StaticDefs::ERR_SERVER_INVALID_AUTH(u"ERR_SERVER_INVALID_AUTH");
KRU_BUILT_FIRST const UnicodeString StaticDefs::ERR_CLIENT_RESP_PARSING(u"ERR_CLIENT_RESP_PARSING");
KRU_BUILT_FIRST const UnicodeString StaticDefs::ERR_CLIENT_INTERNAL(u"ERR_CLIENT_INTERNAL");
KRU_BUILT_FIRST const UnicodeString StaticDefs::ERR_INVALID_STATE(u"ERR_INVALID_STATE");
KRU_BUILT_FIRST const UnicodeString StaticDefs::ERR_SERVER_COMM_RECV(u"ERR_SERVER_COMM_RECV");
KRU_BUILT_FIRST const UnicodeString StaticDefs::ERR_SERVER_COMM_SEND(u"ERR_SERVER_COMM_SEND");
KRU_BUILT_FIRST const UnicodeString StaticDefs::ERR_SERVER_COMM_TIMEOUT(u"ERR_SERVER_COMM_TIMEOUT");
KRU_BUILT_FIRST const UnicodeString StaticDefs::ERR_CLIENT_CANCELLED(u"ERR_CLIENT_CANCELLED");

KRU_BUILT_FIRST const UnicodeString StaticDefs::RESP_TRANSFER_ENCODING(u"Transfer-Encoding");
KRU_BUILT_FIRST const UnicodeString StaticDefs::RESP_TRANSFER_ENCODING_CHUNK(u"chunked");
KRU_BUILT_FIRST const UnicodeString StaticDefs::RESP_CONTENT_LENGTH(u"Content-Length");
KRU_BUILT_FIRST const UnicodeString StaticDefs::PARAM_HTTP_HOST(u"host ");
KRU_BUILT_FIRST const UnicodeString StaticDefs::HTTP_11(u" HTTP/1.1\n");
KRU_BUILT_FIRST const UnicodeString StaticDefs::HTTP_10(u" HTTP/1.0\n");
KRU_BUILT_FIRST const UnicodeString StaticDefs::HTTP_POST(u"POST  ");
KRU_BUILT_FIRST const UnicodeString StaticDefs::HTTP_GET(u"GET  ");
KRU_BUILT_FIRST const UnicodeString StaticDefs::HTTP_DELETE(u"DELETE  ");
KRU_BUILT_FIRST const UnicodeString StaticDefs::HTTP_CONTENT_LEN(u"Content-Length  ");
KRU_BUILT_FIRST const UnicodeString StaticDefs::CRLF(u"\r\n");

KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_CREATE_COLLECTION(u"CreateCollection");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_DROP_COLLECTION(u"DropCollection");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_UPDATE_INDEX(u"UpdateIndex");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_DELETE_DOCUMENT(u"DeleteDocument");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_STREAM_SEARCH(u"StreamSearch");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_ASYNCH_ADD_DOCUMENT(u"AsyncAddDocument");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_LAST_DOC_SENT(u"LastDocSent");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_PARSE_RESULT(u"ParseResult");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_OPEN_COLLECTION(u"OpenCollection");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_CLOSE_COLLECTION(u"CloseCollection");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_SELECTIVITY(u"Selectivity");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_GET_STATUS(u"GetStatus");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_BACKUP(u"Backup");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_RESTORE(u"Restore");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_TAKEOVER(u"Takeover");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_SHUTDOWN(u"Shutdown");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_SCALAR_SEARCH(u"ScalarSearch");
KRU_BUILT_FIRST const UnicodeString StaticDefs::REQ_GET_SERVER_VERSION(u"GetServerVersion");

KRU_BUILT_FIRST const UnicodeString StaticDefs::ACT_UNKNOWN(u"unknown");
KRU_BUILT_FIRST const UnicodeString StaticDefs::ACT_UPDATE(u"update");
KRU_BUILT_FIRST const UnicodeString StaticDefs::ACT_MONITOR(u"monitor");
KRU_BUILT_FIRST const UnicodeString StaticDefs::ACT_SELECT(u"select");
KRU_BUILT_FIRST const UnicodeString StaticDefs::ACT_ADMIN(u"admin");

KRU_BUILT_FIRST const UnicodeString StaticDefs::COLON_SPACE(u": ");
KRU_BUILT_FIRST const UnicodeString StaticDefs::NEWLINE(u"\n");
KRU_BUILT_FIRST const UnicodeString StaticDefs::QUESTIONMARK(u"?");
KRU_BUILT_FIRST const UnicodeString StaticDefs::AMPERSAND(u"&");
KRU_BUILT_FIRST const UnicodeString StaticDefs::EQUALS(u"=");

}  // namespace tq::comm
