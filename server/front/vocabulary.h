#pragma once

#include <string>
#include <string_view>

namespace corvaned {

/// The protocol's words in UTF-8, taken from the client library's vocabulary so that client and
/// server cannot spell them differently.
struct Words {
  // Header names.
  std::string action, authorization, collection, collectionName, contentLength, query, mode, start,
      size, resultLimit, scoreWanted, scoreType, language;
  // Values.
  std::string modeScalar, modeStreaming, yes, no, defaultLanguage;
  // Tags of a document block and names of record fields.
  std::string rowId, data, doc;
  // Names of reply headers.
  std::string replyContentLength, transferEncoding, chunked;
};

const Words& words();

/// Whether requests have a header of this name that means something to the server.
bool isHeaderName(std::string_view name);

}  // namespace corvaned
