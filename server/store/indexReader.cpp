#include "server/store/indexReader.h"

#include <fmt/format.h>

#include <algorithm>

#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/store/exclusiveOr.h"
#include "server/store/hitLists.h"
#include "server/store/hitTexts.h"
#include "server/store/interruption.h"
#include "server/store/keyFilters.h"
#include "server/store/passingDocuments.h"
#include "server/store/queryDigest.h"
#include "server/store/queryLists.h"
#include "server/store/queryReader.h"
#include "server/store/resultPage.h"
#include "server/store/searchMemory.h"
#include "server/store/sortOrder.h"
#include "server/store/textNormalizer.h"
#include "server/store/unranked.h"

namespace corvaned {
namespace {

// A document's text as it is stored, and what is read from it.
constexpr std::size_t kTextForms = 2;
// What its normal form takes beside these, in UTF-16 and in UTF-8, or before that the reader of
// XML.
constexpr std::size_t kFormsForSnippet = 10;

// A text that is too long for a part of it to be shown must not keep its hit from being told. It is
// too long where it would take more than half of the budget: the whole is hardly ever free, so to
// try again could be of no use however often.
bool hasRoomForSnippet(MemoryBudget::Share& memory, std::size_t textBytes, const std::string& key,
                       const IndexLimits& limits) {
  const std::size_t bytes = memory.bytes() + kFormsForSnippet * textBytes;
  if (limits.memory && bytes > limits.memory->limit() / 2) return false;
  const auto refusal = [&](std::size_t mebibytes) {
    return fmt::format(
        "to show a part of the document {} takes {} MiB of memory that are not free; ask for no "
        "\"snippet\", or raise --max-memory",
        shown(key), mebibytes);
  };
  setAside(memory, bytes, limits.memory.get(), ErrorKind::TryAgain, refusal);
  return true;
}

std::string_view wholeSortKey(std::string_view sortKey) { return sortKey; }

// Ends work that the present request is the reason for.
void checkRequest() {
  if (const RequestContext* request = RequestContext::current()) request->check();
}

// The clock is read each time: a text may take longer than many hits.
void spendOnText() {
  RequestContext* request = RequestContext::current();
  if (!request) return;
  request->spend(1);
  request->check();
}

/// What hits are sorted by.
struct SortKeys {
  HitBuffer::KeyIn keyIn;
  std::size_t bytes;
};

// `decider`: says which documents count, unless all do.
std::unique_ptr<HitList> sorted(Xapian::Enquire& enquire, Page page, SortKeys sortKeys,
                                ScoreScale scale, const IndexLimits& limits,
                                const Xapian::MatchDecider* decider = nullptr) {
  MemoryBudget::Share memory = memoryToSort(enquire, page.end, sortKeys.bytes, limits);
  const Xapian::MSet matches =
      enquire.get_mset(static_cast<Xapian::doccount>(page.start),
                       static_cast<Xapian::doccount>(page.end - page.start), 0, nullptr, decider);
  return std::make_unique<HitBuffer>(matches, sortKeys.keyIn, scale, std::move(memory));
}

// The engine would keep all hits that come before the place, too. It gives up looking for hits that
// are not good enough for a page, so the place has to be far away for that to cost more.
std::unique_ptr<HitList> farBehind(Xapian::Enquire& enquire, Page page, const SearchQuery& query,
                                   std::uint64_t documents, const IndexLimits& limits) {
  MemoryBudget::Share memory = memoryToSort(enquire, page.end, 0, limits);
  HitsBehind behind(*query.from, page.end);
  enquire.set_sort_by_relevance();
  enquire.add_matchspy(&behind);
  enquire.get_mset(0, 1, static_cast<Xapian::doccount>(documents));
  // Then the weights are no longer what they were.
  if (behind.before() != query.from->rank) throwSnapshotGone();
  return std::make_unique<HitBuffer>(behind.take(), page.start, behind.best(), query.scale,
                                     std::move(memory));
}

std::unique_ptr<HitList> byScore(Xapian::Enquire& enquire, Page page, const SearchQuery& query,
                                 std::uint64_t documents, const IndexLimits& limits) {
  const std::uint64_t before = query.from ? query.from->rank : 0;
  if (before > 0 && saturatedSum(before, page.end) > kFewHits) {
    return farBehind(enquire, page, query, documents, limits);
  }
  enquire.set_sort_by_relevance_then_value(kKeySlot, false);
  return sorted(enquire, page.behind(before), {wholeSortKey, 0}, query.scale, limits);
}

// In an empty collection there is nothing that could be marked yet.
std::unique_ptr<HitList> byValue(Xapian::Enquire& enquire, Page page, const SearchQuery& query,
                                 const IndexNames& names, const IndexLimits& limits) {
  const auto slot = names.slotOf(query.sortBy);
  if (!slot && page.end > 0) throwUnsortable(query.sortBy);
  ValueOrder order(slot.value_or(kKeySlot), query.descending);
  enquire.set_sort_by_key(&order, false);
  enquire.set_weighting_scheme(Unranked());
  const std::string place = query.from ? query.from->sortedBy : std::string();
  const OrderedBehind behind(order, place);
  return sorted(enquire, page, {ValueOrder::keyIn, kValueKeyBytes}, query.scale, limits,
                place.empty() ? nullptr : &behind);
}

// The engine only tells which documents match; to let it sort them would take ten times the
// memory and more than twice the time.
std::unique_ptr<HitList> keys(Xapian::Enquire& enquire, Page page, HitOrder order,
                              std::uint64_t documents, const IndexLimits& limits) {
  auto buffer = std::make_unique<KeyBuffer>(limits);
  KeyGatherer gatherer(*buffer, page.end, order == HitOrder::Key);
  enquire.set_weighting_scheme(Unranked());
  enquire.add_matchspy(&gatherer);
  const std::uint64_t seen = order == HitOrder::Key ? documents : page.end;
  enquire.get_mset(0, 0, static_cast<Xapian::doccount>(seen));
  if (order == HitOrder::Key) buffer->keepFirst(page.end);
  buffer->start(page.start);
  return buffer;
}

Xapian::Query limited(const Xapian::Query& words, const SearchQuery& query) {
  if (!query.from || query.order != HitOrder::Key || query.from->sortedBy <= query.after) {
    return withinKeys(words, query);
  }
  SearchQuery rest = query;
  rest.after = query.from->sortedBy;
  return withinKeys(words, rest);
}

// `documents`: how many of them may be hits.
std::unique_ptr<HitList> hits(const Xapian::Database& database, const Xapian::Query& words,
                              const SearchQuery& query, const IndexNames& names,
                              const IndexLimits& limits, std::uint64_t documents) {
  const Page page = pageOf(query, documents);
  const Interruptible interruptible(limited(words, query));
  Xapian::Enquire enquire(database);
  enquire.set_query(interruptible.query());
  switch (query.order) {
    case HitOrder::Score:
      return byScore(enquire, page, query, documents, limits);
    case HitOrder::Value:
      return byValue(enquire, page, query, names, limits);
    case HitOrder::Key:
      return keys(enquire, page, query.order, documents, limits);
    case HitOrder::Any:
      break;
  }
  const std::uint64_t before = query.from ? std::min(query.from->rank, documents) : 0;
  return keys(enquire, page.behind(before), query.order, documents, limits);
}

// Where the page begins.
ResultPlace beginOf(const SearchQuery& query, const Snapshot& snapshot) {
  ResultPlace begin;
  begin.snapshot = snapshot;
  begin.query = queryDigest(query);
  if (!query.from) return begin;
  if (query.from->query != begin.query) {
    throw ServerError(
        ErrorKind::BadParameter,
        "the place to go on from belongs to another query, or to another order of its "
        "hits");
  }
  if (query.from->snapshot != snapshot) throwSnapshotGone();
  return *query.from;
}

// A page that is not full is the last one. One without hits only tells where it is.
std::optional<ResultPlace> endOf(ResultPlace begin, const SearchQuery& query,
                                 const HitList& found) {
  if (query.size == 0 && query.start == 0) return begin;
  const std::size_t count = found.left();
  if (count == 0 || count < query.size) return std::nullopt;
  begin.rank += query.start + count;
  begin.weight = found.lastWeight();
  begin.sortedBy = found.lastSortKey();
  return begin;
}

}  // namespace

IndexReader::IndexReader(const IndexParts& parts, Resources resources, std::uint64_t generation)
    : generation_(generation),
      resources_(std::move(resources)),
      database_(parts.open()),
      analysis_(database_) {}

std::unique_ptr<HitSource> IndexReader::search(const SearchQuery& query, const Hidden& hidden,
                                               const IndexLimits& limits) const {
  const IndexNames names(database_);
  MemoryBudget::Share ofWords;
  return found(wordsOf(query, names, limits), query, names, hidden, limits, ofWords);
}

std::unique_ptr<HitList> IndexReader::found(const Xapian::Query& words, const SearchQuery& query,
                                            const IndexNames& names, const Hidden& hidden,
                                            const IndexLimits& limits,
                                            MemoryBudget::Share& ofWords) const {
  std::optional<ResultPlace> begin;
  if (query.inPages) begin = beginOf(query, snapshot(hidden));
  const MemoryBudget::Share ofKeys = memoryForKeys(query.keys.size(), keyPlaces(), limits);
  ofWords = memoryForWords(words, database_, limits);
  auto found = hits(database_, withoutHidden(words, hidden, database_.size()), query, names, limits,
                    database_.get_doccount());
  if (begin) found->setNextPage(endOf(std::move(*begin), query, *found));
  return found;
}

Snapshot IndexReader::snapshot(const Hidden& hidden) const {
  // Several databases have several revisions, and states that are counted.
  const std::uint64_t state = isInParts() ? state_ : database_.get_revision();
  return {generation_, state, hidden ? hidden->version() : 0};
}

// Both databases together have the statistics that the collection would have.
std::unique_ptr<HitSource> IndexReader::match(const SearchQuery& query,
                                              const std::vector<Document>& documents,
                                              const IndexLimits& limits) const {
  MemoryBudget::Share memory = memoryToMatch(documents, limits);
  // Their metadata may have names that the query is the first to ask for.
  IndexNames names(database_);
  const std::vector<Xapian::Document> made = indexed(documents, names);
  const Xapian::Query asked = wordsOf(query, names, limits);
  // That of several databases is for several already, and would count as longer than it is allowed.
  const Xapian::Query words = isInParts() ? asked : forSeveralDatabases(asked);
  const MemoryBudget::Share ofKeys = memoryForKeys(query.keys.size(), keyPlaces(), limits);
  const MemoryBudget::Share ofWords = memoryForWords(words, database_, limits);
  const Xapian::WritableDatabase passing =
      passingDocuments(made, words, normalizeText(query.text), names.slotCount(), checkRequest);
  const MemoryBudget::Share ofTheirs = memoryForWords(words, passing, limits);
  Xapian::Database both(database_);
  both.add_database(passing);
  const Xapian::Query theirs =
      words.empty() ? words
                    : Xapian::Query(Xapian::Query::OP_FILTER, words, Xapian::Query(kPassingTerm));
  return hits(both, theirs, query, names, limits, documents.size());
}

std::uint64_t IndexReader::count(const SearchQuery& query, const Hidden& hidden,
                                 const IndexLimits& limits) const {
  const MemoryBudget::Share ofKeys = memoryForKeys(query.keys.size(), keyPlaces(), limits);
  const Xapian::Query asked = wordsOf(query, IndexNames(database_), limits);
  const MemoryBudget::Share ofWords = memoryForWords(asked, database_, limits);
  const Interruptible words(withinKeys(withoutHidden(asked, hidden, database_.size()), query));
  Xapian::Enquire enquire(database_);
  enquire.set_query(words.query());
  enquire.set_weighting_scheme(Unranked());
  return enquire.get_mset(0, 0, database_.get_doccount()).get_matches_estimated();
}

void IndexReader::visit(const SearchQuery& query, const Hidden& hidden, const IndexLimits& limits,
                        const Store::DocumentVisitor& take) const {
  requireTexts();
  const auto found = search(query, hidden, limits);
  MemoryBudget::Share memory = shareOf(limits);
  for (Hit hit; found->next(hit);) {
    auto document = stored(hit.key, memory);
    if (!document) continue;
    dropNotes(document->metadata);
    take(*document);
  }
}

bool IndexReader::contains(const std::string& key) const {
  return database_.term_exists(identityTerm(key));
}

std::vector<HitDetails> IndexReader::details(const SearchQuery& query, const DetailsWanted& wanted,
                                             const Hidden& hidden,
                                             const IndexLimits& limits) const {
  if (wanted.snippetBytes > 0) requireTexts();
  const IndexNames names(database_);
  const Xapian::Query words = wordsOf(query, names, limits);
  MemoryBudget::Share ofWords;
  const auto found = this->found(words, query, names, hidden, limits, ofWords);
  const auto snippets = snippetsFor(wanted, database_, analysis_, words);
  ofWords = {};
  MemoryBudget::Share memory = shareOf(limits);
  const auto share = std::make_shared<MemoryBudget::Share>(shareOf(limits));
  std::vector<HitDetails> details;
  for (Hit hit; found->next(hit);) {
    if (auto each = detailsOf(hit, wanted, snippets.get(), memory, limits))
      keep(details, std::move(*each), share, limits);
  }
  if (!details.empty()) details.back().nextPage = found->nextPage();
  return details;
}

std::optional<HitDetails> IndexReader::detailsOf(const Hit& hit, const DetailsWanted& wanted,
                                                 const Snippets* snippets,
                                                 MemoryBudget::Share& memory,
                                                 const IndexLimits& limits) const {
  const auto document = stored(hit.key, memory);
  if (!document) return std::nullopt;
  HitDetails details{hit};
  details.values = valuesIn(*document, wanted.names);
  if (snippets && hasRoomForSnippet(memory, document->content.size(), hit.key, limits)) {
    details.snippet = snippets->of(*document, wanted.snippetBytes);
  }
  return details;
}

CollectionSummary IndexReader::summary() const {
  CollectionSummary summary;
  summary.documents = database_.get_doccount();
  summary.language = analysis_.form().language;
  summary.options = analysis_.options();
  return summary;
}

// Without weights, since an estimate needs none: with them the engine scores every hit that it
// counts.
Estimate IndexReader::estimate(const std::string& query, std::uint64_t exactHits,
                               const Hidden& hidden, const IndexLimits& limits) const {
  const Xapian::Query asked = read(query, IndexNames(database_), limits);
  const MemoryBudget::Share ofWords = memoryForWords(asked, database_, limits);
  const Interruptible words(withoutHidden(asked, hidden, database_.size()));
  const std::uint64_t documents = database_.get_doccount();
  Xapian::Enquire enquire(database_);
  enquire.set_query(words.query());
  enquire.set_weighting_scheme(Unranked());
  const auto exact = static_cast<Xapian::doccount>(std::min(exactHits, documents));
  const Xapian::MSet matches = enquire.get_mset(0, 0, exact);
  return {matches.get_matches_estimated(), matches.get_matches_upper_bound(), documents};
}

KeyPlaces IndexReader::keyPlaces() const { return {1, database_.size(), database_.get_doccount()}; }

void IndexReader::requireTexts() const {
  if (analysis_.options().keepsText) return;
  throw ServerError(ErrorKind::UnsupportedAction,
                    "the collection was created without the texts of its documents, so they "
                    "cannot be read");
}

// Nothing if the document has gone since it was found. `memory` has room for the one that was read
// last. It counts even where it does not fit: one text for each thread is little, and large shares
// are refused whenever others wait for theirs, which would end a long digest.
std::optional<Document> IndexReader::stored(const std::string& key,
                                            MemoryBudget::Share& memory) const {
  spendOnText();
  const std::string term = identityTerm(key);
  const Xapian::PostingIterator place = database_.postlist_begin(term);
  if (place == database_.postlist_end(term)) return std::nullopt;
  const std::string data = database_.get_document(*place).get_data();
  memory.force(kTextForms * data.size());
  auto document = readDocument(key, data);
  if (document) return document;
  throw ServerError(ErrorKind::StorageFailed,
                    "the text of the document " + shown(key) + " cannot be read");
}

Xapian::Query IndexReader::wordsOf(const SearchQuery& query, const IndexNames& names,
                                   const IndexLimits& limits) const {
  if (query.everything) return Xapian::Query(std::string());
  return read(query.text, names, limits);
}

Xapian::Query IndexReader::read(const std::string& text, const IndexNames& names,
                                const IndexLimits& limits) const {
  const Xapian::Query words = QueryReader(analysis_, names, limits).read(text);
  return isInParts() ? forSeveralDatabases(words) : words;
}

std::vector<Xapian::Document> IndexReader::indexed(const std::vector<Document>& documents,
                                                   IndexNames& names) const {
  std::vector<Xapian::Document> made;
  made.reserve(documents.size());
  const StopCheck stop = checkRequest;
  for (const Document& document : documents) {
    stop();
    made.push_back(makeDocument(document, analysis_, names, stop));
  }
  return made;
}

}  // namespace corvaned
