// The parser of HTTP replies, fed one reply whole, once more in pieces, and both ways again while
// it decodes record by record.
//
// Input: kind, size limit, seed of the pieces, then the bytes of the reply.

#include <algorithm>
#include <array>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "comm/kruClientResponse.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTResponse.h"
#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/memoryMeter.h"
#include "fuzz/transcript.h"
#include "tests/support/recordByRecord.h"

namespace tq::fuzz {

namespace {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::RESTResponse;

constexpr std::array kKinds{8, 20, 11, 14, 15, 22, 6, 4, 9, 0, 64, -1};
constexpr std::array<std::size_t, 4> kLimits{std::size_t{1} << 30, 4096, 64, 0};
constexpr MemoryBounds kMemory{8192, 8, 65536, 64};

/// Hands a reply to a parser as a client does: bodies whole, headers and size lines as they come.
class Feed {
 public:
  Feed(std::string_view reply, Cutter cutter, ClientResponse& response)
      : left_(reply), cutter_(cutter), response_(response), callsLeft_(2 * reply.size() + 16) {}

  /// Until the parser is done. False: the bytes ended before.
  bool read(RESTResponse& parser) {
    int need = 0;
    while (!parser.parseDone(need)) {
      const bool more = parser.wantsWholeBody() ? giveBody(parser, need) : givePiece(parser);
      if (!more) return false;
    }
    return true;
  }

  bool done() const { return done_; }
  std::size_t left() const { return left_.size(); }
  std::size_t carried() const { return carry_.size(); }

 private:
  bool givePiece(RESTResponse& parser) {
    if (left_.empty()) return false;
    const std::size_t size = std::min(cutter_.next(), left_.size());
    left_.remove_prefix(size - offer(parser, left_.substr(0, size)));
    return true;
  }

  bool giveBody(RESTResponse& parser, int need) {
    require(need >= 0, "no body has a length below 0");
    const auto size = static_cast<std::size_t>(need);
    if (size > left_.size()) return false;
    carry_.append(left_.substr(0, size));
    left_.remove_prefix(size);
    const std::size_t leftover = offer(parser, carry_);
    carry_.erase(0, carry_.size() - leftover);
    return true;
  }

  /// From memory of exactly the piece's size, so that a look beyond its end is seen.
  std::size_t offer(RESTResponse& parser, std::string_view piece) {
    require(callsLeft_-- != 0, "every call of the parser brings it forward");
    const auto exact = std::make_unique_for_overwrite<char[]>(piece.size());
    if (!piece.empty()) std::memcpy(exact.get(), piece.data(), piece.size());
    const auto size = static_cast<int>(piece.size());
    const int leftover = parser.parseMesg(exact.get(), size, response_, done_);
    require(leftover >= 0 && leftover <= size, "what is left over was offered");
    return static_cast<std::size_t>(leftover);
  }

  std::string_view left_;
  Cutter cutter_;
  ClientResponse& response_;
  std::size_t callsLeft_;
  std::string carry_;
  bool done_ = false;
};

bool streams(int kind) { return kind == 8 || kind == 20 || kind == 11 || kind == 6; }

/// A parser that has been through anything takes a new reply once it is told to.
void requireUsable(RESTResponse& parser) {
  constexpr std::string_view kReply = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
  parser.initState(false);
  parser.setMaxReplyBytes(kLimits[0]);
  ClientResponse response;
  Feed feed(kReply, Cutter::whole(), response);
  require(feed.read(parser) && feed.done() && response.success() && feed.left() == 0,
          "a parser can be used again");
}

void readReply(RESTResponse& first, int kind, std::size_t limit, Feed& feed,
               Transcript& transcript) {
  first.setMaxReplyBytes(limit);
  bool whole = feed.read(first);
  bool open = first.isChunked() && !first.lastChunkSeen() && streams(kind);
  while (whole && open && !feed.done()) {
    const bool rows = kind == ClientRequest::PARSE_RESULT;
    RESTResponse next(rows ? ClientRequest::PARSE_RESULT : ClientRequest::STREAM_SEARCH, true);
    next.setMaxReplyBytes(limit);
    whole = feed.read(next);
    open = !next.lastChunkSeen();
  }
  transcript.note("whole", whole ? 1 : 0);
  transcript.note("done", feed.done() ? 1 : 0);
  transcript.note("behind", static_cast<long long>(whole ? feed.left() : 0));
  transcript.note("carried", static_cast<long long>(feed.carried()));
}

Transcript read(int kind, std::size_t limit, std::string_view reply, Cutter cutter) {
  const MemoryMeter meter;
  Transcript transcript;
  ClientResponse response;
  Feed feed(reply, cutter, response);
  RESTResponse parser(static_cast<ClientRequest::REQUEST>(kind), false);
  try {
    readReply(parser, kind, limit, feed, transcript);
  } catch (const tq::comm::RESTException& error) {
    transcript.noteError(error);
  }
  transcript.takeHits(response.getSearchResponse());
  transcript.takeRows(response.getParseResponse());
  transcript.noteResponse(response);
  requireUsable(parser);
  requireWithin(meter, kMemory, reply.size());
  return transcript;
}

}  // namespace

}  // namespace tq::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The warning about a search without a body is wanted, ten thousand of them a second are not.
  std::cerr.rdbuf(nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tq::fuzz;
  Input input(data, size);
  const int kind = kKinds[input.byte() % kKinds.size()];
  const std::size_t limit = kLimits[input.byte() % kLimits.size()];
  const Cutter pieces(input.byte());
  const Transcript whole = read(kind, limit, input.rest(), Cutter::whole());
  const Transcript cut = read(kind, limit, input.rest(), pieces);
  Transcript::requireEqual(whole, cut);
  const tq::test::RecordByRecord slowly;
  Transcript::requireEqual(whole, read(kind, limit, input.rest(), Cutter::whole()));
  Transcript::requireEqual(cut, read(kind, limit, input.rest(), pieces));
  return 0;
}
