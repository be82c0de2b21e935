#pragma once

namespace corvaned::test {

/// While one lives, fdatasync(2) fails with EIO in the whole process. For executables that have
/// failingSync.cpp among their sources, which replaces it.
class FailingSync {
 public:
  FailingSync();
  ~FailingSync();
  FailingSync(const FailingSync&) = delete;
  FailingSync& operator=(const FailingSync&) = delete;
};

/// The same with fsync(2), which brings directories to disk.
class FailingDirectorySync {
 public:
  FailingDirectorySync();
  ~FailingDirectorySync();
  FailingDirectorySync(const FailingDirectorySync&) = delete;
  FailingDirectorySync& operator=(const FailingDirectorySync&) = delete;
};

/// How often fdatasync(2) has succeeded so far.
int syncsSoFar();

}  // namespace corvaned::test
