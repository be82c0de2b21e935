#include "tests/support/scarceTexts.h"

#include <unicode/uclean.h>

#include <cstddef>
#include <cstdlib>

namespace {

constexpr long kPlenty = -1;
thread_local long left = kPlenty;
thread_local long live = 0;

bool mayHaveOne() noexcept {
  if (left == 0) return false;
  if (left > 0) --left;
  return true;
}

void* noted(void* block) noexcept {
  if (block != nullptr) ++live;
  return block;
}

void* allocate(const void*, std::size_t size) noexcept {
  return mayHaveOne() ? noted(std::malloc(size)) : nullptr;
}

void* reallocate(const void*, void* block, std::size_t size) noexcept {
  if (!mayHaveOne()) return nullptr;
  void* const moved = std::realloc(block, size);
  return block == nullptr ? noted(moved) : moved;
}

void release(const void*, void* block) noexcept {
  if (block != nullptr) --live;
  std::free(block);
}

// Before anything else uses ICU, so that each of its blocks is released by the function above.
[[gnu::init_priority(101)]] const struct TextMemory {
  TextMemory() {
    UErrorCode status = U_ZERO_ERROR;
    u_setMemoryFunctions(nullptr, allocate, reallocate, release, &status);
    if (U_FAILURE(status)) std::abort();
  }
} kTextMemory;

}  // namespace

namespace tq::test {

long liveTexts() { return live; }

ScarceTexts::ScarceTexts(long granted) { left = granted; }
ScarceTexts::~ScarceTexts() { left = kPlenty; }

}  // namespace tq::test
