#pragma once

#include <xapian.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "server/base/memoryBudget.h"
#include "server/store/hiddenKeys.h"
#include "server/store/hitLists.h"
#include "server/store/indexLimits.h"
#include "server/store/indexReader.h"
#include "server/store/resultPage.h"
#include "server/store/store.h"
#include "server/store/xapianSchema.h"

namespace corvaned {

/// Searches several indexes as if the documents of all of them stood in one: the statistics of all
/// together make the weights. A key may be in each of them. Used by one thread at a time, while no
/// other one uses the handles.
class JointReader {
 public:
  /// One of the indexes. What it refers to must outlive the object.
  struct Member {
    const std::string& collection;
    const IndexReader& reader;
    const Hidden& hidden;
    /// What its open collection takes of the memory.
    std::size_t held = 0;
  };

  /// Throws ServerError(BadParameter) that names two collections if their documents are not read
  /// alike, and ServerError(QueryTooBroad) if there are too many documents.
  explicit JointReader(std::vector<Member> members);

  /// The hits with what is to be told of them; of equal weight in the order of their keys, and of
  /// equal keys in that of the members.
  std::vector<HitDetails> details(const SearchQuery& query, const DetailsWanted& wanted,
                                  const IndexLimits& limits) const;

 private:
  struct Found {
    double weight;
    std::string sortedBy;
    std::string key;
    std::size_t member;
  };

  /// Some hits, and how good the best one of the whole result is.
  struct Ranking {
    std::vector<Found> hits;
    double best = 0;
    MemoryBudget::Share memory;
    /// For the lists of all words of the query.
    MemoryBudget::Share ofWords;
  };

  /// What decides about the order of the hits.
  struct Order {
    HitBuffer::KeyIn keyIn;
    std::size_t sortKeyBytes;
  };

  void requireNumbers() const;
  void requireTexts() const;
  Xapian::Query wordsOf(const SearchQuery& query, const IndexLimits& limits) const;
  std::optional<Xapian::valueno> slotOf(const std::string& name) const;
  Ranking ranked(const Xapian::Query& words, const SearchQuery& query,
                 const IndexLimits& limits) const;
  static void cut(std::vector<Found>& hits, const Page& page);
  Ranking firstOf(const Xapian::Enquire& enquire, const Order& order, std::uint64_t enough,
                  std::size_t held, const IndexLimits& limits) const;
  void keepVisible(const Xapian::MSet& matches, const Order& order, Ranking& ranking) const;

  const std::vector<Member> members_;
  Xapian::Database database_;
  // Which member each of its databases belongs to.
  std::vector<std::size_t> owners_;
  // Of each member, with what the others have beyond them.
  std::vector<IndexNames> names_;
};

}  // namespace corvaned
