#include "server/store/localStore.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <limits>
#include <new>
#include <optional>
#include <system_error>
#include <utility>

#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/store/dataDirectory.h"

namespace corvaned {
namespace {

constexpr std::chrono::milliseconds kRestAfter{1000};
// Large collections are opened two at a time.
constexpr std::size_t kOpeners = 2;
// Up to this size a collection is opened by whoever needs it.
constexpr std::uintmax_t kQuicklyRead = std::uintmax_t{4} << 20U;

std::filesystem::path prepared(std::filesystem::path directory) {
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (error) {
    throw ServerError(ErrorKind::StorageFailed, "cannot create the data directory " +
                                                    directory.string() + ": " + error.message());
  }
  return directory;
}

// Others may have put something of their own beside the collections.
std::optional<std::string> nameIfCollection(const std::string& directory) {
  std::string name = collectionNameFor(directory);
  try {
    if (directoryNameFor(name) == directory) return name;
  } catch (const ServerError&) {
    // No collection can have that name.
  }
  return std::nullopt;
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

}  // namespace

LocalStore::LocalStore(std::filesystem::path directory, StoreLimits limits,
                       const std::optional<std::filesystem::path>& backups)
    : root_(prepared(noBackup(std::move(directory)))),
      collectionsRoot_(prepared(collectionsIn(root_))),
      limits_(std::move(limits)),
      lock_(lockDataDirectory(root_)),
      registry_([this](const std::string& name) { return read(name); }) {
  syncDirectory(root_);
  removeLeftovers();
  if (limits_.index.descriptors) {
    limits_.index.descriptors->setReclaim([this] { return registry_.closeOldest(); });
  }
  indexers_ = std::make_unique<IndexScheduler>(limits_.indexThreads);
  openers_ = std::make_unique<asio::thread_pool>(kOpeners);
  if (backups) keeper_ = std::make_unique<BackupKeeper>(*backups, house());
}

LocalStore::~LocalStore() {
  stopping_ = true;
  keeper_.reset();
  openers_->join();
  indexers_->stop();
}

bool LocalStore::isOpen(const std::string& name) { return registry_.isOpen(name); }

void LocalStore::open(const std::string& name, Opened opened) {
  const auto opening = registry_.awaitOpen(name, std::move(opened));
  if (!opening) return;
  try {
    if (!isQuicklyRead(name)) {
      return asio::post(*openers_, [opening = *opening] { opening.carryOut(); });
    }
  } catch (const std::bad_alloc&) {
    // Others wait for it, too, so that it is carried out here and tells what is missing.
  }
  opening->carryOut();
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
  Collection::create(temporary, {language, options}, refresh);
  std::filesystem::rename(temporary, path);
  syncDirectory(collectionsRoot_);
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
    std::filesystem::rename(path, temporary / "deleted");
    syncDirectory(collectionsRoot_);
    forgetOutcomes(name);
  }
  std::error_code error;
  std::filesystem::remove_all(temporary, error);
  if (error) spdlog::warn("cannot remove {}: {}", temporary.string(), error.message());
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
  find(name)->reportOutcome(std::move(outcome), client);
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
  if (time) indexers_->later(*time, [this, name = collection.name()] { refresh(name); });
}

// It may have been closed since. Others have to be indexed while a large one is opened.
void LocalStore::refresh(const std::string& name) {
  open(name, [this, name](const std::optional<ServerError>& failure) {
    try {
      if (failure) throw ServerError(failure->kind(), failure->what());
      refreshOpen(name);
    } catch (const std::exception& error) {
      // It may have been deleted; and whoever needs it is told if it cannot be opened.
      spdlog::debug("collection {} is not refreshed: {}", shown(name), error.what());
    }
  });
}

void LocalStore::refreshOpen(const std::string& name) {
  Registry::Use collection = find(name);
  collection->refresh();
  startIndexing(std::move(collection));
}

// The collection stays open until the work is done.
void LocalStore::startIndexing(Registry::Use collection) {
  startIndexing(std::make_shared<Registry::Use>(std::move(collection)));
}

void LocalStore::startIndexing(const std::shared_ptr<Registry::Use>& collection) {
  if (!(*collection)->takeOnIndexing()) return;
  try {
    indexers_->run([this, collection] { return indexStep(collection); });
  } catch (...) {
    // Without memory for the first step somebody else has to be able to begin.
    (*collection)->giveUpIndexing();
    throw;
  }
}

// While single changes come one after the other the index is not brought to rest after each. It
// stays open until that is done.
bool LocalStore::indexStep(const std::shared_ptr<Registry::Use>& collection) {
  if ((*collection)->indexStep()) return true;
  armRefresh(**collection);
  if ((*collection)->takeRest()) {
    indexers_->later(kRestAfter, [this, collection] {
      (*collection)->rest();
      startIndexing(collection);
    });
  }
  return false;
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
          [this](const std::string& name) { forgetOutcomes(name); },
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
  for (const auto& entry : std::filesystem::directory_iterator(collectionsRoot_)) {
    auto name = nameIfCollection(entry.path().filename());
    if (name && *name > after) names.push_back(std::move(*name));
  }
  std::sort(names.begin(), names.end());
  if (names.size() > most) names.resize(static_cast<std::size_t>(most));
  return names;
}

// Changes that waited when the collection was closed, or the server stopped, wait no longer.
Registry::Use LocalStore::find(const std::string& name) {
  Registry::Use collection = registry_.use(name);
  // As soon as nobody uses it. Whoever comes then has it opened.
  if (collection->mustBeReopened()) registry_.close(name);
  if (!collection->takeOverdue()) return collection;
  startIndexing(std::move(collection));
  return registry_.use(name);
}

// The first request that names a collection opens it, so that a damaged one does not affect the
// others.
std::unique_ptr<Collection> LocalStore::read(const std::string& name) {
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
  if (!outcomes) outcomes = std::make_shared<ParseOutcomes>(limits_.outcomes);
  return outcomes;
}

void LocalStore::forgetOutcomes(const std::string& name) {
  const std::lock_guard lock(outcomesMutex_);
  outcomes_.erase(name);
}

// What is no plain file may take any time to read. A collection that does not exist takes none.
bool LocalStore::isQuicklyRead(const std::string& name) const {
  std::uintmax_t bytes = 0;
  std::error_code error;
  std::filesystem::recursive_directory_iterator entry;
  try {
    entry = std::filesystem::recursive_directory_iterator(pathOf(name), error);
  } catch (const ServerError&) {
    return true;
  }
  for (; !error && entry != std::filesystem::recursive_directory_iterator();
       entry.increment(error)) {
    if (entry->is_directory(error)) continue;
    if (!entry->is_regular_file(error)) return false;
    bytes += entry->file_size(error);
  }
  return bytes <= kQuicklyRead;
}

std::filesystem::path LocalStore::pathOf(const std::string& name) const {
  return collectionsRoot_ / directoryNameFor(name);
}

// directoryNameFor never returns a name with a dot.
std::filesystem::path LocalStore::freshTemporary() {
  std::filesystem::path path = collectionsRoot_ / fmt::format(".passing-{}", ++temporaries_);
  std::filesystem::remove_all(path);
  std::filesystem::create_directory(path);
  return path;
}

void LocalStore::removeLeftovers() const {
  for (const auto& entry : std::filesystem::directory_iterator(collectionsRoot_)) {
    if (entry.path().filename().string().starts_with('.')) {
      std::filesystem::remove_all(entry.path());
    }
  }
}

}  // namespace corvaned
