#pragma once

#include <cstdint>
#include <filesystem>
#include <string_view>
#include <vector>

#include "server/store/journalSegment.h"

namespace corvaned {

// What follows the last whole change of a journal. A machine that stops in the middle of writing
// leaves sectors of its disk as they were: the file ends early, or what was appended to a sector
// is zeros up to the sector's end. A disk that damages what was whole leaves something else.

/// Whether the piece, which is not a change, looks like what a stop in the middle of writing
/// leaves. Throws ServerError(StorageFailed) if the file cannot be read.
bool looksUnfinished(const SegmentPiece& piece, const std::filesystem::path& segment);

/// What has been set aside of a segment.
struct JournalTail {
  std::filesystem::path file;
  std::uint64_t bytes = 0;
  /// How many changes in it are whole.
  std::uint64_t changes = 0;
};

/// Copies what the segment has from byte `from` on to a new file beside it, durably.
JournalTail setTailAside(const std::filesystem::path& segment, std::uint64_t from);

/// Whether a file of this name was made so.
bool isTailSetAside(std::string_view name);

/// The files that were made so, in order of their names. No program reads them.
std::vector<std::filesystem::path> tailsSetAsideIn(const std::filesystem::path& directory);

}  // namespace corvaned
