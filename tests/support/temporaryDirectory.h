#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace tq::test {

/// An empty directory that goes away with the object. It lies in memory where the machine has room
/// for files there: servers bring every change to disk, and on a real one tests would do little but
/// wait for it.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    const char* memory = "/dev/shm";
    const bool inMemory = ::access(memory, W_OK | X_OK) == 0;
    const std::filesystem::path parent =
        inMemory ? std::filesystem::path(memory) : std::filesystem::temp_directory_path();
    std::string pattern = (parent / "corvaned-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory");
    path_ = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace tq::test
