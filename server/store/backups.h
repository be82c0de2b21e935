#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "server/store/files.h"

namespace corvaned {

/// The directory that holds backups, each in a directory of its own:
///
///     <name>/BACKUP                   the list of its files, see BackupManifest
///     <name>/collections/<name>/...   the collections, as a data directory has them
///     .passing-<name>                 one that is being made
///
/// In directory names, names are written as those of collections are. Errors are ServerError.
class Backups {
 public:
  /// Creates the directory if it does not exist.
  explicit Backups(std::filesystem::path directory);

  /// A backup that is being made. Unless complete() has been called nothing is left of it.
  class Draft {
   public:
    Draft(Draft&& other) noexcept;
    Draft& operator=(Draft&&) = delete;
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;
    ~Draft();

    const std::filesystem::path& path() const { return path_; }
    /// Where a collection is to be copied.
    std::filesystem::path pathOf(const std::string& collection) const;
    /// Gives the backup its name, durably. Everything in it must be on disk.
    void complete();

   private:
    friend class Backups;
    Draft(std::filesystem::path path, std::filesystem::path finally);

    std::filesystem::path path_;
    std::filesystem::path finally_;
    // Locked, so that another server that has the same directory does not take it for a leftover.
    FileHandle lock_;
  };

  /// Throws ServerError(BadParameter) if the name cannot be one, or is in use.
  Draft begin(const std::string& name);
  /// Throws ServerError(BadParameter) if there is none of that name.
  std::filesystem::path find(const std::string& name) const;
  /// The first `most` of the names that come after `after`, in byte order.
  std::vector<std::string> names(const std::string& after, std::uint64_t most) const;

 private:
  void removeLeftovers() const;

  const std::filesystem::path directory_;
};

}  // namespace corvaned
