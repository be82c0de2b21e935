#include "server/front/documentBlock.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "server/base/bytes.h"
#include "server/base/errors.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

using TextPair = std::pair<std::string_view, std::string_view>;

// The reserved word, and that of how many bytes follow.
constexpr std::size_t kLengthWords = 8;
constexpr std::uint32_t kLengthMask = 0x3FFFFFFFU;

[[noreturn]] void refuse(const std::string& why) {
  throw ServerError(ErrorKind::BadDocument, "the document block cannot be read: " + why);
}

[[noreturn]] void refuseMetadata() {
  throw ServerError(ErrorKind::BadDocument,
                    fmt::format("the document has more than {} pairs of metadata", kMaxMetadata));
}

std::string_view takeText(ByteReader& reader) {
  const auto length = reader.u32();
  if (!length) refuse("it ends inside a length");
  const auto text = reader.take(*length & kLengthMask);
  if (!text) refuse("a text is longer than the rest of the block");
  return *text;
}

std::vector<TextPair> takePairs(ByteReader& reader) {
  // The key and the content are pairs, too.
  constexpr std::size_t kMaxPairs = kMaxMetadata + 2;
  std::vector<TextPair> pairs;
  while (!reader.empty()) {
    if (pairs.size() == kMaxPairs) refuseMetadata();
    const std::string_view name = takeText(reader);
    if (reader.empty()) refuse("the last name has no value");
    pairs.emplace_back(name, takeText(reader));
  }
  return pairs;
}

std::string takeKey(std::vector<TextPair>& pairs) {
  if (pairs.empty() || pairs.back().first != words().rowId) refuse("it does not end with a key");
  const std::string_view key = pairs.back().second;
  pairs.pop_back();
  if (key.empty()) throw ServerError(ErrorKind::BadDocument, "the document's key is empty");
  if (key.size() > kMaxKeyBytes) {
    throw ServerError(ErrorKind::BadDocument,
                      fmt::format("the document's key has {} bytes, more than the {} allowed",
                                  key.size(), kMaxKeyBytes));
  }
  return std::string(key);
}

// The bytes of the first block. Takes whatever is there if it is not whole.
std::string_view firstBlock(std::string_view bytes) {
  ByteReader reader(bytes);
  reader.u32();
  const std::uint32_t following = reader.u32().value_or(0);
  return bytes.substr(
      0, bytes.size() - reader.remaining() + std::min<std::size_t>(following, reader.remaining()));
}

/// Sorts the blocks of a batch.
class BatchParser {
 public:
  explicit BatchParser(BatchBlocks& batch) : batch_(batch) {}

  void take(std::string_view block) {
    ++number_;
    std::string key;
    try {
      DocumentBlock parsed = parseDocumentBlock(std::string(block));
      key = parsed.document.key;
      if (parsed.terminate) return beginDeletions();
      if (!keys_.insert(key).second) refuseDocument("an earlier one has the same key");
      if (!deleting_) return batch_.documents.push_back(std::move(parsed.document));
      if (!parsed.document.content.empty()) refuseDocument("it is to be deleted and has content");
      batch_.deletions.push_back(std::move(key));
    } catch (const ServerError& error) {
      batch_.refused.add({std::move(key), std::string(messageId(error.kind())),
                          fmt::format("block {}: {}", number_, error.what())});
    }
  }

 private:
  [[noreturn]] static void refuseDocument(const char* why) {
    throw ServerError(ErrorKind::BadDocument, why);
  }

  void beginDeletions() {
    if (deleting_) refuseDocument("there is a second end-of-documents record");
    deleting_ = true;
  }

  BatchBlocks& batch_;
  std::set<std::string> keys_;
  std::size_t number_ = 0;
  bool deleting_ = false;
};

Document takeDocument(std::string_view block, std::size_t number) {
  try {
    DocumentBlock parsed = parseDocumentBlock(std::string(block));
    if (!parsed.terminate) return std::move(parsed.document);
    throw ServerError(ErrorKind::BadDocument, "it has no document");
  } catch (const ServerError& error) {
    throw ServerError(error.kind(), fmt::format("document {}: {}", number, error.what()));
  }
}

}  // namespace

DocumentBlock parseDocumentBlock(std::string bytes) {
  ByteReader reader(bytes);
  const auto reserved = reader.u32();
  const auto following = reader.u32();
  if (!reserved || !following) refuse("it is shorter than its two length words");
  if (*following != reader.remaining()) {
    refuse(fmt::format("it announces {} bytes and holds {}", *following, reader.remaining()));
  }
  DocumentBlock block;
  block.terminate = *following == 0;
  if (block.terminate) return block;
  std::vector<TextPair> pairs = takePairs(reader);
  std::size_t contentSize = 0;
  if (!pairs.empty() && pairs.back().first == words().data) {
    contentSize = pairs.back().second.size();
    pairs.pop_back();
  }
  block.document.key = takeKey(pairs);
  if (pairs.size() > kMaxMetadata) refuseMetadata();
  block.document.metadata.reserve(pairs.size());
  for (const auto& [name, value] : pairs) block.document.metadata.emplace_back(name, value);
  bytes.erase(0, bytes.size() - contentSize);
  block.document.content = std::move(bytes);
  return block;
}

std::string keyInBlock(std::string_view block) {
  ByteReader reader(block);
  const auto take = [&] {
    const auto length = reader.u32();
    return length ? reader.take(*length & kLengthMask) : std::nullopt;
  };
  reader.take(kLengthWords);
  std::string_view key;
  for (auto name = take(), value = take(); name && value; name = take(), value = take()) {
    if (*name == words().rowId) key = value->substr(0, kMaxKeyBytes);
  }
  return std::string(key);
}

std::string documentPrefix(const Document& document) {
  std::string prefix(kLengthWords, '\0');
  const auto appendLength = [&](std::string_view text) {
    appendU32(prefix, static_cast<std::uint32_t>(text.size()));
  };
  const auto append = [&](std::string_view text) {
    appendLength(text);
    prefix += text;
  };
  for (const auto& [name, value] : document.metadata) {
    append(name);
    append(value);
  }
  append(words().rowId);
  append(document.key);
  if (!document.content.empty()) {
    append(words().data);
    appendLength(document.content);
  }
  std::string lengths;
  appendU32(lengths, 0);
  appendU32(lengths,
            static_cast<std::uint32_t>(prefix.size() - kLengthWords + document.content.size()));
  return prefix.replace(0, lengths.size(), lengths);
}

std::vector<Document> parseDocumentBlocks(std::string_view bytes) {
  std::vector<Document> documents;
  std::set<std::string> keys;
  while (!bytes.empty()) {
    const std::string_view block = firstBlock(bytes);
    documents.push_back(takeDocument(block, documents.size() + 1));
    bytes.remove_prefix(block.size());
    if (keys.insert(documents.back().key).second) continue;
    throw ServerError(
        ErrorKind::BadDocument,
        fmt::format("document {}: an earlier one has the same key", documents.size()));
  }
  return documents;
}

BatchBlocks parseBatchBlocks(std::string_view bytes) {
  BatchBlocks batch;
  BatchParser parser(batch);
  while (!bytes.empty()) {
    const std::string_view block = firstBlock(bytes);
    parser.take(block);
    // Where the next one begins is not known.
    if (block.size() < kLengthWords) break;
    bytes.remove_prefix(block.size());
  }
  return batch;
}

}  // namespace corvaned
