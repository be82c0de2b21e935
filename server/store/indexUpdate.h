#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "server/base/memoryBudget.h"
#include "server/store/indexingMemory.h"
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

  /// `removedTo` is a place in the journal: searches may have ceased to hide what is deleted before
  /// it. The update leaves such a document out of the slices before its deletion. `stop` throws to
  /// end a step between two documents.
  IndexUpdate(JournalPart part, JournalPosition removedTo, XapianIndex& index, Slices slices,
              XapianIndex::StopCheck stop);

  /// Returns whether there is more to do. Each step that changes the index makes that durable. If
  /// it throws, part of the changes may be in the index, and bringing all of them in again is safe.
  bool step();

  /// How many changes have been brought in, and how many have been found.
  IndexProgress progress() const { return {counted_ ? position_ : sliceBegin_, all_}; }

  /// A document that the index refused.
  struct Refused {
    ParseOutcome outcome;
    /// Where its change ends in the journal, or the batch of that, and the name of the batch; empty
    /// if it came alone.
    JournalPosition end;
    std::string batch;
    /// Whether it is the last change of its key.
    bool isLast = true;
  };
  /// Where the last document of a key is refused, the one before it is what the index gets, unless
  /// that is deleted in between: what becomes of each must not depend on which come in one update.
  std::vector<Refused>& refused() { return refused_; }

 private:
  struct LastChange {
    std::uint64_t number = 0;
    /// Whether others of the key come before it in the slice.
    bool isRepeated = false;
    /// Whether a later slice deletes the key, and searches may not hide it until then.
    bool isRemovedLater = false;
  };
  /// Where a document stands: the entry, and how many others come before it in there.
  struct Place {
    JournalPart::Mark entry;
    std::size_t before = 0;
    std::uint64_t number = 0;
  };
  /// What comes in the slice before a document that the index has refused.
  struct Earlier {
    std::uint64_t refused = 0;
    /// The latest of them.
    std::deque<Place> documents;
    /// Whether there are others before those, and whether it is deleted before all of them.
    bool hasMore = false;
    bool removes = false;
  };
  /// Where a change ends in the journal, and its batch.
  struct Origin {
    JournalPosition end;
    std::string batch;
    bool isLast = true;
  };
  /// What the index gets in one transaction.
  struct Transaction {
    std::vector<Change> changes;
    std::vector<Origin> origins;
    IndexingMemory memory;
  };

  void count();
  void endCount(bool isLast);
  void forgetReplacedRefusals();
  void findRemovals();
  void beginApplying();
  bool apply();
  bool hasRoom(const Transaction& transaction, std::size_t times) const;
  void add(Transaction& transaction, Change change, bool isLast);
  std::vector<Refused> bringIn(const Transaction& transaction);
  void search();
  bool findEarlier();
  bool offerEarlier();
  Change documentAt(const Place& place, std::uint64_t& bytesRead);
  bool endSlice();
  void beginSlice();
  void chargeMemory();
  std::optional<Change> next();

  JournalPart part_;
  const JournalPosition removedTo_;
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
  // Whether what comes behind the slice is being read.
  bool isLookingAhead_ = false;
  // Once the last changes have been brought in, what is done for those that were refused: until all
  // of the slice has been read again, the number of the next change, and then where the slice ends.
  std::map<std::string, Earlier> earlier_;
  std::size_t earlierBytes_ = 0;
  std::optional<std::uint64_t> searched_;
  std::optional<JournalPart::Mark> sliceEndMark_;
  std::vector<Refused> refused_;
};

}  // namespace corvaned
