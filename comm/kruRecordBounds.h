#pragma once

#include <cstdint>

namespace tq::comm {

/// True when every field of the record lies inside its `len` bytes. The record codec trusts the
/// lengths it reads; parsers of replies ask here before they hand it bytes from the network.
bool fieldsFit(const char* record, std::uint32_t len) noexcept;

/// The same for records with 16-bit lengths.
bool fieldsFitNew(const char* record, std::uint16_t len) noexcept;

}  // namespace tq::comm
