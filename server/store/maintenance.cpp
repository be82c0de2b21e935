#include "server/store/maintenance.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>
#include <xapian.h>

#include <algorithm>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include "server/base/errors.h"
#include "server/store/backupManifest.h"
#include "server/store/batchMemory.h"
#include "server/store/collectionOptions.h"
#include "server/store/directory.h"
#include "server/store/files.h"
#include "server/store/indexCompaction.h"
#include "server/store/indexParts.h"
#include "server/store/indexReplacement.h"
#include "server/store/indexSalvage.h"
#include "server/store/indexSums.h"
#include "server/store/indexUndo.h"
#include "server/store/journal.h"
#include "server/store/journalTail.h"
#include "server/store/textAnalysis.h"
#include "server/store/xapianIndex.h"
#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

constexpr const char* kReadingSuffix = ".reading";

// Stands in what a repair makes until that has taken the place of the original.
std::filesystem::path incompleteMarkIn(const std::filesystem::path& collection) {
  return collection / "repair-incomplete";
}

// Nobody changes a backup, and it may be where nothing can be written.
DataDirectoryLock lockExisting(const std::filesystem::path& root) {
  if (!std::filesystem::is_directory(collectionsIn(root))) {
    throw ServerError(ErrorKind::StorageFailed,
                      root.string() + " is neither a data directory nor a backup");
  }
  return BackupManifest::existsIn(root) ? DataDirectoryLock() : lockToRead(root);
}

// What the checksums of a backup show, unless it is known of the file already.
void addDamageOfBackup(const std::filesystem::path& root, CollectionCheck& result) {
  std::set<std::filesystem::path> known;
  for (const Damage& damage : result.index) known.insert(damage.file);
  for (const JournalFault& fault : result.journal) known.insert(fault.damage.file);
  try {
    BackupManifest::read(root).verify(
        result.name,
        [&](const Damage& damage) {
          if (!known.contains(damage.file)) result.index.push_back(damage);
        },
        [] {});
  } catch (const ServerError&) {
    const std::filesystem::path path = BackupManifest::pathIn(root);
    result.index.push_back({path, 0, "the list of the files cannot be read"});
  }
}

// What the collection consists of until then cannot be told from its files.
void finishReplacement(const std::filesystem::path& collection) {
  if (IndexReplacement::isDecided(collection) && isOnReadOnlyFileSystem(collection)) {
    throw ServerError(ErrorKind::StorageFailed,
                      collection.string() +
                          ": a crash has cut off the change to a new index, which cannot be "
                          "completed on a read-only file system; check a copy");
  }
  IndexReplacement::finish(collection);
}

std::vector<Damage> checkIndex(const std::filesystem::path& collection, bool isNumbered,
                               const StopCheck& stop) {
  std::vector<Damage> damage;
  const std::filesystem::path index = collection / IndexSums::kIndexDirectory;
  if (!std::filesystem::is_directory(index)) return {{index, 0, "the directory is missing"}};
  try {
    if (IndexSums::existIn(collection)) {
      IndexSums(collection).verify([&](const Damage& each) { damage.push_back(each); }, stop);
    } else if (isNumbered) {
      damage.push_back({IndexSums::pathIn(collection), 0, "the file is missing"});
    }
  } catch (const ServerError& error) {
    if (error.kind() != ErrorKind::StorageFailed) throw;
    damage.push_back({IndexSums::pathIn(collection), 0, "the checksums cannot be read"});
  }
  if (const auto fault = IndexUndo::faultIn(collection)) {
    damage.push_back({IndexUndo::pathIn(collection), 0, *fault});
  }
  return damage;
}

// Nothing if it is not known. What cannot be read is reported with the rest of the index.
std::optional<std::uint64_t> lastChangeIn(const std::filesystem::path& collection) {
  if (!IndexSums::existIn(collection)) return std::nullopt;
  try {
    return IndexSums(collection).lastChange();
  } catch (const ServerError& error) {
    if (error.kind() != ErrorKind::StorageFailed) throw;
    return std::nullopt;
  }
}

