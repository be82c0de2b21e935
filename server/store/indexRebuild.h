#pragma once

#include <xapian.h>

#include <cstdint>
#include <filesystem>

#include "server/store/indexLimits.h"
#include "server/store/indexReplacement.h"

namespace corvaned {

/// Makes an index of the present form from the texts of one of an earlier form, to replace it. The
/// earlier one is searched meanwhile, and nobody may change it.
///
/// Used by one thread at a time.
class IndexRebuild {
 public:
  IndexRebuild(std::filesystem::path collection, const IndexLimits& limits);

  /// Takes over some more documents. Returns whether there are others. Throws if one cannot be
  /// read; the earlier index is then as it was.
  bool step(const StopCheck& stop);
  /// How many documents have been taken over, and how many there are.
  std::uint64_t done() const { return done_; }
  std::uint64_t all() const { return all_; }
  /// Decides, durably, for the new index.
  void decide() { replacement_.decide(); }
  /// Removes what has been made so far, as far as that is possible; the object is of no use then.
  void giveUp() noexcept { replacement_.giveUp(); }

 private:
  const std::filesystem::path earlier_;
  const IndexReplacement replacement_;
  const IndexLimits limits_;
  Xapian::docid last_ = 0;
  std::uint64_t done_ = 0;
  std::uint64_t all_ = 0;
};

}  // namespace corvaned
