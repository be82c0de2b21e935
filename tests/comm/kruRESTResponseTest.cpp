#include <gtest/gtest.h>

#include <initializer_list>
#include <iterator>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTResponse.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruTrace.h"
#include "tests/support/chunks.h"
#include "tests/support/exchange.h"
#include "tests/support/kinds.h"
#include "tests/support/raised.h"
#include "tests/support/recordByRecord.h"
#include "tests/support/replyCorpus.h"

namespace {

using namespace tq::test;
using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::getChunkedMesgLen;
using tq::comm::RESTException;
using tq::comm::RESTResponse;

constexpr bool kFirst = false;
constexpr bool kContinuation = true;

RESTResponse parserFor(int kind, bool streaming = kFirst) {
  return RESTResponse(static_cast<ClientRequest::REQUEST>(kind), streaming);
}

int size(const std::string& bytes) { return static_cast<int>(bytes.size()); }

int feed(RESTResponse& parser, const std::string& bytes, ClientResponse& response, bool& done) {
  return parser.parseMesg(bytes.data(), size(bytes), response, done);
}

std::string headers(int status, const std::string& lines) {
  return "HTTP/1.1 " + std::to_string(status) + " Because\r\n" + lines + "\r\n";
}

std::string headersWithLength(int status, std::size_t length) {
  return headers(status, "Content-Length: " + std::to_string(length) + "\r\n");
}

// Feeds a header block with a length and then its body; what is left of the body is returned.
int parseWhole(RESTResponse& parser, int status, const std::string& body, ClientResponse& response,
               bool& done) {
  EXPECT_EQ(feed(parser, headersWithLength(status, body.size()), response, done), 0);
  return feed(parser, body, response, done);
}

struct Parsed200 {
  ClientResponse response;
  bool done = false;
  int left = -1;
  int state = 0;
};

void parse200(int kind, const std::string& body, Parsed200& result) {
  auto parser = parserFor(kind);
  result.left = parseWhole(parser, 200, body, result.response, result.done);
  int need = 0;
  EXPECT_TRUE(parser.parseDone(need));
}

Outcome refusal(int kind, int status, const std::string& body) {
  return errorOf([&] {
    auto parser = parserFor(kind);
    ClientResponse response;
    bool done = false;
    parseWhole(parser, status, body, response, done);
  });
}

std::vector<Hit> hitsOf(ClientResponse& response) {
  std::vector<Hit> hits;
  auto& list = response.getSearchResponse();
  while (list.hasMore()) {
    auto& hit = list.getNext();
    hits.push_back({utf8(hit.getDocId()), hit.getScore()});
  }
  return hits;
}

std::vector<std::string> documentsOf(ClientResponse& response) {
  std::vector<std::string> documents;
  auto& list = response.getParseResponse();
  while (list.hasMore()) documents.push_back(utf8(list.getNext().getDocument()));
  return documents;
}

const std::string kSkipped("\xDE\xAD\xBE\xEF", 4);
const std::string kEndMark(4, '\0');

std::string oneHit(const std::string& id) { return enveloped(hitRecord(id, "0.5")); }
std::string oneRow(const std::string& doc) { return enveloped(record({{"Doc", doc}})); }

// What the parser asks for.

TEST(RESTResponse, WhatDoesNotBeginAsAReplyIsRefusedAtItsFirstWrongByte) {
  const auto refused = [](const std::string& bytes) {
    return errorOf([&] {
      auto parser = parserFor(kStreamSearch);
      ClientResponse response;
      bool done = false;
      EXPECT_EQ(feed(parser, bytes, response, done), 0);
    });
  };
  for (const char* start : {"H", "HTTP", "HTTP/", "\r\nHTTP/9", "\n\n\rHT"}) {
    EXPECT_EQ(refused(start).errorId, "") << start;
  }
  for (const char* start : {"X", " HTTP/", "h", "HTTQ", "HTTPS", "\r\n\r\n!"}) {
    EXPECT_EQ(refused(start).errorId, "ERR_CLIENT_RESP_PARSING") << start;
  }
}

TEST(RESTResponse, AsksFor256BytesBeforeTheHeaders) {
  auto parser = parserFor(kStreamSearch);
  int need = 0;
  EXPECT_FALSE(parser.parseDone(need));
  EXPECT_EQ(need, 256);
}

TEST(RESTResponse, AsksFor16BytesForAChunkSizeLine) {
  auto parser = parserFor(kStreamSearch, kContinuation);
  int need = 0;
  EXPECT_FALSE(parser.parseDone(need));
  EXPECT_EQ(need, 16);
}

TEST(RESTResponse, AsksForTheContentLengthOfABody) {
  auto parser = parserFor(kStreamSearch);
  ClientResponse response;
  bool done = false;
  feed(parser, headersWithLength(200, 1234), response, done);
  int need = 0;
  EXPECT_FALSE(parser.parseDone(need));
  EXPECT_EQ(need, 1234);
}

TEST(RESTResponse, IsDoneWithItsBodyAndSaysSo) {
  auto parser = parserFor(kCreateCollection);
  ClientResponse response;
  bool done = false;
  parseWhole(parser, 200, "any", response, done);
  int need = 77;
  EXPECT_TRUE(parser.parseDone(need));
}

TEST(RESTResponse, ReturnsHowManyBytesFollowTheHeaders) {
  auto parser = parserFor(kStreamSearch);
  ClientResponse response;
  bool done = false;
  EXPECT_EQ(feed(parser, headersWithLength(200, 8) + "12345", response, done), 5);
}

TEST(RESTResponse, ReturnsHowManyBytesFollowTheFirstChunkSizeLine) {
  auto parser = parserFor(kStreamSearch);
  ClientResponse response;
  bool done = false;
  const auto block = headers(200, "Transfer-Encoding: chunked\r\n") + "1a\r\n" + "abc";
  EXPECT_EQ(feed(parser, block, response, done), 3);
  int need = 0;
  EXPECT_FALSE(parser.parseDone(need));
  EXPECT_EQ(need, 26);
}

TEST(RESTResponse, GathersAHeaderBlockFromAnyPieces) {
  const auto block = headersWithLength(200, 8);
  for (std::size_t cut = 1; cut < block.size(); ++cut) {
    auto parser = parserFor(kStreamSearch);
    ClientResponse response;
    bool done = false;
    std::string held = block.substr(0, cut);
    const int left = feed(parser, held, response, done);
    held = held.substr(held.size() - static_cast<std::size_t>(left)) + block.substr(cut);
    EXPECT_EQ(feed(parser, held, response, done), 0) << cut;
    int need = 0;
    EXPECT_FALSE(parser.parseDone(need));
    EXPECT_EQ(need, 8) << "cut at " << cut;
  }
}

TEST(RESTResponse, ReadsOnWhenABlockAnnouncesNeitherALengthNorChunks) {
  auto parser = parserFor(kStreamSearch);
  ClientResponse response;
  bool done = false;
  const auto blocks = headers(100, "") + headersWithLength(200, 8);
  const auto left = static_cast<std::size_t>(feed(parser, blocks, response, done));
  int need = 0;
  EXPECT_FALSE(parser.parseDone(need));
  if (left != 0) {
    EXPECT_EQ(feed(parser, blocks.substr(blocks.size() - left), response, done), 0);
  }
  EXPECT_FALSE(parser.parseDone(need));
  EXPECT_EQ(need, 8);
}

TEST(RESTResponse, AHeaderBlockEndsWithABlankLineAfterALineThatEndsInCrLf) {
  for (const char* block : {"HTTP/1.1 200 OK\nContent-Length: 8\n\n", "HTTP/1.1 200 OK\r\n\n",
                            "HTTP/1.1 200 OK\nContent-Length: 8\n\r\n"}) {
    auto parser = parserFor(kStreamSearch);
    ClientResponse response;
    bool done = false;
    EXPECT_EQ(feed(parser, block, response, done), 0);
    int need = 0;
    EXPECT_FALSE(parser.parseDone(need));
    EXPECT_EQ(need, 256) << block;
  }
}

TEST(RESTResponse, AZeroByteEndsAHeaderBlockAndIsNotTaken) {
  using namespace std::string_literals;
  auto parser = parserFor(kStreamSearch);
  ClientResponse response;
  bool done = false;
  EXPECT_EQ(feed(parser, "HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\0\x01\r\n\r\n"s, response, done),
            6);
  int need = 0;
  EXPECT_FALSE(parser.parseDone(need));
  EXPECT_EQ(need, 8);
}

TEST(RESTResponse, TakesALengthBesideChunksForNothing) {
  for (const char* lines : {"Content-Length: 5\r\nTransfer-Encoding: chunked\r\n",
                            "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n"}) {
    auto parser = parserFor(kStreamSearch);
    ClientResponse response;
    bool done = false;
    EXPECT_EQ(feed(parser, headers(200, lines), response, done), 0);
    int need = 0;
    EXPECT_FALSE(parser.parseDone(need));
    EXPECT_EQ(need, 16) << "the size line is still to come";
    EXPECT_EQ(parser.getContentLength(), 0);
  }
}

// Header lines.

TEST(RESTResponse, TakesAnyTransferEncodingForChunks) {
  for (const char* value : {"chunked", "gzip", "identity", ""}) {
    auto parser = parserFor(kStreamSearch);
    ClientResponse response;
    bool done = false;
    const auto line = std::string("Transfer-Encoding: ") + value + "\r\n";
    feed(parser, headers(200, line) + "10\r\n", response, done);
    EXPECT_TRUE(parser.isChunked()) << value;
    int need = 0;
    EXPECT_FALSE(parser.parseDone(need));
    EXPECT_EQ(need, 16) << value;
  }
}

TEST(RESTResponse, FindsHeaderNamesAnywhereInALine) {
  auto parser = parserFor(kStreamSearch);
  ClientResponse response;
  bool done = false;
  feed(parser, headers(200, "X-Content-Length-Of-It: 9\r\n"), response, done);
  EXPECT_EQ(parser.getContentLength(), 9);
}

TEST(RESTResponse, FindsHeaderNamesOnlyInTheirOwnCase) {
  auto parser = parserFor(kStreamSearch);
  ClientResponse response;
  bool done = false;
  feed(parser, headers(200, "content-length: 9\r\nContent-Length: 5\r\n"), response, done);
  EXPECT_EQ(parser.getContentLength(), 5);
}

TEST(RESTResponse, FindsNoHeaderNameThatLacksItsFirstLetter) {
  for (const bool inPlace : {true, false}) {
    auto parser = parserFor(kStreamSearch);
    ClientResponse response;
    bool done = false;
    const std::string block =
        headers(200, "Content-Length: 5\r\ncontent-Length: 9\r\ntransfer-Encoding: chunked\r\n");
    if (inPlace) {
      feed(parser, block, response, done);
    } else {
      const RecordByRecord slowly;
      feed(parser, block, response, done);
    }
    EXPECT_FALSE(parser.isChunked());
    EXPECT_EQ(parser.getContentLength(), 5);
  }
}

// As atoi does: blanks of any kind, a sign, digits.
TEST(RESTResponse, ReadsTheNumberAtTheStartOfALength) {
  const std::vector<std::pair<std::string, int>> cases{{"7", 7},
                                                       {" 7", 7},
                                                       {"\t7", 7},
                                                       {"\v7", 7},
                                                       {"\f7", 7},
                                                       {"\r7", 7},
                                                       {" \t 7", 7},
                                                       {"+7", 7},
                                                       {"+-7", 0},
                                                       {"++7", 0},
                                                       {"--7", 0},
                                                       {"-0", 0},
                                                       {"0x10", 0},
                                                       {"12a", 12},
                                                       {"a12", 0},
                                                       {"12 34", 12},
                                                       {"", 0},
                                                       {" ", 0},
                                                       {"00000000000000000000012", 12},
                                                       {"1073741824", 1 << 30}};
  for (const auto& [text, length] : cases) {
    auto parser = parserFor(kStreamSearch);
    ClientResponse response;
    bool done = false;
    feed(parser, headers(200, "Content-Length:" + text + "\r\n"), response, done);
    EXPECT_EQ(parser.getContentLength(), length) << text;
  }
}

TEST(RESTResponse, AStatusThatNoIntHoldsIsTheNearestOne) {
  constexpr int kLeast = std::numeric_limits<int>::min();
  constexpr int kMost = std::numeric_limits<int>::max();
  const std::vector<std::pair<std::string, int>> cases{{"-5", -5},
                                                       {"+404", 404},
                                                       {"\t404", 404},
                                                       {"2147483647", kMost},
                                                       {"4294967496", kMost},
                                                       {"-4294967496", kLeast},
                                                       {"9223372036854775808", kMost},
                                                       {"+99999999999999999999", kMost},
                                                       {"-99999999999999999999", kLeast}};
  for (const auto& [text, code] : cases) {
    auto parser = parserFor(kStreamSearch);
    auto block = icu::UnicodeString::fromUTF8("HTTP/1.1 " + text + " Because\r\n\r\n");
    parser.extractHeaders(block);
    EXPECT_EQ(parser.getStatusCode(), code) << text;
  }
}

TEST(RESTResponse, TakesTheStatusCodeFromTheStatusLinesSecondWord) {
  for (const auto& [line, code] : std::vector<std::pair<std::string, int>>{
           {"HTTP/1.1 200 OK", 200}, {"HTTP/1.0 404 Not Found", 404}, {"X 401", 401}}) {
    auto parser = parserFor(kStreamSearch);
    auto text = icu::UnicodeString::fromUTF8(line + "\r\nContent-Length: 5\r\n\r\n");
    parser.extractHeaders(text);
    EXPECT_EQ(parser.getStatusCode(), code) << line;
  }
}

TEST(RESTResponse, ExtractsHeadersFromTextAsWell) {
  auto parser = parserFor(kStreamSearch);
  icu::UnicodeString text(u"HTTP/1.1 503 Busy\r\nContent-Length: 12\r\n\r\n");
  parser.extractHeaders(text);
  EXPECT_EQ(parser.getStatusCode(), 503);
  EXPECT_EQ(parser.getContentLength(), 12);
  int need = 0;
  EXPECT_FALSE(parser.parseDone(need));
  EXPECT_EQ(need, 12);
}

TEST(RESTResponse, KnowsTheHeaderByWhichAServerEndsTheConnection) {
  const std::pair<const char*, bool> cases[] = {{"Connection: close", true},
                                                {"connection:CLOSE", true},
                                                {"CONNECTION \t:  Close  ", true},
                                                {"Connection: keep-alive, close", true},
                                                {"Connection: , close ,upgrade", true},
                                                {"Connection: keep-alive", false},
                                                {"Connection: closed", false},
                                                {"Connection: \"close\"", false},
                                                {"Connection:", false},
                                                {"Connection close", false},
                                                {"Connections: close", false},
                                                {"Connecting: close", false},
                                                {"CONNECTIXN: close", false},
                                                {"Connection: clone", false},
                                                {"Connection: CLOXE", false},
                                                {"X-Connection: close", false},
                                                {"Proxy: close", false},
                                                {"close", false},
                                                {"C", false}};
  for (const auto& [line, ends] : cases) {
    const std::string block = std::string("HTTP/1.1 200 OK\r\n") + line + "\r\n";
    for (const char* length : {"Content-Length: 0\r\n\r\n", "X: \xC3\xA9\r\n\r\n"}) {
      auto parser = parserFor(kCreateCollection);
      ClientResponse response;
      bool done = false;
      feed(parser, block + length, response, done);
      EXPECT_EQ(parser.endsConnection(), ends) << line;
      parser.initState(false);
      EXPECT_FALSE(parser.endsConnection());
    }
  }
}

TEST(RESTResponse, ThatARefusalHadNoLengthIsForgottenWithIt) {
  auto parser = parserFor(kCreateCollection);
  ClientResponse response;
  bool done = false;
  feed(parser, "HTTP/1.1 404 No\r\n\r\n", response, done);
  EXPECT_TRUE(parser.isUnmeasured());
  parser.initState(false);
  EXPECT_FALSE(parser.isUnmeasured());
}

TEST(RESTResponse, WhatAnInterimReplySaysOfTheConnectionIsForgotten) {
  auto parser = parserFor(kCreateCollection);
  ClientResponse response;
  bool done = false;
  feed(parser, "HTTP/1.1 100 Continue\r\nConnection: close\r\n\r\n", response, done);
  EXPECT_TRUE(parser.endsConnection());
  feed(parser, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", response, done);
  EXPECT_FALSE(parser.endsConnection());
}

TEST(RESTResponse, ATextWithoutALineChangesNothing) {
  for (const char16_t* nothing : {u"", u"\n", u"\n\n"}) {
    auto parser = parserFor(kStreamSearch);
    icu::UnicodeString text(u"HTTP/1.1 503 Busy\r\nContent-Length: 12\r\n\r\n");
    parser.extractHeaders(text);
    text = nothing;
    parser.extractHeaders(text);
    EXPECT_EQ(parser.getStatusCode(), 503);
    EXPECT_EQ(parser.getContentLength(), 12);
  }
}

// Chunk-size lines.

TEST(ChunkedMesgLen, ReadsTheLineAsHexadecimalThroughItsLineFeed) {
  struct Case {
    std::string line;
    int length;
    int consumed;
  };
  const std::vector<Case> cases{
      {"1a\r\n", 26, 4},    {"1A\r\nmore", 26, 4},   {"0\r\n\r\n", 0, 3},
      {"00010\r\n", 16, 7}, {"7;name=v\r\n", 7, 10}, {"ff \r\n", 255, 5},
  };
  for (const auto& [line, length, consumed] : cases) {
    int used = 0;
    EXPECT_EQ(getChunkedMesgLen(line.c_str(), used), length) << line;
    EXPECT_EQ(used, consumed) << line;
  }
}

TEST(ChunkedMesgLen, DropsACarriageReturnThatNoLineFeedFollows) {
  int used = 0;
  EXPECT_EQ(getChunkedMesgLen("1\ra\r\n", used), 26);
  EXPECT_EQ(used, 5);
}

TEST(ChunkedMesgLen, ReadsGarbageAsZeroWhichIsTheEnd) {
  for (const char* line : {"hello\r\n", "\r\n", "xyz\r\n", ";\r\n"}) {
    int used = 0;
    EXPECT_EQ(getChunkedMesgLen(line, used), 0) << line;
  }
}

// Read by themselves these would be 5, 5, -5, 16 and 16. All of them are garbage in a size line.
const std::vector<std::string> kAlmostSizes{"+5", " 5", "-5", "0x10", "0X10"};

TEST(ChunkedMesgLen, ReadsASignABlankAndASecondPrefixAsZero) {
  for (const auto& size : kAlmostSizes) {
    const std::string line = size + "\r\nmore";
    int used = 0;
    EXPECT_EQ(getChunkedMesgLen(line.c_str(), used), 0) << size;
    EXPECT_EQ(used, static_cast<int>(size.size()) + 2) << size;
    auto parser = parserFor(kStreamSearch, kContinuation);
    used = 0;
    parser.updateContentLength(line.c_str(), used);
    EXPECT_EQ(parser.getContentLength(), 0) << size;
  }
}

TEST(RESTResponse, ASizeLineWithASignABlankOrASecondPrefixIsRefused) {
  for (const auto& size : kAlmostSizes) {
    for (const bool streaming : {kFirst, kContinuation}) {
      const auto raised = raisedBy([&] {
        auto parser = parserFor(kStreamSearch, streaming);
        ClientResponse response;
        bool done = false;
        const auto start = streaming ? "" : headers(200, "Transfer-Encoding: chunked\r\n");
        feed(parser, start + size + "\r\n", response, done);
      });
      EXPECT_EQ(raised, (Raised{{"ERR_CLIENT_RESP_PARSING",
                                 "(null)",
                                 0,
                                 {},
                                 "the chunk-size line is not a hexadecimal number"}}))
          << size;
    }
  }
}

TEST(ChunkedMesgLen, LooksAtNoMoreThanItsBufferHolds) {
  // A valid line of exactly 125 characters, and one that never ends within what is looked at.
  const std::string longest = std::string(123, '0') + "2b\r\n";
  int used = 0;
  EXPECT_EQ(getChunkedMesgLen(longest.c_str(), used), 43);
  EXPECT_EQ(used, 127);
  const std::string longer = std::string(124, '0') + "2b\r\n";
  EXPECT_EQ(getChunkedMesgLen(longer.c_str(), used), 2) << "the last digit is not looked at";
  EXPECT_EQ(used, 125);
}

TEST(ChunkedMesgLen, ANumberThatNoIntHoldsIsTheLargestInt) {
  for (const char* line : {"80000000\r\n", "100000001\r\n", "ffffffffffffffffffff\r\n"}) {
    int used = 0;
    EXPECT_EQ(getChunkedMesgLen(line, used), std::numeric_limits<int>::max()) << line;
  }
}

TEST(RESTResponse, ASizeLineOf125CharactersIsTakenWithTheLineEndInFrontOfItAndALongerOneRefused) {
  for (const char* front : {"", "\r\n"}) {
    for (const std::size_t zeros : {123U, 124U}) {
      const auto error = errorOf([&] {
        auto parser = parserFor(kStreamSearch, kContinuation);
        ClientResponse response;
        bool done = false;
        const auto line = front + std::string(zeros, '0') + "2b\r\n";
        EXPECT_EQ(feed(parser, line + "x", response, done), 1);
        EXPECT_EQ(parser.getContentLength(), 43);
      });
      EXPECT_EQ(error.errorId, zeros == 123 ? "" : "ERR_CLIENT_RESP_PARSING") << front << zeros;
    }
  }
}

TEST(RESTResponse, AnEmptySizeLineIsRefusedAtOnce) {
  for (const char* line : {"\n", "\r\n\n", "\r\n\r\n"}) {
    EXPECT_EQ(errorOf([&] {
                auto parser = parserFor(kStreamSearch, kContinuation);
                ClientResponse response;
                bool done = false;
                feed(parser, line, response, done);
              }).errorId,
              "ERR_CLIENT_RESP_PARSING");
  }
}

TEST(RESTResponse, SkipsTheEndOfThePreviousChunkInFrontOfAChunkSizeLine) {
  for (const auto& [text, consumed] :
       std::vector<std::pair<std::string, int>>{{"\r\n1a\r\n", 6}, {"1a\r\n", 4}}) {
    auto parser = parserFor(kStreamSearch, kContinuation);
    int used = 0;
    parser.updateContentLength(text.c_str(), used);
    EXPECT_EQ(used, consumed);
    EXPECT_EQ(parser.getContentLength(), 26);
    int need = 0;
    EXPECT_FALSE(parser.parseDone(need));
    EXPECT_EQ(need, 26);
  }
}

TEST(RESTResponse, UpdatesNoContentLengthOfAReplyThatIsNotChunked) {
  auto parser = parserFor(kStreamSearch);
  int used = 0;
  parser.updateContentLength("1a\r\n", used);
  EXPECT_EQ(used, 0);
  EXPECT_EQ(parser.getContentLength(), 0);
}

TEST(RESTResponse, AContinuationLeavesWhatFollowsItsChunkSizeLine) {
  auto parser = parserFor(kStreamSearch, kContinuation);
  ClientResponse response;
  bool done = false;
  EXPECT_EQ(feed(parser, "\r\n1a\r\nab", response, done), 2);
  int need = 0;
  EXPECT_FALSE(parser.parseDone(need));
  EXPECT_EQ(need, 26);
}

TEST(RESTResponse, GathersAChunkSizeLineFromAnyPieces) {
  const std::string line = "\r\n1a\r\n";
  for (std::size_t first = 0; first <= line.size(); ++first) {
    for (std::size_t second = first; second <= line.size(); ++second) {
      auto parser = parserFor(kStreamSearch, kContinuation);
      ClientResponse response;
      bool done = false;
      for (const auto& piece :
           {line.substr(0, first), line.substr(first, second - first), line.substr(second)}) {
        // Behind the piece stands nothing that could be read.
        const std::vector<char> exact(piece.begin(), piece.end());
        if (!parser.wantsWholeBody()) {
          EXPECT_EQ(parser.parseMesg(exact.data(), size(piece), response, done), 0);
        }
      }
      EXPECT_EQ(parser.getContentLength(), 26) << first << ' ' << second;
    }
  }
}

TEST(RESTResponse, InitStateMakesAParserReadyForEitherStart) {
  auto parser = parserFor(kStreamSearch);
  parser.initState(true);
  int need = 0;
  EXPECT_FALSE(parser.parseDone(need));
  EXPECT_EQ(need, 16);
  EXPECT_EQ(parser.getStatusCode(), 200);
  EXPECT_TRUE(parser.isChunked());
  parser.initState(false);
  EXPECT_FALSE(parser.parseDone(need));
  EXPECT_EQ(need, 256);
  EXPECT_FALSE(parser.isChunked());
}

TEST(RESTResponse, InitStateForgetsTheReplyThatItWasIn) {
  const std::string start = headers(200, "Transfer-Encoding: chunked\r\n");
  // In a header block; in a size line; after a chunk too short for a record's start; at the end.
  for (const std::string& begun :
       {start.substr(0, 20), start + "1", start + "3\r\n", start + "0\r\n"}) {
    auto parser = parserFor(kStreamSearch);
    ClientResponse response;
    bool done = false;
    const auto left = feed(parser, begun, response, done);
    EXPECT_EQ(left, 0);
    if (parser.wantsWholeBody())
      feed(parser, begun.ends_with("3\r\n") ? "abc" : "", response, done);
    parser.initState(false);
    done = false;
    EXPECT_FALSE(parser.isChunked());
    EXPECT_FALSE(parser.lastChunkSeen());
    EXPECT_EQ(parser.getContentLength(), 0);
    const auto body = kSkipped + oneHit("a") + kEndMark;
    EXPECT_EQ(parseWhole(parser, 200, body, response, done), 4) << begun;
    EXPECT_EQ(hitsOf(response).size(), 1U) << begun;
    EXPECT_TRUE(parser.endMarkSeen());
    parser.initState(false);
    EXPECT_FALSE(parser.endMarkSeen());
  }
}

TEST(RESTResponse, TheLimitOfAHeaderBlockHoldsForEachReplyByItself) {
  const std::string block = headersWithLength(200, 5);
  auto parser = parserFor(kStreamSearch);
  parser.setMaxReplyBytes(block.size());
  ClientResponse response;
  bool done = false;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(feed(parser, block, response, done), 0);
    EXPECT_EQ(parser.getContentLength(), 5);
    parser.initState(false);
  }
}

// Bodies without an error.

TEST(RESTResponse, ABodyIsParsedByItsAnnouncedLengthAndNotByWhatIsOffered) {
  const auto body = kSkipped + oneHit("a");
  auto parser = parserFor(kStreamSearch);
  ClientResponse response;
  bool done = false;
  feed(parser, headersWithLength(200, body.size()), response, done);
  EXPECT_EQ(feed(parser, body + oneHit("b") + kEndMark, response, done), 0);
  EXPECT_EQ(hitsOf(response).size(), 1U);
  EXPECT_FALSE(done) << "the end mark is none of this reply";
}

TEST(RESTResponse, ABodyThatIsNotAllThereIsLeftAlone) {
  const auto body = kSkipped + oneHit("a") + kEndMark;
  auto parser = parserFor(kStreamSearch);
  ClientResponse response;
  bool done = false;
  feed(parser, headersWithLength(200, body.size()), response, done);
  for (std::size_t length = 0; length < body.size(); ++length) {
    // Behind the shortened body stands nothing that could be read.
    const std::vector<char> part(body.begin(), body.begin() + static_cast<long>(length));
    EXPECT_EQ(parser.parseMesg(part.data(), size(body.substr(0, length)), response, done),
              static_cast<int>(length));
    int need = 0;
    EXPECT_FALSE(parser.parseDone(need));
    EXPECT_EQ(need, size(body));
  }
  EXPECT_EQ(feed(parser, body, response, done), 4);
  EXPECT_EQ(hitsOf(response).size(), 1U);
}

TEST(RESTResponse, ALengthBelowNothingIsNothing) {
  for (const std::string& before : {std::string(), kChunkedHead, kChunkedHead + "1"}) {
    auto parser = parserFor(kStreamSearch);
    ClientResponse response;
    bool done = false;
    if (!before.empty()) feed(parser, before, response, done);
    for (const int length : {-1, std::numeric_limits<int>::min()}) {
      EXPECT_EQ(parser.parseMesg("HTTP/1.1 200 OK\r\n\r\n", length, response, done), 0);
      int need = 0;
      EXPECT_FALSE(parser.parseDone(need));
    }
  }
}

TEST(RESTResponse, ABodyShorterThanTheBytesInFrontOfItsRecordsIsRefused) {
  for (const int kind : {kStreamSearch, kScalarSearch, kParseResult, kSelectivity, kGetStatus}) {
    for (std::size_t length = 1; length < 4; ++length) {
      EXPECT_EQ(refusal(kind, 200, kSkipped.substr(0, length)).errorId, "ERR_CLIENT_RESP_PARSING")
          << kind;
    }
  }
}

TEST(RESTResponse, Status200SetsTheReturnCodeTo0) {
  Parsed200 result;
  parse200(1, "x", result);
  EXPECT_TRUE(result.response.success());
}

TEST(RESTResponse, ALengthOf0EndsTheReplyWithoutAnErrorWhateverItsStatus) {
  for (const int status : {200, 400, 401, 404, 500, 503}) {
    auto parser = parserFor(kStreamSearch);
    ClientResponse response;
    bool done = false;
    feed(parser, headersWithLength(status, 0), response, done);
    int need = 0;
    if (!parser.parseDone(need)) {
      EXPECT_EQ(need, 0);
      EXPECT_EQ(feed(parser, "", response, done), 0);
    }
    EXPECT_TRUE(parser.parseDone(need)) << status;
    EXPECT_TRUE(done) << status;
    EXPECT_EQ(response.getReturnCode(), status == 200 ? 0 : -1) << status;
  }
}

TEST(RESTResponse, AnyOtherKindHasNoBodyParser) {
  for (const int kind :
       std::initializer_list<int>{0, kCreateCollection, 7, kAsynchAddDocument, kGetServerVersion,
                                  kVersionsValidation, 63, 64, 1000, -1}) {
    Parsed200 result;
    parse200(kind, kSkipped + oneHit("base64:QQ==") + kEndMark, result);
    EXPECT_EQ(result.left, 0) << kind;
    EXPECT_TRUE(hitsOf(result.response).empty()) << kind;
  }
}

TEST(RESTResponse, LosesTheTextOfTheServersVersion) {
  Parsed200 result;
  parse200(22, "Corvane 12.1", result);
  EXPECT_TRUE(result.response.getContent().isEmpty());
  EXPECT_TRUE(result.response.success());
}

// Searches.

TEST(RESTResponse, ParsesTheHitsOfEachKindOfSearch) {
  for (const int kind : std::initializer_list<int>{6, kStreamSearch, kScalarSearch}) {
    Parsed200 result;
    parse200(kind, kSkipped + oneHit("base64:QQ==") + oneHit("base64:Qg==") + kEndMark, result);
    EXPECT_EQ(hitsOf(result.response),
              (std::vector<Hit>{{"base64:QQ==", 0.5}, {"base64:Qg==", 0.5}}))
        << kind;
    EXPECT_TRUE(result.done) << kind;
  }
}

TEST(RESTResponse, AFirstSearchBodyWithAZeroLengthWordIsDoneWithoutHits) {
  Parsed200 result;
  parse200(8, kSkipped + kEndMark, result);
  EXPECT_TRUE(result.done);
  EXPECT_TRUE(hitsOf(result.response).empty());
}

TEST(RESTResponse, DoesNotConsumeTheEndMark) {
  Parsed200 search;
  parse200(8, kSkipped + oneHit("a") + kEndMark, search);
  EXPECT_EQ(search.left, 4);
  Parsed200 rows;
  parse200(11, kSkipped + oneRow("d") + kEndMark, rows);
  EXPECT_EQ(rows.left, 4);
}

TEST(RESTResponse, ParsesAContinuationFromItsFirstByte) {
  const auto body = oneHit("base64:QQ==");
  for (const int kind : std::initializer_list<int>{6, kStreamSearch, kScalarSearch}) {
    auto parser = parserFor(kind, kContinuation);
    ClientResponse response;
    bool done = false;
    char line[32];
    std::snprintf(line, sizeof line, "%zx\r\n", body.size());
    EXPECT_EQ(feed(parser, line, response, done), 0);
    EXPECT_EQ(feed(parser, body, response, done), 0);
    EXPECT_EQ(hitsOf(response), (std::vector<Hit>{{"base64:QQ==", 0.5}})) << kind;
    EXPECT_FALSE(done) << kind;
  }
}

TEST(RESTResponse, ASearchStopsAtAPartialRecordAndLeavesIt) {
  const auto whole = oneHit("base64:QQ==");
  const auto next = oneHit("base64:Qg==");
  for (std::size_t part = 4; part < next.size(); ++part) {
    Parsed200 result;
    parse200(8, kSkipped + whole + next.substr(0, part), result);
    EXPECT_EQ(result.left, static_cast<int>(part));
    EXPECT_FALSE(result.done);
    EXPECT_EQ(hitsOf(result.response).size(), 1U);
  }
}

TEST(RESTResponse, ASearchReadsNoLengthWordThatIsNotThere) {
  const auto whole = oneHit("base64:QQ==");
  for (std::size_t part = 1; part < 4; ++part) {
    Parsed200 result;
    parse200(8, kSkipped + whole + std::string(part, '\x01'), result);
    EXPECT_EQ(result.left, static_cast<int>(part));
    EXPECT_EQ(hitsOf(result.response).size(), 1U);
  }
}

TEST(RESTResponse, AnEmptySearchBodyWarnsAndIsDone) {
  testing::internal::CaptureStderr();
  Parsed200 result;
  parse200(8, kSkipped, result);
  const auto text = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(text.starts_with(" [WARN]: parseStreamSearch !!: 0 len for resp")) << text;
  EXPECT_TRUE(result.done);
  EXPECT_EQ(result.left, 0);
}

TEST(RESTResponse, AnEmptyParseResultBodyIsDoneWithoutAWarning) {
  testing::internal::CaptureStderr();
  Parsed200 result;
  parse200(11, kSkipped, result);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(result.done);
  EXPECT_EQ(result.left, 0);
}

TEST(RESTResponse, IsCompleteEvenAfterAPartialSearchBody) {
  auto parser = parserFor(kStreamSearch);
  ClientResponse response;
  bool done = false;
  parseWhole(parser, 200, kSkipped + oneHit("a").substr(0, 6), response, done);
  int need = 0;
  EXPECT_TRUE(parser.parseDone(need));
  EXPECT_FALSE(done);
}

TEST(RESTResponse, AFieldThatRunsPastItsRecordIsRefused) {
  // The record's own length is right; its value claims one byte more than there is.
  auto bytes = record({{"URI", "base64:QQ=="}});
  const auto valueLength = bytes.size() - 11 - 4;
  bytes.replace(valueLength, 4, bigEndian(12));
  for (const int kind : {kStreamSearch, kScalarSearch, kParseResult, kGetStatus, kSelectivity}) {
    EXPECT_EQ(refusal(kind, 200, kSkipped + enveloped(bytes) + kEndMark).errorId,
              "ERR_CLIENT_RESP_PARSING")
        << kind;
  }
}

TEST(RESTResponse, AFieldThatRunsPastItsErrorRecordIsRefused) {
  auto bytes = record({{"MsgId", "ZVK1234E"}, {"MsgText", "t"}});
  bytes.replace(bytes.size() - 5, 4, bigEndian(2));
  EXPECT_EQ(refusal(8, 500, kSkipped + enveloped(bytes) + "x").errorId, "ERR_CLIENT_RESP_PARSING");
}

TEST(RESTResponse, AHitWithoutItsDocumentIsRefusedByName) {
  const auto error = refusal(8, 200, kSkipped + enveloped(record({{"SCORE", "1"}})) + kEndMark);
  EXPECT_FALSE(error.errorId.empty());
  EXPECT_EQ(error.errorArguments, std::vector<std::string>{"URI"});
}

TEST(RESTResponse, AnInfrastructureErrorInARecordLeavesAsTheLibrarysOwnWithItsMessages) {
  for (const auto& [kind, fields] : std::vector<std::pair<int, std::string>>{
           {kStreamSearch, record({{"SCORE", "1"}})},
           {kParseResult, record({{"MsgId", "ZVK1"}, {"MsgText", "t"}})},
           {kParseResult, record({{"Doc", "d"}, {"MsgId", "ZVK1"}})},
           {kGetStatus, record({{"OTHER", "3"}})}}) {
    auto parser = parserFor(kind);
    ClientResponse response;
    bool done = false;
    try {
      parseWhole(parser, 200, kSkipped + enveloped(fields) + kEndMark, response, done);
      FAIL() << kind;
    } catch (const RESTException& error) {
      EXPECT_EQ(error.getMessageList().size(), 1U) << kind;
    }
  }
}

// Parse results.

TEST(RESTResponse, ParsesParseResults) {
  Parsed200 result;
  parse200(11, kSkipped + oneRow("one") + oneRow("two") + kEndMark, result);
  EXPECT_EQ(documentsOf(result.response), (std::vector<std::string>{"one", "two"}));
  EXPECT_TRUE(result.done);
}

TEST(RESTResponse, ParsesAContinuationOfParseResultsFromItsFirstByte) {
  const auto body = oneRow("one") + kEndMark;
  auto parser = parserFor(kParseResult, kContinuation);
  ClientResponse response;
  bool done = false;
  char line[32];
  std::snprintf(line, sizeof line, "%zx\r\n", body.size());
  feed(parser, line, response, done);
  EXPECT_EQ(feed(parser, body, response, done), 4);
  EXPECT_EQ(documentsOf(response), std::vector<std::string>{"one"});
  EXPECT_TRUE(done);
}

TEST(RESTResponse, AParseResultLongerThanTheDataIsRefused) {
  const auto row = oneRow("one");
  for (std::size_t part = 4; part < row.size(); ++part) {
    const auto error = refusal(11, 200, kSkipped + oneRow("zero") + row.substr(0, part));
    EXPECT_EQ(error.errorId, "ERR_CLIENT_RESP_PARSING");
    EXPECT_EQ(error.errorFile, "(null)");
  }
}

TEST(RESTResponse, AParseResultLongerThanTheDataIsRefusedBehindAnEndThatIsNotItsOwn) {
  EXPECT_EQ(errorOf([&] {
              auto parser = parserFor(kParseResult);
              ClientResponse response;
              bool done = true;
              parseWhole(parser, 200, kSkipped + oneRow("one").substr(0, 9), response, done);
            }).errorId,
            "ERR_CLIENT_RESP_PARSING");
}

TEST(RESTResponse, ARefusedParseResultLeavesTheRowsBeforeIt) {
  auto parser = parserFor(kParseResult);
  ClientResponse response;
  bool done = false;
  const auto body = kSkipped + oneRow("zero") + oneRow("one").substr(0, 9);
  EXPECT_THROW(parseWhole(parser, 200, body, response, done), RESTException);
  EXPECT_EQ(documentsOf(response), std::vector<std::string>{"zero"});
}

// Estimates and status.

TEST(RESTResponse, AnEstimateIsAlways1And1And100) {
  const auto values = record({{"first", "5"}, {"second", "6"}, {"third", "7"}});
  for (const auto& body : {kSkipped + enveloped(values), kSkipped + enveloped(""),
                           kSkipped + enveloped(values).substr(0, 9), kSkipped}) {
    Parsed200 result;
    parse200(14, body, result);
    const auto& info = result.response.getSelectivityInfo();
    EXPECT_EQ(info.getFirst(), 1);
    EXPECT_EQ(info.getSecond(), 1);
    EXPECT_EQ(info.getThird(), 100);
  }
}

TEST(RESTResponse, AnEstimateIsSetEvenWhenNothingWasParsed) {
  const std::string compact = bigEndian(5) + bigEndian(7) + bigEndian(9);
  tq::comm::SelectivityInfo other(false);
  other.parseRecordNew(compact.data(), 12, 0);
  auto parser = parserFor(kSelectivity);
  ClientResponse response;
  response.setSelectivityInfo(other);
  ASSERT_EQ(response.getSelectivityInfo().getFirst(), 5);
  bool done = false;
  parseWhole(parser, 200, kSkipped + bigEndian(99) + "partial", response, done);
  EXPECT_EQ(response.getSelectivityInfo().getFirst(), 1);
}

TEST(RESTResponse, ConsumesTheOneRecordOfAnEstimateOrAStatus) {
  Parsed200 estimate;
  parse200(14, kSkipped + enveloped(record({{"a", "b"}})) + "xyz", estimate);
  EXPECT_EQ(estimate.left, 3);
  Parsed200 status;
  parse200(15, kSkipped + enveloped(record({{"STATUS_CODE", "3"}})) + "xyz", status);
  EXPECT_EQ(status.left, 3);
}

TEST(RESTResponse, TakesTheStatusCodeOfTheRecord) {
  Parsed200 result;
  parse200(15, kSkipped + enveloped(record({{"x", "y"}, {"STATUS_CODE", "31"}})), result);
  EXPECT_EQ(result.response.getStatusCode(), 31U);
}

TEST(RESTResponse, TheStatusIs0WhenNothingWasParsed) {
  auto parser = parserFor(kGetStatus);
  ClientResponse response;
  response.setGetStatusCode(5);
  bool done = false;
  parseWhole(parser, 200, kSkipped + bigEndian(99) + "partial", response, done);
  EXPECT_EQ(response.getStatusCode(), 0U);
}

TEST(RESTResponse, AStatusRecordWithoutItsCodeIsAnErrorThatNamesTheProperty) {
  for (const auto& fields : {record({{"OTHER", "3"}}), record({{"STATUS_CODE", "three"}})}) {
    const auto error = errorOf([&] {
      auto parser = parserFor(kGetStatus);
      ClientResponse response;
      bool done = false;
      try {
        parseWhole(parser, 200, kSkipped + enveloped(fields), response, done);
      } catch (const RESTException&) {
        throw;
      } catch (...) {
        ADD_FAILURE() << "an exception of another family left the parser";
      }
    });
    EXPECT_FALSE(error.errorId.empty());
    EXPECT_NE(error.errorId, "(no message)");
    std::string all = error.errorText;
    for (const auto& argument : error.errorArguments) all += " " + argument;
    EXPECT_NE(all.find("STATUS_CODE"), std::string::npos) << all;
  }
}

TEST(RESTResponse, EstimateAndStatusSkipFourBytesInAContinuationToo) {
  const auto body = kSkipped + enveloped(record({{"STATUS_CODE", "8"}}));
  auto parser = parserFor(kGetStatus, kContinuation);
  ClientResponse response;
  bool done = false;
  char line[32];
  std::snprintf(line, sizeof line, "%zx\r\n", body.size());
  feed(parser, line, response, done);
  feed(parser, body, response, done);
  EXPECT_EQ(response.getStatusCode(), 8U);
}

TEST(RESTResponse, AContinuationSkipsFourBytesInFrontOfAnEstimate) {
  const auto body = kSkipped + enveloped(record({{"a", "b"}})) + "xyz";
  auto parser = parserFor(kSelectivity, kContinuation);
  ClientResponse response;
  bool done = false;
  char line[32];
  std::snprintf(line, sizeof line, "%zx\r\n", body.size());
  feed(parser, line, response, done);
  EXPECT_EQ(feed(parser, body, response, done), 3);
}

// Refusals.

TEST(RESTResponse, ARefusalWithABodyRaisesByItsStatus) {
  const std::vector<std::pair<int, std::string>> cases{
      {400, "ERR_SERVER_PROTOCOL"}, {401, "ERR_SERVER_INVALID_AUTH"}, {404, "ERR_SERVER_PROTOCOL"},
      {302, "ERR_SERVER_PROTOCOL"}, {503, "ERR_SERVER_PROTOCOL"},     {201, "ERR_SERVER_PROTOCOL"},
  };
  for (const int kind : {kCreateCollection, kStreamSearch, kParseResult, kSelectivity, kGetStatus,
                         kGetServerVersion}) {
    for (const auto& [status, id] : cases) {
      const auto error = refusal(kind, status, "b");
      EXPECT_EQ(error.errorId, id) << status;
      EXPECT_EQ(error.errorFile, "(null)");
      EXPECT_EQ(error.errorText, "");
      EXPECT_TRUE(error.errorArguments.empty());
      EXPECT_EQ(error.errorLevel, 2);
    }
  }
}

TEST(RESTResponse, ARefusalWaitsForNoMoreThanItsFirstChunk) {
  for (const int status : {400, 401, 404}) {
    auto parser = parserFor(kStreamSearch);
    ClientResponse response;
    bool done = false;
    feed(parser, headers(status, "Transfer-Encoding: chunked\r\n") + "1\r\n", response, done);
    EXPECT_THROW(feed(parser, "b", response, done), RESTException) << status;
    int need = 0;
    EXPECT_TRUE(parser.parseDone(need));
  }
}

TEST(RESTResponse, ARefusalNamesNoLine) {
  for (const int status : {400, 401, 404}) {
    try {
      auto parser = parserFor(kCreateCollection);
      ClientResponse response;
      bool done = false;
      parseWhole(parser, status, "b", response, done);
      FAIL();
    } catch (const RESTException& error) {
      EXPECT_EQ(error.getMessageList().size(), 1U);
      EXPECT_EQ(error.getMessageList().front().getLineNumber(), 0U);
      EXPECT_EQ(error.getMessageList().front().getFileName(), nullptr);
    }
  }
}

TEST(RESTResponse, Status500WithoutAnErrorRecordIsTheServersFailureAndNamesItsLine) {
  const auto tooLong = bigEndian(200) + record({{"MsgId", "ZVK1"}, {"MsgText", "t"}});
  for (const auto& body : {kSkipped, kSkipped + tooLong, kSkipped + "\x01", std::string("x"),
                           kSkipped + enveloped(record({{"MsgId", ""}, {"MsgText", "t"}})),
                           kSkipped + enveloped(record({{"MsgText", "t"}}))}) {
    try {
      auto parser = parserFor(kStreamSearch);
      ClientResponse response;
      bool done = false;
      parseWhole(parser, 500, body, response, done);
      FAIL();
    } catch (const RESTException& error) {
      const auto& message = error.getMessageList().front();
      EXPECT_EQ(utf8(message.getMessageId()), "ERR_SERVER_APP");
      EXPECT_TRUE(message.getMessageText().isEmpty());
      EXPECT_EQ(static_cast<int>(message.getLevel()), 2);
      EXPECT_STREQ(message.getFileName(), "kruRESTResponse");
      EXPECT_GT(message.getLineNumber(), 0U);
    }
  }
}

TEST(RESTResponse, Status500CarriesTheServersOwnMessage) {
  const std::vector<std::pair<std::string, int>> levels{
      {"ZVK1234W", 4}, {"ZVK1234I", 8}, {"ZVK1234S", 1}, {"ZVK1234E", 2}, {"ABC1234W", 2}};
  for (const auto& [id, level] : levels) {
    const auto body = kSkipped + enveloped(record({{"MsgId", id}, {"MsgText", "it broke"}}));
    const auto raised = raisedBy([&] {
      auto parser = parserFor(kStreamSearch);
      ClientResponse response;
      bool done = false;
      parseWhole(parser, 500, body, response, done);
    });
    // The general message is replaced: nothing of it follows the server's own.
    ASSERT_EQ(raised.size(), 1U) << id;
    EXPECT_EQ(raised.front().id, id);
    EXPECT_EQ(raised.front().text, "it broke");
    EXPECT_EQ(raised.front().level, level) << id;
  }
}

TEST(RESTResponse, AnErrorRecordIsParsedOnlyWhenAllOfItIsThere) {
  const auto bytes = enveloped(record({{"MsgId", "ZVK1234E"}, {"MsgText", "t"}}));
  auto parser = parserFor(kStreamSearch);
  for (std::size_t length = 0; length <= bytes.size(); ++length) {
    RESTException error(true);
    // Behind the shortened record stands nothing that could be read.
    const std::vector<char> exact(bytes.begin(), bytes.begin() + static_cast<long>(length));
    parser.parseErrorMessage(exact.data(), static_cast<int>(length), error);
    EXPECT_EQ(error.getMessageList().empty(), length < bytes.size()) << length;
  }
}

TEST(RESTResponse, AReplyThatIsCompleteMustNotBeFedAgain) {
  auto parser = parserFor(kCreateCollection);
  ClientResponse response;
  bool done = false;
  parseWhole(parser, 200, "x", response, done);
  try {
    feed(parser, "y", response, done);
    FAIL();
  } catch (const RESTException& error) {
    const auto& message = error.getMessageList().front();
    EXPECT_EQ(utf8(message.getMessageId()), "ERR_CLIENT_RESP_PARSING");
    EXPECT_EQ(message.getFileName(), nullptr);
    EXPECT_EQ(message.getLineNumber(), 0U);
  }
}

TEST(RESTResponse, ALengthThatNoReplyCanHaveIsRefused) {
  for (const char* value : {"-1", "2147483648", "4294967296", "99999999999999999999"}) {
    const auto error = errorOf([&] {
      auto parser = parserFor(kStreamSearch);
      ClientResponse response;
      bool done = false;
      feed(parser, headers(200, std::string("Content-Length: ") + value + "\r\n"), response, done);
    });
    EXPECT_EQ(error.errorId, "ERR_CLIENT_RESP_PARSING") << value;
  }
}

TEST(RESTResponse, TheLimitOfABodyHoldsToTheByteAndCanBeMoved) {
  for (const std::size_t limit : {std::size_t{100}, std::size_t{5000}}) {
    for (const std::size_t length : {limit, limit + 1}) {
      const auto error = errorOf([&] {
        auto parser = parserFor(kStreamSearch);
        parser.setMaxReplyBytes(limit);
        ClientResponse response;
        bool done = false;
        feed(parser, headersWithLength(200, length), response, done);
      });
      EXPECT_EQ(error.errorId, length > limit ? "ERR_CLIENT_RESP_PARSING" : "") << length;
    }
  }
}

TEST(RESTResponse, TheLimitOfAChunkHoldsToTheByteAndCanBeMoved) {
  for (const bool streaming : {kFirst, kContinuation}) {
    for (const char* line : {"64\r\n", "65\r\n"}) {
      const auto error = errorOf([&] {
        auto parser = parserFor(kStreamSearch, streaming);
        parser.setMaxReplyBytes(100);
        ClientResponse response;
        bool done = false;
        const auto start = streaming ? "" : headers(200, "Transfer-Encoding: chunked\r\n");
        feed(parser, start + line, response, done);
      });
      EXPECT_EQ(error.errorId, line[1] == '5' ? "ERR_CLIENT_RESP_PARSING" : "") << line;
    }
  }
}

TEST(RESTResponse, TheLimitOfAChunkHoldsForASizeThatACarriageReturnDivides) {
  for (const bool streaming : {kFirst, kContinuation}) {
    for (const char* line : {"1\rFFFFFFF\r\n", "0\r7FFFFFFF\r\n", "6\r5\r\n", "6\r4\r\n"}) {
      auto parser = parserFor(kStreamSearch, streaming);
      const auto error = errorOf([&] {
        parser.setMaxReplyBytes(100);
        ClientResponse response;
        bool done = false;
        const auto start = streaming ? "" : headers(200, "Transfer-Encoding: chunked\r\n");
        feed(parser, start + line, response, done);
      });
      const bool fits = line[2] == '4';
      EXPECT_EQ(error.errorId, fits ? "" : "ERR_CLIENT_RESP_PARSING") << line;
      EXPECT_EQ(parser.getContentLength() == 100, fits) << line;
    }
  }
}

TEST(RESTResponse, ALengthBelow0ThatIsSetByHandCountsAs0) {
  for (const int length : {-1, std::numeric_limits<int>::min()}) {
    auto parser = parserFor(kStreamSearch);
    ClientResponse response;
    bool done = false;
    parser.setContentLen(length);
    EXPECT_EQ(parser.parseMesg("body", 4, response, done), 0);
    EXPECT_TRUE(done);
    int need = 0;
    EXPECT_TRUE(parser.parseDone(need));
  }
}

TEST(RESTResponse, TheDefaultLimitOfABodyIsOneGibibyte) {
  for (const auto& [length, refused] :
       std::vector<std::pair<std::size_t, bool>>{{1U << 30, false}, {(1U << 30) + 1, true}}) {
    const auto error = errorOf([&, size = length] {
      auto parser = parserFor(kStreamSearch);
      ClientResponse response;
      bool done = false;
      feed(parser, headersWithLength(200, size), response, done);
    });
    EXPECT_EQ(error.errorId, refused ? "ERR_CLIENT_RESP_PARSING" : "");
  }
}

TEST(RESTResponse, TheLimitOfAHeaderBlockHoldsToTheByteAndCanBeMoved) {
  const auto blockOf = [](std::size_t length) {
    const auto rest = headers(200, "Content-Length: 5\r\nX: \r\n").size();
    return headers(200, "Content-Length: 5\r\nX: " + std::string(length - rest, 'x') + "\r\n");
  };
  constexpr std::size_t kDefault = std::size_t{1} << 20;
  for (const auto& [moved, limit] : std::vector<std::pair<std::size_t, std::size_t>>{
           {0, kDefault}, {200, 200}, {5000, 5000}, {2 * kDefault, kDefault}}) {
    for (const std::size_t length : {limit, limit + 1}) {
      const auto error = errorOf([&, most = moved] {
        auto parser = parserFor(kStreamSearch);
        if (most != 0) parser.setMaxReplyBytes(most);
        ClientResponse response;
        bool done = false;
        feed(parser, blockOf(length), response, done);
      });
      EXPECT_EQ(error.errorId, length > limit ? "ERR_CLIENT_RESP_PARSING" : "") << length;
    }
  }
}

TEST(RESTResponse, ARecordAboveTheLimitIsRefusedAtItsFirstChunk) {
  const auto lines = headers(200, "Transfer-Encoding: chunked\r\n") + "8\r\n";
  for (const int kind : {kStreamSearch, kParseResult, kSelectivity, kGetStatus}) {
    for (const std::uint32_t length : {500U, 501U}) {
      const auto error = errorOf([&] {
        auto parser = parserFor(kind);
        parser.setMaxReplyBytes(500);
        ClientResponse response;
        bool done = false;
        EXPECT_EQ(feed(parser, lines, response, done), 0);
        feed(parser, kSkipped + bigEndian(length), response, done);
      });
      // A parse result must not be cut by a chunk, whatever its length is.
      const bool refused = length > 500 || kind == kParseResult;
      EXPECT_EQ(error.errorId, refused ? "ERR_CLIENT_RESP_PARSING" : "") << kind;
    }
  }
}

TEST(RESTResponse, AFirstBodyTooShortForARecordIsDoneWithTheLastChunk) {
  for (const int kind : {kStreamSearch, kScalarSearch}) {
    for (const std::size_t behind : {std::size_t{1}, std::size_t{3}}) {
      auto parser = parserFor(kind);
      ClientResponse response;
      bool done = false;
      const std::string begun = kSkipped + std::string(behind, '\1');
      const auto line = std::to_string(begun.size()) + "\r\n";
      feed(parser, headers(200, "Transfer-Encoding: chunked\r\n") + line, response, done);
      EXPECT_EQ(feed(parser, begun, response, done), size(begun)) << "kept for the next chunk";
      EXPECT_EQ(feed(parser, "\r\n0\r\n", response, done), 0);
      EXPECT_FALSE(done);
      EXPECT_EQ(feed(parser, begun, response, done), static_cast<int>(behind));
      EXPECT_TRUE(done);
      EXPECT_TRUE(parser.lastChunkSeen());
    }
  }
}

TEST(RESTResponse, AReplyOfOneRecordIsReadOnUntilTheChunkThatEndsIt) {
  struct Case {
    int kind;
    int status;
    std::string fields;
    std::string raised;
  };
  const std::vector<Case> cases{
      {14, 200, record({{"a", "b"}}), ""},
      {15, 200, record({{"STATUS_CODE", "3"}}), ""},
      {8, 500, record({{"MsgId", "ZVK1234E"}, {"MsgText", "t"}}), "ZVK1234E"}};
  for (const Case& c : cases) {
    const std::string body = kSkipped + enveloped(c.fields);
    for (std::size_t cut = 1; cut <= body.size(); ++cut) {
      auto parser = parserFor(c.kind);
      ClientResponse response;
      bool done = false;
      char line[32];
      std::snprintf(line, sizeof line, "%zx\r\n", cut);
      const std::string start = headers(c.status, "Transfer-Encoding: chunked\r\n") + line;
      const auto error = errorOf([&] {
        feed(parser, start, response, done);
        feed(parser, body.substr(0, cut), response, done);
      });
      int need = 0;
      EXPECT_EQ(parser.parseDone(need), cut == body.size()) << c.kind << ' ' << cut;
      EXPECT_EQ(error.errorId, cut == body.size() ? c.raised : "") << cut;
    }
  }
}

TEST(RESTResponse, AFirstBodyTooShortForARecordIsReadOnOnlyWhereThereAreRecords) {
  const std::string rows = kSkipped + oneRow("d") + kEndMark;
  for (const int kind : {kParseResult, kCreateCollection, kGetServerVersion}) {
    auto parser = parserFor(kind);
    ClientResponse response;
    bool done = false;
    feed(parser, headers(200, "Transfer-Encoding: chunked\r\n") + "6\r\n", response, done);
    const bool hasRecords = kind == kParseResult;
    EXPECT_EQ(feed(parser, rows.substr(0, 6), response, done), hasRecords ? 6 : 0) << kind;
    int need = 0;
    EXPECT_EQ(parser.parseDone(need), !hasRecords) << kind;
    if (!hasRecords) continue;
    char line[32];
    std::snprintf(line, sizeof line, "\r\n%zx\r\n", rows.size() - 6);
    feed(parser, line, response, done);
    EXPECT_EQ(feed(parser, rows, response, done), 4);
    EXPECT_EQ(documentsOf(response), std::vector<std::string>{"d"});
  }
}

TEST(RESTResponse, ChunksThatAFirstRecordIsSpreadOverAreTogetherNoLongerThanAnyReply) {
  for (const bool fits : {true, false}) {
    auto parser = parserFor(kStreamSearch);
    parser.setMaxReplyBytes(std::numeric_limits<int>::max());
    ClientResponse response;
    bool done = false;
    feed(parser, headers(200, "Transfer-Encoding: chunked\r\n") + "3\r\n", response, done);
    EXPECT_EQ(feed(parser, "abc", response, done), 3) << "kept for the next chunk";
    feed(parser, fits ? "\r\n7ffffffc\r\n" : "\r\n7ffffffd\r\n", response, done);
    const auto raised = raisedBy([&] { feed(parser, "abc", response, done); });
    ASSERT_EQ(raised.size(), fits ? 0U : 1U);
    if (fits) continue;
    EXPECT_EQ(raised[0].id, "ERR_CLIENT_RESP_PARSING");
    EXPECT_EQ(raised[0].text,
              "the chunks that the first record is spread over are longer than the limit");
    EXPECT_EQ(raised[0].file, "kruRESTResponse");
  }
}

// What the refusals of malformed replies say.

struct Refused {
  const char* what;
  int kind;
  std::string bytes;  // a header block and what follows it
  const char* text;
  bool placed;  // names its file and line
};

std::string withLength(int status, const std::string& body) {
  return headersWithLength(status, body.size()) + body;
}

std::string inChunks(const std::string& chunks) {
  return headers(200, "Transfer-Encoding: chunked\r\n") + chunks;
}

/// A record whose last field announces a byte more than there is.
std::string overrun(std::string record) {
  record.replace(record.size() - 5, 4, bigEndian(2));
  return enveloped(record);
}

std::vector<Refused> refusals() {
  const auto badField = overrun(record({{"MsgId", "ZVK1"}, {"MsgText", "t"}}));
  const auto tooLong = kSkipped + bigEndian(401) + std::string(8, 'x');
  const char* field = "a field runs past the end of its record";
  const char* limit = "a record is longer than the limit";
  const char* start = "the body is too short for the start of a record";
  return {
      {"another protocol", 8, "SMTP/", "the reply does not begin with HTTP/", false},
      {"headers", 8, "HTTP/1.1 200 OK\r\n" + std::string(400, 'x'),
       "the header block is longer than the limit", false},
      {"a negative length", 8, headers(200, "Content-Length: -1\r\n"),
       "the announced length is below 0", false},
      {"a large length", 8, headers(200, "Content-Length: 401\r\n"),
       "the announced length is above the limit", false},
      {"a broken size line", 8, inChunks("zz\r\n"),
       "the chunk-size line is not a hexadecimal number", false},
      {"a long size line", 8, inChunks(std::string(127, '1')),
       "the chunk-size line is longer than 125 characters", false},
      {"a large chunk", 8, inChunks("191\r\n"), "the chunk is longer than the limit", false},
      {"a large estimate in chunks", 14, inChunks("8\r\n" + tooLong.substr(0, 8)), limit, true},
      {"a short search", 8, withLength(200, "abc"), start, true},
      {"short parse results", 11, withLength(200, "abc"), start, true},
      {"a short status", 15, withLength(200, "abc"), start, true},
      {"a large hit", 8, withLength(200, tooLong), limit, true},
      {"a large parse result", 11, withLength(200, tooLong), limit, false},
      {"a hit's field", 8, withLength(200, kSkipped + badField), field, true},
      {"a parse result's field", 11, withLength(200, kSkipped + badField), field, false},
      {"an estimate's field", 14, withLength(200, kSkipped + badField), field, true},
      {"a status' field", 15, withLength(200, kSkipped + badField), field, true},
      {"an error's field", 8, withLength(500, kSkipped + badField), field, true},
      {"a cut parse result", 11, withLength(200, kSkipped + oneRow("d").substr(0, 9)),
       "a parse result is longer than its data", false},
      {"a reply fed again", 8, withLength(200, kSkipped + kEndMark) + "x",
       "the reply is complete, it has no further bytes", false},
  };
}

/// Feeds the bytes as a client does: what is left over is passed again.
void feedAll(RESTResponse& parser, const std::string& bytes) {
  ClientResponse response;
  bool done = false;
  std::string rest = bytes;
  do {
    int need = 0;
    parser.parseDone(need);
    const bool body = parser.wantsWholeBody();
    const auto piece = rest.substr(0, body ? static_cast<std::size_t>(need) : rest.size());
    const auto left = static_cast<std::size_t>(feed(parser, piece, response, done));
    // Nothing that a body leaves is looked at again.
    rest = body ? rest.substr(piece.size()) : rest.substr(piece.size() - left);
  } while (!rest.empty());
}

TEST(RESTResponse, ARefusalOfAMalformedReplySaysWhatIsWrongWithIt) {
  for (const auto& c : refusals()) {
    const auto raised = raisedBy([&] {
      auto parser = parserFor(c.kind);
      parser.setMaxReplyBytes(400);
      feedAll(parser, c.bytes);
    });
    ASSERT_EQ(raised.size(), 1U) << c.what;
    EXPECT_EQ(raised.front().id, "ERR_CLIENT_RESP_PARSING") << c.what;
    EXPECT_EQ(raised.front().text, c.text) << c.what;
    EXPECT_TRUE(raised.front().arguments.empty()) << "they belong to host and port: " << c.what;
    EXPECT_EQ(raised.front().file, c.placed ? "kruRESTResponse" : "(null)") << c.what;
    EXPECT_EQ(raised.front().line != 0, c.placed) << c.what;
  }
}

TEST(RESTResponse, RefusalsForDifferentReasonsHaveDifferentTexts) {
  std::set<std::string> texts;
  for (const auto& c : refusals()) texts.insert(c.text);
  EXPECT_EQ(texts.size(), 12U);
}

// The shape of the class.

TEST(RESTResponse, ItsOperationsCanBeBoundAsOnesOfAnObjectThatMayChange) {
  bool (RESTResponse::*parseDone)(int&) = &RESTResponse::parseDone;
  void (RESTResponse::*print)() = &RESTResponse::print;
  auto parser = parserFor(kStreamSearch);
  int need = 0;
  EXPECT_FALSE((parser.*parseDone)(need));
  EXPECT_EQ(need, 256);
  (parser.*print)();
}

/// Sees the operations that the library traces.
class TracedIds : public tq::oss::TraceFacility {
 public:
  TracedIds() { tq::oss::setTraceFacility(this); }
  ~TracedIds() override { tq::oss::setTraceFacility(nullptr); }
  unsigned long getComponentTraceFlags(unsigned int) override { return 0x20083; }
  void traceEntry(unsigned int id) override { entries.insert(id); }
  void traceExit(unsigned int id, long) override { exits.insert(id); }

