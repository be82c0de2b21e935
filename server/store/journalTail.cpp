#include "server/store/journalTail.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "server/store/directory.h"
#include "server/store/files.h"

namespace corvaned {
namespace {

constexpr std::uint64_t kSector = 512;
constexpr std::uint64_t kSlice = 512 * kSector;
constexpr std::string_view kPrefix = "journal-dropped-";

// Numbers and empty texts give a change up to half as many zeros in a row by themselves.
constexpr std::uint64_t kLeastZeros = 32;

std::uint64_t zerosAtTheEnd(std::string_view bytes) {
  const std::size_t last = bytes.find_last_not_of('\0');
  return bytes.size() - (last == std::string_view::npos ? 0 : last + 1);
}

// Earlier versions take names with nothing but digits after "journal-" for segments.
std::filesystem::path unusedName(const std::filesystem::path& directory) {
  for (int number = 1;; ++number) {
    std::filesystem::path path = directory / fmt::format("{}{}", kPrefix, number);
    if (!std::filesystem::exists(path)) return path;
  }
}

std::uint64_t copyTail(const std::filesystem::path& segment, std::uint64_t from,
                       const std::filesystem::path& to) {
  const FileHandle source = openFile(segment, O_RDONLY);
  const FileHandle target = openFile(to, O_WRONLY | O_CREAT | O_TRUNC);
  std::uint64_t copied = 0;
  for (;;) {
    const std::string bytes = readAt(source, from + copied, kSlice, segment);
    if (bytes.empty()) break;
    writeAll(target, bytes, to);
    copied += bytes.size();
  }
  syncFile(target, to);
  return copied;
}

}  // namespace

bool looksUnfinished(const SegmentPiece& piece, const std::filesystem::path& segment) {
  const FileHandle file = openFile(segment, O_RDONLY);
  const std::uint64_t size = std::filesystem::file_size(segment);
  const std::uint64_t end = piece.place + piece.bytes;
  if (piece.cut || (end == size && piece.bytes < kEntryHeaderBytes)) return true;
  std::uint64_t slice = piece.place;
  while (slice < end) {
    // Up to the end of the last sector that the piece has a part of.
    const std::uint64_t next = std::min((slice / kSlice + 1) * kSlice, size);
    const std::string bytes = readAt(file, slice, next - slice, segment);
    for (std::uint64_t from = slice; from < std::min(end, next);) {
      const std::uint64_t to = std::min((from / kSector + 1) * kSector, next);
      const std::uint64_t zeros =
          zerosAtTheEnd(std::string_view(bytes).substr(from - slice, to - from));
      const bool isNothingElse = zeros == to - from;
      if ((zeros >= kLeastZeros || isNothingElse) && to - zeros < end) return true;
      from = to;
    }
    slice = next;
  }
  return false;
}

JournalTail setTailAside(const std::filesystem::path& segment, std::uint64_t from) {
  const std::filesystem::path directory = segment.parent_path();
  const std::filesystem::path passing = directory / "journal-dropped.new";
  JournalTail tail{unusedName(directory), 0, 0};
  try {
    tail.bytes = copyTail(segment, from, passing);
    std::filesystem::rename(passing, tail.file);
  } catch (...) {
    // On a full disk it would take the room that the next attempt needs.
    tryToRemoveTree(passing);
    throw;
  }
  syncDirectory(directory);
  SegmentReader reader(tail.file);
  while (const auto piece = reader.next()) {
    if (piece->kind == SegmentPiece::Kind::Change) tail.changes += changesIn(piece->change);
  }
  return tail;
}

bool isTailSetAside(std::string_view name) { return name.starts_with(kPrefix); }

std::vector<std::filesystem::path> tailsSetAsideIn(const std::filesystem::path& directory) {
  std::vector<std::filesystem::path> tails;
  DirectoryReader reader(directory);
  while (const auto entry = reader.next()) {
    if (isTailSetAside(entry->path.filename().string())) tails.push_back(entry->path);
  }
  std::sort(tails.begin(), tails.end());
  return tails;
}

}  // namespace corvaned
