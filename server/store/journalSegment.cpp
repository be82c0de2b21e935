#include "server/store/journalSegment.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "server/base/bytes.h"
#include "server/store/checksum.h"

namespace corvaned {
namespace {

using Kind = SegmentPiece::Kind;

constexpr std::string_view kMagic = "KRJ2";
constexpr std::string_view kEarlierMagic = "KRJ1";
constexpr std::string_view kCommonMagic = "KRJ";
constexpr std::size_t kChecksumPlace = 8;
constexpr std::size_t kSequencePlace = 12;
constexpr std::size_t kDurablePlace = 20;
constexpr std::size_t kHeaderChecksumPlace = 28;
constexpr std::size_t kHeader = kEntryHeaderBytes;
constexpr std::size_t kEarlierHeader = 12;

// The lengths of its key and its content, and the number of its pairs.
constexpr std::size_t kLeastDocument = 12;
constexpr std::size_t kLeastText = 4;

// Each of those that are counted takes some bytes.
std::optional<std::uint32_t> takeCount(ByteReader& reader) {
  const auto count = reader.u32();
  return count && *count <= reader.remaining() ? count : std::nullopt;
}

bool takeDocument(ByteReader& reader, Document& document) {
  if (!takeText(reader, document.key)) return false;
  const auto pairs = takeCount(reader);
  if (!pairs) return false;
  for (std::uint32_t i = 0; i < *pairs; ++i) {
    auto& [name, value] = document.metadata.emplace_back();
    if (!takeText(reader, name) || !takeText(reader, value)) return false;
  }
  return takeText(reader, document.content);
}

bool takeBatch(ByteReader& reader, BatchEntry& batch) {
  if (!takeText(reader, batch.name) || !takeText(reader, batch.digest)) return false;
  const auto unknown = reader.u32();
  if (!unknown || !takeText(reader, batch.changes.newMark)) return false;
  batch.unknown = *unknown;
  const auto documents = takeCount(reader);
  if (!documents) return false;
  // Not more than there is room for, whatever a damaged entry says.
  batch.changes.documents.reserve(
      std::min<std::size_t>(*documents, reader.remaining() / kLeastDocument));
  for (std::uint32_t i = 0; i < *documents; ++i) {
    if (!takeDocument(reader, batch.changes.documents.emplace_back())) return false;
  }
  const auto deletions = takeCount(reader);
  if (!deletions) return false;
  batch.changes.deletions.reserve(
      std::min<std::size_t>(*deletions, reader.remaining() / kLeastText));
  for (std::uint32_t i = 0; i < *deletions; ++i) {
    if (!takeText(reader, batch.changes.deletions.emplace_back())) return false;
  }
  return true;
}

/// False if the payload ends early, or not where the change does; `change` then holds what came
/// before.
bool decodePayload(std::string_view payload, Change& change) {
  ByteReader reader(payload);
  const auto kind = reader.take(1);
  if (!kind) return false;
  change.kind = static_cast<ChangeKind>(kind->front());
  switch (change.kind) {
    case ChangeKind::Put:
    case ChangeKind::Remove:
      return takeDocument(reader, change.document) && reader.empty();
    case ChangeKind::Batch:
      change.batch = std::make_shared<BatchEntry>();
      return takeBatch(reader, *change.batch) && reader.empty();
  }
  return false;
}

void appendDocument(std::string& out, const Document& document) {
  appendText(out, document.key);
  appendU32(out, static_cast<std::uint32_t>(document.metadata.size()));
  for (const auto& [name, value] : document.metadata) {
    appendText(out, name);
    appendText(out, value);
  }
  appendText(out, document.content);
}

void appendBatch(std::string& out, const BatchEntry& batch) {
  appendText(out, batch.name);
  appendText(out, batch.digest);
  appendU32(out, batch.unknown);
  appendText(out, batch.changes.newMark);
  appendU32(out, static_cast<std::uint32_t>(batch.changes.documents.size()));
  for (const Document& document : batch.changes.documents) appendDocument(out, document);
  appendU32(out, static_cast<std::uint32_t>(batch.changes.deletions.size()));
  for (const std::string& key : batch.changes.deletions) appendText(out, key);
}

bool isWholeHeader(std::string_view header) {
  return header.starts_with(kMagic) && checksumOf(header.substr(0, kHeaderChecksumPlace)) ==
                                           loadU32(header.substr(kHeaderChecksumPlace));
}

void keepKeyOnly(Change& change) {
  constexpr std::size_t kLongestKey = 128;
  std::string key = std::move(change.document.key);
  change = {};
  if (key.size() <= kLongestKey) change.document.key = std::move(key);
}

}  // namespace

std::string encodeEntry(const Change& change) {
  std::string entry(kHeader, '\0');
  entry += static_cast<char>(change.kind);
  if (change.kind == ChangeKind::Batch) {
    appendBatch(entry, *change.batch);
  } else {
    appendDocument(entry, change.document);
  }
  const std::string_view payload = std::string_view(entry).substr(kHeader);
  std::string start(kMagic);
  appendU32(start, static_cast<std::uint32_t>(payload.size()));
  appendU32(start, checksumOf(payload));
  return entry.replace(0, start.size(), start);
}

void numberEntry(std::string& entry, std::uint64_t sequence, std::uint64_t durable) {
  std::string header = entry.substr(0, kSequencePlace);
  appendU64(header, sequence);
  appendU64(header, durable);
  appendU32(header, checksumOf(header));
  entry.replace(0, kHeader, header);
}

SegmentReader::SegmentReader(const std::filesystem::path& path, std::uint64_t from)
    : path_(path),
      file_(openFile(path, O_RDONLY)),
      size_(std::filesystem::file_size(path)),
      position_(std::min(from, size_)) {}

std::optional<SegmentPiece> SegmentReader::next() {
  if (left() == 0) return std::nullopt;
  auto piece = numbered();
  if (!piece) piece = earlier();
  return piece ? piece : unknown();
}

std::optional<SegmentPiece> SegmentReader::numbered() {
  const auto header = peek(kHeader);
  if (!header || !isWholeHeader(*header)) return std::nullopt;
  SegmentPiece piece;
  piece.place = position_;
  piece.sequence = loadU64(header->substr(kSequencePlace));
  piece.durable = loadU64(header->substr(kDurablePlace));
  const std::uint32_t checksum = loadU32(header->substr(kChecksumPlace));
  const std::uint64_t whole = kHeader + std::uint64_t{loadU32(header->substr(kMagic.size()))};
  piece.cut = whole > left();
  piece.bytes = std::min(whole, left());
  const auto bytes = peek(piece.bytes);
  if (!bytes) return std::nullopt;
  const std::string_view payload = bytes->substr(kHeader);
  const bool good =
      decodePayload(payload, piece.change) && !piece.cut && checksumOf(payload) == checksum;
  piece.kind = good ? Kind::Change : Kind::BadChange;
  if (!good) keepKeyOnly(piece.change);
  skip(piece.bytes);
  return piece;
}

std::optional<SegmentPiece> SegmentReader::earlier() {
  const auto header = peek(kEarlierHeader);
  if (!header || !header->starts_with(kEarlierMagic)) return std::nullopt;
  const std::uint32_t checksum = loadU32(header->substr(kChecksumPlace));
  SegmentPiece piece;
  piece.kind = Kind::Change;
  piece.place = position_;
  piece.bytes = kEarlierHeader + std::uint64_t{loadU32(header->substr(kEarlierMagic.size()))};
  const auto bytes = peek(piece.bytes);
  if (!bytes) return std::nullopt;
  const std::string_view payload = bytes->substr(kEarlierHeader);
  if (checksumOf(payload) != checksum || !decodePayload(payload, piece.change)) return std::nullopt;
  skip(piece.bytes);
  return piece;
}

// In the earlier form only this tells a change that is cut off: its length leads past the end of
// the file, and what is there of it is not complete.
bool SegmentReader::isCutOff() {
  constexpr std::uint64_t kLargestChange = std::uint64_t{1} << 28U;
  const auto header = peek(kEarlierHeader);
  if (!header) return true;
  const std::uint64_t rest = left() - kEarlierHeader;
  if (!header->starts_with(kEarlierMagic) || rest > kLargestChange ||
      loadU32(header->substr(kEarlierMagic.size())) <= rest) {
    return false;
  }
  const auto bytes = peek(left());
  Change change;
  return bytes && !decodePayload(bytes->substr(kEarlierHeader), change);
}

// Reaches to the next place where a change begins.
SegmentPiece SegmentReader::unknown() {
  SegmentPiece piece;
  piece.place = position_;
  piece.cut = isCutOff();
  skip(1);
  while (left() > 0 && !changeBegins()) skipToNextCandidate();
  piece.bytes = position_ - piece.place;
  return piece;
}

bool SegmentReader::changeBegins() {
  const std::uint64_t here = position_;
  if (!numbered() && !earlier()) return false;
  // next() returns it.
  start_ -= position_ - here;
  position_ = here;
  return true;
}

void SegmentReader::skipToNextCandidate() {
  constexpr std::uint64_t kWindow = std::uint64_t{1} << 16U;
  skip(1);
  const auto bytes = peek(std::min(left(), kWindow));
  if (!bytes) throwSystemError("cannot read", path_);
  const std::size_t found = bytes->find(kCommonMagic);
  if (found != std::string_view::npos) return skip(found);
  // The window may end within a magic; what is left of it is too short to be found.
  skip(bytes->size() - std::min(bytes->size(), left() > kWindow ? kCommonMagic.size() : 0));
}

std::optional<std::string_view> SegmentReader::peek(std::uint64_t count) {
  // Compared with the file's size first, so that a damaged length does not become an allocation.
  if (count > left()) return std::nullopt;
  if (buffer_.size() - start_ < count) fill(count);
  if (buffer_.size() - start_ < count) return std::nullopt;
  return std::string_view(buffer_).substr(start_, count);
}

void SegmentReader::fill(std::uint64_t count) {
  constexpr std::uint64_t kSlice = std::uint64_t{1} << 18U;
  buffer_.erase(0, std::exchange(start_, 0));
  while (buffer_.size() < count) {
    const std::size_t held = buffer_.size();
    buffer_.resize(std::max(held + kSlice, count));
    const ssize_t got = ::pread(file_.get(), buffer_.data() + held, buffer_.size() - held,
                                static_cast<off_t>(position_ + held));
    const int error = errno;
    buffer_.resize(held + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    errno = error;
    if (got < 0 && error != EINTR) throwSystemError("cannot read", path_);
    if (got == 0) return;
  }
}

void SegmentReader::skip(std::uint64_t count) {
  position_ += count;
  start_ += count;
  if (start_ <= buffer_.size()) return;
  buffer_.clear();
  start_ = 0;
}

}  // namespace corvaned
