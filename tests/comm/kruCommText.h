#pragma once

#include <unicode/unistr.h>

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "infra/oss/kruConverter.h"
#include "infra/util/kruExtendedProperties.h"

/// Small verbs that the tests of this area share.
namespace tq::test {

/// UTF-8, so that a failing comparison prints what people can read.
inline std::string utf8(const icu::UnicodeString& text) { return tq::oss::Converter::toUTF8(text); }

inline icu::UnicodeString utf16(std::string_view text) {
  return tq::oss::Converter::fromUTF8(text.data(), text.size());
}

/// "00 2a ff".
inline std::string hex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (!out.empty()) out += ' ';
    out += kDigits[byte >> 4];
    out += kDigits[byte & 0xF];
  }
  return out;
}

/// The bytes of "00 2a ff".
inline std::string unhex(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i + 1 < text.size(); i += 3) {
    out += static_cast<char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16));
  }
  return out;
}

inline std::string word32(std::uint32_t n) {
  return {static_cast<char>(n >> 24), static_cast<char>((n >> 16) & 0xFF),
          static_cast<char>((n >> 8) & 0xFF), static_cast<char>(n & 0xFF)};
}

inline std::string word16(std::uint16_t n) {
  return {static_cast<char>(n >> 8), static_cast<char>(n & 0xFF)};
}

using Fields = std::vector<std::pair<std::string, std::string>>;

/// A record with 4-byte lengths.
inline std::string record32(const Fields& fields) {
  std::string out;
  for (const auto& [key, value] : fields) {
    out += word32(static_cast<std::uint32_t>(key.size())) + key;
    out += word32(static_cast<std::uint32_t>(value.size())) + value;
  }
  return out;
}

/// A record with 2-byte lengths.
inline std::string record16(const Fields& fields) {
  std::string out;
  for (const auto& [key, value] : fields) {
    out += word16(static_cast<std::uint16_t>(key.size())) + key;
    out += word16(static_cast<std::uint16_t>(value.size())) + value;
  }
  return out;
}

/// "name=value" of each property, in order.
inline std::vector<std::string> listed(const tq::util::ExtendedProperties& props) {
  std::vector<std::string> out;
  for (const auto& [name, value] : props) out.push_back(utf8(name) + "=" + utf8(value));
  return out;
}

inline tq::util::ExtendedProperties properties(const Fields& fields) {
  tq::util::ExtendedProperties props;
  for (const auto& [name, value] : fields) props.putProperty(utf16(name), utf16(value));
  return props;
}

}  // namespace tq::test
