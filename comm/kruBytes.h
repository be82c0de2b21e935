#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

/// The one place where integers of the wire are read and written. Every one of them is big-endian.
namespace tq::comm::bytes {

inline std::uint16_t loadShort(const char* p) noexcept {
  const auto* b = reinterpret_cast<const unsigned char*>(p);
  return static_cast<std::uint16_t>((b[0] << 8) | b[1]);
}

inline std::uint32_t loadInt(const char* p) noexcept {
  const auto* b = reinterpret_cast<const unsigned char*>(p);
  return (std::uint32_t{b[0]} << 24) | (std::uint32_t{b[1]} << 16) | (std::uint32_t{b[2]} << 8) |
         std::uint32_t{b[3]};
}

inline void storeShort(char* p, std::uint16_t value) noexcept {
  p[0] = static_cast<char>(value >> 8);
  p[1] = static_cast<char>(value & 0xFF);
}

inline void storeInt(char* p, std::uint32_t value) noexcept {
  p[0] = static_cast<char>(value >> 24);
  p[1] = static_cast<char>((value >> 16) & 0xFF);
  p[2] = static_cast<char>((value >> 8) & 0xFF);
  p[3] = static_cast<char>(value & 0xFF);
}

/// Consumes a view from the front. A read advances only when the bytes are there; otherwise it
/// returns false and changes nothing.
class Reader {
 public:
  Reader(const char* data, std::size_t length) noexcept : data_(data), remaining_(length) {}

  const char* data() const noexcept { return data_; }
  std::size_t remaining() const noexcept { return remaining_; }

  bool readShort(std::uint16_t& value) noexcept {
    if (remaining_ < 2) return false;
    value = loadShort(data_);
    advance(2);
    return true;
  }

  bool readInt(std::uint32_t& value) noexcept {
    if (remaining_ < 4) return false;
    value = loadInt(data_);
    advance(4);
    return true;
  }

  /// Takes `count` bytes and lets `bytes` name them; they stay where they are.
  bool readBytes(std::size_t count, std::string_view& bytes) noexcept {
    if (count > remaining_) return false;
    bytes = {data_, count};
    advance(count);
    return true;
  }

  bool skip(std::size_t count) noexcept {
    if (count > remaining_) return false;
    advance(count);
    return true;
  }

 private:
  void advance(std::size_t count) noexcept {
    data_ += count;
    remaining_ -= count;
  }

  const char* data_;
  std::size_t remaining_;
};

/// The reply parsers count in ints: what is offered and what is left.
inline Reader readerOf(const char* data, int length) noexcept {
  return {data, length > 0 ? static_cast<std::size_t>(length) : 0};
}
inline int leftIn(const Reader& reader) noexcept { return static_cast<int>(reader.remaining()); }

/// Appends to memory whose size the caller has computed beforehand.
class Writer {
 public:
  explicit Writer(char* out) noexcept : start_(out), next_(out) {}

  void putShort(std::uint16_t value) noexcept {
    storeShort(next_, value);
    next_ += 2;
  }
  void putInt(std::uint32_t value) noexcept {
    storeInt(next_, value);
    next_ += 4;
  }
  void putBytes(const char* data, std::size_t length) noexcept {
    if (length != 0) std::memcpy(next_, data, length);
    next_ += length;
  }
  /// Takes the next bytes for the caller to fill.
  char* claim(std::size_t length) noexcept {
    char* claimed = next_;
    next_ += length;
    return claimed;
  }
  std::size_t written() const noexcept { return static_cast<std::size_t>(next_ - start_); }

 private:
  char* start_;
  char* next_;
};

}  // namespace tq::comm::bytes
