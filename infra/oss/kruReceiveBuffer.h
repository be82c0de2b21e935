#pragma once

#include <cstddef>
#include <cstdint>

#include "infra/oss/kruSizeableBuffer.h"

namespace tq::oss {

/// The bytes of one connection that have been received and not yet taken. Takes no memory before
/// the first byte, and never more than about twice what has arrived.
class ReceiveBuffer {
 public:
  /// What one receive may fetch, and the block that memory grows by at least.
  static constexpr std::size_t kSlice = std::size_t{64} * 1024;
  /// A block larger than this is given back as soon as it is empty.
  static constexpr std::size_t kKept = std::size_t{1024} * 1024;

  const char* data() const noexcept { return block_.data() + begin_; }
  std::size_t size() const noexcept { return end_ - begin_; }

  /// Grows towards `wanted` bytes in all (more than there are), by at least one byte. False when
  /// there is no memory: nothing is lost then, and an empty buffer still has room for one byte.
  bool makeRoom(std::size_t wanted) noexcept;
  /// Makes room for more bytes, whatever is there: those that are there move to the front, and the
  /// block grows only when they fill it. False as above.
  bool makeRoomForMore() noexcept;
  /// Where the next bytes go, and how many fit; valid after making room.
  char* tail() noexcept { return block_.data() + end_; }
  std::size_t room() const noexcept { return block_.capacity() - end_; }
  void commit(std::size_t count) noexcept { end_ += count; }

  /// Copies up to `length` bytes out and drops them; returns how many.
  std::size_t take(char* out, std::size_t length) noexcept;
  /// Drops up to `length` bytes.
  void drop(std::size_t length) noexcept;
  /// Puts bytes in front. False when there is no memory; nothing has changed then.
  bool putBack(const char* bytes, std::size_t length) noexcept;
  void clear() noexcept;

 private:
  void moveTo(std::size_t begin) noexcept;

  SizeableBuffer<char, 1> block_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace tq::oss
