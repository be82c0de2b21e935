#pragma once

#include <unicode/unistr.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/exitCode.h"
#include "cli/session.h"

namespace corvane {

/// The commands. Each checks its arguments before anything is sent (UsageError), prints its result
/// and returns the program's exit code; a failure of the exchange passes through as the library's
/// exception.

/// What a collection is created with. The server has a default for what is missing here.
struct CreateArguments {
  std::string collection;
  std::optional<std::string> refresh;
  std::optional<std::string> language;
  std::optional<std::string> stopWords;
  bool withoutText = false;
  bool withoutPositions = false;
  bool withoutStemming = false;
  bool markedMetadata = false;
};
ExitCode createCollection(Session& session, const CreateArguments& arguments);

/// How documents are read that do not say it; what is missing is as in a new collection.
struct ConfigureArguments {
  std::string collection;
  std::optional<std::string> type;
  std::optional<std::string> charset;
  std::optional<std::string> language;
};
ExitCode configureCollection(Session& session, const ConfigureArguments& arguments);

ExitCode dropCollection(Session& session, const std::string& collection);

/// Lists what the index leaves out: of the documents that `client` has queued, unless that is
/// empty, and of those that nobody in particular has.
ExitCode updateIndex(Session& session, const std::string& collection,
                     const icu::UnicodeString& client = {});

struct AddArguments {
  std::string collection;
  std::string key;
  std::string text;                   ///< may be empty
  std::vector<std::string> metadata;  ///< each "name=value"
};
ExitCode addDocument(Session& session, const AddArguments& arguments);

/// Keys as text, or as standard Base64 when `base64` says so.
ExitCode deleteDocuments(Session& session, const std::string& collection,
                         const std::vector<std::string>& keys, bool base64);

struct SearchArguments {
  std::string collection;
  std::string query;
  std::uint64_t start = 0;
  std::optional<std::uint64_t> limit;
  bool pages = false;                ///< whether to tell where the next page begins
  std::optional<std::string> after;  ///< where this one begins, as it was told
  std::vector<std::string> also;     ///< further collections, whose hits stand in the same ranking
};
ExitCode search(Session& session, const SearchArguments& arguments);
ExitCode estimate(Session& session, const std::string& collection, const std::string& query);

/// Backups lie on the server's machine. Without a collection all of them are meant.
struct BackupArguments {
  std::string backup;
  std::optional<std::string> collection;
};
ExitCode backup(Session& session, const BackupArguments& arguments);

ExitCode listBackups(Session& session);

struct RestoreArguments {
  std::string backup;
  std::optional<std::string> collection;
  std::optional<std::string> from;  ///< what the collection is called in the backup
  bool replace = false;
};
ExitCode restore(Session& session, const RestoreArguments& arguments);

/// What the server tells of the collection, or of all.
ExitCode listCollections(Session& session, const std::optional<std::string>& collection);

/// Keys behind `after` and up to `upTo`, which are text or, when `base64` says so, Base64.
struct KeyRange {
  std::optional<std::string> after;
  std::optional<std::string> upTo;
  bool base64 = false;
};

struct KeysArguments {
  std::string collection;
  KeyRange range;
  std::optional<std::uint64_t> limit;
};
ExitCode listKeys(Session& session, const KeysArguments& arguments);

struct DigestArguments {
  std::string collection;
  KeyRange range;
  std::uint64_t every = 0;  ///< how many documents have a digest together; 0: all
};
ExitCode digest(Session& session, const DigestArguments& arguments);

/// The server's state, or a collection's when one is named.
ExitCode status(Session& session, const std::string& collection);
ExitCode serverVersion(Session& session);

}  // namespace corvane
