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

void ParseOutcomes::pushRefused(const std::string& batch, BatchOutcome outcome) {
  const std::lock_guard lock(mutex_);
  std::erase_if(refused_, [&](const auto& known) { return known.first == batch; });
  refused_.emplace_back(batch, std::move(outcome));
  if (refused_.size() > kRefusedBatches) refused_.pop_front();
}

std::optional<BatchOutcome> ParseOutcomes::refused(const std::string& batch) const {
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(refused_.begin(), refused_.end(),
                                  [&](const auto& known) { return known.first == batch; });
  return found == refused_.end() ? std::nullopt : std::optional(found->second);
}

bool ParseOutcomes::empty() const {
  const std::lock_guard lock(mutex_);
  return outcomes_.empty() && refused_.empty();
}

void ParseOutcomes::forgetTickets() {
  const std::lock_guard lock(mutex_);
  ticket_ = 0;
}

}  // namespace corvaned
