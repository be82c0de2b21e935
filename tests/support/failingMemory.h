#pragma once

#include <atomic>
#include <cstddef>
#include <new>

namespace tq::test {

inline std::atomic<bool>& memoryIsOut() {
  static std::atomic<bool> out{false};
  return out;
}

/// While it lives, allocations that report failure by a null pointer fail. The executable must
/// contain `KRU_FAILING_MEMORY` once.
class OutOfMemory {
 public:
  OutOfMemory() { memoryIsOut() = true; }
  ~OutOfMemory() { memoryIsOut() = false; }
  OutOfMemory(const OutOfMemory&) = delete;
  OutOfMemory& operator=(const OutOfMemory&) = delete;
};

}  // namespace tq::test

#define KRU_FAILING_MEMORY                                               \
  void* operator new(std::size_t size, const std::nothrow_t&) noexcept { \
    if (tq::test::memoryIsOut()) return nullptr;                         \
    try {                                                                \
      return ::operator new(size);                                       \
    } catch (const std::bad_alloc&) {                                    \
      return nullptr;                                                    \
    }                                                                    \
  }
