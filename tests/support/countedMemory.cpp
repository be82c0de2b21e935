#include "tests/support/countedMemory.h"

#include <unicode/uclean.h>

#include <cstddef>
#include <cstdlib>
#include <new>

#include "tests/support/simulatedKernel.h"

namespace {

using tq::test::ScarceMemory;

struct Memory {
  bool counting = false;
  ScarceMemory::Of of = ScarceMemory::Of::All;
  bool lasting = false;
  long failing = 0;
  long count = 0;  // while counting
  long taken = 0;
  long live = 0;
};
thread_local Memory memory;

bool mustFail(ScarceMemory::Of source) noexcept {
  const bool counts = memory.of == source || memory.of == ScarceMemory::Of::All;
  if (!memory.counting || !counts) return false;
  const long at = ++memory.count;
  return memory.failing != 0 && (at == memory.failing || (memory.lasting && at > memory.failing));
}

void* noted(void* block) noexcept {
  if (block == nullptr) return block;
  ++memory.taken;
  ++memory.live;
  return block;
}

void* allocate(std::size_t size, ScarceMemory::Of source = ScarceMemory::Of::Objects) noexcept {
  return mustFail(source) ? nullptr : noted(std::malloc(size != 0 ? size : 1));
}

void* allocateAligned(std::size_t size, std::align_val_t alignment) noexcept {
  const auto unit = static_cast<std::size_t>(alignment);
  if (mustFail(ScarceMemory::Of::Objects)) return nullptr;
  return noted(std::aligned_alloc(unit, (size + unit - 1) / unit * unit));
}

void* orThrow(void* block) {
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void release(void* block) noexcept {
  if (block != nullptr) --memory.live;
  std::free(block);
}

void* allocateText(const void*, std::size_t size) noexcept {
  return allocate(size, ScarceMemory::Of::Texts);
}

void* reallocateText(const void*, void* block, std::size_t size) noexcept {
  if (mustFail(ScarceMemory::Of::Texts)) return nullptr;
  void* moved = noted(std::realloc(block, size));
  if (moved != nullptr && block != nullptr) --memory.live;
  return moved;
}

void releaseText(const void*, void* block) noexcept { release(block); }

// Before anything else uses ICU, so that each of its blocks is released by the function above.
[[gnu::init_priority(101)]] const struct TextMemory {
  TextMemory() {
    UErrorCode status = U_ZERO_ERROR;
    u_setMemoryFunctions(nullptr, allocateText, reallocateText, releaseText, &status);
    if (U_FAILURE(status)) std::abort();
  }
} kTextMemory;

}  // namespace

void* operator new(std::size_t size) { return orThrow(allocate(size)); }
void* operator new[](std::size_t size) { return orThrow(allocate(size)); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return orThrow(allocateAligned(size, alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return orThrow(allocateAligned(size, alignment));
}
void operator delete(void* block) noexcept { release(block); }
void operator delete[](void* block) noexcept { release(block); }
void operator delete(void* block, std::size_t) noexcept { release(block); }
void operator delete[](void* block, std::size_t) noexcept { release(block); }
void operator delete(void* block, std::align_val_t) noexcept { release(block); }
void operator delete[](void* block, std::align_val_t) noexcept { release(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { release(block); }
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept { release(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { release(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { release(block); }

namespace tq::test {

long liveBlocks() { return memory.live; }
long allocationsSoFar() { return memory.taken; }

ScarceMemory::ScarceMemory(long failing, bool lasting, Of of) {
  memory.of = of;
  memory.failing = failing;
  memory.lasting = lasting;
  memory.count = 0;
  memory.counting = true;
  SimulatedKernel::tellOfWork([](bool begins) { memory.counting = !begins; });
}

ScarceMemory::~ScarceMemory() {
  memory.counting = false;
  SimulatedKernel::tellOfWork(nullptr);
}

long ScarceMemory::count() const { return memory.count; }

}  // namespace tq::test
