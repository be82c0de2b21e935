#pragma once

#include <cstddef>
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

/// The text, normalised and in lower case.
std::string lowerText(std::string_view text);

/// Normalised words of a query in lower case, except for initials: "U.S.A." is one word of the
/// engine, and "u.s.a." three. It takes other capitals for those of proper names, which it does not
/// stem, so German nouns and the first word of a sentence would find too little.
std::string lowerQueryWords(std::string_view words);

/// Whether the word of a query is nothing but initials in capitals.
bool areInitials(std::string_view word);

/// True if the bytes are well-formed UTF-8.
bool isUtf8(std::string_view bytes);

}  // namespace corvaned
