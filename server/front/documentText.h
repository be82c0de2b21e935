#pragma once

#include <cstddef>
#include <string>

namespace corvaned {

/// Whether there is a charset of that name, in any of the spellings that IANA and others have.
bool isCharset(const std::string& name);

/// The most bytes that a byte of a text may become in UTF-8.
std::size_t growthInUtf8(const std::string& charset);

/// The text in UTF-8. Throws ServerError(BadDocument) that names the charset if the bytes are no
/// text in it. UTF-8 itself is returned as it is.
std::string toUtf8(std::string bytes, const std::string& charset);

}  // namespace corvaned
