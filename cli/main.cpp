#include <unistd.h>

#include <iostream>

#include "cli/run.h"

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  // Nobody types an answer here, and flushing for each line would slow a long result down.
  std::cin.tie(nullptr);
  const corvane::Streams streams{std::cin, std::cout, std::cerr, isatty(STDERR_FILENO) != 0};
  return static_cast<int>(corvane::run(argc, argv, streams));
}
