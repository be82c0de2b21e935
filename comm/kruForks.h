#pragma once

#include <atomic>

namespace tq::comm {

/// From now on forks are noticed. Called with every connection that is made: there is nothing to
/// notice before the first one. Without memory for it the next connection tries again.
void watchForks() noexcept;

/// Counted in the child. Read through forkNumber().
extern std::atomic<unsigned int> forks;

/// A number that is another one in a forked child than in its parent, so that a child can tell what
/// it has from its parent. Costs one load. A child of vfork or of a bare clone is not noticed.
inline unsigned int forkNumber() noexcept { return forks.load(std::memory_order_relaxed); }

}  // namespace tq::comm
