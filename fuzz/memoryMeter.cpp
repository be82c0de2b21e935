#include "fuzz/memoryMeter.h"

#include <sanitizer/allocator_interface.h>

#include <algorithm>
#include <cstdio>

#include "fuzz/check.h"
#include "tests/support/simulatedKernel.h"

namespace tq::fuzz {

namespace {

bool measuring = false;
bool kernelWorks = false;
std::size_t largestSeen = 0;
std::size_t peakSeen = 0;
// Signed: what was allocated before the measuring began may be given back during it.
std::ptrdiff_t held = 0;

void onAllocation(const volatile void*, std::size_t size) {
  if (!measuring || kernelWorks) return;
  largestSeen = std::max(largestSeen, size);
  held += static_cast<std::ptrdiff_t>(size);
  peakSeen = std::max(peakSeen, static_cast<std::size_t>(std::max<std::ptrdiff_t>(held, 0)));
}

void onRelease(const volatile void* block) {
  if (!measuring || kernelWorks || block == nullptr) return;
  const void* plain = const_cast<const void*>(block);
  if (__sanitizer_get_ownership(plain) == 0) return;
  held -= static_cast<std::ptrdiff_t>(__sanitizer_get_allocated_size(plain));
}

void installOnce() {
  static const int installed = __sanitizer_install_malloc_and_free_hooks(onAllocation, onRelease);
  require(installed != 0, "the allocator can be watched");
}

}  // namespace

MemoryMeter::MemoryMeter() {
  installOnce();
  largestSeen = 0;
  peakSeen = 0;
  held = 0;
  measuring = true;
  tq::test::SimulatedKernel::tellOfWork([](bool begins) { kernelWorks = begins; });
}

MemoryMeter::~MemoryMeter() {
  tq::test::SimulatedKernel::tellOfWork(nullptr);
  measuring = false;
}

std::size_t MemoryMeter::largest() const { return largestSeen; }
std::size_t MemoryMeter::peak() const { return peakSeen; }

void requireWithin(const MemoryMeter& meter, const MemoryBounds& bounds, std::size_t bytes) {
  const std::size_t largest = bounds.largestBase + bounds.largestPerByte * bytes;
  const std::size_t peak = bounds.peakBase + bounds.peakPerByte * bytes;
  if (meter.largest() <= largest && meter.peak() <= peak) return;
  std::fprintf(stderr,
               "%zu bytes were sent; largest allocation %zu of %zu granted, peak %zu of %zu\n",
               bytes, meter.largest(), largest, meter.peak(), peak);
  fail("memory beyond what the received bytes account for");
}

}  // namespace tq::fuzz
