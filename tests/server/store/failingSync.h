#pragma once

#include <string>

namespace corvaned::test {

// For executables that have failingSync.cpp among their sources, which replaces both functions.

/// While one lives, fdatasync(2) fails with EIO in the whole process.
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

/// While one lives, the first fdatasync(2) of a file of that name waits until the object goes.
class SlowSync {
 public:
  explicit SlowSync(std::string name);
  ~SlowSync();
  SlowSync(const SlowSync&) = delete;
  SlowSync& operator=(const SlowSync&) = delete;

  /// Returns when it waits.
  void await() const;
};

/// How often fdatasync(2) has succeeded so far.
int syncsSoFar();

}  // namespace corvaned::test
