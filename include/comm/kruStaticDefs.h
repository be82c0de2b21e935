#pragma once

#include <unicode/unistr.h>

#include <cstdint>

#include "infra/oss/kruExport.h"

namespace tq::comm {

/// Every word that goes over the wire or is compared against a reply. Literals are exact, blanks
/// and bare line feeds included. Built before the host's own static objects, also when the library
/// is linked statically, and read-only afterwards: any thread and any static constructor may use
/// them.
class KRU_EXPORT StaticDefs {
 public:
  StaticDefs() = delete;

  /// The longest result string, in bytes.
  static constexpr std::uint64_t MAX_RES_LEN = 8192;
  /// The longest document key that a server accepts, in bytes. Nothing here enforces it.
  static constexpr std::uint64_t MAX_KEY_LENGTH = 128;

  // Request parameters: names of a request's properties, sent as header names.
  static const icu::UnicodeString PARAM_COLLECTION_ID;
  static const icu::UnicodeString PARAM_DOCUMENT_ID;
  static const icu::UnicodeString PARAM_ROWID;
  static const icu::UnicodeString PARAM_DOCDATA;
  static const icu::UnicodeString PARAM_DISPLAY_NAME;
  static const icu::UnicodeString PARAM_COLLECTION_DIR;
  static const icu::UnicodeString PARAM_COLLECTION_NAME;
  static const icu::UnicodeString PARAM_ACTION;
  static const icu::UnicodeString PARAM_CONN_PERSIST;
  static const icu::UnicodeString PARAM_ACTION_TYPE;
  static const icu::UnicodeString PARAM_DOCING_USEQUEUE;
  static const icu::UnicodeString PARAM_SEARCH_MODE;
  static const icu::UnicodeString PARAM_RESP_FORMAT;
  static const icu::UnicodeString PARAM_AUTHENTICATION_TOKEN;
  static const icu::UnicodeString PARAM_AUTHENTICATION;
  static const icu::UnicodeString PARAM_DOCUMENT_TYPE;
  static const icu::UnicodeString PARAM_OPCODE;
  static const icu::UnicodeString PARAM_SCOPE;
  static const icu::UnicodeString PARAM_COL_CONFIG;
  static const icu::UnicodeString PARAM_COL_DATA;
  static const icu::UnicodeString PARAM_INCREMENTAL;
  static const icu::UnicodeString PARAM_CHECK_VER;
  static const icu::UnicodeString PARAM_DB_NAME;
  static const icu::UnicodeString PARAM_TAB_NAME;
  static const icu::UnicodeString PARAM_TAB_UID;
  static const icu::UnicodeString PARAM_TAB_PASSWORD;
  static const icu::UnicodeString PARAM_DB_HOST;
  static const icu::UnicodeString PARAM_DB_PORT;
  static const icu::UnicodeString PARAM_START_OFFSET;
  static const icu::UnicodeString PARAM_SEARCH_SIZE;
  static const icu::UnicodeString PARAM_QUERY;
  static const icu::UnicodeString PARAM_PROTO_VER;
  static const icu::UnicodeString PARAM_LANGUAGE;
  static const icu::UnicodeString PARAM_FALLBACK_LANGUAGE;
  static const icu::UnicodeString PARAM_KNOWN_LANGUAGE;
  static const icu::UnicodeString PARAM_KNOWN_DOCUMENT_TYPE;
  static const icu::UnicodeString PARAM_KNOWN_CHARSET;
  static const icu::UnicodeString PARAM_MIME_TYPE;
  static const icu::UnicodeString PARAM_EXTENSION;
  static const icu::UnicodeString PARAM_CHARSET;
  static const icu::UnicodeString PARAM_DATA_SOURCE_TYPE;
  static const icu::UnicodeString PARAM_DATA_SOURCE_NAME;
  static const icu::UnicodeString PARAM_CLIENT_LOCALE;
  static const icu::UnicodeString PARAM_QUERY_LANGUAGE;
  static const icu::UnicodeString PARAM_SCORE_TYPE;
  static const icu::UnicodeString PARAM_RESULT_LIMIT;
  static const icu::UnicodeString PARAM_SCORE_WANTED;
  static const icu::UnicodeString PARAM_SORT_FIELD;
  static const icu::UnicodeString PARAM_PAGE_NUMBER;

  // Parameter values.
  static const icu::UnicodeString PARAM_CONTENT_TYPE_UNDEF;
  static const icu::UnicodeString PARAM_CONTENT_TYPE_TEXT;
  static const icu::UnicodeString PARAM_CONTENT_TYPE_XML;
  static const icu::UnicodeString PARAM_CONTENT_TYPE_BIN;
  static const icu::UnicodeString PARAM_CONTENT_TYPE_UNKNOWN;
  static const icu::UnicodeString PARAM_KNOWN_CHARSET_UTF8;
  static const icu::UnicodeString PARAM_INDEXABLE_METADATA_PREFIX;
  static const icu::UnicodeString PARAM_SORTABLE_METADATA_PREFIX;
  static const icu::UnicodeString PARAM_DEFAULT_LANGUAGE;
  static const icu::UnicodeString PARAM_SORT_BY_SCORE;
  static const icu::UnicodeString PARAM_UNSORTED;
  static const icu::UnicodeString PARAM_SEARCH_MODE_SCALAR;
  static const icu::UnicodeString PARAM_SEARCH_MODE_SELECTIVITY;
  static const icu::UnicodeString PARAM_SEARCH_MODE_STREAMING;
  static const icu::UnicodeString PARAM_RESP_FORMAT_RDX;
  static const icu::UnicodeString PARAM_COLLECTION_SCOPE;
  static const icu::UnicodeString PARAM_SYSTEM_SCOPE;
  static const icu::UnicodeString PARAM_AUTH_BASIC;
  static const icu::UnicodeString STRING_true;
  static const icu::UnicodeString STRING_false;
  static const icu::UnicodeString STRING_empty;
  static const icu::UnicodeString DOC;

