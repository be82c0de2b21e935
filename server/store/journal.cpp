#include "server/store/journal.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "server/base/errors.h"
#include "server/store/journalTail.h"

namespace corvaned {
namespace {

// The texts, and the objects that they are in.
std::size_t memoryOf(const SegmentPiece& entry) {
  const BatchChanges& changes = entry.change.batch->changes;
  std::size_t pairs = 0;
  for (const Document& document : changes.documents) pairs += document.metadata.size();
  return static_cast<std::size_t>(entry.bytes) + changes.documents.size() * sizeof(Document) +
         pairs * sizeof(std::pair<std::string, std::string>) +
         changes.deletions.size() * sizeof(std::string);
}

[[noreturn]] void throwFault(const JournalFault& fault) { throwDamaged(fault.damage); }

}  // namespace

Journal::Journal(std::filesystem::path directory, const Visitor& visitor)
    : directory_(std::move(directory)) {
  JournalContents contents = JournalScan(directory_, visitor, throwFault).run();
  segments_ = std::move(contents.segments);
  mark_ = std::move(contents.mark);
  lastSequence_ = contents.lastSequence;
  durableSequence_ = mark_ ? mark_->range().durable : 0;
  if (!segments_.empty()) openLast();
  // A journal without a mark has changes of the earlier form only. They get no numbered ones in
  // their segment, and its end has been put in order before a mark can ask for anything.
  if (segments_.empty() || !mark_) {
    startSegment(segments_.empty() ? 1 : segments_.back().number + 1);
  }
  if (!mark_) mark_ = JournalMark::create(directory_);
  bringToDisk();
}

Journal::Place Journal::append(const Change& change) {
  std::string entry = encodeEntry(change);
  const std::lock_guard lock(mutex_);
  requireHealthy();
  if (change.kind == ChangeKind::Batch) mark_->allowBatches();
  numberEntry(entry, lastSequence_ + 1, durableSequence_);
  try {
    writeAll(current_->handle, entry, current_->path);
  } catch (const std::exception& error) {
    takeBack(segments_.back().bytes, error.what());
    throw;
  }
  segments_.back().bytes += entry.size();
  segments_.back().lastSequence = ++lastSequence_;
  segments_.back().changes += changesIn(change);
  return {++lastTicket_, {segments_.back().number, segments_.back().bytes}};
}

void Journal::sync(std::uint64_t ticket) {
  std::unique_lock lock(mutex_);
  // A ticket of another object, closed since, is of a change that was on disk then.
  ticket = std::min(ticket, lastTicket_);
  while (durableTicket_ < ticket) {
    requireHealthy();
    if (syncing_) {
      synced_.wait(lock);
      continue;
    }
    syncing_ = true;
    const std::uint64_t reached = lastTicket_;
    const std::uint64_t sequence = lastSequence_;
    const std::shared_ptr<CurrentFile> file = current_;
    lock.unlock();
    const int error = ::fdatasync(file->handle.get()) == 0 ? 0 : errno;
    const std::exception_ptr unmarked = error == 0 ? mark(sequence) : nullptr;
    lock.lock();
    syncing_ = false;
    synced_.notify_all();
    if (error != 0) {
      refuseChanges(file->path, error);
      continue;
    }
    if (unmarked) std::rethrow_exception(unmarked);
    durableSequence_ = std::max(durableSequence_, sequence);
    durableTicket_ = std::max(durableTicket_, reached);
  }
}

void Journal::syncAll() {
  std::uint64_t ticket = 0;
  {
    const std::lock_guard lock(mutex_);
    requireHealthy();
    ticket = lastTicket_;
  }
  sync(ticket);
}

std::uint64_t Journal::rotate() {
  std::unique_lock lock(mutex_);
  synced_.wait(lock, [&] { return !syncing_; });
  requireHealthy();
  const std::uint64_t closed = segments_.back().number;
  if (::fdatasync(current_->handle.get()) != 0) {
    refuseChanges(current_->path, errno);
    requireHealthy();
  }
  mark_->setDurable(lastSequence_);
  durableSequence_ = lastSequence_;
  durableTicket_ = lastTicket_;
  startSegment(closed + 1);
  return closed;
}

// A change that is on disk but cannot be shown to be there must not be acknowledged. Without free
// descriptors or memory, for instance, the next attempt may succeed. No exception comes out, since
// others wait for the end of the sync.
std::exception_ptr Journal::mark(std::uint64_t sequence) {
  try {
    mark_->setDurable(sequence);
    return nullptr;
  } catch (...) {
    return std::current_exception();
  }
}

void Journal::refuseChanges(const std::filesystem::path& path, int error) {
  if (!failure_.empty()) return;
  refuses_ = true;
  // Changes must be refused also if there is no memory for more than that.
  failure_ = "a sync failed";
  failure_ = path.string() + ": " + std::generic_category().message(error);
}

JournalPosition Journal::end() const {
  const std::lock_guard lock(mutex_);
  return {segments_.back().number, segments_.back().bytes};
}

JournalExtent Journal::extent() const {
  const std::lock_guard lock(mutex_);
  return {segments_, lastSequence_};
}

JournalPart Journal::read(JournalPosition from, JournalPosition to) const {
  const std::lock_guard lock(mutex_);
  std::vector<JournalPart::Segment> segments;
  for (const ScannedSegment& segment : segments_) {
    if (segment.number < from.segment || segment.number > to.segment) continue;
    segments.push_back({segment.number, pathOf(segment.number),
                        segment.number == from.segment ? from.bytes : 0,
                        segment.number == to.segment ? to.bytes : segment.bytes});
  }
  return JournalPart(std::move(segments));
}

std::optional<Change> JournalPart::next() {
  while (entry_ || readEntry()) {
    const std::size_t changes = changesIn(entry_->change);
    std::optional<Change> change;
    if (taken_ < changes) change = takeChange();
    if (taken_ >= changes) {
      bytesRead_ += entry_->bytes;
      place_ = entry_->place + entry_->bytes;
      dropEntry();
    }
    if (change) return change;
  }
  return std::nullopt;
}

bool JournalPart::readEntry() {
  for (; current_ < segments_.size(); ++current_, reader_.reset(), place_ = 0) {
    const Segment& segment = segments_[current_];
    place_ = std::max(place_, segment.from);
    if (place_ >= segment.to) continue;
    if (!reader_) reader_.emplace(segment.path, place_);
    entry_ = reader_->next();
    if (!entry_) throwDamaged({segment.path, place_, "changes are missing"});
    if (entry_->kind == SegmentPiece::Kind::Change) {
      if (entry_->change.kind == ChangeKind::Batch) bytesHeld_ = memoryOf(*entry_);
      return true;
    }
    throwDamaged({segment.path, entry_->place, "this is not a change"});
  }
  return false;
}

Change JournalPart::takeChange() {
  const std::size_t number = taken_++;
  end_ = {segments_[current_].number, entry_->place + entry_->bytes};
  batch_.clear();
  if (entry_->change.kind != ChangeKind::Batch) return std::move(entry_->change);
  batch_ = entry_->change.batch->name;
  BatchChanges& changes = entry_->change.batch->changes;
  if (number < changes.documents.size()) {
    return {ChangeKind::Put, std::move(changes.documents[number])};
  }
  return {ChangeKind::Remove, {changes.deletions[number - changes.documents.size()], {}, {}}};
}

void JournalPart::closeFile() {
  reader_.reset();
  if (!isInsideBatch()) dropEntry();
}

void JournalPart::dropEntry() {
  entry_.reset();
  taken_ = 0;
  bytesHeld_ = 0;
}

void JournalPart::rewind(const Mark& mark) {
  current_ = mark.segment;
  place_ = mark.place;
  bytesRead_ = mark.bytesRead;
  dropEntry();
  closeFile();
}

void Journal::remove(std::uint64_t last) {
  const std::lock_guard lock(mutex_);
  std::uint64_t needed = 0;
  for (const ScannedSegment& segment : segments_) {
    if (segment.number <= last) needed = std::max(needed, segment.lastSequence + 1);
  }
  mark_->setFirst(needed);
  // Removed and synced one by one, oldest first. If a crash left an older segment without a newer
  // one, replaying it would undo the newer changes.
  while (segments_.front().number <= last) {
    std::filesystem::remove(pathOf(segments_.front().number));
    segments_.erase(segments_.begin());
    syncDirectory(directory_);
  }
}

std::uint64_t Journal::lastChangeBefore(std::uint64_t segment) const {
  const std::lock_guard lock(mutex_);
  std::uint64_t last = mark_->range().first - 1;
  for (const ScannedSegment& each : segments_) {
    if (each.number < segment) last = std::max(last, each.lastSequence);
  }
  return last;
}

void Journal::requireToFit(std::uint64_t indexed) const {
  const std::lock_guard lock(mutex_);
  const JournalRange range{mark_->range().first, lastSequence_, segments_.back().number};
  if (const auto fault = misfitOf(directory_, range, indexed)) throwFault(*fault);
}

bool Journal::empty() const {
  const std::lock_guard lock(mutex_);
  return std::all_of(segments_.begin(), segments_.end(),
                     [](const ScannedSegment& segment) { return segment.bytes == 0; });
}

bool Journal::hasAfter(const JournalPosition& place) const {
  const std::lock_guard lock(mutex_);
  return std::any_of(segments_.begin(), segments_.end(), [&](const ScannedSegment& segment) {
    return segment.bytes > 0 && place < JournalPosition{segment.number, segment.bytes};
  });
}

std::uint64_t Journal::pending() const {
  const std::lock_guard lock(mutex_);
  std::uint64_t changes = 0;
  for (const ScannedSegment& segment : segments_) changes += segment.changes;
  return changes;
}

std::filesystem::path Journal::pathOf(std::uint64_t number) const {
  return segmentPath(directory_, number);
}

void Journal::startSegment(std::uint64_t number) {
  auto file = std::make_shared<CurrentFile>();
  file->path = pathOf(number);
  file->handle = openFile(file->path, O_WRONLY | O_APPEND | O_CREAT | O_EXCL);
  try {
    syncDirectory(directory_);
  } catch (...) {
    // The next attempt must find the name unused, and a restart must not find a segment after the
    // current one.
    std::error_code ignored;
    std::filesystem::remove(file->path, ignored);
    throw;
  }
  segments_.push_back({number, 0, 0, 0});
  current_ = std::move(file);
}

void Journal::openLast() {
  const std::uint64_t goodBytes = segments_.back().bytes;
  auto file = std::make_shared<CurrentFile>();
  file->path = pathOf(segments_.back().number);
  file->handle = openFile(file->path, O_WRONLY | O_APPEND);
  const std::uint64_t size = std::filesystem::file_size(file->path);
  if (size > goodBytes) {
    const JournalTail tail = setTailAside(file->path, goodBytes);
    spdlog::warn(
        "{}: dropped {} bytes from byte {} on, which were being written when the server stopped; "
        "{} whole changes are among them, and all of them are kept in {}",
        file->path.string(), tail.bytes, goodBytes, tail.changes, tail.file.string());
    if (::ftruncate(file->handle.get(), static_cast<off_t>(goodBytes)) != 0) {
      throwSystemError("cannot shorten", file->path);
    }
    syncFile(file->handle, file->path);
  }
  current_ = std::move(file);
}

// What a process wrote that was killed before its sync may be in the system's memory only, and who
// sends it once more is told that it is there.
void Journal::bringToDisk() {
  if (lastSequence_ <= durableSequence_) return;
  syncFile(current_->handle, current_->path);
  syncDirectory(directory_);
  mark_->setDurable(lastSequence_);
  durableSequence_ = lastSequence_;
}

void Journal::requireWritable() const {
  const std::lock_guard lock(mutex_);
  requireHealthy();
}

void Journal::requireHealthy() const {
  if (failure_.empty()) return;
  throw ServerError(ErrorKind::StorageFailed,
                    "changes are refused since the disk failed, restart the server when it is "
                    "repaired: " +
                        failure_);
}

// The entries that follow would be unreadable after the remains of a failed write.
void Journal::takeBack(std::uint64_t bytes, const std::string& reason) {
  if (::ftruncate(current_->handle.get(), static_cast<off_t>(bytes)) == 0) return;
  refuses_ = true;
  failure_ = reason;
}

}  // namespace corvaned
