#pragma once

#include <spdlog/common.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace corvaned {

/// Keeps a line from filling the log: of equal lines it lets one pass every ten seconds. May be
/// used from any thread.
class LogRepeats {
 public:
  using Clock = std::chrono::steady_clock;

  /// How often the line was held back since it last passed, or nothing if it is held back now.
  std::optional<std::uint64_t> pass(const std::string& line, Clock::time_point now = Clock::now());

  /// Writes the line to the log if it passes, with the number of times that it was held back.
  void log(spdlog::level::level_enum level, const std::string& line);
  /// The same, where lines are equal that have the same `kind`.
  void log(spdlog::level::level_enum level, const std::string& line, const std::string& kind);

 private:
  struct Seen {
    Clock::time_point passed;
    std::uint64_t heldBack = 0;
  };

  std::mutex mutex_;
  std::map<std::string, Seen> seen_;  // Guarded by mutex_.
};

}  // namespace corvaned
