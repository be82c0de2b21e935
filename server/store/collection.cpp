#include "server/store/collection.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <iterator>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/store/collectionOptions.h"
#include "server/store/directory.h"

namespace corvaned {
namespace {

// The numbers of the changes and the checksums of the index come into being together, before the
// first change that is numbered. So one without the other has been lost.
const std::filesystem::path& complete(const std::filesystem::path& directory) {
  const bool hasSums = IndexSums::existIn(directory);
  const auto mark = JournalMark::open(directory);
  if (hasSums && !mark) throwDamaged({JournalMark::pathIn(directory), 0, "the file is missing"});
  if (!hasSums && mark && mark->range() != MarkedRange{}) {
    throwDamaged({IndexSums::pathIn(directory), 0, "the file is missing"});
  }
  const std::filesystem::path batches = BatchMemory::pathIn(directory);
  if (mark && mark->allowsBatches() && !std::filesystem::exists(batches)) {
    throwDamaged({batches, 0, "the file is missing"});
  }
  return directory;
}

MemoryBudget::Share emptyShare(const StoreLimits& limits) {
  return limits.index.memory ? MemoryBudget::Share(*limits.index.memory) : MemoryBudget::Share();
}

MemoryBudget::Share memoryFor(const StoreLimits& limits) {
  MemoryBudget::Share share = emptyShare(limits);
  if (share.resize(Collection::kOpenBytes, MemoryBudget::Use::Small)) return share;
  throw ServerError(ErrorKind::TryAgain,
                    "there is no memory for one more open collection; try again, or raise "
                    "--max-memory");
}

// That of the journal's last segment. Readers of the index count their own.
DescriptorBudget::Share descriptorsFor(const StoreLimits& limits) {
  DescriptorBudget::Share share(limits.index.descriptors.get());
  share.add(1);
  return share;
}

void requireNotStopping(const std::atomic<bool>& stopping) {
  if (stopping) throw ServerError(ErrorKind::TryAgain, "the server is stopping");
}

// Names some of the documents, since the outcome of each may be for another client to take.
std::string inShort(const ParseOutcomes::LeftOut& leftOut) {
  const std::string more = leftOut.count > leftOut.named
                               ? fmt::format(" and {} more", leftOut.count - leftOut.named)
                               : "";
  return fmt::format(
      "{} document{} left out, all others are searchable: {}{}; getParseResult names each",
      leftOut.count, leftOut.count == 1 ? "" : "s", leftOut.names, more);
}

}  // namespace

void Collection::create(const std::filesystem::path& directory, const IndexForm& form,
                        const Refresh& refresh) {
  IndexForm noted = form;
  if (refresh != Refresh{}) {
    writeOptions(directory, refresh);
    // Without that nobody would miss the file.
    noted.refresh = textOf(refresh);
  }
  XapianIndex::create(directory, noted);
  const Journal journal(directory, [](std::uint64_t, Change&&) {});
}

Collection::Collection(std::string name, const std::filesystem::path& directory, StoreLimits limits,
                       std::shared_ptr<ParseOutcomes> outcomes, const std::atomic<bool>& stopping)
    : name_(std::move(name)),
      directory_(complete(directory)),
      limits_(limits),
      refresh_(readOptions(directory)),
      stopping_(stopping),
      memory_(memoryFor(limits)),
      descriptors_(descriptorsFor(limits)),
      documentDefaults_(readDocumentDefaults(directory)),
      hidden_(std::make_shared<HiddenKeys>(emptyShare(limits))),
      outcomes_(std::move(outcomes)),
      batches_(directory, emptyShare(limits)),
      pendingKeys_(emptyShare(limits)),
      journal_(directory,
               [&](std::uint64_t segment, Change&& change) {
                 requireNotStopping(stopping_);
                 noteReplayed(segment, change);
               }),
      index_(directory, limits.index, [&] { requireNotStopping(stopping_); }) {
  if (const auto indexed = index_.lastChange()) journal_.requireToFit(*indexed);
  if (refresh_ == Refresh{} && !index_.refresh().empty()) {
    throwDamaged({optionsPath(directory), 0, "the file is missing"});
  }
  batches_.endReplay();
  memory_.force(kOpenBytes + index_.bytesOfSums());
  const bool isManual = refresh_.mode == Refresh::Mode::Manual;
  overdue_ = !journal_.empty() && (!isManual || hidden_->size() > limits_.hiddenKeys);
}

void Collection::noteReplayed(std::uint64_t segment, const Change& change) {
  if (change.kind == ChangeKind::Batch) batches_.replay(*change.batch);
  // Where changes are searchable when they are acknowledged, the index has lost the document
  // already, and may have a newer one of the same key.
  if (refresh_.mode == Refresh::Mode::Immediate) return;
  if (change.kind == ChangeKind::Remove) hideReplayed(segment, change.document.key);
  if (change.kind != ChangeKind::Batch) return;
  for (const std::string& key : change.batch->changes.deletions) hideReplayed(segment, key);
}

// While the server runs, many deletions are removed from the index soon; but they stay in the
// journal until an update, so that there may be millions of them. Others are closed from here:
// otherwise the journal would be read again after each.
void Collection::hideReplayed(std::uint64_t segment, const std::string& key) {
  const MemoryBudget* const memory = limits_.index.memory.get();
  deletionBytes_[segment] += HiddenKeys::bytesOf(key);
  if (memory && hidden_->bytes() >= memory->limit() / kHiddenPerBudget) {
    throw ServerError(
        ErrorKind::OutOfMemory,
        fmt::format("the collection {} cannot be opened: the keys of the deletions in its journal "
                    "take more than {} KiB of memory, which is half of what the server may take; "
                    "nothing is lost: start the server with a higher --max-memory, and call "
                    "updateIndex",
                    shown(name_), memory->limit() / kHiddenPerBudget >> 10U));
  }
  while (!hidden_->addIfItFits(key, {segment, 0})) {
    requireNotStopping(stopping_);
    if (limits_.closeOther && limits_.closeOther()) continue;
    throw ServerError(ErrorKind::TryAgain,
                      fmt::format("the collection {} cannot be opened while there is no memory for "
                                  "the keys of the deletions in its journal; try again, or raise "
                                  "--max-memory",
                                  shown(name_)));
  }
}

DocumentReading Collection::documentDefaults() const {
  requireActive();
  const std::lock_guard lock(defaultsMutex_);
  return documentDefaults_;
}

// Behind the gate no copy of the files is made, and the collection stays in its directory.
void Collection::setDocumentDefaults(const DocumentReading& defaults) {
  const std::unique_lock gate(gate_);
  requireActive();
  try {
    writeDocumentDefaults(directory_, defaults);
  } catch (...) {
    // What is refused must not come back with the next start.
    try {
      writeDocumentDefaults(directory_, documentDefaults_);
    } catch (const std::exception&) {
      // The client is told that the disk failed.
    }
    throw;
  }
  const std::lock_guard lock(defaultsMutex_);
  documentDefaults_ = defaults;
}

std::shared_ptr<Ticket> Collection::add(const Document& document) {
  checkSize(document);
  std::shared_ptr<Ticket> ticket = ticketOfChange();
  const Journal::Place place = append({ChangeKind::Put, document}, ticket);
  outcomes_->forgetOwner(document.key, place.end);
  requestEarly(place);
  // A round syncs the journal for all who wait for it.
  if (ticket) return ticket;
  journal_.sync(place.ticket);
  return nullptr;
}

void Collection::queue(const Document& document, const std::string& client) {
  checkSize(document);
  const Journal::Place place = appendOf(document, client);
  pushOutcome({document.key, {}, {}}, place.ticket, client);
  requestEarly(place);
  if (refresh_.mode == Refresh::Mode::Immediate) requestRound();
}

// So many changes are not left to the end of the interval. An index that is updated on request only
// must not show anything before.
void Collection::requestEarly(const Journal::Place& place) {
  if (refresh_.mode != Refresh::Mode::Interval || place.end.bytes < limits_.earlyBytes) return;
  // The journal stays as long as it is until an attempt succeeds, which the timer repeats.
  if (failed_) return;
  updateUnasked();
}

void Collection::reportOutcome(ParseOutcome outcome, const std::string& client) {
  requireActive();
  pushOutcome(std::move(outcome), 0, client);
}

std::shared_ptr<Ticket> Collection::remove(const std::string& key, bool mustExist) {
  const Change change{ChangeKind::Remove, {key, {}, {}}};
  std::shared_ptr<Ticket> ticket = ticketOfChange();
  const Journal::Place place = mustExist ? appendIfThere(change, ticket) : append(change, ticket);
  hide(place.end, key);
  if (ticket) return ticket;
  journal_.sync(place.ticket);
  return requestRemoval();
}

Collection::Applied Collection::apply(Batch batch) {
  const auto entry = std::make_shared<BatchEntry>();
  entry->name = batch.name;
  entry->digest = batch.digest.empty() ? digestOf(batch.changes) : batch.digest;
  entry->changes = std::move(batch.changes);
  std::shared_ptr<Ticket> ticket = ticketOfChange();
  Journal::Place place;
  BatchOutcome outcome;
  {
    const std::lock_guard one(batchMutex_);
    outcome = decide(batch, entry, place, ticket);
  }
  if (outcome.refused.count > 0) return {std::move(outcome), nullptr};
  requestEarly(place);
  if (ticket) return {std::move(outcome), ticket};
  journal_.sync(place.ticket);
  return {std::move(outcome), requestRemoval()};
}

// Earlier versions took the digest of the changes as they are stored. What is impossible is not
// among these, and no batch with any was applied.
bool Collection::isBatch(const std::string& digest, const Batch& sent, const BatchEntry& entry) {
  if (digest == sent.digest) return true;
  return sent.refused.count == 0 && digest == digestOf(entry.changes);
}

// A batch that has been applied is known before anything else is looked at: what it found then has
// changed, not least by itself.
BatchOutcome Collection::decide(Batch& batch, const std::shared_ptr<BatchEntry>& entry,
                                Journal::Place& place, const std::shared_ptr<Ticket>& ticket) {
  requireActive();
  noteLackedBatch();
  // Asked first: what the index has left out of a batch is known before this counts as indexed.
  const bool allIsIndexed = isIndexed();
  if (const auto known = batches_.find(entry->name)) {
    if (!isBatch(known->digest, batch, *entry)) {
      throw ServerError(ErrorKind::OtherBatch,
                        "a batch with other content has been applied under the name " +
                            shown(entry->name) + "; give this one another name");
    }
    place.ticket = known->ticket;
    if (ticket && allIsIndexed) {
      ticket->finish(refusalOfBatch(entry->name));
    } else if (ticket) {
      awaitRound({ticket, {}, entry->name, refusalOfBatch(entry->name)});
    }
    return known->outcome;
  }
  if (batches_.isOld(entry->name)) {
    throw ServerError(ErrorKind::OtherBatch,
                      "the batch " + shown(entry->name) +
                          " is older than what is remembered and may have been applied before; "
                          "give a new one a higher number");
  }
  requireMark(batch.expectedMark);
  for (const Document& document : entry->changes.documents) {
    try {
      checkSize(document);
    } catch (const ServerError& error) {
      batch.refused.add({document.key, std::string(messageId(error.kind())), error.what()});
    }
  }
  BatchOutcome outcome;
  if (batch.refused.count == 0) {
    outcome = accept(entry, batch.keysMustExist, place, ticket);
  } else {
    outcome.refused = std::move(batch.refused);
  }
  if (outcome.refused.count > 0) outcomes_->pushRefused(entry->name, outcome);
  return outcome;
}

void Collection::requireMark(const std::string& expected) const {
  if (expected.empty()) return;
  const std::string mark = batches_.mark();
  if (mark == expected || (mark.empty() && expected == kNoMark)) return;
  throw ServerError(
      ErrorKind::OtherMark,
      fmt::format("the mark of the collection is {}, and the batch expects {}",
                  shown(mark.empty() ? kNoMark : mark, kMaxMark), shown(expected, kMaxMark)));
}

BatchOutcome Collection::accept(const std::shared_ptr<BatchEntry>& entry, bool keysMustExist,
                                Journal::Place& place, const std::shared_ptr<Ticket>& ticket) {
  makeFileOfBatches();
  const std::vector<std::string>& deletions = entry->changes.deletions;
  if (deletions.empty()) {
    place = append({ChangeKind::Batch, {}, entry}, ticket);
  } else {
    LookUp found = lookUp(deletions);
    const std::uint64_t unknown = found.unknown.count;
    if (keysMustExist && unknown > 0) return {0, 0, unknown, std::move(found.unknown)};
    entry->unknown = static_cast<std::uint32_t>(unknown);
    place = appendBehindGate({ChangeKind::Batch, {}, entry}, ticket);
  }
  for (const Document& document : entry->changes.documents) {
    outcomes_->forgetOwner(document.key, place.end);
  }
  return outcomeOf(*entry);
}

// What is not behind the gate could come into the place of another collection's file, once this one
// is deleted.
void Collection::makeFileOfBatches() {
  const std::shared_lock gate(gate_);
  requireActive();
  batches_.makeFile();
}

JournalPosition Collection::indexed() const {
  const std::lock_guard lock(hiddenMutex_);
  return indexed_;
}

// The files of a collection that is deleted go while it is being searched.
template <typename Work>
auto Collection::whileActive(const Work& work) const {
  requireActive();
  try {
    return work();
  } catch (const ServerError& error) {
    if (error.kind() == ErrorKind::StorageFailed) requireActive();
    throw;
  }
}

// Changes go on while the index is asked: the keys of a large batch take long. What they make of a
// key stays pending although the index gets it meanwhile, and counts more than what the index said.
Collection::LookUp Collection::lookUp(const std::vector<std::string>& keys) {
  LookUp result = beginLookUp();
  const std::vector<bool> indexed =
      whileActive([&] { return index_.contain(keys, [this] { requireGoingOn(); }); });
  result.gate = closeGateToLookUp();
  if (pendingKeys_.misses() != result.misses) {
    result.gate.unlock();
    return lookUp(keys);
  }
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (pendingKeys_.find(keys[i]).value_or(indexed[i])) continue;
    result.unknown.add({keys[i], std::string(messageId(ErrorKind::UnknownDocument)),
                        "there is no document with this key"});
  }
  return result;
}

