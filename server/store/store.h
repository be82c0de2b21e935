#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/store/resultPlace.h"

namespace corvaned {

/// A document as clients send it: a key of 1 to 128 bytes, UTF-8 metadata, content (may be empty).
struct Document {
  std::string key;
  std::vector<std::pair<std::string, std::string>> metadata;
  std::string content;
};

/// One hit. `milliScore` is the score times 1000, rounded once and here, so that both protocols
/// report the same number.
struct Hit {
  std::string key;
  std::uint16_t milliScore = 0;
};

/// The hits of one search, best first; hits of equal weight are in the order of their keys.
class HitSource {
 public:
  virtual ~HitSource() = default;
  /// Stores the next hit in `hit`. After the last hit returns false and leaves `hit` unchanged. May
  /// throw; the hits returned before stay valid.
  virtual bool next(Hit& hit) = 0;
  /// Where the result goes on behind the hits of this page; nothing if they are its last, or if the
  /// search is none in pages.
  virtual std::optional<ResultPlace> nextPage() const { return std::nullopt; }
};

enum class ScoreScale {
  /// The best hit of the whole result has the score 1.000.
  Normalized,
  /// The engine's own weight, at most 65.535.
  Raw,
};

enum class HitOrder {
  /// The best first; of equal weight by key.
  Score,
  /// By key. Hits have no score.
  Key,
  /// In no particular order, which is the cheapest. Hits have no score.
  Any,
  /// By a metadata value, those without it last; of equal value by key. Hits have no score.
  Value,
};

struct SearchQuery {
  std::string text;
  /// Whether every document is a hit, whatever the text. Then there are no scores.
  bool everything = false;
  HitOrder order = HitOrder::Score;
  /// The name of the metadata whose value decides, and whether the highest comes first.
  std::string sortBy{};
  bool descending = false;
  /// Only documents whose key comes after the first of these, and not after the second; each may be
  /// empty.
  std::string after;
  std::string upTo;
  /// If there are any, only documents that have one of these keys.
  std::vector<std::string> keys;
  /// The ranked result is cut after `limit` hits; then `size` hits are returned, beginning with hit
  /// `start`.
  std::uint64_t start = 0;
  std::uint64_t size = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t limit = std::numeric_limits<std::uint64_t>::max();
  ScoreScale scale = ScoreScale::Normalized;
  /// Whether the result is to be gone on with, see HitSource::nextPage().
  bool inPages = false;
  /// Where it is gone on with: `start` counts from there. The search is refused if the collection
  /// has got into another state, or if the place is one of another query.
  std::optional<ResultPlace> from{};
};

/// How many hits an estimate counts if nobody says how many.
constexpr std::uint64_t kExactHits = 10000;

/// What a query planner wants to know before it searches.
struct Estimate {
  std::uint64_t hits = 0;
  std::uint64_t atMost = 0;
  std::uint64_t documents = 0;
};

/// How the documents of a collection are read and kept.
struct TextOptions {
  /// Whether the texts are kept when they are in the index: for digests, and to make the index
  /// anew.
  bool keepsText = true;
  /// Whether the places of words are kept, for phrases and NEAR.
  bool keepsPositions = true;
  bool stems = true;
  /// Whether metadata can only be searched if it is marked for that.
  bool onlyMarkedMetadata = false;
  /// What queries leave out.
  std::vector<std::string> stopWords{};

