#include "cli/printer.h"

#include <nlohmann/json.hpp>

namespace corvane {

namespace {

std::string dump(const nlohmann::ordered_json& object) {
  // A text that a server sent may be ill-formed; the replacement character beats an exception here.
  return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace

Printer::Printer(std::ostream& out, std::ostream& err, Mode mode)
    : out_(out), err_(err), mode_(mode) {}

void Printer::result(std::string_view line, const nlohmann::ordered_json& object) {
  if (mode_.json) {
    this->object(object);
  } else {
    this->line(line);
  }
}

void Printer::line(std::string_view line) {
  clearProgress();
  out_ << line << '\n';
}

void Printer::object(const nlohmann::ordered_json& object) {
  clearProgress();
  out_ << dump(object) << '\n';
}

void Printer::note(std::string_view line) {
  if (mode_.json) return;
  clearProgress();
  err_ << line << '\n';
}

void Printer::error(std::string_view line, std::string_view id) {
  clearProgress();
  if (!mode_.json) {
    err_ << "corvane: " << line << '\n';
    return;
  }
  nlohmann::ordered_json object = {{"error", line}};
  if (!id.empty()) object["id"] = id;
  err_ << dump(object) << '\n';
}

void Printer::progress(std::string_view line) {
  if (!mode_.terminal || mode_.json) return;
  err_ << '\r' << line << "\x1b[K" << std::flush;
  progressShown_ = true;
}

bool Printer::flush() {
  clearProgress();
  err_.flush();
  return static_cast<bool>(out_.flush());
}

void Printer::clearProgress() {
  if (!progressShown_) return;
  err_ << "\r\x1b[K";
  progressShown_ = false;
}

}  // namespace corvane
