#include "server/store/collection.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <iterator>
#include <system_error>
#include <utility>

#include "server/base/errors.h"

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
  return directory;
}

// Files come and go meanwhile, and so may all of them.
std::uint64_t bytesIn(const std::filesystem::path& directory) {
  std::uint64_t bytes = 0;
  std::error_code ended;
  std::filesystem::recursive_directory_iterator place(directory, ended);
  const std::filesystem::recursive_directory_iterator end;
  for (; !ended && place != end; place.increment(ended)) {
    std::error_code gone;
    const std::uint64_t size = place->is_regular_file(gone) ? place->file_size(gone) : 0;
    if (!gone) bytes += size;
  }
  return bytes;
}

MemoryBudget::Share memoryFor(const StoreLimits& limits) {
  if (!limits.index.memory) return {};
  MemoryBudget::Share share(*limits.index.memory);
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

}  // namespace

void Collection::create(const std::filesystem::path& directory, const std::string& language) {
  XapianIndex::create(directory, language);
  const Journal journal(directory, [](std::uint64_t, Change&&) {});
}

Collection::Collection(std::string name, const std::filesystem::path& directory, StoreLimits limits,
                       std::shared_ptr<ParseOutcomes> outcomes, const std::atomic<bool>& stopping)
    : name_(std::move(name)),
      directory_(complete(directory)),
      limits_(limits),
      memory_(memoryFor(limits)),
      descriptors_(descriptorsFor(limits)),
      outcomes_(std::move(outcomes)),
      journal_(directory,
               [&](std::uint64_t segment, Change&& change) {
                 if (stopping) throw ServerError(ErrorKind::TryAgain, "the server is stopping");
                 if (change.kind == ChangeKind::Remove) hide(segment, change.document.key);
               }),
      index_(directory, limits.index) {
  memory_.force(kOpenBytes + index_.bytesOfSums());
}

void Collection::add(const Document& document) {
  checkSize(document);
  journal_.sync(append({ChangeKind::Put, document}).ticket);
}

void Collection::queue(const Document& document) {
  checkSize(document);
  pushOutcome({document.key, {}, {}}, append({ChangeKind::Put, document}).ticket);
}

void Collection::reportOutcome(ParseOutcome outcome) {
  requireActive();
  pushOutcome(std::move(outcome), 0);
}

void Collection::remove(const std::string& key) {
  const Journal::Place place = append({ChangeKind::Remove, {key, {}, {}}});
  hide(place.segment, key);
  journal_.sync(place.ticket);
  removeHiddenFromIndex();
}

void Collection::updateIndex() {
  const std::lock_guard lock(indexMutex_);
  requireActive();
  if (journal_.empty()) return;
  // rotate() brings the directory to disk.
  index_.beginUpdate();
  const std::uint64_t last = journal_.rotate();
  std::vector<ParseOutcome> refused = index_.apply(
      [&](const auto& take) { lastChanges(last, take); }, [this] { return retired_.load(); });
  {
    const std::lock_guard hiddenLock(hiddenMutex_);
    indexed_ = last;
    std::erase_if(hidden_, [&](const auto& entry) { return entry.second <= last; });
  }
  journal_.remove(last);
  if (refused.empty()) return;
  const std::size_t count = refused.size();
  for (ParseOutcome& outcome : refused) pushOutcome(std::move(outcome), 0);
  throw ServerError(ErrorKind::DocumentsNotIndexed,
                    fmt::format("{} documents cannot be indexed, all others are searchable; "
                                "getParseResult names them",
                                count));
}

// Passes on only the last change of each key. The earlier ones would cost time and could make a
// deleted document visible between two transactions.
void Collection::lastChanges(std::uint64_t segment,
                             const std::function<void(Change&&)>& take) const {
  std::unordered_map<std::string, std::uint64_t> lastOfKey;
  std::uint64_t position = 0;
  journal_.read(segment, [&](std::uint64_t, Change&& change) {
    lastOfKey[change.document.key] = position++;
  });
  position = 0;
  journal_.read(segment, [&](std::uint64_t, Change&& change) {
    if (lastOfKey[change.document.key] == position++) take(std::move(change));
  });
}

