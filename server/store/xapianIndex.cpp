#include "server/store/xapianIndex.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>
#include <xapian.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <optional>
#include <set>
#include <span>
#include <utility>

#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/store/engineErrors.h"
#include "server/store/hitTexts.h"
#include "server/store/indexRebuild.h"
#include "server/store/indexWriter.h"
#include "server/store/queryReader.h"
#include "server/store/sortOrder.h"
#include "server/store/textAnalysis.h"
#include "server/store/textNormalizer.h"
#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

constexpr int kReadAttempts = 8;
// The tables that a handle for searching has open.
constexpr std::size_t kReaderDescriptors = 4;
// What one hit takes while the engine sorts: twice, as its vector grows.
constexpr std::size_t kMatchCost = 256;
// Results up to this size are not worth asking how large they may get.
constexpr std::size_t kFewHits = 1000;
// What a byte of a document takes in a database in memory, which keeps a list of places for each
// word of each document: 50 was measured with texts of 400 bytes.
constexpr std::size_t kPassingCost = 64;
// The engine takes every phrase for found in one of several databases that has no positions at all.
constexpr Xapian::termpos kPassingPosition = 1;
// What a document without words takes there, in bytes of text.
constexpr std::size_t kEmptyPassing = 32;
// A document's text as it is stored, and what is read from it.
constexpr std::size_t kTextForms = 2;
// By how much the memory of keys grows at a time.
constexpr std::size_t kKeysStep = std::size_t{64} << 10U;

MemoryBudget::Use useOf(std::size_t bytes) {
  return bytes <= kFewHits * kMatchCost ? MemoryBudget::Use::Small : MemoryBudget::Use::Large;
}

// Makes the share so large. Trying again is no advice where it can never fit: that is refused with
// `never`. `refusal` makes the text, of how many MiB are missing.
template <typename Refusal>
void setAside(MemoryBudget::Share& share, std::size_t bytes, const MemoryBudget* budget,
              ErrorKind never, Refusal refusal) {
  const MemoryBudget::Use use = useOf(bytes);
  if (share.resize(bytes, use)) return;
  throw ServerError(budget->canEverFit(bytes, use) ? ErrorKind::TryAgain : never,
                    refusal((bytes >> 20U) + 1));
}

std::uint16_t milliScore(double weight, double maxAttained, ScoreScale scale) {
  constexpr double kMax = std::numeric_limits<std::uint16_t>::max();
  double score = weight;
  if (scale == ScoreScale::Normalized) score = maxAttained > 0 ? weight / maxAttained : 0;
  return static_cast<std::uint16_t>(std::lround(std::clamp(score * 1000, 0.0, kMax)));
}

/// All hits of a search. The keys stand back to back in one string: one allocation instead of one
/// per hit.
class HitBuffer : public HitSource {
 public:
  using KeyIn = std::string_view (*)(std::string_view sortKey);

  /// `keyIn` takes the key of a hit out of what it was sorted by.
  HitBuffer(const Xapian::MSet& matches, KeyIn keyIn, ScoreScale scale, MemoryBudget::Share memory)
      : memory_(std::move(memory)) {
    entries_.reserve(matches.size());
    const double best = matches.get_max_attained();
    for (auto match = matches.begin(); match != matches.end(); ++match) {
      keys_ += keyIn(match.get_sort_key());
      entries_.push_back({keys_.size(), milliScore(match.get_weight(), best, scale)});
    }
    memory_.force(keys_.capacity() + entries_.capacity() * sizeof(Entry));
  }

  bool next(Hit& hit) override {
    if (position_ == entries_.size()) return false;
    const Entry& entry = entries_[position_++];
    hit.key.assign(keys_, keyStart_, entry.keyEnd - keyStart_);
    hit.milliScore = entry.milliScore;
    keyStart_ = entry.keyEnd;
    return true;
  }

 private:
  struct Entry {
    std::size_t keyEnd;
    std::uint16_t milliScore;
  };
  // Declared first, so that it is given back when the others are gone.
  MemoryBudget::Share memory_;
  std::string keys_;
  std::vector<Entry> entries_;
  std::size_t position_ = 0;
  std::size_t keyStart_ = 0;
};

