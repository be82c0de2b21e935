#pragma once

#include <xapian.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server/base/descriptorBudget.h"
#include "server/base/memoryBudget.h"
#include "server/store/hiddenKeys.h"
#include "server/store/hitLists.h"
#include "server/store/indexLimits.h"
#include "server/store/indexParts.h"
#include "server/store/searchMemory.h"
#include "server/store/store.h"
#include "server/store/textAnalysis.h"
#include "server/store/xapianSchema.h"

namespace corvaned {

class Snippets;

/// One handle for searching an index, of which it sees what was there when it was opened or
/// refreshed last. XapianIndex says what each operation promises; the engine's errors come out as
/// they are. Used by one thread at a time.
class IndexReader {
 public:
  /// The tables that it has open of each database.
  static constexpr std::size_t kDescriptors = 4;

  /// What it takes of the budgets.
  struct Resources {
    MemoryBudget::Share memory;
    DescriptorBudget::Share descriptors;
  };

  IndexReader(const IndexParts& parts, Resources resources, std::uint64_t generation);

  /// Which index it is open on, of those that follow each other in one directory.
  std::uint64_t generation() const { return generation_; }
  /// The number of the state that it sees, which whoever opens it counts; 0 if it needs another.
  std::uint64_t state() const { return state_; }
  void setState(std::uint64_t state) { state_ = state; }
  /// Whether the index has several databases.
  bool isInParts() const { return database_.size() > 1; }
  void refresh() { database_.reopen(); }
  std::size_t memory() const { return resources_.memory.bytes(); }
  Resources takeResources() { return std::move(resources_); }
  const Xapian::Database& database() const { return database_; }
  const TextAnalysis& analysis() const { return analysis_; }

  std::unique_ptr<HitSource> search(const SearchQuery& query, const Hidden& hidden,
                                    const IndexLimits& limits) const;
  std::unique_ptr<HitSource> match(const SearchQuery& query, const std::vector<Document>& documents,
                                   const IndexLimits& limits) const;
  std::uint64_t count(const SearchQuery& query, const Hidden& hidden,
                      const IndexLimits& limits) const;
  void visit(const SearchQuery& query, const Hidden& hidden, const IndexLimits& limits,
             const Store::DocumentVisitor& take) const;
  bool contains(const std::string& key) const;
  std::vector<HitDetails> details(const SearchQuery& query, const DetailsWanted& wanted,
                                  const Hidden& hidden, const IndexLimits& limits) const;
  /// What is to be told of one hit; nothing if its document has gone. `memory` keeps room for what
  /// is read. Without a snippet if its text is too long for half of the budget, or without
  /// `snippets`.
  std::optional<HitDetails> detailsOf(const Hit& hit, const DetailsWanted& wanted,
                                      const Snippets* snippets, MemoryBudget::Share& memory,
                                      const IndexLimits& limits) const;
  CollectionSummary summary() const;
  Estimate estimate(const std::string& query, std::uint64_t exactHits, const Hidden& hidden,
                    const IndexLimits& limits) const;

 private:
  Snapshot snapshot(const Hidden& hidden) const;
  /// `ofWords` gets what is set aside for the lists of the words.
  std::unique_ptr<HitList> found(const Xapian::Query& words, const SearchQuery& query,
                                 const IndexNames& names, const Hidden& hidden,
                                 const IndexLimits& limits, MemoryBudget::Share& ofWords) const;
  KeyPlaces keyPlaces() const;
  void requireTexts() const;
  std::optional<Document> stored(const std::string& key, MemoryBudget::Share& memory) const;
  Xapian::Query wordsOf(const SearchQuery& query, const IndexNames& names,
                        const IndexLimits& limits) const;
  Xapian::Query read(const std::string& text, const IndexNames& names,
                     const IndexLimits& limits) const;
  std::vector<Xapian::Document> indexed(const std::vector<Document>& documents,
                                        IndexNames& names) const;

  const std::uint64_t generation_;
  std::uint64_t state_ = 0;
  // Declared before the database, so that they are given back when that is closed.
  Resources resources_;
  Xapian::Database database_;
  TextAnalysis analysis_;
};

}  // namespace corvaned
