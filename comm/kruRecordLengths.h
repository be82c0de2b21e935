#pragma once

#include <cstdint>

namespace tq::comm {

/// A 32-bit length word of a record or of a document block keeps its two highest bits free.
inline constexpr std::uint32_t kLengthMask = 0x3FFFFFFF;

/// The key length of a metadata pair with an attribute keeps only the highest one free.
inline constexpr std::uint32_t kAttributedKeyLengthMask = 0x7FFFFFFF;

}  // namespace tq::comm
