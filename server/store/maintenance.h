#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "server/store/damage.h"
#include "server/store/dataDirectory.h"
#include "server/store/journalScan.h"
#include "server/store/stopCheck.h"

namespace corvaned {

/// What is found in one collection.
struct CollectionCheck {
  std::string name;
  std::vector<JournalFault> journal;
  std::vector<Damage> index;
  /// Changes of the journal that can be read.
  std::uint64_t changes = 0;
  /// How many bytes at the journal's end were being written when the server stopped, so that the
  /// next opening sets them aside.
  std::uint64_t unfinishedBytes = 0;
  /// The files in which openings have set such bytes aside.
  std::vector<std::filesystem::path> setAside;
  /// The engine could not be asked, since it has to write to the tables for that.
  bool engineLeftOut = false;

  bool isSound() const { return journal.empty() && index.empty(); }
};

/// Reads the files of a collection that nobody uses, and compares them with their checksums.
CollectionCheck checkCollection(const std::string& name, const std::filesystem::path& path,
                                const StopCheck& stop);

/// What the engine itself finds wrong with the tables of an index, one after the other. Only for
/// one whose blocks are as they were written: with others the engine may fail in any way.
std::vector<Damage> checkByEngine(const std::filesystem::path& collection, const StopCheck& stop);

/// A document of the index that cannot be read.
struct LostDocument {
  /// The engine's number of it.
  std::uint64_t number = 0;
  /// Empty if it cannot be read either.
  std::string key;
  /// The directory in the index of the database that numbers it; empty if there is only one.
  std::string database;
};

struct Repair {
  CollectionCheck found;
  /// The collection as it was; empty if it was sound, and nothing was changed.
  std::filesystem::path original;
  std::uint64_t documentsKept = 0;
  /// Those that wait for updateIndex now.
  std::uint64_t changesKept = 0;
  /// The index was made anew from the texts of the documents that can be read.
  bool indexMadeAnew = false;
  std::vector<LostDocument> documentsLost;
  /// The language and the options of the collection cannot be read; words are indexed unchanged
  /// from now on, and everything that can be kept is kept.
  bool languageLost = false;
  /// The index knows what the file of the options says.
  bool optionsKept = false;

  bool losesNothing() const;
};

/// How many bytes an index takes.
struct Compaction {
  std::uint64_t before = 0;
  std::uint64_t after = 0;
};

/// Checks, repairs and compacts collections of a data directory, which no server can use at the
/// same time; or checks those of a backup. All operations throw ServerError.
class Maintenance {
 public:
  /// Throws if there is no such directory, or if a server uses it.
  explicit Maintenance(std::filesystem::path directory);

  /// The names of the collections.
  std::vector<std::string> collections() const;
  /// Reads the whole collection and changes nothing, but for completing the change to a new index
  /// that a crash has cut off at its very end.
  CollectionCheck check(const std::string& name) const;
  /// Makes, beside a damaged collection, one with everything that can be read, and lets them change
  /// places in one step.
  Repair repair(const std::string& name) const;
  /// Gives back the room that the index of a sound collection does not need. Takes as much as the
  /// index will have, meanwhile. A collection that is damaged is left as it is.
  Compaction compact(const std::string& name) const;

 private:
  void requireNoBackup(const std::string& advice) const;
  std::filesystem::path pathOf(const std::string& name) const;
  void clearIncomplete(const std::string& name) const;
  std::filesystem::path freshDirectory(const std::string& name) const;

  const std::filesystem::path root_;
  DataDirectoryLock lock_;
};

}  // namespace corvaned
