#include "tests/comm/cannedKernel.h"

#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "infra/oss/kruSystemCalls.h"

namespace tq::test {

namespace {

// A number that no file of a test process has.
constexpr int kDescriptor = 100000;
// What a socket of the loopback interface hands out at once.
constexpr std::size_t kMax = 65536;

struct State {
  std::string reply;
  std::size_t taken = 0;
  long systemCalls = 0;
};
State state;

int openSocket(int, int, int) {
  ++state.systemCalls;
  return kDescriptor;
}
int connectTo(int, const sockaddr*, socklen_t) {
  ++state.systemCalls;
  return 0;
}
int pollFor(pollfd* entries, nfds_t count, int) {
  ++state.systemCalls;
  for (nfds_t i = 0; i < count; ++i) entries[i].revents = entries[i].events;
  return static_cast<int>(count);
}
ssize_t receive(int, void* buffer, size_t length, int) {
  ++state.systemCalls;
  const std::size_t count = std::min({length, state.reply.size() - state.taken, kMax});
  if (count == 0) {
    errno = EAGAIN;
    return -1;
  }
  std::memcpy(buffer, state.reply.data() + state.taken, count);
  state.taken += count;
  return static_cast<ssize_t>(count);
}
ssize_t sendMessage(int, const msghdr* message, int) {
  ++state.systemCalls;
  state.taken = 0;
  std::size_t length = 0;
  for (std::size_t i = 0; i < message->msg_iovlen; ++i) length += message->msg_iov[i].iov_len;
  return static_cast<ssize_t>(length);
}
int closeSocket(int) {
  ++state.systemCalls;
  return 0;
}
int setOption(int, int, int, const void*, socklen_t) {
  ++state.systemCalls;
  return 0;
}
int getOption(int, int, int, void* value, socklen_t* length) {
  ++state.systemCalls;
  std::memset(value, 0, *length);
  return 0;
}
int control(int, int, int) {
  ++state.systemCalls;
  return 0;
}

const oss::SystemCalls& cannedCalls() {
  static const oss::SystemCalls calls = [] {
    oss::SystemCalls canned = oss::realSystemCalls();
    canned.socket = openSocket;
    canned.connect = connectTo;
    canned.poll = pollFor;
    canned.recv = receive;
    canned.sendmsg = sendMessage;
    canned.close = closeSocket;
    canned.setsockopt = setOption;
    canned.getsockopt = getOption;
    canned.fcntl = control;
    return canned;
  }();
  return calls;
}

}  // namespace

CannedKernel::CannedKernel(std::string reply) {
  const std::size_t size = reply.size();
  // Nothing can be received before something was sent.
  state = {std::move(reply), size, 0};
  oss::replaceSystemCalls(&cannedCalls());
}

CannedKernel::~CannedKernel() { oss::replaceSystemCalls(nullptr); }

long CannedKernel::systemCalls() const { return state.systemCalls; }

}  // namespace tq::test