Collection::LookUp Collection::beginLookUp() {
  const auto gate = closeGateToLookUp();
  return {pendingKeys_.hold(), pendingKeys_.misses(), {}, {}};
}

BatchOutcome Collection::batchOutcome(const std::string& name) {
  requireActive();
  noteLackedBatch();
  if (const auto known = batches_.find(name)) {
    journal_.sync(known->ticket);
    return known->outcome;
  }
  if (const auto refused = outcomes_->refused(name)) return *refused;
  throw ServerError(ErrorKind::UnknownBatch,
                    "no batch " + shown(name) + " has been applied, or refused lately");
}

// The gate keeps out a batch that is in the journal and not remembered yet. One that cannot be
// remembered must stay in the journal.
void Collection::saveBatches() {
  std::optional<BatchMemory::Contents> contents;
  {
    const std::unique_lock gate(gate_);
    noteLackedBatch();
    contents = batches_.unsaved();
  }
  if (!contents) return;
  // Otherwise the file might outlive the changes of a batch that it has.
  journal_.syncAll();
  batches_.save(*contents);
}

std::shared_ptr<Ticket> Collection::requestUpdate() {
  const std::lock_guard lock(jobsMutex_);
  std::shared_ptr<Ticket> ticket = wantUpdate();
  const bool isDone = !ticket;
  if (isDone) ticket = std::make_shared<Ticket>();
  ticket->expect();
  if (isDone) ticket->finish(replyTo(*ticket));
  return ticket;
}

