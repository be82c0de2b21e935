#include "server/front/fairPlaces.h"

namespace corvaned {

std::optional<FairPlaces::Place> FairPlaces::tryToTake(const std::string& collection) {
  const std::lock_guard lock(mutex_);
  Entry& entry = entryOf(collection);
  if (!isFreeFor(entry.second)) {
    eraseIfIdle(entry);
    return std::nullopt;
  }
  take(entry.second);
  return Place(*this, entry);
}

void FairPlaces::await(const std::string& collection, Take take) {
  std::list<Waiting> mine;
  mine.push_back({nullptr, std::move(take)});
  Waiting& one = mine.front();
  {
    const std::lock_guard lock(mutex_);
    one.entry = &entryOf(collection);
    if (!isFreeFor(one.entry->second)) {
      ++one.entry->second.waiting;
      return waiting_.splice(waiting_.end(), mine);
    }
    this->take(one.entry->second);
  }
  one.take(Place(*this, *one.entry));
}

FairPlaces::Entry& FairPlaces::entryOf(const std::string& collection) {
  return *collections_.try_emplace(collection).first;
}

// Whoever comes now does not go before those who wait.
bool FairPlaces::isFreeFor(const Collection& collection) const {
  return collection.waiting == 0 && mayTake(collection);
}

void FairPlaces::take(Collection& collection) {
  ++collection.taken;
  ++taken_;
}

bool FairPlaces::mayTake(const Collection& collection) const {
  return taken_ < (collection.taken == 0 ? count_ : count_ / 2);
}

// Takes no memory.
void FairPlaces::giveBack(Entry& entry) {
  std::list<Waiting> going;
  {
    const std::lock_guard lock(mutex_);
    --entry.second.taken;
    --taken_;
    for (auto next = waiting_.begin(); next != waiting_.end();) {
      const auto one = next++;
      Collection& collection = one->entry->second;
      if (!mayTake(collection)) continue;
      --collection.waiting;
      take(collection);
      going.splice(going.end(), waiting_, one);
    }
    eraseIfIdle(entry);
  }
  for (const Waiting& one : going) one.take(Place(*this, *one.entry));
}

void FairPlaces::eraseIfIdle(Entry& entry) {
  if (entry.second.taken > 0 || entry.second.waiting > 0) return;
  collections_.erase(collections_.find(entry.first));
}

}  // namespace corvaned
