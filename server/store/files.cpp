#include "server/store/files.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "server/base/errors.h"

namespace corvaned {

FileHandle::~FileHandle() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

void throwSystemError(const std::string& what, const std::filesystem::path& path) {
  const int error = errno;
  const std::string text =
      what + " " + path.string() + ": " + std::generic_category().message(error);
  if (error == EMFILE || error == ENFILE || error == ENOMEM) throw ShortageError(text);
  throw ServerError(ErrorKind::StorageFailed, text);
}

FileHandle openFile(const std::filesystem::path& path, int flags) {
  constexpr mode_t kOwner = 0600;
  FileHandle file(::open(path.c_str(), flags | O_CLOEXEC, kOwner));
  if (file.get() < 0) throwSystemError("cannot open", path);
  return file;
}

void writeAll(const FileHandle& file, std::string_view bytes, const std::filesystem::path& path) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file.get(), bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      throwSystemError("cannot write", path);
    }
  }
}

void writeAt(const FileHandle& file, std::string_view bytes, std::uint64_t place,
             const std::filesystem::path& path) {
  while (!bytes.empty()) {
    const ssize_t written =
        ::pwrite(file.get(), bytes.data(), bytes.size(), static_cast<off_t>(place));
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
      place += static_cast<std::uint64_t>(written);
    } else if (errno != EINTR) {
      throwSystemError("cannot write", path);
    }
  }
}

void syncFile(const FileHandle& file, const std::filesystem::path& path) {
  if (::fdatasync(file.get()) != 0) throwSystemError("cannot bring to disk", path);
}

void replaceFile(const std::filesystem::path& path, std::string_view bytes) {
  std::filesystem::path passing = path;
  passing += ".new";
  const FileHandle file = openFile(passing, O_WRONLY | O_CREAT | O_TRUNC);
  writeAll(file, bytes, passing);
  syncFile(file, passing);
  if (::rename(passing.c_str(), path.c_str()) != 0) throwSystemError("cannot replace", path);
  syncDirectory(path.parent_path());
}

void syncDirectory(const std::filesystem::path& path) {
  const FileHandle directory = openFile(path, O_RDONLY | O_DIRECTORY);
  if (::fsync(directory.get()) != 0) throwSystemError("cannot bring to disk", path);
}

void makeDirectory(const std::filesystem::path& path) {
  if (::mkdir(path.c_str(), S_IRWXU) != 0) throwSystemError("cannot create", path);
}

std::string readAt(const FileHandle& file, std::uint64_t place, std::size_t count,
                   const std::filesystem::path& path) {
  std::string bytes(count, '\0');
  std::size_t held = 0;
  while (held < count) {
    const ssize_t got =
        ::pread(file.get(), bytes.data() + held, count - held, static_cast<off_t>(place + held));
    if (got < 0 && errno != EINTR) throwSystemError("cannot read", path);
    if (got == 0) break;
    if (got > 0) held += static_cast<std::size_t>(got);
  }
  bytes.resize(held);
  return bytes;
}

void exchange(const std::filesystem::path& a, const std::filesystem::path& b) {
  if (::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) != 0) {
    throwSystemError("cannot put " + a.string() + " in place of", b);
  }
}

}  // namespace corvaned