  // The versions of protocol, client and server.
  static const icu::UnicodeString PROTO_VERSION;
  static const icu::UnicodeString VERSION_BUILD_SEPARATOR;
  static const icu::UnicodeString IMPLEMENTATION_VERSION;
  static const icu::UnicodeString VERSIONS_SEPARATOR;
  static const icu::UnicodeString SUPPORTED_SERVER_VERSIONS;
  static const icu::UnicodeString SUPPORTED_CLIENT_VERSIONS;

  // Message ids of RESTException; each literal is the member's own name.
  static const icu::UnicodeString ERR_CONNECT_SERVER;
  static const icu::UnicodeString ERR_SERVER_PROTOCOL;
  static const icu::UnicodeString ERR_SERVER_APP;
  static const icu::UnicodeString ERR_SERVER_INVALID_AUTH;
  static const icu::UnicodeString ERR_CLIENT_RESP_PARSING;
  static const icu::UnicodeString ERR_CLIENT_INTERNAL;
  static const icu::UnicodeString ERR_INVALID_STATE;
  static const icu::UnicodeString ERR_SERVER_COMM_RECV;
  static const icu::UnicodeString ERR_SERVER_COMM_SEND;
  static const icu::UnicodeString ERR_SERVER_COMM_TIMEOUT;
  static const icu::UnicodeString ERR_CLIENT_CANCELLED;

  // HTTP pieces. The encoder writes HTTP_CONTENT_LEN and CRLF, the reply parser reads the RESP_
  // members; the others are for callers that write a request line before the headers themselves.
  static const icu::UnicodeString RESP_TRANSFER_ENCODING;
  static const icu::UnicodeString RESP_TRANSFER_ENCODING_CHUNK;
  static const icu::UnicodeString RESP_CONTENT_LENGTH;
  static const icu::UnicodeString PARAM_HTTP_HOST;
  static const icu::UnicodeString HTTP_11;
  static const icu::UnicodeString HTTP_10;
  static const icu::UnicodeString HTTP_POST;
  static const icu::UnicodeString HTTP_GET;
  static const icu::UnicodeString HTTP_DELETE;
  static const icu::UnicodeString HTTP_CONTENT_LEN;
  static const icu::UnicodeString CRLF;

  // Display names of the request kinds.
  static const icu::UnicodeString REQ_CREATE_COLLECTION;
  static const icu::UnicodeString REQ_DROP_COLLECTION;
  static const icu::UnicodeString REQ_UPDATE_INDEX;
  static const icu::UnicodeString REQ_DELETE_DOCUMENT;
  static const icu::UnicodeString REQ_STREAM_SEARCH;
  static const icu::UnicodeString REQ_ASYNCH_ADD_DOCUMENT;
  static const icu::UnicodeString REQ_LAST_DOC_SENT;
  static const icu::UnicodeString REQ_PARSE_RESULT;
  static const icu::UnicodeString REQ_OPEN_COLLECTION;
  static const icu::UnicodeString REQ_CLOSE_COLLECTION;
  static const icu::UnicodeString REQ_SELECTIVITY;
  static const icu::UnicodeString REQ_GET_STATUS;
  static const icu::UnicodeString REQ_BACKUP;
  static const icu::UnicodeString REQ_RESTORE;
  static const icu::UnicodeString REQ_TAKEOVER;
  static const icu::UnicodeString REQ_SHUTDOWN;
  static const icu::UnicodeString REQ_SCALAR_SEARCH;
  static const icu::UnicodeString REQ_GET_SERVER_VERSION;

  // Action types.
  static const icu::UnicodeString ACT_UNKNOWN;
  static const icu::UnicodeString ACT_UPDATE;
  static const icu::UnicodeString ACT_MONITOR;
  static const icu::UnicodeString ACT_SELECT;
  static const icu::UnicodeString ACT_ADMIN;

  // Punctuation.
  static const icu::UnicodeString COLON_SPACE;
  static const icu::UnicodeString NEWLINE;
  static const icu::UnicodeString QUESTIONMARK;
  static const icu::UnicodeString AMPERSAND;
  static const icu::UnicodeString EQUALS;
};

/// The two values of PARAM_SCORE_TYPE.
static const icu::UnicodeString PARAM_RAW_SCORE_TYPE(u"raw");
static const icu::UnicodeString PARAM_NORMALIZED_SCORE_TYPE(u"normalized");

}  // namespace tq::comm
