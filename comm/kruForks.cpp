#include "comm/kruForks.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace tq::comm {

namespace forks {

Mark mark;

namespace {

void forget() { mark.number.store(0, std::memory_order_relaxed); }

/// The kernel empties the page in every child that has memory of its own, however it was made.
void watchByPage() {
  // Where pages are larger, the one of the mark holds other things too.
  if (::sysconf(_SC_PAGESIZE) != static_cast<long>(kPage)) return;
  ::madvise(&mark, sizeof mark, MADV_WIPEONFORK);
}

/// The library empties it in a child of fork().
bool watchByHandler() { return ::pthread_atfork(nullptr, nullptr, forget) == 0; }

}  // namespace

unsigned int number() noexcept {
  static std::atomic<unsigned int> given{0};
  // Given before the process is marked with it: a child that is forked in between takes the next.
  const unsigned int next = given.fetch_add(1, std::memory_order_relaxed) + 1;
  unsigned int present = 0;
  return mark.number.compare_exchange_strong(present, next) ? next : present;
}

}  // namespace forks

void watchForks() noexcept {
  // No guard: a child that is forked while another thread holds one would wait for it for ever. Two
  // threads may both do it, which does no harm. A handler belongs to the library's own handle, so
  // that unloading the library ends it.
  static std::atomic<bool> watching{false};
  if (watching.load(std::memory_order_relaxed)) return;
  forks::watchByPage();
  // In any case: an emulator may call an advice taken that it does not know.
  if (forks::watchByHandler()) watching = true;
}

}  // namespace tq::comm
