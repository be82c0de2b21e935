#pragma once

#include <string>
#include <string_view>

#include "server/reply.h"

namespace corvaned {

/// How a document is named in replies: "base64:" and the Base64 form of its key, whatever bytes the
/// key is made of.
std::string documentId(std::string_view key);

/// A score as text, exactly three decimals: "1.000", "0.042".
std::string scoreText(std::uint16_t milliScore);

/// An error text that fits the smallest read a client makes for one.
std::string_view errorText(const std::string& text);

}  // namespace corvaned
