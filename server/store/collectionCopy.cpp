#include "server/store/collectionCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <utility>

#include "server/base/errors.h"
#include "server/store/directory.h"
#include "server/store/indexReplacement.h"
#include "server/store/indexSums.h"
#include "server/store/journalMark.h"
#include "server/store/journalTail.h"

namespace corvaned {
namespace {

constexpr std::uint64_t kSlice = 128 * std::uint64_t{kTableBlock};

bool isSegment(const std::string& name) {
  constexpr std::string_view kPrefix = "journal-";
  return name.starts_with(kPrefix) && name != JournalMark::pathIn({}) &&
         name.find_first_not_of("0123456789", kPrefix.size()) == std::string::npos;
}

void shorten(const FileHandle& file, std::uint64_t size, const std::filesystem::path& path) {
  if (std::filesystem::file_size(path) <= size) return;
  if (::ftruncate(file.get(), static_cast<off_t>(size)) != 0) {
    throwSystemError("cannot shorten", path);
  }
}

}  // namespace

CollectionCopy::CollectionCopy(std::filesystem::path source, std::filesystem::path target,
                               StopCheck stop)
    : source_(std::move(source)), target_(std::move(target)), stop_(std::move(stop)) {
  makeDirectory(target_);
  index_ = indexNow();
}

std::optional<std::uint64_t> CollectionCopy::copyAhead(const IndexRevisions& revisions,
                                                       const JournalExtent& journal) {
  const std::uint64_t before = copied_;
  copyTables();
  copyJournal(journal);
  revisions_ = revisions;
  if (dropEarlierIndex()) return std::nullopt;
  return copied_ - before;
}

void CollectionCopy::copyIndex() {
  dropEarlierIndex();
  copyAll(Kind::Table);
  copyAll(Kind::BesideTables);
}

// The mark need not have reached the last change yet. One of its slots may be in the middle of
// being written; then the other one counts.
void CollectionCopy::copyRest(const JournalExtent& journal) {
  removeSegmentsBut(journal);
  copyJournal(journal);
  copyAll(Kind::Other);
  if (const auto mark = JournalMark::open(target_)) mark->setDurable(journal.lastSequence);
}

CollectionCopy::Kind CollectionCopy::kindOf(const std::filesystem::path& name) {
  if (name.extension() == kTableSuffix && *name.begin() == IndexSums::kIndexDirectory) {
    return Kind::Table;
  }
  if (name.extension() == ".new" || isTailSetAside(name.string())) return Kind::Passing;
  if (name.has_parent_path()) return Kind::BesideTables;
  return isSegment(name.string()) ? Kind::Journal : Kind::Other;
}

// What is beside the index comes and goes while it is made anew.
bool CollectionCopy::isWalked(const std::filesystem::path& directory, Kind kind) const {
  if (kind == Kind::Table) return *directory.begin() == IndexSums::kIndexDirectory;
  return !IndexReplacement::isDispensable(source_, directory);
}

// 0 if it is not there. Two that follow each other exist at the same time, so they differ.
ino_t CollectionCopy::indexNow() const {
  struct stat now {};
  const std::filesystem::path path = source_ / IndexSums::kIndexDirectory;
  return ::stat(path.c_str(), &now) == 0 ? now.st_ino : 0;
}

// Returns whether another index has come.
bool CollectionCopy::dropEarlierIndex() {
  const ino_t now = indexNow();
  if (now == index_) return false;
  removeTree(target_ / IndexSums::kIndexDirectory);
  index_ = now;
  revisions_.clear();
  return true;
}

// Files of an index that makes room for another one go in the middle of the copying.
void CollectionCopy::copyTables() {
  try {
    copyAll(Kind::Table);
  } catch (const std::exception&) {
    stop_();
    if (indexNow() == index_) throw;
  }
}

void CollectionCopy::copyAll(Kind kind) {
  TreeReader reader(source_);
  while (const auto entry = reader.next()) {
    stop_();
    const std::filesystem::path name = entry->path.lexically_relative(source_);
    if (entry->isDirectory) {
      if (!isWalked(name, kind)) reader.skip();
    } else if (kindOf(name) == kind) {
      kind == Kind::Table ? copyTable(name) : copyWhole(name);
    }
  }
}

void CollectionCopy::copyTable(const std::filesystem::path& name) {
  const FileHandle from = openFile(source_ / name, O_RDONLY);
  const FileHandle to = openTarget(name);
  const std::uint64_t size = std::filesystem::file_size(source_ / name);
  const std::uint64_t known = std::filesystem::file_size(target_ / name);
  const std::uint64_t revision =
      revisionOf(revisions_, name.lexically_relative(IndexSums::kIndexDirectory));
  std::uint64_t place = 0;
  for (; place + kTableBlock <= std::min(known, size); place += kTableBlock) {
    if (blockRevisionAt(from, place, source_ / name) <= revision) continue;
    copyRange(from, to, name, place, place + kTableBlock);
  }
  copyRange(from, to, name, place, size);
  shorten(to, size, target_ / name);
}

void CollectionCopy::copyWhole(const std::filesystem::path& name) {
  if (!std::filesystem::is_regular_file(source_ / name)) {
    throw ServerError(ErrorKind::StorageFailed,
                      (source_ / name).string() + " is no plain file and cannot be copied");
  }
  const FileHandle from = openFile(source_ / name, O_RDONLY);
  const FileHandle to = openTarget(name);
  const std::uint64_t size = std::filesystem::file_size(source_ / name);
  copyRange(from, to, name, 0, size);
  shorten(to, size, target_ / name);
}

// A segment that is not there any more is in the index.
void CollectionCopy::copyJournal(const JournalExtent& journal) {
  for (const ScannedSegment& segment : journal.segments) {
    try {
      copySegment(segment);
    } catch (const ServerError&) {
      if (std::filesystem::exists(segmentPath(source_, segment.number))) throw;
    }
  }
}

void CollectionCopy::copySegment(const ScannedSegment& segment) {
  const std::filesystem::path path = segmentPath(source_, segment.number);
  const std::filesystem::path name = path.filename();
  const FileHandle from = openFile(path, O_RDONLY);
  const FileHandle to = openTarget(name);
  copyRange(from, to, name, std::filesystem::file_size(target_ / name), segment.bytes);
}

void CollectionCopy::removeSegmentsBut(const JournalExtent& journal) {
  std::set<std::filesystem::path> wanted;
  for (const ScannedSegment& segment : journal.segments) {
    wanted.insert(segmentPath(target_, segment.number));
  }
  std::set<std::filesystem::path> found;
  DirectoryReader reader(target_);
  while (auto entry = reader.next()) {
    if (isSegment(entry->path.filename().string())) found.insert(std::move(entry->path));
  }
  for (const std::filesystem::path& path : found) {
    if (!wanted.contains(path)) std::filesystem::remove(path);
  }
}

void CollectionCopy::copyRange(const FileHandle& from, const FileHandle& to,
                               const std::filesystem::path& name, std::uint64_t begin,
                               std::uint64_t end) {
  while (begin < end) {
    stop_();
    const std::size_t wanted = static_cast<std::size_t>(std::min(end - begin, kSlice));
    const std::string bytes = readAt(from, begin, wanted, source_ / name);
    writeAt(to, bytes, begin, target_ / name);
    begin += bytes.size();
    copied_ += bytes.size();
    if (bytes.size() < wanted) return;
  }
}

// Directories come with their files: an empty one could pass for an index that is to be put in
// place.
FileHandle CollectionCopy::openTarget(const std::filesystem::path& name) const {
  std::filesystem::path directory = target_;
  for (const std::filesystem::path& part : name.parent_path()) {
    directory /= part;
    if (!std::filesystem::exists(directory)) makeDirectory(directory);
  }
  return openFile(target_ / name, O_WRONLY | O_CREAT);
}

}  // namespace corvaned