void checkAge(const std::filesystem::path& collection, const JournalContents& journal,
              std::vector<JournalFault>& faults) {
  const auto indexed = journal.mark ? lastChangeIn(collection) : std::nullopt;
  if (!indexed) return;
  if (auto fault = misfitOf(collection, journal.range(), *indexed)) {
    faults.push_back(std::move(*fault));
  }
}

// Of an index whose blocks are as they were written.
std::string refreshKnownTo(const std::filesystem::path& index) {
  try {
    return refreshNotedIn(Xapian::Database(IndexParts::in(index).paths().front().string()));
  } catch (const Xapian::Error&) {
    return {};
  }
}

// A collection without the file has the defaults, unless its index knows better.
bool missesOptions(const std::filesystem::path& collection) {
  return !std::filesystem::exists(optionsPath(collection)) &&
         !refreshKnownTo(collection / IndexSums::kIndexDirectory).empty();
}

void checkBatches(const std::filesystem::path& collection, const JournalMark* mark,
                  std::vector<JournalFault>& faults) {
  const std::filesystem::path path = BatchMemory::pathIn(collection);
  if (mark && mark->allowsBatches() && !std::filesystem::exists(path)) {
    faults.push_back({{path, 0, "the file is missing"}, 0, 0, {}});
  }
  try {
    const BatchMemory batches(collection, {});
  } catch (const ServerError&) {
    faults.push_back({{path, 0, "what is known of batches cannot be read"}, 0, 0, {}});
  }
}

std::uint64_t unfinishedBytes(const std::filesystem::path& collection,
                              const std::vector<ScannedSegment>& segments) {
  if (segments.empty()) return 0;
  const ScannedSegment& last = segments.back();
  return std::filesystem::file_size(segmentPath(collection, last.number)) - last.bytes;
}

void askEngine(const std::filesystem::path& indexOrTable, std::vector<Damage>& damage) {
  try {
    const std::size_t errors = Xapian::Database::check(indexOrTable.string(), 0, nullptr);
    if (errors == 0) return;
    damage.push_back({indexOrTable, 0, fmt::format("the engine finds {} errors", errors)});
  } catch (const Xapian::Error& error) {
    damage.push_back({indexOrTable, 0, error.get_description()});
  }
}

// Nothing is known of the texts in an index that a later version has made.
bool hasTextsOfKnownForm(const Xapian::Database& database) {
  const std::string schema = database.get_metadata(kSchemaEntry);
  if (schema != kSchemaVersion && schema != kEarlierSchema) return false;
  try {
    return TextAnalysis(database).options().keepsText;
  } catch (const ServerError&) {
    return false;
  }
}

// To the checksums and the engine a text is any bytes. An index whose texts cannot all be read can
// never be brought into another form.
void readTexts(const std::filesystem::path& index, std::vector<Damage>& damage) {
  try {
    const Xapian::Database database(index.string());
    if (!hasTextsOfKnownForm(database)) return;
    for (auto next = database.postlist_begin(""); next != database.postlist_end(""); ++next) {
      const Xapian::Document stored = database.get_document(*next);
      const std::string key = stored.get_value(kKeySlot);
      if (readDocument(key, stored.get_data())) continue;
      damage.push_back({index, 0, "the text of the document " + shown(key) + " cannot be read"});
    }
  } catch (const Xapian::Error& error) {
    damage.push_back({index, 0, error.get_description()});
  }
}

// The engine checks tables that it has opened for writing.
bool canAskEngine(const std::filesystem::path& index) {
  TreeReader reader(index);
  while (const auto entry = reader.next()) {
    if (entry->path.extension() != kTableSuffix) continue;
    if (::access(entry->path.c_str(), W_OK) != 0) return false;
  }
  return true;
}

// What the checksums do not show of the databases of a whole index.
void askEngineOfAll(const std::filesystem::path& index, CollectionCheck& result) {
  const IndexParts parts = IndexParts::in(index);
  std::vector<Damage>& damage = result.index;
  result.engineLeftOut = !canAskEngine(index);
  for (const std::filesystem::path& database : parts.paths()) {
    if (!result.engineLeftOut) askEngine(database, damage);
  }
  for (std::size_t part = 0; part < parts.size() && damage.empty(); ++part) {
    readTexts(parts.paths()[part], damage);
  }
}

