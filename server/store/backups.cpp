#include "server/store/backups.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <sys/file.h>

#include <algorithm>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/store/backupManifest.h"
#include "server/store/dataDirectory.h"
#include "server/store/directory.h"

namespace corvaned {
namespace {

// directoryNameFor never returns a name with a dot.
constexpr const char* kPassing = ".passing-";

std::string directoryFor(const std::string& backup) {
  try {
    return directoryNameFor(backup);
  } catch (const ServerError&) {
    throw ServerError(ErrorKind::BadParameter,
                      "the backup cannot be called " + shown(backup) +
                          ": a name is UTF-8 text with at most 240 letters and digits, or 80 bytes "
                          "in any writing");
  }
}

std::filesystem::path prepared(std::filesystem::path directory) {
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (error) {
    throw ServerError(ErrorKind::StorageFailed, "cannot create the directory of backups " +
                                                    directory.string() + ": " + error.message());
  }
  return directory;
}

// Others may have put something of their own beside the backups.
std::optional<std::string> nameIfBackup(const std::filesystem::path& path) {
  const std::string directory = path.filename().string();
  std::string name = collectionNameFor(directory);
  try {
    if (directoryNameFor(name) == directory && BackupManifest::existsIn(path)) return name;
  } catch (const ServerError&) {
    // No backup can have that name.
  }
  return std::nullopt;
}

bool lock(const FileHandle& directory) { return ::flock(directory.get(), LOCK_EX | LOCK_NB) == 0; }

}  // namespace

Backups::Backups(std::filesystem::path directory) : directory_(prepared(std::move(directory))) {
  removeLeftovers();
}

Backups::Draft Backups::begin(const std::string& name) {
  const std::string directory = directoryFor(name);
  const std::filesystem::path finally = directory_ / directory;
  if (std::filesystem::exists(finally)) {
    throw ServerError(ErrorKind::BadParameter, "there is a backup " + shown(name) +
                                                   " already; choose another name, or remove it");
  }
  removeLeftovers();
  return {directory_ / (kPassing + directory), finally};
}

std::filesystem::path Backups::find(const std::string& name) const {
  std::filesystem::path path = directory_ / directoryFor(name);
  if (BackupManifest::existsIn(path)) return path;
  throw ServerError(ErrorKind::BadParameter, "there is no backup " + shown(name));
}

std::vector<std::string> Backups::names(const std::string& after, std::uint64_t most) const {
  std::vector<std::string> names;
  DirectoryReader reader(directory_);
  while (const auto entry = reader.next()) {
    auto name = nameIfBackup(entry->path);
    if (name && *name > after) names.push_back(std::move(*name));
  }
  std::sort(names.begin(), names.end());
  if (names.size() > most) names.resize(static_cast<std::size_t>(most));
  return names;
}

// Those that nobody has locked.
void Backups::removeLeftovers() const {
  std::vector<std::filesystem::path> leftovers;
  DirectoryReader reader(directory_);
  while (auto entry = reader.next()) {
    const bool isLeftover = entry->path.filename().string().starts_with(kPassing);
    if (isLeftover) leftovers.push_back(std::move(entry->path));
  }
  for (const std::filesystem::path& path : leftovers) {
    const FileHandle directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() < 0 || !lock(directory)) continue;
    tryToRemoveTree(path);
  }
}

Backups::Draft::Draft(std::filesystem::path path, std::filesystem::path finally)
    : path_(std::move(path)), finally_(std::move(finally)) {
  makeDirectory(path_);
  try {
    lock_ = openFile(path_, O_RDONLY | O_DIRECTORY);
    if (!lock(lock_)) throwSystemError("cannot lock", path_);
    makeDirectory(collectionsIn(path_));
  } catch (...) {
    tryToRemoveTree(path_);
    throw;
  }
}

Backups::Draft::Draft(Draft&& other) noexcept
    : path_(std::exchange(other.path_, {})),
      finally_(std::move(other.finally_)),
      lock_(std::move(other.lock_)) {}

Backups::Draft::~Draft() {
  if (path_.empty()) return;
  tryToRemoveTree(path_);
}

std::filesystem::path Backups::Draft::pathOf(const std::string& collection) const {
  return collectionsIn(path_) / directoryNameFor(collection);
}

// Not in place of another one: that is not empty, so renaming fails.
void Backups::Draft::complete() {
  std::filesystem::rename(path_, finally_);
  path_ = finally_;
  syncDirectory(finally_.parent_path());
  path_.clear();
}

}  // namespace corvaned
