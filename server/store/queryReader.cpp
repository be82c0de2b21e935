#include "server/store/queryReader.h"

#include <fmt/format.h>

#include <vector>

#include "server/base/errors.h"
#include "server/store/searchableText.h"
#include "server/store/textNormalizer.h"

namespace corvaned {
namespace {

using Parser = Xapian::QueryParser;

[[noreturn]] void refuse(const std::string& reason) {
  throw ServerError(ErrorKind::BadQuery, "the query cannot be understood: " + reason);
}

void requireNoPositions(const std::string& normal) {
  const std::string place = positionsNeededIn(normal);
  if (place.empty()) return;
  refuse(place + " needs the positions of words, which the collection was created without");
}

// Before each of the words is looked at: of a word that comes again and again the parser keeps as
// many forms for each time that it comes.
void requireFewWords(const Xapian::Query& query, std::size_t most) {
  if (query.get_length() <= most) return;
  throw ServerError(
      ErrorKind::QueryTooBroad,
      fmt::format("the query has {} words, more than the {} allowed", query.get_length(), most));
}

// A longer word is in no document's index, whatever the documents contain.
void requireIndexedWords(const Parser& parser, const Xapian::Query& query) {
  constexpr std::size_t kShown = 20;
  for (auto term = query.get_terms_begin(); term != query.get_terms_end(); ++term) {
    for (auto form = parser.unstem_begin(*term); form != parser.unstem_end(*term); ++form) {
      const std::string word = *form;
      if (word.size() <= kMaxWordBytes) continue;
      refuse(fmt::format("the word {} has {} bytes, and words of more than {} are not indexed",
                         shown(word, kShown), word.size(), kMaxWordBytes));
    }
  }
}

constexpr unsigned kSyntax =
    Parser::FLAG_DEFAULT | Parser::FLAG_WILDCARD | Parser::FLAG_PURE_NOT | Parser::FLAG_CJK_NGRAM;

// What the parser falls back to, silently, where it cannot read a query: all operators and signs
// are words then, and "-fox" finds the documents with it.
constexpr unsigned kWordsAlone = Parser::FLAG_CJK_NGRAM;

std::string textFor(const std::string& normal) {
  return searchableQuery(lowerQueryWords(withBrackets(normal)));
}

bool isUnderstood(Parser& parser, const std::string& query) {
  const std::string text = textFor(query);
  try {
    return parser.parse_query(text, kSyntax).get_description() !=
           parser.parse_query(text, kWordsAlone).get_description();
  } catch (const Xapian::QueryParserError&) {
    return false;
  }
}

// The parser loses the memory of a distance, or of several words that belong together, where it
// cannot read them: it is asked about both before it meets them in the whole query.
void requireUnderstood(const std::string& normal, const IndexNames& names) {
  if (!mayHaveOperators(normal)) return;
  Parser parser;
  parser.set_default_op(Xapian::Query::OP_AND);
  names.registerAt(parser);
  const auto understood = [&parser](const std::string& query) {
    return isUnderstood(parser, query);
  };
  const std::string wrongNearness = wrongNearnessIn(normal, understood);
  if (!wrongNearness.empty()) refuse(wrongNearness);
  if (understood(withoutDistances(normal))) return;
  std::string place = lonelyOperatorIn(normal);
  if (place.empty()) place = misunderstoodIn(normal, understood);
  if (!place.empty()) refuse(place);
}

}  // namespace

// A document is found as its own language has it: each language reads the query for its documents,
// and the collection's language for those that have no other.
Xapian::Query QueryReader::read(const std::string& text) const {
  if (text.size() > limits_.queryBytes) {
    throw ServerError(ErrorKind::QueryTooBroad,
                      fmt::format("the query has {} bytes, more than the {} allowed", text.size(),
                                  limits_.queryBytes));
  }
  const std::string normal = normalizeQuery(text);
  requireBalanced(normal);
  if (!analysis_.options().keepsPositions) requireNoPositions(normal);
  requireUnderstood(normal, names_);
  Xapian::Query own = inLanguage(normal, analysis_.stemmer());
  if (own.empty() || names_.languages().empty()) return own;
  std::vector<Xapian::Query> alternatives;
  std::vector<Xapian::Query> foreign;
  for (const std::string& language : names_.languages()) {
    foreign.emplace_back(languageTerm(language));
    alternatives.emplace_back(Xapian::Query::OP_FILTER, inLanguage(normal, stemmerFor(language)),
                              foreign.back());
  }
  alternatives.emplace_back(Xapian::Query::OP_AND_NOT, own,
                            Xapian::Query(Xapian::Query::OP_OR, foreign.begin(), foreign.end()));
  return {Xapian::Query::OP_OR, alternatives.begin(), alternatives.end()};
}

Xapian::Query QueryReader::inLanguage(const std::string& normal,
                                      const Xapian::Stem& stemmer) const {
  Xapian::SimpleStopper stopper;
  for (const std::string& word : analysis_.options().stopWords) stopper.add(lowerText(word));
  Parser parser;
  parser.set_database(database_);
  parser.set_stemmer(stemmer);
  parser.set_stemming_strategy(Parser::STEM_SOME);
  parser.set_default_op(Xapian::Query::OP_AND);
  parser.set_max_expansion(static_cast<Xapian::termcount>(limits_.expansion),
                           Xapian::Query::WILDCARD_LIMIT_ERROR);
  parser.set_stopper(&stopper);
  names_.registerAt(parser);
  Xapian::Query query = parsed(parser, normal);
  if (query.empty() && parser.stoplist_begin() != parser.stoplist_end()) {
    // Of stop words alone it would find nothing.
    parser.set_stopper(nullptr);
    query = parsed(parser, normal);
  }
  return query;
}

Xapian::Query QueryReader::parsed(Parser& parser, const std::string& normal) const {
  unsigned flags = kSyntax;
  if (!analysis_.options().keepsPositions) flags |= Parser::FLAG_NO_POSITIONS;
  try {
    Xapian::Query query = parser.parse_query(textFor(normal), flags);
    requireFewWords(query, limits_.queryTerms);
    requireIndexedWords(parser, query);
    return query;
  } catch (const Xapian::QueryParserError& error) {
    refuse(error.get_msg());
  }
}

}  // namespace corvaned
