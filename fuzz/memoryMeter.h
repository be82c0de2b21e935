#pragma once

#include <cstddef>

namespace tq::fuzz {

/// Watches every allocation of the process while it lives, of this program and of the libraries
/// under it, but for those of the simulated kernel. One at a time, one thread.
class MemoryMeter {
 public:
  MemoryMeter();
  ~MemoryMeter();
  MemoryMeter(const MemoryMeter&) = delete;
  MemoryMeter& operator=(const MemoryMeter&) = delete;

  /// The largest single allocation, in bytes.
  std::size_t largest() const;
  /// The most that was allocated at a time, over what was there at the start, in bytes.
  std::size_t peak() const;
};

/// What a reader of hostile bytes may take: a fixed amount, and a multiple of the bytes that were
/// really sent.
struct MemoryBounds {
  std::size_t largestBase;
  std::size_t largestPerByte;
  std::size_t peakBase;
  std::size_t peakPerByte;
};

/// Ends the process when more was allocated than `bounds` grant for `bytes` bytes.
void requireWithin(const MemoryMeter& meter, const MemoryBounds& bounds, std::size_t bytes);

}  // namespace tq::fuzz
