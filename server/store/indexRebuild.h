#pragma once

#include <xapian.h>

#include <cstdint>
#include <filesystem>

#include "server/store/indexLimits.h"

namespace corvaned {

/// Makes an index of the present form from the texts of one of an earlier form, in a directory
/// beside it, and puts it in its place. The earlier one is searched meanwhile, and nobody may
/// change it.
///
///     index-rebuilding/  the new index as far as it is
///     index-rebuilt/     the complete new one and its checksums, which are to take their places;
///                        one rename decides, and whoever opens the collection does the rest
///     index-replaced/    the earlier one, to be removed
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
  /// Decides, durably, for the new index. finish() does what is left to do.
  void decide();
  static bool isDecided(const std::filesystem::path& collection);
  /// Whether a copy of the collection is whole without the directory of that name in it.
  static bool isDispensable(const std::filesystem::path& collection,
                            const std::filesystem::path& name);
  /// Removes what has been made so far, as far as that is possible; the object is of no use then.
  void giveUp() noexcept;

  /// Puts the new index in place, if that has been decided. May be repeated if it throws, and after
  /// a crash.
  static void finish(const std::filesystem::path& collection);
  /// Removes what a crash may have left.
  static void clear(const std::filesystem::path& collection);

 private:
  const std::filesystem::path collection_;
  const IndexLimits limits_;
  Xapian::docid last_ = 0;
  std::uint64_t done_ = 0;
  std::uint64_t all_ = 0;
};

}  // namespace corvaned
