#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace corvaned {

/// The text in Unicode normalization form NFKC, so that all spellings of a word in Unicode become
/// the same. Bytes that are not UTF-8 become U+FFFD. Used for documents and for queries.
std::string normalizeText(std::string_view text);

/// How many bytes normalizeText() makes of the text, found without making them. One character can
/// stand for a whole phrase.
std::size_t normalizedBytes(std::string_view text);

/// The text in a form in which letters that differ only in case, width and the like are the same.
std::string foldedText(std::string_view text);

/// The normalised text in lower case.
std::string lowerText(std::string_view text);

/// The normalised query, in which a quotation mark is one character.
std::string normalizeQuery(std::string_view text);

/// The query in lower case, except for operators ("AND", "NOT", "NEAR/3") and field names
/// ("Title:"). An operator stands alone. The query parser takes a capitalised word for a proper
/// name and does not stem it, so German nouns and the first word of a sentence would find too
/// little.
std::string lowerQueryWords(const std::string& query);

/// Throws a badQuery error that says where, when a bracket or a quotation mark of the normalised
/// query has no partner. The query parser closes what is open and drops what is extra, which
/// searches for something else than was meant, or finds nothing.
void requireBalanced(const std::string& query);

/// Says where, when an operator of the normalised query lacks one of its sides; empty if none does.
/// For queries that the query parser refuses: it does not say where itself.
std::string lonelyOperatorIn(const std::string& query);

/// The normalised query with brackets around what the query parser reads only by itself: words that
/// NEAR or ADJ joins, and a text of Chinese, Japanese or Korean.
std::string withBrackets(const std::string& query);

/// Whether the query parser takes the operators and signs of a normalised query for what they are.
using IsUnderstood = std::function<bool(const std::string& query)>;

/// Says where, when NEAR or ADJ of the normalised query has no word on one of its sides, or says no
/// distance from 1 to 9999; empty if all are right. The query parser would take a wrong one, and
/// all other operators of the query with it, for words.
std::string wrongNearnessIn(const std::string& query, const IsUnderstood& isUnderstood);

/// True if the query parser may find something other than words in the normalised query.
bool mayHaveOperators(const std::string& query);

/// The normalised query with its operators alone: "NEAR" for "NEAR/3".
std::string withoutDistances(const std::string& query);

/// Says where, in a normalised query that is not understood, what stands that is the cause; empty
/// if the query has neither an operator nor a sign that means something.
std::string misunderstoodIn(const std::string& query, const IsUnderstood& isUnderstood);

/// The first thing in the normalised query that needs the positions of words, a phrase or an
/// operator, and where it stands; empty if nothing does.
std::string positionsNeededIn(const std::string& query);

/// True if the bytes are well-formed UTF-8.
bool isUtf8(std::string_view bytes);

}  // namespace corvaned
