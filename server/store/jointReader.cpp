#include "server/store/jointReader.h"

#include <algorithm>
#include <limits>
#include <tuple>
#include <utility>

#include "server/base/errors.h"
#include "server/store/exclusiveOr.h"
#include "server/store/hitTexts.h"
#include "server/store/interruption.h"
#include "server/store/keyFilters.h"
#include "server/store/queryLists.h"
#include "server/store/queryReader.h"
#include "server/store/resultPage.h"
#include "server/store/searchMemory.h"
#include "server/store/sortOrder.h"
#include "server/store/unranked.h"

namespace corvaned {
namespace {

std::string_view wholeSortKey(std::string_view sortKey) { return sortKey; }

[[noreturn]] void refuse(const JointReader::Member& one, const JointReader::Member& other,
                         const std::string& why) {
  throw ServerError(ErrorKind::BadParameter, "the collections " + shown(one.collection) + " and " +
                                                 shown(other.collection) +
                                                 " cannot be searched together: " + why);
}

// The keys are told as what the hits are sorted by.
void sortBy(Xapian::Enquire& enquire, HitOrder order, ValueOrder* byValue) {
  if (order == HitOrder::Score) return enquire.set_sort_by_relevance_then_value(kKeySlot, false);
  enquire.set_weighting_scheme(Unranked());
  if (byValue) return enquire.set_sort_by_key(byValue, false);
  enquire.set_sort_by_value(kKeySlot, false);
}

}  // namespace

JointReader::JointReader(std::vector<Member> members) : members_(std::move(members)) {
  IndexNames all;
  for (std::size_t i = 0; i < members_.size(); ++i) {
    const IndexReader& reader = members_[i].reader;
    if (!reader.analysis().readsLike(members_.front().reader.analysis())) {
      refuse(members_.front(), members_[i],
             "they have other languages, or other options for words (\"stemming\", "
             "\"storePositions\", \"stopWords\")");
    }
    database_.add_database(reader.database());
    owners_.insert(owners_.end(), reader.database().size(), i);
    names_.emplace_back(reader.database());
    all.takeOver(names_.back());
  }
  for (IndexNames& names : names_) names.takeOver(all);
  requireNumbers();
}

// The engine numbers the documents of several databases in turns, and does not notice when the
// numbers get too high.
void JointReader::requireNumbers() const {
  for (const Member& member : members_) {
    const Xapian::Database& one = member.reader.database();
    const std::uint64_t last = one.get_lastdocid() / one.size() + 1;
    if (last * owners_.size() <= std::numeric_limits<Xapian::docid>::max()) continue;
    throw ServerError(ErrorKind::QueryTooBroad,
                      "the collection " + shown(member.collection) +
                          " has had too many documents to be searched together with so many "
                          "others; name fewer of them");
  }
}

void JointReader::requireTexts() const {
  for (const Member& member : members_) {
    if (member.reader.analysis().options().keepsText) continue;
    throw ServerError(ErrorKind::UnsupportedAction,
                      "the collection " + shown(member.collection) +
                          " was created without the texts of its documents, so they cannot be "
                          "read");
  }
}

std::vector<HitDetails> JointReader::details(const SearchQuery& query, const DetailsWanted& wanted,
                                             const IndexLimits& limits) const {
  if (wanted.snippetBytes > 0) requireTexts();
  const Xapian::Query words = wordsOf(query, limits);
  Ranking ranking = ranked(words, query, limits);
  const auto snippets = snippetsFor(wanted, database_, members_.front().reader.analysis(), words);
  ranking.ofWords = {};
  MemoryBudget::Share memory = shareOf(limits);
  const auto share = std::make_shared<MemoryBudget::Share>(shareOf(limits));
  std::vector<HitDetails> details;
  for (const Found& found : ranking.hits) {
    const Member& member = members_[found.member];
    const Hit hit{found.key, milliScore(found.weight, ranking.best, query.scale)};
    auto each = member.reader.detailsOf(hit, wanted, snippets.get(), memory, limits);
    if (!each) continue;
    each->collection = member.collection;
    keep(details, std::move(*each), share, limits);
  }
  return details;
}

// The names of metadata are what may make a difference, and only if the query has some.
Xapian::Query JointReader::wordsOf(const SearchQuery& query, const IndexLimits& limits) const {
  if (query.everything) return Xapian::Query(std::string());
  const auto readBy = [&](std::size_t member) {
    const TextAnalysis& analysis = members_[member].reader.analysis();
    return QueryReader(analysis, names_[member], limits).read(query.text);
  };
  const Xapian::Query words = readBy(0);
  for (std::size_t i = 1; i < members_.size(); ++i) {
    if (names_[i].readsLike(names_[0]) || readBy(i).serialise() == words.serialise()) continue;
    refuse(members_[0], members_[i],
           "the metadata that the query names is indexed in another way in each, since its names "
           "came to them in another order");
  }
  return forSeveralDatabases(words);
}

std::optional<Xapian::valueno> JointReader::slotOf(const std::string& name) const {
  const auto slot = names_[0].slotOf(name);
  for (std::size_t i = 1; i < members_.size(); ++i) {
    if (names_[i].slotOf(name) == slot) continue;
    refuse(members_[0], members_[i],
           "the values of " + shown(name) +
               " are indexed in another way in each, since the names of sortable metadata came to "
               "them in another order");
  }
  return slot;
}

JointReader::Ranking JointReader::ranked(const Xapian::Query& words, const SearchQuery& query,
                                         const IndexLimits& limits) const {
  const Page page = pageOf(query, database_.get_doccount());
  std::size_t held = 0;
  for (const Member& member : members_) held += member.held + member.reader.memory();
  const MemoryBudget::Share keys =
      memoryForKeys(query.keys.size(),
                    {members_.size(), database_.size(), database_.get_doccount()}, limits, held);
  held += keys.bytes();
  MemoryBudget::Share ofWords = memoryForWords(words, database_, limits, held);
  held += ofWords.bytes();
  const Interruptible interruptible(withinKeys(words, query));
  Xapian::Enquire enquire(database_);
  enquire.set_query(interruptible.query());
  std::optional<ValueOrder> byValue;
  if (query.order == HitOrder::Value) {
    const auto slot = slotOf(query.sortBy);
    if (!slot && page.end > 0) throwUnsortable(query.sortBy);
    byValue.emplace(slot.value_or(kKeySlot), query.descending);
  }
  const Order order = byValue ? Order{ValueOrder::keyIn, kValueKeyBytes} : Order{wholeSortKey, 0};
  sortBy(enquire, query.order, byValue ? &*byValue : nullptr);
  // Each of the others may have a document that ties with the last one of the page.
  Ranking ranking = firstOf(enquire, order, page.end + members_.size() - 1, held, limits);
  cut(ranking.hits, page);
  ranking.ofWords = std::move(ofWords);
  return ranking;
}

void JointReader::cut(std::vector<Found>& hits, const Page& page) {
  std::sort(hits.begin(), hits.end(), [](const Found& a, const Found& b) {
    return std::tie(b.weight, a.sortedBy, a.member) < std::tie(a.weight, b.sortedBy, b.member);
  });
  const auto at = [&](std::uint64_t place) {
    return hits.begin() + static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(place, hits.size()));
  };
  hits.erase(at(page.end), hits.end());
  hits.erase(hits.begin(), at(page.start));
}