/// Keys without scores.
class KeyBuffer : public HitSource {
 public:
  explicit KeyBuffer(const IndexLimits& limits)
      : budget_(limits.memory), memory_(shareOf(limits)) {}

  std::size_t size() const { return entries_.size(); }

  void add(const std::string& key) {
    entries_.push_back({keys_.size(), key.size()});
    keys_ += key;
    const std::size_t bytes = keys_.capacity() + entries_.capacity() * sizeof(Entry);
    if (bytes > memory_.bytes()) grow(bytes);
  }

  /// Drops all but the first `count` in the order of keys, and puts these in order.
  void keepFirst(std::uint64_t count) {
    const auto before = [&](const Entry& a, const Entry& b) { return keyOf(a) < keyOf(b); };
    if (count < entries_.size()) {
      const auto end = entries_.begin() + static_cast<std::ptrdiff_t>(count);
      std::nth_element(entries_.begin(), end, entries_.end(), before);
      entries_.erase(end, entries_.end());
      dropUnused();
    }
    std::sort(entries_.begin(), entries_.end(), before);
  }

  /// next() begins with that one.
  void start(std::uint64_t position) { position_ = std::min<std::size_t>(position, size()); }

  bool next(Hit& hit) override {
    if (position_ == entries_.size()) return false;
    hit.key.assign(keyOf(entries_[position_++]));
    hit.milliScore = 0;
    return true;
  }

 private:
  struct Entry {
    std::size_t begin;
    std::size_t length;
  };

  std::string_view keyOf(const Entry& entry) const {
    return std::string_view(keys_).substr(entry.begin, entry.length);
  }

  void dropUnused() {
    std::string kept;
    for (Entry& entry : entries_) {
      const std::size_t begin = kept.size();
      kept += keyOf(entry);
      entry.begin = begin;
    }
    keys_.swap(kept);
  }

  void grow(std::size_t bytes) {
    setAside(
        memory_, bytes + kKeysStep, budget_.get(), ErrorKind::QueryTooBroad,
        [](std::size_t mebibytes) {
          return fmt::format(
              "the keys found so far take {} MiB of memory, and no more is free; ask for fewer "
              "with \"size\", or raise --max-memory",
              mebibytes);
        });
  }

  // Declared first, so that it is given back when the others are gone.
  std::shared_ptr<MemoryBudget> budget_;
  MemoryBudget::Share memory_;
  std::string keys_;
  std::vector<Entry> entries_;
  std::size_t position_ = 0;
};

/// Puts the keys of all documents that match into a buffer. Of more than `wanted` it keeps the
/// first ones, by key or as they come.
class KeyGatherer : public Xapian::MatchSpy {
 public:
  KeyGatherer(KeyBuffer& buffer, std::uint64_t wanted, bool byKey)
      : buffer_(buffer), wanted_(wanted), byKey_(byKey) {}

  void operator()(const Xapian::Document& document, double) override {
    if (!byKey_ && buffer_.size() >= wanted_) return;
    buffer_.add(document.get_value(kKeySlot));
    // Rarely, so that a page of many costs little.
    if (byKey_ && buffer_.size() / 2 > wanted_ + kFewHits) buffer_.keepFirst(wanted_);
  }

 private:
  KeyBuffer& buffer_;
  const std::uint64_t wanted_;
  const bool byKey_;
};

/// Matches every document. The engine asks it about each candidate, and nothing else lets a search
/// that is under way be stopped.
class Interruption : public Xapian::PostingSource {
 public:
  explicit Interruption(RequestContext& request) : request_(request) {}

  Xapian::doccount get_termfreq_min() const override { return documents_; }
  Xapian::doccount get_termfreq_est() const override { return documents_; }
  Xapian::doccount get_termfreq_max() const override { return documents_; }

  void init(const Xapian::Database& database) override {
    documents_ = database.get_doccount();
    next_ = database.postlist_begin("");
    end_ = database.postlist_end("");
    document_ = 0;
    atEnd_ = false;
  }

