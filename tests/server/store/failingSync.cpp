#include "tests/server/store/failingSync.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>

namespace {

std::atomic<bool> failing = false;
std::atomic<bool> failingDirectories = false;
std::atomic<int> successes = 0;

std::mutex slowMutex;
std::condition_variable slowChanged;
// Guarded by slowMutex: the file whose next sync waits, none if it is empty; and whether one waits.
std::string slowName;
bool waiting = false;

std::string nameOf(int file) {
  std::error_code unknown;
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), unknown)
      .filename()
      .string();
}

void waitIfSlow(int file) {
  std::unique_lock lock(slowMutex);
  if (slowName.empty() || nameOf(file) != slowName || std::exchange(waiting, true)) return;
  slowChanged.notify_all();
  slowChanged.wait(lock, [] { return slowName.empty(); });
}

}  // namespace

extern "C" int fdatasync(int file) {
  if (failing) {
    errno = EIO;
    return -1;
  }
  waitIfSlow(file);
  const auto result = static_cast<int>(::syscall(SYS_fdatasync, file));
  if (result == 0) ++successes;
  return result;
}

extern "C" int fsync(int file) {
  if (failingDirectories) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(::syscall(SYS_fsync, file));
}

namespace corvaned::test {

FailingSync::FailingSync() { failing = true; }
FailingSync::~FailingSync() { failing = false; }

FailingDirectorySync::FailingDirectorySync() { failingDirectories = true; }
FailingDirectorySync::~FailingDirectorySync() { failingDirectories = false; }

SlowSync::SlowSync(std::string name) {
  const std::lock_guard lock(slowMutex);
  slowName = std::move(name);
  waiting = false;
}
SlowSync::~SlowSync() {
  const std::lock_guard lock(slowMutex);
  slowName.clear();
  slowChanged.notify_all();
}
void SlowSync::await() const {
  std::unique_lock lock(slowMutex);
  slowChanged.wait(lock, [] { return waiting; });
}

int syncsSoFar() { return successes; }

}  // namespace corvaned::test
