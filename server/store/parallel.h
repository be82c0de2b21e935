#pragma once

#include <cstddef>
#include <functional>

namespace corvaned {

/// Has the work done by another thread as soon as one is free. None: nobody helps.
using Helpers = std::function<void(std::function<void()> work)>;

/// Calls work(0) to work(count - 1), each once, on this thread and on those that help. Returns when
/// all calls have ended; then throws what the first of them threw, if any did.
void inParallel(std::size_t count, const Helpers& helpers,
                const std::function<void(std::size_t)>& work);

}  // namespace corvaned