  bool operator==(const TextOptions&) const = default;
};

/// What there is to know of a collection at a glance.
struct CollectionSummary {
  /// In the index, with those that are deleted and not yet taken out of it.
  std::uint64_t documents = 0;
  /// Changes that wait for updateIndex.
  std::uint64_t pending = 0;
  /// Of its files.
  std::uint64_t bytes = 0;
  std::string language;
  /// As textOf() writes it.
  std::string refresh{};
  /// Empty if it has none.
  std::string mark{};
  TextOptions options{};
  DocumentReading documentDefaults{};
  /// Of an index update that is under way: how many of its changes are in the index, and how many
  /// it has. Both 0 if none is.
  std::uint64_t indexed = 0;
  std::uint64_t indexing = 0;
};

/// What is to be told of hits.
struct DetailsWanted {
  /// Of metadata, without the marks that clients put in front of its names.
  std::set<std::string> names;
  /// About how many bytes of a hit's text, where it has the words of the query; 0: nothing.
  std::size_t snippetBytes = 0;
};

/// A hit, and what is stored of it. Long texts are cut.
struct HitDetails {
  Hit hit;
  std::vector<std::pair<std::string, std::string>> values{};
  /// HTML text in which the words of the query stand between <b> and </b>.
  std::string snippet{};
  /// Of the last hit of a search in pages: where the result goes on behind it.
  std::optional<ResultPlace> nextPage{};
  /// The one that has it, where several were searched.
  std::string collection{};
  /// Keeps the memory set aside that what is told of all hits takes.
  std::shared_ptr<const void> memory{};
};

/// The outcome of one queued document. If messageId is empty the document is stored.
struct ParseOutcome {
  std::string key;
  std::string messageId;
  std::string messageText;
  /// Of the first of several that are told: keeps the memory set aside that all of them take.
  std::shared_ptr<const void> memory{};
};

/// What a batch changes: documents to add, keys to delete, and the mark that the collection then
/// has; empty if that stays. No key comes twice.
struct BatchChanges {
  std::vector<Document> documents;
  std::vector<std::string> deletions;
  std::string newMark;
};

/// Changes of a batch that are impossible.
struct Refusals {
  static constexpr std::size_t kNamed = 100;

  std::uint64_t count = 0;
  /// The first of them, with the reasons; without a key where it is not known.
  std::vector<ParseOutcome> first{};

  void add(ParseOutcome&& refused) {
    if (++count <= kNamed) first.push_back(std::move(refused));
  }
};

/// Tells whether two batches change the same. `reading` belongs to it, too, if it is not empty.
std::string digestOf(const BatchChanges& changes, std::string_view reading = {});

/// Changes that are accepted together or not at all, and once.
struct Batch {
  /// 1 to kMaxBatchName bytes.
  std::string name;
  BatchChanges changes;
  /// The mark that the collection must have, or kNoMark; empty if that does not matter.
  std::string expectedMark;
  /// Whether a key to delete must have a document.
  bool keysMustExist = false;
  /// What is known already to be impossible. If there is anything, the batch is refused.
  Refusals refused;
  /// Of the batch as it was sent, by which it is known when it comes again, however documents are
  /// read by then. Empty: the digest of its changes is.
  std::string digest{};
};

constexpr std::size_t kMaxBatchName = 128;
constexpr std::size_t kMaxMark = 128;
constexpr std::size_t kMaxClientName = 128;
/// The mark of a collection that has none.
constexpr std::string_view kNoMark = "none";

/// What became of a batch.
struct BatchOutcome {
  std::uint64_t documents = 0;
  std::uint64_t deletions = 0;
  /// How many of the deletions found no document.
  std::uint64_t unknown = 0;
  /// If there are any, nothing was changed.
  Refusals refused{};
  /// Where a batch is searchable when it is acknowledged: what the index left out, or empty.
  std::string leftOut{};
};

/// How many collections an operator has to do something about, and how many not.
struct CollectionCounts {
  /// Open, and nothing is wrong.
  std::uint64_t sound = 0;
  /// Open, and changes are refused since the disk failed.
  std::uint64_t refusing = 0;
  /// Open, and changes wait since the last attempt to make them searchable failed.
  std::uint64_t notUpdated = 0;
  /// Not open, since the storage failed at the last attempt.
  std::uint64_t notOpened = 0;
};

enum class CollectionState {
  /// Every accepted change is searchable.
  Current,
  /// Changes wait for updateIndex.
  ChangesPending,
};

/// When changes become searchable.
struct Refresh {
  enum class Mode {
    /// At the next updateIndex.
    Manual,
    /// So long after the first of them, or earlier.
    Interval,
    /// When they are acknowledged.
    Immediate,
  };
  Mode mode = Mode::Manual;
  std::chrono::milliseconds interval{0};

