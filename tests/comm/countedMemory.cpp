#include "tests/comm/countedMemory.h"

#include <unicode/uclean.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> count{0};

void* counted(void* block) {
  count.fetch_add(1, std::memory_order_relaxed);
  return block;
}

void* countedOrThrow(void* block) {
  if (block == nullptr) throw std::bad_alloc();
  return counted(block);
}

void* allocateText(const void*, std::size_t size) noexcept { return counted(std::malloc(size)); }
void* reallocateText(const void*, void* block, std::size_t size) noexcept {
  return counted(std::realloc(block, size));
}
void releaseText(const void*, void* block) noexcept { std::free(block); }

// Before anything else uses ICU, so that each of its blocks is released by the function above.
[[gnu::init_priority(101)]] const struct TextMemory {
  TextMemory() {
    UErrorCode status = U_ZERO_ERROR;
    u_setMemoryFunctions(nullptr, allocateText, reallocateText, releaseText, &status);
    if (U_FAILURE(status)) std::abort();
  }
} textMemory;

}  // namespace

// The other forms of the standard library end in these.
void* operator new(std::size_t size) { return countedOrThrow(std::malloc(size != 0 ? size : 1)); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  const auto unit = static_cast<std::size_t>(alignment);
  return countedOrThrow(std::aligned_alloc(unit, (size + unit - 1) / unit * unit));
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { std::free(block); }

namespace tq::test {

long allocationsSoFar() { return count; }

}  // namespace tq::test
