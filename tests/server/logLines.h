#pragma once

#include <spdlog/sinks/ringbuffer_sink.h>
#include <spdlog/spdlog.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace corvaned::test {

/// Takes what is logged while it lives, in place of the log. To be made before other threads log.
class LogLines {
 public:
  LogLines() : before_(spdlog::default_logger()) {
    const auto logger = std::make_shared<spdlog::logger>("test", lines_);
    logger->set_pattern("%l %v");
    spdlog::set_default_logger(logger);
  }
  ~LogLines() { spdlog::set_default_logger(before_); }
  LogLines(const LogLines&) = delete;
  LogLines& operator=(const LogLines&) = delete;

  /// Each begins with its level.
  std::vector<std::string> with(const std::string& part) const {
    std::vector<std::string> lines = lines_->last_formatted();
    std::erase_if(lines,
                  [&](const std::string& line) { return line.find(part) == std::string::npos; });
    return lines;
  }

 private:
  static constexpr std::size_t kMost = 10000;

  const std::shared_ptr<spdlog::sinks::ringbuffer_sink_mt> lines_ =
      std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(kMost);
  const std::shared_ptr<spdlog::logger> before_;
};

}  // namespace corvaned::test
