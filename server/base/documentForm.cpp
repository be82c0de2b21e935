#include "server/base/documentForm.h"

#include "server/base/htmlText.h"
#include "server/base/xmlText.h"

namespace corvaned {
namespace {

using namespace std::string_view_literals;

constexpr std::string_view kType = "\0docType"sv;
constexpr std::string_view kLanguage = "\0docLang"sv;
constexpr std::string_view kHtml = "html";
constexpr std::string_view kXml = "xml";

}  // namespace

bool isNote(std::string_view name) { return name.starts_with('\0'); }

void noteForm(Metadata& metadata, const DocumentForm& form) {
  if (form.type != TextType::Plain) {
    metadata.emplace_back(kType, form.type == TextType::Html ? kHtml : kXml);
  }
  if (!form.language.empty()) metadata.emplace_back(kLanguage, form.language);
}

DocumentForm formNotedIn(const Metadata& metadata) {
  DocumentForm form;
  for (const auto& [name, value] : metadata) {
    if (name == kLanguage) form.language = value;
    if (name == kType) form.type = value == kHtml ? TextType::Html : TextType::Xml;
  }
  return form;
}

void dropNotes(Metadata& metadata) {
  std::erase_if(metadata, [](const auto& pair) { return isNote(pair.first); });
}

std::string textOf(std::string_view content, TextType type) {
  switch (type) {
    case TextType::Html:
      return textOfHtml(content);
    case TextType::Xml:
      return textOfXml(content);
    case TextType::Plain:
      break;
  }
  return std::string(content);
}

}  // namespace corvaned
