#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
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
  Match,            // of a document that is not stored
  Digest,
  Selectivity,
  Status,
  ServerStatus,
  Version,
  Unsupported,
  Reconnect,
};
inline constexpr int kVerbs = static_cast<int>(Verb::Reconnect) + 1;

std::ostream& operator<<(std::ostream& out, Verb verb);

/// One step of an application. Everything is as it will be sent, but the collection's name, which
/// each side puts its own prefix in front of unless it is `kSharedCollection` or empty.
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
};
std::ostream& operator<<(std::ostream& out, const Operation& operation);

using Sequence = std::vector<Operation>;
/// One line an operation.
std::ostream& operator<<(std::ostream& out, const Sequence& sequence);

/// A collection that is only read: many documents, so that its results come in several portions.
inline constexpr const char* kSharedCollection = "shared";
inline constexpr int kSharedDocuments = 2500;
/// The text of each of them.
std::string sharedDocument(int number);

/// The collections that a sequence may create.
const std::vector<std::string>& creatableCollections();

/// 5 to 15 operations, the same ones for the same seed on every machine.
Sequence randomSequence(std::uint64_t seed);

/// What shows all that a server holds of a collection, by what it answers.
Sequence probesOf(const std::string& collection);
/// The first of them: whether there is anything to show.
Operation statusProbe(const std::string& collection);

}  // namespace tq::test
