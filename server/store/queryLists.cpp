#include "server/store/queryLists.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>

#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/store/indexSums.h"
#include "server/store/searchMemory.h"

namespace corvaned {
namespace {

// Nothing ends the engine while it compares where the words stand in one document. It takes
// 0.7 s for so many places, and a query of few words is allowed any number of them.
constexpr std::uint64_t kMostPlaces = std::uint64_t{8} << 20U;
constexpr std::size_t kFewPlacedWords = 8;
// As a number, which it is in a document that is only matched. Those of a stored one are packed,
// and their list has grown by doubling.
constexpr std::size_t kPlaceCost = 4;

// The engine tells the beginning of the words only where it describes the query.
std::string beginningOf(const Xapian::Query& wildcard) {
  const std::string description = wildcard.get_description();
  const std::size_t begin = description.rfind(' ') + 1;
  return description.substr(begin, description.size() - 1 - begin);
}

bool looksAtPlaces(const Xapian::Query& query) {
  return query.get_type() == Xapian::Query::OP_NEAR || query.get_type() == Xapian::Query::OP_PHRASE;
}

/// What the engine holds of the places of words, of one document in each database, while it
/// compares them: a list for each time that a word stands in the query. Different words share the
/// places of a document, so that these are no more than its length for each time that the most
/// frequent word stands in the query. The engine knows no bound of a word's own.
class PlaceCount {
 public:
  explicit PlaceCount(const Xapian::Database& database)
      : database_(database), length_(database.get_doclength_upper_bound()) {}

  void add(const std::string& word) {
    const std::uint64_t most = database_.get_wdf_upper_bound(word);
    ++words_;
    ofWords_ += most;
    heldOfWords_ +=
        std::min<std::uint64_t>(most * database_.size(), database_.get_collection_freq(word));
    ofLength_ = std::max(ofLength_, ++times_[word] * length_);
    if (words_ > kFewPlacedWords && std::min(ofWords_, ofLength_) > kMostPlaces) refuse();
  }

  std::size_t bytes() const {
    return std::min(heldOfWords_, ofLength_ * database_.size()) * kPlaceCost;
  }

 private:
  [[noreturn]] void refuse() const {
    throw ServerError(
        ErrorKind::QueryTooBroad,
        fmt::format("the words of the query's phrases, NEAR and ADJ may stand at more "
                    "than {} places of one document; use rarer words, or no more "
                    "than {}",
                    kMostPlaces, kFewPlacedWords));
  }

  const Xapian::Database& database_;
  const std::uint64_t length_;
  std::size_t words_ = 0;
  std::map<std::string, std::uint64_t> times_;
  // In one document, as the words and as its length bound them.
  std::uint64_t ofWords_ = 0;
  std::uint64_t ofLength_ = 0;
  // In one document of each database.
  std::uint64_t heldOfWords_ = 0;
};

class WordCount {
 public:
  WordCount(const Xapian::Database& database, const IndexLimits& limits)
      : database_(database), expansion_(limits.expansion), places_(database) {}

  void add(const Xapian::Query& query, bool placed = false) {
    using Query = Xapian::Query;
    placed = placed || looksAtPlaces(query);
    if (query.get_type() == Query::LEAF_TERM) {
      add(1);
      if (placed) places_.add(*query.get_terms_begin());
    } else if (query.get_type() == Query::OP_WILDCARD) {
      addWordsOf(beginningOf(query));
    }
    for (std::size_t i = 0; i < query.get_num_subqueries(); ++i) {
      add(query.get_subquery(i), placed);
    }
  }

  std::size_t words() const { return words_; }
  std::size_t bytesOfPlaces() const { return places_.bytes(); }

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
  PlaceCount places_;
};

}  // namespace

std::set<std::string> placedWords(const Xapian::Query& query) {
  if (looksAtPlaces(query)) return {query.get_terms_begin(), query.get_terms_end()};
  std::set<std::string> words;
  for (std::size_t i = 0; i < query.get_num_subqueries(); ++i) {
    words.merge(placedWords(query.get_subquery(i)));
  }
  return words;
}

MemoryBudget::Share memoryForWords(const Xapian::Query& words, const Xapian::Database& database,
                                   const IndexLimits& limits, std::size_t held) {
  WordCount count(database, limits);
  if (!words.empty()) count.add(words);
  const auto unlessFew = [](std::size_t bytes) { return bytes > kFewLists ? bytes : 0; };
  const std::size_t lists = unlessFew(count.words() * database.size() * kTableBlock);
  const std::size_t places = unlessFew(count.bytesOfPlaces());
  MemoryBudget::Share share = shareOf(limits);
  if (lists + places == 0) return share;
  const auto refusal = [&](std::size_t mebibytes) {
    return fmt::format(
        "the query stands for {} words, for which {} MiB of memory are not free; write {}, or "
        "raise "
        "--max-memory",
        count.words(), mebibytes,
        places > lists ? "fewer words in phrases, NEAR and ADJ" : "more letters in front of *");
  };
  setAside(share, lists + places, limits.memory.get(), ErrorKind::QueryTooBroad, refusal, held);
  return share;
}

}  // namespace corvaned
