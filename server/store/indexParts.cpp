#include "server/store/indexParts.h"

#include <fmt/format.h>

#include <limits>
#include <utility>

#include "server/base/errors.h"

namespace corvaned {
namespace {

constexpr const char* kPartsEntry = "parts";
constexpr std::string_view kHash = "fnv1a-64-folded";

// Documents are where this says, so it can never be another one.
std::uint64_t hashOf(std::string_view key) {
  std::uint64_t hash = 14695981039346656037U;
  for (const char c : key) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211U;
  }
  // Its lowest bits alone tell little of a key: all keys with certain check digits, or in which
  // everything stands twice, have the same lowest one.
  return hash ^ (hash >> 32U);
}

std::filesystem::path pathOf(const std::filesystem::path& index, std::size_t part) {
  return index / fmt::format("part-{}", part);
}

}  // namespace

IndexParts::IndexParts(const std::filesystem::path& index, std::size_t count) {
  if (count == 1) paths_.push_back(index);
  for (std::size_t part = 0; count > 1 && part < count; ++part) {
    paths_.push_back(pathOf(index, part));
  }
}

// Whether some are missing is known by what the others say.
IndexParts IndexParts::in(const std::filesystem::path& index) {
  IndexParts parts(index, 0);
  while (std::filesystem::exists(pathOf(index, parts.size()))) {
    parts.paths_.push_back(pathOf(index, parts.size()));
  }
  return parts.paths_.empty() ? IndexParts(index, 1) : parts;
}

std::size_t IndexParts::partOf(std::string_view key) const {
  return paths_.size() == 1 ? 0 : static_cast<std::size_t>(hashOf(key) % paths_.size());
}

Xapian::Database IndexParts::open() const {
  Xapian::Database all;
  for (std::size_t part = 0; part < paths_.size(); ++part) {
    const Xapian::Database one(paths_[part].string());
    check(one, part, 0);
    all.add_database(one);
  }
  return all;
}

IndexRevisions IndexParts::revisions() const {
  IndexRevisions revisions;
  for (const std::filesystem::path& path : paths_) {
    const std::string name = paths_.size() == 1 ? std::string() : path.filename().string();
    revisions[name] = Xapian::Database(path.string()).get_revision();
  }
  return revisions;
}

void IndexParts::mark(Xapian::WritableDatabase& database, std::size_t part) const {
  if (paths_.size() > 1) database.set_metadata(kPartsEntry, entryOf(part));
}

void IndexParts::checkPlace(const Xapian::Database& database, std::size_t part) const {
  const std::string entry = database.get_metadata(kPartsEntry);
  if (entry == entryOf(part)) return;
  throw ServerError(
      ErrorKind::StorageFailed,
      fmt::format("{} is another part of an index than its place says ({}, not {}); restore the "
                  "collection, or use the version of this server that has made it",
                  paths_[part].string(), shown(entry), shown(entryOf(part))));
}

// The engine numbers the documents of several databases in turns, and does not notice when the
// numbers get too high.
void IndexParts::check(const Xapian::Database& database, std::size_t part, std::size_t more) const {
  checkPlace(database, part);
  const std::uint64_t last = std::uint64_t{database.get_lastdocid()} + more;
  if (last * paths_.size() <= std::numeric_limits<Xapian::docid>::max()) return;
  throw ServerError(ErrorKind::StorageFailed,
                    fmt::format("{} has no numbers left for documents; add them to a new "
                                "collection",
                                paths_[part].string()));
}

std::string IndexParts::entryOf(std::size_t part) const {
  return paths_.size() == 1 ? std::string() : fmt::format("{} {} {}", kHash, paths_.size(), part);
}

}  // namespace corvaned
