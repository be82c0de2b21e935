#pragma once

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "server/store/change.h"
#include "server/store/files.h"

namespace corvaned {

/// The accepted changes of a collection that are not in its index yet, in order, on disk.
///
/// A journal consists of segment files. Changes are appended to the last one; rotate() closes it
/// and starts another, so that closed segments can be brought into the index and removed while new
/// changes arrive. An entry is
///
///     0   4  "KRJ1"
///     4   4  length of the payload, big-endian
///     8   4  CRC-32 of the payload
///     12     payload: kind (1 byte), then texts with 4-byte lengths: the key, the number of
///            metadata pairs and their names and values, the content
///
/// An incomplete entry at the end of the last segment was never acknowledged; opening the journal
/// drops it. In any other place a bad entry means that the disk is damaged, and opening fails.
///
/// All operations may be called from any thread. Errors are ServerError(storageFailed).
class Journal {
 public:
  using Visitor = std::function<void(std::uint64_t segment, Change&& change)>;

  /// Opens or creates the journal in `directory` and passes every change in it to `visitor`.
  Journal(std::filesystem::path directory, const Visitor& visitor);

  /// Where a change was appended: a ticket for sync(), and the number of the segment.
  struct Place {
    std::uint64_t ticket = 0;
    std::uint64_t segment = 0;
  };

  /// Appends the change, not yet durably. If it throws, nothing was appended.
  Place append(const Change& change);

  /// Returns when everything up to the ticket is on disk. Threads that wait at the same time share
  /// one sync of the file.
  void sync(std::uint64_t ticket);

  /// Closes the current segment and returns its number: all changes appended so far are in this
  /// segment or in earlier ones.
  std::uint64_t rotate();

  /// Reads the closed segments up to `last`, oldest first. No other thread may remove them at the
  /// same time.
  void read(std::uint64_t last, const Visitor& visitor) const;

  /// Removes the segments up to `last`, which must be closed.
  void remove(std::uint64_t last);

  /// True if no segment holds a change.
  bool empty() const;

 private:
  struct Segment {
    std::uint64_t number = 0;
    std::uint64_t bytes = 0;
  };
  struct CurrentFile {
    FileHandle handle;
    std::filesystem::path path;
  };

  std::filesystem::path pathOf(std::uint64_t number) const;
  std::vector<std::uint64_t> segmentsOnDisk() const;
  void startSegment(std::uint64_t number);
  void openLast(std::uint64_t number, std::uint64_t goodBytes);
  void requireHealthy() const;
  void takeBack(std::uint64_t bytes, const std::string& reason);

  const std::filesystem::path directory_;

  mutable std::mutex mutex_;
  std::condition_variable synced_;
  // Guarded by mutex_. The last segment is the current one.
  std::vector<Segment> segments_;
  std::shared_ptr<CurrentFile> current_;
  std::uint64_t lastTicket_ = 0;
  std::uint64_t durableTicket_ = 0;
  bool syncing_ = false;
  // Why the journal refuses changes; empty as long as it accepts them. After a failed sync the
  // kernel may have dropped the data, and a second sync would report success.
  std::string failure_;
};

}  // namespace corvaned
