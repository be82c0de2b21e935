#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "server/base/descriptorBudget.h"
#include "server/base/logRepeats.h"
#include "server/base/memoryBudget.h"
#include "server/base/ticket.h"
#include "server/store/batchMemory.h"
#include "server/store/hiddenKeys.h"
#include "server/store/indexUpdate.h"
#include "server/store/journal.h"
#include "server/store/parseOutcomes.h"
#include "server/store/pendingKeys.h"
#include "server/store/stopCheck.h"
#include "server/store/store.h"
#include "server/store/xapianIndex.h"

namespace corvaned {

struct StoreLimits {
  IndexLimits index;
  /// Maximum size of a document in bytes, metadata and content together.
  std::size_t documentBytes = std::size_t{64} << 20U;
  /// Maximum number of outcomes that are kept until a client asks for them. The oldest are dropped
  /// first.
  std::size_t outcomes = 1000000;
  /// Maximum number of deleted keys that searches filter out for long. If there are more, they are
  /// removed from the index at once.
  std::size_t hiddenKeys = 500;
  /// How many indexes are changed at a time.
  unsigned indexThreads = 2;
  /// Closes a collection that nobody uses, whose memory another one needs while it is opened; false
  /// if there is none. None: there are no others.
  std::function<bool()> closeOther;
  /// How many databases share the documents of a collection that is created, at most
  /// kMostParts.
  std::size_t parts = 1;
  /// Size of the journal from which an index that is not updated on request only is updated at
  /// once.
  std::uint64_t earlyBytes = std::uint64_t{4} << 20U;
  /// How long what has begun with a collection may go on before it is replaced. What is to be done
  /// a second after a change has it until then.
  std::chrono::milliseconds unusedWithin{10000};
};

/// One collection in one directory: a journal of accepted changes, and the index into which
/// updateIndex brings them. May be used from any thread. Store says what each operation promises.
///
/// Its locks are taken in the order batchMutex_, turn_, stepMutex_, gate_, awaitedMutex_,
/// lackedMutex_, jobsMutex_, hiddenMutex_, defaultsMutex_, and those of its members after them.
class Collection {
 public:
  static void create(const std::filesystem::path& directory, const IndexForm& form,
                     const Refresh& refresh);

  /// What an open collection takes of the memory, beside the checksums of its index.
  static constexpr std::size_t kOpenBytes = std::size_t{40} << 10U;
  /// The part of the memory that the deleted keys of a journal may take when it is opened. Their
  /// removal from the index needs half as much again.
  static constexpr std::size_t kHiddenPerBudget = 2;

  /// The shortest time after which an update that failed is tried again by itself.
  static constexpr std::chrono::milliseconds kRetryAfter{1000};
  /// The same where each attempt makes the whole index anew, or finds the same damage.
  static constexpr std::chrono::milliseconds kRebuildAgainAfter{60000};

  /// `outcomes` outlive the collection's being open; `stopping` ends the opening when it becomes
  /// true. Throws ServerError(TryAgain) if there is no memory or no descriptor for one more, and
  /// ServerError(OutOfMemory) if there can be none for the deletions in its journal.
  Collection(std::string name, const std::filesystem::path& directory, StoreLimits limits,
             std::shared_ptr<ParseOutcomes> outcomes, const std::atomic<bool>& stopping);

  const std::string& name() const { return name_; }

  DocumentReading documentDefaults() const;
  void setDocumentDefaults(const DocumentReading& defaults);

  /// Returns what the caller waits for; null if for nothing. indexStep() brings that about.
  std::shared_ptr<Ticket> add(const Document& document);
  void queue(const Document& document, const std::string& client = {});
  void reportOutcome(ParseOutcome outcome, const std::string& client = {});
  /// As add().
  std::shared_ptr<Ticket> remove(const std::string& key, bool mustExist = false);
  /// What became of a batch, and what the caller waits for.
  struct Applied {
    BatchOutcome outcome;
    std::shared_ptr<Ticket> ticket;
  };
  Applied apply(Batch batch);
  BatchOutcome batchOutcome(const std::string& name);
  /// The work that makes every change accepted before this call searchable. All who ask at the same
  /// time get the same. indexStep() carries it out. What was left out before and told to nobody
  /// counts as left out by it.
  std::shared_ptr<Ticket> requestUpdate();
  std::vector<ParseOutcome> takeOutcomes(const std::string& client = {});
  std::unique_ptr<HitSource> search(const SearchQuery& query);
  std::unique_ptr<HitSource> match(const SearchQuery& query,
                                   const std::vector<Document>& documents);
  Estimate estimate(const std::string& query, std::uint64_t exactHits);
  std::uint64_t count(const SearchQuery& query);
  void visit(const SearchQuery& query, const Store::DocumentVisitor& take);
  std::vector<HitDetails> details(const SearchQuery& query, const DetailsWanted& wanted);
  /// The same of several collections. Everybody gives them in the same order.
  static std::vector<HitDetails> details(std::span<Collection* const> collections,
                                         const SearchQuery& query, const DetailsWanted& wanted);
  CollectionState state() const;
  /// What an operator has to see to. Waits for nothing.
  enum class Condition { Sound, RefusesChanges, NotUpdated };
  Condition condition() const noexcept;
  CollectionSummary summary();

