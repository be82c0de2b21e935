#pragma once

#include <cstdint>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <ostream>
#include <string>
#include <string_view>

namespace corvane {

/// Where a command's words go: results to one stream, everything else to the other. Results are
/// lines for a person, or JSON Lines; progress is shown to a person at a terminal only. Characters
/// that could steer a terminal are written as escapes. Safe from any thread, because progress is
/// told by another thread than the one that waits for the server.
class Printer {
 public:
  struct Mode {
    bool json = false;
    /// The present width of the terminal that shows errors; 0, or no function: it is none.
    unsigned int (*columns)() = nullptr;
  };

  Printer(std::ostream& out, std::ostream& err, Mode mode);

  bool json() const { return mode_.json; }

  /// One line of results: `line` for a person, `object` as JSON.
  void result(std::string_view line, const nlohmann::ordered_json& object);

  /// `result` in two halves: a caller with many results makes only the form that `json()` asks for.
  /// The line is printed as it is.
  void line(const std::string& line);
  void object(const nlohmann::ordered_json& object);

  /// Something worth knowing that is not a result. Prints nothing in JSON mode.
  void note(std::string_view line);

  /// One line that begins with the program's name, or one JSON object with the same text.
  void error(std::string_view line, std::string_view id = {});

  /// The line that `error` prints, and the one that `result` prints.
  std::string errorLine(std::string_view line, std::string_view id = {}) const;
  std::string resultLine(std::string_view line, const nlohmann::ordered_json& object) const;

  /// True when somebody sees progress.
  bool showsProgress() const;

  /// Replaces the terminal's current line, with as much of this one (ASCII) as fits. Prints nothing
  /// elsewhere.
  void progress(std::string_view line);

  /// Returns false when not everything could be written.
  bool flush();

 private:
  unsigned int columns() const;
  void clearProgress();

  std::mutex mutex_;  // Guards the streams and what follows.
  std::ostream& out_;
  std::ostream& err_;
  Mode mode_;
  bool progressShown_ = false;
};

}  // namespace corvane
