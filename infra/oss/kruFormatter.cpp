#include "infra/oss/kruFormatter.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <string>
#include <system_error>

#include "infra/oss/kruConverter.h"

namespace tq::oss {

namespace {

bool startsNumber(const char* p, const char* end) noexcept {
  if (p != end && *p == '-') ++p;
  // Rules out the words for infinity and not-a-number, which no caller can sort or compare.
  return p != end && ((*p >= '0' && *p <= '9') || *p == '.');
}

// The parser says only "out of range"; the exponent's sign tells which end of the range was meant.
double outOfRange(const char* begin, const char* end) noexcept {
  const bool negative = *begin == '-';
  bool seenNonZero = false;
  bool seenPoint = false;
  long magnitude = 0;
  const char* p = begin + (negative ? 1 : 0);
  for (; p != end && *p != 'e' && *p != 'E'; ++p) {
    if (*p == '.') {
      seenPoint = true;
    } else if (*p != '0' || seenNonZero) {
      seenNonZero = true;
      if (!seenPoint) ++magnitude;
    } else if (seenPoint) {
      --magnitude;
    }
  }
  long exponent = 0;
  const bool exponentNegative = p != end && p + 1 != end && p[1] == '-';
  for (; p != end; ++p) {
    if (*p >= '0' && *p <= '9' && exponent < 1000000000) exponent = exponent * 10 + (*p - '0');
  }
  const bool tiny = magnitude + (exponentNegative ? -exponent : exponent) < 0;
  const double value = tiny ? 0.0 : std::numeric_limits<double>::max();
  return negative ? -value : value;
}

}  // namespace

double Formatter::stringToDouble(const icu::UnicodeString& text) {
  const std::string bytes = Converter::toUTF8(text);
  const char* begin = bytes.data();
  const char* const end = begin + bytes.size();
  while (begin != end && (*begin == ' ' || (*begin >= '\t' && *begin <= '\r'))) ++begin;
  if (begin != end && *begin == '+' && begin + 1 != end && begin[1] != '-') ++begin;
  if (!startsNumber(begin, end)) return 0.0;
  double value = 0.0;
  const auto [rest, error] = std::from_chars(begin, end, value);
  if (error == std::errc::result_out_of_range) return outOfRange(begin, rest);
  return error == std::errc() ? value : 0.0;
}

}  // namespace tq::oss
