#include "cli/jsonLines.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "cli/errors.h"
#include "cli/text.h"

namespace corvane {

namespace {

using Json = nlohmann::ordered_json;

// The length fields of a document have 30 bits.
constexpr std::size_t kMaxFieldBytes = 0x3FFFFFFF;

// Nobody means deeper nesting as metadata, and writing it out costs a stack frame per level.
constexpr int kMaxDepth = 100;

// Thrown with the reason why a line does not describe a document.
struct Rejected {
  std::string reason;
};

std::string keyFrom(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_number_integer()) return value.dump();
  throw Rejected{"the \"key\" is neither a string nor a whole number"};
}

icu::UnicodeString metadataText(const Json& value) {
  // JSON texts have been checked for UTF-8 when they were parsed.
  return icu::UnicodeString::fromUTF8(value.is_string() ? value.get<std::string>() : value.dump());
}

void takeField(const std::string& name, const Json& value, Document& document) {
  if (name == "key") return;
  if (name == "text") {
    if (!value.is_string()) throw Rejected{"the \"text\" is not a string"};
    document.text = value.get<std::string>();
    if (document.text.size() > kMaxFieldBytes) throw Rejected{"the \"text\" is too long"};
  } else if (!value.is_null()) {
    document.metadata.emplace_back(icu::UnicodeString::fromUTF8(name), metadataText(value));
  }
}

void fill(const Json& object, Document& document) {
  if (!object.is_object()) throw Rejected{"the line is not a JSON object"};
  const auto key = object.find("key");
  if (key == object.end()) throw Rejected{"the object has no \"key\""};
  document.key = keyFrom(*key);
  if (auto reason = whyNoKey(document.key)) throw Rejected{*reason};
  if (!object.contains("text")) throw Rejected{"the object has no \"text\""};
  for (const auto& [name, value] : object.items()) takeField(name, value, document);
}

std::string jsonReason(const Json::exception& failure) {
  // The JSON library's prefix, "[json.exception.parse_error.101] ", tells a person nothing.
  const std::string text = failure.what();
  const auto end = text.find("] ");
  return "not JSON: " + (end == std::string::npos ? text : text.substr(end + 2));
}

Json parseJson(const std::string& text) {
  return Json::parse(text, [](int depth, Json::parse_event_t, const Json&) {
    if (depth > kMaxDepth) throw Rejected{"the object is nested too deeply"};
    return true;
  });
}

std::variant<Document, Refusal> parseLine(const std::string& text, std::uint64_t line) {
  Document document;
  document.line = line;
  try {
    fill(parseJson(text), document);
    return document;
  } catch (const Rejected& rejected) {
    return Refusal{line, document.key, rejected.reason};
  } catch (const Json::exception& failure) {
    return Refusal{line, document.key, jsonReason(failure)};
  }
}

bool isBlank(const std::string& text) { return text.find_first_not_of(" \t\r") == text.npos; }

}  // namespace

std::size_t Document::bytes() const {
  std::size_t sum = 128 + key.size() + text.size();
  for (const auto& pair : metadata) {
    sum += 64 + 2 * static_cast<std::size_t>(pair.key.length() + pair.value.length());
  }
  return sum;
}

DocumentReader::DocumentReader(std::istream& input, std::size_t maxLineBytes)
    : input_(input), maxLineBytes_(maxLineBytes) {}

std::optional<std::variant<Document, Refusal>> DocumentReader::next() {
  for (;;) {
    const LineState state = readLineOrThrow();
    if (state == LineState::End) return {};
    if (state == LineState::TooLong) {
      return Refusal{line_, {}, fmt::format("the line is longer than {} bytes", maxLineBytes_)};
    }
    if (!isBlank(buffer_)) return parseLine(buffer_, line_);
  }
}

DocumentReader::LineState DocumentReader::readLineOrThrow() {
  try {
    return readLine();
  } catch (const std::ios_base::failure& failure) {
    throw OperationError(
        fmt::format("cannot read the input after line {}: {}", line_, failure.code().message()));
  }
}

DocumentReader::LineState DocumentReader::readLine() {
  buffer_.clear();
  std::streambuf& source = *input_.rdbuf();
  std::size_t length = 0;
  int c = source.sbumpc();
  if (c == std::char_traits<char>::eof()) return LineState::End;
  ++line_;
  // What exceeds the limit is skipped without being stored.
  for (; c != std::char_traits<char>::eof() && c != '\n'; c = source.sbumpc()) {
    if (++length <= maxLineBytes_) buffer_ += static_cast<char>(c);
  }
  return length > maxLineBytes_ ? LineState::TooLong : LineState::Complete;
}

}  // namespace corvane
