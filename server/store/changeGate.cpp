#include "server/store/changeGate.h"

#include <chrono>

#include "server/base/requestContext.h"

namespace corvaned {

ChangeGate::Opening::Opening(ChangeGate& gate) : gate_(gate) {
  std::unique_lock lock(gate_.mutex_);
  while (gate_.changing_) gate_.await(lock);
  ++gate_.openings_;
}

ChangeGate::Opening::~Opening() {
  const std::lock_guard lock(gate_.mutex_);
  if (--gate_.openings_ == 0) gate_.ended_.notify_all();
}

ChangeGate::Change::Change(ChangeGate& gate) : gate_(gate) {
  std::unique_lock lock(gate_.mutex_);
  // Those that come from now on wait, so that it is not put off for ever.
  gate_.changing_ = true;
  gate_.ended_.wait(lock, [this] { return gate_.openings_ == 0; });
}

ChangeGate::Change::~Change() {
  const std::lock_guard lock(gate_.mutex_);
  gate_.changing_ = false;
  gate_.ended_.notify_all();
}

// A disk that stalls may keep a change from its end for long.
void ChangeGate::await(std::unique_lock<std::mutex>& lock) {
  constexpr std::chrono::milliseconds kLookAgain{100};
  const RequestContext* request = RequestContext::current();
  if (!request) return ended_.wait(lock);
  request->check();
  ended_.wait_for(lock, kLookAgain);
}

}  // namespace corvaned