void Collection::updateUnasked() {
  const std::lock_guard lock(jobsMutex_);
  wantUpdate();
}

// jobsMutex_ is locked. Null if there is nothing to do.
std::shared_ptr<Ticket> Collection::wantUpdate() {
  requireActive();
  if (updateWanted_) return updateWanted_;
  if (updating_ && journal_.end() <= updatingTo_) return updating_;
  if (!updating_ && isIndexed() && !uncut_ && !index_.isOfEarlierForm()) return nullptr;
  updateWanted_ = std::make_shared<Ticket>();
  return updateWanted_;
}

// Of an update that finds nothing more to do: perhaps whoever asked for the last one asks again
// because the reply was lost, or nobody asked for it.
std::optional<ServerError> Collection::replyTo(const Ticket& update) const {
  const auto leftOut = outcomes_->leftOut();
  if (!leftOut) return std::nullopt;
  const ServerError reply(ErrorKind::DocumentsNotIndexed, inShort(*leftOut));
  if (update.isExpected()) outcomes_->noteGiven(leftOut->update);
  return reply;
}

// Every search pays for each key that it filters; an occasional commit costs less.
std::shared_ptr<Ticket> Collection::requestRemoval() {
  const std::lock_guard lock(jobsMutex_);
  {
    const std::lock_guard hiddenLock(hiddenMutex_);
    if (hidden_->size() <= limits_.hiddenKeys) return nullptr;
  }
  // An index update applies the deletions anyway.
  if (updating_ || updateWanted_ || retired_) return nullptr;
  if (!removalWanted_) removalWanted_ = std::make_shared<Ticket>();
  return removalWanted_;
}

void Collection::requestRound() {
  const std::lock_guard lock(jobsMutex_);
  requireActive();
  if (roundWanted_.empty()) roundWanted_.push_back({});
  unawaited_ = true;
}

// What whoever sends a change waits for; null if for nothing but the disk.
std::shared_ptr<Ticket> Collection::ticketOfChange() const {
  const bool isAwaited = refresh_.mode == Refresh::Mode::Immediate;
  return isAwaited ? std::make_shared<Ticket>() : nullptr;
}

void Collection::awaitRound(Waiting waiting) {
  const std::lock_guard lock(jobsMutex_);
  requireActive();
  roundWanted_.push_back(std::move(waiting));
}

std::optional<std::chrono::milliseconds> Collection::takeRefreshTime() {
  // Every search asks, so it is read first.
  if (refresh_.mode != Refresh::Mode::Interval || !changed_) return std::nullopt;
  if (!changed_.exchange(false)) return std::nullopt;
  if (refreshComes_.exchange(true)) return std::nullopt;
  if (!failed_) return refresh_.interval;
  const bool isCostly = index_.isOfEarlierForm() || damaged_;
  return std::max(refresh_.interval, isCostly ? kRebuildAgainAfter : kRetryAfter);
}

void Collection::refresh() {
  refreshComes_ = false;
  // The timer may be that of a collection that had this name before.
  if (refresh_.mode == Refresh::Mode::Manual) return;
  updateUnasked();
}

// In this order: whoever comes in between need not do it, and whoever comes later must.
void Collection::forgetRefresh() noexcept {
  refreshComes_ = false;
  changed_ = true;
}

bool Collection::takeOverdue() {
  if (!overdue_ || !overdue_.exchange(false)) return false;
  try {
    if (refresh_.mode == Refresh::Mode::Manual) return requestRemoval() != nullptr;
    {
      const std::lock_guard lock(jobsMutex_);
      unawaited_ = true;
    }
    updateUnasked();
    return true;
  } catch (...) {
    overdue_ = true;
    throw;
  }
}

