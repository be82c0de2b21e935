#include "server/store/hiddenKeys.h"

#include <algorithm>
#include <limits>
#include <mutex>

namespace corvaned {
namespace {

// What a key takes beside its bytes.
constexpr std::size_t kKeyCost = 104;

constexpr std::uint64_t kNewest = std::numeric_limits<std::uint64_t>::max();

}  // namespace

std::size_t HiddenKeys::bytesOf(const std::string& key) { return key.size() + kKeyCost; }

void HiddenKeys::add(const std::string& key, const JournalPosition& position) {
  const std::unique_lock lock(mutex_);
  put(key, position);
  memory_.force(keyBytes_);
}

bool HiddenKeys::addIfItFits(const std::string& key, const JournalPosition& position) {
  const std::unique_lock lock(mutex_);
  const std::size_t more = deletions_.contains(key) ? 0 : bytesOf(key);
  // As a large use it would wait for every request that waits for memory.
  if (!memory_.resize(keyBytes_ + more, MemoryBudget::Use::Small)) return false;
  put(key, position);
  return true;
}

std::size_t HiddenKeys::bytes() const {
  const std::shared_lock lock(mutex_);
  return keyBytes_;
}

void HiddenKeys::put(const std::string& key, const JournalPosition& position) {
  const auto [place, isNew] = deletions_.try_emplace(key, Deletion{position, version_ + 1});
  place->second.position = std::max(place->second.position, position);
  if (!isNew) return;
  ++version_;
  keyBytes_ += bytesOf(key);
}

bool HiddenKeys::contains(const std::string& key) const {
  if (present_) return present_->contains(key, version_);
  return contains(key, kNewest);
}

bool HiddenKeys::contains(const std::string& key, std::uint64_t version) const {
  const std::shared_lock lock(mutex_);
  const auto found = deletions_.find(key);
  return found != deletions_.end() && found->second.version <= version;
}

std::size_t HiddenKeys::size() const {
  if (present_) return present_->firstSize_ + (version_ - present_->firstVersion_);
  const std::shared_lock lock(mutex_);
  return deletions_.size();
}

std::vector<std::string> HiddenKeys::keys() const {
  if (present_) return present_->keys(version_);
  return keys(kNewest);
}

std::vector<std::string> HiddenKeys::keys(std::uint64_t version) const {
  std::vector<std::string> keys;
  const std::shared_lock lock(mutex_);
  for (const auto& [key, deletion] : deletions_) {
    if (deletion.version <= version) keys.push_back(key);
  }
  return keys;
}

std::uint64_t HiddenKeys::version() const {
  const std::shared_lock lock(mutex_);
  return version_;
}

std::shared_ptr<const HiddenKeys> HiddenKeys::asOf(const std::shared_ptr<const HiddenKeys>& present,
                                                   std::uint64_t version) {
  if (version < present->firstVersion_ || version > present->version()) return nullptr;
  auto then = std::make_shared<HiddenKeys>();
  then->present_ = present;
  then->version_ = version;
  return then;
}

}  // namespace corvaned