  void next(double) override { moveTo(document_ + 1); }
  void skip_to(Xapian::docid document, double) override {
    if (document > document_) moveTo(document);
  }
  // Another part of the query has found the document, so it exists.
  bool check(Xapian::docid document, double) override {
    request_.spend(1);
    document_ = document;
    return true;
  }
  bool at_end() const override { return atEnd_; }
  Xapian::docid get_docid() const override { return document_; }
  // Each of several databases gets one of its own.
  Interruption* clone() const override { return new Interruption(request_); }
  std::string get_description() const override { return "Interruption"; }

 private:
  void moveTo(Xapian::docid least) {
    request_.spend(1);
    if (next_ != end_) next_.skip_to(least);
    atEnd_ = next_ == end_;
    if (!atEnd_) document_ = *next_;
  }

  RequestContext& request_;
  Xapian::doccount documents_ = 0;
  Xapian::PostingIterator next_;
  Xapian::PostingIterator end_;
  Xapian::docid document_ = 0;
  bool atEnd_ = false;
};

/// A query that ends with an exception once the request for it has to end.
class Interruptible {
 public:
  explicit Interruptible(const Xapian::Query& query) : query_(query) {
    RequestContext* request = RequestContext::current();
    if (!request || query.empty()) return;
    request->check();
    interruption_.emplace(*request);
    query_ = Xapian::Query(Xapian::Query::OP_FILTER, query, Xapian::Query(&*interruption_));
  }
  Interruptible(const Interruptible&) = delete;
  Interruptible& operator=(const Interruptible&) = delete;

  const Xapian::Query& query() const { return query_; }

 private:
  std::optional<Interruption> interruption_;
  Xapian::Query query_;
};

// Sets aside what up to `hits` hits may take while they are sorted.
MemoryBudget::Share memoryFor(std::size_t hits, const IndexLimits& limits) {
  MemoryBudget::Share share = shareOf(limits);
  setAside(share, hits * kMatchCost, limits.memory.get(), ErrorKind::QueryTooBroad,
           [&](std::size_t mebibytes) {
             return fmt::format(
                 "the result may have {} hits, for which {} MiB of memory are not free; ask for "
                 "fewer with \"size\" or \"resultLimit\", or raise --max-memory",
                 hits, mebibytes);
           });
  return share;
}

// Sets aside what documents take that are held in memory to be matched.
MemoryBudget::Share memoryToMatch(const std::vector<Document>& documents,
                                  const IndexLimits& limits) {
  std::size_t bytes = 0;
  for (const Document& document : documents) bytes += kEmptyPassing + bytesOf(document);
  MemoryBudget::Share share = shareOf(limits);
  setAside(share, bytes * kPassingCost, limits.memory.get(), ErrorKind::RequestTooLarge,
           [](std::size_t mebibytes) {
             return fmt::format(
                 "the documents to match need {} MiB of memory that are not free; send fewer at a "
                 "time, or raise --max-memory",
                 mebibytes);
           });
  return share;
}

// The document without its other terms, but as long as it is: that counts in the weight of each.
Xapian::Document onlyWith(const std::set<std::string>& terms, const Xapian::Document& document,
                          std::size_t slots) {
  Xapian::Document result;
  Xapian::termcount others = 0;
  for (auto term = document.termlist_begin(); term != document.termlist_end(); ++term) {
    if (!terms.contains(*term)) {
      others += term.get_wdf();
      continue;
    }
    result.add_term(*term, term.get_wdf());
    for (auto position = term.positionlist_begin(); position != term.positionlist_end();
         ++position) {
      result.add_posting(*term, *position, 0);
    }
  }
  result.add_posting(kPassingTerm, kPassingPosition, others);
  for (Xapian::valueno slot = kKeySlot; slot <= kKeySlot + slots; ++slot) {
    const std::string value = document.get_value(slot);
    if (!value.empty()) result.add_value(slot, value);
  }
  return result;
}

std::string_view wholeSortKey(std::string_view sortKey) { return sortKey; }

Xapian::Query withoutHidden(const Xapian::Query& query, const std::vector<std::string>& hidden) {
  if (hidden.empty() || query.empty()) return query;
  std::vector<Xapian::Query> terms;
  terms.reserve(hidden.size());
  for (const std::string& key : hidden) terms.emplace_back(identityTerm(key));
  return {Xapian::Query::OP_AND_NOT, query,
          Xapian::Query(Xapian::Query::OP_OR, terms.begin(), terms.end())};
}

