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

Words makeWords() {
  Words words;
  words.action = utf8(Defs::PARAM_ACTION);
  words.authorization = utf8(Defs::PARAM_AUTHENTICATION);
  words.collection = utf8(Defs::PARAM_COLLECTION_ID);
  words.collectionName = utf8(Defs::PARAM_COLLECTION_NAME);
  words.contentLength = utf8(Defs::HTTP_CONTENT_LEN);
  words.query = utf8(Defs::PARAM_QUERY);
  words.mode = utf8(Defs::PARAM_SEARCH_MODE);
  words.start = utf8(Defs::PARAM_START_OFFSET);
  words.size = utf8(Defs::PARAM_SEARCH_SIZE);
  words.resultLimit = utf8(Defs::PARAM_RESULT_LIMIT);
  words.scoreWanted = utf8(Defs::PARAM_SCORE_WANTED);
  words.scoreType = utf8(Defs::PARAM_SCORE_TYPE);
  words.language = utf8(Defs::PARAM_LANGUAGE);
  words.modeScalar = utf8(Defs::PARAM_SEARCH_MODE_SCALAR);
  words.modeStreaming = utf8(Defs::PARAM_SEARCH_MODE_STREAMING);
  words.yes = utf8(Defs::STRING_true);
  words.no = utf8(Defs::STRING_false);
  words.defaultLanguage = utf8(Defs::PARAM_DEFAULT_LANGUAGE);
  words.rowId = utf8(Defs::PARAM_ROWID);
  words.data = utf8(Defs::PARAM_DOCDATA);
  words.doc = utf8(Defs::DOC);
  words.replyContentLength = utf8(Defs::RESP_CONTENT_LENGTH);
  words.transferEncoding = utf8(Defs::RESP_TRANSFER_ENCODING);
  words.chunked = utf8(Defs::RESP_TRANSFER_ENCODING_CHUNK);
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
        &w.mode, &w.start, &w.size, &w.resultLimit, &w.scoreWanted, &w.scoreType, &w.language}) {
    if (name == *word) return true;
  }
  return false;
}

}  // namespace corvaned
