#include "comm/kruForks.h"

#include <pthread.h>

namespace tq::comm {

std::atomic<unsigned int> forks{0};

namespace {

void noteFork() { forks.fetch_add(1, std::memory_order_relaxed); }

}  // namespace

void watchForks() noexcept {
  // No guard: a child that is forked while another thread holds one would wait for it for ever. Two
  // threads may both register, and then a fork counts twice. The registration belongs to the
  // library's own handle, so that unloading the library ends it.
  static std::atomic<bool> watching{false};
  if (watching.load(std::memory_order_relaxed)) return;
  if (::pthread_atfork(nullptr, nullptr, noteFork) == 0) watching = true;
}

}  // namespace tq::comm
