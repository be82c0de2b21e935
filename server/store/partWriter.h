#pragma once

#include <xapian.h>

#include <cstddef>
#include <optional>
#include <vector>

#include "server/store/change.h"
#include "server/store/indexParts.h"
#include "server/store/stopCheck.h"
#include "server/store/textAnalysis.h"
#include "server/store/xapianSchema.h"

namespace corvaned {

/// Changes one of the databases of an index. Used by one thread at a time.
class PartWriter {
 public:
  /// `parts` must outlive it.
  PartWriter(const IndexParts& parts, std::size_t part, const StopCheck& stop)
      : parts_(parts), part_(part), stop_(stop) {}
  PartWriter(PartWriter&&) = default;
  PartWriter& operator=(PartWriter&&) = delete;
  ~PartWriter() { close(); }

  /// Opens the database, if it is not open.
  void open();
  /// How the database has its documents read, and the names that it knows.
  const TextAnalysis& analysis() const { return analysis_; }
  const IndexNames& names() const { return names_; }

  /// Applies the changes, with these names beside its own, so that commit() only has to make that
  /// durable. `stop` throws to end it between two words.
  void prepare(const std::vector<const Change*>& changes, const IndexNames& names);
  /// Durable when it returns.
  void commit();
  /// Closes the database, and drops what has not been committed.
  void close();

  const std::filesystem::path& path() const { return parts_.paths()[part_]; }

 private:
  void apply(const Change& change);

  const IndexParts& parts_;
  const std::size_t part_;
  const StopCheck& stop_;
  // After an exception the handle is discarded: it has lost its uncommitted changes, yet a later
  // commit on it would report success.
  std::optional<Xapian::WritableDatabase> database_;
  // Whether a commit has begun that has not succeeded.
  bool committing_ = false;
  TextAnalysis analysis_;
  IndexNames names_;
};

}  // namespace corvaned
