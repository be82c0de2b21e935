#pragma once

#include <cstddef>
#include <string_view>

#include "infra/oss/kruSizeableBuffer.h"

namespace tq::comm {

/// Reply bytes that a parser has left for the next portion, such as the first half of a record
/// whose second half comes in the next chunk. One object serves one thread.
class Carry {
 public:
  /// Forgets everything. A reply of unusual size does not keep its memory for ever.
  void clear() noexcept;

  std::size_t size() const noexcept { return count_; }

  /// The carried bytes followed by `arrived`, in one run: `arrived` itself when nothing is carried,
  /// otherwise a copy that is valid until the next call. Throws std::bad_alloc and keeps what it
  /// has.
  std::string_view join(std::string_view arrived);

  /// Carries the last `count` bytes of a run that `join` gave. Throws std::bad_alloc.
  void keepLast(std::string_view joined, std::size_t count);

 private:
  tq::oss::SizeableBuffer<char, 16384> buffer_;
  std::size_t count_ = 0;
};

}  // namespace tq::comm
