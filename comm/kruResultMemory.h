#pragma once

#include <memory_resource>

namespace tq::comm {

/// Where lists of results take the memory of their elements: global new and delete. Never the
/// default resource of the process, which belongs to the host: it may serve one thread only, or be
/// gone before a list is.
std::pmr::memory_resource* memoryOfResults() noexcept;

/// Puts another one in force for the lists that are made from now on, so that a test can let it run
/// out, and returns the one before it.
std::pmr::memory_resource* replaceMemoryOfResults(std::pmr::memory_resource* memory) noexcept;

}  // namespace tq::comm
