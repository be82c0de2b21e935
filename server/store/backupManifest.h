#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "server/store/damage.h"
#include "server/store/stopCheck.h"

namespace corvaned {

/// Throws ServerError(StorageFailed) that describes the damage of a backup and says what to do.
[[noreturn]] void throwBadBackup(const Damage& damage);

/// What a backup consists of: the file BACKUP beside its collections, with a checksum for every
/// 64 KiB of every file.
///
///     corvaned backup 1
///     made = 2026-11-22T06:00:00Z
///     file = 81920 0a1b2c3d,11223344 collections/books/index/docdata.glass
///     file = 0 - collections/books/index/flintlock
///     checksum = 0a1b2c3d
///
/// The last line has the CRC-32 of the lines before. Errors are ServerError(StorageFailed).
class BackupManifest {
 public:
  static std::filesystem::path pathIn(const std::filesystem::path& backup);
  /// Whether the directory is a backup.
  static bool existsIn(const std::filesystem::path& directory);

  /// Reads every file of a backup.
  static BackupManifest make(const std::filesystem::path& backup, const StopCheck& stop);
  /// Throws if it is none, or damaged.
  static BackupManifest read(const std::filesystem::path& backup);

  /// Makes the file, durably but for the directory.
  void write() const;

  const std::string& made() const { return made_; }
  /// Of all files.
  std::uint64_t bytes() const;
  /// The names of the collections.
  std::vector<std::string> collections() const;

  using Visitor = std::function<void(const Damage& damage)>;
  /// Reads the files of a collection and passes on every place that is not as it was written.
  void verify(const std::string& collection, const Visitor& onDamage, const StopCheck& stop) const;
  /// Copies a collection to a directory, which it makes. Throws at the first place that is not as
  /// it was written.
  void copy(const std::string& collection, const std::filesystem::path& target,
            const StopCheck& stop) const;

 private:
  struct File {
    std::uint64_t bytes = 0;
    std::vector<std::uint32_t> pieces;
  };
  /// Gets the pieces of a file that are as they were written.
  using Taker = std::function<void(std::uint64_t place, std::string_view bytes)>;

  explicit BackupManifest(std::filesystem::path backup) : backup_(std::move(backup)) {}

  std::string encoded() const;
  bool decode(std::string_view text);
  bool decodeFile(std::string_view fields);
  File scanned(const std::filesystem::path& path, const StopCheck& stop) const;
  std::vector<std::string> filesOf(const std::string& collection) const;
  void readFile(const std::string& name, const Taker& take, const Visitor& onDamage,
                const StopCheck& stop) const;
  void copyFile(const std::string& name, const std::filesystem::path& target,
                const StopCheck& stop) const;

  std::filesystem::path backup_;
  std::string made_;
  // By their names relative to the backup.
  std::map<std::string, File> files_;
};

}  // namespace corvaned
