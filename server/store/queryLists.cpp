#include "server/store/queryLists.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/store/indexSums.h"
#include "server/store/searchMemory.h"

namespace corvaned {
namespace {

// So few are not worth being counted.
constexpr std::size_t kFewLists = 128;

// The engine tells the beginning of the words only where it describes the query.
std::string beginningOf(const Xapian::Query& wildcard) {
  const std::string description = wildcard.get_description();
  const std::size_t begin = description.rfind(' ') + 1;
  return description.substr(begin, description.size() - 1 - begin);
}

class WordCount {
 public:
  WordCount(const Xapian::Database& database, const IndexLimits& limits)
      : database_(database), expansion_(limits.expansion) {}

  void add(const Xapian::Query& query) {
    using Query = Xapian::Query;
    if (query.get_type() == Query::LEAF_TERM) {
      add(1);
    } else if (query.get_type() == Query::OP_WILDCARD) {
      addWordsOf(beginningOf(query));
    }
    for (std::size_t i = 0; i < query.get_num_subqueries(); ++i) add(query.get_subquery(i));
  }

  std::size_t words() const { return words_; }

 private:
  // Of those that stand for too many the engine says so itself.
  void addWordsOf(const std::string& beginning) {
    std::size_t left = expansion_;
    for (auto word = database_.allterms_begin(beginning);
         word != database_.allterms_end(beginning) && left > 0; ++word, --left) {
      add(1);
    }
  }

  void add(std::size_t words) {
    constexpr std::size_t kLookEvery = 256;
    words_ += words;
    if (words_ > kMostWords) {
      throw ServerError(ErrorKind::QueryTooBroad,
                        fmt::format("the query stands for more than {} words; write more letters "
                                    "in front of *, or fewer such words",
                                    kMostWords));
    }
    const RequestContext* request = RequestContext::current();
    if (request && words_ % kLookEvery == 0) request->check();
  }

  const Xapian::Database& database_;
  const std::size_t expansion_;
  std::size_t words_ = 0;
};

}  // namespace

MemoryBudget::Share memoryForWords(const Xapian::Query& words, const Xapian::Database& database,
                                   const IndexLimits& limits, std::size_t held) {
  WordCount count(database, limits);
  if (!words.empty()) count.add(words);
  const std::size_t lists = count.words() * database.size();
  MemoryBudget::Share share = shareOf(limits);
  if (lists <= kFewLists) return share;
  const auto refusal = [&](std::size_t mebibytes) {
    return fmt::format(
        "the query stands for {} words, for which {} MiB of memory are not free; write more "
        "letters in front of *, or raise --max-memory",
        count.words(), mebibytes);
  };
  setAside(share, lists * kTableBlock, limits.memory.get(), ErrorKind::QueryTooBroad, refusal,
           held);
  return share;
}

}  // namespace corvaned