  bool operator==(const Refresh&) const = default;
};

/// "manual", "immediate", or the interval in milliseconds.
std::string textOf(const Refresh& refresh);
/// Nothing if the text is none of these.
std::optional<Refresh> refreshFrom(std::string_view text);

/// Whether the text names a language, with or without a country: "de", "en_US", "german".
bool isLanguage(std::string_view text);

/// What there is to know of a backup at a glance.
struct BackupSummary {
  std::string name;
  /// When, in UTC: "2026-11-22T06:00:00Z".
  std::string made;
  std::uint64_t collections = 0;
  /// Of its files.
  std::uint64_t bytes = 0;
  /// Why none of this can be read; empty if it can.
  std::string damage;
};

/// What is to be taken from a backup, and as what.
struct Restoration {
  std::string backup;
  /// A collection of the backup, and the one that it becomes. Neither: all become what they were.
  std::string from;
  std::string collection;
  /// Whether a collection that exists may be replaced.
  bool replace = false;
};

/// Holds the documents. Every operation may be called from any thread at any time. If it throws
/// ServerError it has changed nothing; if it returns, its effect is durable and survives a crash of
/// the process or the machine.
class Store {
 public:
  virtual ~Store() = default;

  /// Whether an operation on the collection need not wait for it to be opened.
  virtual bool isOpen(const std::string& name) = 0;
  /// Called once, on any thread, with the reason if the collection cannot be opened. Must not
  /// throw.
  using Opened = std::function<void(const std::optional<ServerError>& failure)>;
  /// Has the collection opened, which may take long, so that nobody need wait for that in an
  /// operation.
  virtual void open(const std::string& name, Opened opened) = 0;
  /// Whether an operation for which the collection need not be open can begin at once: nobody is
  /// opening, closing, making or removing it.
  virtual bool isSettled(const std::string& name) = 0;
  /// Called once, when that is so, on any thread. Must not throw.
  virtual void awaitSettled(const std::string& name, Opened settled) = 0;
  /// Makes the work that takes long end soon: index updates between two documents, openings between
  /// two changes. Those who wait for it get an error. Nothing accepted is lost.
  virtual void stop() = 0;

  virtual void createCollection(const std::string& name, const std::string& language,
                                const Refresh& refresh = {}, const TextOptions& options = {}) = 0;
  virtual void openCollection(const std::string& name) = 0;
  virtual void closeCollection(const std::string& name) = 0;
  virtual void deleteCollection(const std::string& name) = 0;

  /// How the documents of the collection are to be read where their request does not say it. As
  /// long as nobody has set that: as plain text in UTF-8 and the collection's language.
  virtual DocumentReading documentDefaults(const std::string& name) = 0;
  /// The same, or nothing if the collection is not open. Never waits for a disk.
  virtual std::optional<DocumentReading> documentDefaultsIfOpen(const std::string& name) = 0;
  /// Replaces all of it. What has been accepted stays as it was read.
  virtual void setDocumentDefaults(const std::string& name, const DocumentReading& defaults) = 0;