  /// Whether there is work for indexStep() that nobody has taken on. Whoever is told so has to call
  /// indexStep() until that returns false.
  bool takeOnIndexing();
  /// Whoever took it on has no memory to call indexStep(). Those who wait for the work are told so:
  /// nobody else may come and take it on.
  void giveUpIndexing() noexcept;
  /// A step of bounded size towards what was asked for. Returns whether to call it again.
  bool indexStep();

  /// When refresh() has to be called for a change that has come; nothing if that is already known,
  /// or not to be done.
  std::optional<std::chrono::milliseconds> takeRefreshTime();
  /// Has what waits made searchable.
  void refresh();
  /// Nobody is going to call refresh() after all, so that takeRefreshTime() says so once more.
  void forgetRefresh() noexcept;
  /// True once if there is work for indexStep() since changes waited when the collection was
  /// opened: they become searchable although nobody asks for that, or are many deletions.
  bool takeOverdue();
  /// Whether rest() has to be called some time after the present changes.
  bool takeRest();
  /// Nobody is going to call it after all.
  void forgetRest() noexcept { restComes_ = false; }
  /// Has the index brought to rest: checksums of it made, and the journal's segments removed.
  void rest();

  /// Brings everything to disk, so that the object can go and another be made of the same files.
  /// False if that would lose something, because the journal refuses changes since the disk failed,
  /// or if there would be no memory for the deletions in the journal when it is opened again.
  /// Nothing else may be called at the same time.
  bool close();

  /// What whoever copies the collection's files has to know of them. They change meanwhile.
  IndexRevisions indexRevisions() const;
  JournalExtent journalExtent() const;
  /// Calls `copyIndex` between two steps of indexing, so that the index does not change, and then
  /// `copyRest` while nothing of the collection changes, not even by a change that comes. `stop` is
  /// called while it waits for the end of a step.
  void holdStill(const std::function<void()>& copyIndex,
                 const std::function<void(const JournalExtent& journal)>& copyRest,
                 const StopCheck& stop);

  /// If memory was out when a batch in the journal was to be noted here, does that now. What needs
  /// to know all batches does it by itself.
  void noteLackedBatch();

  bool isRetired() const { return retired_; }
  /// Why the collection is to be used no more.
  enum class Fate { Deleted, Replaced };
  /// Makes all further operations fail, and returns when no operation changes the directory any
  /// more. An update that is under way ends between two documents.
  void retire(Fate fate);

 private:
  /// Who waits for a change, or a batch of them, to become searchable.
  struct Waiting {
    std::shared_ptr<Ticket> ticket;
    /// Where the change ends in the journal; unknown if it is a batch that has come again.
    JournalPosition end{};
    /// The name of the batch; empty for a single change.
    std::string batch{};
    /// If the index has refused one of the documents.
    std::optional<ServerError> refusal{};
  };

  /// What is being brought into the index.
  struct Job {
    enum class Kind {
      /// All that was accepted; the index is at rest after it, and the journal empty.
      Update,
      /// The same, but the index is left as it is, open to further rounds.
      Round,
      /// Only deletions that searches filter out.
      Removal,
    };
    Kind kind = Kind::Update;
    std::shared_ptr<Ticket> ticket;
    /// Those who wait for a single change.
    std::vector<Waiting> waiting;
    /// Whether some of it is waited for by nobody.
    bool isUnawaited = false;
    bool begun = false;
    /// What part of the journal is in the index when it is done; until it has begun, what it is
    /// wanted for.
    JournalPosition end;
    std::optional<IndexUpdate> update;
    /// Of a removal, in order, and how many are done.
    std::vector<std::string> keys;
    std::size_t removed = 0;
    MemoryBudget::Share memory;
  };

