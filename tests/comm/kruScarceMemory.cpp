#include "tests/comm/kruScarceMemory.h"

#include <cstdlib>
#include <new>

namespace {
constexpr long kUnlimited = -1;
thread_local bool failing = false;
thread_local long ration = kUnlimited;
thread_local std::size_t lastSize = 0;
}  // namespace

namespace {

void useRation() {
  if (ration == 0) throw std::bad_alloc();
  if (ration > 0) --ration;
}

void* checked(void* block) {
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

void* operator new(std::size_t size) {
  useRation();
  return checked(std::malloc(size != 0 ? size : 1));
}

// The memory resources of the standard library use this form whatever the alignment.
void* operator new(std::size_t size, std::align_val_t alignment) {
  useRation();
  const auto unit = static_cast<std::size_t>(alignment);
  return checked(std::aligned_alloc(unit, (size + unit - 1) / unit * unit));
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (failing) return nullptr;
  lastSize = size;
  return std::malloc(size != 0 ? size : 1);
}

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }

namespace tq::test {

FailingAllocations::FailingAllocations() { failing = true; }
FailingAllocations::~FailingAllocations() { failing = false; }

std::size_t lastBufferSize() { return lastSize; }

RationedAllocations::RationedAllocations(long granted) { ration = granted; }
RationedAllocations::~RationedAllocations() { ration = kUnlimited; }
long RationedAllocations::left() const { return ration; }

}  // namespace tq::test
