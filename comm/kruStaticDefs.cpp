#include "comm/kruStaticDefs.h"

namespace tq::comm {

using icu::UnicodeString;

const UnicodeString StaticDefs::PARAM_COLLECTION_ID(u"index");
const UnicodeString StaticDefs::PARAM_DOCUMENT_ID(u"docId");
const UnicodeString StaticDefs::PARAM_ROWID(u"rowId");
const UnicodeString StaticDefs::PARAM_DOCDATA(u"data");
const UnicodeString StaticDefs::PARAM_DISPLAY_NAME(u"collectionName");
const UnicodeString StaticDefs::PARAM_COLLECTION_DIR(u"dataDir");
const UnicodeString StaticDefs::PARAM_COLLECTION_NAME(u"collectionName");
const UnicodeString StaticDefs::PARAM_ACTION(u"action");
const UnicodeString StaticDefs::PARAM_CONN_PERSIST(u"conPersist");
const UnicodeString StaticDefs::PARAM_ACTION_TYPE(u"actionType");
const UnicodeString StaticDefs::PARAM_DOCING_USEQUEUE(u"useQueue");
const UnicodeString StaticDefs::PARAM_SEARCH_MODE(u"mode");
const UnicodeString StaticDefs::PARAM_RESP_FORMAT(u"output");
const UnicodeString StaticDefs::PARAM_AUTHENTICATION_TOKEN(u"authToken");
const UnicodeString StaticDefs::PARAM_AUTHENTICATION(u"Authorization");
const UnicodeString StaticDefs::PARAM_DOCUMENT_TYPE(u"docType");
const UnicodeString StaticDefs::PARAM_OPCODE(u"opcode");
const UnicodeString StaticDefs::PARAM_SCOPE(u"scope");
const UnicodeString StaticDefs::PARAM_COL_CONFIG(u"colConfig");
const UnicodeString StaticDefs::PARAM_COL_DATA(u"colData");
const UnicodeString StaticDefs::PARAM_INCREMENTAL(u"incremental");
const UnicodeString StaticDefs::PARAM_CHECK_VER(u"checkVersion");
const UnicodeString StaticDefs::PARAM_DB_NAME(u"dbName");
const UnicodeString StaticDefs::PARAM_TAB_NAME(u"tabName");
const UnicodeString StaticDefs::PARAM_TAB_UID(u"tabUID");
const UnicodeString StaticDefs::PARAM_TAB_PASSWORD(u"tabPassword");
const UnicodeString StaticDefs::PARAM_DB_HOST(u"dbHost");
const UnicodeString StaticDefs::PARAM_DB_PORT(u"dbPort");
const UnicodeString StaticDefs::PARAM_START_OFFSET(u"start");
const UnicodeString StaticDefs::PARAM_SEARCH_SIZE(u"size");
const UnicodeString StaticDefs::PARAM_QUERY(u"query");
const UnicodeString StaticDefs::PARAM_PROTO_VER(u"ver");
const UnicodeString StaticDefs::PARAM_LANGUAGE(u"docLang");
const UnicodeString StaticDefs::PARAM_FALLBACK_LANGUAGE(u"fallbackLanguage");
const UnicodeString StaticDefs::PARAM_KNOWN_LANGUAGE(u"KnownLanguage");
const UnicodeString StaticDefs::PARAM_KNOWN_DOCUMENT_TYPE(u"KnownContentType");
const UnicodeString StaticDefs::PARAM_KNOWN_CHARSET(u"KnownCharset");
const UnicodeString StaticDefs::PARAM_MIME_TYPE(u"mimeType");
const UnicodeString StaticDefs::PARAM_EXTENSION(u"extension");
const UnicodeString StaticDefs::PARAM_CHARSET(u"charset");
const UnicodeString StaticDefs::PARAM_DATA_SOURCE_TYPE(u"dataSourceType");
const UnicodeString StaticDefs::PARAM_DATA_SOURCE_NAME(u"dataSourceName");
const UnicodeString StaticDefs::PARAM_CLIENT_LOCALE(u"locale");
const UnicodeString StaticDefs::PARAM_QUERY_LANGUAGE(u"queryLang");
const UnicodeString StaticDefs::PARAM_SCORE_TYPE(u"scoreType");
const UnicodeString StaticDefs::PARAM_RESULT_LIMIT(u"resultLimit");
const UnicodeString StaticDefs::PARAM_SCORE_WANTED(u"scoreWanted");
const UnicodeString StaticDefs::PARAM_SORT_FIELD(u"sortField");
const UnicodeString StaticDefs::PARAM_PAGE_NUMBER(u"pageNumber");

const UnicodeString StaticDefs::PARAM_CONTENT_TYPE_UNDEF(u"ContentTypeNotDefined");
const UnicodeString StaticDefs::PARAM_CONTENT_TYPE_TEXT(u"text");
const UnicodeString StaticDefs::PARAM_CONTENT_TYPE_XML(u"xml");
const UnicodeString StaticDefs::PARAM_CONTENT_TYPE_BIN(u"bin");
const UnicodeString StaticDefs::PARAM_CONTENT_TYPE_UNKNOWN(u"unknown");
const UnicodeString StaticDefs::PARAM_KNOWN_CHARSET_UTF8(u"UTF-8");
const UnicodeString StaticDefs::PARAM_INDEXABLE_METADATA_PREFIX(u"Indexable:");
const UnicodeString StaticDefs::PARAM_SORTABLE_METADATA_PREFIX(u"[sortable]");
const UnicodeString StaticDefs::PARAM_DEFAULT_LANGUAGE(u"en_us");
const UnicodeString StaticDefs::PARAM_SORT_BY_SCORE(u"SCORE");
const UnicodeString StaticDefs::PARAM_UNSORTED(u"UNSORTED");
const UnicodeString StaticDefs::PARAM_SEARCH_MODE_SCALAR(u"scalar");
const UnicodeString StaticDefs::PARAM_SEARCH_MODE_SELECTIVITY(u"selectivity");
const UnicodeString StaticDefs::PARAM_SEARCH_MODE_STREAMING(u"streaming");
const UnicodeString StaticDefs::PARAM_RESP_FORMAT_RDX(u"rdx");
const UnicodeString StaticDefs::PARAM_COLLECTION_SCOPE(u"collection");
const UnicodeString StaticDefs::PARAM_SYSTEM_SCOPE(u"system");
const UnicodeString StaticDefs::PARAM_AUTH_BASIC(u"Basic");
const UnicodeString StaticDefs::STRING_true(u"true");
const UnicodeString StaticDefs::STRING_false(u"false");
const UnicodeString StaticDefs::STRING_empty(u"");
const UnicodeString StaticDefs::DOC(u"Doc");

const UnicodeString StaticDefs::PROTO_VERSION(u"1.1");
const UnicodeString StaticDefs::VERSION_BUILD_SEPARATOR(u"-");
const UnicodeString StaticDefs::IMPLEMENTATION_VERSION(u"Implementation-Version");
const UnicodeString StaticDefs::VERSIONS_SEPARATOR(u",");
const UnicodeString StaticDefs::SUPPORTED_SERVER_VERSIONS(u"Supported-Server-Versions");
const UnicodeString StaticDefs::SUPPORTED_CLIENT_VERSIONS(u"Supported-Client-Versions");

const UnicodeString StaticDefs::ERR_CONNECT_SERVER(u"ERR_CONNECT_SERVER");
const UnicodeString StaticDefs::ERR_SERVER_PROTOCOL(u"ERR_SERVER_PROTOCOL");
const UnicodeString StaticDefs::ERR_SERVER_APP(u"ERR_SERVER_APP");
const UnicodeString StaticDefs::ERR_SERVER_INVALID_AUTH(u"ERR_SERVER_INVALID_AUTH");
const UnicodeString StaticDefs::ERR_CLIENT_RESP_PARSING(u"ERR_CLIENT_RESP_PARSING");
const UnicodeString StaticDefs::ERR_CLIENT_INTERNAL(u"ERR_CLIENT_INTERNAL");
const UnicodeString StaticDefs::ERR_INVALID_STATE(u"ERR_INVALID_STATE");
const UnicodeString StaticDefs::ERR_SERVER_COMM_RECV(u"ERR_SERVER_COMM_RECV");
const UnicodeString StaticDefs::ERR_SERVER_COMM_SEND(u"ERR_SERVER_COMM_SEND");
const UnicodeString StaticDefs::ERR_SERVER_COMM_TIMEOUT(u"ERR_SERVER_COMM_TIMEOUT");

const UnicodeString StaticDefs::RESP_TRANSFER_ENCODING(u"Transfer-Encoding");
const UnicodeString StaticDefs::RESP_TRANSFER_ENCODING_CHUNK(u"chunked");
const UnicodeString StaticDefs::RESP_CONTENT_LENGTH(u"Content-Length");
const UnicodeString StaticDefs::PARAM_HTTP_HOST(u"host ");
const UnicodeString StaticDefs::HTTP_11(u" HTTP/1.1\n");
const UnicodeString StaticDefs::HTTP_10(u" HTTP/1.0\n");
const UnicodeString StaticDefs::HTTP_POST(u"POST  ");
const UnicodeString StaticDefs::HTTP_GET(u"GET  ");
const UnicodeString StaticDefs::HTTP_DELETE(u"DELETE  ");
const UnicodeString StaticDefs::HTTP_CONTENT_LEN(u"Content-Length  ");
const UnicodeString StaticDefs::CRLF(u"\r\n");

const UnicodeString StaticDefs::REQ_CREATE_COLLECTION(u"CreateCollection");
const UnicodeString StaticDefs::REQ_DROP_COLLECTION(u"DropCollection");
const UnicodeString StaticDefs::REQ_UPDATE_INDEX(u"UpdateIndex");
const UnicodeString StaticDefs::REQ_DELETE_DOCUMENT(u"DeleteDocument");
const UnicodeString StaticDefs::REQ_STREAM_SEARCH(u"StreamSearch");
const UnicodeString StaticDefs::REQ_ASYNCH_ADD_DOCUMENT(u"AsyncAddDocument");
const UnicodeString StaticDefs::REQ_LAST_DOC_SENT(u"LastDocSent");
const UnicodeString StaticDefs::REQ_PARSE_RESULT(u"ParseResult");
const UnicodeString StaticDefs::REQ_OPEN_COLLECTION(u"OpenCollection");
const UnicodeString StaticDefs::REQ_CLOSE_COLLECTION(u"CloseCollection");
const UnicodeString StaticDefs::REQ_SELECTIVITY(u"Selectivity");
const UnicodeString StaticDefs::REQ_GET_STATUS(u"GetStatus");
const UnicodeString StaticDefs::REQ_BACKUP(u"Backup");
const UnicodeString StaticDefs::REQ_RESTORE(u"Restore");
const UnicodeString StaticDefs::REQ_TAKEOVER(u"Takeover");
const UnicodeString StaticDefs::REQ_SHUTDOWN(u"Shutdown");
const UnicodeString StaticDefs::REQ_SCALAR_SEARCH(u"ScalarSearch");
const UnicodeString StaticDefs::REQ_GET_SERVER_VERSION(u"GetServerVersion");

const UnicodeString StaticDefs::ACT_UNKNOWN(u"unknown");
const UnicodeString StaticDefs::ACT_UPDATE(u"update");
const UnicodeString StaticDefs::ACT_MONITOR(u"monitor");
const UnicodeString StaticDefs::ACT_SELECT(u"select");
const UnicodeString StaticDefs::ACT_ADMIN(u"admin");

const UnicodeString StaticDefs::COLON_SPACE(u": ");
const UnicodeString StaticDefs::NEWLINE(u"\n");
const UnicodeString StaticDefs::QUESTIONMARK(u"?");
const UnicodeString StaticDefs::AMPERSAND(u"&");
const UnicodeString StaticDefs::EQUALS(u"=");

}  // namespace tq::comm
