#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace tq::test {

/// True when a forked child says so.
inline bool holdsInChild(const std::function<bool()>& says) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(says() ? 0 : 1);
  int status = -1;
  ::waitpid(child, &status, 0);
  return status == 0;
}

}  // namespace tq::test
