#include "server/store/localStore.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spdlog/spdlog.h>
#include <sys/file.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "server/base/errors.h"
#include "server/store/textNormalizer.h"

namespace corvaned {
namespace {

// File systems limit a name to 255 bytes.
constexpr std::size_t kMaxDirectoryName = 240;

bool standsForItself(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-';
}

FileHandle acquire(const std::filesystem::path& path) {
  FileHandle file = openFile(path, O_RDWR | O_CREAT);
  if (::flock(file.get(), LOCK_EX | LOCK_NB) == 0) return file;
  if (errno != EWOULDBLOCK) throwSystemError("cannot lock", path);
  throw ServerError(ErrorKind::StorageFailed,
                    "the data directory " + path.parent_path().string() +
                        " is in use by another server; stop it, or choose another directory");
}

std::filesystem::path prepared(std::filesystem::path directory) {
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (error) {
    throw ServerError(ErrorKind::StorageFailed, "cannot create the data directory " +
                                                    directory.string() + ": " + error.message());
  }
  return directory;
}

[[noreturn]] void throwUnknown(const std::string& name) {
  throw ServerError(ErrorKind::UnknownCollection, "there is no collection " + shown(name));
}

}  // namespace

std::string directoryNameFor(std::string_view collection) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  if (collection.empty() || !isUtf8(collection)) {
    throw ServerError(ErrorKind::BadCollectionName, "a collection's name must be UTF-8 text");
  }
  std::string name;
  for (const char c : collection) {
    const auto byte = static_cast<unsigned char>(c);
    if (standsForItself(c))
      name += c;
    else
      name.append({'%', kDigits[byte >> 4U], kDigits[byte & 0xFU]});
  }
  if (name.size() > kMaxDirectoryName) {
    throw ServerError(ErrorKind::BadCollectionName,
                      "the collection name " + shown(collection) +
                          " is too long; at most 240 letters and digits are possible, and 80 bytes "
                          "in any writing");
  }
  return name;
}

LocalStore::LocalStore(std::filesystem::path directory, StoreLimits limits)
    : root_(prepared(std::move(directory))),
      collectionsRoot_(prepared(root_ / "collections")),
      limits_(limits),
      lock_(acquire(root_ / "LOCK")) {
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

Estimate LocalStore::estimate(const std::string& name, const std::string& query) {
  return find(name)->estimate(query);
}

CollectionState LocalStore::state(const std::string& name) { return find(name)->state(); }

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
