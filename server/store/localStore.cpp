#include "server/store/localStore.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <limits>
#include <new>
#include <optional>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/store/dataDirectory.h"
#include "server/store/directory.h"
#include "server/store/files.h"
#include "server/store/idleReaders.h"

namespace corvaned {
namespace {

constexpr std::chrono::milliseconds kRestAfter{1000};
// Up to this size a collection is opened by whoever needs it.
constexpr std::uintmax_t kQuicklyRead = std::uintmax_t{4} << 20U;
// Larger ones must not wait until others have been opened that take many seconds.
constexpr std::uintmax_t kReadInSeconds = std::uintmax_t{256} << 20U;
// Of each of these two kinds so many are opened at a time.
constexpr std::size_t kOpeners = 2;
// How much of a reason the log tells.
constexpr std::size_t kMaxReason = 600;

std::filesystem::path prepared(std::filesystem::path directory) {
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (error) {
    throw ServerError(ErrorKind::StorageFailed, "cannot create the data directory " +
                                                    directory.string() + ": " + error.message());
  }
  return directory;
}

// It would be changed, and could not be restored any more.
std::filesystem::path noBackup(std::filesystem::path directory) {
  if (!BackupManifest::existsIn(directory)) return directory;
  throw ServerError(ErrorKind::StorageFailed,
                    directory.string() +
                        " is a backup; restore it, or copy it without the file BACKUP and use the "
                        "copy");
}

[[noreturn]] void throwUnknown(const std::string& name) {
  throw ServerError(ErrorKind::UnknownCollection, "there is no collection " + shown(name));
}

// What cannot be moved for good stays where it is: the client is told that it is still there.
void moveForGood(const std::filesystem::path& path, const std::filesystem::path& destination) {
  std::filesystem::rename(path, destination);
  try {
    syncDirectory(path.parent_path());
  } catch (...) {
    std::error_code lost;
    std::filesystem::rename(destination, path, lost);
    throw;
  }
}

}  // namespace

LocalStore::LocalStore(std::filesystem::path directory, StoreLimits limits,
                       const std::optional<std::filesystem::path>& backups)
    : root_(prepared(noBackup(std::move(directory)))),
      collectionsRoot_(prepared(collectionsIn(root_))),
      limits_(completed(std::move(limits))),
      lock_(lockDataDirectory(root_)),
      outcomeMemory_(std::make_shared<OutcomeMemory>(limits_.index.memory)),
      registry_([this](const std::string& name) { return read(name); }) {
  syncDirectory(root_);
  removeLeftovers();
  if (limits_.index.descriptors) {
    limits_.index.descriptors->setReclaim([this] { return registry_.closeOldest(); });
  }
  indexers_ = std::make_unique<IndexScheduler>(limits_.indexThreads);
  const std::size_t useful =
      std::min<std::size_t>(limits_.parts, std::thread::hardware_concurrency());
  if (useful > limits_.indexThreads) {
    moreIndexers_ = std::make_unique<asio::thread_pool>(useful - limits_.indexThreads);
  }
  openers_ = std::make_unique<asio::thread_pool>(kOpeners);
  slowOpeners_ = std::make_unique<asio::thread_pool>(kOpeners);
  if (backups) keeper_ = std::make_unique<BackupKeeper>(*backups, house());
}

// Whoever brings an index up to date can have the threads that have nothing else to do. Work that
// is offered to both kinds of them is done once.
StoreLimits LocalStore::completed(StoreLimits limits) {
  limits.closeOther = [this] { return registry_.closeOldest(); };
  limits.index.idleReaders = std::make_shared<IdleReaders>(limits.index.memory);
  limits.index.helpers = [this](const std::function<void()>& work) {
    if (moreIndexers_) asio::post(*moreIndexers_, work);
    indexers_->run([work] {
      work();
      return false;
    });
  };
  return limits;
}

LocalStore::~LocalStore() {
  stopping_ = true;
  keeper_.reset();
  openers_->join();
  slowOpeners_->join();
  indexers_->stop();
}

bool LocalStore::isOpen(const std::string& name) { return registry_.isOpen(name); }

void LocalStore::open(const std::string& name, Opened opened) {
  const auto opening = registry_.awaitOpen(name, std::move(opened));
  if (!opening) return;
  try {
    const std::uintmax_t bytes = bytesToRead(name);
    if (bytes > kQuicklyRead) {
      asio::thread_pool& openers = bytes > kReadInSeconds ? *slowOpeners_ : *openers_;
      return asio::post(openers, [opening = *opening] { opening.carryOut(); });
    }
  } catch (const std::bad_alloc&) {
    // Others wait for it, too, so that it is carried out here and tells what is missing.
  }
  opening->carryOut();
}

bool LocalStore::isSettled(const std::string& name) { return registry_.isSettled(name); }

void LocalStore::awaitSettled(const std::string& name, Opened settled) {
  registry_.awaitSettled(name, std::move(settled));
}

void LocalStore::stop() { stopping_ = true; }

void LocalStore::createCollection(const std::string& name, const std::string& language,
                                  const Refresh& refresh, const TextOptions& options) {
  const std::filesystem::path path = pathOf(name);
  const Registry::Reservation reserved = registry_.reserve(name);
  if (std::filesystem::exists(path)) {
    throw ServerError(ErrorKind::CollectionExists,
                      "the collection " + shown(name) + " exists already");
  }
  // Created under a temporary name and renamed, so that a crash leaves a complete collection or
  // none.
  const std::filesystem::path temporary = freshTemporary();
  try {
    Collection::create(temporary, {language, options, limits_.parts}, refresh);
    moveForGood(temporary, path);
  } catch (...) {
    tryToRemoveTree(temporary);
    throw;
  }
}

void LocalStore::openCollection(const std::string& name) { find(name); }

void LocalStore::closeCollection(const std::string& name) {
  if (!std::filesystem::exists(pathOf(name))) throwUnknown(name);
  registry_.close(name);
}

// Does not open the collection, so that a damaged one can be deleted, too.
void LocalStore::deleteCollection(const std::string& name) {
  const std::filesystem::path path = pathOf(name);
  std::filesystem::path temporary;
  {
    Registry::Reservation reserved = registry_.reserve(name);
    if (!std::filesystem::exists(path)) throwUnknown(name);
    // If a later step fails, the next request opens the collection anew.
    if (reserved.collection()) reserved.collection()->retire(Collection::Fate::Deleted);
    reserved.forget();
    temporary = freshTemporary();
    try {
      moveForGood(path, temporary / "deleted");
    } catch (...) {
      // It is empty, unless the collection could not even be moved back.
      std::error_code kept;
      std::filesystem::remove(temporary, kept);
      throw;
    }
    forget(name);
  }
  tryToRemoveTree(temporary);
}

DocumentReading LocalStore::documentDefaults(const std::string& name) {
  return registry_.use(name)->documentDefaults();
}

std::optional<DocumentReading> LocalStore::documentDefaultsIfOpen(const std::string& name) {
  const auto collection = registry_.useIfOpen(name);
  if (!collection) return std::nullopt;
  return (*collection)->documentDefaults();
}

void LocalStore::setDocumentDefaults(const std::string& name, const DocumentReading& defaults) {
  find(name)->setDocumentDefaults(defaults);
}

void LocalStore::addDocument(const std::string& name, const Document& document) {
  Registry::Use collection = find(name);
  std::shared_ptr<Ticket> searchable = collection->add(document);
  follow(std::move(collection), std::move(searchable));
}

void LocalStore::queueDocument(const std::string& name, const Document& document,
                               const std::string& client) {
  Registry::Use collection = find(name);
  collection->queue(document, client);
  follow(std::move(collection), nullptr);
}

void LocalStore::reportOutcome(const std::string& name, ParseOutcome outcome,
                               const std::string& client) {
  if (registry_.isOpen(name)) return find(name)->reportOutcome(std::move(outcome), client);
  // What is told may be that it cannot be opened.
  if (!std::filesystem::exists(pathOf(name))) throwUnknown(name);
  outcomesOf(name)->push(std::move(outcome), 0, client);
}

void LocalStore::deleteDocument(const std::string& name, const std::string& key, bool mustExist) {
  Registry::Use collection = find(name);
  std::shared_ptr<Ticket> applied = collection->remove(key, mustExist);
  follow(std::move(collection), std::move(applied));
}

BatchOutcome LocalStore::apply(const std::string& name, Batch batch) {
  Registry::Use collection = find(name);
  Collection::Applied applied = collection->apply(std::move(batch));
  follow(std::move(collection), std::move(applied.ticket));
  return std::move(applied.outcome);
}

BatchOutcome LocalStore::batchOutcome(const std::string& name, const std::string& batch) {
  return find(name)->batchOutcome(batch);
}

void LocalStore::updateIndex(const std::string& name) {
  Registry::Use collection = find(name);
  std::shared_ptr<Ticket> update = collection->requestUpdate();
  follow(std::move(collection), std::move(update));
}

// What comes of a change: work in the background, and the reply may have to wait for it.
void LocalStore::follow(Registry::Use collection, std::shared_ptr<Ticket> ticket) {
  armRefresh(*collection);
  startIndexing(std::move(collection));
  if (ticket) RequestContext::await(std::move(ticket));
}

void LocalStore::armRefresh(Collection& collection) {
  const auto time = collection.takeRefreshTime();
  if (!time) return;
  try {
    indexers_->later(*time, [this, name = collection.name()] { refresh(name); });
  } catch (...) {
    collection.forgetRefresh();
    throw;
  }
}

// It may have been closed since. Others have to be indexed while a large one is opened.
void LocalStore::refresh(const std::string& name) {
  if (stopping_) return;
  open(name,
       [this, name](const std::optional<ServerError>& failure) { refreshOpened(name, failure); });
}

void LocalStore::refreshOpened(const std::string& name,
                               const std::optional<ServerError>& failure) noexcept {
  try {
    try {
      if (failure) throw ServerError(failure->kind(), failure->what());
      refreshOpen(name);
    } catch (const ServerError& error) {
      refreshAgain(name, error);
    } catch (const std::bad_alloc&) {
      refreshAgain(name, {ErrorKind::OutOfMemory, "there is not enough memory"});
    }
  } catch (const std::exception&) {
    // Whoever uses it next has it refreshed.
    if (const auto collection = registry_.useIfOpen(name)) (*collection)->forgetRefresh();
  }
}

// Whoever calls this may have come to close it, and is not to be the one who opens it.
void LocalStore::refreshOpen(const std::string& name) {
  auto collection = registry_.useIfOpen(name);
  if (!collection) return refresh(name);
  openingRetries_.forget(name);
  (*collection)->refresh();
  startIndexing(std::move(*collection));
}

void LocalStore::refreshAgain(const std::string& name, const ServerError& failure) {
  if (failure.kind() == ErrorKind::UnknownCollection) return openingRetries_.forget(name);
  if (stopping_) return;
  const OpeningRetries::Retry retry = openingRetries_.failed(name, failure);
  indexers_->later(retry.after, [this, name] { refresh(name); });
  if (!retry.isNews) return;
  const std::string line =
      fmt::format("failure: action=\"refresh\" collection={} error={} reason={}", logged(name),
                  messageId(failure.kind()), logged(failure.what(), kMaxReason));
  if (repeats_.pass(line)) spdlog::error("{}", line);
}

// The collection stays open until the work is done.
void LocalStore::startIndexing(Registry::Use collection) {
  startIndexing(std::make_shared<Registry::Use>(std::move(collection)));
}

void LocalStore::startIndexing(const std::shared_ptr<Registry::Use>& collection) {
  if (!(*collection)->takeOnIndexing()) return;
  try {
    handOver(collection);
  } catch (...) {
    (*collection)->giveUpIndexing();
    throw;
  }
}

// Others may rely on it by now. If it cannot be handed over for want of memory, they would have to
// wait for the next request, so that it is done here.
void LocalStore::handOver(const std::shared_ptr<Registry::Use>& collection) {
  try {
    indexers_->run([this, collection] { return indexStep(collection); });
  } catch (const std::bad_alloc&) {
    while (indexStep(collection)) {
    }
  }
}

// While single changes come one after the other the index is not brought to rest after each. It
// stays open until that is done.
bool LocalStore::indexStep(const std::shared_ptr<Registry::Use>& collection) {
  if ((*collection)->indexStep()) return true;
  armRefresh(**collection);
  armRest(collection);
  return false;
}

void LocalStore::armRest(const std::shared_ptr<Registry::Use>& collection) {
  if (!(*collection)->takeRest()) return;
  try {
    indexers_->later(kRestAfter, [this, collection] {
      (*collection)->rest();
      startIndexing(collection);
    });
  } catch (...) {
    (*collection)->forgetRest();
    throw;
  }
}

std::vector<ParseOutcome> LocalStore::takeParseOutcomes(const std::string& name,
                                                        const std::string& client) {
  return find(name)->takeOutcomes(client);
}

std::unique_ptr<HitSource> LocalStore::search(const std::string& name, const SearchQuery& query) {
  return find(name)->search(query);
}

std::unique_ptr<HitSource> LocalStore::match(const std::string& name, const SearchQuery& query,
                                             const std::vector<Document>& documents) {
  return find(name)->match(query, documents);
}

Estimate LocalStore::estimate(const std::string& name, const std::string& query,
                              std::uint64_t exactHits) {
  return find(name)->estimate(query, exactHits);
}

std::uint64_t LocalStore::count(const std::string& name, const SearchQuery& query) {
  return find(name)->count(query);
}

void LocalStore::visit(const std::string& name, const SearchQuery& query,
                       const DocumentVisitor& take) {
  find(name)->visit(query, take);
}

std::vector<HitDetails> LocalStore::details(const std::string& name, const SearchQuery& query,
                                            const DetailsWanted& wanted) {
  return find(name)->details(query, wanted);
}

// In the order of their names, so that no two searches wait for each other.
std::vector<HitDetails> LocalStore::details(const std::vector<std::string>& names,
                                            const SearchQuery& query, const DetailsWanted& wanted) {
  std::vector<Registry::Use> uses;
  std::vector<Collection*> collections;
  for (const std::string& name : std::set<std::string>(names.begin(), names.end())) {
    uses.push_back(find(name));
    collections.push_back(&*uses.back());
  }
  return Collection::details(collections, query, wanted);
}

CollectionState LocalStore::state(const std::string& name) { return find(name)->state(); }

CollectionSummary LocalStore::summary(const std::string& name) { return find(name)->summary(); }

BackupKeeper::House LocalStore::house() {
  constexpr auto kAll = std::numeric_limits<std::uint64_t>::max();
  return {root_,
          collectionsRoot_,
          registry_,
          limits_.index.memory,
          limits_.index.descriptors,
          stopping_,
          [this] { return collections({}, kAll); },
          [this] { return freshTemporary(); },
          [this](const std::string& name) { forget(name); },
          limits_.unusedWithin};
}

BackupKeeper& LocalStore::keeper() {
  if (keeper_) return *keeper_;
  throw ServerError(ErrorKind::UnsupportedAction,
                    "the server has no directory for backups; start it with --backup-directory");
}

void LocalStore::backup(const std::string& backup, const std::string& name) {
  keeper().backup(backup, name);
}

void LocalStore::restore(const Restoration& restoration) { keeper().restore(restoration); }

std::vector<BackupSummary> LocalStore::backups(const std::string& after, std::uint64_t most) {
  return keeper().list(after, most);
}

std::vector<std::string> LocalStore::collections(const std::string& after, std::uint64_t most) {
  std::vector<std::string> names;
  DirectoryReader reader(collectionsRoot_);
  while (const auto entry = reader.next()) {
    auto name = nameIfCollection(entry->path.filename().string());
    if (name && *name > after) names.push_back(std::move(*name));
  }
  std::sort(names.begin(), names.end());
  if (names.size() > most) names.resize(static_cast<std::size_t>(most));
  return names;
}

// Changes that waited when the collection was closed, or the server stopped, wait no longer; nor do
// those of a request that failed after it had been accepted.
Registry::Use LocalStore::find(const std::string& name) {
  Registry::Use collection = registry_.use(name);
  catchUp(*collection);
  armRefresh(*collection);
  if (!collection->takeOverdue()) return collection;
  startIndexing(std::move(collection));
  return registry_.use(name);
}

// Whoever only reads is not refused for want of memory that others need.
void LocalStore::catchUp(Collection& collection) {
  try {
    collection.noteLackedBatch();
  } catch (const std::bad_alloc&) {
    // The next one tries it, too.
  }
}

std::unique_ptr<Collection> LocalStore::read(const std::string& name) {
  try {
    std::unique_ptr<Collection> collection = readFiles(name);
    noteOpening(name, false);
    return collection;
  } catch (const ShortageError&) {
    // It says nothing of the collection's files.
    throw;
  } catch (const ServerError& error) {
    const bool isGone = error.kind() == ErrorKind::UnknownCollection;
    // What else fails passes, and says nothing of the files.
    if (isGone || error.kind() == ErrorKind::StorageFailed) noteOpening(name, !isGone);
    throw;
  } catch (const std::system_error&) {
    noteOpening(name, true);
    throw;
  }
}

void LocalStore::noteOpening(const std::string& name, bool failed) noexcept {
  try {
    const std::lock_guard lock(unopenedMutex_);
    if (failed) {
      unopened_.insert(name);
    } else {
      unopened_.erase(name);
    }
  } catch (const std::bad_alloc&) {
    // Whoever wants it opened is told, and the next attempt notes it.
  }
}

CollectionCounts LocalStore::counts() const {
  CollectionCounts counts = registry_.counts();
  const std::lock_guard lock(unopenedMutex_);
  counts.notOpened = unopened_.size();
  return counts;
}

// The first request that names a collection opens it, so that a damaged one does not affect the
// others.
std::unique_ptr<Collection> LocalStore::readFiles(const std::string& name) {
  const std::filesystem::path path = pathOf(name);
  if (!std::filesystem::exists(path)) throwUnknown(name);
  makeRoom();
  for (;;) {
    try {
      return std::make_unique<Collection>(name, path, limits_, outcomesOf(name), stopping_);
    } catch (const ServerError& error) {
      // Memory is what may be missing; descriptors have been looked for already.
      if (error.kind() != ErrorKind::TryAgain || stopping_ || !registry_.closeOldest()) throw;
    }
  }
}

// Open collections take at most a quarter of the memory, so that requests keep the rest.
void LocalStore::makeRoom() {
  constexpr std::size_t kShareOfMemory = 4;
  if (!limits_.index.memory) return;
  const std::size_t most = limits_.index.memory->limit() / kShareOfMemory / Collection::kOpenBytes;
  while (registry_.size() > most && registry_.closeOldest()) {
  }
}

std::shared_ptr<ParseOutcomes> LocalStore::outcomesOf(const std::string& name) {
  const std::lock_guard lock(outcomesMutex_);
  if (outcomes_.size() >= outcomesToPrune_) {
    std::erase_if(outcomes_, [](const auto& entry) {
      return entry.second.use_count() == 1 && entry.second->empty();
    });
    outcomesToPrune_ = 64 + 2 * outcomes_.size();
  }
  std::shared_ptr<ParseOutcomes>& outcomes = outcomes_[name];
  if (!outcomes) outcomes = std::make_shared<ParseOutcomes>(limits_.outcomes, outcomeMemory_);
  return outcomes;
}

// The collection has gone, or others have come in its place.
void LocalStore::forget(const std::string& name) {
  noteOpening(name, false);
  const std::lock_guard lock(outcomesMutex_);
  outcomes_.erase(name);
}

// What is no plain file may take any time to read. A collection that does not exist takes none.
std::uintmax_t LocalStore::bytesToRead(const std::string& name) const {
  std::uintmax_t bytes = 0;
  try {
    TreeReader reader(pathOf(name));
    while (const auto entry = reader.next()) {
      if (entry->isDirectory) continue;
      std::error_code gone;
      if (!std::filesystem::is_regular_file(entry->path, gone)) {
        return std::numeric_limits<std::uintmax_t>::max();
      }
      const std::uintmax_t size = std::filesystem::file_size(entry->path, gone);
      if (!gone) bytes += size;
    }
  } catch (const ServerError&) {
    // Whoever opens it is told what is wrong.
  }
  return bytes;
}

std::filesystem::path LocalStore::pathOf(const std::string& name) const {
  return collectionsRoot_ / directoryNameFor(name);
}

// directoryNameFor never returns a name with a dot.
std::filesystem::path LocalStore::freshTemporary() {
  std::filesystem::path path = collectionsRoot_ / fmt::format(".passing-{}", ++temporaries_);
  removeTree(path);
  std::filesystem::create_directory(path);
  return path;
}

void LocalStore::removeLeftovers() const {
  DirectoryReader reader(collectionsRoot_);
  while (const auto entry = reader.next()) {
    if (entry->path.filename().string().starts_with('.')) removeTree(entry->path);
  }
}

}  // namespace corvaned
