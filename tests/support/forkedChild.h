#pragma once

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

namespace tq::test {

/// As fork(), past all handlers of the process.
inline pid_t cloneQuietly() {
  return static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}

/// True when a forked child says so.
inline bool holdsInChild(const std::function<bool()>& says, pid_t (*make)() = ::fork) {
  const pid_t child = make();
  if (child == 0) ::_exit(says() ? 0 : 1);
  int status = -1;
  ::waitpid(child, &status, 0);
  return status == 0;
}

}  // namespace tq::test
