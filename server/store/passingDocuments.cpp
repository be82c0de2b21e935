#include "server/store/passingDocuments.h"

#include <fmt/format.h>

#include <cstdint>
#include <set>

#include "server/base/errors.h"
#include "server/store/queryLists.h"
#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

// The engine takes every phrase for found in one of several databases that has no positions at all.
constexpr Xapian::termpos kPassingPosition = 1;

// Nothing ends the engine while it adds a document. Its time grows with the square of the number of
// places of each word: so many of one word take it half a second, and it takes one second at most.
constexpr std::uint64_t kManyPlaces = 8192;
constexpr std::uint64_t kMostSquares = 2 * kManyPlaces * kManyPlaces;

/// Makes the documents as small as a query lets them be.
class Reduction {
 public:
  Reduction(const Xapian::Query& words, const std::string& text, const StopCheck& stop)
      : all_(text.find('*') != std::string::npos),
        terms_(words.get_terms_begin(), words.get_terms_end()),
        placed_(words.empty() ? std::set<std::string>() : placedWords(words)),
        steps_(stop) {}

  // The document without its other terms, but as long as it is: that counts in the weight of each.
  Xapian::Document of(const Xapian::Document& document, std::size_t slots) {
    Xapian::Document result;
    Xapian::termcount others = 0;
    squares_ = 0;
    for (auto term = document.termlist_begin(); term != document.termlist_end(); ++term) {
      steps_.next();
      if (all_ || terms_.contains(*term)) {
        add(term, result);
      } else {
        others += term.get_wdf();
      }
    }
    result.add_posting(kPassingTerm, kPassingPosition, others);
    for (Xapian::valueno slot = kKeySlot; slot <= kKeySlot + slots; ++slot) {
      const std::string value = document.get_value(slot);
      if (!value.empty()) result.add_value(slot, value);
    }
    return result;
  }

 private:
  void add(const Xapian::TermIterator& term, Xapian::Document& result) {
    result.add_term(*term, term.get_wdf());
    // The engine sorts the places of a word anew whenever it adds one.
    if (!placed_.contains(*term)) return;
    count(term.positionlist_count());
    for (auto position = term.positionlist_begin(); position != term.positionlist_end();
         ++position) {
      steps_.next();
      result.add_posting(*term, *position, 0);
    }
  }

  void count(std::uint64_t places) {
    squares_ += places * places;
    if (squares_ <= kMostSquares) return;
    throw ServerError(
        ErrorKind::QueryTooBroad,
        fmt::format("words of the query stand at too many places of a document to match for "
                    "phrases, NEAR and ADJ, such as more than {} of each of two words; send "
                    "shorter texts, or ask without these",
                    kManyPlaces));
  }

  const bool all_;
  const std::set<std::string> terms_;
  const std::set<std::string> placed_;
  StoppableSteps steps_;
  // Of the numbers of places of each word in the present document, summed up.
  std::uint64_t squares_ = 0;
};

}  // namespace

Xapian::WritableDatabase passingDocuments(const std::vector<Xapian::Document>& made,
                                          const Xapian::Query& words, const std::string& text,
                                          std::size_t slots, const StopCheck& stop) {
  Reduction reduced(words, text, stop);
  Xapian::WritableDatabase database(std::string(), Xapian::DB_BACKEND_INMEMORY);
  for (const Xapian::Document& document : made) {
    stop();
    database.add_document(reduced.of(document, slots));
  }
  return database;
}

}  // namespace corvaned