  /// Documents that the index has refused, by their keys.
  using Refused = std::map<std::string_view, const ParseOutcome*>;
  /// The same for each change, by where it ends.
  using RefusedChanges = std::map<JournalPosition, Refused>;

  /// What is said of the documents that an update has left out.
  struct Report {
    /// To the client that waits for all of it, and the number of the update.
    std::optional<ServerError> reply;
    std::uint64_t update = 0;
    /// In the log; empty if nothing.
    std::string line;
  };

  Journal::Place append(const Change& change, const std::shared_ptr<Ticket>& ticket = nullptr);
  Journal::Place appendOf(const Document& document, const std::string& client);
  Journal::Place appendIfThere(const Change& change, const std::shared_ptr<Ticket>& ticket);
  Journal::Place appendBehindGate(const Change& change, const std::shared_ptr<Ticket>& ticket);
  Journal::Place appendAndNote(const Change& change);
  void noteAppended(const Change& change, const Journal::Place& place);
  void noteBatch(const BatchEntry& batch, const Journal::Place& place);
  std::unique_lock<std::shared_mutex> closeGateToLookUp();
  std::unique_lock<std::mutex> betweenSteps(const StopCheck& stop);
  void keepPendingKeys();
  /// Which of some keys no document has, and what keeps that so.
  struct LookUp {
    PendingKeys::Hold held;
    std::uint64_t misses = 0;
    std::unique_lock<std::shared_mutex> gate;
    Refusals unknown;
  };

  LookUp lookUp(const std::vector<std::string>& keys);
  LookUp beginLookUp();
  JournalPosition indexed() const;
  void noteReplayed(std::uint64_t segment, const Change& change);
  bool couldBeOpenedAgain() const;
  void hideReplayed(std::uint64_t segment, const std::string& key);
  BatchOutcome decide(Batch& batch, const std::shared_ptr<BatchEntry>& entry, Journal::Place& place,
                      const std::shared_ptr<Ticket>& ticket);
  static bool isBatch(const std::string& digest, const Batch& sent, const BatchEntry& entry);
  void requireMark(const std::string& expected) const;
  BatchOutcome accept(const std::shared_ptr<BatchEntry>& entry, bool keysMustExist,
                      Journal::Place& place, const std::shared_ptr<Ticket>& ticket);
  void makeFileOfBatches();
  void saveBatches();
  void checkSize(const Document& document) const;
  void requireActive() const;
  template <typename Work>
  auto whileActive(const Work& work) const;
  ServerError whyRetired() const;
  void requireGoingOn() const;
  void hide(JournalPosition position, const std::string& key);
  template <typename IsGone>
  void showAgain(const IsGone& isGone);
  Hidden hidden() const;
  Hidden hiddenFrom(const SearchQuery& query) const;
  std::shared_ptr<Ticket> requestRemoval();
  void requestRound();
  std::shared_ptr<Ticket> ticketOfChange() const;
  void awaitRound(Waiting waiting);
  void requestEarly(const Journal::Place& place);
  bool isIndexed() const;
  bool takeJob();
  bool advance(Job& job);
  void noteProgress(IndexProgress progress);
  bool begin(Job& job);
  void takeChanges(Job& job);
  JournalPosition closeSegment();
  void end(Job& job);
  static ParseOutcomes::LeftOut leftOutOf(const Refused& refused);
  std::map<std::string, Refused> noteLeftOutOfBatches(
      const std::vector<IndexUpdate::Refused>& refused);
  static ServerError refusalOf(const Refused& refused);
  std::optional<ServerError> refusalOfBatch(const std::string& name) const;
  Refused refuseWaiting(Job& job, Refused untold, const RefusedChanges& changes,
                        const std::map<std::string, Refused>& ofBatches) const;
  Report reportRefused(Job& job);
  std::optional<ServerError> replyTo(const Ticket& update) const;
  std::shared_ptr<Ticket> wantUpdate();
  void updateUnasked();
  bool removeSome(Job& job);
  void beginRemoval(Job& job);
  bool removeNext(Job& job);
  void endJob(const std::optional<ServerError>& failure, bool damaged = false);
  void noteFailure(const Job& job, const ServerError& failure);
  void setFailure(const ServerError& failure);
  void tellOwners(const Job& job, const ServerError& failure);
  void forgetFailure();
  void logFailure(std::string_view during, const ServerError& failure);
  void failAll(const ServerError& failure);
  void pushOutcome(ParseOutcome outcome, std::uint64_t ticket, const std::string& client);
  void logForgotten();

