#include "infra/oss/kruSystemCalls.h"

#include <fcntl.h>
#include <unistd.h>

namespace tq::oss {

namespace {

// The system's own declaration takes a variable number of arguments and has no such address.
int fcntlWithNumber(int fd, int command, int argument) { return ::fcntl(fd, command, argument); }

constexpr SystemCalls kReal{
    .socket = ::socket,
    .connect = ::connect,
    .poll = ::poll,
    .recv = ::recv,
    .sendmsg = ::sendmsg,
    .close = ::close,
    .setsockopt = ::setsockopt,
    .getsockopt = ::getsockopt,
    .fcntl = fcntlWithNumber,
    .getaddrinfo = ::getaddrinfo,
    .freeaddrinfo = ::freeaddrinfo,
    .clock_gettime = ::clock_gettime,
};

}  // namespace

constinit std::atomic<const SystemCalls*> detail::activeSystemCalls{&kReal};

const SystemCalls& realSystemCalls() noexcept { return kReal; }

const SystemCalls* replaceSystemCalls(const SystemCalls* calls) noexcept {
  return detail::activeSystemCalls.exchange(calls != nullptr ? calls : &kReal,
                                            std::memory_order_acq_rel);
}

}  // namespace tq::oss
