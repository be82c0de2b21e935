#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <ostream>
#include <string>
#include <string_view>

namespace corvane {

/// Where a command's words go: results to one stream, everything else to the other. Results are
/// lines for a person, or JSON Lines; progress is shown to a person at a terminal only.
class Printer {
 public:
  struct Mode {
    bool json = false;
    bool terminal = false;
  };

  Printer(std::ostream& out, std::ostream& err, Mode mode);

  bool json() const { return mode_.json; }

  /// One line of results: `line` for a person, `object` as JSON.
  void result(std::string_view line, const nlohmann::ordered_json& object);

  /// The two halves of it, for results that are too many to be made in both forms.
  void line(std::string_view line);
  void object(const nlohmann::ordered_json& object);

  /// Something worth knowing that is no result; not said in JSON mode.
  void note(std::string_view line);

  /// One line that begins with the program's name, or one JSON object with the same text.
  void error(std::string_view line, std::string_view id = {});

  /// Replaces the terminal's current line. Nothing elsewhere.
  void progress(std::string_view line);

  /// False when not everything could be written.
  bool flush();

 private:
  void clearProgress();

  std::ostream& out_;
  std::ostream& err_;
  Mode mode_;
  bool progressShown_ = false;
};

}  // namespace corvane
