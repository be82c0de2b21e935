#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/replyCorpus.h"

namespace tq::test {

/// A reply of a corpus file, as its lines say it. `tests/corpora/README.md` describes the lines.
struct CorpusEntry {
  std::string name;
  int kind = 0;
  int status = 200;
  std::string before{};       // bytes before the status line
  std::string headerLines{};  // further header lines, each with its CR LF
  std::string body{};
  // Where the records or envelopes begin in the body, and, last, where the body ends; empty for a
  // body without any.
  std::vector<std::size_t> starts{};
  std::vector<std::size_t> lengths{};  // where a length of two bytes stands
  bool inPortions = false;
  bool inWholeRecords = false;
  bool keepsConnection = true;

  Outcome expected{};
  unsigned long errorLine = 0;
  std::string content{};
  std::string statusMessageId{};
  std::string statusMessageText{};
};

/// The entries of such a text; `name` names it in the error (std::runtime_error, with the line)
/// that a line beyond the grammar raises.
std::vector<CorpusEntry> parseCorpus(const std::string& text, const std::string& name);

/// The entries of a file of tests/corpora.
std::vector<CorpusEntry> corpusFile(const std::string& name);

/// The replies of such a file in the form that the tests of a protocol use.
template <typename Reply>
struct Corpus {
  /// `replyOf` makes a reply of an entry.
  template <typename ReplyOf>
  Corpus(const std::string& file, ReplyOf replyOf) {
    for (auto& entry : corpusFile(file)) {
      const bool isNext = entry.name == "Next";
      (isNext ? next : replies.emplace_back()) = replyOf(std::move(entry));
    }
  }

  std::vector<Reply> replies;
  Reply next;  // what the exchange after each of them gets
};

}  // namespace tq::test
