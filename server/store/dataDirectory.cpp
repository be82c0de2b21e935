#include "server/store/dataDirectory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <utility>

#include "server/base/collectionName.h"
#include "server/base/errors.h"
#include "server/store/textNormalizer.h"

namespace corvaned {
namespace {

bool tryToLock(const FileHandle& file) { return ::flock(file.get(), LOCK_EX | LOCK_NB) == 0; }

std::filesystem::path lockIn(const std::filesystem::path& root) { return root / "LOCK"; }

// The file is what earlier builds lock, and it can be removed by mistake while a server runs. The
// directory cannot without what is in it, but not every file system locks directories.
DataDirectoryLock locked(const std::filesystem::path& root, DataDirectoryLock lock) {
  const bool hasDirectory = tryToLock(lock.directory) || errno != EWOULDBLOCK;
  if (hasDirectory && (lock.file.get() < 0 || tryToLock(lock.file))) return lock;
  if (errno != EWOULDBLOCK) throwSystemError("cannot lock", lockIn(root));
  throw ServerError(ErrorKind::StorageFailed,
                    "the data directory " + root.string() +
                        " is in use by another server; stop it, or choose another directory");
}

}  // namespace

std::string directoryNameFor(std::string_view collection) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  if (collection.empty() || !isUtf8(collection)) {
    throw ServerError(ErrorKind::BadCollectionName, "a collection's name must be UTF-8 text");
  }
  requireShortName(collection);
  std::string name;
  for (const char c : collection) {
    const auto byte = static_cast<unsigned char>(c);
    if (standsForItself(c))
      name += c;
    else
      name.append({'%', kDigits[byte >> 4U], kDigits[byte & 0xFU]});
  }
  return name;
}

std::string collectionNameFor(std::string_view directory) {
  std::string name;
  for (std::size_t i = 0; i < directory.size(); ++i) {
    unsigned byte = 0;
    if (directory[i] == '%' && i + 2 < directory.size() &&
        std::from_chars(&directory[i + 1], &directory[i + 1] + 2, byte, 16).ec == std::errc{}) {
      name += static_cast<char>(byte);
      i += 2;
    } else {
      name += directory[i];
    }
  }
  return name;
}

std::optional<std::string> nameIfCollection(std::string_view directory) {
  std::string name = collectionNameFor(directory);
  try {
    if (directoryNameFor(name) == directory) return name;
  } catch (const ServerError&) {
    // No collection can have that name.
  }
  return std::nullopt;
}

DataDirectoryLock lockDataDirectory(const std::filesystem::path& root) {
  return locked(root,
                {openFile(root, O_RDONLY | O_DIRECTORY), openFile(lockIn(root), O_RDWR | O_CREAT)});
}

DataDirectoryLock lockToRead(const std::filesystem::path& root) {
  if (!isOnReadOnlyFileSystem(root)) return lockDataDirectory(root);
  DataDirectoryLock lock{openFile(root, O_RDONLY | O_DIRECTORY), {}};
  // A server may have been running since before it became read-only.
  if (std::filesystem::exists(lockIn(root))) lock.file = openFile(lockIn(root), O_RDONLY);
  return locked(root, std::move(lock));
}

bool isOnReadOnlyFileSystem(const std::filesystem::path& directory) {
  return ::access(directory.c_str(), W_OK) != 0 && errno == EROFS;
}

std::filesystem::path collectionsIn(const std::filesystem::path& root) {
  return root / "collections";
}

std::filesystem::path beforeRestoreIn(const std::filesystem::path& root) {
  return root / "before-restore";
}

std::filesystem::path beforeRepairIn(const std::filesystem::path& root) {
  return root / "before-repair";
}

}  // namespace corvaned
