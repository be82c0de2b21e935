#include "tests/server/store/failingSync.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<bool> failing = false;
std::atomic<bool> failingDirectories = false;
std::atomic<int> successes = 0;

}  // namespace

extern "C" int fdatasync(int file) {
  if (failing) {
    errno = EIO;
    return -1;
  }
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

int syncsSoFar() { return successes; }

}  // namespace corvaned::test
