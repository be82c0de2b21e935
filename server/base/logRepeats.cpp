#include "server/base/logRepeats.h"

#include <spdlog/spdlog.h>

#include <utility>

namespace corvaned {
namespace {

constexpr std::chrono::seconds kPause{10};
// More different lines than this are no repetition, and must not be kept for ever.
constexpr std::size_t kMaxLines = 1000;

}  // namespace

std::optional<std::uint64_t> LogRepeats::pass(const std::string& line, Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  if (seen_.size() >= kMaxLines) seen_.clear();
  const auto [place, fresh] = seen_.try_emplace(line, Seen{now, 0});
  if (fresh) return 0;
  Seen& seen = place->second;
  if (now - seen.passed < kPause) {
    ++seen.heldBack;
    return std::nullopt;
  }
  seen.passed = now;
  return std::exchange(seen.heldBack, 0);
}

void LogRepeats::log(spdlog::level::level_enum level, const std::string& line) {
  log(level, line, line);
}

void LogRepeats::log(spdlog::level::level_enum level, const std::string& line,
                     const std::string& kind) {
  const auto unsaid = pass(kind);
  if (!unsaid) return;
  if (*unsaid == 0) return spdlog::log(level, "{}", line);
  spdlog::log(level, "{} repeated={}", line, *unsaid);
}

}  // namespace corvaned
