#include "server/store/xapianSchema.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "server/base/base64.h"
#include "server/base/bytes.h"
#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/store/searchableText.h"
#include "server/store/sortValue.h"
#include "server/store/textNormalizer.h"

namespace corvaned {
namespace {

constexpr std::size_t kLetters = 26;
constexpr std::size_t kMaxNames = kLetters * kLetters;

// The last word of one text and the first word of the next must not form a phrase.
constexpr Xapian::termcount kTextGap = 100;

// "X" and two capital letters: no prefix is the beginning of another one, and no word looks like a
// prefix, since words are in lower case.
std::string prefixOf(std::size_t field) {
  return {'X', static_cast<char>('A' + field / kLetters),
          static_cast<char>('A' + field % kLetters)};
}

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool canBeSpelled(const std::string& name) {
  return !name.empty() && name.size() <= 64 && isLetter(name.front()) &&
         std::all_of(name.begin(), name.end(),
                     [](char c) { return isLetter(c) || c == '_' || (c >= '0' && c <= '9'); });
}

/// A metadata name without the marks that clients put in front of it, and what these ask for.
struct MarkedName {
  std::string name;
  bool searchable = false;
  bool sortable = false;
};

MarkedName unmarked(std::string name) {
  constexpr std::string_view kSearchable = "Indexable:";
  constexpr std::string_view kSortable = "[sortable]";
  MarkedName result;
  for (bool marked = true; marked;) {
    marked = false;
    for (const std::string_view mark : {kSearchable, kSortable}) {
      if (!name.starts_with(mark)) continue;
      name.erase(0, mark.size());
      result.searchable = result.searchable || mark == kSearchable;
      result.sortable = result.sortable || mark == kSortable;
      marked = true;
    }
  }
  result.name = std::move(name);
  return result;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string linesFrom(const std::vector<std::string>& names) {
  std::string lines;
  for (const std::string& name : names) lines += name + "\n";
  return lines;
}

std::optional<std::size_t> placeOf(const std::vector<std::string>& names, const std::string& name) {
  const auto found = std::find(names.begin(), names.end(), name);
  if (found == names.end()) return std::nullopt;
  return static_cast<std::size_t>(found - names.begin());
}

std::optional<std::size_t> placeFor(std::vector<std::string>& names, const std::string& name) {
  const auto known = placeOf(names, name);
  if (known) return known;
  if (!canBeSpelled(name) || names.size() == kMaxNames) return std::nullopt;
  names.push_back(name);
  return names.size() - 1;
}

// A name that has another place already ends it: the names after it would get other places, too.
void takeOverNames(std::vector<std::string>& names, const std::vector<std::string>& others) {
  for (std::size_t place = names.size(); place < others.size(); ++place) {
    if (placeOf(names, others[place])) return;
    names.push_back(others[place]);
  }
}

Xapian::valueno slotAt(std::size_t place) {
  return kKeySlot + 1 + static_cast<Xapian::valueno>(place);
}

std::string serialized(const Document& document) {
  std::string bytes;
  appendU32(bytes, static_cast<std::uint32_t>(document.metadata.size()));
  for (const auto& [name, value] : document.metadata) {
    appendText(bytes, name);
    appendText(bytes, value);
  }
  appendText(bytes, document.content);
  return bytes;
}

constexpr std::string_view kPlainIdentity = "Q";
constexpr std::string_view kEncodedIdentity = "Rbase64:";

}  // namespace

std::string identityTerm(const std::string& key) {
  const bool plain = key.find('\0') == std::string::npos;
  return plain ? std::string(kPlainIdentity) + key : std::string(kEncodedIdentity) + base64(key);
}

std::optional<std::string> keyOfIdentity(const std::string& term) {
  if (term.starts_with(kPlainIdentity)) return term.substr(kPlainIdentity.size());
  if (!term.starts_with(kEncodedIdentity)) return std::nullopt;
  const std::string text = term.substr(kEncodedIdentity.size());
  std::string key;
  if (!tq::util::Base64::decode(text.data(), text.size(), key)) return std::nullopt;
  return key;
}

std::string languageTerm(const std::string& stemmer) { return "L" + stemmer; }

IndexNames::IndexNames(const Xapian::Database& database)
    : fields_(linesOf(database.get_metadata(kFieldsEntry))),
      sortable_(linesOf(database.get_metadata(kSortableEntry))),
      languages_(linesOf(database.get_metadata(kLanguagesEntry))),
      storedFields_(fields_.size()),
      storedSortable_(sortable_.size()),
      storedLanguages_(languages_.size()) {}

std::optional<std::string> IndexNames::prefixFor(const std::string& name) {
  const auto place = placeFor(fields_, name);
  return place ? std::optional(prefixOf(*place)) : std::nullopt;
}

std::optional<std::string> IndexNames::knownPrefixOf(const std::string& name) const {
  const auto place = placeOf(fields_, name);
  return place ? std::optional(prefixOf(*place)) : std::nullopt;
}

std::optional<Xapian::valueno> IndexNames::slotFor(const std::string& name) {
  const auto place = placeFor(sortable_, name);
  return place ? std::optional(slotAt(*place)) : std::nullopt;
}

std::optional<Xapian::valueno> IndexNames::slotOf(const std::string& name) const {
  const auto place = placeOf(sortable_, name);
  return place ? std::optional(slotAt(*place)) : std::nullopt;
}

void IndexNames::addLanguage(const std::string& stemmer) {
  if (!placeOf(languages_, stemmer)) languages_.push_back(stemmer);
}

void IndexNames::takeOver(const IndexNames& other) {
  takeOverNames(fields_, other.fields_);
  takeOverNames(sortable_, other.sortable_);
  for (const std::string& language : other.languages_) addLanguage(language);
  std::sort(languages_.begin(), languages_.end());
}

bool IndexNames::hasNew() const {
  return fields_.size() != storedFields_ || sortable_.size() != storedSortable_ ||
         languages_.size() != storedLanguages_;
}

void IndexNames::storeIn(Xapian::WritableDatabase& database) {
  const auto store = [&](const char* entry, const std::vector<std::string>& names,
                         std::size_t& stored) {
    if (names.size() != stored) database.set_metadata(entry, linesFrom(names));
    stored = names.size();
  };
  store(kFieldsEntry, fields_, storedFields_);
  store(kSortableEntry, sortable_, storedSortable_);
  store(kLanguagesEntry, languages_, storedLanguages_);
}

namespace {

// How the words of a document are to be stemmed that is not in the collection's language.
std::string foreignStemmerOf(const Document& document, const TextAnalysis& analysis) {
  return analysis.foreignStemmer(formNotedIn(document.metadata).language);
}

bool isSearchable(const MarkedName& name, const TextOptions& options) {
  return name.searchable || !options.onlyMarkedMetadata;
}

/// Stops no word: the engine asks it about each one, and nothing else lets the reading of a text be
/// ended.
class WordByWord : public Xapian::Stopper {
 public:
  explicit WordByWord(const StopCheck& stop) : steps_(stop) {}

