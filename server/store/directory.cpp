#include "server/store/directory.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <string_view>
#include <system_error>
#include <utility>

#include "server/base/errors.h"
#include "server/store/files.h"

namespace corvaned {
namespace {

// Nothing if it is not there. What a link leads to does not matter.
std::optional<mode_t> modeOf(const std::filesystem::path& path) {
  struct stat found {};
  if (::lstat(path.c_str(), &found) != 0) return std::nullopt;
  return found.st_mode;
}

// Not every file system tells what an entry is.
bool isDirectory(const dirent& entry, const std::filesystem::path& path) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
  const auto mode = modeOf(path);
  return mode && S_ISDIR(*mode);
}

void remove(const std::filesystem::path& path, bool isDirectory) {
  const int failed = isDirectory ? ::rmdir(path.c_str()) : ::unlink(path.c_str());
  if (failed != 0 && errno != ENOENT) throwSystemError("cannot remove", path);
}

}  // namespace

DirectoryReader::DirectoryReader(std::filesystem::path directory)
    : directory_(std::move(directory)), stream_(::opendir(directory_.c_str())) {
  if (!stream_) throwSystemError("cannot read", directory_);
}

std::optional<DirectoryEntry> DirectoryReader::next() {
  for (;;) {
    errno = 0;
    const dirent* const entry = ::readdir(stream_.get());
    if (!entry && errno != 0) throwSystemError("cannot read", directory_);
    if (!entry) return std::nullopt;
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    std::filesystem::path path = directory_ / name;
    const bool leadsOn = isDirectory(*entry, path);
    return DirectoryEntry{std::move(path), leadsOn};
  }
}

TreeReader::TreeReader(const std::filesystem::path& root) {
  open_.push_back(std::make_unique<DirectoryReader>(root));
}

std::optional<DirectoryEntry> TreeReader::next() {
  if (entered_) {
    open_.push_back(std::make_unique<DirectoryReader>(*entered_));
    entered_.reset();
  }
  while (!open_.empty()) {
    auto entry = open_.back()->next();
    if (entry && entry->isDirectory) entered_ = entry->path;
    if (entry) return entry;
    open_.pop_back();
  }
  return std::nullopt;
}

std::uint64_t bytesInTree(const std::filesystem::path& directory) {
  std::uint64_t bytes = 0;
  try {
    TreeReader reader(directory);
    while (const auto entry = reader.next()) {
      std::error_code gone;
      const bool isFile = std::filesystem::is_regular_file(entry->path, gone);
      const std::uintmax_t size = isFile ? std::filesystem::file_size(entry->path, gone) : 0;
      if (!gone) bytes += size;
    }
  } catch (const ServerError&) {
    // A directory has gone, and perhaps all of them.
  }
  return bytes;
}

void syncTree(const std::filesystem::path& directory, const StopCheck& stop) {
  TreeReader reader(directory);
  while (const auto entry = reader.next()) {
    stop();
    if (entry->isDirectory) {
      syncDirectory(entry->path);
    } else {
      syncFile(openFile(entry->path, O_RDONLY), entry->path);
    }
  }
  syncDirectory(directory);
}

void removeTree(const std::filesystem::path& path) {
  const auto mode = modeOf(path);
  if (!mode && errno != ENOENT) throwSystemError("cannot remove", path);
  if (!mode) return;
  if (!S_ISDIR(*mode)) return remove(path, false);
  DirectoryReader reader(path);
  while (const auto entry = reader.next()) removeTree(entry->path);
  remove(path, true);
}

void tryToRemoveTree(const std::filesystem::path& path) noexcept {
  try {
    removeTree(path);
  } catch (const std::exception& error) {
    spdlog::warn("{}", error.what());
  }
}

}  // namespace corvaned
