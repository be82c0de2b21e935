#pragma once

#include <xapian.h>

#include <string>

#include "server/store/indexForm.h"

namespace corvaned {

/// The stemmer for a language tag; only the part before "_" or "-" counts. If there is no such
/// stemmer, one that changes nothing.
Xapian::Stem stemmerFor(const std::string& language);

/// How the words of a collection are read, in documents and in queries. Used by one thread at a
/// time, as stemmers are.
class TextAnalysis {
 public:
  TextAnalysis() = default;
  /// That of a collection's databases, each of which knows it. Throws ServerError(StorageFailed) if
  /// a later version of the server has made it in a way that this one does not know.
  explicit TextAnalysis(const Xapian::Database& database);

  const IndexForm& form() const { return form_; }
  const TextOptions& options() const { return form_.options; }

  /// That of the collection's own language.
  const Xapian::Stem& stemmer() const { return stemmer_; }
  /// The name of a stemmer for that language that is not the collection's own; empty if it is, or
  /// if nothing is stemmed. Names are those that stemmerFor() takes, and the same for all spellings
  /// of a language.
  std::string foreignStemmer(const std::string& language) const;

  /// Whether queries ask for the same words in both collections.
  bool readsLike(const TextAnalysis& other) const;

 private:
  IndexForm form_;
  Xapian::Stem stemmer_;
};

/// How changes of the collection become searchable, as IndexForm has it.
std::string refreshNotedIn(const Xapian::Database& database);

/// Writes into a new database what the constructor reads.
void storeForm(Xapian::WritableDatabase& database, const IndexForm& form);

}  // namespace corvaned
