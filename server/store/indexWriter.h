#pragma once

#include <cstddef>
#include <exception>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "server/store/change.h"
#include "server/store/indexLimits.h"
#include "server/store/indexParts.h"
#include "server/store/partWriter.h"

namespace corvaned {

class IndexReaders;

/// Applies changes to an index in batches. Several databases are written at the same time, as far
/// as there are threads for that. Used by one thread at a time.
class IndexWriter {
 public:
  /// Makes an empty index in the directory of a collection, durably, and returns its revisions.
  static IndexRevisions create(const std::filesystem::path& collection, const IndexForm& form);

  /// `stop` throws to end a batch between two changes, on any thread, or while its commit waits for
  /// those who hold commits up. `readers`: who searches the index; null: nobody. All of them must
  /// outlive the object.
  IndexWriter(std::filesystem::path collection, const IndexLimits& limits, const StopCheck& stop,
              IndexReaders* readers = nullptr);

  /// Applies the changes in one transaction, durably, but for documents that the index refuses.
  /// Throws if the storage fails.
  void apply(std::span<const Change> changes);

  std::vector<ParseOutcome> takeRefused() { return std::move(refused_); }

 private:
  /// The changes of one database.
  struct Share {
    PartWriter* writer;
    std::vector<const Change*> changes;
  };

  std::optional<std::string> reasonAgainst(std::span<const Change> changes);
  void commit(std::span<const Change> changes);
  void open();
  void finishLast();
  std::vector<Share> sharesOf(std::span<const Change> changes);
  void publish(const std::vector<Share>& shares);
  void commitTogether(const std::vector<Share>& shares);
  void takeBack(const std::exception_ptr& failure);
  void close();

  const std::filesystem::path collection_;
  const IndexParts parts_;
  const IndexLimits& limits_;
  const StopCheck& stop_;
  IndexReaders* const readers_;
  // Declared before the writers, so that they are given back when these are closed.
  DescriptorBudget::Share descriptors_;
  std::vector<PartWriter> writers_;
  // What every database has.
  IndexNames names_;
  bool open_ = false;
  std::vector<ParseOutcome> refused_;
};

}  // namespace corvaned
