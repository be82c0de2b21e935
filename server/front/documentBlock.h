#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "server/store/store.h"

namespace corvaned {

/// What follows the header block of a request that carries a document.
///
///     0  4  reserved
///     4  4  T, the number of bytes that follow
///     8  T  pairs of texts, each a 4-byte length (its two top bits carry nothing) and bytes:
///           the metadata, then "rowId" and the key, then, for a document with content, "data" and
///           the content
///
/// A block with T = 0 announces that no more documents follow.
struct DocumentBlock {
  bool terminate = false;
  Document document;
};

/// Decodes a complete block. Throws ServerError(badDocument) that says what is wrong. The content
/// is moved, not copied: it stays in the memory of `bytes`.
DocumentBlock parseDocumentBlock(std::string bytes);

/// The key of the document, as far as it can be found in a block with whatever is wrong: cut to
/// what a key can have, and empty if there is none.
std::string keyInBlock(std::string_view block);

/// The document's block, as clients send it, up to the content with which it ends.
std::string documentPrefix(const Document& document);

/// Decodes blocks that stand back to back, each with a document. Throws as above, with the number
/// of the block that is wrong, counted from 1, and if two of the documents have the same key.
std::vector<Document> parseDocumentBlocks(std::string_view bytes);

/// What a batch consists of.
struct BatchBlocks {
  std::vector<Document> documents;
  /// The keys of documents to delete.
  std::vector<std::string> deletions;
  /// What of it is wrong.
  Refusals refused;
};

/// Decodes blocks that stand back to back: those of documents, and after an end-of-documents record
/// those of keys to delete. No key comes twice.
BatchBlocks parseBatchBlocks(std::string_view bytes);

/// Maximum length of a key in bytes.
constexpr std::size_t kMaxKeyBytes = 128;
/// Maximum number of metadata pairs. A pair takes 8 bytes when it is empty, and many times as much
/// once it is decoded.
constexpr std::size_t kMaxMetadata = 10000;

}  // namespace corvaned
