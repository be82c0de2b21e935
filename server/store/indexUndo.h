#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace corvaned {

/// Lets several databases of an index change in one step, also for whoever opens them after a crash
/// on the way. Before the first one commits, the file "index-undo" beside the index gets what each
/// of them has in its file "iamglass": the place where the engine finds its last transaction. The
/// engine never writes over what that transaction has before the next one is complete, so whoever
/// puts the file back has the database as it was. When the last one has committed, "index-undo" is
/// removed; that decides.
///
///     0   4  "KRU1"
///     4   4  number of databases; then for each, with a 4-byte length in front: its directory in
///            the index, and the content of its "iamglass"
///     end 4  CRC-32 of everything before
///
/// Used by one thread at a time. Errors are ServerError(StorageFailed).
class IndexUndo {
 public:
  IndexUndo() = delete;

  static std::filesystem::path pathIn(const std::filesystem::path& collection);
  /// Whether a change has begun and neither been completed nor undone. Nobody may open the
  /// databases then, but to read what is left of them.
  static bool isPending(const std::filesystem::path& collection);

  /// Why it cannot be carried out; nothing if it can, or if it is not pending.
  static std::optional<std::string> faultIn(const std::filesystem::path& collection);

  /// Comes before the databases commit. Durable when it returns.
  static void begin(const std::filesystem::path& collection,
                    const std::vector<std::filesystem::path>& databases);
  /// The change is complete; durable when it returns, and that must be before the next one begins.
  static void complete(const std::filesystem::path& collection);
  /// Brings the databases back to what they were; nobody may have them open to write. May be
  /// repeated if it throws, and after a crash. Throws, and changes nothing, if the file is damaged
  /// or does not belong to the databases as they are.
  static void carryOut(const std::filesystem::path& collection);
};

}  // namespace corvaned
