#pragma once

#include <pthread.h>

namespace tq::oss {

/// While it lives its thread is not cancelled: what is called meanwhile is run to its end. A
/// cancellation that comes in between takes effect at the next point that allows one.
class Uncancellable {
 public:
  Uncancellable() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~Uncancellable() { ::pthread_setcancelstate(before_, nullptr); }
  Uncancellable(const Uncancellable&) = delete;
  Uncancellable& operator=(const Uncancellable&) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace tq::oss
