#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "server/store/files.h"

namespace corvaned {

/// The name of a collection's directory: letters, digits, "_" and "-" are kept, every other byte is
/// written %XX. Different collections never share a directory, and no name leads out of the parent
/// directory. Throws ServerError(BadCollectionName) if the name is empty, too long, or not UTF-8.
std::string directoryNameFor(std::string_view collection);

/// The name of the collection whose directory is called so.
std::string collectionNameFor(std::string_view directory);
/// Nothing if no collection has such a directory: others may have put something of their own beside
/// the collections.
std::optional<std::string> nameIfCollection(std::string_view directory);

/// What keeps a data directory locked.
struct DataDirectoryLock {
  FileHandle directory;
  FileHandle file;
};

/// Locks the data directory until the lock is gone. Throws ServerError(StorageFailed) if somebody
/// else has locked it.
DataDirectoryLock lockDataDirectory(const std::filesystem::path& root);
/// The same where nothing need be written: what a read-only file system lacks for that is left out.
DataDirectoryLock lockToRead(const std::filesystem::path& root);

/// Whether nothing in the directory can be changed, whoever tries.
bool isOnReadOnlyFileSystem(const std::filesystem::path& directory);

/// The directory that holds the collections' directories.
std::filesystem::path collectionsIn(const std::filesystem::path& root);

/// Where collections are kept as they were before others took their places.
std::filesystem::path beforeRestoreIn(const std::filesystem::path& root);
std::filesystem::path beforeRepairIn(const std::filesystem::path& root);

}  // namespace corvaned
