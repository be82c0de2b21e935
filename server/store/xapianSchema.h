#pragma once

#include <xapian.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "server/store/store.h"

namespace corvaned {

/// How documents and queries become what Xapian stores. Everything here is fixed once a collection
/// has documents; a change needs a new value of kSchemaVersion.
///
/// - term "Q" + key, or "Rbase64:" + Base64 of the key when it contains a NUL byte (which counts
///   twice against the length limit of a term): the document's identity
/// - words of the content, stems prefixed "Z", with positions
/// - words of a metadata value under the prefix of its name
/// - value slot 0: the key; read back as the sort key of a match, without a look-up per hit
/// - data: the document as it came
constexpr std::string_view kSchemaVersion = "1";
constexpr Xapian::valueno kKeySlot = 0;
constexpr const char* kLanguageEntry = "language";
constexpr const char* kSchemaEntry = "schema";
constexpr const char* kFieldsEntry = "fields";

std::string identityTerm(const std::string& key);

/// The stemmer for a language tag, of which only the part before "_" or "-" counts; one that does
/// nothing when there is none.
Xapian::Stem stemmerFor(const std::string& language);

/// The metadata names of a collection that can be searched as name:word, each with the prefix of
/// its terms.
class Fields {
 public:
  explicit Fields(const std::string& stored = {});

  /// The prefix of a name, which gets one when it is new; nothing for a name that no query could
  /// spell or when there are too many.
  std::optional<std::string> prefixFor(const std::string& metadataName);
  std::string stored() const;
  std::size_t size() const { return names_.size(); }
  void registerAt(Xapian::QueryParser& parser) const;

 private:
  std::vector<std::string> names_;
};

Xapian::Document makeDocument(const Document& document, const Xapian::Stem& stemmer,
                              Fields& fields);

}  // namespace corvaned
