#pragma once

// What every peer's program has: works to choose from, one line for what fails, and the request of
// the small exchange.

#include <cstdio>
#include <exception>
#include <initializer_list>

#include "bench/measure.h"

namespace bench {

/// Does the work that the command line names; the exit code of the program.
inline int runPeer(const char* name, int argc, char** argv, std::initializer_list<Work> works) {
  try {
    perform(Options(argc, argv), works);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", name, error.what());
    return 1;
  }
}

struct Field {
  const char* name;
  const char* value;
};

/// What a request for the server's status carries, beside what it asks for.
inline constexpr Field kStatusFields[] = {{"index", "c1"},         {"query", "speed AND light"},
                                          {"resultLimit", "1000"}, {"scoreType", "0"},
                                          {"scoreWanted", "true"}, {"size", "100"},
                                          {"start", "0"},          {"ver", "1.1"}};

}  // namespace bench