  /// Adds the document or replaces the one that has its key. Searchable after updateIndex, or as
  /// the collection's refresh says. If the document is to be searchable at once and the index
  /// cannot take it, this throws although the document is kept.
  virtual void addDocument(const std::string& name, const Document& document) = 0;
  /// As addDocument, but durable only when takeParseOutcomes has reported it. The client's name may
  /// be empty.
  virtual void queueDocument(const std::string& name, const Document& document,
                             const std::string& client) = 0;
  void queueDocument(const std::string& name, const Document& document) {
    queueDocument(name, document, {});
  }
  /// Adds the outcome of a document that never reached the store to those of queueDocument.
  virtual void reportOutcome(const std::string& name, ParseOutcome outcome,
                             const std::string& client) = 0;
  void reportOutcome(const std::string& name, ParseOutcome outcome) {
    reportOutcome(name, std::move(outcome), {});
  }
  /// Later searches do not find the document. Throws if the key must exist and has none, whether in
  /// the index or among the changes that wait for it; else deleting an unknown key succeeds.
  virtual void deleteDocument(const std::string& name, const std::string& key, bool mustExist) = 0;
  void deleteDocument(const std::string& name, const std::string& key) {
    deleteDocument(name, key, false);
  }
  /// Accepts all of the batch or nothing. One that has been applied before changes nothing and has
  /// the same outcome. Throws if the name is that of another batch, or if the collection does not
  /// have the expected mark; and, although it is accepted, if it is to be searchable at once and
  /// the index refuses a document of it.
  virtual BatchOutcome apply(const std::string& name, Batch batch) = 0;
  /// The outcome of a batch that was applied, or refused lately. Throws if none is known.
  virtual BatchOutcome batchOutcome(const std::string& name, const std::string& batch) = 0;
  /// Makes every change accepted before the call searchable. Throws DocumentsNotIndexed if
  /// documents were left out; so does one that finds nothing to do, as long as nobody has been told
  /// of them.
  virtual void updateIndex(const std::string& name) = 0;
  /// One outcome for each document that the client has queued since its last call, oldest first,
  /// all of them durable. Without a name, of those that were queued without one.
  virtual std::vector<ParseOutcome> takeParseOutcomes(const std::string& name,
                                                      const std::string& client) = 0;
  std::vector<ParseOutcome> takeParseOutcomes(const std::string& name) {
    return takeParseOutcomes(name, {});
  }

  virtual std::unique_ptr<HitSource> search(const std::string& name, const SearchQuery& query) = 0;
  /// What search() would find of these documents, and with what scores, had they been added and
  /// the index been updated. Stores nothing. Their keys must differ.
  virtual std::unique_ptr<HitSource> match(const std::string& name, const SearchQuery& query,
                                           const std::vector<Document>& documents) = 0;
  /// The number of hits is exact up to `exactHits`, and costs as much. With 0 it comes from
  /// statistics alone.
  virtual Estimate estimate(const std::string& name, const std::string& query,
                            std::uint64_t exactHits) = 0;
  Estimate estimate(const std::string& name, const std::string& query) {
    return estimate(name, query, kExactHits);
  }
  /// The number of hits.
  virtual std::uint64_t count(const std::string& name, const SearchQuery& query) = 0;
  /// Passes the documents that the query finds to `take`, in the order of their keys.
  using DocumentVisitor = std::function<void(const Document& document)>;
  virtual void visit(const std::string& name, const SearchQuery& query,
                     const DocumentVisitor& take) = 0;
  /// The hits with what is to be told of them.
  virtual std::vector<HitDetails> details(const std::string& name, const SearchQuery& query,
                                          const DetailsWanted& wanted) = 0;
  /// The same of several collections in one ranking, as if the documents of all of them stood in
  /// one. They may have the same keys: hits of equal weight and key are in the order of the
  /// collections' names. Not in pages. Throws ServerError(BadParameter) if the words of a query are
  /// not the same in all of them.
  virtual std::vector<HitDetails> details(const std::vector<std::string>& names,
                                          const SearchQuery& query,
                                          const DetailsWanted& wanted) = 0;
  virtual CollectionState state(const std::string& name) = 0;
  virtual CollectionSummary summary(const std::string& name) = 0;
  /// Makes a backup of a collection, or of all if none is named. It holds every change that was
  /// accepted before the call.
  virtual void backup(const std::string& backup, const std::string& name) = 0;
  virtual void restore(const Restoration& restoration) = 0;
  /// The first `most` of the backups whose names come after `after`, in byte order.
  virtual std::vector<BackupSummary> backups(const std::string& after, std::uint64_t most) = 0;
  /// The first `most` of the collections whose names come after `after`, in byte order.
  virtual std::vector<std::string> collections(const std::string& after, std::uint64_t most) = 0;
};

}  // namespace corvaned
