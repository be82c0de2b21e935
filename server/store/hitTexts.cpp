#include "server/store/hitTexts.h"

#include <algorithm>

#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/store/textNormalizer.h"
#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

constexpr std::size_t kMaxValue = 2048;
constexpr std::size_t kMaxValues = 16;

}  // namespace

std::vector<std::pair<std::string, std::string>> valuesIn(const Document& document,
                                                          const std::vector<std::string>& names) {
  std::vector<std::pair<std::string, std::string>> values;
  for (const auto& [markedName, value] : document.metadata) {
    if (values.size() == kMaxValues) break;
    if (isNote(markedName)) continue;
    std::string name = unmarkedName(markedName);
    if (std::find(names.begin(), names.end(), name) == names.end()) continue;
    values.emplace_back(std::move(name), cutBetweenCharacters(value, kMaxValue));
  }
  return values;
}

Snippets::Snippets(const Xapian::Database& database, const TextAnalysis& analysis,
                   const Xapian::Query& query)
    : analysis_(analysis) {
  Xapian::Enquire enquire(database);
  enquire.set_query(query);
  // It only lends its query and its statistics.
  matches_ = enquire.get_mset(0, 0);
}

std::string Snippets::of(const Document& document, std::size_t bytes) const {
  const DocumentForm form = formNotedIn(document.metadata);
  const std::string foreign = analysis_.foreignStemmer(form.language);
  const Xapian::Stem stemmer = foreign.empty() ? analysis_.stemmer() : stemmerFor(foreign);
  const unsigned flags = Xapian::MSet::SNIPPET_BACKGROUND_MODEL | Xapian::MSet::SNIPPET_EXHAUSTIVE |
                         Xapian::MSet::SNIPPET_CJK_NGRAM;
  return matches_.snippet(normalizeText(readableText(document)), bytes, stemmer, flags);
}

}  // namespace corvaned
