#pragma once

#include <atomic>
#include <compare>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server/store/change.h"
#include "server/store/files.h"
#include "server/store/journalScan.h"

namespace corvaned {

/// A place between two changes of a journal.
struct JournalPosition {
  std::uint64_t segment = 0;
  std::uint64_t bytes = 0;
  // clang-tidy 14 takes the comparison with zero that the compiler writes for a null pointer.
  // NOLINTNEXTLINE(modernize-use-nullptr)
  auto operator<=>(const JournalPosition&) const = default;
};

/// The changes between two places of a journal, one by one, and those of a batch each by itself.
/// Used by one thread at a time, and by nobody once its segments are removed. Errors are
/// ServerError(StorageFailed).
class JournalPart {
 public:
  struct Segment {
    std::uint64_t number = 0;
    std::filesystem::path path;
    std::uint64_t from = 0;
    std::uint64_t to = 0;
  };

  explicit JournalPart(std::vector<Segment> segments) : segments_(std::move(segments)) {}

  /// Nothing at the end.
  std::optional<Change> next();
  /// Where the last change ends in the journal, or its batch, and the name of that; empty if it
  /// came alone.
  JournalPosition end() const { return end_; }
  const std::string& batch() const { return batch_; }
  /// A place between two entries: not inside a batch.
  struct Mark {
    std::size_t segment = 0;
    std::uint64_t place = 0;
    std::uint64_t bytesRead = 0;
  };
  /// Where next() goes on.
  Mark mark() const { return {current_, place_, bytesRead_}; }
  /// Goes on from there, or begins again.
  void rewind(const Mark& mark);
  void rewind() { rewind(Mark()); }
  /// Until next() is called again. A batch that has begun stays in memory.
  void closeFile();
  /// About what that batch takes.
  std::size_t bytesHeld() const { return bytesHeld_; }
  /// How much was read since the beginning. A batch counts at its end.
  std::uint64_t bytesRead() const { return bytesRead_; }
  /// Whether the next change belongs to the same batch as the last one.
  bool isInsideBatch() const { return taken_ > 0; }

 private:
  bool readEntry();
  Change takeChange();
  void dropEntry();

  std::vector<Segment> segments_;
  std::size_t current_ = 0;
  std::uint64_t place_ = 0;
  std::uint64_t bytesRead_ = 0;
  std::optional<SegmentReader> reader_;
  // What stands at place_, and how many of its changes have been taken.
  std::optional<SegmentPiece> entry_;
  std::size_t taken_ = 0;
  std::size_t bytesHeld_ = 0;
  JournalPosition end_;
  std::string batch_;
};

/// What a copy of a journal has to hold: so many bytes of each of these segments, with changes up
/// to this number.
struct JournalExtent {
  std::vector<ScannedSegment> segments;
  std::uint64_t lastSequence = 0;
};

/// The accepted changes of a collection that are not in its index yet, in order, on disk.
///
/// A journal consists of segment files. Changes are appended to the last one; rotate() closes it
/// and starts another, so that closed segments can be brought into the index and removed while new
/// changes arrive. journalSegment.h describes the entries of a segment.
///
/// Changes are numbered without gaps, and a mark (journalMark.h) says which numbers must be there.
/// Opening the journal sets aside, in a file beside the segments, what cannot be read at its end,
/// was, as far as anything on disk tells, never acknowledged, and looks as if the server or the
/// machine had stopped in the middle of it. Everything else that is not as it should be means that
/// the disk has damaged or lost something. Opening then throws, naming the file and the byte, and
/// leaves the files as they are.
///
/// All operations may be called from any thread. Errors are ServerError(StorageFailed).
class Journal {
 public:
  using Visitor = std::function<void(std::uint64_t segment, Change&& change)>;

  /// Opens or creates the journal in `directory` and passes every change in it to `visitor`.
  Journal(std::filesystem::path directory, const Visitor& visitor);

  /// Where a change was appended: a ticket for sync(), and where it ends.
  struct Place {
    std::uint64_t ticket = 0;
    JournalPosition end;
  };

  /// Appends the change, not yet durably. If it throws, nothing was appended. Programs that know
  /// no batches refuse the journal from the first one on.
  Place append(const Change& change);

  /// Returns when everything up to the ticket is on disk. Threads that wait at the same time share
  /// one sync of the file.
  void sync(std::uint64_t ticket);
  /// The same for everything that was appended so far. Throws also if changes are refused.
  void syncAll();

  /// Closes the current segment and returns its number: all changes appended so far are in this
  /// segment or in earlier ones.
  std::uint64_t rotate();

  /// The end of what was appended so far.
  JournalPosition end() const;
  /// What was appended between two places.
  JournalPart read(JournalPosition from, JournalPosition to) const;

  /// Everything that the journal holds at the moment.
  JournalExtent extent() const;

  /// Removes the segments up to `last`, which must be closed.
  void remove(std::uint64_t last);

  /// The number of the last change in segments before this one, those that have been removed
  /// included.
  std::uint64_t lastChangeBefore(std::uint64_t segment) const;

  /// Throws if the journal does not belong to an index that has the changes up to `indexed`.
  void requireToFit(std::uint64_t indexed) const;

  /// Throws if changes are refused, and says why.
  void requireWritable() const;

  /// Whether changes are refused. Waits for nothing.
  bool refusesChanges() const { return refuses_; }

  /// True if no segment holds a change.
  bool empty() const;
  /// Whether a change ends behind the place.
  bool hasAfter(const JournalPosition& place) const;

  /// Whether it may have batches.
  bool allowsBatches() const { return mark_->allowsBatches(); }

  /// The number of changes in the segments, those of batches each counted by itself.
  std::uint64_t pending() const;

 private:
  struct CurrentFile {
    FileHandle handle;
    std::filesystem::path path;
  };

  std::filesystem::path pathOf(std::uint64_t number) const;
  void startSegment(std::uint64_t number);
  void openLast();
  void bringToDisk();
  std::exception_ptr mark(std::uint64_t sequence);
  void requireHealthy() const;
  void refuseChanges(const std::filesystem::path& path, int error);
  void takeBack(std::uint64_t bytes, const std::string& reason);

  const std::filesystem::path directory_;

  mutable std::mutex mutex_;
  std::condition_variable synced_;
  // Guarded by mutex_. The last segment is the current one.
  std::vector<ScannedSegment> segments_;
  std::shared_ptr<CurrentFile> current_;
  std::unique_ptr<JournalMark> mark_;  // Set once the journal is open.
  std::uint64_t lastSequence_ = 0;
  std::uint64_t durableSequence_ = 0;
  std::uint64_t lastTicket_ = 0;
  std::uint64_t durableTicket_ = 0;
  bool syncing_ = false;
  // Why the journal refuses changes; empty as long as it accepts them. After a failed sync the
  // kernel may have dropped the data, and a second sync would report success.
  std::string failure_;
  // The same for those who must not wait for the disk.
  std::atomic<bool> refuses_ = false;
};

}  // namespace corvaned
