#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "server/store/damage.h"
#include "server/store/files.h"
#include "server/store/stopCheck.h"

namespace corvaned {

/// The engine's tables are files with this suffix. They consist of blocks of this size, and each
/// block begins with the revision that wrote it.
constexpr std::string_view kTableSuffix = ".glass";
constexpr std::size_t kTableBlock = 8192;

/// A version file of the engine begins with what says which database it is of.
constexpr std::size_t kVersionIdentityBytes = 32;

/// How far a transaction takes the revision at most: one that fails may count as two.
constexpr std::uint64_t kRevisionsOfATransaction = 2;

/// The revision that the content of a version file names. The engine cannot be asked: the tables
/// may be damaged.
std::optional<std::uint64_t> revisionInVersion(std::string_view content);

/// The revision of each database of an index, by its directory in there: none if it is the only
/// one.
using IndexRevisions = std::map<std::string, std::uint64_t>;

/// That of the database which has the table, a path within the index; 0 if it is not known.
std::uint64_t revisionOf(const IndexRevisions& revisions, const std::filesystem::path& table);

/// The revision of the block that begins at `place`; 0 if there is none.
std::uint32_t blockRevisionAt(const FileHandle& file, std::uint64_t place,
                              const std::filesystem::path& path);

/// Checksums of the files of an index, since the engine has none: a changed bit would lead it to
/// wrong results, into an endless loop or out of its memory.
///
/// The file "index-sums" beside the index holds them while the index rests. Every byte must then be
/// as it says. While the index is changed the file is called "index-sums-changing": it still holds
/// for all blocks but those that the engine has written since, which begin with a higher revision,
/// though not one that the engine has not come to. An update that was interrupted leaves that name.
///
///     0   4  "KRS1"
///     4   8  revision of the index
///     12  4  size of a block
///     16  4  number of files; then for each file: its name with a 4-byte length in front, its size
///            (8 bytes), the CRC-32 of each of its blocks (4 bytes each); and instead of the latter
///            the whole content, with a 4-byte length in front, for a file "iamglass"
///            8  number of the last change of the journal that the index has for certain; missing
///            in files of earlier versions, which pass over it, and where it is not known
///     end 4  CRC-32 of everything before
///
/// If the index has several databases, the file begins with "KRS2". In place of the revision comes
/// the number of databases (4 bytes), and for each its directory, with a 4-byte length in front,
/// and its revision (8 bytes).
///
/// Used by one thread at a time. Errors are ServerError(StorageFailed).
class IndexSums {
 public:
  using Visitor = std::function<void(const Damage& damage)>;

  /// `collection` is the directory that holds the index and the checksums.
  static bool existIn(const std::filesystem::path& collection);
  /// Reads the checksums. Throws if they are damaged.
  explicit IndexSums(std::filesystem::path collection);
  /// Makes checksums of the index as it is, durably.
  static IndexSums create(const std::filesystem::path& collection, const IndexRevisions& revisions,
                          std::optional<std::uint64_t> lastChange = std::nullopt);

  /// The number of the last change of the journal that the index has, if it is known. It may have
  /// later ones, too.
  std::optional<std::uint64_t> lastChange() const { return lastChange_; }

  /// Reads the whole index and passes on every block that is not as it was written.
  void verify(const Visitor& onDamage, const StopCheck& stop);
  /// Throws for the first damage.
  void verify(const StopCheck& stop = [] {});
  /// The same, but reads a large index only if that costs little of the time since it was last
  /// read.
  void verifyIfDue(const StopCheck& stop);

  /// Looks for damage while searches and updates go on. A block that an update writes may look like
  /// damage for a moment, so only what is found twice counts.
  static std::optional<Damage> damageIn(const std::filesystem::path& collection,
                                        const StopCheck& stop);

  /// Whether beginChange() has been called and endChange() has not.
  bool isChanging() const { return changingOnDisk_; }
  /// Comes before a change of the index. Durable when it returns.
  void beginChange();
  /// The change is on disk; makes the new checksums durable. May be repeated if it throws.
  /// `lastChange`: see there; without it nothing more is known than before.
  void endChange(const IndexRevisions& revisions,
                 std::optional<std::uint64_t> lastChange = std::nullopt);

  /// The content that the file, a path within the index, must have if it is one that is kept whole.
  std::optional<std::string> contentOf(const std::string& file) const;

  /// The memory that they take.
  std::size_t bytes() const;

  static constexpr const char* kIndexDirectory = "index";
  static std::filesystem::path pathIn(const std::filesystem::path& collection);
  static std::filesystem::path changingPathIn(const std::filesystem::path& collection);

 private:
  struct FileSums {
    std::uint64_t size = 0;
    std::vector<std::uint32_t> blocks;
    std::string content;
  };
  struct Fresh {};

  IndexSums(std::filesystem::path collection, Fresh) : collection_(std::move(collection)) {}

  std::filesystem::path indexPath() const { return collection_ / kIndexDirectory; }
  void decode(std::string_view bytes, const std::filesystem::path& path);
  std::string encoded() const;
  void readIndex(std::map<std::string, FileSums>& files) const;
  void readBlocks(const std::string& name, FileSums& sums) const;
  std::uint64_t newestRevisionOf(const std::string& table) const;
  void write();
  void verifyFile(const std::string& name, const FileSums& sums, const Visitor& onDamage,
                  const StopCheck& stop) const;
  void verifyContent(const std::filesystem::path& path, const FileSums& sums,
                     const Visitor& onDamage) const;
  void verifyBlocks(const std::string& name, const FileSums& sums, const Visitor& onDamage,
                    const StopCheck& stop) const;

  std::filesystem::path collection_;
  IndexRevisions revisions_;
  std::map<std::string, FileSums> files_;
  std::optional<std::uint64_t> lastChange_;
  // What the name of the file says, and whether that is known to be on disk.
  bool changing_ = false;
  bool changingOnDisk_ = false;
  std::chrono::steady_clock::time_point verified_;
  std::chrono::steady_clock::duration cost_{};
};

}  // namespace corvaned
