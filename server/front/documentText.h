#pragma once

#include <string>
#include <string_view>

namespace corvaned {

/// Whether there is a charset of that name, in any of the spellings that IANA and others have.
bool isCharset(const std::string& name);

/// The text in UTF-8. Throws ServerError(BadDocument) that names the charset if the bytes are no
/// text in it. UTF-8 itself is returned as it is.
std::string toUtf8(std::string bytes, const std::string& charset);

}  // namespace corvaned
