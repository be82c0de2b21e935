#pragma once

#include <cstdint>

/// What a process has used since it began, or since the peak was asked for last.
struct BenchCounts {
  std::uint64_t allocations;
  std::uint64_t systemCalls;
  std::uint64_t receives;  // those of the system calls that ask for bytes
  std::uint64_t liveBytes;
  std::uint64_t peakBytes;
};

/// `benchCounts` of the counting library: fills the counts, and lets the peak start anew.
using BenchCountsFunction = void (*)(BenchCounts*);
