#include "infra/oss/kruFormatter.h"

#include <algorithm>
#include <cfloat>
#include <charconv>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>
#include <system_error>

#include "infra/oss/kruConverter.h"

namespace tq::oss {

namespace {

bool startsNumber(const char* p, const char* end) noexcept {
  if (p != end && *p == '-') ++p;
  // Rules out the words for infinity and not-a-number, which no caller can sort or compare.
  return p != end && ((*p >= '0' && *p <= '9') || *p == '.');
}

// The parser says only "out of range"; the C library tells which end of the range was meant.
double outOfRange(const char* begin, const char* end) {
  const std::string number(begin, end);
  const locale_t everywhereTheSame = ::newlocale(LC_ALL_MASK, "C", nullptr);
  if (everywhereTheSame == nullptr) Converter::throwOutOfMemory();
  const double value = ::strtod_l(number.c_str(), nullptr, everywhereTheSame);
  ::freelocale(everywhereTheSame);
  constexpr double kLargest = std::numeric_limits<double>::max();
  return std::clamp(value, -kLargest, kLargest);
}

constexpr double kPowersOfTen[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                   1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};

// Takes the digits at the start of the text and appends them to the number.
std::size_t takeDigits(std::string_view& text, std::uint64_t& number) noexcept {
  std::size_t count = 0;
  for (; count < text.size(); ++count) {
    const auto digit = static_cast<unsigned char>(text[count] - '0');
    if (digit > 9) break;
    number = number * 10 + digit;
  }
  text.remove_prefix(count);
  return count;
}

// Digits with a full stop among them or after them, which is what servers send. The number is
// rounded once, as by the general parser, and so becomes the same double: fifteen digits beside a
// full stop and the power of ten are doubles without rounding, and sixteen digits without one are
// not divided.
bool simpleDecimal(std::string_view text, double& value) noexcept {
  if (FLT_EVAL_METHOD != 0 || text.size() > std::size(kPowersOfTen)) return false;
  std::uint64_t digits = 0;
  if (takeDigits(text, digits) == 0) return false;
  std::size_t fraction = 0;
  if (!text.empty()) {
    if (text.front() != '.') return false;
    text.remove_prefix(1);
    fraction = takeDigits(text, digits);
  }
  if (!text.empty()) return false;
  value = static_cast<double>(digits) / kPowersOfTen[fraction];
  return true;
}

double parseNumber(std::string_view text) {
  const char* begin = text.data();
  const char* const end = begin + text.size();
  while (begin != end && (*begin == ' ' || (*begin >= '\t' && *begin <= '\r'))) ++begin;
  if (begin != end && *begin == '+' && begin + 1 != end && begin[1] != '-') ++begin;
  if (!startsNumber(begin, end)) return 0.0;
  double value = 0.0;
  const auto [rest, error] = std::from_chars(begin, end, value);
  if (error == std::errc::result_out_of_range) return outOfRange(begin, rest);
  return error == std::errc() ? value : 0.0;
}

}  // namespace

double Formatter::stringToDouble(const icu::UnicodeString& text) {
  const std::string bytes = Converter::toUTF8(text);
  return stringToDouble(bytes.data(), bytes.size());
}

double Formatter::stringToDouble(const char* text, std::size_t length) {
  double value = 0.0;
  return simpleDecimal({text, length}, value) ? value : parseNumber({text, length});
}

}  // namespace tq::oss