bool Collection::takeRest() { return restless_ && !restComes_.exchange(true); }

void Collection::rest() {
  restComes_ = false;
  const std::lock_guard lock(jobsMutex_);
  if (restless_ && !retired_ && !updateWanted_) updateWanted_ = std::make_shared<Ticket>();
}

// Not by the journal's end: that is in another segment as soon as what the index has is cut off.
bool Collection::isIndexed() const { return !journal_.hasAfter(indexed()); }

bool Collection::takeOnIndexing() {
  const std::lock_guard lock(jobsMutex_);
  if (indexing_ || (!updateWanted_ && !removalWanted_ && roundWanted_.empty())) return false;
  return indexing_ = true;
}

// Takes no memory, for want of which that happens.
void Collection::giveUpIndexing() noexcept {
  std::vector<Waiting> waiting;
  std::shared_ptr<Ticket> update;
  std::shared_ptr<Ticket> removal;
  {
    const std::lock_guard lock(jobsMutex_);
    indexing_ = false;
    waiting.swap(roundWanted_);
    update.swap(updateWanted_);
    removal.swap(removalWanted_);
    const bool isUnawaited = std::exchange(unawaited_, false);
    if (isUnawaited && refresh_.mode == Refresh::Mode::Immediate) setFailure(noMemory_);
  }
  for (const Waiting& each : waiting) {
    if (each.ticket) each.ticket->finish(noMemory_);
  }
  if (update) update->finish(noMemory_);
  // Searches keep filtering what was deleted.
  if (removal) removal->finish();
  if (refresh_.mode == Refresh::Mode::Manual) return;
  failed_ = true;
  changed_ = true;
}

bool Collection::indexStep() {
  // Where another thread is missing, it is called in a request.
  const RequestContext::Scope ofNobody;
  std::unique_lock turn(turn_);
  const std::lock_guard step(stepMutex_);
  turn.unlock();
  if (!job_ && !takeJob()) return false;
  try {
    if (advance(*job_)) return true;
    endJob(std::nullopt);
  } catch (const DamageError& error) {
    endJob(error, true);
  } catch (const ServerError& error) {
    endJob(error);
  } catch (const std::bad_alloc&) {
    endJob(noMemory_);
  } catch (const std::exception& error) {
    endJob(ServerError(ErrorKind::StorageFailed, error.what()));
  }
  return true;
}

// Deletions are one short transaction, and could otherwise wait for one long update after the
// other. An update does what a round does, and more; after many rounds it is time for one.
bool Collection::takeJob() {
  const bool isLong = journal_.end().bytes >= limits_.earlyBytes;
  const std::lock_guard lock(jobsMutex_);
  if (removalWanted_) {
    job_ = std::make_unique<Job>();
    job_->ticket = std::exchange(removalWanted_, nullptr);
    job_->kind = Job::Kind::Removal;
  } else if (updateWanted_ || (!roundWanted_.empty() && isLong)) {
    job_ = std::make_unique<Job>();
    job_->ticket =
        updateWanted_ ? std::exchange(updateWanted_, nullptr) : std::make_shared<Ticket>();
    updating_ = job_->ticket;
    updatingTo_ = {};
    job_->waiting.swap(roundWanted_);
  } else if (!roundWanted_.empty()) {
    job_ = std::make_unique<Job>();
    job_->kind = Job::Kind::Round;
    job_->waiting.swap(roundWanted_);
  }
  if (job_ && job_->kind != Job::Kind::Removal) {
    job_->isUnawaited = std::exchange(unawaited_, false);
    // What waits has been appended before; what the index is to have may be more when it begins.
    job_->end = journal_.end();
  }
  return indexing_ = job_ != nullptr;
}

bool Collection::advance(Job& job) {
  if (job.kind == Job::Kind::Removal) return removeSome(job);
  if (index_.isOfEarlierForm()) {
    requireGoingOn();
    index_.rebuildStep([this] { requireGoingOn(); });
    noteProgress(index_.rebuildProgress());
    return true;
  }
  if (!std::exchange(job.begun, true) && !begin(job)) return false;
  const bool more = job.update->step();
  noteProgress(job.update->progress());
  if (more) return true;
  end(job);
  return false;
}

void Collection::noteProgress(IndexProgress progress) {
  const std::lock_guard lock(jobsMutex_);
  progress_ = progress;
}

bool Collection::begin(Job& job) {
  requireGoingOn();
  if (journal_.empty()) {
    // Perhaps all that was missing was to know that a segment's removal is on disk.
    uncut_ = restless_ = false;
    refuseWaiting(job, {}, {}, {});
    forgetFailure();
    return false;
  }
  if (job.kind == Job::Kind::Round) {
    if (!index_.isUpdating()) index_.beginUpdate([this] { requireGoingOn(); });
    // In this order: what is in the index alone would be replaced by what came before it, if the
    // journal's end is lost and the rest is brought in once more.
    takeChanges(job);
    journal_.syncAll();
  } else {
    index_.beginUpdate([this] { requireGoingOn(); });
    // What has been queued may take long. The segment is closed under the journal's lock, where
    // little is left to bring to disk then.
    if (journal_.end().bytes > 0) journal_.syncAll();
    takeChanges(job);
  }
  const std::lock_guard lock(hiddenMutex_);
  // Where changes are searchable at once nothing is hidden meanwhile, and the journal is short.
  const auto slices = refresh_.mode == Refresh::Mode::Immediate
                          ? IndexUpdate::Slices::One
                          : IndexUpdate::Slices::AsMemoryAllows;
  job.update.emplace(journal_.read(indexed_, job.end), removedTo_, index_, slices,
                     [this] { requireGoingOn(); });
  return true;
}

// Each change comes with whoever waits for it, who must not be told what becomes of later ones.
void Collection::takeChanges(Job& job) {
  const bool isRound = job.kind == Job::Kind::Round;
  const std::lock_guard appended(awaitedMutex_);
  job.end = isRound ? journal_.end() : closeSegment();
  const std::lock_guard lock(jobsMutex_);
  // What nobody waits for may be wanted for a change that has come since.
  const auto awaited = std::partition(roundWanted_.begin(), roundWanted_.end(),
                                      [](const Waiting& waiting) { return !waiting.ticket; });
  job.waiting.insert(job.waiting.end(), std::move_iterator(awaited),
                     std::move_iterator(roundWanted_.end()));
  roundWanted_.erase(awaited, roundWanted_.end());
  // Whoever asks from now on has no later changes, or waits for the next update.
  if (!isRound) updatingTo_ = job.end;
}

