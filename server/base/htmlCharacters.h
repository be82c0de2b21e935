#pragma once

#include <optional>
#include <string_view>

namespace corvaned {

/// The character that HTML 4 and XML give this name ("eacute", "amp"). Nothing if there is none.
std::optional<char32_t> htmlCharacter(std::string_view name);

}  // namespace corvaned
