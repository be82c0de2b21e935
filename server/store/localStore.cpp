#include "server/store/localStore.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <optional>
#include <system_error>
#include <utility>

#include "server/base/errors.h"
#include "server/store/dataDirectory.h"

namespace corvaned {
namespace {

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

[[noreturn]] void throwUnknown(const std::string& name) {
  throw ServerError(ErrorKind::UnknownCollection, "there is no collection " + shown(name));
}

}  // namespace

LocalStore::LocalStore(std::filesystem::path directory, StoreLimits limits)
    : root_(prepared(std::move(directory))),
      collectionsRoot_(prepared(collectionsIn(root_))),
      limits_(limits),
      lock_(lockDataDirectory(root_)) {
  syncDirectory(root_);
  removeLeftovers();
}

void LocalStore::createCollection(const std::string& name, const std::string& language) {
  const std::filesystem::path path = pathOf(name);
  const std::lock_guard lock(mutex_);
  if (std::filesystem::exists(path)) {
    throw ServerError(ErrorKind::CollectionExists,
                      "the collection " + shown(name) + " exists already");
  }
  // Created under a temporary name and renamed, so that a crash leaves a complete collection or
  // none.
  const std::filesystem::path temporary = freshTemporary();
  Collection::create(temporary, language);
  std::filesystem::rename(temporary, path);
  syncDirectory(collectionsRoot_);
}

void LocalStore::openCollection(const std::string& name) { find(name); }

void LocalStore::closeCollection(const std::string& name) { find(name)->releaseHandles(); }

// Does not open the collection, so that a damaged one can be deleted, too.
void LocalStore::deleteCollection(const std::string& name) {
  const std::filesystem::path path = pathOf(name);
  std::filesystem::path temporary;
  while (temporary.empty()) {
    const std::shared_ptr<Collection> collection = opened(name);
    if (collection) collection->retire();
    const std::lock_guard lock(mutex_);
    const auto found = open_.find(name);
    const std::shared_ptr<Collection> now = found == open_.end() ? nullptr : found->second;
    if (!collection && now) continue;
    // Another client may have deleted the collection meanwhile and created one of the same name.
    if (collection != now || !std::filesystem::exists(path)) throwUnknown(name);
    // If a later step fails, the next request opens the collection anew.
    if (now) open_.erase(found);
    temporary = freshTemporary();
    std::filesystem::rename(path, temporary / "deleted");
    syncDirectory(collectionsRoot_);
  }
  std::error_code error;
  std::filesystem::remove_all(temporary, error);
  if (error) spdlog::warn("cannot remove {}: {}", temporary.string(), error.message());
}

void LocalStore::addDocument(const std::string& name, const Document& document) {
  find(name)->add(document);
}

void LocalStore::queueDocument(const std::string& name, const Document& document) {
  find(name)->queue(document);
}

void LocalStore::reportOutcome(const std::string& name, ParseOutcome outcome) {
  find(name)->reportOutcome(std::move(outcome));
}

void LocalStore::deleteDocument(const std::string& name, const std::string& key) {
  find(name)->remove(key);
}

void LocalStore::updateIndex(const std::string& name) { find(name)->updateIndex(); }

std::vector<ParseOutcome> LocalStore::takeParseOutcomes(const std::string& name) {
  return find(name)->takeOutcomes();
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

CollectionState LocalStore::state(const std::string& name) { return find(name)->state(); }

CollectionSummary LocalStore::summary(const std::string& name) { return find(name)->summary(); }

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

// The first request that names a collection opens it, so that a damaged one does not affect the
// others.
std::shared_ptr<Collection> LocalStore::find(const std::string& name) {
  const std::lock_guard lock(mutex_);
  const auto found = open_.find(name);
  if (found != open_.end()) return found->second;
  const std::filesystem::path path = pathOf(name);
  if (!std::filesystem::exists(path)) throwUnknown(name);
  return open_[name] = std::make_shared<Collection>(name, path, limits_);
}

std::shared_ptr<Collection> LocalStore::opened(const std::string& name) {
  const std::lock_guard lock(mutex_);
  const auto found = open_.find(name);
  return found == open_.end() ? nullptr : found->second;
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
