#include <sys/ioctl.h>
#include <unistd.h>

#include <iostream>

#include "cli/run.h"

namespace {

unsigned int columnsOfErrors() {
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0) return 0;
  return size.ws_col;
}

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  // The program asks no questions; flushing the output before each read would only slow it down.
  std::cin.tie(nullptr);
  const corvane::Streams streams{std::cin, std::cout, std::cerr, columnsOfErrors};
  return static_cast<int>(corvane::run(argc, argv, streams));
}
