#pragma once

namespace tq::test {

/// The allocations of this process so far, ICU's included.
long allocationsSoFar();

}  // namespace tq::test
