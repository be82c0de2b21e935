#pragma once

// What most sources of the command line include is parsed once. Each source still names what it
// uses, so that it compiles without this file.

#include <fmt/format.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>
