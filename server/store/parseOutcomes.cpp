#include "server/store/parseOutcomes.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

#include "server/base/errors.h"

namespace corvaned {
namespace {

// What each of them takes beside the bytes of its texts: its place in a container, and the
// allocator's share for texts that do not fit into their strings.
constexpr std::size_t kOutcomeCost = 192;
constexpr std::size_t kClientCost = 832;
constexpr std::size_t kOwnerCost = 184;
constexpr std::size_t kRefusedCost = 192;

std::size_t costOf(const ParseOutcome& outcome) {
  return kOutcomeCost + outcome.key.size() + outcome.messageId.size() + outcome.messageText.size();
}

std::size_t costOf(const BatchOutcome& outcome) {
  std::size_t bytes = kRefusedCost;
  for (const ParseOutcome& refused : outcome.refused.first) bytes += costOf(refused);
  return bytes;
}

bool isLeftOut(const ParseOutcome& outcome) {
  return outcome.messageId == messageId(ErrorKind::DocumentsNotIndexed);
}

std::size_t inSteps(std::size_t bytes) {
  return (bytes + OutcomeMemory::kStep - 1) / OutcomeMemory::kStep * OutcomeMemory::kStep;
}

}  // namespace

OutcomeMemory::OutcomeMemory(std::shared_ptr<MemoryBudget> budget)
    : budget_(std::move(budget)),
      all_(budget_ ? budget_->limit() / kShareOfMemory : std::numeric_limits<std::size_t>::max()) {}

MemoryBudget::Share OutcomeMemory::emptyShare() const {
  return budget_ ? MemoryBudget::Share(*budget_) : MemoryBudget::Share();
}

OutcomeMemory::Part::Part(OutcomeMemory& all)
    : all_(all), ofBudget_(all.emptyShare()), ofAll_(all.all_) {}

bool OutcomeMemory::Part::fits(std::size_t bytes) const {
  const std::size_t wanted = inSteps(bytes);
  if (wanted <= std::max(ofAll_.bytes(), kStep)) return true;
  const std::size_t used = all_.all_.used();
  // Another one's part may have shrunk between two looks at the whole.
  const std::size_t ofOthers = used - std::min(used, ofAll_.bytes());
  const std::size_t limit = all_.all_.limit();
  return ofOthers <= limit && wanted <= (limit - ofOthers) / 2;
}

void OutcomeMemory::Part::set(std::size_t bytes) {
  const std::size_t taken = inSteps(bytes);
  if (taken == ofAll_.bytes()) return;
  ofAll_.force(taken);
  ofBudget_.force(taken);
}

ParseOutcomes::ParseOutcomes(std::size_t limit, std::shared_ptr<OutcomeMemory> memory)
    : limit_(limit), allMemory_(std::move(memory)), memory_(*allMemory_) {}

bool ParseOutcomes::push(ParseOutcome outcome, std::uint64_t ticket, const std::string& client) {
  const std::lock_guard lock(mutex_);
  ticket_ = std::max(ticket_, ticket);
  return pushOne(std::move(outcome), client);
}

bool ParseOutcomes::pushOne(ParseOutcome outcome, const std::string& client) {
  bool keptAll = true;
  if (client.empty()) {
    append(outcomes_, std::move(outcome));
    keptAll = outcomes_.outcomes.size() <= limit_;
    if (!keptAll) dropOldest(outcomes_);
  } else {
    keptAll = pushFor(client, std::move(outcome));
  }
  return dropUntilItFits() && keptAll;
}

bool ParseOutcomes::pushFor(const std::string& client, ParseOutcome outcome) {
  append(clientNamed(client).queue, std::move(outcome));
  ++ofClients_;
  if (clients_.size() <= kClients && ofClients_ <= limit_) return true;
  if (clients_.size() > kClients) {
    forgetClient(oldestClient());
  } else {
    dropOldest(clientWithMost());
  }
  return false;
}

ParseOutcomes::Client& ParseOutcomes::clientNamed(const std::string& name) {
  const auto [client, isNew] = clients_.try_emplace(name);
  if (isNew) bytes_ += kClientCost + name.size();
  client->second.lastUse = ++uses_;
  return client->second;
}

void ParseOutcomes::append(Queue& queue, ParseOutcome outcome) {
  const std::size_t bytes = costOf(outcome);
  if (isLeftOut(outcome)) queue.leftOutBy = updates_;
  queue.outcomes.push_back(std::move(outcome));
  queue.bytes += bytes;
  bytes_ += bytes;
}

void ParseOutcomes::dropOldest(Queue& queue) {
  const ParseOutcome& oldest = queue.outcomes.front();
  const std::size_t bytes = costOf(oldest);
  // What is taken from now on does not tell all that updates left out.
  if (isLeftOut(oldest)) queue.leftOutBy = 0;
  queue.outcomes.pop_front();
  queue.bytes -= bytes;
  bytes_ -= bytes;
}

void ParseOutcomes::dropOldest(Clients::iterator client) {
  dropOldest(client->second.queue);
  --ofClients_;
  if (client->second.queue.outcomes.empty()) forgetClient(client);
}

// Returns false if something was dropped for that.
bool ParseOutcomes::dropUntilItFits() {
  bool keptAll = true;
  while (!memory_.fits(bytes_)) {
    const auto most = clientThatTakesMost();
    // A client's queue is empty where memory was out for its first outcome.
    if (most != clients_.end() && !most->second.queue.outcomes.empty() &&
        most->second.queue.bytes >= outcomes_.bytes) {
      dropOldest(most);
    } else if (!outcomes_.outcomes.empty()) {
      dropOldest(outcomes_);
    } else {
      break;
    }
    keptAll = false;
  }
  memory_.set(bytes_);
  return keptAll;
}

// Whoever never asks loses its own, and nobody else's.
ParseOutcomes::Clients::iterator ParseOutcomes::clientWithMost() {
  return std::max_element(clients_.begin(), clients_.end(), [](const auto& one, const auto& other) {
    const std::size_t ofOne = one.second.queue.outcomes.size();
    const std::size_t ofOther = other.second.queue.outcomes.size();
    return ofOne < ofOther || (ofOne == ofOther && one.second.lastUse > other.second.lastUse);
  });
}

ParseOutcomes::Clients::iterator ParseOutcomes::clientThatTakesMost() {
  return std::max_element(clients_.begin(), clients_.end(), [](const auto& one, const auto& other) {
    return one.second.queue.bytes < other.second.queue.bytes;
  });
}

ParseOutcomes::Clients::iterator ParseOutcomes::oldestClient() {
  return std::min_element(clients_.begin(), clients_.end(), [](const auto& one, const auto& other) {
    return one.second.lastUse < other.second.lastUse;
  });
}

void ParseOutcomes::forgetClient(Clients::iterator client) {
  ofClients_ -= client->second.queue.outcomes.size();
  bytes_ -= client->second.queue.bytes + kClientCost + client->first.size();
  clients_.erase(client);
}

ParseOutcomes::Taken ParseOutcomes::take(const std::string& client) {
  const std::lock_guard lock(mutex_);
  Taken taken;
  if (client.empty()) {
    taken = takeFrom(outcomes_);
  } else if (const auto found = clients_.find(client); found != clients_.end()) {
    const std::size_t count = found->second.queue.outcomes.size();
    taken = takeFrom(found->second.queue);
    ofClients_ -= count;
    forgetClient(found);
  }
  taken.ticket = ticket_;
  memory_.set(bytes_);
  return taken;
}

ParseOutcomes::Taken ParseOutcomes::takeFrom(Queue& queue) {
  Taken taken{std::exchange(queue.outcomes, {}), 0, allMemory_->emptyShare()};
  taken.memory.force(queue.bytes);
  bytes_ -= std::exchange(queue.bytes, 0);
  const std::uint64_t leftOutBy = std::exchange(queue.leftOutBy, 0);
  if (leftOut_ && leftOut_->update == leftOutBy && !taken.outcomes.empty()) {
    bytes_ -= leftOut_->names.size();
    taken.leftOut = std::exchange(leftOut_, std::nullopt);
  }
  return taken;
}

void ParseOutcomes::putBack(Taken taken, const std::string& client) {
  if (taken.outcomes.empty()) return;
  std::size_t bytes = 0;
  for (const ParseOutcome& outcome : taken.outcomes) bytes += costOf(outcome);
  const std::lock_guard lock(mutex_);
  Queue& queue = client.empty() ? outcomes_ : clientNamed(client).queue;
  queue.outcomes.insert(queue.outcomes.begin(), std::make_move_iterator(taken.outcomes.begin()),
                        std::make_move_iterator(taken.outcomes.end()));
  queue.bytes += bytes;
  bytes_ += bytes;
  if (!client.empty()) ofClients_ += taken.outcomes.size();
  if (taken.leftOut && !leftOut_) {
    queue.leftOutBy = taken.leftOut->update;
    setLeftOut(std::move(taken.leftOut));
  }
  memory_.set(bytes_);
}

// Of updates that nobody waits for, the last may have left out nothing. It is noted last, since the
// memory may be out for what comes before.
ParseOutcomes::Noted ParseOutcomes::noteUpdate(LeftOut leftOut, std::vector<ParseOutcome> refused) {
  const std::lock_guard lock(mutex_);
  ++updates_;
  leftOut.update = updates_;
  std::optional<LeftOut> all;
  if (leftOut_ && !leftOut_->isGiven) {
    all = leftOut_;
    all->count += leftOut.count;
    if (leftOut.count > 0) all->update = updates_;
  } else if (leftOut.count > 0) {
    all = std::move(leftOut);
  }
  Noted noted{all};
  for (ParseOutcome& outcome : refused) {
    const auto owner = owners_.find(outcome.key);
    const std::string client = owner == owners_.end() ? std::string() : owner->second.client;
    if (!pushOne(std::move(outcome), client)) noted.keptAll = false;
  }
  setLeftOut(std::move(all));
  memory_.set(bytes_);
  return noted;
}

std::optional<ParseOutcomes::LeftOut> ParseOutcomes::leftOut() const {
  const std::lock_guard lock(mutex_);
  return leftOut_;
}

void ParseOutcomes::noteGiven(std::uint64_t update) {
  const std::lock_guard lock(mutex_);
  if (leftOut_ && leftOut_->update == update) leftOut_->isGiven = true;
}

void ParseOutcomes::setLeftOut(std::optional<LeftOut> leftOut) {
  if (leftOut_) bytes_ -= leftOut_->names.size();
  leftOut_ = std::move(leftOut);
  if (leftOut_) bytes_ += leftOut_->names.size();
}

void ParseOutcomes::setOwner(const std::string& key, const std::string& client,
                             const JournalPosition& end) {
  const std::lock_guard lock(mutex_);
  if (const auto known = owners_.find(key); known != owners_.end()) {
    if (end < known->second.end) return;
    eraseOwner(known);
  }
  const std::size_t bytes = kOwnerCost + key.size() + client.size();
  if (owners_.size() < limit_ && memory_.fits(bytes_ + bytes)) {
    owners_.try_emplace(key, Owner{client, end});
    bytes_ += bytes;
  }
  memory_.set(bytes_);
}

void ParseOutcomes::forgetOwner(const std::string& key, const JournalPosition& end) {
  const std::lock_guard lock(mutex_);
  const auto known = owners_.find(key);
  if (known == owners_.end() || end < known->second.end) return;
  eraseOwner(known);
  memory_.set(bytes_);
}

void ParseOutcomes::eraseOwner(std::unordered_map<std::string, Owner>::iterator owner) {
  bytes_ -= kOwnerCost + owner->first.size() + owner->second.client.size();
  owners_.erase(owner);
}

std::string ParseOutcomes::ownerOf(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = owners_.find(key);
  return found == owners_.end() ? std::string() : found->second.client;
}

std::vector<ParseOutcomes::Owned> ParseOutcomes::takeUntold(const JournalPosition& after,
                                                            const JournalPosition& upTo) {
  const std::lock_guard lock(mutex_);
  std::vector<decltype(owners_)::value_type*> untold;
  for (auto& entry : owners_) {
    const Owner& owner = entry.second;
    if (!owner.isTold && after < owner.end && owner.end <= upTo) untold.push_back(&entry);
  }
  std::sort(untold.begin(), untold.end(),
            [](const auto* one, const auto* other) { return one->second.end < other->second.end; });
  std::vector<Owned> taken;
  taken.reserve(untold.size());
  for (auto* const entry : untold) {
    taken.push_back({entry->first, entry->second.client});
    entry->second.isTold = true;
  }
  return taken;
}

void ParseOutcomes::forgetOwnersUpTo(const JournalPosition& position) {
  const std::lock_guard lock(mutex_);
  for (auto owner = owners_.begin(); owner != owners_.end();) {
    const auto next = std::next(owner);
    if (owner->second.end <= position) eraseOwner(owner);
    owner = next;
  }
  // A table that has been large stays so.
  if (owners_.empty()) owners_ = {};
  memory_.set(bytes_);
}

void ParseOutcomes::pushRefused(const std::string& batch, BatchOutcome outcome) {
  const std::lock_guard lock(mutex_);
  const auto known = std::find_if(refused_.begin(), refused_.end(),
                                  [&](const auto& one) { return one.first == batch; });
  if (known != refused_.end()) forgetRefused(known);
  const std::size_t bytes = batch.size() + costOf(outcome);
  refused_.emplace_back(batch, std::move(outcome));
  bytes_ += bytes;
  while (refused_.size() > kRefusedBatches || (refused_.size() > 1 && !memory_.fits(bytes_))) {
    forgetRefused(refused_.begin());
  }
  memory_.set(bytes_);
}

void ParseOutcomes::forgetRefused(
    std::deque<std::pair<std::string, BatchOutcome>>::iterator refused) {
  bytes_ -= refused->first.size() + costOf(refused->second);
  refused_.erase(refused);
}

std::optional<BatchOutcome> ParseOutcomes::refused(const std::string& batch) const {
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(refused_.begin(), refused_.end(),
                                  [&](const auto& known) { return known.first == batch; });
  return found == refused_.end() ? std::nullopt : std::optional(found->second);
}

bool ParseOutcomes::empty() const {
  const std::lock_guard lock(mutex_);
  return outcomes_.outcomes.empty() && refused_.empty() && clients_.empty() && owners_.empty() &&
         !leftOut_;
}

void ParseOutcomes::forgetTickets() {
  const std::lock_guard lock(mutex_);
  ticket_ = 0;
}

}  // namespace corvaned
