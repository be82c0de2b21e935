#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

#include "server/base/errors.h"

namespace corvaned {

/// Owns one open file.
class FileHandle {
 public:
  FileHandle() = default;
  explicit FileHandle(int descriptor) : descriptor_(descriptor) {}
  FileHandle(FileHandle&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileHandle& operator=(FileHandle&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;
  ~FileHandle();

  int get() const { return descriptor_; }

 private:
  int descriptor_ = -1;
};

/// The system has no descriptor or no memory left for a file, which itself may be sound.
class ShortageError : public ServerError {
 public:
  explicit ShortageError(const std::string& text) : ServerError(ErrorKind::StorageFailed, text) {}
};

/// Throws ServerError(StorageFailed) that says what failed, on which file, and why according to
/// errno; ShortageError if that is what it means.
[[noreturn]] void throwSystemError(const std::string& what, const std::filesystem::path& path);

/// open(2), close-on-exec. Throws as above.
FileHandle openFile(const std::filesystem::path& path, int flags);

/// Writes all bytes to the file. Throws as above, possibly after writing part of them.
void writeAll(const FileHandle& file, std::string_view bytes, const std::filesystem::path& path);

/// Writes all bytes from that place of the file on. Throws as above.
void writeAt(const FileHandle& file, std::string_view bytes, std::uint64_t place,
             const std::filesystem::path& path);

/// fdatasync(2). Throws as above.
void syncFile(const FileHandle& file, const std::filesystem::path& path);

/// Gives a file this content in one step, durably: whatever happens it has the old or the new one.
/// What has been written of the new one by then has the name with ".new" behind it. Throws as
/// above.
void replaceFile(const std::filesystem::path& path, std::string_view bytes);

/// Makes creations, renames and removals in a directory durable.
void syncDirectory(const std::filesystem::path& path);

/// Makes a directory that only its owner can enter. Throws as above, also if it exists.
void makeDirectory(const std::filesystem::path& path);

/// As many of the bytes from `place` on as there are. Throws as above.
std::string readAt(const FileHandle& file, std::uint64_t place, std::size_t count,
                   const std::filesystem::path& path);

/// Lets two directories of one file system change places in one step.
void exchange(const std::filesystem::path& a, const std::filesystem::path& b);

}  // namespace corvaned