bool onlyTheSums(const std::vector<Damage>& damage, const std::filesystem::path& collection) {
  return damage.size() == 1 && damage.front().file == IndexSums::pathIn(collection);
}

/// Makes the repaired collection in an empty directory.
class Rebuilding {
 public:
  Rebuilding(const std::filesystem::path& damaged, std::filesystem::path fresh, Repair& repair)
      : damaged_(damaged), fresh_(std::move(fresh)), repair_(repair) {}

  void run() {
    if (repair_.found.index.empty() || onlyTheSums(repair_.found.index, damaged_)) {
      copyIndex();
    } else {
      makeIndexAnew();
    }
    repair_.documentsKept =
        IndexParts::in(fresh_ / IndexSums::kIndexDirectory).open().get_doccount();
    copyJournal();
    copyBatches();
    copyOptions();
    copyDocumentDefaults();
    syncTree(fresh_);
  }

 private:
  void copyIndex() {
    const std::filesystem::path index = fresh_ / IndexSums::kIndexDirectory;
    std::filesystem::copy(damaged_ / IndexSums::kIndexDirectory, index,
                          std::filesystem::copy_options::recursive);
    undoLastChange();
    const IndexParts parts = IndexParts::in(index);
    std::vector<Damage> damage;
    for (const std::filesystem::path& database : parts.paths()) {
      if (!repair_.found.index.empty()) askEngine(database, damage);
    }
    if (!damage.empty()) throwDamaged(damage.front());
    // Its journal begins with number 1.
    IndexSums::create(fresh_, parts.revisions(), 0);
  }

  // What some databases have and others do not is still in the journal.
  void undoLastChange() const {
    if (!IndexUndo::isPending(damaged_)) return;
    std::filesystem::copy_file(IndexUndo::pathIn(damaged_), IndexUndo::pathIn(fresh_));
    IndexUndo::carryOut(fresh_);
  }

  void makeIndexAnew() {
    repair_.indexMadeAnew = true;
    const IndexSalvage salvage(damaged_, repair_.found.index, fresh_.string() + kReadingSuffix);
    const auto form = salvage.form();
    repair_.languageLost = !form;
    XapianIndex::create(fresh_, form.value_or(IndexForm{"none", {}, salvage.parts()}));
    XapianIndex index(fresh_, {});
    index.beginUpdate();
    const auto documents = [&](const std::function<void(Change &&)>& take) {
      salvage.read(
          [&](Document&& document) {
            take({ChangeKind::Put, std::move(document)});
          },
          [&](std::size_t part, std::uint64_t number, const std::string& key) {
            const std::string directory = salvage.parts() == 1 ? "" : fmt::format("part-{}", part);
            repair_.documentsLost.push_back({number, key, directory});
          });
    };
    for (const ParseOutcome& refused : index.apply(documents, [] {})) {
      repair_.documentsLost.push_back({0, refused.key, {}});
    }
  }

  // The index may know what the file said. Otherwise damaged ones are lost, and the repaired
  // collection has the defaults.
  void copyOptions() {
    const auto noted = refreshFrom(refreshKnownTo(fresh_ / IndexSums::kIndexDirectory));
    repair_.optionsKept = noted.has_value();
    const Refresh refresh = noted.value_or(readableOptions());
    if (refresh != Refresh{}) writeOptions(fresh_, refresh);
  }

  Refresh readableOptions() const {
    try {
      return readOptions(damaged_);
    } catch (const ServerError&) {
      return {};
    }
  }

  void copyDocumentDefaults() const {
    try {
      writeDocumentDefaults(fresh_, readDocumentDefaults(damaged_));
    } catch (const ServerError&) {
      // They are lost, and check has named the file.
    }
  }

  // What cannot be read is lost, but for the batches in the journal.
  void copyBatches() const {
    const std::filesystem::path original = BatchMemory::pathIn(damaged_);
    const std::filesystem::path copy = BatchMemory::pathIn(fresh_);
    try {
      const BatchMemory readable(damaged_, {});
      if (std::filesystem::exists(original)) std::filesystem::copy_file(original, copy);
    } catch (const ServerError&) {
      BatchMemory(fresh_, {}).makeFile();
    }
    const auto mark = JournalMark::open(fresh_);
    if (mark && mark->allowsBatches()) BatchMemory(fresh_, {}).makeFile();
  }

