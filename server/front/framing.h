#pragma once

#include <string_view>

namespace corvaned {

/// How a request's header block is delimited: by an empty last line (http), or by a length before
/// it (binary).
enum class Framing { Http, Binary };

/// The protocol's name in ready lines and messages.
constexpr std::string_view nameOf(Framing framing) {
  return framing == Framing::Http ? "http" : "binary";
}

}  // namespace corvaned
