#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

#include "comm/kruBytes.h"
#include "comm/kruRecordLengths.h"

/// The fields of a record, read where they lie. These operations check what the record codec
/// trusts.
namespace tq::comm::fields {

/// The two forms of a record: lengths of 32 bits and of 16 bits.
enum class Form : bool { Wide, Narrow };

inline bool takeLength(bytes::Reader& record, Form form, std::size_t& length) noexcept {
  if (form == Form::Wide) {
    std::uint32_t word = 0;
    if (!record.readInt(word)) return false;
    length = word & kLengthMask;
    return true;
  }
  std::uint16_t word = 0;
  if (!record.readShort(word)) return false;
  length = word;
  return true;
}

/// False when the text runs past the end of the record.
inline bool takeText(bytes::Reader& record, Form form, std::string_view& text) noexcept {
  std::size_t length = 0;
  return takeLength(record, form, length) && record.readBytes(length, text);
}

/// Texts of a record end at a zero byte, whatever length they announce.
inline std::string_view upToZero(std::string_view text) noexcept {
  const void* zero = text.empty() ? nullptr : std::memchr(text.data(), 0, text.size());
  if (zero == nullptr) return text;
  return text.substr(0, static_cast<std::size_t>(static_cast<const char*>(zero) - text.data()));
}

}  // namespace tq::comm::fields
