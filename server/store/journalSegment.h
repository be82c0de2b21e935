#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "server/store/change.h"
#include "server/store/files.h"

namespace corvaned {

// The entries of a journal's segments. Two forms are read and one is written:
//
//     0   4  "KRJ2"
//     4   4  length of the payload, big-endian
//     8   4  CRC-32 of the payload
//     12  8  sequence number: 1 for the journal's first change, then one more per change
//     20  8  the highest sequence number that was known to be on disk when this was written
//     28  4  CRC-32 of the header so far
//     32     payload: kind (1 byte), then texts with 4-byte lengths: the key, the number of
//            metadata pairs and their names and values, the content
//
// The payload of a batch goes on, after the kind, with the batch's name, its digest, the number of
// deletions that found nothing, and the new mark; then with the number of documents, each as above
// from the key on, and with the number of deletions and their keys.
//
// The header's own checksum says where the next entry begins although this one's payload is
// damaged, and the second number which earlier entries were acknowledged for certain.
//
// Earlier versions wrote "KRJ1", without numbers: the payload begins at byte 12.

/// How many bytes come before the payload.
inline constexpr std::size_t kEntryHeaderBytes = 32;

/// An entry that still lacks its numbers. Everything that takes long for a large document is done
/// here, so that the journal's lock need not be held for it.
std::string encodeEntry(const Change& change);

/// Gives the entry its numbers.
void numberEntry(std::string& entry, std::uint64_t sequence, std::uint64_t durable);

/// The next piece of a segment.
struct SegmentPiece {
  enum class Kind {
    Change,
    /// Begins as a change and is not one: cut off, or damaged.
    BadChange,
    /// The beginning of a change cannot be recognized here.
    Unknown,
  };
  Kind kind = Kind::Unknown;
  std::uint64_t place = 0;
  std::uint64_t bytes = 0;
  /// From the header, which is whole; none in the earlier form.
  std::optional<std::uint64_t> sequence;
  std::uint64_t durable = 0;
  /// The file ends before the piece does.
  bool cut = false;
  /// Of a bad change only the key, if it can be read; it may be wrong.
  Change change;
};

/// Reads a segment, damaged or not, from byte `from` to its end. Throws
/// ServerError(StorageFailed) if the file cannot be read.
class SegmentReader {
 public:
  explicit SegmentReader(const std::filesystem::path& path, std::uint64_t from = 0);

  /// Nothing at the end of the file.
  std::optional<SegmentPiece> next();

  std::uint64_t size() const { return size_; }

 private:
  std::optional<SegmentPiece> numbered();
  std::optional<SegmentPiece> earlier();
  SegmentPiece unknown();
  bool isCutOff();
  bool changeBegins();
  void skipToNextCandidate();
  std::optional<std::string_view> peek(std::uint64_t count);
  void fill(std::uint64_t count);
  void skip(std::uint64_t count);
  std::uint64_t left() const { return size_ - position_; }

  std::filesystem::path path_;
  FileHandle file_;
  std::uint64_t size_;
  std::uint64_t position_ = 0;
  std::string buffer_;
  std::size_t start_ = 0;
};

}  // namespace corvaned
