#pragma once

namespace tq::test {

/// Blocks of this thread that were taken and not given back, ICU's included. All of this file is
/// for executables that have countedMemory.cpp among their sources, which replaces the allocation
/// functions.
long liveBlocks();

/// Allocations of this thread so far; one that makes a block larger counts, too.
long allocationsSoFar();

/// While one lives, one allocation of this thread fails, counted from 1, or it and all that follow;
/// 0: none. What the simulated kernel allocates is not counted.
class ScarceMemory {
 public:
  /// Which allocations count: those of objects by `new`, those of texts by ICU, or both.
  enum class Of { Objects, Texts, All };

  ScarceMemory(long failing, bool lasting, Of of = Of::All);
  ~ScarceMemory();
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;

  /// Allocations so far. When they are fewer than the one that fails, none has failed.
  long count() const;
};

}  // namespace tq::test
