#include "cli/printer.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli/text.h"

namespace corvane {

namespace {

// A program reads the same text from the escape, and a terminal is not steered by it.
icu::UnicodeString escapedForJson(const icu::UnicodeString& json) {
  icu::UnicodeString escaped;
  for (std::int32_t i = 0; i < json.length(); i = json.moveIndex32(i, 1)) {
    const UChar32 character = json.char32At(i);
    if (isPrintable(character)) {
      escaped.append(character);
      continue;
    }
    for (const char16_t unit : std::u16string_view(json.getBuffer() + i, U16_LENGTH(character))) {
      escaped.append(icu::UnicodeString::fromUTF8(fmt::format("\\u{:04x}", +unit)));
    }
  }
  return escaped;
}

std::string dump(const nlohmann::ordered_json& object) {
  // A text that a server sent may be ill-formed; the replacement character beats an exception here.
  std::string json = object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  const auto needsALook = [](char c) { return c < ' ' || c == '\x7f'; };
  if (std::none_of(json.begin(), json.end(), needsALook)) return json;
  return toUtf8(escapedForJson(icu::UnicodeString::fromUTF8(json)));
}

}  // namespace

Printer::Printer(std::ostream& out, std::ostream& err, Mode mode)
    : out_(out), err_(err), mode_(mode) {}

void Printer::result(std::string_view line, const nlohmann::ordered_json& object) {
  const std::lock_guard lock(mutex_);
  clearProgress();
  out_ << resultLine(line, object);
}

std::string Printer::resultLine(std::string_view line, const nlohmann::ordered_json& object) const {
  return (mode_.json ? dump(object) : printable(line)) + '\n';
}

void Printer::line(const std::string& line) {
  const std::lock_guard lock(mutex_);
  clearProgress();
  out_ << line + '\n';
}

void Printer::object(const nlohmann::ordered_json& object) {
  const std::lock_guard lock(mutex_);
  clearProgress();
  out_ << dump(object) + '\n';
}

void Printer::note(std::string_view line) {
  const std::lock_guard lock(mutex_);
  if (mode_.json) return;
  clearProgress();
  err_ << printable(line) + '\n';
}

void Printer::error(std::string_view line, std::string_view id) {
  const std::lock_guard lock(mutex_);
  clearProgress();
  err_ << errorLine(line, id);
}

std::string Printer::errorLine(std::string_view line, std::string_view id) const {
  if (!mode_.json) return "corvane: " + printable(line) + '\n';
  nlohmann::ordered_json object = {{"error", printable(line)}};
  if (!id.empty()) object["id"] = id;
  return dump(object) + '\n';
}

bool Printer::showsProgress() const { return columns() >= 2; }

unsigned int Printer::columns() const {
  return mode_.columns != nullptr && !mode_.json ? mode_.columns() : 0;
}

void Printer::progress(std::string_view line) {
  const std::lock_guard lock(mutex_);
  if (!showsProgress()) return;
  // A line that fills the last column wraps, and the next one would not replace it.
  err_ << '\r' << line.substr(0, columns() - 1) << "\x1b[K" << std::flush;
  progressShown_ = true;
}

bool Printer::flush() {
  const std::lock_guard lock(mutex_);
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