// An attempt that failed has left an empty one, and another would leave one more.
JournalPosition Collection::closeSegment() {
  const JournalPosition end = journal_.end();
  return end.bytes == 0 ? end : JournalPosition{journal_.rotate() + 1, 0};
}

// hiddenMutex_ is locked.
template <typename IsGone>
void Collection::showAgain(const IsGone& isGone) {
  if (auto rest = hidden_->without(isGone, emptyShare(limits_))) hidden_ = std::move(rest);
}

void Collection::forgetFailure() {
  failed_ = false;
  const std::lock_guard lock(jobsMutex_);
  failure_.reset();
  isNotUpdated_ = false;
}

void Collection::end(Job& job) {
  const bool isRound = job.kind == Job::Kind::Round;
  // On disk before the journal is cut off there.
  if (!isRound) index_.endUpdate(journal_.lastChangeBefore(job.end.segment));
  // Until the journal is cut off: nobody else would try that again.
  restless_ = isRound || refresh_.mode == Refresh::Mode::Immediate;
  // Before the update counts as done: nobody must find nothing to do and nothing left out. If it
  // fails for want of memory, a repeat finds what was refused again.
  const Report report = reportRefused(job);
  forgetFailure();
  {
    const std::lock_guard lock(hiddenMutex_);
    const auto isIn = [&](const std::string&, const JournalPosition& position) {
      return position <= job.end;
    };
    // First, since it may fail for want of memory: what has been deleted and added again would stay
    // hidden if the update counted as done.
    showAgain(isIn);
    indexed_ = job.end;
    // At the next opening deletions in the journal would hide what has been added since.
    if (!isRound) uncut_ = true;
  }
  pendingKeys_.forgetUpTo(job.end);
  outcomes_->forgetOwnersUpTo(job.end);
  // Before anything else can fail. The others are told when the job ends.
  for (Waiting& waiting : job.waiting) {
    if (waiting.refusal) std::exchange(waiting.ticket, nullptr)->finish(waiting.refusal);
  }
  if (!report.line.empty()) logFailure("refresh", {ErrorKind::DocumentsNotIndexed, report.line});
  if (isRound) return;
  saveBatches();
  {
    const std::unique_lock gate(gate_);
    if (pendingKeys_.isIdle()) pendingKeys_.drop();
  }
  journal_.remove(job.end.segment - 1);
  uncut_ = restless_ = false;
  {
    const std::lock_guard lock(hiddenMutex_);
    deletionBytes_.erase(deletionBytes_.begin(), deletionBytes_.lower_bound(job.end.segment));
  }
  if (!report.reply) return;
  outcomes_->noteGiven(report.update);
  throw ServerError(*report.reply);
}

ParseOutcomes::LeftOut Collection::leftOutOf(const Refused& refused) {
  constexpr std::uint64_t kNamed = 3;
  // So much of each fits into a reply.
  constexpr std::size_t kNameBytes = 80;
  constexpr std::size_t kReasonBytes = 220;
  ParseOutcomes::LeftOut result{refused.size(), std::min<std::uint64_t>(refused.size(), kNamed)};
  auto next = refused.begin();
  for (std::uint64_t i = 0; i < result.named; ++i, ++next) {
    const std::string name = shown(next->first, kNameBytes);
    result.names += i == 0
                        ? fmt::format("{} ({})", name,
                                      cutBetweenCharacters(next->second->messageText, kReasonBytes))
                        : ", " + name;
  }
  return result;
}

// Whoever sends a batch that is acknowledged as searchable may send it once more, and is told the
// same then. Perhaps nobody waits for it now: it may be from before a restart. On disk before
// anybody is told, since an update after a restart may find a later change of its key.
std::map<std::string, Collection::Refused> Collection::noteLeftOutOfBatches(
    const std::vector<IndexUpdate::Refused>& refused) {
  if (refresh_.mode != Refresh::Mode::Immediate) return {};
  std::map<std::string, Refused> ofBatches;
  for (const IndexUpdate::Refused& one : refused) {
    if (!one.batch.empty()) ofBatches[one.batch].emplace(one.outcome.key, &one.outcome);
  }
  if (!ofBatches.empty()) {
    noteLackedBatch();
    leftOutIsUnsaved_ = true;
  }
  for (const auto& [name, own] : ofBatches) batches_.noteLeftOut(name, refusalOf(own).what());
  if (leftOutIsUnsaved_) saveBatches();
  leftOutIsUnsaved_ = false;
  return ofBatches;
}

ServerError Collection::refusalOf(const Refused& refused) {
  return {ErrorKind::DocumentsNotIndexed, inShort(leftOutOf(refused))};
}

std::optional<ServerError> Collection::refusalOfBatch(const std::string& name) const {
  const auto known = batches_.find(name);
  if (!known || known->outcome.leftOut.empty()) return std::nullopt;
  return ServerError(ErrorKind::DocumentsNotIndexed, known->outcome.leftOut);
}

// Notes what is told to those who wait for one of the documents. Returns what nobody is told of.
Collection::Refused Collection::refuseWaiting(
    Job& job, Refused untold, const RefusedChanges& changes,
    const std::map<std::string, Refused>& ofBatches) const {
  for (Waiting& waiting : job.waiting) {
    const auto own = waiting.ticket ? changes.find(waiting.end) : changes.end();
    if (own == changes.end()) {
      if (waiting.batch.empty()) continue;
      // Perhaps it has come again while the first one was waiting, and is forgotten already.
      const auto again = ofBatches.find(waiting.batch);
      if (auto known = refusalOfBatch(waiting.batch)) {
        waiting.refusal = std::move(known);
      } else if (again != ofBatches.end()) {
        waiting.refusal = refusalOf(again->second);
      }
      continue;
    }
    const ParseOutcome& first = *own->second.begin()->second;
    waiting.refusal = waiting.batch.empty()
                          ? ServerError(ErrorKind::DocumentsNotIndexed, first.messageText)
                          : refusalOf(own->second);
    for (const auto& [key, outcome] : own->second) {
      const auto last = untold.find(key);
      if (last != untold.end() && last->second == outcome) untold.erase(last);
    }
  }
  return untold;
}

