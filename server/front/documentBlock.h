#pragma once

#include <string>

#include "server/store/store.h"

namespace corvaned {

/// What stands behind the header block of a request that carries a document.
///
///     0  4  reserved
///     4  4  T, the number of bytes that follow
///     8  T  pairs of texts, each a 4-byte length (its two top bits carry nothing) and bytes:
///           the metadata, then "rowId" and the key, then, for a document with content, "data" and
///           the content
///
/// A block with T = 0 says that no more documents follow.
struct DocumentBlock {
  bool terminate = false;
  Document document;
};

/// Decodes a whole block. Throws ServerError(badDocument) saying what is wrong. The content, which
/// is the block's end, stays in the memory that `bytes` brought.
DocumentBlock parseDocumentBlock(std::string bytes);

/// Longest key that can be stored, in bytes.
constexpr std::size_t kMaxKeyBytes = 128;

}  // namespace corvaned
