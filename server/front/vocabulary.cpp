#include "server/front/vocabulary.h"

#include <unicode/unistr.h>

#include "comm/kruStaticDefs.h"

namespace corvaned {
namespace {

using Defs = tq::comm::StaticDefs;

std::string utf8(const icu::UnicodeString& text) {
  std::string bytes;
  return text.toUTF8String(bytes);
}

void addNames(Words& words) {
  words.action = utf8(Defs::PARAM_ACTION);
  words.actionType = utf8(Defs::PARAM_ACTION_TYPE);
  words.authorization = utf8(Defs::PARAM_AUTHENTICATION);
  words.collection = utf8(Defs::PARAM_COLLECTION_ID);
  words.collectionName = utf8(Defs::PARAM_COLLECTION_NAME);
  words.contentLength = utf8(Defs::HTTP_CONTENT_LEN);
  words.connectionPersists = utf8(Defs::PARAM_CONN_PERSIST);
  words.protocolVersion = utf8(Defs::PARAM_PROTO_VER);
  words.replyFormat = utf8(Defs::PARAM_RESP_FORMAT);
  words.locale = utf8(Defs::PARAM_CLIENT_LOCALE);
  words.scope = utf8(Defs::PARAM_SCOPE);
  words.query = utf8(Defs::PARAM_QUERY);
  words.mode = utf8(Defs::PARAM_SEARCH_MODE);
  words.start = utf8(Defs::PARAM_START_OFFSET);
  words.size = utf8(Defs::PARAM_SEARCH_SIZE);
  words.resultLimit = utf8(Defs::PARAM_RESULT_LIMIT);
  words.scoreWanted = utf8(Defs::PARAM_SCORE_WANTED);
  words.scoreType = utf8(Defs::PARAM_SCORE_TYPE);
  words.sortField = utf8(Defs::PARAM_SORT_FIELD);
  words.match = "match";
  words.after = "after";
  words.upTo = "upTo";
  words.exactHits = "exactHits";
  words.report = "report";
  words.every = "every";
  words.values = "values";
  words.snippet = "snippet";
  words.searchAfter = "searchAfter";
  words.alsoIn = "alsoIn";
  words.language = utf8(Defs::PARAM_LANGUAGE);
  words.refresh = "refresh";
  words.batch = "batch";
  words.expectedMark = "expectedMark";
  words.newMark = "newMark";
  words.mustExist = "mustExist";
  words.client = "client";
  words.keys = "keys";
  words.storeText = "storeText";
  words.storePositions = "storePositions";
  words.stemming = "stemming";
  words.searchableMetadata = "searchableMetadata";
  words.stopWords = "stopWords";
  words.backup = "backup";
  words.from = "from";
  words.replace = "replace";
  words.documentType = utf8(Defs::PARAM_DOCUMENT_TYPE);
  words.knownDocumentType = utf8(Defs::PARAM_KNOWN_DOCUMENT_TYPE);
  words.charset = utf8(Defs::PARAM_CHARSET);
  words.knownCharset = utf8(Defs::PARAM_KNOWN_CHARSET);
  words.mimeType = utf8(Defs::PARAM_MIME_TYPE);
  words.useQueue = utf8(Defs::PARAM_DOCING_USEQUEUE);
  words.incremental = utf8(Defs::PARAM_INCREMENTAL);
  words.implementationVersion = utf8(Defs::IMPLEMENTATION_VERSION);
  words.supportedServerVersions = utf8(Defs::SUPPORTED_SERVER_VERSIONS);
  words.versionsSeparator = utf8(Defs::VERSIONS_SEPARATOR);
  words.buildSeparator = utf8(Defs::VERSION_BUILD_SEPARATOR);
}

void addValues(Words& words) {
  words.modeScalar = utf8(Defs::PARAM_SEARCH_MODE_SCALAR);
  words.modeStreaming = utf8(Defs::PARAM_SEARCH_MODE_STREAMING);
  words.modeSelectivity = utf8(Defs::PARAM_SEARCH_MODE_SELECTIVITY);
  words.yes = utf8(Defs::STRING_true);
  words.no = utf8(Defs::STRING_false);
  words.defaultLanguage = utf8(Defs::PARAM_DEFAULT_LANGUAGE);
  words.english = "en";
  words.americanEnglish = "en_US";
  words.protocol11 = utf8(Defs::PROTO_VERSION);
  words.formatRdx = utf8(Defs::PARAM_RESP_FORMAT_RDX);
  words.collectionScope = utf8(Defs::PARAM_COLLECTION_SCOPE);
  words.systemScope = utf8(Defs::PARAM_SYSTEM_SCOPE);
  words.text = utf8(Defs::PARAM_CONTENT_TYPE_TEXT);
  words.html = "html";
  words.xml = utf8(Defs::PARAM_CONTENT_TYPE_XML);
  words.undefinedType = utf8(Defs::PARAM_CONTENT_TYPE_UNDEF);
  words.plainText = "text/plain";
  words.htmlText = "text/html";
  words.xmlText = "text/xml";
  words.xmlApplication = "application/xml";
  words.utf8 = utf8(Defs::PARAM_KNOWN_CHARSET_UTF8);
  words.byScore = utf8(Defs::PARAM_SORT_BY_SCORE);
  words.byKey = "KEY";
  words.unsorted = utf8(Defs::PARAM_UNSORTED);
  words.oneDocument = "document";
  words.severalDocuments = "documents";
  words.collectionsReport = "collections";
  words.collectionReport = "collection";
  words.countReport = "count";
  words.digestReport = "digest";
  words.hitsReport = "hits";
  words.all = "all";
  words.marked = "marked";
  words.backupsReport = "backups";
  words.placeReport = "place";
  words.begin = "begin";
  words.actionUnknown = utf8(Defs::ACT_UNKNOWN);
  words.actionUpdate = utf8(Defs::ACT_UPDATE);
  words.actionMonitor = utf8(Defs::ACT_MONITOR);
  words.actionSelect = utf8(Defs::ACT_SELECT);
  words.actionAdmin = utf8(Defs::ACT_ADMIN);
}

void addFields(Words& words) {
  words.rowId = utf8(Defs::PARAM_ROWID);
  words.data = utf8(Defs::PARAM_DOCDATA);
  words.doc = utf8(Defs::DOC);
  words.replyContentLength = utf8(Defs::RESP_CONTENT_LENGTH);
  words.transferEncoding = utf8(Defs::RESP_TRANSFER_ENCODING);
  words.chunked = utf8(Defs::RESP_TRANSFER_ENCODING_CHUNK);
}

Words makeWords() {
  Words words;
  addNames(words);
  addValues(words);
  addFields(words);
  return words;
}

}  // namespace

const Words& words() {
  static const Words instance = makeWords();
  return instance;
}

bool isHeaderName(std::string_view name) {
  const Words& w = words();
  for (const std::string* word :
       {&w.action, &w.authorization, &w.collection, &w.collectionName, &w.contentLength, &w.query,
        &w.mode, &w.start, &w.size, &w.resultLimit, &w.scoreWanted, &w.scoreType, &w.language,
        &w.refresh}) {
    if (name == *word) return true;
  }
  return false;
}

}  // namespace corvaned
