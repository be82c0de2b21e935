#include "tests/comm/largestAllocation.h"

#include <cstdlib>
#include <new>

namespace {

void* allocate(std::size_t size) noexcept {
  std::atomic<std::size_t>& most = tq::test::largestAllocation();
  std::size_t largest = most.load(std::memory_order_relaxed);
  while (size > largest && !most.compare_exchange_weak(largest, size)) {
  }
  return std::malloc(size == 0 ? 1 : size);
}

void* allocateOrThrow(std::size_t size) {
  void* memory = allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

std::atomic<std::size_t>& tq::test::largestAllocation() {
  static std::atomic<std::size_t> largest{0};
  return largest;
}
