#include "server/store/hitTexts.h"

#include <fmt/format.h>

#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/store/searchMemory.h"
#include "server/store/textNormalizer.h"
#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

constexpr std::size_t kMaxValue = 2048;
constexpr std::size_t kMaxValues = 16;

// What a record of a reply takes beside its text, with the name of its document.
constexpr std::size_t kRecordCost = 320;

// As the reply holds it: a record for the hit, for its snippet, and for each value.
std::size_t bytesOf(const HitDetails& details) {
  std::size_t bytes = (2 + details.values.size()) * kRecordCost + details.snippet.size();
  for (const auto& [name, value] : details.values) bytes += name.size() + value.size();
  return bytes;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> valuesIn(const Document& document,
                                                          const std::set<std::string>& names) {
  std::vector<std::pair<std::string, std::string>> values;
  for (const auto& [markedName, value] : document.metadata) {
    if (values.size() == kMaxValues) break;
    if (isNote(markedName)) continue;
    std::string name = unmarkedName(markedName);
    if (!names.contains(name)) continue;
    values.emplace_back(std::move(name), cutBetweenCharacters(value, kMaxValue));
  }
  return values;
}

void keep(std::vector<HitDetails>& details, HitDetails&& one,
          const std::shared_ptr<MemoryBudget::Share>& share, const IndexLimits& limits) {
  setAside(*share, share->bytes() + bytesOf(one), limits.memory.get(), ErrorKind::QueryTooBroad,
           [](std::size_t mebibytes) {
             return fmt::format(
                 "to tell of these hits takes {} MiB of memory that are not free; ask for fewer "
                 "with \"size\", or raise --max-memory",
                 mebibytes);
           });
  one.memory = share;
  details.push_back(std::move(one));
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

std::unique_ptr<const Snippets> snippetsFor(const DetailsWanted& wanted,
                                            const Xapian::Database& database,
                                            const TextAnalysis& analysis,
                                            const Xapian::Query& query) {
  if (wanted.snippetBytes == 0) return nullptr;
  return std::make_unique<const Snippets>(database, analysis, query);
}

}  // namespace corvaned
