#include "server/store/parseOutcomes.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace corvaned {

bool ParseOutcomes::push(ParseOutcome outcome, std::uint64_t ticket, const std::string& client) {
  const std::lock_guard lock(mutex_);
  ticket_ = std::max(ticket_, ticket);
  if (!client.empty()) return pushFor(client, std::move(outcome));
  outcomes_.push_back(std::move(outcome));
  if (outcomes_.size() <= limit_) return true;
  outcomes_.pop_front();
  return false;
}

bool ParseOutcomes::pushFor(const std::string& client, ParseOutcome outcome) {
  Client& known = clients_[client];
  known.lastUse = ++uses_;
  known.outcomes.push_back(std::move(outcome));
  ++ofClients_;
  if (clients_.size() <= kClients && ofClients_ <= limit_) return true;
  if (clients_.size() > kClients) {
    forgetClient(oldestClient());
    return false;
  }
  const auto most = clientWithMost();
  most->second.outcomes.pop_front();
  --ofClients_;
  if (most->second.outcomes.empty()) clients_.erase(most);
  return false;
}

// Whoever never asks loses its own, and nobody else's.
ParseOutcomes::Clients::iterator ParseOutcomes::clientWithMost() {
  return std::max_element(clients_.begin(), clients_.end(), [](const auto& one, const auto& other) {
    const std::size_t ofOne = one.second.outcomes.size();
    const std::size_t ofOther = other.second.outcomes.size();
    return ofOne < ofOther || (ofOne == ofOther && one.second.lastUse > other.second.lastUse);
  });
}

ParseOutcomes::Clients::iterator ParseOutcomes::oldestClient() {
  return std::min_element(clients_.begin(), clients_.end(), [](const auto& one, const auto& other) {
    return one.second.lastUse < other.second.lastUse;
  });
}

void ParseOutcomes::forgetClient(Clients::iterator client) {
  ofClients_ -= client->second.outcomes.size();
  clients_.erase(client);
}

ParseOutcomes::Taken ParseOutcomes::take(const std::string& client) {
  const std::lock_guard lock(mutex_);
  if (client.empty()) return {std::exchange(outcomes_, {}), ticket_};
  const auto found = clients_.find(client);
  if (found == clients_.end()) return {{}, ticket_};
  Taken taken{std::move(found->second.outcomes), ticket_};
  ofClients_ -= taken.outcomes.size();
  clients_.erase(found);
  return taken;
}

void ParseOutcomes::putBack(Taken taken, const std::string& client) {
  if (taken.outcomes.empty()) return;
  const std::lock_guard lock(mutex_);
  std::deque<ParseOutcome>& outcomes = client.empty() ? outcomes_ : clients_[client].outcomes;
  if (!client.empty()) {
    clients_[client].lastUse = ++uses_;
    ofClients_ += taken.outcomes.size();
  }
  outcomes.insert(outcomes.begin(), std::make_move_iterator(taken.outcomes.begin()),
                  std::make_move_iterator(taken.outcomes.end()));
}

void ParseOutcomes::setOwner(const std::string& key, const std::string& client,
                             const JournalPosition& end) {
  const std::lock_guard lock(mutex_);
  if (client.empty()) {
    owners_.erase(key);
    return;
  }
  if (owners_.size() >= limit_ && !owners_.contains(key)) return;
  owners_.insert_or_assign(key, Owner{client, end});
}

std::string ParseOutcomes::ownerOf(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = owners_.find(key);
  return found == owners_.end() ? std::string() : found->second.client;
}

void ParseOutcomes::forgetOwnersUpTo(const JournalPosition& position) {
  const std::lock_guard lock(mutex_);
  std::erase_if(owners_, [&](const auto& owner) { return owner.second.end <= position; });
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
  return outcomes_.empty() && refused_.empty() && clients_.empty() && owners_.empty();
}

void ParseOutcomes::forgetTickets() {
  const std::lock_guard lock(mutex_);
  ticket_ = 0;
}

}  // namespace corvaned
