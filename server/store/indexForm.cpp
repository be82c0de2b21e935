#include "server/store/indexForm.h"

#include <sstream>
#include <string_view>

#include "server/base/errors.h"

namespace corvaned {
namespace {

constexpr std::string_view kNoText = "text = no";
constexpr std::string_view kNoPositions = "positions = no";
constexpr std::string_view kNoStemming = "stemming = no";
constexpr std::string_view kMarkedMetadata = "metadata = marked";
constexpr std::string_view kStopWords = "stop words =";
// These separate the words, and the options.
constexpr std::string_view kBlanks = " \t\n\v\f\r";

bool readLine(const std::string& line, TextOptions& options) {
  if (line == kNoText) {
    options.keepsText = false;
  } else if (line == kNoPositions) {
    options.keepsPositions = false;
  } else if (line == kNoStemming) {
    options.stems = false;
  } else if (line == kMarkedMetadata) {
    options.onlyMarkedMetadata = true;
  } else if (line.starts_with(kStopWords)) {
    std::istringstream words(line.substr(kStopWords.size()));
    for (std::string word; words >> word;) options.stopWords.push_back(word);
  } else {
    return false;
  }
  return true;
}

}  // namespace

std::string linesOf(const TextOptions& options) {
  std::string lines;
  const auto add = [&](std::string_view line) { lines.append(line).append("\n"); };
  if (!options.keepsText) add(kNoText);
  if (!options.keepsPositions) add(kNoPositions);
  if (!options.stems) add(kNoStemming);
  if (options.onlyMarkedMetadata) add(kMarkedMetadata);
  if (options.stopWords.empty()) return lines;
  lines += kStopWords;
  for (const std::string& word : options.stopWords) {
    if (word.empty() || word.find_first_of(kBlanks) != std::string::npos) {
      throw ServerError(ErrorKind::BadParameter,
                        "the stop word " + shown(word) + " is empty, or has a blank in it");
    }
    lines += " " + word;
  }
  return lines + "\n";
}

std::optional<TextOptions> optionsFrom(const std::string& lines) {
  TextOptions options;
  std::istringstream stream(lines);
  for (std::string line; std::getline(stream, line);) {
    if (!readLine(line, options)) return std::nullopt;
  }
  return options;
}

}  // namespace corvaned
