#pragma once

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <time.h>

#include <atomic>

namespace tq::oss {

/// Every call that the infrastructure makes on a socket or a clock, so that a test can make any of
/// them fail, stall or deliver one byte. Each entry behaves as the system call of its name, except
/// that a thread cannot be cancelled in `close` and `getaddrinfo`: destructors call the one, and
/// the other would lose what it holds, locks among it. In `connect`, `poll`, `recv` and `sendmsg`
/// it can, so no function that is noexcept may call them.
struct SystemCalls {
  int (*socket)(int domain, int type, int protocol);
  int (*connect)(int fd, const sockaddr* address, socklen_t length);
  int (*poll)(pollfd* entries, nfds_t count, int timeoutMillis);
  ssize_t (*recv)(int fd, void* buffer, size_t length, int flags);
  ssize_t (*sendmsg)(int fd, const msghdr* message, int flags);
  int (*close)(int fd);
  int (*setsockopt)(int fd, int level, int name, const void* value, socklen_t length);
  int (*getsockopt)(int fd, int level, int name, void* value, socklen_t* length);
  int (*fcntl)(int fd, int command, int argument);
  int (*getaddrinfo)(const char* host, const char* service, const addrinfo* hints,
                     addrinfo** result);
  void (*freeaddrinfo)(addrinfo* result);
  int (*clock_gettime)(clockid_t clock, timespec* now);
};

namespace detail {
extern std::atomic<const SystemCalls*> activeSystemCalls;
}  // namespace detail

/// The table in force.
inline const SystemCalls& systemCalls() noexcept {
  return *detail::activeSystemCalls.load(std::memory_order_acquire);
}

/// The operating system's own calls.
const SystemCalls& realSystemCalls() noexcept;

/// Puts another table in force for the whole process and returns the one before it. Null brings the
/// operating system's back. The table is not copied and must outlive its use.
const SystemCalls* replaceSystemCalls(const SystemCalls* calls) noexcept;

}  // namespace tq::oss
