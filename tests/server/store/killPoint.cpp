#include "tests/server/store/killPoint.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>

namespace corvaned::test {
namespace {

// The calls come from several threads.
std::atomic<std::uint64_t> callsLeft = 0;
std::atomic<bool> halfWritten = false;

bool isReached() {
  std::uint64_t left = callsLeft;
  while (left != 0 && !callsLeft.compare_exchange_weak(left, left - 1)) {
  }
  return left == 1;
}

[[noreturn]] void die() {
  ::kill(::getpid(), SIGKILL);
  for (;;) ::pause();
}

void passCall() {
  if (isReached()) die();
}

template <typename Write>
ssize_t passWrite(std::size_t size, const Write& write) {
  if (!isReached()) return write(size);
  if (halfWritten) write(size / 2);
  die();
}

template <typename... Arguments>
int call(long number, Arguments... arguments) {
  passCall();
  return static_cast<int>(::syscall(number, arguments...));
}

int openWith(int directory, const char* path, int flags, mode_t mode) {
  if ((flags & (O_CREAT | O_TRUNC)) != 0) passCall();
  return static_cast<int>(::syscall(SYS_openat, directory, path, flags, mode));
}

}  // namespace

void dieAt(KillPoint point) {
  halfWritten = point.halfWritten;
  callsLeft = point.call;
}

}  // namespace corvaned::test

using namespace corvaned::test;

// The libraries find them only if they are seen outside the executable.
#pragma GCC visibility push(default)
extern "C" {

ssize_t write(int file, const void* bytes, size_t size) {
  return passWrite(size, [&](size_t count) { return ::syscall(SYS_write, file, bytes, count); });
}

ssize_t pwrite(int file, const void* bytes, size_t size, off_t offset) {
  return passWrite(
      size, [&](size_t count) { return ::syscall(SYS_pwrite64, file, bytes, count, offset); });
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = static_cast<mode_t>(va_arg(arguments, unsigned));
  va_end(arguments);
  return openWith(AT_FDCWD, path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = static_cast<mode_t>(va_arg(arguments, unsigned));
  va_end(arguments);
  return openWith(directory, path, flags, mode);
}

int fsync(int) {
  passCall();
  return 0;
}

int fdatasync(int) {
  passCall();
  return 0;
}

int ftruncate(int file, off_t size) noexcept { return call(SYS_ftruncate, file, size); }

int mkdir(const char* path, mode_t mode) noexcept {
  return call(SYS_mkdirat, AT_FDCWD, path, mode);
}

int rename(const char* from, const char* to) noexcept {
  return call(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0);
}

int renameat2(int fromDirectory, const char* from, int toDirectory, const char* to,
              unsigned flags) noexcept {
  return call(SYS_renameat2, fromDirectory, from, toDirectory, to, flags);
}

int unlinkat(int directory, const char* path, int flags) noexcept {
  return call(SYS_unlinkat, directory, path, flags);
}

int unlink(const char* path) noexcept { return unlinkat(AT_FDCWD, path, 0); }

int rmdir(const char* path) noexcept { return unlinkat(AT_FDCWD, path, AT_REMOVEDIR); }

int remove(const char* path) noexcept {
  if (unlink(path) == 0) return 0;
  return errno == EISDIR ? rmdir(path) : -1;
}

}  // extern "C"
#pragma GCC visibility pop
