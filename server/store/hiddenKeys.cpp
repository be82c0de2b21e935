#include "server/store/hiddenKeys.h"

#include <algorithm>
#include <mutex>

namespace corvaned {
namespace {

// What a key takes beside its bytes.
constexpr std::size_t kKeyCost = 104;

}  // namespace

void HiddenKeys::add(const std::string& key, const JournalPosition& position) {
  const std::unique_lock lock(mutex_);
  put(key, position);
  memory_.force(keyBytes_);
}

void HiddenKeys::put(const std::string& key, const JournalPosition& position) {
  const auto [place, isNew] = deletions_.try_emplace(key, Deletion{position, version_ + 1});
  place->second.position = std::max(place->second.position, position);
  if (!isNew) return;
  ++version_;
  keyBytes_ += key.size() + kKeyCost;
}

bool HiddenKeys::contains(const std::string& key) const {
  const std::shared_lock lock(mutex_);
  return deletions_.contains(key);
}

std::size_t HiddenKeys::size() const {
  const std::shared_lock lock(mutex_);
  return deletions_.size();
}

std::vector<std::string> HiddenKeys::keys() const {
  std::vector<std::string> keys;
  const std::shared_lock lock(mutex_);
  keys.reserve(deletions_.size());
  for (const auto& [key, deletion] : deletions_) keys.push_back(key);
  return keys;
}

std::uint64_t HiddenKeys::version() const {
  const std::shared_lock lock(mutex_);
  return version_;
}

std::shared_ptr<const HiddenKeys> HiddenKeys::asOf(std::uint64_t version,
                                                   MemoryBudget::Share memory) const {
  const std::shared_lock lock(mutex_);
  if (version < firstVersion_ || version > version_) return nullptr;
  auto then = std::make_shared<HiddenKeys>(std::move(memory));
  for (const auto& [key, deletion] : deletions_) {
    if (deletion.version <= version) then->put(key, deletion.position);
  }
  then->firstVersion_ = then->version_ = version;
  then->memory_.force(then->keyBytes_);
  return then;
}

}  // namespace corvaned
