#pragma once

#include <cstddef>

/// Lets the buffers of the library run out of memory.
namespace tq::test {

/// While one lives, the non-throwing operator new of this process gives null on this thread.
class FailingAllocations {
 public:
  FailingAllocations();
  ~FailingAllocations();
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;
};

/// The size in bytes of the last block that the non-throwing operator new of this process gave to
/// this thread. The buffers of the library take theirs from it.
std::size_t lastBufferSize();

/// While one lives, the ordinary operator new of this process serves this thread `granted` times
/// and then throws std::bad_alloc.
class RationedAllocations {
 public:
  explicit RationedAllocations(long granted);
  ~RationedAllocations();
  RationedAllocations(const RationedAllocations&) = delete;
  RationedAllocations& operator=(const RationedAllocations&) = delete;

  /// How many of those granted have not been used.
  long left() const;
};

}  // namespace tq::test
