#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace corvane {

/// The value of a fact that a server's report tells, such as "147602" of "bytes" in
/// "collections=2 bytes=147602". Nothing if the report does not tell it.
std::optional<std::string_view> factIn(std::string_view report, std::string_view name);

/// The same of a fact that is a number; 0 if the report does not tell one.
std::uint64_t numberIn(std::string_view report, std::string_view name);

/// All facts of a report, by name and value. `last` is the name of the one behind which there is no
/// other one, so that its value may have blanks.
std::vector<std::pair<std::string_view, std::string_view>> factsIn(std::string_view report,
                                                                   std::string_view last);

}  // namespace corvane
