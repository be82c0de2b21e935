#pragma once

#include <atomic>

namespace tq::comm {

/// From now on forks are noticed. Called before anything comes into being that a child must not
/// use: a connection, or a message that waits. Without memory for it the next call tries again.
void watchForks() noexcept;

/// Counted in the child. Read through forkNumber().
extern std::atomic<unsigned int> forks;

/// A number that is another one in a forked child than in its parent, so that a child can tell what
/// it has from its parent. Costs one load. A child of vfork or of a bare clone is not noticed.
inline unsigned int forkNumber() noexcept { return forks.load(std::memory_order_relaxed); }

}  // namespace tq::comm
