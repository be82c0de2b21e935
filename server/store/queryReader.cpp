#include "server/store/queryReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/store/searchableText.h"
#include "server/store/textNormalizer.h"

namespace corvaned {
namespace {

using Query = Xapian::Query;
using Kind = QueryNode::Kind;

/// Makes of what is written what the engine searches for. The engine's own parser reads single
/// words and phrases only, as it reads documents: where its grammar cannot read a query, it takes
/// all operators and signs for words and tells nobody.
class QueryBuilder {
 public:
  QueryBuilder(const TextAnalysis& analysis, const IndexLimits& limits, const Xapian::Stem& stemmer)
      : keepsPositions_(analysis.options().keepsPositions), queryTerms_(limits.queryTerms) {
    parser_.set_default_op(Query::OP_AND);
    parser_.set_stemmer(stemmer);
    parser_.set_stemming_strategy(Xapian::QueryParser::STEM_SOME);
    parser_.set_max_expansion(static_cast<Xapian::termcount>(limits.expansion),
                              Query::WILDCARD_LIMIT_ERROR);
    for (const std::string& word : analysis.options().stopWords) stopWords_.insert(lowerText(word));
  }

  Query build(const QueryNode& node) {
    Query query = made(node);
    if (query.get_length() > queryTerms_) {
      throw ServerError(ErrorKind::QueryTooBroad,
                        fmt::format("the query has {} words, more than the {} allowed",
                                    query.get_length(), queryTerms_));
    }
    if (longWord_) refuseQuery(*longWord_);
    return query;
  }

 private:
  Query made(const QueryNode& node) {
    switch (node.kind) {
      case Kind::Words:
        return words(node);
      case Kind::Near:
        return nearness(node, Query::OP_NEAR);
      case Kind::Adjacent:
        return nearness(node, Query::OP_PHRASE);
      case Kind::All:
        return without(joined(Query::OP_AND, node.parts, hasOnlyStopWords(node.parts)), node);
      case Kind::And:
        return without(joined(Query::OP_AND, node.parts), node);
      case Kind::Or:
        return joined(Query::OP_OR, node.parts);
      case Kind::Xor:
        return joined(Query::OP_XOR, node.parts);
      case Kind::Not:
        return {Query::OP_AND_NOT, Query::MatchAll, made(node.parts.front())};
    }
    return {};
  }

  Query without(const Query& all, const QueryNode& node) {
    if (node.without.empty()) return all;
    return {Query::OP_AND_NOT, all, joined(Query::OP_OR, node.without)};
  }

  Query joined(Query::op by, const std::vector<QueryNode>& parts, bool withStopWords = true) {
    std::vector<Query> queries;
    for (const QueryNode& part : parts) {
      if (!withStopWords && isStopWord(part)) continue;
      Query query = made(part);
      if (!query.empty()) queries.push_back(std::move(query));
    }
    return {by, queries.begin(), queries.end()};
  }

  // Without them it would find nothing.
  bool hasOnlyStopWords(const std::vector<QueryNode>& parts) const {
    return std::all_of(parts.begin(), parts.end(),
                       [this](const QueryNode& part) { return isStopWord(part); });
  }

  bool isStopWord(const QueryNode& node) const {
    return !stopWords_.empty() && node.kind == Kind::Words && !node.isPhrase && !node.isKept &&
           stopWords_.count(lowerText(node.text)) != 0;
  }

  Query words(const QueryNode& node) {
    Query query = read(node, node.isPhrase);
    if (node.isPhrase && !keepsPositions_ && query.get_length() > 1) {
      refusePlaces(fmt::format("the phrase at character {}", node.place.position));
    }
    return query;
  }

  Query nearness(const QueryNode& node, Query::op by) {
    if (!keepsPositions_) refusePlaces(described(node.joints.front()));
    std::vector<Query> words;
    for (const QueryNode& part : node.parts) {
      // As they stand: a stem has no places.
      words.push_back(read(part, true));
      if (words.back().get_type() == Query::LEAF_TERM) continue;
      const bool isFirst = words.size() == 1;
      refuseQuery(fmt::format("{} has no word {} it",
                              described(node.joints[isFirst ? 0 : words.size() - 2]),
                              isFirst ? "before" : "behind"));
    }
    const auto window = static_cast<Xapian::termcount>(node.distance + words.size() - 1);
    return {by, words.begin(), words.end(), window};
  }