  void copyJournal() {
    Journal journal(fresh_, [](std::uint64_t, Change&&) {});
    if (isBehindIndex()) return;
    std::uint64_t ticket = 0;
    JournalScan(
        damaged_,
        [&](std::uint64_t, Change&& change) {
          ticket = journal.append(change).ticket;
          repair_.changesKept += changesIn(change);
        },
        [](const JournalFault&) {})
        .run();
    journal.sync(ticket);
  }

  // The index has had all of these changes, and may have had later ones of the same keys.
  bool isBehindIndex() const {
    const auto indexed = lastChangeIn(damaged_);
    if (!indexed) return false;
    const auto journal = JournalScan(
                             damaged_, [](std::uint64_t, Change&&) {}, [](const JournalFault&) {})
                             .run();
    return journal.mark && journal.lastSequence < *indexed;
  }

  const std::filesystem::path damaged_;
  const std::filesystem::path fresh_;
  Repair& repair_;
};

}  // namespace

bool Repair::losesNothing() const {
  return documentsLost.empty() && !languageLost &&
         std::all_of(found.journal.begin(), found.journal.end(), [&](const JournalFault& fault) {
           const std::filesystem::path file = fault.damage.file.filename();
           return fault.firstLost == 0 &&
                  (file == "journal-0000000000" || (optionsKept && file == optionsPath({})));
         });
}

CollectionCheck checkCollection(const std::string& name, const std::filesystem::path& path,
                                const StopCheck& stop) {
  CollectionCheck result{name, {}, {}, 0, 0, {}, false};
  JournalContents contents =
      JournalScan(
          path,
          [&](std::uint64_t, Change&& change) {
            stop();
            result.changes += changesIn(change);
          },
          [&](const JournalFault& fault) { result.journal.push_back(fault); })
          .run();
  // What is damaged is not set aside.
  if (result.journal.empty()) result.unfinishedBytes = unfinishedBytes(path, contents.segments);
  result.setAside = tailsSetAsideIn(path);
  const bool isNumbered = contents.mark && contents.mark->range() != MarkedRange{};
  if (!contents.mark && result.journal.empty() && IndexSums::existIn(path)) {
    result.journal.push_back({{JournalMark::pathIn(path), 0, "the file is missing"}, 0, 0, {}});
  }
  try {
    readOptions(path);
  } catch (const ServerError&) {
    result.journal.push_back({{optionsPath(path), 0, "the options cannot be read"}, 0, 0, {}});
  }
  try {
    readDocumentDefaults(path);
  } catch (const ServerError&) {
    result.journal.push_back(
        {{documentDefaultsPath(path), 0, "how documents are read cannot be read"}, 0, 0, {}});
  }
  checkBatches(path, contents.mark.get(), result.journal);
  checkAge(path, contents, result.journal);
  result.index = checkIndex(path, isNumbered, stop);
  if (result.index.empty() && missesOptions(path)) {
    result.journal.push_back({{optionsPath(path), 0, "the file is missing"}, 0, 0, {}});
  }
  return result;
}

std::vector<Damage> checkByEngine(const std::filesystem::path& collection, const StopCheck& stop) {
  std::vector<Damage> damage;
  TreeReader reader(collection / IndexSums::kIndexDirectory);
  while (const auto entry = reader.next()) {
    stop();
    if (entry->path.extension() == kTableSuffix) askEngine(entry->path, damage);
  }
  return damage;
}

Maintenance::Maintenance(std::filesystem::path directory)
    : root_(std::move(directory)), lock_(lockExisting(root_)) {}

