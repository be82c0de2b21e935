// Counts the allocations and the system calls of a process that it is preloaded into, whatever the
// process consists of; a measured program asks for the counts by dlsym. Time measured beside it is
// worthless.

#include <dlfcn.h>
#include <malloc.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>

#include "bench/counts.h"

// NOLINTBEGIN(bugprone-reserved-identifier): the C library's names for its own functions
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

std::atomic<std::uint64_t> allocations{0};
std::atomic<std::uint64_t> systemCalls{0};
std::atomic<std::uint64_t> receives{0};
std::atomic<std::uint64_t> liveBytes{0};
std::atomic<std::uint64_t> peakBytes{0};

void* taken(void* block) {
  ++allocations;
  const std::uint64_t live = liveBytes += ::malloc_usable_size(block);
  std::uint64_t peak = peakBytes;
  while (live > peak && !peakBytes.compare_exchange_weak(peak, live)) continue;
  return block;
}

void left(void* block) { liveBytes -= ::malloc_usable_size(block); }

template <typename Function>
Function* theRest(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

// Each stands in front of the C library's function of its name.
#define COUNTED(result, name, parameters, arguments)             \
  result name parameters {                                       \
    static auto* const real = theRest<result parameters>(#name); \
    ++systemCalls;                                               \
    return real arguments;                                       \
  }

#define COUNTED_RECEIVE(result, name, parameters, arguments)     \
  result name parameters {                                       \
    static auto* const real = theRest<result parameters>(#name); \
    ++systemCalls;                                               \
    ++receives;                                                  \
    return real arguments;                                       \
  }

extern "C" {

[[gnu::visibility("default")]] void benchCounts(BenchCounts* counts) {
  *counts = {allocations, systemCalls, receives, liveBytes, peakBytes};
  peakBytes = liveBytes.load();
}

#pragma GCC visibility push(default)

void* malloc(std::size_t size) { return taken(__libc_malloc(size)); }
void* calloc(std::size_t count, std::size_t size) { return taken(__libc_calloc(count, size)); }
void* realloc(void* block, std::size_t size) {
  left(block);
  return taken(__libc_realloc(block, size));
}
void* memalign(std::size_t alignment, std::size_t size) {
  return taken(__libc_memalign(alignment, size));
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return taken(__libc_memalign(alignment, size));
}
void free(void* block) {
  left(block);
  __libc_free(block);
}

COUNTED(ssize_t, send, (int fd, const void* data, size_t size, int flags), (fd, data, size, flags))
COUNTED(ssize_t, sendto,
        (int fd, const void* data, size_t size, int flags, const sockaddr* to, socklen_t length),
        (fd, data, size, flags, to, length))
COUNTED(ssize_t, sendmsg, (int fd, const msghdr* message, int flags), (fd, message, flags))
COUNTED_RECEIVE(ssize_t, recv, (int fd, void* data, size_t size, int flags),
                (fd, data, size, flags))
COUNTED_RECEIVE(ssize_t, recvfrom,
                (int fd, void* data, size_t size, int flags, sockaddr* from, socklen_t* length),
                (fd, data, size, flags, from, length))
COUNTED_RECEIVE(ssize_t, recvmsg, (int fd, msghdr* message, int flags), (fd, message, flags))
COUNTED_RECEIVE(ssize_t, read, (int fd, void* data, size_t size), (fd, data, size))
COUNTED_RECEIVE(ssize_t, readv, (int fd, const iovec* pieces, int count), (fd, pieces, count))
COUNTED(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size))
COUNTED(ssize_t, writev, (int fd, const iovec* pieces, int count), (fd, pieces, count))
COUNTED(int, poll, (pollfd * entries, nfds_t count, int millis), (entries, count, millis))
COUNTED(int, ppoll, (pollfd * entries, nfds_t count, const timespec* time, const sigset_t* mask),
        (entries, count, time, mask))
COUNTED(int, select, (int count, fd_set* in, fd_set* out, fd_set* except, timeval* time),
        (count, in, out, except, time))
COUNTED(int, epoll_wait, (int fd, epoll_event* events, int count, int millis),
        (fd, events, count, millis))
COUNTED(int, epoll_ctl, (int fd, int what, int which, epoll_event* event), (fd, what, which, event))
COUNTED(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
COUNTED(int, connect, (int fd, const sockaddr* address, socklen_t length), (fd, address, length))
COUNTED(int, close, (int fd), (fd))
COUNTED(int, setsockopt, (int fd, int level, int name, const void* value, socklen_t length),
        (fd, level, name, value, length))
COUNTED(int, getsockopt, (int fd, int level, int name, void* value, socklen_t* length),
        (fd, level, name, value, length))
COUNTED(int, getsockname, (int fd, sockaddr* address, socklen_t* length), (fd, address, length))
COUNTED(int, getpeername, (int fd, sockaddr* address, socklen_t* length), (fd, address, length))

int fcntl(int fd, int command, ...) {
  static auto* const real = theRest<int(int, int, ...)>("fcntl");
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  ++systemCalls;
  return real(fd, command, argument);
}

int ioctl(int fd, unsigned long command, ...) {
  static auto* const real = theRest<int(int, unsigned long, ...)>("ioctl");
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  ++systemCalls;
  return real(fd, command, argument);
}

#pragma GCC visibility pop
}
