#include "infra/oss/kruFormatter.h"

#include <algorithm>
#include <charconv>
#include <clocale>
#include <cstdlib>
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
