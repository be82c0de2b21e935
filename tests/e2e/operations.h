#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "tests/e2e/conversation.h"

// What an application may do with a server, at random, out of a world small enough that the
// operations get in each other's way.
namespace tq::test {

enum class Verb {
  CreateCollection,
  OpenCollection,
  OpenCollectionAlt,
  CloseCollection,
  DropCollection,
  AddDocument,
  QueueDocument,
  LastDocument,
  ParseResults,
  DeleteDocument,
  UpdateIndex,
  StreamSearch,
  ScalarSearch,
  AbandonedSearch,  // a streaming search of which only some hits are taken
  Match,            // of documents that are not stored
  Digest,
  Batch,
  BatchOutcome,
  Page,   // of one state of the collection
  Place,  // behind some hits of such a page
  Hits,   // with what is stored of them
  Count,
  CollectionFacts,
  CollectionList,
  Backup,
  Restore,
  BackupList,
  Selectivity,
  Status,
  ServerStatus,
  Version,
  Unsupported,
  Reconnect,
};
inline constexpr int kVerbs = static_cast<int>(Verb::Reconnect) + 1;

std::ostream& operator<<(std::ostream& out, Verb verb);

/// A document as an application sends it.
struct Written {
  std::string key;
  Parameters metadata;
  std::string text;
  bool operator==(const Written&) const = default;
};

/// The bytes of a document among several, or of one to delete, which has no text.
std::string blockOf(const Written& document);
/// The content of a request that carries several documents, and of a batch with its deletions.
std::string contentOf(const std::vector<Written>& documents,
                      const std::vector<std::string>& removed);

/// Where a page begins.
enum class PageFrom {
  NoPage,
  Begin,
  /// Where the latest page or place of the side has ended; at the beginning if it has none.
  Latest,
};

/// One step of an application. Everything is as it will be sent, but the names of collections and
/// backups, which each side puts its own prefix in front of unless they are `kSharedCollection` or
/// empty.
struct Operation {
  Verb verb = Verb::ServerStatus;
  int kind = 0;  // as the library numbers it; 0 for what is no request
  std::string collection{};
  bool byOtherName = false;  // say "collectionName" in place of "index"
  std::string key{};
  std::string text{};
  Parameters metadata{};
  unsigned int metadataAttribute = 0;
  Parameters parameters{};
  Taking taking = Taking::Looping;
  std::size_t most = kAllHits;
  std::vector<Written> documents{};    // several in one request
  std::vector<std::string> removed{};  // keys that a batch deletes
  std::vector<std::string> others{};   // collections in the same ranking
  std::string backup{};
  std::string from{};  // what the collection is called in the backup
  PageFrom pageFrom = PageFrom::NoPage;

  /// The parameter's value as the server gets it; empty if it gets none.
  std::string given(std::string_view name) const;
};
std::ostream& operator<<(std::ostream& out, const Operation& operation);

using Sequence = std::vector<Operation>;
/// One line an operation.
std::ostream& operator<<(std::ostream& out, const Sequence& sequence);

/// A collection that is only read: many documents, so that its results come in several portions.
inline constexpr const char* kSharedCollection = "shared";
inline constexpr int kSharedDocuments = 2500;
/// What stands in both sides' answers for the prefix of their names.
inline constexpr const char* kNeutralPrefix = "side-";
/// The text of each of them.
std::string sharedDocument(int number);

/// The collections that a sequence may create.
const std::vector<std::string>& creatableCollections();

/// 8 to 24 operations, the same ones for the same seed on every machine.
Sequence randomSequence(std::uint64_t seed);

/// What shows all that a server holds of a collection, by what it answers.
Sequence probesOf(const std::string& collection);
/// The first of them: whether there is anything to show.
Operation statusProbe(const std::string& collection);
/// What shows all that searches see of a collection, and what it says of itself.
Sequence contentProbesOf(const std::string& collection);
/// Queued documents of a collection become searchable by themselves; after this they are.
Operation updateProbe(const std::string& collection);
/// The whole result, at most 100 hits, of which the operation takes pages.
Operation resultProbe(const Operation& page);

}  // namespace tq::test
