#include "infra/oss/kruReceiveBuffer.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace tq::oss {

bool ReceiveBuffer::makeRoom(std::size_t wanted) noexcept {
  if (wanted > block_.capacity() - begin_) moveTo(0);
  if (block_.capacity() >= kSlice && end_ < block_.capacity()) return true;
  // Twice what has arrived, never what is wanted: the latter may be a number that a peer made up.
  const std::size_t doubled = std::max(kSlice, end_ * 2);
  return block_.grow(wanted > kSlice ? std::min(doubled, wanted) : kSlice, end_);
}

bool ReceiveBuffer::makeRoomForMore() noexcept {
  moveTo(0);
  // A buffer that is nearly full would otherwise be filled by a few bytes per receive, for as long
  // as whoever parses them leaves as many.
  if (end_ > kSlice / 2 && block_.grow(2 * end_, end_)) return true;
  return makeRoom(std::max(kSlice, end_ + 1));
}

std::size_t ReceiveBuffer::take(char* out, std::size_t length) noexcept {
  const std::size_t count = std::min(length, size());
  if (count == 0) return 0;
  std::memcpy(out, data(), count);
  drop(count);
  return count;
}

void ReceiveBuffer::drop(std::size_t length) noexcept {
  begin_ += std::min(length, size());
  if (begin_ == end_) clear();
}

bool ReceiveBuffer::putBack(const char* bytes, std::size_t length) noexcept {
  if (length == 0) return true;
  if (length > begin_) {
    if (length > std::numeric_limits<std::size_t>::max() / 2 - size()) return false;
    const std::size_t needed = length + size();
    if (needed > block_.capacity() && !block_.grow(std::max(kSlice, needed), end_)) return false;
    moveTo(length);
  }
  begin_ -= length;
  std::memcpy(block_.data() + begin_, bytes, length);
  return true;
}

void ReceiveBuffer::clear() noexcept {
  begin_ = end_ = 0;
  if (block_.capacity() > kKept) block_.resize(1);
}

void ReceiveBuffer::moveTo(std::size_t begin) noexcept {
  const std::size_t count = size();
  if (count != 0 && begin != begin_) std::memmove(block_.data() + begin, data(), count);
  begin_ = begin;
  end_ = begin + count;
}

}  // namespace tq::oss
