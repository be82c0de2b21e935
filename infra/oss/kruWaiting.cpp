#include "infra/oss/kruWaiting.h"

#include <cerrno>

#include "infra/oss/kruSystemCalls.h"
#include "infra/oss/kruUncancellable.h"

namespace tq::oss {

namespace {

Waited pollFor(pollfd& entry, Deadline deadline) {
  const int ready = pollUntil(&entry, 1, deadline);
  if (ready == 0) return Waited::Late;
  return ready > 0 ? Waited::Ready : Waited::Failed;
}

// Hooks wait, which may cancel a thread, but they are noexcept and may be written in C: the thread
// is not cancelled before its hook has returned.
WaitResult askHook(WaitHook hook, void* host, int fd, short events, int millis) {
  WaitResult result;
  {
    const Uncancellable whole;
    result = hook(host, fd, events, millis);
  }
  ::pthread_testcancel();
  return result;
}

}  // namespace

int pollUntil(pollfd* entries, nfds_t count, Deadline deadline) {
  for (;;) {
    const int millis = deadline.pollMillis();
    const int ready = systemCalls().poll(entries, count, millis);
    if (ready > 0) return ready;
    if (ready < 0 && errno != EINTR) return -1;
    // The longest wait that poll knows may be shorter than the one asked for.
    if (ready == 0 && millis == 0) return 0;
  }
}

Waited Waiter::untilReady(int fd, short events, Deadline deadline) const {
  if (hooked()) return callHook(fd, events, deadline);
  pollfd entry{fd, events, 0};
  return pollFor(entry, deadline);
}

Waited Waiter::untilPolled(pollfd& entry, Deadline deadline) const {
  if (!hooked()) return pollFor(entry, deadline);
  for (;;) {
    const Waited looked = pollFor(entry, Deadline::at(0));
    if (looked != Waited::Late) return looked;
    const Waited waited = callHook(entry.fd, entry.events, deadline);
    if (waited != Waited::Ready) return waited;
  }
}

Waited Waiter::pause(Deadline deadline) const {
  if (!hooked()) {
    for (int millis = deadline.pollMillis(); millis != 0; millis = deadline.pollMillis()) {
      systemCalls().poll(nullptr, 0, millis);
    }
    return Waited::Late;
  }
  Waited waited = Waited::Ready;
  while (waited == Waited::Ready) waited = callHook(-1, 0, deadline);
  return waited;
}

// The deadline is looked at before each call: a hook that keeps answering at once, whatever it
// says, ends with the deadline too.
Waited Waiter::callHook(int fd, short events, Deadline deadline) const {
  for (int millis = deadline.pollMillis(); millis != 0; millis = deadline.pollMillis()) {
    const WaitResult result = askHook(hook_, host_, fd, events, millis);
    if (result == WaitResult::Ready) return Waited::Ready;
    if (result != WaitResult::TimedOut) return Waited::GivenUp;
  }
  return Waited::Late;
}

}  // namespace tq::oss
