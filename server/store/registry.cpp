#include "server/store/registry.h"

#include <new>
#include <system_error>

#include "server/base/requestContext.h"
#include "server/store/collection.h"

namespace corvaned {

struct Registry::Entry {
  enum class State {
    Opening,
    Open,
    /// Being closed, created or dropped.
    Reserved,
    /// No longer in the registry.
    Gone,
  };

  // Whoever is to open it must not fail to be noted as waiting for that.
  explicit Entry(std::string called) : name(std::move(called)) { waiting.reserve(1); }

  bool isSettled() const { return state == State::Open || state == State::Gone; }

  const std::string name;
  State state = State::Opening;
  std::shared_ptr<Collection> collection;
  std::size_t users = 0;
  bool closesWhenUnused = false;
  std::optional<ServerError> failure;
  std::vector<Ready> waiting;
  // Stands in unused_, or is kept here, so that nobody needs memory to stop using the collection.
  std::list<std::shared_ptr<Entry>> kept{nullptr};
  const std::list<std::shared_ptr<Entry>>::iterator place = kept.begin();
};

Registry::Use::Use(Registry& registry, std::shared_ptr<Entry> entry)
    : registry_(registry), entry_(std::move(entry)) {}

Registry::Use::~Use() {
  if (entry_) registry_.release(entry_);
}

Collection* Registry::Use::operator->() const { return entry_->collection.get(); }

Registry::Reservation::Reservation(Registry& registry, std::shared_ptr<Entry> entry)
    : registry_(registry), entry_(std::move(entry)) {}

Collection* Registry::Reservation::collection() const { return entry_->collection.get(); }

bool Registry::Reservation::awaitUnused(std::chrono::milliseconds time) const {
  Lock lock(registry_.mutex_);
  return registry_.changed_.wait_for(lock, time, [&] { return entry_->users == 0; });
}

Registry::Reservation::~Reservation() {
  std::vector<Ready> waiting;
  {
    const std::lock_guard lock(registry_.mutex_);
    if (entry_->collection && !forgotten_) {
      registry_.makeOpen(entry_);
    } else {
      registry_.makeGone(*entry_);
    }
    waiting.swap(entry_->waiting);
  }
  callAll(waiting, std::nullopt);
}

std::pair<std::shared_ptr<Registry::Entry>, bool> Registry::entryOf(const std::string& name) {
  const auto found = entries_.find(name);
  if (found != entries_.end()) return {found->second, false};
  auto entry = std::make_shared<Entry>(name);
  entries_.emplace(name, entry);
  return {std::move(entry), true};
}

Registry::Use Registry::use(const std::string& name) {
  Lock lock(mutex_);
  for (;;) {
    const auto [entry, isNew] = entryOf(name);
    if (isNew) {
      lock.unlock();
      open(entry);
      lock.lock();
    }
    changed_.wait(lock, [&one = *entry] { return one.isSettled(); });
    // Those who wait each get an error of their own: exceptions are not made to be shared.
    if (entry->failure) throw ServerError(entry->failure->kind(), entry->failure->what());
    if (entry->state != Entry::State::Open) continue;
    ++entry->users;
    takeFromUnused(*entry);
    return {*this, entry};
  }
}

std::optional<Registry::Use> Registry::useIfOpen(const std::string& name) {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(name);
  if (found == entries_.end() || found->second->state != Entry::State::Open) return std::nullopt;
  const std::shared_ptr<Entry>& entry = found->second;
  ++entry->users;
  takeFromUnused(*entry);
  return Use(*this, entry);
}

bool Registry::isOpen(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(name);
  return found != entries_.end() && found->second->state == Entry::State::Open;
}

std::optional<Registry::Opening> Registry::awaitOpen(const std::string& name, Ready ready) {
  {
    const std::lock_guard lock(mutex_);
    const auto [entry, isNew] = entryOf(name);
    if (entry->state != Entry::State::Open) {
      entry->waiting.push_back(std::move(ready));
      if (isNew) return Opening(*this, entry);
      return std::nullopt;
    }
  }
  ready(std::nullopt);
  return std::nullopt;
}

// Those who have waited come first.
void Registry::Opening::carryOut() const {
  registry_->open(entry_);
  Lock lock(registry_->mutex_);
  const bool isUnused = entry_->state == Entry::State::Open && entry_->users == 0;
  if (isUnused && entry_->closesWhenUnused) registry_->shut(lock, entry_);
}

void Registry::open(const std::shared_ptr<Entry>& entry) {
  const std::optional<ServerError> failure = tryToOpen(*entry);
  std::vector<Ready> waiting;
  {
    const std::lock_guard lock(mutex_);
    entry->failure = failure;
    if (failure) {
      makeGone(*entry);
    } else {
      makeOpen(entry);
    }
    waiting.swap(entry->waiting);
  }
  callAll(waiting, failure);
}

void Registry::callAll(const std::vector<Ready>& waiting,
                       const std::optional<ServerError>& failure) noexcept {
  for (const Ready& ready : waiting) ready(failure);
}

// Nobody else looks at the entry's collection while it is being opened.
std::optional<ServerError> Registry::tryToOpen(Entry& entry) const {
  // All who wait for it share what comes of it.
  const RequestContext::Scope ofNobody;
  try {
    return reasonNotToOpen(entry);
  } catch (const std::bad_alloc&) {
    return noMemory_;
  }
}

std::optional<ServerError> Registry::reasonNotToOpen(Entry& entry) const {
  try {
    entry.collection = opener_(entry.name);
    return std::nullopt;
  } catch (const ServerError& error) {
    return ServerError(error.kind(), error.what());
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::system_error& error) {
    return ServerError(ErrorKind::StorageFailed, error.what());
  } catch (const std::exception& error) {
    return ServerError(ErrorKind::Internal, std::string("internal failure: ") + error.what());
  }
}

Registry::Reservation Registry::reserve(const std::string& name) {
  Lock lock(mutex_);
  for (;;) {
    const auto [entry, isNew] = entryOf(name);
    if (!isNew) changed_.wait(lock, [&one = *entry] { return one.isSettled(); });
    if (entry->state == Entry::State::Gone) continue;
    entry->state = Entry::State::Reserved;
    takeFromUnused(*entry);
    return {*this, entry};
  }
}

bool Registry::isSettled(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(name);
  return found == entries_.end() || found->second->isSettled();
}

void Registry::awaitSettled(const std::string& name, Ready ready) {
  {
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(name);
    if (found != entries_.end() && !found->second->isSettled()) {
      return found->second->waiting.push_back(std::move(ready));
    }
  }
  ready(std::nullopt);
}

void Registry::close(const std::string& name) {
  Lock lock(mutex_);
  const auto found = entries_.find(name);
  if (found == entries_.end() || found->second->state == Entry::State::Reserved) return;
  const std::shared_ptr<Entry> entry = found->second;
  entry->closesWhenUnused = true;
  if (entry->state == Entry::State::Open && entry->users == 0) shut(lock, entry);
}

bool Registry::closeOldest() {
  Lock lock(mutex_);
  for (std::size_t left = unused_.size(); left > 0 && !unused_.empty(); --left) {
    const std::shared_ptr<Entry> oldest = unused_.front();
    if (shut(lock, oldest)) return true;
  }
  return false;
}

std::size_t Registry::size() const {
  const std::lock_guard lock(mutex_);
  return entries_.size();
}

CollectionCounts Registry::counts() const {
  CollectionCounts counts;
  const std::lock_guard lock(mutex_);
  for (const auto& [name, entry] : entries_) {
    if (entry->state != Entry::State::Open) continue;
    switch (entry->collection->condition()) {
      case Collection::Condition::Sound:
        ++counts.sound;
        break;
      case Collection::Condition::RefusesChanges:
        ++counts.refusing;
        break;
      case Collection::Condition::NotUpdated:
        ++counts.notUpdated;
        break;
    }
  }
  return counts;
}

// One that cannot be closed now stays open, as if it had just been used.
bool Registry::shut(Lock& lock, const std::shared_ptr<Entry>& entry) {
  entry->state = Entry::State::Reserved;
  entry->closesWhenUnused = false;
  takeFromUnused(*entry);
  lock.unlock();
  const bool closed = entry->collection->close();
  if (closed) entry->collection.reset();
  lock.lock();
  if (closed) {
    makeGone(*entry);
  } else {
    makeOpen(entry);
  }
  const std::vector<Ready> waiting = std::exchange(entry->waiting, {});
  lock.unlock();
  callAll(waiting, std::nullopt);
  lock.lock();
  return closed;
}

void Registry::release(const std::shared_ptr<Entry>& entry) {
  Lock lock(mutex_);
  if (--entry->users > 0) return;
  if (entry->state != Entry::State::Open) return changed_.notify_all();
  if (entry->closesWhenUnused) {
    shut(lock, entry);
  } else {
    putIntoUnused(entry);
  }
}

void Registry::makeOpen(const std::shared_ptr<Entry>& entry) {
  entry->state = Entry::State::Open;
  if (entry->users == 0) putIntoUnused(entry);
  changed_.notify_all();
}

void Registry::putIntoUnused(const std::shared_ptr<Entry>& entry) {
  *entry->place = entry;
  unused_.splice(unused_.end(), entry->kept);
}

void Registry::takeFromUnused(Entry& entry) {
  if (!entry.kept.empty()) return;
  entry.kept.splice(entry.kept.end(), unused_, entry.place);
  entry.place->reset();
}

void Registry::makeGone(Entry& entry) {
  entry.state = Entry::State::Gone;
  entries_.erase(entry.name);
  changed_.notify_all();
}

}  // namespace corvaned
