#pragma once

#include <xapian.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "server/store/store.h"

namespace corvaned {

/// The form in which Xapian stores documents. It must not change while collections with this
/// kSchemaVersion exist.
///
/// - term "Q" + key, or "Rbase64:" + Base64 of the key when it contains a NUL byte (which counts
///   twice against the length limit of a term): the document's identity
/// - words of the content, stems prefixed "Z", with positions
/// - words of a metadata value under the prefix of its name
/// - value slot 0: the key; read back as the sort key of a match, without a look-up per hit
/// - data: the document as it was sent
constexpr std::string_view kSchemaVersion = "1";
constexpr Xapian::valueno kKeySlot = 0;
/// A term of documents that are only matched with a query and never stored. Words are in lower case
/// and prefixes have other letters, so no stored document has it.
constexpr const char* kPassingTerm = "M";
constexpr const char* kLanguageEntry = "language";
constexpr const char* kSchemaEntry = "schema";
constexpr const char* kFieldsEntry = "fields";

std::string identityTerm(const std::string& key);
/// The key that has the term. Nothing if it is no identity.
std::optional<std::string> keyOfIdentity(const std::string& term);

/// The stemmer for a language tag; only the part before "_" or "-" counts. If there is no such
/// stemmer, one that changes nothing.
Xapian::Stem stemmerFor(const std::string& language);

/// The metadata names of a collection that can be searched as name:word, each with its term prefix.
class Fields {
 public:
  explicit Fields(const std::string& stored = {});

  /// The prefix of the name; a new name gets one. Nothing if a query could not contain the name, or
  /// if there are too many names.
  std::optional<std::string> prefixFor(const std::string& metadataName);
  std::string stored() const;
  std::size_t size() const { return names_.size(); }
  void registerAt(Xapian::QueryParser& parser) const;

 private:
  std::vector<std::string> names_;
};

/// The document that makeDocument() stored with this key. Nothing if the data is not of that form.
std::optional<Document> readDocument(const std::string& key, const std::string& data);

Xapian::Document makeDocument(const Document& document, const Xapian::Stem& stemmer,
                              Fields& fields);

}  // namespace corvaned
