#pragma once

#include <cstdint>
#include <string_view>

namespace corvaned {

/// The CRC-32 of what has the checksum `before`, and after it of `bytes`.
std::uint32_t checksumOf(std::string_view bytes, std::uint32_t before = 0);

}  // namespace corvaned
