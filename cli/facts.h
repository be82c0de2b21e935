#pragma once

#include <optional>
#include <string_view>

namespace corvane {

/// The value of a fact that a server's report tells, such as "147602" of "bytes" in
/// "collections=2 bytes=147602". Nothing if the report does not tell it.
std::optional<std::string_view> factIn(std::string_view report, std::string_view name);

}  // namespace corvane
