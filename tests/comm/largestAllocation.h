#pragma once

#include <atomic>
#include <cstddef>

namespace tq::test {

/// The size of the largest allocation of the process since it was last set to 0. The executable
/// that contains this unit has its operator new.
std::atomic<std::size_t>& largestAllocation();

}  // namespace tq::test
