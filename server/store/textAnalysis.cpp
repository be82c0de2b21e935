#include "server/store/textAnalysis.h"

#include <algorithm>
#include <cctype>

#include "server/base/errors.h"

namespace corvaned {
namespace {

constexpr const char* kLanguageEntry = "language";
constexpr const char* kOptionsEntry = "options";

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

}  // namespace

Xapian::Stem stemmerFor(const std::string& language) {
  std::string code = language.substr(0, language.find_first_of("_-"));
  std::transform(code.begin(), code.end(), code.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  try {
    return Xapian::Stem(code);
  } catch (const Xapian::InvalidArgumentError&) {
    return Xapian::Stem();
  }
}

TextAnalysis::TextAnalysis(const Xapian::Database& database)
    : form_{database.get_metadata(kLanguageEntry), optionsOf(database)} {
  if (form_.options.stems) stemmer_ = stemmerFor(form_.language);
}

std::string TextAnalysis::foreignStemmer(const std::string& language) const {
  if (language.empty() || !form_.options.stems) return {};
  std::string name = nameOf(stemmerFor(language));
  return name == nameOf(stemmer_) ? std::string() : name;
}

void storeForm(Xapian::WritableDatabase& database, const IndexForm& form) {
  database.set_metadata(kLanguageEntry, form.language);
  database.set_metadata(kOptionsEntry, linesOf(form.options));
}

}  // namespace corvaned