// All of it that takes memory.
Collection::Report Collection::reportRefused(Job& job) {
  Report report;
  RefusedChanges changes;
  Refused refused;
  for (const IndexUpdate::Refused& one : job.update->refused()) {
    changes[one.end].emplace(one.outcome.key, &one.outcome);
    if (one.isLast) refused.emplace(one.outcome.key, &one.outcome);
  }
  const auto ofBatches = noteLeftOutOfBatches(job.update->refused());
  const Refused untold = refuseWaiting(job, refused, changes, ofBatches);
  // What finds nothing to bring in changes nothing of what is known of the update before.
  if (job.update->progress().all == 0) return report;
  const bool isExpected = job.ticket && job.ticket->isExpected();
  ParseOutcomes::LeftOut leftOut = leftOutOf(isExpected ? refused : untold);
  // Perhaps nobody asks for an update, or for outcomes, of what becomes searchable by itself.
  const bool isUnasked = !isExpected && refresh_.mode != Refresh::Mode::Manual;
  if (isUnasked && !untold.empty()) report.line = inShort(leftOut);
  const bool isReply = isExpected && !refused.empty();
  std::vector<ParseOutcome> outcomes;
  for (IndexUpdate::Refused& one : job.update->refused()) {
    if (one.isLast) outcomes.push_back(std::move(one.outcome));
  }
  const ParseOutcomes::Noted noted = outcomes_->noteUpdate(std::move(leftOut), std::move(outcomes));
  if (!noted.keptAll) logForgotten();
  if (!isReply) return report;
  report.reply.emplace(ErrorKind::DocumentsNotIndexed, inShort(noted.leftOut.value()));
  report.update = noted.leftOut->update;
  return report;
}

// If it fails, the deletions are in the journal, and searches keep filtering them: those who wait
// have lost nothing.
bool Collection::removeSome(Job& job) {
  try {
    if (!std::exchange(job.begun, true)) beginRemoval(job);
    if (removeNext(job)) return true;
    index_.endUpdate();
    const std::lock_guard lock(hiddenMutex_);
    removedTo_ = journal_.end();
    const auto isRemoved = [&](const std::string& key, const JournalPosition&) {
      return std::binary_search(job.keys.begin(), job.keys.end(), key);
    };
    showAgain(isRemoved);
  } catch (const ServerError& error) {
    if (!stopping_ && !retired_) logFailure("removal", error);
  } catch (const std::exception& error) {
    logFailure("removal", ServerError(ErrorKind::StorageFailed, error.what()));
  }
  return false;
}

void Collection::beginRemoval(Job& job) {
  job.keys = hidden()->keys();
  std::sort(job.keys.begin(), job.keys.end());
  std::size_t bytes = job.keys.size() * sizeof(std::string);
  for (const std::string& key : job.keys) bytes += key.size();
  job.memory = emptyShare(limits_);
  job.memory.force(bytes);
  index_.beginUpdate([this] { requireGoingOn(); });
}

bool Collection::removeNext(Job& job) {
  const std::size_t end = std::min(job.keys.size(), job.removed + limits_.index.batchChanges);
  std::vector<Change> removals;
  removals.reserve(end - job.removed);
  for (; job.removed < end; ++job.removed) {
    removals.push_back({ChangeKind::Remove, {job.keys[job.removed], {}, {}}});
  }
  index_.applyBatch(removals, [this] { requireGoingOn(); });
  return job.removed < job.keys.size();
}

void Collection::endJob(const std::optional<ServerError>& failure, bool damaged) {
  // First, since it takes memory: whoever waits has to be answered if there is none.
  const bool isDone = !failure && job_->kind == Job::Kind::Update;
  const std::optional<ServerError> reply = isDone ? replyTo(*job_->ticket) : failure;
  damaged_ = damaged;
  const std::unique_ptr<Job> job = std::move(job_);
  // Those who wait may need the memory that it takes.
  job->update.reset();
  {
    const std::lock_guard lock(jobsMutex_);
    if (updating_ == job->ticket) updating_.reset();
    progress_ = {};
  }
  // Documents that were refused have been reported one by one.
  const bool concernsAll = failure && failure->kind() != ErrorKind::DocumentsNotIndexed;
  for (const Waiting& waiting : job->waiting) {
    if (waiting.ticket) waiting.ticket->finish(concernsAll ? failure : waiting.refusal);
  }
  if (job->ticket) job->ticket->finish(reply);
  if (!concernsAll || stopping_ || retired_ || refresh_.mode == Refresh::Mode::Manual) return;
  failed_ = true;
  changed_ = true;
  noteFailure(*job, *failure);
  logFailure("refresh", *failure);
  tellOwners(*job, *failure);
}

// With an interval nobody waits, but a timer has what passes by itself tried again. Where changes
// are searchable at once, whoever waits for them has been told, and nothing but the next one has
// them tried again.
void Collection::noteFailure(const Job& job, const ServerError& failure) {
  const bool passes =
      failure.kind() == ErrorKind::TryAgain || failure.kind() == ErrorKind::OutOfMemory;
  const std::lock_guard lock(jobsMutex_);
  const bool concernsOthers = job.isUnawaited || failure_;
  if (refresh_.mode == Refresh::Mode::Interval ? passes : !concernsOthers) return;
  setFailure(failure);
}

// jobsMutex_ is locked. Takes no memory.
void Collection::setFailure(const ServerError& failure) {
  failure_ = failure;
  isNotUpdated_ = true;
}

// Whoever waits for a change to become searchable has been told; whoever queued a document does not
// wait.
void Collection::tellOwners(const Job& job, const ServerError& failure) {
  if (refresh_.mode != Refresh::Mode::Immediate) return;
  try {
    for (const auto& [key, client] : outcomes_->takeUntold(indexed(), job.end)) {
      pushOutcome({key, std::string(messageId(failure.kind())),
                   fmt::format("the document is kept, and becomes searchable with the next change "
                               "that succeeds: {}",
                               failure.what())},
                  0, client);
    }
  } catch (const std::bad_alloc&) {
    // The state of the collection tells it.
  }
}

// Perhaps nobody waits for it.
void Collection::logFailure(std::string_view during, const ServerError& failure) {
  repeats_.log(spdlog::level::err,
               fmt::format("failure: action={} collection={} error={} reason={}", logged(during),
                           logged(name_), messageId(failure.kind()), logged(failure.what(), 600)));
}