Xapian::Query withinKeys(const Xapian::Query& query, const std::string& after,
                         const std::string& upTo) {
  if (query.empty() || (after.empty() && upTo.empty())) return query;
  // The first key behind another one is that key and a zero byte.
  const std::string first = after.empty() ? after : after + '\0';
  const Xapian::Query range =
      upTo.empty() ? Xapian::Query(Xapian::Query::OP_VALUE_GE, kKeySlot, first)
                   : Xapian::Query(Xapian::Query::OP_VALUE_RANGE, kKeySlot, first, upTo);
  if (range.empty()) return range;
  return {Xapian::Query::OP_FILTER, query, range};
}

Xapian::Query amongKeys(const Xapian::Query& query, const std::vector<std::string>& keys) {
  if (query.empty() || keys.empty()) return query;
  std::vector<Xapian::Query> terms;
  terms.reserve(keys.size());
  for (const std::string& key : keys) terms.emplace_back(identityTerm(key));
  return {Xapian::Query::OP_FILTER, query,
          Xapian::Query(Xapian::Query::OP_OR, terms.begin(), terms.end())};
}

Xapian::Query withinKeys(const Xapian::Query& query, const SearchQuery& wanted) {
  return amongKeys(withinKeys(query, wanted.after, wanted.upTo), wanted.keys);
}

std::size_t bytesOf(const HitDetails& details) {
  std::size_t bytes = details.hit.key.size() + details.snippet.size();
  for (const auto& [name, value] : details.values) bytes += name.size() + value.size();
  return bytes;
}

std::uint64_t saturatedSum(std::uint64_t a, std::uint64_t b) {
  return a > std::numeric_limits<std::uint64_t>::max() - b
             ? std::numeric_limits<std::uint64_t>::max()
             : a + b;
}

}  // namespace

/// One handle for searching; used by one thread at a time.
class XapianIndex::Reader {
 public:
  Reader(const std::filesystem::path& path, DescriptorBudget::Share descriptors,
         std::uint64_t generation)
      : generation_(generation),
        descriptors_(std::move(descriptors)),
        database_(path.string()),
        analysis_(database_) {}

  /// Which index it is open on, of those that follow each other in one directory.
  std::uint64_t generation() const { return generation_; }
  void refresh() { database_.reopen(); }
  DescriptorBudget::Share takeDescriptors() { return std::move(descriptors_); }

  std::unique_ptr<HitSource> search(const SearchQuery& query,
                                    const std::vector<std::string>& hidden,
                                    const IndexLimits& limits) {
    const IndexNames names(database_);
    return hits(database_, withoutHidden(wordsOf(query, names, limits), hidden), query, names,
                limits, database_.get_doccount());
  }

  // Both databases together have the statistics that the collection would have.
  std::unique_ptr<HitSource> match(const SearchQuery& query, const std::vector<Document>& documents,
                                   const IndexLimits& limits) {
    MemoryBudget::Share memory = memoryToMatch(documents, limits);
    // Their metadata may have names that the query is the first to ask for.
    IndexNames names(database_);
    std::vector<Xapian::Document> made = indexed(documents, names);
    const Xapian::Query words = wordsOf(query, names, limits);
    Xapian::Database both(database_);
    both.add_database(
        passing(std::move(made), words, normalizeText(query.text), names.slotCount()));
    const Xapian::Query theirs =
        words.empty() ? words
                      : Xapian::Query(Xapian::Query::OP_FILTER, words, Xapian::Query(kPassingTerm));
    return hits(both, theirs, query, names, limits, documents.size());
  }

  std::uint64_t count(const SearchQuery& query, const std::vector<std::string>& hidden,
                      const IndexLimits& limits) {
    const Interruptible words(
        withinKeys(withoutHidden(wordsOf(query, IndexNames(database_), limits), hidden), query));
    Xapian::Enquire enquire(database_);
    enquire.set_query(words.query());
    enquire.set_weighting_scheme(Xapian::BoolWeight());
    return enquire.get_mset(0, 0, database_.get_doccount()).get_matches_estimated();
  }

