#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/replyCorpus.h"

namespace tq::test {

/// What a server means to say to one request. Everything that it says carries the tag, as far as
/// the kind has room for it.
struct TaggedReply {
  enum class Verdict { Ok, Error, Refused };
  int kind = kGetStatus;
  unsigned int tag = 0;
  unsigned int results = 0;
  Verdict verdict = Verdict::Ok;

  /// The ids of the hits, or the documents of the parse results, in their order.
  std::vector<std::string> names(bool binary) const;
};

/// How it says so over HTTP.
struct HttpForm {
  bool chunked = false;
  std::size_t chunkSize = 0;  // 0: one chunk
  bool endMark = true;        // of search and parse results
  bool lastChunk = true;
  bool measured = true;         // false: a refusal has neither a length nor chunks
  std::string behindResults{};  // data of one more chunk, which nobody wants
  std::string headerLines{};    // further ones, each with its CR LF
};

std::string tagText(unsigned int tag);
std::string httpReply(const TaggedReply& reply, const HttpForm& form);
std::string binaryReply(const TaggedReply& reply);

/// A reply with results in two portions, of which the first ends with the first result: over HTTP
/// two chunks and the last one.
struct Portions {
  std::string first;
  std::string rest;
};
Portions portionsOf(const TaggedReply& reply, bool binary);

}  // namespace tq::test
