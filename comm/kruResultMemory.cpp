#include "comm/kruResultMemory.h"

#include <atomic>

namespace tq::comm {

namespace {

// Null: that of the language, which no constant expression gives.
std::atomic<std::pmr::memory_resource*> replaced{nullptr};

}  // namespace

std::pmr::memory_resource* memoryOfResults() noexcept {
  std::pmr::memory_resource* memory = replaced.load(std::memory_order_acquire);
  return memory != nullptr ? memory : std::pmr::new_delete_resource();
}

std::pmr::memory_resource* replaceMemoryOfResults(std::pmr::memory_resource* memory) noexcept {
  std::pmr::memory_resource* before = memoryOfResults();
  replaced.store(memory, std::memory_order_release);
  return before;
}

}  // namespace tq::comm
