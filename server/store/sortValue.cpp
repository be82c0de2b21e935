#include "server/store/sortValue.h"

#include <xapian.h>

#include <charconv>
#include <cstdlib>
#include <optional>
#include <string>
#include <system_error>

#include "server/base/errors.h"
#include "server/store/textNormalizer.h"

namespace corvaned {
namespace {

constexpr char kNumber = '1';
constexpr char kText = '2';
// Longer texts are sorted by their beginning: a value is read for each hit.
constexpr std::size_t kMaxText = 200;
// To fold more would take time and memory for nothing.
constexpr std::size_t kMaxFolded = 4096;

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

std::optional<double> numberIn(std::string_view text) {
  // Otherwise "inf" and "nano" would be numbers.
  if (text.find_first_not_of("0123456789.+-eE") != std::string_view::npos) return std::nullopt;
  double number = 0;
  const char* const end = text.data() + text.size();
  const auto [place, error] = std::from_chars(text.data(), end, number);
  if (place != end) return std::nullopt;
  // It does not tell what is too large from what is too small.
  if (error == std::errc::result_out_of_range) {
    return std::strtod(std::string(text).c_str(), nullptr);
  }
  if (error != std::errc{}) return std::nullopt;
  return number;
}

}  // namespace

std::string sortValueOf(std::string_view value) {
  const std::string_view text = trimmed(value);
  if (text.empty()) return {};
  if (const auto number = numberIn(text)) return kNumber + Xapian::sortable_serialise(*number);
  const std::string folded = foldedText(cutBetweenCharacters(text, kMaxFolded));
  return kText + std::string(cutBetweenCharacters(folded, kMaxText));
}

}  // namespace corvaned
