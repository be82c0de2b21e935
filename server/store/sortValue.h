#pragma once

#include <string>
#include <string_view>

namespace corvaned {

/// What is stored of a metadata value that documents can be sorted by. In the byte order of these,
/// numbers come first and in their order, then texts by the code points of their folded form.
/// Empty if the value is.
std::string sortValueOf(std::string_view value);

}  // namespace corvaned