  const std::string name_;
  const std::filesystem::path directory_;
  const StoreLimits limits_;
  const Refresh refresh_;
  const std::atomic<bool>& stopping_;
  // What the open collection takes of the budgets.
  MemoryBudget::Share memory_;
  DescriptorBudget::Share descriptors_;

  // Held shared while a change is appended, so that retire() can wait for appends that have begun,
  // and a change that depends on what there is comes alone.
  mutable std::shared_mutex gate_;
  std::atomic<bool> retired_ = false;
  // Whether another one comes in its place. Set before retired_.
  std::atomic<bool> replaced_ = false;
  // Written while the gate is closed.
  mutable std::mutex defaultsMutex_;
  DocumentReading documentDefaults_;  // Guarded by defaultsMutex_.
  // The batch that is in the journal and could not be noted. No other one is accepted before it is.
  struct LackedBatch {
    std::shared_ptr<BatchEntry> batch;
    Journal::Place place;
  };
  std::atomic<bool> lacksBatch_ = false;
  std::mutex lackedMutex_;
  std::optional<LackedBatch> lacked_;  // Guarded by lackedMutex_.

  // What is still to be done about changes: whether some waited at the opening, whether somebody is
  // going to call refresh(), whether some have come since, and whether the last attempt failed, or
  // has met damage; and whether the index is not at rest, and somebody is going to call rest().
  std::atomic<bool> overdue_ = false;
  std::atomic<bool> refreshComes_ = false;
  std::atomic<bool> changed_ = false;
  std::atomic<bool> failed_ = false;
  std::atomic<bool> damaged_ = false;
  std::atomic<bool> restless_ = false;
  // Whether the journal holds changes of an update that is in the index and could not be ended.
  std::atomic<bool> uncut_ = false;
  std::atomic<bool> restComes_ = false;

  // Keys deleted since the last updateIndex, and what part of the journal is in the index.
  mutable std::mutex hiddenMutex_;
  std::shared_ptr<HiddenKeys> hidden_;
  // For each segment of the journal the memory that the keys of its deletions take when the
  // collection is opened. The index may have lost most of them before.
  std::map<std::uint64_t, std::size_t> deletionBytes_;
  JournalPosition indexed_;
  // Up to where deletions may be in the index, and hidden no more, while what comes before them in
  // the journal is not.
  JournalPosition removedTo_;

  const std::shared_ptr<ParseOutcomes> outcomes_;
  LogRepeats repeats_;

  // Held while a batch is compared with what is known and becomes known itself.
  std::mutex batchMutex_;
  BatchMemory batches_;
  // Complete while the gate is closed.
  PendingKeys pendingKeys_;

  // Held during each step, so that others can wait for its end; and by whoever comes next.
  std::mutex turn_;
  std::mutex stepMutex_;
  std::unique_ptr<Job> job_;  // Guarded by stepMutex_.
  // Whether what is known of batches lacks something in its file. Guarded by stepMutex_.
  bool leftOutIsUnsaved_ = false;

  // Made in time.
  const ServerError noMemory_{ErrorKind::OutOfMemory,
                              "there is not enough memory to update the index"};

  // Held while a change is appended for which somebody waits or which is somebody's, and while it
  // is decided what part of the journal a job is of: so the job has all who wait for a change of
  // that part, and whoever it is of is known.
  std::mutex awaitedMutex_;

  mutable std::mutex jobsMutex_;
  // Guarded by jobsMutex_: what is wanted next; the update under way, what part of the journal it
  // covers, and how far it is; whether somebody calls indexStep(); and why the last attempt failed
  // that nobody asked for.
  std::shared_ptr<Ticket> updateWanted_;
  std::shared_ptr<Ticket> removalWanted_;
  std::vector<Waiting> roundWanted_;
  // Whether a round or an update is wanted that nobody waits for.
  bool unawaited_ = false;
  std::shared_ptr<Ticket> updating_;
  JournalPosition updatingTo_;
  IndexProgress progress_;
  bool indexing_ = false;
  std::optional<ServerError> failure_;
  // Whether there is such a reason, for those who must not wait.
  std::atomic<bool> isNotUpdated_ = false;

  // Opening the journal fills the members above, so it must be declared after them.
  Journal journal_;
  XapianIndex index_;
};

}  // namespace corvaned
