#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "server/store/change.h"
#include "server/store/damage.h"
#include "server/store/journalMark.h"
#include "server/store/journalSegment.h"

namespace corvaned {

/// A place where changes of a journal are damaged or missing, and what can be said about them.
struct JournalFault {
  Damage damage;
  /// The sequence numbers of acknowledged changes that are lost here; 0 if they are not known.
  std::uint64_t firstLost = 0;
  std::uint64_t lastLost = 0;
  /// The key of a change that is lost, if it can be read; it may be wrong.
  std::string key;
};

struct ScannedSegment {
  std::uint64_t number = 0;
  /// Where its last change ends. What follows it, if anything, are changes that were being written;
  /// nothing on disk says that a client was told of them.
  std::uint64_t bytes = 0;
  /// Of its last change; 0 if it has none with a number.
  std::uint64_t lastSequence = 0;
  /// How many changes it has, those of batches each counted by itself.
  std::uint64_t changes = 0;
};

/// Which changes a journal has.
struct JournalRange {
  /// The earliest one that an index need not have.
  std::uint64_t first = 1;
  /// The last one that there ever was.
  std::uint64_t last = 0;
  /// The last segment.
  std::uint64_t segment = 1;
};

/// What is wrong beside an index that has the changes up to `indexed`: one of the two has then been
/// put in the place of another one. Changes that are in neither of them would not be missed.
std::optional<JournalFault> misfitOf(const std::filesystem::path& directory,
                                     const JournalRange& journal, std::uint64_t indexed);

struct JournalContents {
  std::vector<ScannedSegment> segments;
  /// Nothing for a journal of the earlier form.
  std::unique_ptr<JournalMark> mark;
  /// The number of the last change that there ever was.
  std::uint64_t lastSequence = 0;

  JournalRange range() const;
};

std::filesystem::path segmentPath(const std::filesystem::path& directory, std::uint64_t number);

/// Reads a whole journal in order and compares it with what its mark asks for. Changes no file.
class JournalScan {
 public:
  using ChangeVisitor = std::function<void(std::uint64_t segment, Change&& change)>;
  /// May throw to end the scan at the first fault.
  using FaultVisitor = std::function<void(const JournalFault& fault)>;

  JournalScan(std::filesystem::path directory, ChangeVisitor onChange, FaultVisitor onFault);

  JournalContents run();

 private:
  void openMark();
  std::vector<std::uint64_t> segmentsOnDisk() const;
  void readSegment(std::uint64_t number, bool isLast);
  void take(SegmentPiece&& piece, ScannedSegment& segment);
  void checkSequence(const SegmentPiece& piece);
  bool isUnfinished(const SegmentPiece& piece) const;
  void reportBad(const SegmentPiece& piece);
  void report(std::uint64_t place, const std::string& what, std::uint64_t firstLost = 0,
              std::uint64_t lastLost = 0, const std::string& key = {});
  std::uint64_t reached() const;
  std::uint64_t durable() const;

  const std::filesystem::path directory_;
  const ChangeVisitor onChange_;
  const FaultVisitor onFault_;
  JournalContents contents_;
  MarkedRange range_;
  bool markUnreadable_ = false;
  std::filesystem::path path_;
  std::uint64_t end_ = 0;
  // The sequence number of the last change, good or bad.
  std::uint64_t last_ = 0;
};

}  // namespace corvaned
