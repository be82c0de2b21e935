#pragma once

#include <gtest/gtest.h>
#include <spdlog/sinks/ringbuffer_sink.h>
#include <spdlog/spdlog.h>

#include <cctype>
#include <cstddef>
#include <iomanip>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace corvaned::test {

/// What a line about a failure or a refused request says, by name. Nothing if it cannot be taken
/// apart.
inline std::optional<std::map<std::string, std::string>> fieldsOf(const std::string& line) {
  std::map<std::string, std::string> fields;
  std::istringstream rest(line.substr(line.find(": ") + 1));
  for (std::string name; rest >> std::ws && std::getline(rest, name, '=');) {
    std::string value;
    const bool quoted = rest.peek() == '"';
    if (!(quoted ? rest >> std::quoted(value) : rest >> value)) return std::nullopt;
    if (name.find_first_of(" \"\\") != std::string::npos || fields.contains(name)) {
      return std::nullopt;
    }
    if (!std::isspace(rest.peek()) && !rest.eof()) return std::nullopt;
    fields[name] = value;
  }
  return fields;
}

/// Takes what is logged while it lives, in place of the log. To be made before other threads log.
/// Lines that programs are to read must be such that they can.
class LogLines {
 public:
  LogLines() : before_(spdlog::default_logger()) {
    const auto logger = std::make_shared<spdlog::logger>("test", lines_);
    logger->set_pattern("%l %v");
    spdlog::set_default_logger(logger);
  }
  ~LogLines() {
    spdlog::set_default_logger(before_);
    for (const char* kind : {" failure: ", " refused: "}) {
      for (const std::string& line : with(kind)) {
        EXPECT_TRUE(fieldsOf(line)) << line;
      }
    }
  }
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
