#include "server/front/documentText.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>

#include <array>
#include <memory>

#include "server/base/errors.h"

namespace corvaned {
namespace {

// A byte of a compressed charset may stand for any character.
constexpr std::size_t kMaxBytesForOne = 4;

struct CloseConverter {
  void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, CloseConverter>;

[[noreturn]] void refuse(const std::string& charset, UErrorCode why) {
  throw ServerError(ErrorKind::BadDocument, "the document is no text in the charset " +
                                                shown(charset) + ": " + u_errorName(why));
}

bool isNameOfUtf8(const std::string& charset) {
  return ucnv_compareNames(charset.c_str(), "UTF-8") == 0;
}

// Stops at what is no text, where it would otherwise put a substitute.
Converter converterFor(const std::string& charset) {
  UErrorCode error = U_ZERO_ERROR;
  Converter converter(ucnv_open(charset.c_str(), &error));
  ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &error);
  ucnv_setFromUCallBack(converter.get(), UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr,
                        &error);
  if (U_FAILURE(error)) refuse(charset, error);
  return converter;
}

}  // namespace

bool isCharset(const std::string& name) {
  UErrorCode error = U_ZERO_ERROR;
  return name.find('\0') == std::string::npos && ucnv_countAliases(name.c_str(), &error) > 0 &&
         U_SUCCESS(error);
}

std::size_t growthInUtf8(const std::string& charset) {
  return isNameOfUtf8(charset) ? 1 : kMaxBytesForOne;
}

// Piece by piece, since the whole text in UTF-16 would be a third form of it in memory.
std::string toUtf8(std::string bytes, const std::string& charset) {
  if (isNameOfUtf8(charset)) return bytes;
  const Converter from = converterFor(charset);
  const Converter to = converterFor("UTF-8");
  std::array<UChar, 2048> between{};
  UChar* read = between.data();
  UChar* written = between.data();
  std::array<char, 4096> piece{};
  const char* source = bytes.data();
  std::string result;
  UErrorCode error = U_BUFFER_OVERFLOW_ERROR;
  for (bool first = true; error == U_BUFFER_OVERFLOW_ERROR; first = false) {
    error = U_ZERO_ERROR;
    char* target = piece.data();
    ucnv_convertEx(to.get(), from.get(), &target, piece.data() + piece.size(), &source,
                   bytes.data() + bytes.size(), between.data(), &read, &written,
                   between.data() + between.size(), first, true, &error);
    result.append(piece.data(), target);
  }
  if (U_FAILURE(error)) refuse(charset, error);
  return result;
}

}  // namespace corvaned