std::vector<std::string> Maintenance::collections() const {
  std::vector<std::string> names;
  DirectoryReader reader(collectionsIn(root_));
  while (const auto entry = reader.next()) {
    auto name = nameIfCollection(entry->path.filename().string());
    std::error_code ignored;
    if (name && std::filesystem::is_directory(entry->path, ignored)) {
      names.push_back(std::move(*name));
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

CollectionCheck Maintenance::check(const std::string& name) const {
  const std::filesystem::path path = pathOf(name);
  if (!BackupManifest::existsIn(root_)) finishReplacement(path);
  CollectionCheck result = checkCollection(name, path, [] {});
  if (result.index.empty()) askEngineOfAll(path / IndexSums::kIndexDirectory, result);
  if (BackupManifest::existsIn(root_)) addDamageOfBackup(root_, result);
  return result;
}

Repair Maintenance::repair(const std::string& name) const {
  requireNoBackup("repair the copy");
  clearIncomplete(name);
  Repair result;
  result.found = check(name);
  if (result.found.isSound()) return result;
  const std::filesystem::path fresh = freshDirectory(name);
  try {
    Rebuilding(pathOf(name), fresh, result).run();
    exchange(fresh, pathOf(name));
  } catch (...) {
    tryToRemoveTree(fresh);
    throw;
  }
  // From here on the fresh directory holds the original.
  syncDirectory(fresh.parent_path());
  syncDirectory(collectionsIn(root_));
  std::filesystem::remove(incompleteMarkIn(pathOf(name)));
  result.original = fresh;
  return result;
}

Compaction Maintenance::compact(const std::string& name) const {
  requireNoBackup("compact the copy");
  if (!check(name).isSound()) {
    throw ServerError(ErrorKind::StorageFailed,
                      "the collection " + shown(name) +
                          " is damaged and was left as it is; run corvaned check, which names the "
                          "places, and corvaned repair first");
  }
  const std::filesystem::path collection = pathOf(name);
  const std::filesystem::path index = collection / IndexSums::kIndexDirectory;
  // Undoes or completes what a crash has cut off.
  static_cast<void>(XapianIndex(collection, {}));
  Compaction result;
  result.before = bytesInTree(index);
  compactIndex(collection);
  result.after = bytesInTree(index);
  return result;
}

void Maintenance::requireNoBackup(const std::string& advice) const {
  if (!BackupManifest::existsIn(root_)) return;
  throw ServerError(ErrorKind::StorageFailed,
                    root_.string() +
                        " is a backup, of which nothing is changed; copy it without the file "
                        "BACKUP, and " +
                        advice);
}

std::filesystem::path Maintenance::pathOf(const std::string& name) const {
  std::filesystem::path path = collectionsIn(root_) / directoryNameFor(name);
  if (std::filesystem::is_directory(path)) return path;
  throw ServerError(ErrorKind::UnknownCollection, "there is no collection " + shown(name));
}

// What a repair that was killed has made so far. After the exchange the mark stands in the
// collection itself, so it is removed there first: the collection may become an original.
void Maintenance::clearIncomplete(const std::string& name) const {
  if (std::filesystem::remove(incompleteMarkIn(pathOf(name)))) syncDirectory(pathOf(name));
  if (!std::filesystem::exists(beforeRepairIn(root_))) return;
  std::vector<std::filesystem::path> leftovers;
  DirectoryReader reader(beforeRepairIn(root_));
  while (const auto entry = reader.next()) {
    const bool passing = entry->path.extension() == kReadingSuffix;
    if (passing || std::filesystem::exists(incompleteMarkIn(entry->path))) {
      leftovers.push_back(entry->path);
    }
  }
  for (const std::filesystem::path& leftover : leftovers) removeTree(leftover);
}

// On the same file system as the collections, and where no start of the server clears it away.
std::filesystem::path Maintenance::freshDirectory(const std::string& name) const {
  const std::filesystem::path parent = beforeRepairIn(root_);
  std::filesystem::create_directories(parent);
  syncDirectory(root_);
  for (int number = 1;; ++number) {
    std::filesystem::path path = parent / fmt::format("{}.{}", directoryNameFor(name), number);
    if (!std::filesystem::create_directory(path)) continue;
    openFile(incompleteMarkIn(path), O_WRONLY | O_CREAT);
    syncDirectory(path);
    return path;
  }
}

}  // namespace corvaned
