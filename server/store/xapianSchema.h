#pragma once

#include <xapian.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "server/store/stopCheck.h"
#include "server/store/store.h"
#include "server/store/textAnalysis.h"

namespace corvaned {

/// The form in which Xapian stores documents. It must not change while collections with this
/// kSchemaVersion exist.
///
/// - term "Q" + key, or "Rbase64:" + Base64 of the key when it contains a NUL byte (which counts
///   twice against the length limit of a term): the document's identity
/// - words of the content, stems prefixed "Z", with positions
/// - words of a metadata value under the prefix of its name
/// - term kPlaceTerm with a position, in a document that has no word with one
/// - value slot 0: the key; read back as the sort key of a match, without a look-up per hit
/// - value slots from 1 on: metadata that documents can be sorted by, see sortValueOf(); a name has
///   the slot of its line in kSortableEntry
/// - term "L" + the name of a stemmer, in a document whose language is not the collection's; the
///   names stand in kLanguagesEntry
/// - data: the document as it was sent, but for what the collection's options leave out
constexpr std::string_view kSchemaVersion = "2";
/// The same without slots but 0, and without kPlaceTerm. An index of this form is read, and made
/// anew before it is changed.
constexpr std::string_view kEarlierSchema = "1";
constexpr Xapian::valueno kKeySlot = 0;
/// The engine takes every phrase for found where no document at all has positions.
constexpr const char* kPlaceTerm = "N";
/// A term of documents that are only matched with a query and never stored. Words are in lower case
/// and prefixes have other letters, so no stored document has it.
constexpr const char* kPassingTerm = "M";
constexpr const char* kSchemaEntry = "schema";
constexpr const char* kFieldsEntry = "fields";
constexpr const char* kSortableEntry = "sortable";
constexpr const char* kLanguagesEntry = "languages";

std::string identityTerm(const std::string& key);
/// The key that has the term. Nothing if it is no identity.
std::optional<std::string> keyOfIdentity(const std::string& term);

/// The term of documents whose words have a stemmer of their own, with that name.
std::string languageTerm(const std::string& stemmer);

/// The metadata names of a collection that can be searched as name:word, each with its term prefix,
/// those that documents can be sorted by, each with its value slot, and the stemmers that documents
/// have beside the collection's.
class IndexNames {
 public:
  IndexNames() = default;
  explicit IndexNames(const Xapian::Database& database);

  /// The prefix of the name; a new name gets one. Nothing if a query could not contain the name, or
  /// if there are too many names.
  std::optional<std::string> prefixFor(const std::string& name);
  /// Nothing if the name has none.
  std::optional<std::string> knownPrefixOf(const std::string& name) const;

  /// The slot of the name; a new name gets one. Nothing in the same cases.
  std::optional<Xapian::valueno> slotFor(const std::string& name);
  /// Nothing if the name has none.
  std::optional<Xapian::valueno> slotOf(const std::string& name) const;
  std::size_t slotCount() const { return sortable_.size(); }

  const std::vector<std::string>& languages() const { return languages_; }
  void addLanguage(const std::string& stemmer);

  /// Takes over what `other` has beyond these names, at the same places; and its languages, which
  /// then stand in an order that does not depend on where they come from.
  void takeOver(const IndexNames& other);
  /// Whether queries with both ask for the same words.
  bool readsLike(const IndexNames& other) const {
    return fields_ == other.fields_ && languages_ == other.languages_;
  }

  /// Whether there is something new since the names were read or written.
  bool hasNew() const;
  /// Writes what is new since then.
  void storeIn(Xapian::WritableDatabase& database);

 private:
  std::vector<std::string> fields_;
  std::vector<std::string> sortable_;
  std::vector<std::string> languages_;
  std::size_t storedFields_ = 0;
  std::size_t storedSortable_ = 0;
  std::size_t storedLanguages_ = 0;
};

/// What a reader sees of a stored document.
std::string readableText(const Document& document);

/// A metadata name without the marks that clients put in front of it.
std::string unmarkedName(const std::string& name);

/// The document that makeDocument() stored with this key. Nothing if the data is not of that form.
std::optional<Document> readDocument(const std::string& key, const std::string& data);

/// Adds the names that makeDocument() would need, which then adds none.
void registerNames(const Document& document, const TextAnalysis& analysis, IndexNames& names);

/// `stop` throws to end it between two words.
Xapian::Document makeDocument(const Document& document, const TextAnalysis& analysis,
                              IndexNames& names, const StopCheck& stop);

}  // namespace corvaned