std::vector<ParseOutcome> Collection::takeOutcomes() {
  requireActive();
  ParseOutcomes::Taken taken = outcomes_->take();
  try {
    journal_.sync(taken.ticket);
  } catch (...) {
    outcomes_->putBack(std::move(taken));
    throw;
  }
  return {std::make_move_iterator(taken.outcomes.begin()),
          std::make_move_iterator(taken.outcomes.end())};
}

std::unique_ptr<HitSource> Collection::search(const SearchQuery& query) {
  requireActive();
  return index_.search(query, hidden());
}

std::unique_ptr<HitSource> Collection::match(const SearchQuery& query,
                                             const std::vector<Document>& documents) {
  requireActive();
  for (const Document& document : documents) checkSize(document);
  return index_.match(query, documents);
}

Estimate Collection::estimate(const std::string& query, std::uint64_t exactHits) {
  requireActive();
  return index_.estimate(query, exactHits, hidden());
}

std::uint64_t Collection::count(const SearchQuery& query) {
  requireActive();
  return index_.count(query, hidden());
}

void Collection::visit(const SearchQuery& query, const Store::DocumentVisitor& take) {
  requireActive();
  index_.visit(query, hidden(), take);
}

CollectionSummary Collection::summary() {
  requireActive();
  CollectionSummary summary = index_.summary();
  summary.pending = journal_.pending();
  summary.bytes = bytesIn(directory_);
  return summary;
}

CollectionState Collection::state() const {
  requireActive();
  journal_.requireWritable();
  return journal_.empty() ? CollectionState::Current : CollectionState::ChangesPending;
}

bool Collection::close() {
  index_.releaseHandles();
  try {
    journal_.syncAll();
  } catch (const ServerError& error) {
    spdlog::warn("collection {} stays open: {}", shown(name_), error.what());
    return false;
  }
  outcomes_->forgetTickets();
  return true;
}

void Collection::retire() {
  {
    const std::unique_lock gate(gate_);
    retired_ = true;
  }
  // If it cannot be deleted in the end, another object goes on with its files.
  close();
  const std::lock_guard indexing(indexMutex_);
  index_.releaseHandles();
}

Journal::Place Collection::append(const Change& change) {
  const std::shared_lock gate(gate_);
  requireActive();
  return journal_.append(change);
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
  if (!retired_) return;
  throw ServerError(ErrorKind::UnknownCollection, "there is no collection " + shown(name_));
}

void Collection::hide(std::uint64_t segment, const std::string& key) {
  const std::lock_guard lock(hiddenMutex_);
  // An index update has already applied this deletion; a document with this key in the index is
  // newer.
  if (segment <= indexed_) return;
  std::uint64_t& known = hidden_[key];
  known = std::max(known, segment);
}

std::vector<std::string> Collection::hidden() const {
  const std::lock_guard lock(hiddenMutex_);
  std::vector<std::string> keys;
  keys.reserve(hidden_.size());
  for (const auto& [key, segment] : hidden_) keys.push_back(key);
  return keys;
}

// Every search pays for each key that it filters; an occasional commit costs less.
void Collection::removeHiddenFromIndex() {
  {
    const std::lock_guard lock(hiddenMutex_);
    if (hidden_.size() <= limits_.hiddenKeys) return;
  }
  const std::unique_lock indexing(indexMutex_, std::try_to_lock);
  // An index update in progress applies the deletions anyway.
  if (!indexing.owns_lock() || retired_) return;
  const std::vector<std::string> keys = hidden();
  const auto removals = [&](const std::function<void(Change &&)>& take) {
    for (const std::string& key : keys) take({ChangeKind::Remove, {key, {}, {}}});
  };
  try {
    index_.beginUpdate();
    syncDirectory(directory_);
    index_.apply(removals, [this] { return retired_.load(); });
  } catch (const ServerError& error) {
    // The deletions are in the journal, and searches keep filtering them.
    spdlog::warn("collection {}: {}", shown(name_), error.what());
    return;
  }
  const std::lock_guard lock(hiddenMutex_);
  for (const std::string& key : keys) hidden_.erase(key);
}

void Collection::pushOutcome(ParseOutcome outcome, std::uint64_t ticket) {
  if (outcomes_->push(std::move(outcome), ticket)) return;
  spdlog::warn("collection {}: nobody asks for parse results, the oldest is forgotten",
               shown(name_));
}

}  // namespace corvaned