void Collection::failAll(const ServerError& failure) {
  std::vector<std::shared_ptr<Ticket>> failed;
  {
    const std::lock_guard lock(jobsMutex_);
    if (job_) {
      failed.push_back(job_->ticket);
      for (const Waiting& waiting : job_->waiting) failed.push_back(waiting.ticket);
    }
    for (const Waiting& waiting : std::exchange(roundWanted_, {})) failed.push_back(waiting.ticket);
    failed.push_back(std::exchange(updateWanted_, nullptr));
    failed.push_back(std::exchange(removalWanted_, nullptr));
    updating_.reset();
  }
  job_.reset();
  for (const std::shared_ptr<Ticket>& ticket : failed) {
    if (ticket) ticket->finish(failure);
  }
}

std::vector<ParseOutcome> Collection::takeOutcomes(const std::string& client) {
  requireActive();
  ParseOutcomes::Taken taken = outcomes_->take(client);
  std::vector<ParseOutcome> told;
  try {
    journal_.sync(taken.ticket);
    told.reserve(taken.outcomes.size());
    if (!taken.outcomes.empty()) {
      taken.outcomes.front().memory =
          std::make_shared<MemoryBudget::Share>(std::move(taken.memory));
    }
  } catch (...) {
    outcomes_->putBack(std::move(taken), client);
    throw;
  }
  // One by one, so that they do not stand in memory twice.
  for (; !taken.outcomes.empty(); taken.outcomes.pop_front()) {
    told.push_back(std::move(taken.outcomes.front()));
  }
  return told;
}

std::unique_ptr<HitSource> Collection::search(const SearchQuery& query) {
  return whileActive([&] { return index_.search(query, hiddenFrom(query)); });
}

std::unique_ptr<HitSource> Collection::match(const SearchQuery& query,
                                             const std::vector<Document>& documents) {
  return whileActive([&] {
    for (const Document& document : documents) checkSize(document);
    return index_.match(query, documents);
  });
}

Estimate Collection::estimate(const std::string& query, std::uint64_t exactHits) {
  return whileActive([&] { return index_.estimate(query, exactHits, hidden()); });
}

std::uint64_t Collection::count(const SearchQuery& query) {
  return whileActive([&] { return index_.count(query, hidden()); });
}

void Collection::visit(const SearchQuery& query, const Store::DocumentVisitor& take) {
  whileActive([&] { index_.visit(query, hidden(), take); });
}

std::vector<HitDetails> Collection::details(const SearchQuery& query, const DetailsWanted& wanted) {
  return whileActive([&] { return index_.details(query, wanted, hiddenFrom(query)); });
}

std::vector<HitDetails> Collection::details(std::span<Collection* const> collections,
                                            const SearchQuery& query, const DetailsWanted& wanted) {
  std::vector<XapianIndex::Member> members;
  for (Collection* const each : collections) {
    each->requireActive();
    members.push_back({each->index_, each->name_, each->hidden(), each->memory_.bytes()});
  }
  try {
    return XapianIndex::details(members, query, wanted);
  } catch (const ServerError& error) {
    if (error.kind() != ErrorKind::StorageFailed) throw;
    for (Collection* const each : collections) each->requireActive();
    throw;
  }
}

CollectionSummary Collection::summary() {
  CollectionSummary summary = whileActive([&] { return index_.summary(); });
  summary.pending = isIndexed() ? 0 : journal_.pending();
  summary.bytes = bytesInTree(directory_);
  summary.refresh = textOf(refresh_);
  summary.mark = batches_.mark();
  summary.documentDefaults = documentDefaults();
  const std::lock_guard lock(jobsMutex_);
  summary.indexed = progress_.done;
  summary.indexing = progress_.all;
  return summary;
}

CollectionState Collection::state() const {
  requireActive();
  journal_.requireWritable();
  if (isIndexed() && !uncut_) return CollectionState::Current;
  const std::lock_guard lock(jobsMutex_);
  if (failure_) {
    throw ServerError(failure_->kind(),
                      fmt::format("changes wait, and the last attempt to make them "
                                  "searchable failed: {}",
                                  failure_->what()));
  }
  // Nothing waits while the journal is being cut off.
  if (isIndexed() && updating_) return CollectionState::Current;
  return CollectionState::ChangesPending;
}

Collection::Condition Collection::condition() const noexcept {
  if (journal_.refusesChanges()) return Condition::RefusesChanges;
  return isNotUpdated_ ? Condition::NotUpdated : Condition::Sound;
}

bool Collection::close() {
  index_.releaseHandles();
  if (!couldBeOpenedAgain()) return false;
  try {
    journal_.syncAll();
  } catch (const ServerError& error) {
    logFailure("close", error);
    return false;
  }
  outcomes_->forgetTickets();
  return true;
}

bool Collection::couldBeOpenedAgain() const {
  const MemoryBudget* const memory = limits_.index.memory.get();
  // Where changes are searchable when they are acknowledged, deletions need no memory then.
  if (!memory || refresh_.mode == Refresh::Mode::Immediate) return true;
  const std::lock_guard lock(hiddenMutex_);
  std::size_t bytes = 0;
  for (const auto& [segment, ofSegment] : deletionBytes_) bytes += ofSegment;
  return bytes < memory->limit() / kHiddenPerBudget;
}

IndexRevisions Collection::indexRevisions() const { return index_.revisions(); }

JournalExtent Collection::journalExtent() const { return journal_.extent(); }

void Collection::holdStill(const std::function<void()>& copyIndex,
                           const std::function<void(const JournalExtent& journal)>& copyRest,
                           const StopCheck& stop) {
  const auto step = betweenSteps(stop);
  requireActive();
  copyIndex();
  const std::unique_lock gate(gate_);
  copyRest(journal_.extent());
}

void Collection::retire(Fate fate) {
  {
    const std::unique_lock gate(gate_);
    replaced_ = fate == Fate::Replaced;
    retired_ = true;
  }
  // If it cannot be deleted in the end, another object goes on with its files.
  close();
  const auto step = betweenSteps([] {});
  failAll(whyRetired());
  index_.releaseHandles();
}

Journal::Place Collection::append(const Change& change, const std::shared_ptr<Ticket>& ticket) {
  const std::shared_lock gate(gate_);
  requireActive();
  return appendBehindGate(change, ticket);
}

// An update that takes the document finds whose it is.
Journal::Place Collection::appendOf(const Document& document, const std::string& client) {
  const std::shared_lock gate(gate_);
  requireActive();
  noteLackedBatch();
  const std::lock_guard lock(awaitedMutex_);
  const Journal::Place place = appendAndNote({ChangeKind::Put, document});
  // Without a name the refusal of a document goes to whoever asks first, whoever queued it.
  if (client.empty() && refresh_.mode != Refresh::Mode::Immediate) {
    outcomes_->forgetOwner(document.key, place.end);
  } else {
    outcomes_->setOwner(document.key, client, place.end);
  }
  return place;
}

