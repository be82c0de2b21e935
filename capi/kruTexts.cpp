#include "capi/kruTexts.h"

#include <string_view>

#include "capi/kruFailure.h"
#include "infra/oss/kruConverter.h"

namespace tq::capi {

using tq::oss::Converter;

icu::UnicodeString takeText(const char* bytes, std::uint32_t length, const char* what) {
  if (length == 0) return {};
  if (bytes == nullptr) misuse(what, "is null although it has a length");
  icu::UnicodeString text = Converter::fromUTF8(bytes, length);
  // What is not UTF-8 was replaced, so that it does not come back.
  if (Converter::toUTF8(text) != std::string_view(bytes, length)) misuse(what, "is not UTF-8");
  return text;
}

icu::UnicodeString takeLine(const char* bytes, std::uint32_t length, const char* what) {
  if (length == 0) misuse(what, "is empty");
  if (bytes == nullptr) misuse(what, "is null although it has a length");
  if (std::string_view(bytes, length).find_first_of(std::string_view("\r\n\0", 3)) !=
      std::string_view::npos) {
    misuse(what, "has a line break or a zero byte");
  }
  return takeText(bytes, length, what);
}

}  // namespace tq::capi
