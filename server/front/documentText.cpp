#include "server/front/documentText.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>
#include <unicode/unistr.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <utility>

#include "server/base/errors.h"

namespace corvaned {
namespace {

struct CloseConverter {
  void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, CloseConverter>;

[[noreturn]] void refuse(const std::string& charset, const std::string& why) {
  throw ServerError(ErrorKind::BadDocument,
                    "the document is no text in the charset " + shown(charset) + ": " + why);
}

// Stops at what is no text, where it would otherwise put a substitute.
Converter converterFor(const std::string& charset) {
  UErrorCode error = U_ZERO_ERROR;
  Converter converter(ucnv_open(charset.c_str(), &error));
  ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &error);
  if (U_FAILURE(error)) refuse(charset, u_errorName(error));
  return converter;
}

}  // namespace

bool isCharset(const std::string& name) {
  UErrorCode error = U_ZERO_ERROR;
  return ucnv_countAliases(name.c_str(), &error) > 0 && U_SUCCESS(error);
}

std::string toUtf8(std::string bytes, const std::string& charset) {
  if (ucnv_compareNames(charset.c_str(), "UTF-8") == 0) return bytes;
  if (bytes.size() > std::numeric_limits<std::int32_t>::max()) refuse(charset, "it is too long");
  const Converter converter = converterFor(charset);
  UErrorCode error = U_ZERO_ERROR;
  const icu::UnicodeString text(bytes.data(), static_cast<std::int32_t>(bytes.size()),
                                converter.get(), error);
  if (U_FAILURE(error)) refuse(charset, u_errorName(error));
  std::string result;
  return text.toUTF8String(result);
}

}  // namespace corvaned