  void visit(const SearchQuery& query, const std::vector<std::string>& hidden,
             const IndexLimits& limits, const Store::DocumentVisitor& take) {
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

  bool contains(const std::string& key) const { return database_.term_exists(identityTerm(key)); }

  std::vector<HitDetails> details(const SearchQuery& query, const DetailsWanted& wanted,
                                  const std::vector<std::string>& hidden,
                                  const IndexLimits& limits) {
    if (wanted.snippetBytes > 0) requireTexts();
    const auto found = search(query, hidden, limits);
    Snippets snippets(database_, analysis_, wordsOf(query, IndexNames(database_), limits));
    MemoryBudget::Share memory = shareOf(limits);
    MemoryBudget::Share result = shareOf(limits);
    std::vector<HitDetails> details;
    for (Hit hit; found->next(hit);) {
      const auto document = stored(hit.key, memory);
      if (!document) continue;
      HitDetails& each = details.emplace_back(HitDetails{hit});
      each.values = valuesIn(*document, wanted.names);
      if (wanted.snippetBytes > 0) each.snippet = snippets.of(*document, wanted.snippetBytes);
      result.force(result.bytes() + bytesOf(each));
    }
    return details;
  }

  CollectionSummary summary() const {
    CollectionSummary summary;
    summary.documents = database_.get_doccount();
    summary.language = analysis_.form().language;
    summary.options = analysis_.options();
    return summary;
  }

  // Without weights, since an estimate needs none: with them the engine scores every hit that it
  // counts.
  Estimate estimate(const std::string& query, std::uint64_t exactHits,
                    const std::vector<std::string>& hidden, const IndexLimits& limits) {
    const Interruptible words(withoutHidden(
        QueryReader(database_, analysis_, IndexNames(database_), limits).read(query), hidden));
    const std::uint64_t documents = database_.get_doccount();
    Xapian::Enquire enquire(database_);
    enquire.set_query(words.query());
    enquire.set_weighting_scheme(Xapian::BoolWeight());
    const auto exact = static_cast<Xapian::doccount>(std::min(exactHits, documents));
    const Xapian::MSet matches = enquire.get_mset(0, 0, exact);
    return {matches.get_matches_estimated(), matches.get_matches_upper_bound(), documents};
  }

 private:
  void requireTexts() const {
    if (analysis_.options().keepsText) return;
    throw ServerError(ErrorKind::UnsupportedAction,
                      "the collection was created without the texts of its documents, so they "
                      "cannot be read");
  }

  // Nothing if the document has gone since it was found. `memory` has room for the one that was
  // read last.
  std::optional<Document> stored(const std::string& key, MemoryBudget::Share& memory) const {
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

  Xapian::Query wordsOf(const SearchQuery& query, const IndexNames& names,
                        const IndexLimits& limits) const {
    if (query.everything) return Xapian::Query(std::string());
    return QueryReader(database_, analysis_, names, limits).read(query.text);
  }

  // The clock is read each time: a text may take longer than many hits.
  static void spendOnText() {
    RequestContext* request = RequestContext::current();
    if (!request) return;
    request->spend(1);
    request->check();
  }

  /// The part of a result that was asked for: from, and to before, so many hits.
  struct Page {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
  };

  // `documents`: how many of them may be hits.
  static std::unique_ptr<HitSource> hits(const Xapian::Database& database,
                                         const Xapian::Query& words, const SearchQuery& query,
                                         const IndexNames& names, const IndexLimits& limits,
                                         std::uint64_t documents) {
    const std::uint64_t end =
        std::min({saturatedSum(query.start, query.size), query.limit, documents});
    const Page page{std::min(query.start, end), end};
    const Interruptible interruptible(withinKeys(words, query));
    Xapian::Enquire enquire(database);
    enquire.set_query(interruptible.query());
    switch (query.order) {
      case HitOrder::Score:
        enquire.set_sort_by_relevance_then_value(kKeySlot, false);
        return sorted(enquire, page, wholeSortKey, query.scale, limits);
      case HitOrder::Value:
        return byValue(enquire, page, query, names, limits);
      case HitOrder::Key:
      case HitOrder::Any:
        break;
    }
    return keys(enquire, page, query.order, documents, limits);
  }

  // In an empty collection there is nothing that could be marked yet.
  static std::unique_ptr<HitSource> byValue(Xapian::Enquire& enquire, Page page,
                                            const SearchQuery& query, const IndexNames& names,
                                            const IndexLimits& limits) {
    const auto slot = names.slotOf(query.sortBy);
    if (!slot && page.end > 0) {
      throw ServerError(ErrorKind::BadParameter,
                        "documents cannot be sorted by " + shown(query.sortBy) +
                            ": none of them has metadata of that name that is marked "
                            "\"[sortable]\"");
    }
    ValueOrder order(slot.value_or(kKeySlot), query.descending);
    enquire.set_sort_by_key(&order, false);
    enquire.set_weighting_scheme(Xapian::BoolWeight());
    return sorted(enquire, page, ValueOrder::keyIn, query.scale, limits);
  }

  static std::unique_ptr<HitSource> sorted(Xapian::Enquire& enquire, Page page,
                                           HitBuffer::KeyIn keyIn, ScoreScale scale,
                                           const IndexLimits& limits) {
    std::uint64_t most = page.end;
    if (most > kFewHits) {
      most = std::min<std::uint64_t>(most, enquire.get_mset(0, 0).get_matches_upper_bound());
    }
    MemoryBudget::Share memory = memoryFor(most, limits);
    const Xapian::MSet matches =
        enquire.get_mset(static_cast<Xapian::doccount>(page.start),
                         static_cast<Xapian::doccount>(page.end - page.start));
    return std::make_unique<HitBuffer>(matches, keyIn, scale, std::move(memory));
  }

  // The engine only tells which documents match; to let it sort them would take ten times the
  // memory and more than twice the time.
  static std::unique_ptr<HitSource> keys(Xapian::Enquire& enquire, Page page, HitOrder order,
                                         std::uint64_t documents, const IndexLimits& limits) {
    auto buffer = std::make_unique<KeyBuffer>(limits);
    KeyGatherer gatherer(*buffer, page.end, order == HitOrder::Key);
    enquire.set_weighting_scheme(Xapian::BoolWeight());
    enquire.add_matchspy(&gatherer);
    const std::uint64_t seen = order == HitOrder::Key ? documents : page.end;
    enquire.get_mset(0, 0, static_cast<Xapian::doccount>(seen));
    if (order == HitOrder::Key) buffer->keepFirst(page.end);
    buffer->start(page.start);
    return buffer;
  }

  std::vector<Xapian::Document> indexed(const std::vector<Document>& documents,
                                        IndexNames& names) const {
    std::vector<Xapian::Document> made;
    made.reserve(documents.size());
    for (const Document& document : documents) {
      if (RequestContext* request = RequestContext::current()) request->check();
      made.push_back(makeDocument(document, analysis_, names));
    }
    return made;
  }

  // A database of the documents in memory. It only has the words of the query, unless one of these
  // stands for others.
  static Xapian::Database passing(std::vector<Xapian::Document> made, const Xapian::Query& words,
                                  const std::string& text, std::size_t slots) {
    const std::set<std::string> terms(words.get_terms_begin(), words.get_terms_end());
    const bool all = text.find('*') != std::string::npos;
    Xapian::WritableDatabase database(std::string(), Xapian::DB_BACKEND_INMEMORY);
    for (Xapian::Document& document : made) {
      if (all) document.add_posting(kPassingTerm, kPassingPosition, 0);
      database.add_document(all ? document : onlyWith(terms, document, slots));
    }
    return database;
  }

  const std::uint64_t generation_;
  // Declared before the database, so that they are given back when that is closed.
  DescriptorBudget::Share descriptors_;
  Xapian::Database database_;
  TextAnalysis analysis_;
};

/// Takes an idle reader, or makes a new one. Returns it only if its work succeeded.
class XapianIndex::Lease {
 public:
  explicit Lease(XapianIndex& index) : index_(index) {
    const std::lock_guard lock(index.mutex_);
    if (index.idleReaders_.empty()) return;
    reader_ = std::move(index.idleReaders_.back());
    index.idleReaders_.pop_back();
  }

  /// Runs `work` with the reader. If a writer commits twice meanwhile, the reader's snapshot no
  /// longer exists and the database says so; then another attempt is enough.
  template <typename Work>
  auto run(const Work& work) {
    for (int attempt = 1;; ++attempt) {
      try {
        refresh();
        auto result = work(*reader_);
        giveBack();
        return result;
      } catch (const Xapian::DatabaseModifiedError&) {
        if (attempt == kReadAttempts) throw;
      }
    }
  }

 private:
  void refresh() {
    if (!reader_) open();
    const std::shared_lock staying(index_.exchangeMutex_);
    if (reader_->generation() == index_.generation_) return reader_->refresh();
    reader_ =
        std::make_unique<Reader>(index_.path_, reader_->takeDescriptors(), index_.generation_);
  }

  void open() {
    DescriptorBudget::Share descriptors(index_.limits_.descriptors.get());
    descriptors.add(kReaderDescriptors);
    const std::shared_lock staying(index_.exchangeMutex_);
    reader_ = std::make_unique<Reader>(index_.path_, std::move(descriptors), index_.generation_);
  }

  void giveBack() {
    const std::lock_guard lock(index_.mutex_);
    index_.idleReaders_.push_back(std::move(reader_));
  }

  XapianIndex& index_;
  std::unique_ptr<Reader> reader_;
};

void XapianIndex::create(const std::filesystem::path& collection, const IndexForm& form) {
  const std::uint64_t revision = translated(
      [&] { return IndexWriter::create(collection / IndexSums::kIndexDirectory, form); });
  IndexSums::create(collection, revision);
}

XapianIndex::XapianIndex(const std::filesystem::path& collection, IndexLimits limits)
    : collection_(collection), path_(collection / IndexSums::kIndexDirectory), limits_(limits) {
  IndexRebuild::finish(collection);
  IndexRebuild::clear(collection);
  if (IndexSums::existIn(collection)) sums_.emplace(collection).verify();
  translated([&] {
    const Xapian::Database database(path_.string());
    const std::string schema = database.get_metadata(kSchemaEntry);
    earlierForm_ = schema == kEarlierSchema;
    if (!earlierForm_ && schema != kSchemaVersion) {
      throw ServerError(ErrorKind::StorageFailed,
                        fmt::format("{} was written by another version of this server (schema {}); "
                                    "add its documents to a new collection",
                                    path_.string(), shown(schema)));
    }
    if (!sums_) sums_ = IndexSums::create(collection, database.get_revision());
    return true;
  });
}

XapianIndex::~XapianIndex() = default;

std::vector<ParseOutcome> XapianIndex::apply(const ChangeSource& changes, const StopCheck& stop) {
  std::vector<ParseOutcome> refused;
  std::vector<Change> batch;
  std::size_t bytes = 0;
  const auto flush = [&] {
    std::vector<ParseOutcome> more = applyBatch(batch, stop);
    std::move(more.begin(), more.end(), std::back_inserter(refused));
    batch.clear();
    bytes = 0;
  };
  changes([&](Change&& change) {
    bytes += bytesOf(change);
    batch.push_back(std::move(change));
    if (batch.size() >= limits_.batchChanges || bytes >= limits_.batchBytes) flush();
  });
  flush();
  endUpdate();
  return refused;
}

// The database is opened for one batch only: that costs little beside the batch, and of all the
// indexes that take turns in being updated only as many are open as there are threads.
std::vector<ParseOutcome> XapianIndex::applyBatch(std::span<const Change> changes,
                                                  const StopCheck& stop) {
  return translated([&] {
    IndexWriter writer(path_, limits_, stop);
    writer.apply(changes);
    return writer.takeRefused();
  });
}

void XapianIndex::endUpdate() { sums_->endChange(revision()); }

std::uint64_t XapianIndex::revision() const {
  return translated([&] { return Xapian::Database(path_.string()).get_revision(); });
}

MemoryBudget::Share XapianIndex::emptyShare() const { return shareOf(limits_); }

bool XapianIndex::rebuildStep(const StopCheck& stop) {
  if (ending_ || IndexRebuild::isDecided(collection_)) {
    // If a step of it fails, the next call goes on.
    ending_ = true;
    endRebuild();
    return false;
  }
  try {
    if (!rebuild_) beginRebuild();
    return translated([&] {
      if (!rebuild_->step(stop)) rebuild_->decide();
      return true;
    });
  } catch (...) {
    // Another attempt begins anew. Until then others need the space.
    if (rebuild_) rebuild_->giveUp();
    rebuild_.reset();
    throw;
  }
}

// What is damaged must not be taken over.
void XapianIndex::beginRebuild() {
  sums_->verifyIfDue();
  spdlog::info("{} is being brought into its present form", path_.string());
  rebuild_ = translated([&] { return std::make_unique<IndexRebuild>(collection_, limits_); });
}

// Searches that are under way go on with the files of the earlier index. A handle for it must not
// be refreshed any more, since it would take the new files for its own.
void XapianIndex::endRebuild() {
  {
    const std::unique_lock exchanging(exchangeMutex_);
    // Also if a later step fails: the files may be others by then.
    ++generation_;
    IndexRebuild::finish(collection_);
    IndexSums sums(collection_);
    sums_ = std::move(sums);
  }
  releaseHandles();
  rebuild_.reset();
  earlierForm_ = false;
  ending_ = false;
  spdlog::info("{} has its present form", path_.string());
  IndexRebuild::clear(collection_);
}

void XapianIndex::beginUpdate() {
  sums_->verifyIfDue();
  sums_->beginChange();
}

std::unique_ptr<HitSource> XapianIndex::search(const SearchQuery& query,
                                               const std::vector<std::string>& hidden) {
  return translated([&] {
    return Lease(*this).run([&](Reader& reader) { return reader.search(query, hidden, limits_); });
  });
}

std::unique_ptr<HitSource> XapianIndex::match(const SearchQuery& query,
                                              const std::vector<Document>& documents) {
  return translated([&] {
    return Lease(*this).run(
        [&](Reader& reader) { return reader.match(query, documents, limits_); });
  });
}

Estimate XapianIndex::estimate(const std::string& query, std::uint64_t exactHits,
                               const std::vector<std::string>& hidden) {
  return translated([&] {
    return Lease(*this).run(
        [&](Reader& reader) { return reader.estimate(query, exactHits, hidden, limits_); });
  });
}

std::uint64_t XapianIndex::count(const SearchQuery& query, const std::vector<std::string>& hidden) {
  return translated([&] {
    return Lease(*this).run([&](Reader& reader) { return reader.count(query, hidden, limits_); });
  });
}

// If the snapshot goes in the middle, another attempt goes on behind the last document.
void XapianIndex::visit(SearchQuery query, const std::vector<std::string>& hidden,
                        const Store::DocumentVisitor& take) {
  const auto passOn = [&](const Document& document) {
    query.after = document.key;
    --query.size;
    take(document);
  };
  const auto visitRest = [&] {
    const std::uint64_t before = query.size;
    try {
      return Lease(*this).run([&](Reader& reader) {
        reader.visit(query, hidden, limits_, passOn);
        return true;
      });
    } catch (const Xapian::DatabaseModifiedError&) {
      if (query.size == before) throw;
      return false;
    }
  };
  while (!translated(visitRest)) {
  }
}

bool XapianIndex::contains(const std::string& key) {
  return translated(
      [&] { return Lease(*this).run([&](Reader& reader) { return reader.contains(key); }); });
}

std::vector<HitDetails> XapianIndex::details(const SearchQuery& query, const DetailsWanted& wanted,
                                             const std::vector<std::string>& hidden) {
  return translated([&] {
    return Lease(*this).run(
        [&](Reader& reader) { return reader.details(query, wanted, hidden, limits_); });
  });
}

CollectionSummary XapianIndex::summary() {
  return translated(
      [&] { return Lease(*this).run([](Reader& reader) { return reader.summary(); }); });
}

void XapianIndex::releaseHandles() {
  const std::lock_guard lock(mutex_);
  idleReaders_.clear();
}

}  // namespace corvaned
