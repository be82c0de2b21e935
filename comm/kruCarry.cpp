#include "comm/kruCarry.h"

#include <cstring>
#include <new>

namespace tq::comm {

namespace {
constexpr std::size_t kLargestKept = std::size_t{1} << 20;
}  // namespace

void Carry::clear() noexcept {
  count_ = 0;
  if (buffer_.capacity() > kLargestKept) buffer_.resize(0);
}

std::string_view Carry::join(std::string_view arrived) {
  if (count_ == 0) return arrived;
  if (!buffer_.grow(count_ + arrived.size(), count_)) throw std::bad_alloc();
  if (!arrived.empty()) std::memcpy(buffer_.data() + count_, arrived.data(), arrived.size());
  return {buffer_.data(), count_ + arrived.size()};
}

void Carry::keepLast(std::string_view joined, std::size_t count) {
  const std::string_view kept = joined.substr(joined.size() - count);
  if (!buffer_.grow(count, 0)) throw std::bad_alloc();
  if (count != 0) std::memmove(buffer_.data(), kept.data(), count);
  count_ = count;
}

}  // namespace tq::comm
