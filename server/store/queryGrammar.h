#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "server/store/xapianSchema.h"

namespace corvaned {

/// Where something stands in a query, for errors.
struct QueryPlace {
  std::string text;
  /// Of its first character, counted from 1.
  std::int32_t position = 0;
};

/// "the "NEAR" at character 5".
std::string described(const QueryPlace& place);

/// Throws ServerError(BadQuery) with the reason.
[[noreturn]] void refuseQuery(const std::string& reason);

/// The normalised query, in which a quotation mark is one character.
std::string normalizeQuery(std::string_view text);

/// What a query asks for, as it is written.
struct QueryNode {
  enum class Kind {
    /// A word, several with signs between them, or a phrase.
    Words,
    /// `parts` are words, with `joints` between them.
    Near,
    Adjacent,
    /// All of `parts`, which stand beside each other or have AND between them, and none of
    /// `without`.
    All,
    And,
    Or,
    Xor,
    /// What the only one of `parts` does not find.
    Not,
  };

  Kind kind = Kind::All;
  /// Of words, and of the first of `without`.
  QueryPlace place;
  std::vector<QueryNode> parts;
  std::vector<QueryNode> without;

  /// Of words: without the quotation marks and the name of metadata.
  std::string text;
  /// The prefix of the metadata that is asked for. None: the content.
  std::string prefix;
  bool isPhrase = false;
  /// Also if it is a stop word: behind "+", and alone in brackets.
  bool isKept = false;

  /// The largest distance between two neighbours.
  std::uint32_t distance = 0;
  std::vector<QueryPlace> joints;
};

/// Reads a normalised query: operators, signs, brackets, quotation marks and names of metadata.
/// What means nothing parts words and is not in the result. Throws ServerError(BadQuery) that says
/// where.
QueryNode parseQuery(const std::string& normal, const IndexNames& names);

}  // namespace corvaned
