#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace corvaned {

enum class TextType { Plain, Html, Xml };

/// How the content of a document is to be read.
struct DocumentForm {
  TextType type = TextType::Plain;
  /// That of its words; empty for the collection's.
  std::string language;

  bool operator==(const DocumentForm&) const = default;
};

/// How the content of a document is to be read as it came.
struct DocumentReading {
  DocumentForm form;
  /// Empty if nobody says; then the document's own word counts, and else it is UTF-8.
  std::string charset;

  bool operator==(const DocumentReading&) const = default;
};

// The form goes with the document wherever that goes, as notes among its metadata. Their names
// begin with a NUL byte, which those of clients must not do.

using Metadata = std::vector<std::pair<std::string, std::string>>;

bool isNote(std::string_view name);
void noteForm(Metadata& metadata, const DocumentForm& form);
DocumentForm formNotedIn(const Metadata& metadata);
void dropNotes(Metadata& metadata);

/// What a reader sees of a content in UTF-8. Throws ServerError(BadDocument) if it cannot be read
/// as what it is said to be, see textOfXml().
std::string textOf(std::string_view content, TextType type);

}  // namespace corvaned
