#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "server/store/collection.h"
#include "server/store/dataDirectory.h"
#include "server/store/files.h"
#include "server/store/store.h"

namespace corvaned {

/// All collections in one directory, which only one process at a time may use.
///
///     LOCK                       held while a server runs
///     collections/<name>/        one collection, see directoryNameFor
///         index/                 the Xapian database
///         index-sums             its checksums; index-sums-changing during an update
///         journal-0000000000     which changes the journal must hold
///         journal-0000000001...  accepted changes that are not in the index yet
class LocalStore : public Store {
 public:
  /// Creates the directory if it does not exist. Throws ServerError(StorageFailed) if another
  /// server uses it.
  LocalStore(std::filesystem::path directory, StoreLimits limits);

  void createCollection(const std::string& name, const std::string& language) override;
  void openCollection(const std::string& name) override;
  void closeCollection(const std::string& name) override;
  void deleteCollection(const std::string& name) override;
  void addDocument(const std::string& name, const Document& document) override;
  void queueDocument(const std::string& name, const Document& document) override;
  void reportOutcome(const std::string& name, ParseOutcome outcome) override;
  void deleteDocument(const std::string& name, const std::string& key) override;
  void updateIndex(const std::string& name) override;
  std::vector<ParseOutcome> takeParseOutcomes(const std::string& name) override;
  std::unique_ptr<HitSource> search(const std::string& name, const SearchQuery& query) override;
  std::unique_ptr<HitSource> match(const std::string& name, const SearchQuery& query,
                                   const std::vector<Document>& documents) override;
  using Store::estimate;
  Estimate estimate(const std::string& name, const std::string& query,
                    std::uint64_t exactHits) override;
  std::uint64_t count(const std::string& name, const SearchQuery& query) override;
  void visit(const std::string& name, const SearchQuery& query,
             const DocumentVisitor& take) override;
  CollectionState state(const std::string& name) override;
  CollectionSummary summary(const std::string& name) override;
  std::vector<std::string> collections(const std::string& after, std::uint64_t most) override;

 private:
  std::shared_ptr<Collection> find(const std::string& name);
  std::shared_ptr<Collection> opened(const std::string& name);
  std::filesystem::path pathOf(const std::string& name) const;
  std::filesystem::path freshTemporary();
  void removeLeftovers() const;

  const std::filesystem::path root_;
  const std::filesystem::path collectionsRoot_;
  const StoreLimits limits_;
  FileHandle lock_;

  std::mutex mutex_;
  // Guarded by mutex_: the open collections, and how many temporary directories were named so far.
  std::map<std::string, std::shared_ptr<Collection>> open_;
  std::uint64_t temporaries_ = 0;
};

}  // namespace corvaned
