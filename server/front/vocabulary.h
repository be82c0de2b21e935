#pragma once

#include <string>
#include <string_view>

namespace corvaned {

/// The protocol's words in UTF-8, taken from the client library's vocabulary so that client and
/// server cannot spell them differently.
struct Words {
  // Header names.
  std::string action, actionType, authorization, collection, collectionName, contentLength,
      connectionPersists, protocolVersion, replyFormat, locale, scope;
  std::string query, mode, start, size, resultLimit, scoreWanted, scoreType, sortField, match,
      after, upTo, exactHits, report, every, values, snippet, searchAfter, alsoIn;
  std::string language, documentType, knownDocumentType, charset, knownCharset, mimeType, useQueue,
      incremental;
  std::string implementationVersion, supportedServerVersions, versionsSeparator, buildSeparator;
  // Of this server only.
  std::string refresh, batch, expectedMark, newMark, mustExist, client, keys, storeText,
      storePositions, stemming, searchableMetadata, stopWords, backup, from, replace;
  // Values.
  std::string modeScalar, modeStreaming, modeSelectivity, yes, no, defaultLanguage, english,
      americanEnglish, protocol11, formatRdx, collectionScope, systemScope, text, html, xml,
      undefinedType, plainText, htmlText, xmlText, xmlApplication, utf8, byScore, byKey, unsorted,
      oneDocument, severalDocuments, collectionsReport, collectionReport, countReport, digestReport,
      hitsReport, all, marked, backupsReport, placeReport, begin;
  std::string actionUnknown, actionUpdate, actionMonitor, actionSelect, actionAdmin;
  // Tags of a document block and names of record fields.
  std::string rowId, data, doc;
  // Names of reply headers.
  std::string replyContentLength, transferEncoding, chunked;
};

const Words& words();

/// Whether requests have a header of this name that means something to the server.
bool isHeaderName(std::string_view name);

}  // namespace corvaned
