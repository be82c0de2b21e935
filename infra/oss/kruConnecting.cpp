#include "infra/oss/kruConnecting.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "infra/oss/kruSystemCalls.h"
#include "infra/oss/kruWaiting.h"

namespace tq::oss {

namespace {

class Descriptor {
 public:
  explicit Descriptor(int fd) noexcept : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) systemCalls().close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const noexcept { return fd_; }
  bool isStandardStream() const noexcept { return fd_ <= STDERR_FILENO; }
  /// Gives the socket a number that is none of a standard stream's. False: it keeps the one it has.
  bool leaveStandardStreams() noexcept {
    const int moved = systemCalls().fcntl(fd_, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (moved == -1) return false;
    systemCalls().close(std::exchange(fd_, moved));
    return true;
  }
  int release() noexcept { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

Connected failed(int errorNumber) noexcept { return {-1, Waited::Failed, errorNumber}; }

// Requests leave in whole messages, so that waiting for more to send would only delay them.
bool sendAtOnce(int fd) noexcept {
  const int on = 1;
  return systemCalls().setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0;
}

Connected awaitConnection(Descriptor& descriptor, Deadline deadline, const Waiter& waiter) {
  pollfd entry{descriptor.get(), POLLOUT, 0};
  const Waited waited = waiter.untilPolled(entry, deadline);
  if (waited == Waited::Failed) return failed(errno);
  if (waited != Waited::Ready) return {-1, waited, 0};
  int errorNumber = 0;
  socklen_t length = sizeof errorNumber;
  if (systemCalls().getsockopt(descriptor.get(), SOL_SOCKET, SO_ERROR, &errorNumber, &length) !=
      0) {
    return failed(errno);
  }
  if (errorNumber != 0) return failed(errorNumber);
  return {descriptor.get(), Waited::Ready, 0};
}

Connected connectTo(const Address& address, Deadline deadline, const Waiter& waiter) {
  const SystemCalls& calls = systemCalls();
  const int type = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
  Descriptor descriptor(calls.socket(address.storage.ss_family, type, 0));
  if (descriptor.get() < 0) return failed(errno);
  // In a host that has closed a standard stream the system hands out its number, and whatever the
  // host writes there would go to the server in the middle of a request.
  if (descriptor.isStandardStream() && !descriptor.leaveStandardStreams()) return failed(errno);
  if (!sendAtOnce(descriptor.get())) return failed(errno);
  const auto* target = reinterpret_cast<const sockaddr*>(&address.storage);
  if (calls.connect(descriptor.get(), target, address.length) != 0) {
    // A connect that a signal interrupts goes on by itself.
    if (errno != EINPROGRESS && errno != EINTR) return failed(errno);
    const Connected outcome = awaitConnection(descriptor, deadline, waiter);
    if (outcome.fd < 0) return outcome;
  }
  if (calls.fcntl(descriptor.get(), F_SETFL, 0) != 0) return failed(errno);
  return {descriptor.release(), Waited::Ready, 0};
}

}  // namespace

Connected connectToFirst(const std::vector<Address>& addresses, Deadline deadline,
                         const Waiter& waiter) {
  Connected result = failed(EADDRNOTAVAIL);
  for (std::size_t i = 0; i < addresses.size() && result.fd < 0; ++i) {
    result = connectTo(addresses[i], deadline.share(addresses.size() - i), waiter);
    if (result.outcome == Waited::GivenUp) break;
  }
  return result;
}

}  // namespace tq::oss
