#pragma once

#include <functional>

namespace corvaned {

/// Called again and again during long work; throws to end it.
using StopCheck = std::function<void()>;

}  // namespace corvaned
