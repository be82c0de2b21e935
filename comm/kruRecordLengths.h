#pragma once

#include <cstddef>
#include <cstdint>

namespace tq::comm {

/// A 32-bit length word of a record or of a document block keeps its two highest bits free.
inline constexpr std::uint32_t kLengthMask = 0x3FFFFFFF;

/// The key length of a metadata pair with an attribute keeps only the highest one free.
inline constexpr std::uint32_t kAttributedKeyLengthMask = 0x7FFFFFFF;

/// The word that announces a tag, a document's key or content, or the value of a pair.
constexpr std::uint32_t lengthWord(std::size_t length) noexcept {
  return static_cast<std::uint32_t>(length) & kLengthMask;
}

/// The word that announces the key of a pair.
constexpr std::uint32_t keyLengthWord(std::size_t length, bool attributed) noexcept {
  return static_cast<std::uint32_t>(length) & (attributed ? kAttributedKeyLengthMask : kLengthMask);
}

}  // namespace tq::comm
