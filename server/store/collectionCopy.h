#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "server/store/files.h"
#include "server/store/indexSums.h"
#include "server/store/journal.h"
#include "server/store/stopCheck.h"

namespace corvaned {

/// A copy of a collection's directory that is made while the collection is in use. Most of it is
/// copied while everything changes; what has changed since is copied once more, and the last of
/// that while the collection holds still.
///
/// The engine never writes into a block of its last transaction, but changes others in place. Each
/// has the revision that wrote it at its beginning, so a block that has changed since the copying
/// began, or that was copied while it was being written, is known by a higher revision. Journals
/// only grow. Any other file is small, and copied whole while the collection holds still.
///
/// An index that makes room for another one, which counts its own revisions, is copied anew.
///
/// Used by one thread. Errors are ServerError(StorageFailed).
class CollectionCopy {
 public:
  /// Makes the directory `target`.
  CollectionCopy(std::filesystem::path source, std::filesystem::path target, StopCheck stop);

  /// Copies what has changed since the last call. The index had these revisions and the collection
  /// this journal before the call; they are asked for after the object was made. Returns how many
  /// bytes that was; nothing if another index has come meanwhile, of which all is still to be
  /// copied.
  std::optional<std::uint64_t> copyAhead(const IndexRevisions& revisions,
                                         const JournalExtent& journal);
  /// The rest of the index, which must not change meanwhile.
  void copyIndex();
  /// The rest of everything. Nothing may change meanwhile.
  void copyRest(const JournalExtent& journal);

  /// How many bytes have been copied so far, those that were copied again included.
  std::uint64_t copied() const { return copied_; }

 private:
  enum class Kind {
    /// Of the index.
    Table,
    /// In a directory, too, and no table of the index.
    BesideTables,
    Journal,
    /// Something that is being written, and gets its name when it is complete; or that no program
    /// reads.
    Passing,
    Other,
  };

  static Kind kindOf(const std::filesystem::path& name);
  bool isWalked(const std::filesystem::path& directory, Kind kind) const;
  ino_t indexNow() const;
  bool dropEarlierIndex();
  void copyAll(Kind kind);
  void copyTables();
  void copyTable(const std::filesystem::path& name);
  void copyWhole(const std::filesystem::path& name);
  void copyJournal(const JournalExtent& journal);
  void copySegment(const ScannedSegment& segment);
  void removeSegmentsBut(const JournalExtent& journal);
  void copyRange(const FileHandle& from, const FileHandle& to, const std::filesystem::path& name,
                 std::uint64_t begin, std::uint64_t end);
  FileHandle openTarget(const std::filesystem::path& name) const;

  const std::filesystem::path source_;
  const std::filesystem::path target_;
  const StopCheck stop_;
  // Which directory the index was when the copying of it began.
  ino_t index_ = 0;
  // Blocks up to these revisions have been copied.
  IndexRevisions revisions_;
  std::uint64_t copied_ = 0;
};

}  // namespace corvaned
