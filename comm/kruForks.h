#pragma once

#include <atomic>
#include <cstddef>

namespace tq::comm {

/// From now on forks are noticed. Called before anything comes into being that a child must not
/// use: a connection, or a message that waits. Without memory for it the next call tries again.
void watchForks() noexcept;

/// How they are noticed.
namespace forks {

inline constexpr std::size_t kPage = 4096;

/// The number of this process, alone on its page; 0 while it has none.
struct alignas(kPage) Mark {
  std::atomic<unsigned int> number{0};
};
extern Mark mark;

/// Gives this process a number that none of its ancestors has.
unsigned int number() noexcept;

}  // namespace forks

/// A number that is another one in a forked child than in its parent, so that a child can tell what
/// it has from its parent. Costs one load. A child that shares its parent's memory (vfork) is not
/// noticed.
inline unsigned int forkNumber() noexcept {
  const unsigned int number = forks::mark.number.load(std::memory_order_relaxed);
  return number != 0 ? number : forks::number();
}

}  // namespace tq::comm
