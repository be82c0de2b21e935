#pragma once

#include <cstdio>
#include <cstdlib>

namespace tq::fuzz {

[[noreturn]] inline void fail(const char* what) {
  std::fprintf(stderr, "broken promise: %s\n", what);
  std::abort();
}

/// Ends the process when a promise does not hold, which is how a fuzzer is told.
inline void require(bool holds, const char* what) {
  if (!holds) fail(what);
}

}  // namespace tq::fuzz
