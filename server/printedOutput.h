#pragma once

#include <iostream>
#include <stdexcept>

namespace corvaned {

/// Brings what was printed to standard output; throws if somebody cannot read all of it.
inline void requirePrinted() {
  if (!std::cout.flush()) {
    throw std::runtime_error("cannot write the result to standard output");
  }
}

}  // namespace corvaned
