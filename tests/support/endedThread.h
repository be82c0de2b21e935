#pragma once

#include <pthread.h>

#include <functional>
#include <stdexcept>

namespace tq::test {

/// Runs the operation on a thread of its own; true when the thread ended by being cancelled, or as
/// one that was: by `pthread_exit(PTHREAD_CANCELED)`.
inline bool endsItsThread(std::function<void()> operation) {
  const auto run = [](void* called) -> void* {
    (*static_cast<std::function<void()>*>(called))();
    return nullptr;
  };
  pthread_t thread{};
  if (::pthread_create(&thread, nullptr, run, &operation) != 0) {
    throw std::runtime_error("no thread");
  }
  void* result = nullptr;
  ::pthread_join(thread, &result);
  return result == PTHREAD_CANCELED;
}

}  // namespace tq::test
