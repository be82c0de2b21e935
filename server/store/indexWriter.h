#pragma once

#include <xapian.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "server/store/change.h"
#include "server/store/commitGate.h"
#include "server/store/indexLimits.h"
#include "server/store/textAnalysis.h"
#include "server/store/xapianSchema.h"

namespace corvaned {

/// Applies changes to a database in batches. Used by one thread at a time.
class IndexWriter {
 public:
  /// Makes an empty database there, durably, and returns its revision.
  static std::uint64_t create(const std::filesystem::path& path, const IndexForm& form);

  /// `stop` throws to end a batch between two changes, or while its commit waits to pass the gate.
  /// Null: nobody searches the database.
  IndexWriter(std::filesystem::path path, const IndexLimits& limits, const StopCheck& stop,
              CommitGate* gate = nullptr)
      : path_(std::move(path)), limits_(limits), stop_(stop), gate_(gate) {}

  /// Applies the changes in one transaction, durably, but for documents that the database refuses.
  /// Throws if the storage fails.
  void apply(std::span<const Change> changes);

  std::vector<ParseOutcome> takeRefused() { return std::move(refused_); }

 private:
  void commit(std::span<const Change> changes);
  void applyOne(const Change& change);
  void open();

  const std::filesystem::path path_;
  const IndexLimits& limits_;
  const StopCheck& stop_;
  CommitGate* const gate_;
  // After an exception the handle is discarded: it has lost its uncommitted changes, yet a later
  // commit on it would report success.
  std::optional<Xapian::WritableDatabase> database_;
  TextAnalysis analysis_;
  IndexNames names_;
  std::vector<ParseOutcome> refused_;
};

}  // namespace corvaned
