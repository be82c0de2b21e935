#include "server/store/passingDocuments.h"

#include <set>

#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

// The engine takes every phrase for found in one of several databases that has no positions at all.
constexpr Xapian::termpos kPassingPosition = 1;

// The document without its other terms, but as long as it is: that counts in the weight of each.
Xapian::Document onlyWith(const std::set<std::string>& terms, const Xapian::Document& document,
                          std::size_t slots) {
  Xapian::Document result;
  Xapian::termcount others = 0;
  for (auto term = document.termlist_begin(); term != document.termlist_end(); ++term) {
    if (!terms.contains(*term)) {
      others += term.get_wdf();
      continue;
    }
    result.add_term(*term, term.get_wdf());
    for (auto position = term.positionlist_begin(); position != term.positionlist_end();
         ++position) {
      result.add_posting(*term, *position, 0);
    }
  }
  result.add_posting(kPassingTerm, kPassingPosition, others);
  for (Xapian::valueno slot = kKeySlot; slot <= kKeySlot + slots; ++slot) {
    const std::string value = document.get_value(slot);
    if (!value.empty()) result.add_value(slot, value);
  }
  return result;
}

}  // namespace

Xapian::WritableDatabase passingDocuments(std::vector<Xapian::Document> made,
                                          const Xapian::Query& words, const std::string& text,
                                          std::size_t slots) {
  const std::set<std::string> terms(words.get_terms_begin(), words.get_terms_end());
  const bool all = text.find('*') != std::string::npos;
  Xapian::WritableDatabase database(std::string(), Xapian::DB_BACKEND_INMEMORY);
  for (Xapian::Document& document : made) {
    if (all) document.add_posting(kPassingTerm, kPassingPosition, 0);
    database.add_document(all ? document : onlyWith(terms, document, slots));
  }
  return database;
}

}  // namespace corvaned
