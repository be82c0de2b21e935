#include "server/store/hiddenKeys.h"

#include <algorithm>
#include <mutex>

namespace corvaned {
namespace {

// What a key takes beside its bytes.
constexpr std::size_t kKeyCost = 96;

}  // namespace

void HiddenKeys::add(const std::string& key, const JournalPosition& position) {
  const std::unique_lock lock(mutex_);
  put(key, position);
  memory_.force(keyBytes_);
}

void HiddenKeys::put(const std::string& key, const JournalPosition& position) {
  const auto [place, isNew] = positions_.try_emplace(key, position);
  place->second = std::max(place->second, position);
  if (isNew) keyBytes_ += key.size() + kKeyCost;
}

bool HiddenKeys::contains(const std::string& key) const {
  const std::shared_lock lock(mutex_);
  return positions_.contains(key);
}

std::size_t HiddenKeys::size() const {
  const std::shared_lock lock(mutex_);
  return positions_.size();
}

std::vector<std::string> HiddenKeys::keys() const {
  std::vector<std::string> keys;
  const std::shared_lock lock(mutex_);
  keys.reserve(positions_.size());
  for (const auto& [key, position] : positions_) keys.push_back(key);
  return keys;
}

}  // namespace corvaned
