#include "server/store/keyFilters.h"

#include <algorithm>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "server/base/requestContext.h"
#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

Xapian::Query inRange(const Xapian::Query& query, const std::string& after,
                      const std::string& upTo) {
  if (query.empty() || (after.empty() && upTo.empty())) return query;
  // The first key behind another one is that key and a zero byte.
  const std::string first = after.empty() ? after : after + '\0';
  Xapian::Query range = upTo.empty()
                            ? Xapian::Query(Xapian::Query::OP_VALUE_GE, kKeySlot, first)
                            : Xapian::Query(Xapian::Query::OP_VALUE_RANGE, kKeySlot, first, upTo);
  if (range.empty()) return range;
  return {Xapian::Query::OP_FILTER, query, range};
}

Xapian::Query amongKeys(const Xapian::Query& query, const std::vector<std::string>& keys) {
  if (query.empty() || keys.empty()) return query;
  // In the order of the index, neighbours share what has been read of it.
  std::set<std::string> terms;
  for (const std::string& key : keys) terms.insert(identityTerm(key));
  return {Xapian::Query::OP_FILTER, query,
          Xapian::Query(Xapian::Query::OP_OR, terms.begin(), terms.end())};
}

// The list of documents that each database opens for each term takes a block of memory.
constexpr std::size_t kMostTerms = 500;

/// Matches every document that is not hidden. It looks at the key of each candidate, which takes
/// the same memory for any number of keys.
class Unhidden : public Xapian::PostingSource {
 public:
  Unhidden(Hidden hidden, std::size_t databases)
      : hidden_(std::move(hidden)), databases_(databases) {}

  // More keys may come, and the index need not have those that there are: only a look-up of each
  // would tell.
  Xapian::doccount get_termfreq_min() const override { return 0; }
  Xapian::doccount get_termfreq_est() const override { return least_ + (most_ - least_) / 2; }
  Xapian::doccount get_termfreq_max() const override { return most_; }

  void init(const Xapian::Database& database) override {
    most_ = database.get_doccount();
    // Each of several databases has as many of them as the others, more or less.
    const std::size_t hidden = hidden_->size() / databases_;
    least_ = most_ - static_cast<Xapian::doccount>(std::min<std::size_t>(most_, hidden));
    // Each document has a value there.
    place_ = database.valuestream_begin(kKeySlot);
    end_ = database.valuestream_end(kKeySlot);
    begun_ = false;
  }

  void next(double) override {
    if (std::exchange(begun_, true)) ++place_;
    passHidden();
  }
  void skip_to(Xapian::docid document, double) override {
    begun_ = true;
    if (place_ != end_) place_.skip_to(document);
    passHidden();
  }
  bool at_end() const override { return place_ == end_; }
  Xapian::docid get_docid() const override { return place_.get_docid(); }
  // Each of several databases gets one of its own.
  Unhidden* clone() const override { return new Unhidden(hidden_, databases_); }
  std::string get_description() const override { return "Unhidden"; }

 private:
  // Others are only asked about documents that pass here, and many in a row may not.
  void passHidden() {
    for (; place_ != end_ && hidden_->contains(*place_); ++place_) {
      if (RequestContext* request = RequestContext::current()) request->spend(1);
    }
  }

  const Hidden hidden_;
  const std::size_t databases_;
  Xapian::doccount least_ = 0;
  Xapian::doccount most_ = 0;
  Xapian::ValueIterator place_;
  Xapian::ValueIterator end_;
  bool begun_ = false;
};

}  // namespace

Xapian::Query withoutHidden(const Xapian::Query& query, const Hidden& hidden,
                            std::size_t databases) {
  if (query.empty() || !hidden) return query;
  const std::size_t count = hidden->size();
  if (count == 0) return query;
  if (count > kMostTerms / databases) {
    return {Xapian::Query::OP_FILTER, query,
            Xapian::Query((new Unhidden(hidden, databases))->release())};
  }
  std::vector<Xapian::Query> terms;
  for (const std::string& key : hidden->keys()) terms.emplace_back(identityTerm(key));
  return {Xapian::Query::OP_AND_NOT, query,
          Xapian::Query(Xapian::Query::OP_OR, terms.begin(), terms.end())};
}

Xapian::Query withinKeys(const Xapian::Query& query, const SearchQuery& wanted) {
  return amongKeys(inRange(query, wanted.after, wanted.upTo), wanted.keys);
}

}  // namespace corvaned
