#include "cli/standardDescriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

namespace corvane {

void openStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(descriptor, F_GETFD) != -1) continue;
    // The lowest free number, which is this one.
    ::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

}  // namespace corvane
