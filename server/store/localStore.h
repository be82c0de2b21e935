#pragma once

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "server/base/logRepeats.h"
#include "server/store/backupKeeper.h"
#include "server/store/collection.h"
#include "server/store/dataDirectory.h"
#include "server/store/indexScheduler.h"
#include "server/store/openingRetries.h"
#include "server/store/parseOutcomes.h"
#include "server/store/registry.h"
#include "server/store/store.h"

namespace asio {
class thread_pool;
}

namespace corvaned {

/// All collections in one directory, which only one process at a time may use.
///
///     LOCK                       held while a server runs, and so is the directory itself
///     collections/<name>/        one collection, see directoryNameFor
///         index/                 the Xapian database, or part-0 and so on, each of which is one
///         index-sums             its checksums; index-sums-changing during an update
///         index-undo             only while several databases commit: how to undo that
///         options                how it differs from a collection without this file
///         document-defaults      how its documents are read where nobody says it
///         batches                which batches it knows, and its mark
///         journal-0000000000     which changes the journal must hold
///         journal-0000000001...  accepted changes that are not in the index yet
///     before-repair/             collections as they were before they were repaired
///     before-restore/            collections as they were before others took their places
///
/// A collection is opened by the first request that needs it and closed when its descriptors or its
/// memory are needed for another one, or on request. Large ones are opened on threads of their own.
class LocalStore : public Store {
 public:
  /// Creates the directory if it does not exist. Throws ServerError(StorageFailed) if another
  /// server uses it. Without a directory for them backups are refused.
  LocalStore(std::filesystem::path directory, StoreLimits limits,
             const std::optional<std::filesystem::path>& backups = std::nullopt);
  ~LocalStore() override;

  bool isOpen(const std::string& name) override;
  void open(const std::string& name, Opened opened) override;
  bool isSettled(const std::string& name) override;
  void awaitSettled(const std::string& name, Opened settled) override;
  void stop() override;
  void createCollection(const std::string& name, const std::string& language,
                        const Refresh& refresh = {}, const TextOptions& options = {}) override;
  void openCollection(const std::string& name) override;
  void closeCollection(const std::string& name) override;
  void deleteCollection(const std::string& name) override;
  DocumentReading documentDefaults(const std::string& name) override;
  std::optional<DocumentReading> documentDefaultsIfOpen(const std::string& name) override;
  void setDocumentDefaults(const std::string& name, const DocumentReading& defaults) override;
  void addDocument(const std::string& name, const Document& document) override;
  using Store::queueDocument;
  void queueDocument(const std::string& name, const Document& document,
                     const std::string& client) override;
  using Store::reportOutcome;
  void reportOutcome(const std::string& name, ParseOutcome outcome,
                     const std::string& client) override;
  using Store::deleteDocument;
  void deleteDocument(const std::string& name, const std::string& key, bool mustExist) override;
  BatchOutcome apply(const std::string& name, Batch batch) override;
  BatchOutcome batchOutcome(const std::string& name, const std::string& batch) override;
  void updateIndex(const std::string& name) override;
  using Store::takeParseOutcomes;
  std::vector<ParseOutcome> takeParseOutcomes(const std::string& name,
                                              const std::string& client) override;
  std::unique_ptr<HitSource> search(const std::string& name, const SearchQuery& query) override;
  std::unique_ptr<HitSource> match(const std::string& name, const SearchQuery& query,
                                   const std::vector<Document>& documents) override;
  using Store::estimate;
  Estimate estimate(const std::string& name, const std::string& query,
                    std::uint64_t exactHits) override;
  std::uint64_t count(const std::string& name, const SearchQuery& query) override;
  void visit(const std::string& name, const SearchQuery& query,
             const DocumentVisitor& take) override;
  std::vector<HitDetails> details(const std::string& name, const SearchQuery& query,
                                  const DetailsWanted& wanted) override;
  std::vector<HitDetails> details(const std::vector<std::string>& names, const SearchQuery& query,
                                  const DetailsWanted& wanted) override;
  CollectionState state(const std::string& name) override;
  CollectionSummary summary(const std::string& name) override;
  void backup(const std::string& backup, const std::string& name) override;
  void restore(const Restoration& restoration) override;
  std::vector<BackupSummary> backups(const std::string& after, std::uint64_t most) override;
  std::vector<std::string> collections(const std::string& after, std::uint64_t most) override;
  /// Of those that were asked for since the start. Waits neither for the disk nor for a collection.
  CollectionCounts counts() const;

 private:
  StoreLimits completed(StoreLimits limits);
  BackupKeeper::House house();
  BackupKeeper& keeper();
  Registry::Use find(const std::string& name);
  static void catchUp(Collection& collection);
  std::unique_ptr<Collection> read(const std::string& name);
  std::unique_ptr<Collection> readFiles(const std::string& name);
  void noteOpening(const std::string& name, bool failed) noexcept;
  void startIndexing(Registry::Use collection);
  void startIndexing(const std::shared_ptr<Registry::Use>& collection);
  void handOver(const std::shared_ptr<Registry::Use>& collection);
  bool indexStep(const std::shared_ptr<Registry::Use>& collection);
  void follow(Registry::Use collection, std::shared_ptr<Ticket> ticket);
  void armRefresh(Collection& collection);
  void armRest(const std::shared_ptr<Registry::Use>& collection);
  void refresh(const std::string& name);
  void refreshOpened(const std::string& name, const std::optional<ServerError>& failure) noexcept;
  void refreshOpen(const std::string& name);
  void refreshAgain(const std::string& name, const ServerError& failure);
  std::uintmax_t bytesToRead(const std::string& name) const;
  void makeRoom();
  std::shared_ptr<ParseOutcomes> outcomesOf(const std::string& name);
  void forget(const std::string& name);
  std::filesystem::path pathOf(const std::string& name) const;
  std::filesystem::path freshTemporary();
  void removeLeftovers() const;

  const std::filesystem::path root_;
  const std::filesystem::path collectionsRoot_;
  const StoreLimits limits_;
  DataDirectoryLock lock_;

  std::atomic<bool> stopping_ = false;
  // How many temporary directories were named so far.
  std::atomic<std::uint64_t> temporaries_ = 0;

  const std::shared_ptr<OutcomeMemory> outcomeMemory_;
  std::mutex outcomesMutex_;
  // Guarded by outcomesMutex_: those of the open collections, and of closed ones what nobody has
  // asked for. Unneeded ones are removed when there are twice as many as at the last time.
  std::map<std::string, std::shared_ptr<ParseOutcomes>> outcomes_;
  std::size_t outcomesToPrune_ = 64;

  mutable std::mutex unopenedMutex_;
  // Those that could not be opened because of their files. Guarded by unopenedMutex_.
  std::set<std::string> unopened_;

  LogRepeats repeats_;
  OpeningRetries openingRetries_;

  Registry registry_;
  // Destroyed first: their threads use everything above.
  std::unique_ptr<IndexScheduler> indexers_;
  std::unique_ptr<asio::thread_pool> moreIndexers_;
  std::unique_ptr<asio::thread_pool> openers_;
  std::unique_ptr<asio::thread_pool> slowOpeners_;
  std::unique_ptr<BackupKeeper> keeper_;
};

}  // namespace corvaned