  std::multiset<unsigned int> entries;
  std::multiset<unsigned int> exits;
};

TEST(RESTResponse, ItsOperationsAreTraced) {
  TracedIds traced;
  auto parser = parserFor(kStreamSearch);
  feedAll(parser, inChunks("8\r\n" + kSkipped + kEndMark));
  parser.print();
  for (const unsigned int id :
       {tq::comm::trace::RESTResponseExtractHeaders,
        tq::comm::trace::RESTResponseUpdateContentLength,
        tq::comm::trace::RESTResponseGetChunkedMesgLen, tq::comm::trace::RESTResponsePrint}) {
    EXPECT_EQ(traced.entries.count(id), 1U) << std::hex << id;
  }
  EXPECT_EQ(traced.entries, traced.exits);
}

TEST(RESTResponse, AHostThatTracesSeesEachRecordOfABodyDecodedByItself) {
  const struct {
    int kind;
    std::string records;
    std::size_t steps;
  } cases[] = {{8, oneHit("a") + oneHit("b"), 2},
               {11, oneRow("a") + oneRow("b") + oneRow("c"), 3},
               {14, enveloped(record({{"a", "b"}})), 1},
               {15, enveloped(record({{"STATUS_CODE", "3"}})), 1}};
  for (const auto& c : cases) {
    TracedIds traced;
    auto parser = parserFor(c.kind);
    feedAll(parser, withLength(200, kSkipped + c.records + kEndMark));
    EXPECT_EQ(traced.entries.count(tq::comm::trace::GenRespRecordParseRecordIntoProps), c.steps)
        << c.kind;
  }
}

TEST(RESTResponse, PrintDoesNothing) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  parserFor(kStreamSearch).print();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(RESTResponse, HasNoVirtualDestructor) {
  EXPECT_FALSE(std::has_virtual_destructor_v<RESTResponse>);
  EXPECT_TRUE(std::is_polymorphic_v<RESTResponse>);
}

// Two ways through the same bytes: in place, and as a host that traces sees it.

/// What a caller sees of a parser that was fed these pieces.
std::string seenOf(int kind, const std::vector<std::string>& pieces) {
  RESTResponse parser = parserFor(kind);
  ClientResponse response;
  bool done = false;
  std::string seen;
  for (const std::string& piece : pieces) {
    try {
      seen += std::to_string(feed(parser, piece, response, done));
    } catch (const RESTException& e) {
      std::string text;
      e.getMessageList().front().getMessageId().toUTF8String(text);
      e.getMessageList().front().getMessageText().toUTF8String(text);
      seen += text;
    }
    int need = -1;
    seen += std::string(" done ") + (parser.parseDone(need) ? "yes" : "no") + (done ? " all" : "");
    seen += " need " + std::to_string(need) + " status " + std::to_string(parser.getStatusCode());
    seen += " length " + std::to_string(parser.getContentLength());
    seen += parser.endsConnection() ? " last" : "";
    seen += std::string(parser.isChunked() ? " chunked" : "") + " answer ";
    seen += std::to_string(response.getStatusCode()) + '\n';
  }
  return seen;
}

void expectOneMeaning(int kind, const std::vector<std::string>& pieces) {
  const std::string inPlace = seenOf(kind, pieces);
  const RecordByRecord slowly;
  ASSERT_EQ(seenOf(kind, pieces), inPlace);
}

TEST(RESTResponse, ReadsAnyHeaderBlockInPlaceAsTheGeneralOperationDoes) {
  static const std::string kWords[] = {"HTTP/1.1",
                                       " ",
                                       "200",
                                       "500",
                                       "\r\n",
                                       "\n",
                                       "\r",
                                       "\t",
                                       "Content-Length",
                                       ":",
                                       ": ",
                                       "5",
                                       "-1",
                                       "+7",
                                       "0x10",
                                       "9223372036854775808",
                                       "Transfer-Encoding",
                                       "chunked",
                                       "X-Content-Length: 3",
                                       "Content-length",
                                       "\xC3\xA9",
                                       "\xFF",
                                       std::string(1, '\0'),
                                       "  12 34",
                                       "000000000000000000012",
                                       "999999999999999999",
                                       "5 Content-Length",
                                       "1073741825",
                                       "\v7",
                                       "\r\nConnection",
                                       "close",
                                       "keep-alive,",
                                       "a"};
  std::mt19937 random(7);
  for (int i = 0; i < 20000; ++i) {
    std::string block = random() % 8 != 0 ? "HTTP/1.1 " : "";
    for (std::size_t words = random() % 12; words > 0; --words) {
      block += kWords[random() % std::size(kWords)];
    }
    block += random() % 4 != 0 ? "\r\nContent-Length: 2\r\n\r\nab" : "\r\n\r\n5\r\nabcde";
    const std::size_t cut = random() % 2 != 0 ? block.size() : random() % (block.size() + 1);
    SCOPED_TRACE(block);
    expectOneMeaning(kAddDocument, {block.substr(0, cut), block.substr(cut)});
    if (HasFatalFailure()) return;
  }
}

TEST(RESTResponse, ReadsAnyStatusRecordInPlaceAsTheCodecDoes) {
  static const std::string kValues[] = {
      "0",  "2",  "007", "999999999",  "4294967295",          "4294967296", "",
      "-1", "1 ", "12a", "1234567890", std::string("3\0", 2), "\xD9\xA1"};
  static const std::string kNames[] = {"STATUS_CODE", "STATUS", std::string("STATUS_CODE\0x", 13),
                                       ""};
  for (const std::string& value : kValues) {
    for (const std::string& name : kNames) {
      for (const std::string& other :
           {std::string(), record({{"MORE", "1"}}), record({{"STATUS_CODE", "9"}})}) {
        const std::string fields = record({{name, value}}) + other;
        const std::string body =
            kSkipped + bigEndian(static_cast<std::uint32_t>(fields.size())) + fields;
        SCOPED_TRACE(name + '=' + value + other);
        expectOneMeaning(kGetStatus, {headersWithLength(200, body.size()), body});
        std::string tagged = body;
        tagged[8] = '\x40';
        expectOneMeaning(kGetStatus, {headersWithLength(200, body.size()), tagged});
        if (HasFatalFailure()) return;
      }
    }
  }
}

}  // namespace
