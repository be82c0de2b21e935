// What corvaned reads in the documents that clients send: the charset, and the text of HTML and
// XML.
//
// Input: the type and how often the rest is repeated, the charset, where HTML is divided, then the
// document.

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/memoryMeter.h"
#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/base/htmlText.h"
#include "server/base/xmlText.h"
#include "server/front/documentText.h"
#include "server/store/textNormalizer.h"

namespace tq::fuzz {

namespace {

using corvaned::TextType;

// The text, and the same again while it grows; a message for what is refused.
constexpr MemoryBounds kHtmlMemory{4096, 2, 4096, 4};
// Also what the parser may take for names.
constexpr MemoryBounds kXmlMemory{std::size_t{1} << 20U, 9, (std::size_t{1} << 20U) + 4096, 10};

// What is repeated gets no longer than this: time that grows with the square of it would end the
// run.
constexpr std::size_t kLong = std::size_t{64} << 10U;

constexpr std::array<const char*, 12> kCharsets{
    "",       "UTF-8",     "latin1",      "UTF-16",  "UTF-16LE", "UTF-32",
    "koi8-r", "Shift_JIS", "ISO-2022-JP", "GB18030", "SCSU",     "ibm-37"};

std::string repeated(std::string_view text, std::size_t least) {
  std::string result(text);
  while (!text.empty() && result.size() < least) result += text;
  return result;
}

std::string visible(const std::string& text) {
  std::string result;
  std::copy_if(text.begin(), text.end(), std::back_inserter(result),
               [](char c) { return c != ' ' && c != '\t' && c != '\n' && c != '\r'; });
  return result;
}

void requireText(const std::string& text, std::string_view document) {
  require(text.size() <= document.size(), "no text is longer than its document");
  if (corvaned::isUtf8(document)) {
    require(corvaned::isUtf8(text), "of text in UTF-8 comes text in UTF-8");
  }
}

std::string htmlTextOf(std::string_view html) {
  const MemoryMeter meter;
  std::string text = corvaned::textOfHtml(html);
  requireWithin(meter, kHtmlMemory, html.size());
  requireText(text, html);
  return text;
}

// Nothing is kept of elements that are open: after any part that ends outside of tags the document
// goes on as if it began there.
void requireDivisible(std::string_view html, std::size_t place) {
  const std::string first(html.substr(0, place));
  const std::string_view second = html.substr(first.size());
  const std::string text = htmlTextOf(first);
  if (htmlTextOf(first + "<b>Q<b>Q") != text + "QQ") return;
  require(htmlTextOf((first + "<b>").append(second)) == text + htmlTextOf(second),
          "no tag changes what stands behind it");
}

void checkHtml(std::string_view html, std::size_t place) {
  const std::string text = htmlTextOf(html);
  require(htmlTextOf(std::string("<!-- <p> -->").append(html)) == text, "comments have no text");
  require(htmlTextOf(std::string("<p title='>'>").append(html)) == " " + text,
          "tags have no text, and most of them divide it");
  requireDivisible(html, std::min(place, html.size()));
}

/// Nothing if it is refused.
std::optional<std::string> xmlTextOf(std::string_view xml) {
  const MemoryMeter meter;
  std::optional<std::string> text;
  try {
    text = corvaned::textOfXml(xml);
  } catch (const corvaned::ServerError& error) {
    require(error.kind() == corvaned::ErrorKind::BadDocument, "a bad document is called one");
  }
  requireWithin(meter, kXmlMemory, xml.size());
  if (text) requireText(*text, xml);
  return text;
}

// One that may also be the content of an element.
bool canBeWithin(std::string_view xml) {
  return !xml.starts_with("<?xml") && !xml.starts_with("\xEF\xBB\xBF") &&
         xml.find("<!DOCTYPE") == std::string_view::npos;
}

void checkXml(std::string_view xml) {
  const auto text = xmlTextOf(xml);
  if (!text) return;
  require(corvaned::isUtf8(xml), "what is accepted is in UTF-8");
  require(xmlTextOf(std::string(xml).append("<!-- <p> --><?a <b>?>")) == text,
          "comments and instructions have no text");
  if (!canBeWithin(xml)) return;
  const auto within = xmlTextOf(std::string("<a b='>'>").append(xml).append("</a>"));
  require(within && visible(*within) == visible(*text),
          "an element within another one has the same text");
}

// What has been accepted can be read, and is in UTF-8 if it was converted.
void checkPrepared(std::string_view bytes, TextType type, const std::string& charset) {
  corvaned::Document document{"key", {}, std::string(bytes)};
  try {
    corvaned::prepare(document, {{type, {}}, charset});
  } catch (const corvaned::ServerError& error) {
    require(error.kind() == corvaned::ErrorKind::BadDocument, "a bad document is called one");
    return;
  }
  require(document.content.size() <= bytes.size() * corvaned::growthInUtf8(charset),
          "no document grows by more than is set aside for it");
  if (!charset.empty() && charset != "UTF-8") {
    require(corvaned::isUtf8(document.content), "what is converted is in UTF-8");
  }
  const corvaned::DocumentForm form = corvaned::formNotedIn(document.metadata);
  require(form.type == type, "a document knows its type");
  corvaned::textOf(document.content, form.type);
}

}  // namespace

}  // namespace tq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tq::fuzz;
  Input input(data, size);
  const unsigned int choice = input.byte();
  const std::string charset = kCharsets[input.byte() % kCharsets.size()];
  const std::size_t place = input.byte() * 4;
  const TextType type = choice % 2 == 0 ? TextType::Html : TextType::Xml;
  const bool isLong = choice / 2 % 32 == 31;
  const std::string document = repeated(input.rest(), isLong ? kLong : 0);
  if (type == TextType::Html) {
    checkHtml(document, place);
  } else {
    checkXml(document);
  }
  checkPrepared(document, type, charset);
  return 0;
}
