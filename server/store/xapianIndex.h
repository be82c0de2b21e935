#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "server/store/change.h"
#include "server/store/store.h"

namespace corvaned {

struct IndexLimits {
  /// Longest query text in bytes.
  std::size_t queryBytes = 16384;
  /// Most words of one query, after expansion of none.
  std::size_t queryTerms = 256;
  /// Most words that one word with a trailing * may stand for.
  std::size_t expansion = 1000;
  /// Most changes of one transaction, and bytes after which no more are added to it.
  std::size_t batchChanges = 1000;
  std::size_t batchBytes = std::size_t{16} << 20U;
};

/// The searchable part of one collection: a Xapian database in a directory. No Xapian type leaves
/// this class. Searches may run on any number of threads and beside one writer; only one thread may
/// apply changes at a time. Errors are ServerError.
class XapianIndex {
 public:
  /// Makes an empty database whose words are stemmed for `language` ("en_us", "de", ...); a
  /// language without a stemmer is indexed word for word.
  static void create(const std::filesystem::path& path, const std::string& language);

  XapianIndex(std::filesystem::path path, IndexLimits limits);
  ~XapianIndex();
  XapianIndex(const XapianIndex&) = delete;
  XapianIndex& operator=(const XapianIndex&) = delete;

  using ChangeSource = std::function<void(const std::function<void(Change&&)>& take)>;
  /// Called between transactions; true stops the work.
  using StopCheck = std::function<bool()>;

  /// Brings changes into the database in transactions of bounded size, durable on return. Documents
  /// that the database refuses are left out and reported. Throws when the storage fails or `stop`
  /// says so; part of the changes may then be in, and applying all of them again is right.
  std::vector<ParseOutcome> apply(const ChangeSource& changes, const StopCheck& stop);

  /// `hidden`: keys that are not to be found.
  std::unique_ptr<HitSource> search(const SearchQuery& query,
                                    const std::vector<std::string>& hidden);
  Estimate estimate(const std::string& query, const std::vector<std::string>& hidden);

  /// Closes the handles that are kept open for the next searches.
  void releaseHandles();

 private:
  class Reader;
  class Writer;
  class Lease;

  const std::filesystem::path path_;
  const IndexLimits limits_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<Reader>> idleReaders_;  // Guarded by mutex_.
};

}  // namespace corvaned
