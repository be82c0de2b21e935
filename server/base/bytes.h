#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvaned {

inline void appendU16(std::string& out, std::uint16_t value) {
  out += static_cast<char>(value >> 8U);
  out += static_cast<char>(value & 0xFFU);
}

inline void appendU32(std::string& out, std::uint32_t value) {
  appendU16(out, static_cast<std::uint16_t>(value >> 16U));
  appendU16(out, static_cast<std::uint16_t>(value & 0xFFFFU));
}

inline void appendU64(std::string& out, std::uint64_t value) {
  appendU32(out, static_cast<std::uint32_t>(value >> 32U));
  appendU32(out, static_cast<std::uint32_t>(value & 0xFFFFFFFFU));
}

inline std::uint16_t loadU16(std::string_view bytes) {
  const auto byte = [&](std::size_t i) {
    return static_cast<unsigned>(static_cast<unsigned char>(bytes[i]));
  };
  return static_cast<std::uint16_t>(byte(0) << 8U | byte(1));
}

inline std::uint32_t loadU32(std::string_view bytes) {
  return static_cast<std::uint32_t>(loadU16(bytes)) << 16U | loadU16(bytes.substr(2));
}

inline std::uint64_t loadU64(std::string_view bytes) {
  return static_cast<std::uint64_t>(loadU32(bytes)) << 32U | loadU32(bytes.substr(4));
}

/// A cursor over bytes from outside. A read that fails does not move it.
class ByteReader {
 public:
  explicit ByteReader(std::string_view bytes) : rest_(bytes) {}

  bool empty() const { return rest_.empty(); }
  std::size_t remaining() const { return rest_.size(); }

  std::optional<std::uint32_t> u32() {
    if (rest_.size() < 4) return std::nullopt;
    const std::uint32_t value = loadU32(rest_);
    rest_.remove_prefix(4);
    return value;
  }

  std::optional<std::string_view> take(std::size_t count) {
    if (count > rest_.size()) return std::nullopt;
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(count);
    return taken;
  }

 private:
  std::string_view rest_;
};

/// A text with a 4-byte length before it.
inline void appendText(std::string& out, std::string_view text) {
  appendU32(out, static_cast<std::uint32_t>(text.size()));
  out += text;
}

/// Reads what appendText() wrote. If it is cut off, returns false and leaves `text` as it was.
inline bool takeText(ByteReader& reader, std::string& text) {
  const auto length = reader.u32();
  const auto bytes = length ? reader.take(*length) : std::nullopt;
  if (bytes) text = *bytes;
  return bytes.has_value();
}

}  // namespace corvaned