  bool operator()(const std::string&) const override {
    steps_.next();
    return false;
  }

 private:
  // The engine only takes stoppers that do not change.
  mutable StoppableSteps steps_;
};

/// Makes the words of a document.
class Indexing {
 public:
  Indexing(const Document& document, const TextAnalysis& analysis, IndexNames& names,
           const StopCheck& stop)
      : options_(analysis.options()), names_(names), stop_(stop), eachWord_(stop) {
    generator_.set_stopper(&eachWord_);
    // Of the other strategies one does not ask about words without stems.
    generator_.set_stopper_strategy(Xapian::TermGenerator::STOP_ALL);
    generator_.set_flags(Xapian::TermGenerator::FLAG_CJK_NGRAM);
    generator_.set_max_word_length(kMaxWordBytes);
    generator_.set_document(result_);
    const std::string foreign = foreignStemmerOf(document, analysis);
    generator_.set_stemmer(foreign.empty() ? analysis.stemmer() : stemmerFor(foreign));
    if (foreign.empty()) return;
    names_.addLanguage(foreign);
    result_.add_boolean_term(languageTerm(foreign));
  }

  void addContent(std::string_view text) { addWords(text, {}); }

  void addMetadata(const std::string& markedName, const std::string& value) {
    if (isNote(markedName)) return;
    const MarkedName name = unmarked(markedName);
    if (isSearchable(name, options_)) addField(name.name, value);
    if (!name.sortable) return;
    const auto slot = names_.slotFor(name.name);
    // Of several values the first one counts.
    if (slot && result_.get_value(*slot).empty()) result_.add_value(*slot, sortValueOf(value));
  }

