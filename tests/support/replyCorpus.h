#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/kinds.h"

namespace tq::test {

struct Hit {
  std::string id;
  double score = 0.0;
  bool operator==(const Hit&) const = default;
};

struct Parsed {
  std::string document;
  std::string messageId;  // empty: the record carried no message
  std::string messageText;
  int level = 0;
  bool operator==(const Parsed&) const = default;
};

/// What a caller sees of one exchange and, for a search, of the stream after it.
struct Outcome {
  // Of the error's first message; all empty when the exchange succeeded.
  std::string errorId;
  std::string errorText;
  std::vector<std::string> errorArguments;
  std::string errorFile;  // "(null)" when none
  int errorLevel = 0;

  // Of the response; the lists also hold what came before an error.
  int returnCode = -1;
  unsigned int statusCode = 0;
  std::vector<Hit> hits;
  std::vector<Parsed> parsed;
  std::vector<std::uint64_t> selectivity{1, 1, 100};
  bool endOfStream = false;
  bool truncated = false;

  bool operator==(const Outcome&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Outcome& outcome);

/// A whole reply: its body before any framing, and what it means.
struct Reply {
  std::string name;  // letters and digits
  int kind;
  int status = 200;
  std::string body{};
  Outcome expected{};

  std::string headerLines{};        // further lines, each with its CR LF
  std::string inFront{};            // bytes before the status line
  bool streamed = false;            // hits may come in several portions
  bool recordsMustBeWhole = false;  // refused when a chunk ends within a record
  bool endMark = false;             // the body ends with the zero length

  // Where the records and the end mark begin in the body, and, last, where the body ends.
  std::vector<std::size_t> recordStarts{};
};

/// The name, which is what a failing test shows of its reply.
std::ostream& operator<<(std::ostream& out, const Reply& reply);

// Records, in the form with 4-byte lengths.
std::string bigEndian(std::uint32_t value);
std::string record(const std::vector<std::pair<std::string, std::string>>& fields);
/// The record after its own length.
std::string enveloped(const std::string& record);
std::string hitRecord(const std::string& id, const std::string& score);

/// The reply with a "Content-Length" line.
std::string plain(const Reply& reply);

/// One chunk of a chunked reply, as positions of the whole text.
struct ChunkSpan {
  std::size_t dataBegin;
  std::size_t dataEnd;
  std::size_t bodyEnd;  // how much of the body has come with this chunk's last byte
};
struct Chunked {
  std::string text;
  std::vector<ChunkSpan> chunks;  // without the last chunk
};
/// The reply in chunks of `size` bytes, 0 for a single one, with or without the last chunk.
Chunked chunked(const Reply& reply, std::size_t size, bool lastChunk);

/// The same with a chunk's end at each of these body positions, in ascending order.
Chunked chunkedAt(const Reply& reply, const std::vector<std::size_t>& ends, bool lastChunk);

/// True when every chunk of that size ends between two records of the body.
bool chunksKeepRecordsWhole(const Reply& reply, std::size_t size);

/// What is expected of the reply in chunks of that size: a parse result that is cut is refused.
Outcome expectedInChunks(const Reply& reply, std::size_t size);

/// Every kind and every status that the server answers with.
const std::vector<Reply>& allReplies();
/// Replies that are too long for every cut, or longer than the buffers on their way.
std::vector<std::string> longReplyNames();

/// A reply of allReplies() or a long one, which is made when it is first asked for.
const Reply& replyNamed(const std::string& name);

/// A status reply that no other reply of the corpus resembles: what the exchange after gets.
const Reply& nextReply();

}  // namespace tq::test
