#include "server/store/textAnalysis.h"

#include <unicode/uloc.h>

#include <algorithm>
#include <cctype>
#include <optional>
#include <set>
#include <vector>

#include "server/base/errors.h"

namespace corvaned {
namespace {

constexpr const char* kLanguageEntry = "language";
constexpr const char* kOptionsEntry = "options";
constexpr const char* kRefreshEntry = "refresh";

constexpr const char* kNoStemmer = "none";

TextOptions optionsOf(const Xapian::Database& database) {
  const std::string lines = database.get_metadata(kOptionsEntry);
  const auto options = optionsFrom(lines);
  if (options) return *options;
  throw ServerError(
      ErrorKind::StorageFailed,
      "a later version of this server has made the collection, with options that this one does "
      "not know: " +
          shown(lines));
}

// The stemmer's own name for it, which its description has in brackets.
std::string nameOf(const Xapian::Stem& stemmer) {
  const std::string description = stemmer.get_description();
  const std::size_t begin = description.find('(') + 1;
  return stemmer.is_none() ? kNoStemmer : description.substr(begin, description.rfind(')') - begin);
}

std::string codeOf(std::string_view language) {
  std::string code(language.substr(0, language.find_first_of("_-")));
  std::transform(code.begin(), code.end(), code.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return code;
}

std::optional<Xapian::Stem> stemmerNamed(const std::string& code) {
  try {
    return Xapian::Stem(code);
  } catch (const Xapian::InvalidArgumentError&) {
    return std::nullopt;
  }
}

bool hasNoStemmerButIsSpoken(const std::string& code) {
  for (const char* const* known = uloc_getISOLanguages(); *known != nullptr; ++known) {
    if (code == *known) return true;
  }
  return false;
}

}  // namespace

// Most languages have no stemmer; what is no language at all has been misspelled.
bool isLanguage(std::string_view text) {
  const bool isSpelled = std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return c < 0x80 && (std::isalnum(c) != 0 || c == '_' || c == '-');
  });
  const std::string code = codeOf(text);
  if (!isSpelled || code.empty()) return false;
  return stemmerNamed(code) || hasNoStemmerButIsSpoken(code);
}

Xapian::Stem stemmerFor(const std::string& language) {
  return stemmerNamed(codeOf(language)).value_or(Xapian::Stem());
}

TextAnalysis::TextAnalysis(const Xapian::Database& database)
    : form_{database.get_metadata(kLanguageEntry), optionsOf(database), database.size(),
            refreshNotedIn(database)} {
  if (form_.options.stems) stemmer_ = stemmerFor(form_.language);
}

std::string TextAnalysis::foreignStemmer(const std::string& language) const {
  if (language.empty() || !form_.options.stems) return {};
  std::string name = nameOf(stemmerFor(language));
  return name == nameOf(stemmer_) ? std::string() : name;
}

bool TextAnalysis::readsLike(const TextAnalysis& other) const {
  const auto stopWords = [](const TextAnalysis& analysis) {
    const std::vector<std::string>& words = analysis.options().stopWords;
    return std::set<std::string>(words.begin(), words.end());
  };
  return nameOf(stemmer_) == nameOf(other.stemmer_) &&
         options().keepsPositions == other.options().keepsPositions &&
         stopWords(*this) == stopWords(other);
}

std::string refreshNotedIn(const Xapian::Database& database) {
  return database.get_metadata(kRefreshEntry);
}

void storeForm(Xapian::WritableDatabase& database, const IndexForm& form) {
  database.set_metadata(kLanguageEntry, form.language);
  database.set_metadata(kOptionsEntry, linesOf(form.options));
  if (!form.refresh.empty()) database.set_metadata(kRefreshEntry, form.refresh);
}

}  // namespace corvaned
