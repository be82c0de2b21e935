#pragma once

#include <compare>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "server/store/files.h"

namespace corvaned {

/// Which changes the segments of a journal must hold.
struct MarkedRange {
  /// The lowest sequence number that must be there.
  std::uint64_t first = 1;
  /// The highest.
  std::uint64_t durable = 0;
  // clang-tidy 14 takes the comparison with zero that the compiler writes for a null pointer.
  // NOLINTNEXTLINE(modernize-use-nullptr)
  auto operator<=>(const MarkedRange&) const = default;
};

/// The range in a file next to the segments. It tells a change that was cut off while it was being
/// written, and never acknowledged, from one that the disk has damaged or lost.
///
/// The file begins with a text for people and programs that know only the earlier form of the
/// journal: its name is that of a segment before all others, so they refuse the journal because
/// this is not a change. Bytes 512 and 1024 begin a slot each, which are written in turn: a write
/// that is cut off leaves the other one.
///
///     0   4  "KRM2"; "KRM3" in format 3, of journals that may have batches: programs that know
///            only format 2 could take the last batch for a change that was being written
///     4   8  first
///     12  8  durable
///     20  4  CRC-32 of the bytes before
///
/// Both numbers only grow, so the slot with the higher ones is the later one. The file is opened
/// for each write: that costs a fiftieth of the sync before it, and no descriptor in between.
///
/// May be used from any thread. Errors are ServerError(StorageFailed).
class JournalMark {
 public:
  /// Nothing if there is no such file. Throws if neither of its slots can be read.
  static std::unique_ptr<JournalMark> open(const std::filesystem::path& directory);
  /// Makes the file, durably.
  static std::unique_ptr<JournalMark> create(const std::filesystem::path& directory,
                                             MarkedRange range = {});

  MarkedRange range() const;

  /// Whether the journal may have batches.
  bool allowsBatches() const;
  /// Lets it have batches, durably.
  void allowBatches();

  /// The changes up to `sequence` are on disk. A crash of the machine may lose this, since it is
  /// not brought to disk: that would double the time of every change.
  void setDurable(std::uint64_t sequence);
  /// The changes before `sequence` are needed no more. Durable in both slots when it returns, since
  /// they may now be removed.
  void setFirst(std::uint64_t sequence);

  static std::filesystem::path pathIn(const std::filesystem::path& directory);

 private:
  /// What a slot holds.
  struct Slot {
    MarkedRange range;
    bool batches = false;
  };

  JournalMark(std::filesystem::path path, Slot slot, std::size_t nextSlot)
      : path_(std::move(path)), range_(slot.range), batches_(slot.batches), nextSlot_(nextSlot) {}

  static std::string encoded(const Slot& slot);
  static std::optional<Slot> decoded(std::string_view bytes);
  static std::optional<Slot> readSlot(const FileHandle& file, std::size_t slot,
                                      const std::filesystem::path& path);
  static void makeFile(const std::filesystem::path& path, const Slot& slot);

  void write(const FileHandle& file, MarkedRange range);

  const std::filesystem::path path_;
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  MarkedRange range_;
  bool batches_;
  std::size_t nextSlot_;
};

}  // namespace corvaned
