#include <sys/ioctl.h>
#include <unistd.h>

#include <iostream>

#include "cli/interruption.h"
#include "cli/lastWords.h"
#include "cli/queuedOutput.h"
#include "cli/run.h"
#include "cli/standardDescriptors.h"

namespace {

unsigned int columnsOfErrors() {
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0) return 0;
  return size.ws_col;
}

}  // namespace

int main(int argc, char** argv) {
  corvane::openStandardDescriptors();
  const sigset_t signals = corvane::blockEndingSignals();
  std::ios::sync_with_stdio(false);
  // The program asks no questions; flushing the output before each read would only slow it down.
  std::cin.tie(nullptr);
  corvane::QueuedOutput buffer(STDOUT_FILENO);
  std::ostream out(&buffer);
  corvane::LastWords lastWords;
  const corvane::Interruption interruption(signals, lastWords, buffer);
  const corvane::Streams streams{std::cin, out, std::cerr, columnsOfErrors, &lastWords};
  return static_cast<int>(corvane::run(argc, argv, streams));
}