// A deleted key only counts in its own collection, which the engine cannot be told. So the hits
// that are left out are fetched, too, and if they are many, fetched again together with more.
JointReader::Ranking JointReader::firstOf(const Xapian::Enquire& enquire, const Order& order,
                                          std::uint64_t enough, std::size_t held,
                                          const IndexLimits& limits) const {
  const std::uint64_t documents = database_.get_doccount();
  for (std::uint64_t wanted = enough;;) {
    const std::uint64_t asked = std::min(wanted, documents);
    Ranking ranking;
    ranking.memory = memoryToSort(enquire, asked, order.sortKeyBytes, limits, held);
    const Xapian::MSet matches = enquire.get_mset(0, static_cast<Xapian::doccount>(asked));
    keepVisible(matches, order, ranking);
    if (ranking.hits.size() >= enough || matches.size() < wanted) return ranking;
    wanted = enough + 2 * (matches.size() - ranking.hits.size());
  }
}

void JointReader::keepVisible(const Xapian::MSet& matches, const Order& order,
                              Ranking& ranking) const {
  for (auto match = matches.begin(); match != matches.end(); ++match) {
    const std::size_t member = owners_[(*match - 1) % owners_.size()];
    Found found{match.get_weight(), match.get_sort_key(), {}, member};
    found.key = order.keyIn(found.sortedBy);
    const Hidden& hidden = members_[member].hidden;
    if (hidden && hidden->contains(found.key)) continue;
    ranking.best = std::max(ranking.best, found.weight);
    ranking.hits.push_back(std::move(found));
  }
}

}  // namespace corvaned
