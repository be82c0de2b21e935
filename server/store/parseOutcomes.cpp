#include "server/store/parseOutcomes.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace corvaned {

bool ParseOutcomes::push(ParseOutcome outcome, std::uint64_t ticket) {
  const std::lock_guard lock(mutex_);
  ticket_ = std::max(ticket_, ticket);
  outcomes_.push_back(std::move(outcome));
  if (outcomes_.size() <= limit_) return true;
  outcomes_.pop_front();
  return false;
}

ParseOutcomes::Taken ParseOutcomes::take() {
  const std::lock_guard lock(mutex_);
  return {std::exchange(outcomes_, {}), ticket_};
}

void ParseOutcomes::putBack(Taken taken) {
  const std::lock_guard lock(mutex_);
  outcomes_.insert(outcomes_.begin(), std::make_move_iterator(taken.outcomes.begin()),
                   std::make_move_iterator(taken.outcomes.end()));
}

bool ParseOutcomes::empty() const {
  const std::lock_guard lock(mutex_);
  return outcomes_.empty();
}

void ParseOutcomes::forgetTickets() {
  const std::lock_guard lock(mutex_);
  ticket_ = 0;
}

}  // namespace corvaned
