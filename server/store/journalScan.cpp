#include "server/store/journalScan.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <utility>

#include "server/base/errors.h"
#include "server/store/directory.h"
#include "server/store/indexSums.h"
#include "server/store/journalTail.h"

namespace corvaned {
namespace {

using Kind = SegmentPiece::Kind;

constexpr std::string_view kFilePrefix = "journal-";

std::string numbers(std::uint64_t first, std::uint64_t last) {
  return first == last ? fmt::format("change {}", first)
                       : fmt::format("changes {} to {}", first, last);
}

}  // namespace

std::filesystem::path segmentPath(const std::filesystem::path& directory, std::uint64_t number) {
  return directory / fmt::format("{}{:010}", kFilePrefix, number);
}

JournalRange JournalContents::range() const {
  return {mark ? mark->range().first : 1, lastSequence,
          segments.empty() ? 1 : segments.back().number};
}

std::optional<JournalFault> misfitOf(const std::filesystem::path& directory,
                                     const JournalRange& journal, std::uint64_t indexed) {
  if (indexed + 1 < journal.first) {
    return JournalFault{{IndexSums::pathIn(directory), 0,
                         fmt::format("the index has the changes up to number {}, and the journal "
                                     "begins with number {}: the index is older than the journal",
                                     indexed, journal.first)},
                        indexed + 1,
                        journal.first - 1,
                        {}};
  }
  if (journal.last >= indexed) return std::nullopt;
  return JournalFault{{segmentPath(directory, journal.segment), 0,
                       fmt::format("the journal ends with change number {}, and the index has the "
                                   "changes up to number {}: the journal is older than the index",
                                   journal.last, indexed)},
                      0,
                      0,
                      {}};
}

JournalScan::JournalScan(std::filesystem::path directory, ChangeVisitor onChange,
                         FaultVisitor onFault)
    : directory_(std::move(directory)),
      onChange_(std::move(onChange)),
      onFault_(std::move(onFault)) {}

JournalContents JournalScan::run() {
  openMark();
  const std::vector<std::uint64_t> numbersOnDisk = segmentsOnDisk();
  path_ = segmentPath(directory_, numbersOnDisk.empty() ? 1 : numbersOnDisk.front());
  for (const std::uint64_t number : numbersOnDisk) {
    readSegment(number, number == numbersOnDisk.back());
  }
  if (reached() < durable()) {
    report(end_, numbers(reached() + 1, durable()) + " missing", reached() + 1, durable());
  }
  contents_.lastSequence = std::max(reached(), durable());
  return std::move(contents_);
}

void JournalScan::openMark() {
  path_ = JournalMark::pathIn(directory_);
  try {
    contents_.mark = JournalMark::open(directory_);
  } catch (const ServerError& error) {
    markUnreadable_ = true;
    onFault_({{path_, 512, "the numbers of the changes cannot be read"}, 0, 0, {}});
  }
  if (contents_.mark) range_ = contents_.mark->range();
}

std::vector<std::uint64_t> JournalScan::segmentsOnDisk() const {
  std::vector<std::uint64_t> found;
  DirectoryReader reader(directory_);
  while (const auto entry = reader.next()) {
    const std::string name = entry->path.filename().string();
    if (!name.starts_with(kFilePrefix)) continue;
    std::uint64_t number = 0;
    const char* end = name.data() + name.size();
    const auto parsed = std::from_chars(name.data() + kFilePrefix.size(), end, number);
    // The mark stands in the place of number 0.
    if (parsed.ec == std::errc{} && parsed.ptr == end && number > 0) found.push_back(number);
  }
  std::sort(found.begin(), found.end());
  return found;
}

void JournalScan::readSegment(std::uint64_t number, bool isLast) {
  path_ = segmentPath(directory_, number);
  end_ = 0;
  SegmentReader reader(path_);
  ScannedSegment segment{number, 0, 0, 0};
  while (auto piece = reader.next()) {
    if (isLast && piece->kind != Kind::Change && isUnfinished(*piece)) break;
    take(std::move(*piece), segment);
  }
  contents_.segments.push_back(segment);
}

// What cannot be read in the last segment is missed if it is known to have been on disk. The mark
// is not brought to disk by itself, and all changes of the last sync know the same: that they were
// on disk may be known nowhere when the machine has stopped. Then what is there must look like it.
bool JournalScan::isUnfinished(const SegmentPiece& piece) const {
  const std::uint64_t sequence = piece.sequence.value_or(reached() + 1);
  if (sequence <= durable()) return false;
  SegmentReader rest(path_, piece.place + piece.bytes);
  while (const auto later = rest.next()) {
    if (later->durable >= sequence) return false;
    if (!contents_.mark && later->kind == Kind::Change) return false;
  }
  // In the earlier form nothing else tells.
  return contents_.mark ? looksUnfinished(piece, path_) : piece.cut;
}

void JournalScan::take(SegmentPiece&& piece, ScannedSegment& segment) {
  end_ = piece.place;
  if (piece.kind != Kind::Unknown) checkSequence(piece);
  if (piece.kind != Kind::Change) return reportBad(piece);
  end_ = segment.bytes = piece.place + piece.bytes;
  if (piece.sequence) segment.lastSequence = *piece.sequence;
  segment.changes += changesIn(piece.change);
  onChange_(segment.number, std::move(piece.change));
}

void JournalScan::checkSequence(const SegmentPiece& piece) {
  if (!piece.sequence) {
    if (last_ != 0) report(piece.place, "a change without a number");
    return;
  }
  if (!contents_.mark && !std::exchange(markUnreadable_, true)) {
    onFault_({{JournalMark::pathIn(directory_), 0, "the file is missing"}, 0, 0, {}});
  }
  const std::uint64_t expected = reached() + 1;
  const bool begins = last_ == 0 && *piece.sequence <= range_.first;
  if (*piece.sequence > expected && !begins && contents_.mark) {
    report(piece.place, numbers(expected, *piece.sequence - 1) + " missing before it", expected,
           *piece.sequence - 1);
  } else if (last_ != 0 && *piece.sequence <= last_) {
    report(piece.place, fmt::format("change {} once more", *piece.sequence));
  }
  last_ = std::max(last_, *piece.sequence);
}

void JournalScan::reportBad(const SegmentPiece& piece) {
  if (!piece.sequence) return report(piece.place, "this is not a change");
  report(
      piece.place,
      numbers(*piece.sequence, *piece.sequence) + (piece.cut ? " is cut off" : " cannot be read"),
      *piece.sequence, *piece.sequence, piece.change.document.key);
}

void JournalScan::report(std::uint64_t place, const std::string& what, std::uint64_t firstLost,
                         std::uint64_t lastLost, const std::string& key) {
  onFault_({{path_, place, what}, firstLost, lastLost, key});
}

// The changes before the mark's first one were needed no more.
std::uint64_t JournalScan::reached() const { return std::max(last_, range_.first - 1); }
std::uint64_t JournalScan::durable() const { return range_.durable; }

}  // namespace corvaned
