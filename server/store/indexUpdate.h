#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "server/base/memoryBudget.h"
#include "server/store/journal.h"
#include "server/store/xapianIndex.h"

namespace corvaned {

/// Brings a part of a journal into the index, in steps of bounded size. Used by one thread at a
/// time.
class IndexUpdate {
 public:
  /// In several slices changes are searchable before later ones of the same key, so that those must
  /// be hidden meanwhile.
  enum class Slices { One, AsMemoryAllows };

  /// `stop` throws to end a step between two documents.
  IndexUpdate(JournalPart part, XapianIndex& index, Slices slices, XapianIndex::StopCheck stop);

  /// Returns whether there is more to do. Each step that changes the index makes that durable. If
  /// it throws, part of the changes may be in the index, and bringing all of them in again is safe.
  bool step();

  /// How many changes have been brought in, and how many have been found.
  IndexProgress progress() const { return {counted_ ? position_ : sliceBegin_, all_}; }

  /// The documents that the index refused: of each key the last change, if it is one of these.
  std::vector<ParseOutcome>& refused() { return refused_; }

 private:
  struct LastChange {
    std::uint64_t number = 0;
    /// It, or one before it in the slice, removes the document.
    bool removes = false;
  };

  void count();
  void endCount(bool isLast);
  void forgetReplacedRefusals();
  bool apply();
  void removeWhatReplacesNothing(const std::vector<ParseOutcome>& refused);
  void beginSlice();
  std::optional<Change> next();

  JournalPart part_;
  XapianIndex& index_;
  const XapianIndex::StopCheck stop_;
  const std::size_t mostKeyBytes_;
  // The changes are brought in slice by slice, so that what is known of their keys stays within
  // bounds: where the present one begins, the numbers of its first change and of the one after its
  // last, and whether it is the last one.
  JournalPart::Mark sliceMark_;
  std::uint64_t sliceBegin_ = 0;
  std::uint64_t sliceEnd_ = 0;
  bool isLastSlice_ = false;
  // Of each key in the slice.
  std::unordered_map<std::string, LastChange> lastOfKey_;
  MemoryBudget::Share memory_;
  std::size_t keyBytes_ = 0;
  // What the journal's part is known to hold.
  std::size_t bytesHeld_ = 0;
  std::uint64_t position_ = 0;
  std::uint64_t all_ = 0;
  bool counted_ = false;
  std::vector<ParseOutcome> refused_;
};

}  // namespace corvaned
