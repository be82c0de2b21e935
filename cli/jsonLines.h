#pragma once

#include <cstdint>
#include <istream>
#include <list>
#include <optional>
#include <string>
#include <variant>

#include "comm/kruKVPair.h"

namespace corvane {

/// One document as a line of the input describes it.
struct Document {
  std::uint64_t line = 0;
  std::string key;
  std::string text;
  std::list<tq::comm::KVPair> metadata;

  /// Roughly what it costs to hold and to send.
  std::size_t bytes() const;
};

/// A document that is not in the collection, and why.
struct Refusal {
  std::uint64_t line = 0;  ///< of the input; 0 when it is not known which
  std::string key;         ///< empty when the line has none
  std::string reason;
};

/// Reads documents from JSON Lines: one object per line, with a "key" (a string, or a whole number,
/// whose digits are taken), a "text" (a string) and any other fields, which become metadata:
/// strings as they are, null not at all, everything else as JSON. Blank lines are skipped. A line
/// that does not describe a document is a refusal, and reading goes on after it.
class DocumentReader {
 public:
  explicit DocumentReader(std::istream& input, std::size_t maxLineBytes = std::size_t{256} << 20);

  /// The next document or refusal; nothing at the end of the input. Throws OperationError when the
  /// input cannot be read.
  std::optional<std::variant<Document, Refusal>> next();

 private:
  enum class LineState { Complete, TooLong, End };
  LineState readLineOrThrow();
  LineState readLine();

  std::istream& input_;
  std::size_t maxLineBytes_;
  std::uint64_t line_ = 0;
  std::string buffer_;
};

}  // namespace corvane
