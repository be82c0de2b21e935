#pragma once

#include <string_view>

namespace corvaned {

/// How a request's header block is delimited: by its own last line, or by a length in front of it.
enum class Framing { http, binary };

/// The protocol's name in ready lines and messages.
constexpr std::string_view nameOf(Framing framing) {
  return framing == Framing::http ? "http" : "binary";
}

}  // namespace corvaned
