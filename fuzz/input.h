#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>

namespace tq::fuzz {

/// The fuzzer's bytes: choices from the front, then whatever is left.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : bytes_(reinterpret_cast<const char*>(data), size) {}

  /// The next byte; 0 when there is none.
  unsigned int byte() {
    if (bytes_.empty()) return 0;
    const auto value = static_cast<unsigned char>(bytes_.front());
    bytes_.remove_prefix(1);
    return value;
  }

  std::string_view rest() const { return bytes_; }

 private:
  std::string_view bytes_;
};

/// The sizes of the pieces that bytes arrive in.
class Cutter {
 public:
  /// Everything in one piece.
  static Cutter whole() { return Cutter(); }

  /// Every fourth seed gives pieces of one byte, the others below 32 pieces of that size, the rest
  /// a mixture whose largest piece depends on the seed.
  explicit Cutter(unsigned int seed)
      : fixed_(seed % 4 == 0 ? 1 : (seed < kMixtures ? seed : 0)), state_(seed) {}

  std::size_t next() {
    if (fixed_ != 0) return fixed_;
    state_ = state_ * 1664525U + 1013904223U;
    const std::uint32_t random = state_ >> 8;
    return 1 + random % (std::uint32_t{1} << (1 + (random >> 16) % 8));
  }

 private:
  static constexpr unsigned int kMixtures = 32;

  Cutter() : fixed_(std::numeric_limits<std::size_t>::max()), state_(0) {}

  std::size_t fixed_;
  std::uint32_t state_;
};

}  // namespace tq::fuzz