Journal::Place Collection::appendIfThere(const Change& change,
                                         const std::shared_ptr<Ticket>& ticket) {
  const LookUp found = lookUp({change.document.key});
  if (found.unknown.count == 0) return appendBehindGate(change, ticket);
  throw ServerError(ErrorKind::UnknownDocument,
                    "there is no document with the key " + shown(change.document.key));
}

// No change comes while the gate is closed, so what is found then is still so when a change that
// depends on it is appended.
std::unique_lock<std::shared_mutex> Collection::closeGateToLookUp() {
  std::unique_lock gate(gate_);
  for (;;) {
    requireActive();
    noteLackedBatch();
    pendingKeys_.need();
    if (pendingKeys_.isKept()) return gate;
    gate.unlock();
    keepPendingKeys();
    gate.lock();
  }
}

// Steps follow each other at once, and a mutex goes to whoever is there first: the next step has to
// wait for the turn of whoever waits for the end of this one.
std::unique_lock<std::mutex> Collection::betweenSteps(const StopCheck& stop) {
  constexpr std::chrono::milliseconds kLookAgain{2};
  const auto awaited = [&](std::mutex& mutex) {
    std::unique_lock lock(mutex, std::try_to_lock);
    while (!lock.owns_lock()) {
      stop();
      std::this_thread::sleep_for(kLookAgain);
      lock.try_lock();
    }
    return lock;
  };
  const auto turn = awaited(turn_);
  return awaited(stepMutex_);
}

// Changes go on while the journal is read, and note themselves.
void Collection::keepPendingKeys() {
  // What is read must not be removed meanwhile.
  const auto step = betweenSteps([this] { requireGoingOn(); });
  if (pendingKeys_.isKept()) return;
  JournalPosition end;
  {
    const std::unique_lock gate(gate_);
    requireActive();
    pendingKeys_.begin();
    end = journal_.end();
  }
  try {
    JournalPart part = journal_.read(indexed(), end);
    while (const auto change = part.next()) {
      requireGoingOn();
      pendingKeys_.note(end, *change);
    }
  } catch (...) {
    pendingKeys_.drop();
    throw;
  }
  pendingKeys_.keep();
}

Journal::Place Collection::appendBehindGate(const Change& change,
                                            const std::shared_ptr<Ticket>& ticket) {
  noteLackedBatch();
  if (!ticket) return appendAndNote(change);
  Waiting waiting{ticket, {}, change.batch ? change.batch->name : std::string()};
  const std::lock_guard lock(awaitedMutex_);
  const Journal::Place place = appendAndNote(change);
  waiting.end = place.end;
  awaitRound(std::move(waiting));
  return place;
}

Journal::Place Collection::appendAndNote(const Change& change) {
  const Journal::Place place = journal_.append(change);
  // Not before: a refresh in between would take the note for its own, and not see the change.
  changed_ = true;
  noteAppended(change, place);
  return place;
}

// Takes no memory to fail: the change is in the journal, and whoever sends it once more has to be
// answered rightly.
void Collection::noteAppended(const Change& change, const Journal::Place& place) {
  try {
    pendingKeys_.note(place.end, change);
  } catch (const std::bad_alloc&) {
    pendingKeys_.miss();
  }
  if (change.kind != ChangeKind::Batch) return;
  try {
    noteBatch(*change.batch, place);
  } catch (...) {
    const std::lock_guard lock(lackedMutex_);
    lacked_ = LackedBatch{change.batch, place};
    lacksBatch_ = true;
    throw;
  }
}

// May be repeated after it has failed anywhere.
void Collection::noteBatch(const BatchEntry& batch, const Journal::Place& place) {
  batches_.note(batch, place.ticket);
  // Where a batch is searchable when it is acknowledged, its deletions come with its documents.
  if (refresh_.mode == Refresh::Mode::Immediate) return;
  for (const std::string& key : batch.changes.deletions) hide(place.end, key);
}

void Collection::noteLackedBatch() {
  if (!lacksBatch_) return;
  const std::lock_guard lock(lackedMutex_);
  if (!lacked_) return;
  noteBatch(*lacked_->batch, lacked_->place);
  lacked_.reset();
  lacksBatch_ = false;
}

void Collection::checkSize(const Document& document) const {
  std::size_t bytes = document.content.size();
  for (const auto& [name, value] : document.metadata) bytes += name.size() + value.size();
  if (bytes <= limits_.documentBytes) return;
  throw ServerError(ErrorKind::DocumentTooLarge,
                    fmt::format("the document has {} bytes, more than the {} allowed", bytes,
                                limits_.documentBytes));
}

void Collection::requireActive() const {
  if (retired_) throw whyRetired();
}

ServerError Collection::whyRetired() const {
  if (!replaced_) {
    return {ErrorKind::UnknownCollection, "there is no collection " + shown(name_)};
  }
  return {ErrorKind::TryAgain,
          "the collection " + shown(name_) + " is being replaced by one of a backup; try again"};
}

void Collection::requireGoingOn() const {
  requireActive();
  if (!stopping_) return;
  throw ServerError(ErrorKind::TryAgain,
                    "the server is stopping; no change is lost, and after its next start another "
                    "updateIndex goes on");
}

void Collection::hide(JournalPosition position, const std::string& key) {
  const std::lock_guard lock(hiddenMutex_);
  deletionBytes_[position.segment] += HiddenKeys::bytesOf(key);
  // An index update has already applied this deletion; a document with this key in the index is
  // newer.
  if (position <= indexed_) return;
  hidden_->add(key, position);
}

Hidden Collection::hidden() const {
  const std::lock_guard lock(hiddenMutex_);
  return hidden_;
}

// What is deleted while a result is taken in pages stays in it.
Hidden Collection::hiddenFrom(const SearchQuery& query) const {
  Hidden present = hidden();
  if (!query.inPages) return present;
  const std::uint64_t version = query.from ? query.from->snapshot.hidden : present->version();
  Hidden then = HiddenKeys::asOf(present, version);
  if (!then) throwSnapshotGone();
  return then;
}

void Collection::pushOutcome(ParseOutcome outcome, std::uint64_t ticket,
                             const std::string& client) {
  if (!outcomes_->push(std::move(outcome), ticket, client)) logForgotten();
}

void Collection::logForgotten() {
  repeats_.log(spdlog::level::warn,
               fmt::format("collection {}: nobody asks for parse results, the oldest are forgotten",
                           shown(name_)));
}

}  // namespace corvaned
