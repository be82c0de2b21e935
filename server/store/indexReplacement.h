#pragma once

#include <filesystem>

namespace corvaned {

/// Lets a new index, which is made in a directory beside the index of a collection, take its place.
///
///     index-rebuilding/  the new index as far as it is
///     index-rebuilt/     the complete new one and its checksums, which are to take their places;
///                        one rename decides, and whoever opens the collection does the rest
///     index-replaced/    the earlier one, to be removed
///
/// Used by one thread at a time. Errors are ServerError(StorageFailed).
class IndexReplacement {
 public:
  /// Makes an empty directory for the new index.
  explicit IndexReplacement(std::filesystem::path collection);

  /// Where the new index is to be made, as a collection has its index.
  std::filesystem::path directory() const;
  /// Decides, durably, for the new index. finish() does what is left to do.
  void decide() const;
  /// Removes what has been made so far, as far as that is possible; the object is of no use then.
  void giveUp() const noexcept;

  static bool isDecided(const std::filesystem::path& collection);
  /// Whether a copy of the collection is whole without the directory of that name in it.
  static bool isDispensable(const std::filesystem::path& collection,
                            const std::filesystem::path& name);
  /// Puts the new index in place, if that has been decided. May be repeated if it throws, and after
  /// a crash.
  static void finish(const std::filesystem::path& collection);
  /// Removes what a crash may have left.
  static void clear(const std::filesystem::path& collection);

 private:
  const std::filesystem::path collection_;
};

}  // namespace corvaned