  Xapian::Document finished() {
    if (!placed_ && options_.keepsPositions) result_.add_posting(kPlaceTerm, 1, 0);
    return result_;
  }

 private:
  void addField(const std::string& name, const std::string& value) {
    const auto prefix = names_.prefixFor(name);
    if (!prefix) return;
    generator_.increase_termpos(kTextGap);
    addWords(value, *prefix);
  }

  void addWords(std::string_view text, const std::string& prefix) {
    const std::string words = searchableText(normalizeText(text), stop_);
    if (!options_.keepsPositions) return generator_.index_text_without_positions(words, 1, prefix);
    const Xapian::termcount before = generator_.get_termpos();
    generator_.index_text(words, 1, prefix);
    placed_ = placed_ || generator_.get_termpos() != before;
  }

  const TextOptions& options_;
  IndexNames& names_;
  const StopCheck& stop_;
  // The generator keeps the address.
  const WordByWord eachWord_;
  Xapian::Document result_;
  Xapian::TermGenerator generator_;
  bool placed_ = false;
};

std::string dataOf(const Document& document, const TextOptions& options) {
  return options.keepsText ? serialized(document)
                           : serialized({document.key, document.metadata, {}});
}

}  // namespace

void registerNames(const Document& document, const TextAnalysis& analysis, IndexNames& names) {
  const std::string foreign = foreignStemmerOf(document, analysis);
  if (!foreign.empty()) names.addLanguage(foreign);
  for (const auto& [markedName, value] : document.metadata) {
    if (isNote(markedName)) continue;
    const MarkedName name = unmarked(markedName);
    if (isSearchable(name, analysis.options())) names.prefixFor(name.name);
    if (name.sortable) names.slotFor(name.name);
  }
}

Xapian::Document makeDocument(const Document& document, const TextAnalysis& analysis,
                              IndexNames& names, const StopCheck& stop) {
  Indexing indexing(document, analysis, names, stop);
  indexing.addContent(readableText(document));
  for (const auto& [name, value] : document.metadata) indexing.addMetadata(name, value);
  Xapian::Document result = indexing.finished();
  result.add_boolean_term(identityTerm(document.key));
  result.add_value(kKeySlot, document.key);
  result.set_data(dataOf(document, analysis.options()));
  return result;
}

// XML that cannot be read is refused when it comes. But it may be older than what reads it now, and
// must not hold up all other documents.
std::string readableText(const Document& document) {
  const TextType type = formNotedIn(document.metadata).type;
  try {
    return textOf(document.content, type);
  } catch (const ServerError&) {
    return textOf(document.content, TextType::Html);
  }
}

std::string unmarkedName(const std::string& name) { return unmarked(name).name; }

std::optional<Document> readDocument(const std::string& key, const std::string& data) {
  ByteReader reader(data);
  Document document{key, {}, {}};
  const auto pairs = reader.u32();
  if (!pairs) return std::nullopt;
  for (std::uint32_t i = 0; i < *pairs; ++i) {
    auto& [name, value] = document.metadata.emplace_back();
    if (!takeText(reader, name) || !takeText(reader, value)) return std::nullopt;
  }
  if (!takeText(reader, document.content) || !reader.empty()) return std::nullopt;
  return document;
}

}  // namespace corvaned
