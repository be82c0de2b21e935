#pragma once

#include <string>
#include <string_view>

namespace corvaned {

/// The text in Unicode form NFKC, so that the ways to write one word become one. Bytes that are no
/// UTF-8 become U+FFFD. Documents and queries both go through this.
std::string normalizeText(std::string_view text);

/// A query in which capital letters mean nothing any more, except where they make an operator
/// ("AND", "NOT", "NEAR/3") or stand in a field's name ("Title:"). The query parser takes a word
/// with a capital for a name and would not stem it, which loses the nouns of German and every word
/// that begins a sentence.
std::string lowerQueryWords(const std::string& query);

/// True when the bytes are well-formed UTF-8.
bool isUtf8(std::string_view bytes);

}  // namespace corvaned
