// The parser of binary replies, fed one reply whole, once more in pieces, and both ways again while
// it decodes record by record.
//
// Input: kind, seed of the pieces, then the bytes of the reply.

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string>

#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfResponse.h"
#include "comm/kruRESTException.h"
#include "fuzz/check.h"
#include "fuzz/envelopes.h"
#include "fuzz/input.h"
#include "fuzz/memoryMeter.h"
#include "fuzz/transcript.h"
#include "tests/support/recordByRecord.h"

namespace tq::fuzz {

namespace {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::DrestoPerfResponse;
using tq::comm::RESTException;

constexpr std::array kKinds{8, 20, 11, 14, 15, 22, 6, 4, 9, 0, 64, -1};
constexpr MemoryBounds kMemory{8192, 8, 65536, 160};
constexpr std::size_t kReplyHeader = 2;

bool isSearch(int kind) { return kind == 8 || kind == 20 || kind == 6; }

/// The unassigned kind has replies like a search's, which the table of kinds does not know.
bool expectsResults(int kind) {
  return kind == 6 || ClientResponse::resultsExpected(static_cast<ClientRequest::REQUEST>(kind));
}

/// A reply on its way to a parser, read as a client reads it that puts cut replies together: the
/// first portion until it holds something whole, further ones as they come.
class Feed {
 public:
  Feed(std::string_view reply, Cutter cutter, ClientResponse& response)
      : left_(reply), cutter_(cutter), response_(response), callsLeft_(2 * reply.size() + 16) {}

  /// False: the bytes ended before the reply did.
  bool read(DrestoPerfResponse& parser, int kind) {
    if (!readHeader(parser)) return false;
    for (bool first = true; !done_; first = false) {
      if (!first) parser.initState(true);
      int need = 0;
      require(!parser.parseDone(need), "a parser that was told to go on does");
      const bool awaited = need > 0 && parser.hasBody();
      if (awaited && !take(parser, first)) return false;
      offer(parser);
      if (!awaited || kind == ClientRequest::GET_SERVER_VERSION) return true;
    }
    return true;
  }

  bool done() const { return done_; }
  std::size_t behind() const { return carry_.size() + left_.size(); }

 private:
  bool readHeader(DrestoPerfResponse& parser) {
    int need = 0;
    parser.parseDone(need);
    require(need == kReplyHeader, "a reply begins with its header");
    while (carry_.size() < kReplyHeader) {
      if (!append(kReplyHeader - carry_.size())) return false;
      offer(parser);
      if (carry_.empty()) return true;
    }
    fail("a header that is there is taken");
  }

  bool take(const DrestoPerfResponse& parser, bool first) {
    do {
      if (!append(left_.size())) return false;
    } while (mustReadOn(parser, first));
    return true;
  }

  bool mustReadOn(const DrestoPerfResponse& parser, bool first) const {
    const auto exact = exactCopy();
    const auto size = static_cast<int>(carry_.size());
    return (first || parser.beginsWithError(exact.get(), size)) &&
           !parser.holdsWholeUnit(exact.get(), size);
  }

  bool append(std::size_t most) {
    if (left_.empty()) return false;
    const std::size_t size = std::min({cutter_.next(), left_.size(), most});
    carry_.append(left_.substr(0, size));
    left_.remove_prefix(size);
    return true;
  }

  /// From memory of exactly that size, so that a look beyond its end is seen.
  void offer(DrestoPerfResponse& parser) {
    require(callsLeft_-- != 0, "every call of the parser brings it forward");
    const auto exact = exactCopy();
    const auto size = static_cast<int>(carry_.size());
    const int leftover = parser.parseMesg(exact.get(), size, response_, done_);
    require(leftover >= 0 && leftover <= size, "what is left over was offered");
    // The parser is done with an error record and does not say where it ended.
    const int consumed =
        parser.isErrorReply() && size > 0 ? parser.errorLength(exact.get(), size) : size - leftover;
    carry_.erase(0, static_cast<std::size_t>(consumed));
  }

  std::unique_ptr<char[]> exactCopy() const {
    auto exact = std::make_unique_for_overwrite<char[]>(carry_.size());
    if (!carry_.empty()) std::memcpy(exact.get(), carry_.data(), carry_.size());
    return exact;
  }

  std::string_view left_;
  Cutter cutter_;
  ClientResponse& response_;
  std::size_t callsLeft_;
  std::string carry_;
  bool done_ = false;
};

/// A parser that has been through anything takes a new reply once it is told to.
void requireUsable(DrestoPerfResponse& parser, int kind) {
  using namespace std::string_view_literals;
  parser.initState(false);
  ClientResponse response;
  Feed feed("\x00\x01\x00\x01\x00\x00"sv, Cutter::whole(), response);
  require(feed.read(parser, kind) && response.success(), "a parser can be used again");
}

/// The hits of a search, counted by a reader of its own.
void requireAllHits(std::string_view reply, int kind, const Transcript& transcript) {
  if (!isSearch(kind) || !Envelopes::isSuccess(reply)) return;
  const Envelopes envelopes(reply.substr(kReplyHeader));
  require(envelopes.callsItselfCut() || transcript.hits() == envelopes.hits(),
          "every hit of a reply arrives, and once");
}

Transcript read(int kind, std::string_view reply, Cutter cutter, Transcript::Scores scores) {
  const MemoryMeter meter;
  Transcript transcript(scores);
  ClientResponse response;
  Feed feed(reply, cutter, response);
  DrestoPerfResponse parser(static_cast<ClientRequest::REQUEST>(kind), expectsResults(kind));
  try {
    const bool whole = feed.read(parser, kind);
    transcript.note("whole", whole ? 1 : 0);
    transcript.note("done", feed.done() ? 1 : 0);
    transcript.note("behind", static_cast<long long>(feed.behind()));
  } catch (const RESTException& error) {
    transcript.noteError(error);
  } catch (const tq::oss::BaseException& error) {
    // A parse result without its document; the client reports it as a failure of its own.
    require(kind == ClientRequest::PARSE_RESULT, "a parser throws one type of exception");
    transcript.noteError(error);
  }
  transcript.takeHits(response.getSearchResponse());
  transcript.takeRows(response.getParseResponse());
  transcript.noteResponse(response);
  requireAllHits(reply, kind, transcript);
  requireUsable(parser, kind);
  requireWithin(meter, kMemory, reply.size());
  return transcript;
}

}  // namespace

}  // namespace tq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tq::fuzz;
  Input input(data, size);
  const int kind = kKinds[input.byte() % kKinds.size()];
  const Cutter pieces(input.byte());
  const std::string_view reply = input.rest();
  const std::string_view body = Envelopes::isSuccess(reply) ? reply.substr(2) : std::string_view();
  const Envelopes envelopes(body);
  const auto scores =
      envelopes.mixesScores() ? Transcript::Scores::Ignored : Transcript::Scores::Noted;
  const Transcript whole = read(kind, reply, Cutter::whole(), scores);
  const Transcript cut = read(kind, reply, pieces, scores);
  {
    const tq::test::RecordByRecord slowly;
    Transcript::requireEqual(whole, read(kind, reply, Cutter::whole(), scores));
    Transcript::requireEqual(cut, read(kind, reply, pieces, scores));
  }
  const bool errorAsContent =
      kind == tq::comm::ClientRequest::GET_SERVER_VERSION && Envelopes::beginsWithError(body);
  if (!envelopes.callsItselfCut() && !errorAsContent) Transcript::requireEqual(whole, cut);
  return 0;
}
