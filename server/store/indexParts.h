#pragma once

#include <xapian.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "server/store/indexSums.h"

namespace corvaned {

/// The databases of an index. Usually it is one; several share the documents, so that each can be
/// written on a thread of its own, and are searched as if they were one.
///
///     index/                     the database, if it is the only one
///     index/part-0/ ...          the databases, if there are several
///
/// The hash of its key says in which of them a document is. Neither the hash nor their number ever
/// changes. Each database says in its metadata which part of what it is, so that none of them can
/// be taken for another one. The only database of an index says nothing.
class IndexParts {
 public:
  /// Those of an index that is to be made.
  IndexParts(const std::filesystem::path& index, std::size_t count);
  /// Those that an index has.
  static IndexParts in(const std::filesystem::path& index);

  std::size_t size() const { return paths_.size(); }
  const std::vector<std::filesystem::path>& paths() const { return paths_; }

  /// Which of them has the document with that key.
  std::size_t partOf(std::string_view key) const;

  /// All of them as one database. Throws ServerError(StorageFailed) if one of them is not what it
  /// should be.
  Xapian::Database open() const;
  /// That of each.
  IndexRevisions revisions() const;

  /// Writes into a new database which part it is.
  void mark(Xapian::WritableDatabase& database, std::size_t part) const;
  /// Throws ServerError(StorageFailed) if the database is another part than that one.
  void checkPlace(const Xapian::Database& database, std::size_t part) const;
  /// The same, and if all of them together could not number so many more documents.
  void check(const Xapian::Database& database, std::size_t part, std::size_t more) const;

 private:
  std::string entryOf(std::size_t part) const;

  std::vector<std::filesystem::path> paths_;
};

}  // namespace corvaned
