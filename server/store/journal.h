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

/// The accepted changes of one collection that its index does not have yet, in order, on disk.
///
/// A journal is a row of segment files. Changes are appended to the last one; rotate() closes it
/// and starts another, so that the closed ones can be brought into the index and removed while new
/// changes arrive. An entry is
///
///     0   4  "KRJ1"
///     4   4  length of the payload, big-endian
///     8   4  CRC-32 of the payload
///     12     payload: kind (1 byte), then texts with 4-byte lengths: the key, the number of
///            metadata pairs and their names and values, the content
///
/// An entry that is cut or damaged at the end of the last segment was never acknowledged and is
/// dropped when the journal is opened; anywhere else it is a damaged disk, and opening fails.
///
/// All operations may be called from any thread. Errors are ServerError(storageFailed).
class Journal {
 public:
  using Visitor = std::function<void(std::uint64_t segment, Change&& change)>;

  /// Opens or starts the journal in `directory`, and shows every change in it to `visitor`.
  Journal(std::filesystem::path directory, const Visitor& visitor);

  /// Where a change went: a ticket for sync(), and the number of its segment.
  struct Place {
    std::uint64_t ticket = 0;
    std::uint64_t segment = 0;
  };

  /// Appends. Not yet durable. On an error nothing was appended.
  Place append(const Change& change);

  /// Returns when everything up to the ticket is on disk. Callers that wait together share one
  /// write to the disk.
  void sync(std::uint64_t ticket);

  /// Closes the current segment and returns its number: all changes appended so far are in segments
  /// up to it.
  std::uint64_t rotate();

  /// Reads the closed segments up to `last`, oldest first. No other thread may remove them
  /// meanwhile.
  void read(std::uint64_t last, const Visitor& visitor) const;

  /// Forgets the segments up to `last`, which are closed.
  void remove(std::uint64_t last);

  /// True when no segment holds a change.
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
  // Why nothing can be promised any more; empty while all is well. After a failed sync the kernel
  // may have dropped what was to be written, and a second sync would not say so.
  std::string failure_;
};

}  // namespace corvaned
