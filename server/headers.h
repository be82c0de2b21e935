#pragma once

// What most of the server's sources include is parsed once. Each source still names what it uses,
// so that it compiles without this file.

#include <fmt/format.h>
#include <xapian.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>
