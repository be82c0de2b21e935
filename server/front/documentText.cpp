#include "server/front/documentText.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <utility>

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

using namespace std::string_view_literals;

// As far as browsers look for a charset, and more.
constexpr std::size_t kMaxHead = 4096;
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

std::string lower(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return result;
}

// What stands after "=" behind the name, with or without quotation marks; empty if nothing does.
std::string_view valueAfter(std::string_view text, std::string_view name) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::size_t place = text.find(name);
  if (place == std::string_view::npos) return {};
  text.remove_prefix(place + name.size());
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  if (!text.starts_with('=')) return {};
  text.remove_prefix(1);
  text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n\"'"), text.size()));
  return text.substr(0, text.find_first_of(" \t\r\n\"';>?/"));
}

std::string withoutComments(std::string html) {
  for (std::size_t begin = html.find("<!--"); begin != std::string::npos;
       begin = html.find("<!--", begin)) {
    const std::size_t end = html.find("-->", begin + 2);
    html.erase(begin, end == std::string::npos ? end : end + 3 - begin);
  }
  return html;
}

std::string charsetInHtml(std::string_view head) {
  const std::string html = withoutComments(lower(head));
  for (std::size_t tag = html.find("<meta"); tag != std::string::npos;
       tag = html.find("<meta", tag + 1)) {
    const std::string_view meta = std::string_view(html).substr(tag, html.find('>', tag) - tag);
    const std::string_view charset = valueAfter(meta, "charset");
    if (!charset.empty()) return std::string(charset);
  }
  return {};
}

std::string_view charsetInXml(std::string_view head) {
  if (!head.starts_with("<?xml")) return {};
  return valueAfter(head.substr(0, head.find("?>")), "encoding");
}

std::string_view charsetOfFirstBytes(std::string_view bytes) {
  UErrorCode error = U_ZERO_ERROR;
  std::int32_t length = 0;
  const char* mark = ucnv_detectUnicodeSignature(
      bytes.data(), static_cast<std::int32_t>(std::min<std::size_t>(bytes.size(), 8)), &length,
      &error);
  if (U_SUCCESS(error) && mark) return mark;
  if (bytes.starts_with("\0<\0?"sv)) return "UTF-16BE";
  if (bytes.starts_with("<\0?\0"sv)) return "UTF-16LE";
  return {};
}

// What such a charset is said by bytes that could not be read in it, and what browsers make of it.
std::string meantBy(const std::string& charset, TextType type) {
  const std::string name = lower(charset);
  if (name.starts_with("utf-16") || name.starts_with("utf-32")) return "UTF-8";
  if (type != TextType::Html) return charset;
  const bool western = name == "iso-8859-1" || name == "latin1" || name == "us-ascii";
  return western ? "windows-1252" : charset;
}

void requireNoNotes(const Document& document) {
  for (const auto& [name, value] : document.metadata) {
    if (!isNote(name)) continue;
    throw ServerError(
        ErrorKind::BadDocument,
        "the document has metadata whose name begins with a zero byte: " + shown(name));
  }
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
  for (UBool first = 1; error == U_BUFFER_OVERFLOW_ERROR; first = 0) {
    error = U_ZERO_ERROR;
    char* target = piece.data();
    ucnv_convertEx(to.get(), from.get(), &target, piece.data() + piece.size(), &source,
                   bytes.data() + bytes.size(), between.data(), &read, &written,
                   between.data() + between.size(), first, 1, &error);
    result.append(piece.data(), target);
  }
  if (U_FAILURE(error)) refuse(charset, error);
  return result;
}

std::string declaredCharset(std::string_view bytes, TextType type) {
  const std::string_view first = charsetOfFirstBytes(bytes);
  if (!first.empty()) return std::string(first);
  const std::string_view head = bytes.substr(0, kMaxHead);
  std::string charset(charsetInXml(head));
  if (charset.empty() && type == TextType::Html) charset = charsetInHtml(head);
  if (charset.empty() || isCharset(charset)) return meantBy(charset, type);
  throw ServerError(ErrorKind::BadDocument, "the document declares the charset " + shown(charset) +
                                                ", and there is no such charset");
}

void prepare(Document& document, const DocumentReading& reading) {
  requireNoNotes(document);
  const TextType type = reading.form.type;
  std::string charset = reading.charset;
  if (charset.empty() && type != TextType::Plain) charset = declaredCharset(document.content, type);
  if (charset.empty()) charset = "UTF-8";
  document.content = toUtf8(std::move(document.content), charset);
  if (type != TextType::Plain && document.content.starts_with(kByteOrderMark)) {
    document.content.erase(0, kByteOrderMark.size());
  }
  // What could not be read later is refused now.
  if (type == TextType::Xml) textOf(document.content, type);
  noteForm(document.metadata, reading.form);
}

}  // namespace corvaned
