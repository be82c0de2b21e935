#pragma once

#include <dirent.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "server/store/stopCheck.h"

namespace corvaned {

struct DirectoryEntry {
  std::filesystem::path path;
  /// A link to a directory is none.
  bool isDirectory = false;
};

/// What stands in a directory, in no particular order. The iterators of the C++ library end the
/// process if they lack memory on their way; this throws. Errors are ServerError(StorageFailed).
class DirectoryReader {
 public:
  explicit DirectoryReader(std::filesystem::path directory);

  /// Nothing when there are no more.
  std::optional<DirectoryEntry> next();

 private:
  struct Close {
    void operator()(DIR* stream) const { ::closedir(stream); }
  };

  const std::filesystem::path directory_;
  const std::unique_ptr<DIR, Close> stream_;
};

/// The same with everything in the directories below, which come after the directory that has them.
class TreeReader {
 public:
  explicit TreeReader(const std::filesystem::path& root);

  std::optional<DirectoryEntry> next();
  /// Leaves out what is in the directory that next() has returned last.
  void skip() { entered_.reset(); }

 private:
  // The directories that are being read, each of them in the one before it.
  std::vector<std::unique_ptr<DirectoryReader>> open_;
  // Which one next() is going to read.
  std::optional<std::filesystem::path> entered_;
};

/// How many bytes the files in a directory have together. What comes or goes meanwhile may count.
std::uint64_t bytesInTree(const std::filesystem::path& directory);

/// Brings the directory and everything in it to disk. `stop` throws to end that between two files.
void syncTree(
    const std::filesystem::path& directory, const StopCheck& stop = [] {});

/// Removes a file, or a directory and everything in it. Nothing if there is none.
void removeTree(const std::filesystem::path& path);
/// The same for what does no harm if it stays: a failure only appears in the log.
void tryToRemoveTree(const std::filesystem::path& path) noexcept;

}  // namespace corvaned