  Query read(const QueryNode& node, bool asPhrase) {
    using Parser = Xapian::QueryParser;
    const std::string text = searchableText(lowerQueryWords(node.text));
    if (asPhrase) return parsed('"' + text + '"', Parser::FLAG_PHRASE, node.prefix);
    // One by one: the parser cannot read Chinese between two other words.
    std::vector<Query> queries;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
      Query query = parsed(word, Parser::FLAG_WILDCARD, node.prefix);
      if (areInitials(word) && keepsPositions_) {
        // So a document has them that has small ones, or Chinese in front of them.
        const Query apart = parsed(lowerText(word), Parser::FLAG_WILDCARD, node.prefix);
        query = Query(Query::OP_OR, query, apart);
      }
      // Signs alone are no word.
      if (!query.empty()) queries.push_back(std::move(query));
    }
    return {Query::OP_AND, queries.begin(), queries.end()};
  }

  Query parsed(const std::string& text, unsigned flags, const std::string& prefix) {
    flags |= Xapian::QueryParser::FLAG_CJK_NGRAM;
    if (!keepsPositions_) flags |= Xapian::QueryParser::FLAG_NO_POSITIONS;
    Query query = parser_.parse_query(text, flags, prefix);
    noteLongWords(query);
    return query;
  }

  // A longer word is in no document's index, whatever the documents contain. To be told when the
  // query is known to have few words.
  void noteLongWords(const Query& query) {
    constexpr std::size_t kShown = 20;
    for (auto term = query.get_unique_terms_begin(); term != query.get_terms_end(); ++term) {
      for (auto form = parser_.unstem_begin(*term); form != parser_.unstem_end(*term); ++form) {
        const std::string word = *form;
        if (longWord_ || word.size() <= kMaxWordBytes) continue;
        longWord_ =
            fmt::format("the word {} has {} bytes, and words of more than {} are not indexed",
                        shown(word, kShown), word.size(), kMaxWordBytes);
      }
    }
  }

  [[noreturn]] static void refusePlaces(const std::string& place) {
    refuseQuery(place + " needs the positions of words, which the collection was created without");
  }

  const bool keepsPositions_;
  const std::size_t queryTerms_;
  Xapian::QueryParser parser_;
  std::set<std::string> stopWords_;
  std::optional<std::string> longWord_;
};

}  // namespace

// A document is found as its own language has it: each language reads the query for its documents,
// and the collection's language for those that have no other.
Xapian::Query QueryReader::read(const std::string& text) const {
  if (text.size() > limits_.queryBytes) {
    throw ServerError(ErrorKind::QueryTooBroad,
                      fmt::format("the query has {} bytes, more than the {} allowed", text.size(),
                                  limits_.queryBytes));
  }
  const QueryNode query = parseQuery(normalizeQuery(text), names_);
  Xapian::Query own = inLanguage(query, analysis_.stemmer());
  if (own.empty() || names_.languages().empty()) return own;
  std::vector<Xapian::Query> alternatives;
  std::vector<Xapian::Query> foreign;
  for (const std::string& language : names_.languages()) {
    foreign.emplace_back(languageTerm(language));
    alternatives.emplace_back(Xapian::Query::OP_FILTER, inLanguage(query, stemmerFor(language)),
                              foreign.back());
  }
  alternatives.emplace_back(Xapian::Query::OP_AND_NOT, own,
                            Xapian::Query(Xapian::Query::OP_OR, foreign.begin(), foreign.end()));
  return {Xapian::Query::OP_OR, alternatives.begin(), alternatives.end()};
}

Xapian::Query QueryReader::inLanguage(const QueryNode& query, const Xapian::Stem& stemmer) const {
  return QueryBuilder(analysis_, limits_, stemmer).build(query);
}

}  // namespace corvaned
