#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfResponse.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruRESTException.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruNLSException.h"
#include "infra/oss/kruTrace.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/raised.h"
#include "tests/support/recordByRecord.h"

namespace {

using namespace tq::test;
using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::DrestoPerfResponse;
using tq::comm::RESTException;
using tq::comm::RESTResponse;

constexpr auto kFile = "kruDrestoPerfResponse";
constexpr int kUnassignedSearch = 6;
constexpr unsigned int kSuccess = 1;

ClientRequest::REQUEST kindOf(int number) { return static_cast<ClientRequest::REQUEST>(number); }

bool resultsExpected(int kind) { return ClientResponse::resultsExpected(kindOf(kind)); }

/// A parser with its response. Each block is offered in memory of exactly its size, so that a
/// sanitizer sees a read beyond its end.
struct Fed {
  explicit Fed(int kind) : Fed(kind, resultsExpected(kind)) {}
  Fed(int kind, bool results) : parser(kindOf(kind), results) {}

  int offer(const std::string& block) {
    const std::vector<char> exact(block.begin(), block.end());
    return parser.parseMesg(exact.data(), static_cast<int>(exact.size()), response, done);
  }
  int header(unsigned int code) { return offer(word16(code)); }
  /// A further block of the body.
  int again(const std::string& block) {
    parser.initState(true);
    return offer(block);
  }
  Raised raisedByOffer(const std::string& block) {
    return raisedBy([&] { offer(block); });
  }

  std::vector<Hit> hits() {
    std::vector<Hit> taken;
    auto& held = response.getSearchResponse();
    while (held.hasMore()) {
      auto& hit = held.getNext();
      taken.push_back({utf8(hit.getDocId()), hit.getScore()});
    }
    return taken;
  }
  std::vector<std::string> documents() {
    std::vector<std::string> taken;
    auto& held = response.getParseResponse();
    while (held.hasMore()) taken.push_back(utf8(held.getNext().getDocument()));
    return taken;
  }
  std::vector<std::uint64_t> estimates() {
    const auto& info = response.getSelectivityInfo();
    return {static_cast<std::uint64_t>(info.getFirst()),
            static_cast<std::uint64_t>(info.getSecond()),
            static_cast<std::uint64_t>(info.getThird())};
  }

  DrestoPerfResponse parser;
  ClientResponse response;
  bool done = false;
};

/// A parser that has taken the header and waits for the body.
Fed inBody(int kind, unsigned int code) {
  Fed fed(kind);
  EXPECT_EQ(fed.header(code), 0);
  return fed;
}

std::string row(const std::string& document) { return record16({{"Doc", document}}); }

const Raised kFinished{{"ERR_CLIENT_RESP_PARSING",
                        "(null)",
                        0,
                        {},
                        "the reply is finished until a further block is announced"}};
constexpr auto kBadField = "a field runs past the end of its record";
constexpr auto kShortHit = "a hit is too short for its score";
constexpr auto kShortEstimate = "an estimate is too short for its values";
constexpr auto kTooLong = "a record is longer than the limit";
const std::vector<std::uint64_t> kNoEstimates{1, 1, 100};

Raised protocol(unsigned long line, const std::vector<std::string>& arguments = {}) {
  return {{"ERR_SERVER_PROTOCOL", kFile, line, arguments}};
}

/// The failure is the refusal of a malformed reply, and says why and where.
void expectRefused(const Raised& raised, const std::string& reason) {
  ASSERT_EQ(raised.size(), 1U);
  SeenMessage message = raised.front();
  EXPECT_NE(message.line, 0U);
  message.line = 0;
  EXPECT_EQ(message, (SeenMessage{"ERR_CLIENT_RESP_PARSING", kFile, 0, {}, reason}));
}

// What the reply header is.

TEST(DrestoPerfResponse, WantsTheTwoBytesOfTheHeaderFirst) {
  DrestoPerfResponse parser(ClientRequest::STREAM_SEARCH, true);
  int need = 0;
  EXPECT_FALSE(parser.parseDone(need));
  EXPECT_EQ(need, 2);
}

TEST(DrestoPerfResponse, TheHeaderCallLeavesTheBodyThatCameWithIt) {
  Fed fed(kStreamSearch);
  const auto body = plainHit("key") + endOfResults();
  EXPECT_EQ(fed.offer(word16(kSuccess) + body), static_cast<int>(body.size()));
  EXPECT_FALSE(fed.done);
  EXPECT_TRUE(fed.hits().empty());
  EXPECT_FALSE(fed.response.success()) << "nothing of the body has been looked at";
}

TEST(DrestoPerfResponse, AnEmptyHeaderBlockIsRefused) {
  Fed fed(kStreamSearch);
  EXPECT_EQ(fed.raisedByOffer(""),
            protocol(171, {"Zero(0) sized Response Header for Request from remote"}));
  EXPECT_FALSE(fed.done);
}

TEST(DrestoPerfResponse, HalfAHeaderIsLeft) {
  Fed fed(kStreamSearch);
  EXPECT_EQ(fed.offer(word16(kSuccess).substr(0, 1)), 1);
  int need = 0;
  EXPECT_FALSE(fed.parser.parseDone(need));
  EXPECT_EQ(need, 2);
  EXPECT_EQ(fed.header(kSuccess), 0);
}

TEST(DrestoPerfResponse, AnUnknownHeaderCodePassesTheHeader) {
  // 5 and 401 are answers that are told apart with the body.
  for (const unsigned int code : {0U, 2U, 3U, 5U, 9U, 200U, 401U, 65535U}) {
    Fed fed(kStreamSearch);
    EXPECT_EQ(fed.offer(word16(code) + "abc"), 3) << code;
    EXPECT_EQ(fed.parser.getStatusCode(), static_cast<int>(code));
    EXPECT_FALSE(fed.done);
  }
}

TEST(DrestoPerfResponse, ParseHeadersReturnsTheLengthWithoutTheHeader) {
  DrestoPerfResponse parser(ClientRequest::STREAM_SEARCH, true);
  const std::string block = word16(1) + "rest";
  EXPECT_EQ(parser.parseHeaders(block.data(), static_cast<int>(block.size())), 4);
}

TEST(DrestoPerfResponse, SaysHowMuchToOfferNext) {
  struct Case {
    int kind;
    unsigned int code;
    int need;
  };
  for (const auto& [kind, code, need] : std::vector<Case>{{kStreamSearch, 1, 1024},
                                                          {kScalarSearch, 1, 1024},
                                                          {kParseResult, 1, 1024},
                                                          {kSelectivity, 1, 1024},
                                                          {kGetServerVersion, 1, 1024},
                                                          {kStreamSearch, 6, 256},
                                                          {kGetStatus, 6, 256},
                                                          {kCreateCollection, 6, 256},
                                                          {kCreateCollection, 1, 0},
                                                          {kGetStatus, 1, 0},
                                                          {kGetStatus, 5, 0},
                                                          {kStreamSearch, 5, 1024},
                                                          {kCreateCollection, 5, 1024},
                                                          {kGetStatus, 401, 1024},
                                                          {kStreamSearch, 3, 1024}}) {
    auto fed = Fed(kind);
    fed.header(code);
    int next = -1;
    EXPECT_FALSE(fed.parser.parseDone(next));
    EXPECT_EQ(next, need) << "kind " << kind << ", code " << code;
  }
}

TEST(DrestoPerfResponse, WantsNothingOnceFinished) {
  auto fed = inBody(kStreamSearch, kSuccess);
  fed.offer(endOfResults());
  int need = 77;
  EXPECT_TRUE(fed.parser.parseDone(need));
  EXPECT_EQ(need, 77);
}

// States.

TEST(DrestoPerfResponse, IsFinishedAfterEachBlockOfTheBody) {
  auto fed = inBody(kStreamSearch, kSuccess);
  EXPECT_EQ(fed.offer(plainHit("one")), 0);
  EXPECT_EQ(fed.raisedByOffer(plainHit("two")), kFinished) << "not armed again";
  EXPECT_FALSE(fed.done);
  EXPECT_EQ(fed.again(plainHit("three") + endOfResults()), 0);
  EXPECT_EQ(fed.hits(), (std::vector<Hit>{{idOfKey("one"), 0}, {idOfKey("three"), 0}}));
}

TEST(DrestoPerfResponse, TakesANewReplyWhenItsStateBeginsAnew) {
  auto fed = inBody(kGetStatus, 5);
  fed.offer("");
  fed.parser.initState(false);
  int need = 0;
  EXPECT_FALSE(fed.parser.parseDone(need));
  EXPECT_EQ(need, 2);
  fed.header(kSuccess);
  fed.offer("");
  EXPECT_EQ(fed.response.getStatusCode(), 0U);
}

TEST(DrestoPerfResponse, ABlockIsIgnoredWhileABodyLengthIsOnRecord) {
  auto fed = inBody(kStreamSearch, kSuccess);
  fed.parser.setContentLen(5);
  EXPECT_EQ(fed.offer(plainHit("key") + endOfResults()), 0);
  EXPECT_FALSE(fed.done);
  EXPECT_TRUE(fed.hits().empty());
  int need = 77;
  EXPECT_FALSE(fed.parser.parseDone(need));
  EXPECT_EQ(need, 77) << "a state that wants nothing leaves it alone";
}

TEST(DrestoPerfResponse, IgnoresBlocksAfterAFailureUntilItIsArmedAgain) {
  auto fed = inBody(kStreamSearch, kSuccess);
  EXPECT_EQ(fed.raisedByOffer("").size(), 1U);
  EXPECT_EQ(fed.offer(plainHit("key")), 0);
  EXPECT_TRUE(fed.hits().empty());
  fed.again(plainHit("key"));
  EXPECT_EQ(fed.hits().size(), 1U);
}

TEST(DrestoPerfResponse, KeepsTheHeadersCodeWhenItIsArmedForTheBody) {
  auto fed = inBody(kStreamSearch, 3);
  EXPECT_EQ(fed.raisedByOffer(""), protocol(272));
  fed.parser.initState(true);
  EXPECT_EQ(fed.raisedByOffer(""), protocol(272));
}

TEST(DrestoPerfResponse, ReplacesTheBaseClassesOperations) {
  Fed fed(kStreamSearch);
  RESTResponse& base = fed.parser;
  const std::string header = word16(6) + "x";
  EXPECT_EQ(base.parseHeaders(header.data(), 3), 1);
  EXPECT_EQ(fed.parser.getStatusCode(), 6);
  RESTException error(true);
  const auto record = errorRecord({{"MsgId", "ZVK0001I"}, {"MsgText", "t"}});
  base.parseErrorMessage(record.data(), static_cast<int>(record.size()), error);
  EXPECT_EQ(utf8(error.getMessageList().front().getMessageId()), "ZVK0001I");
  base.initState(false);
  int need = 0;
  EXPECT_FALSE(fed.parser.parseDone(need));
  EXPECT_EQ(need, 2);
}

TEST(DrestoPerfResponse, ItsBaseBeginsAsTheContinuationOfAStream) {
  // Whatever the constructor is told about results: the base takes status 200 for granted.
  for (const bool results : {false, true}) {
    const DrestoPerfResponse parser(ClientRequest::STREAM_SEARCH, results);
    EXPECT_EQ(parser.getStatusCode(), 200);
    EXPECT_FALSE(parser.isChunked()) << "which this protocol does not know";
  }
}

// The codes of the header.

TEST(DrestoPerfResponse, AStatusOnlyAnswerIsForTheStatusQueryAlone) {
  auto status = inBody(kGetStatus, 5);
  EXPECT_EQ(status.offer(""), 0);
  EXPECT_TRUE(status.response.success());
  EXPECT_EQ(status.response.getStatusCode(), 1U);
  EXPECT_TRUE(status.done);
  for (const int kind : {1, 4, 6, 8, 11, 14, 20, 22}) {
    auto fed = inBody(kind, 5);
    EXPECT_EQ(fed.raisedByOffer(""), protocol(240, {"Unpexpected StatCode 5 in response header"}));
    EXPECT_TRUE(fed.response.success()) << "set before the answer is refused";
    EXPECT_FALSE(fed.done);
  }
}

TEST(DrestoPerfResponse, RefusedAuthenticationHasAnIdOfItsOwn) {
  for (const int kind : {kCreateCollection, kStreamSearch, kParseResult, kSelectivity, kGetStatus,
                         kScalarSearch, kGetServerVersion}) {
    auto fed = inBody(kind, 401);
    EXPECT_EQ(fed.raisedByOffer(""), (Raised{{"ERR_SERVER_INVALID_AUTH", kFile, 266}}));
    EXPECT_FALSE(fed.response.success());
    EXPECT_FALSE(fed.done);
  }
}

TEST(DrestoPerfResponse, AnyOtherCodeIsRefusedWithTheBody) {
  for (const unsigned int code : {0U, 2U, 3U, 4U, 7U, 8U, 9U, 200U, 400U, 500U, 65535U}) {
    for (const int kind : {kCreateCollection, kStreamSearch, kGetStatus, kGetServerVersion}) {
      auto fed = inBody(kind, code);
      EXPECT_EQ(fed.raisedByOffer("body"), protocol(272)) << code;
      EXPECT_FALSE(fed.response.success());
      EXPECT_FALSE(fed.done);
    }
  }
}

TEST(DrestoPerfResponse, TheServersErrorRecordIsTheMessage) {
  for (const int kind : {kCreateCollection, kStreamSearch, kParseResult, kSelectivity,
                         kScalarSearch, kGetServerVersion}) {
    auto fed = inBody(kind, 6);
    EXPECT_EQ(fed.raisedByOffer(errorRecord({{"MsgId", "ZVK0404W"}, {"MsgText", "no \xC3\xBC"}})),
              (Raised{{"ZVK0404W", "(null)", 0, {}, "no \xC3\xBC", 4}}));
    EXPECT_FALSE(fed.response.success());
    EXPECT_FALSE(fed.done);
  }
}

TEST(DrestoPerfResponse, TwoMessagesStandWhereTheServerNamesNone) {
  const Raised both{{"ERR_SERVER_APP"}, {"ERR_SERVER_APP", "(null)", 0, {}, "", 2}};
  const auto whole = errorRecord({{"MsgId", "ZVK0404E"}, {"MsgText", "text"}});
  for (const auto& record :
       {errorRecord({{"MsgText", "who knows"}}), errorRecord({{"MsgId", ""}, {"MsgText", "x"}}),
        errorRecord({{"MsgId", "ZVK0404E"}}), errorRecord({}), std::string(), whole.substr(0, 1),
        whole.substr(0, 2), whole.substr(0, whole.size() - 1)}) {
    auto fed = inBody(kStreamSearch, 6);
    EXPECT_EQ(fed.raisedByOffer(record), both) << record.size() << " bytes";
  }
}

TEST(DrestoPerfResponse, AnErrorFieldBeyondItsRecordIsNoReply) {
  const auto record = record16({{"MsgId", "ZVK0404E"}, {"MsgText", "text"}});
  auto fed = inBody(kStreamSearch, 6);
  // The block is long enough for the field; the record is not.
  expectRefused(fed.raisedByOffer(word16(static_cast<unsigned int>(record.size()) - 1) + record),
                kBadField);
}

TEST(DrestoPerfResponse, AnErrorAnswersTheStatusQuery) {
  auto fed = inBody(kGetStatus, 6);
  const auto record = errorRecord({{"MsgId", "ZVK0001E"}, {"MsgText", "shutting down"}});
  EXPECT_EQ(fed.offer(record + "behind"), 0);
  EXPECT_TRUE(fed.response.success());
  EXPECT_EQ(fed.response.getStatusCode(), 2U);
  EXPECT_EQ(utf8(fed.response.getStatusMessage().getMessageId()), "ZVK0001E");
  EXPECT_EQ(utf8(fed.response.getStatusMessage().getMessageText()), "shutting down");
  EXPECT_TRUE(fed.done);
  int need = 0;
  EXPECT_TRUE(fed.parser.parseDone(need));
}

TEST(DrestoPerfResponse, AnErrorWithoutIdAnswersTheStatusQueryWithTheGeneralOne) {
  auto fed = inBody(kGetStatus, 6);
  fed.offer(errorRecord({{"MsgText", "x"}}));
  EXPECT_EQ(fed.response.getStatusCode(), 2U);
  EXPECT_EQ(utf8(fed.response.getStatusMessage().getMessageId()), "ERR_SERVER_APP");
}

TEST(DrestoPerfResponse, TheHeaderAloneAnswersTheStatusQuery) {
  auto fed = inBody(kGetStatus, kSuccess);
  fed.response.setGetStatusCode(9);
  EXPECT_EQ(fed.offer(""), 0);
  EXPECT_TRUE(fed.response.success());
  EXPECT_EQ(fed.response.getStatusCode(), 0U);
  EXPECT_TRUE(fed.done);
}

TEST(DrestoPerfResponse, AKindWithoutResultsIsCompleteWithAnEmptyBody) {
  for (const int kind : {0, 1, 2, 3, 4, 5, 7, 9, 10, 12, 13, 16, 17, 18, 19, 21, 23, 24, 64}) {
    auto fed = inBody(kind, kSuccess);
    EXPECT_EQ(fed.offer(""), 0);
    EXPECT_TRUE(fed.response.success());
    EXPECT_TRUE(fed.done) << kind;
  }
}

TEST(DrestoPerfResponse, ABodyOfAKindWithoutResultsIsIgnoredAndDoesNotComplete) {
  auto fed = inBody(kCreateCollection, kSuccess);
  EXPECT_EQ(fed.offer("abc"), 0);
  EXPECT_TRUE(fed.response.success());
  EXPECT_FALSE(fed.done);
  int need = 0;
  EXPECT_TRUE(fed.parser.parseDone(need));
}

TEST(DrestoPerfResponse, WhoeverExpectsResultsOfSuchAKindIsNotToldOfCompletion) {
  Fed fed(kCreateCollection, true);
  fed.header(kSuccess);
  EXPECT_EQ(fed.offer(""), 0);
  EXPECT_FALSE(fed.done);
}

TEST(DrestoPerfResponse, TheCompletionFlagIsNeverCleared) {
  auto fed = inBody(kStreamSearch, kSuccess);
  fed.done = true;
  fed.offer(plainHit("key"));
  EXPECT_TRUE(fed.done);
  auto refused = inBody(kStreamSearch, 401);
  refused.done = true;
  EXPECT_EQ(refused.raisedByOffer("").size(), 1U);
  EXPECT_TRUE(refused.done);
}

// Envelopes.

TEST(DrestoPerfResponse, ReadsAnEnvelopeHeaderOrLeavesThePosition) {
  struct Case {
    const char* what;
    std::string block;
    int position;
    unsigned int returned;
    unsigned int status;
    int positionAfter;
  };
  const std::string hit = envelope(5, "abc");
  for (const auto& c :
       std::vector<Case>{{"nothing", "", 0, 1, 9, 0},
                         {"half a status", hit.substr(0, 1), 0, 1, 9, 0},
                         {"a status", hit.substr(0, 2), 0, 1, 9, 0},
                         {"half a length", hit.substr(0, 3), 0, 1, 9, 0},
                         {"no payload", hit.substr(0, 4), 0, 3, 9, 0},
                         {"half a payload", hit.substr(0, 6), 0, 3, 9, 0},
                         {"all of it", hit, 0, 3, 5, 4},
                         {"more than it", hit + "x", 0, 3, 5, 4},
                         {"the end", endOfResults(), 0, 0, 1, 4},
                         {"status 9", envelope(9, "ab"), 0, 2, 9, 4},
                         {"behind another", "xyz" + hit, 3, 3, 5, 7},
                         {"cut behind another", "xyz" + hit.substr(0, 5), 3, 3, 9, 3},
                         {"at the end", hit, 7, 1, 9, 7},
                         {"the longest", envelope(2, std::string(65535, 'x')), 0, 65535, 2, 4}}) {
    DrestoPerfResponse parser(ClientRequest::STREAM_SEARCH, true);
    const std::vector<char> exact(c.block.begin(), c.block.end());
    int position = c.position;
    unsigned short status = 77;
    EXPECT_EQ(
        parser.validateRespEnv(exact.data(), static_cast<int>(exact.size()), position, status),
        c.returned)
        << c.what;
    EXPECT_EQ(status, c.status) << c.what;
    EXPECT_EQ(position, c.positionAfter) << c.what;
  }
}

TEST(DrestoPerfResponse, ReadsIntegersInNetworkOrderAndAdvances) {
  DrestoPerfResponse parser(ClientRequest::STREAM_SEARCH, true);
  const std::string block("\x01\xFF\xFE\x80\x00\x00\x2A", 7);
  int position = 1;
  EXPECT_EQ(parser.getShort(block.data(), position), 0xFFFE);
  EXPECT_EQ(position, 3);
  EXPECT_EQ(static_cast<unsigned int>(parser.getInt(block.data(), position)), 0x8000002AU);
  EXPECT_EQ(position, 7);
}

TEST(DrestoPerfResponse, ABlockThatEndsInAnEnvelopeLeavesThatEnvelope) {
  const std::string whole = plainHit("first") + scoredHit(7, "second");
  for (std::size_t length = 1; length < whole.size(); ++length) {
    auto fed = inBody(kStreamSearch, kSuccess);
    const std::size_t left = length < 9 ? length : length - 9;
    EXPECT_EQ(fed.offer(whole.substr(0, length)), static_cast<int>(left)) << length;
    EXPECT_FALSE(fed.done);
    EXPECT_EQ(fed.hits().size(), length < 9 ? 0U : 1U);
  }
}

TEST(DrestoPerfResponse, WholeRecordsWithoutTheEndMarkLeaveNothingAndDoNotComplete) {
  auto search = inBody(kStreamSearch, kSuccess);
  EXPECT_EQ(search.offer(plainHit("a") + plainHit("b")), 0);
  EXPECT_FALSE(search.done);
  auto rows = inBody(kParseResult, kSuccess);
  EXPECT_EQ(rows.offer(envelope(1, row("a"))), 0);
  EXPECT_FALSE(rows.done);
  auto estimates = inBody(kSelectivity, kSuccess);
  EXPECT_EQ(estimates.offer(envelope(1, estimate(1, 2, 3))), 0);
  EXPECT_FALSE(estimates.done);
}

TEST(DrestoPerfResponse, BytesBehindTheEndMarkAreLeft) {
  for (const int kind : {kStreamSearch, kScalarSearch, kParseResult, kSelectivity}) {
    auto fed = inBody(kind, kSuccess);
    EXPECT_EQ(fed.offer(endOfResults() + "behind"), 6);
    EXPECT_TRUE(fed.done);
    EXPECT_TRUE(fed.response.success());
  }
}

TEST(DrestoPerfResponse, AnEmptyBodyBlockIsRefused) {
  struct Case {
    int kind;
    unsigned long line;
    const char* argument;
    bool done;
  };
  for (const auto& c :
       {Case{kUnassignedSearch, 375, "Zero(0) sized protocol body inparseStreamSearchresp", false},
        Case{kStreamSearch, 375, "Zero(0) sized protocol body inparseStreamSearchresp", false},
        Case{kScalarSearch, 375, "Zero(0) sized protocol body inparseStreamSearchresp", false},
        Case{kParseResult, 441, "Zero(0) sized protocol body in parseParseResult ", false},
        Case{kSelectivity, 485, "Zero(0) sized protocol body in parseSelectivity ", false},
        Case{kGetServerVersion, 327, "Zero(0) sized protocol body in parseContent", true}}) {
    auto fed = inBody(c.kind, kSuccess);
    EXPECT_EQ(fed.raisedByOffer(""), protocol(c.line, {c.argument}));
    EXPECT_EQ(fed.done, c.done);
  }
}

TEST(DrestoPerfResponse, AWireStatusOf9CountsAsIncomplete) {
  const std::string nine = envelope(9, "abc") + plainHit("never") + endOfResults();
  // Its header has been read, and only an envelope whose bytes are missing is put back.
  const auto left = static_cast<int>(nine.size()) - 4;
  auto search = inBody(kStreamSearch, kSuccess);
  EXPECT_EQ(search.offer(plainHit("hit") + nine), left);
  EXPECT_FALSE(search.done);
  EXPECT_EQ(search.hits(), (std::vector<Hit>{{idOfKey("hit"), 0}}));
  auto rows = inBody(kParseResult, kSuccess);
  EXPECT_EQ(rows.offer(nine), left);
  EXPECT_TRUE(rows.documents().empty());
  auto estimates = inBody(kSelectivity, kSuccess);
  EXPECT_EQ(estimates.offer(nine), left);
  EXPECT_EQ(estimates.estimates(), kNoEstimates);
}

TEST(DrestoPerfResponse, OnlyStatus1WithoutPayloadEnds) {
  auto fed = inBody(kStreamSearch, kSuccess);
  std::string block;
  for (const unsigned int status : {0U, 2U, 6U, 8U, 401U, 65535U}) block += envelope(status, "");
  EXPECT_EQ(fed.offer(block), 0);
  EXPECT_FALSE(fed.done);
  EXPECT_EQ(fed.hits(), std::vector<Hit>(6, Hit{"base64:", 0.0}));
}

// Search hits.

TEST(DrestoPerfResponse, SearchRepliesOfThreeKindsAreHits) {
  for (const int kind :
       {kUnassignedSearch, static_cast<int>(kStreamSearch), static_cast<int>(kScalarSearch)}) {
    auto fed = inBody(kind, kSuccess);
    EXPECT_EQ(fed.offer(scoredHit(1500, "a key") + endOfResults()), 0);
    EXPECT_TRUE(fed.done);
    EXPECT_EQ(fed.response.getResultCount(), 1);
    EXPECT_EQ(fed.hits(), (std::vector<Hit>{{idOfKey("a key"), 1.5}}));
  }
}

TEST(DrestoPerfResponse, AScoreStaysForTheHitsBehindItInTheBlock) {
  auto fed = inBody(kStreamSearch, kSuccess);
  fed.offer(plainHit("a") + scoredHit(1500, "b") + plainHit("c") + envelope(7, "d"));
  fed.again(plainHit("e"));
  EXPECT_EQ(fed.hits(), (std::vector<Hit>{{idOfKey("a"), 0.0},
                                          {idOfKey("b"), 1.5},
                                          {idOfKey("c"), 1.5},
                                          {idOfKey("d"), 1.5},
                                          {idOfKey("e"), 0.0}}));
}

TEST(DrestoPerfResponse, AnErrorAmongTheHitsIsAHitAndEndsNothing) {
  for (const auto& payload :
       {errorRecord({{"MsgId", "ZVK0001E"}, {"MsgText", "late"}}), errorRecord({{"MsgText", "x"}}),
        errorRecord({}), std::string("\xFF\xFF garbage"), std::string("x"), std::string()}) {
    auto fed = inBody(kStreamSearch, kSuccess);
    EXPECT_EQ(fed.offer(envelope(6, payload) + plainHit("behind") + endOfResults()), 0);
    EXPECT_TRUE(fed.done);
    EXPECT_EQ(fed.hits(), (std::vector<Hit>{{idOfKey(payload), 0}, {idOfKey("behind"), 0}}));
  }
}

TEST(DrestoPerfResponse, AHitTooShortForItsScoreIsNoReply) {
  for (const bool traced : {false, true}) {
    for (const auto* payload : {"", "x"}) {
      std::optional<RecordByRecord> slowly;
      if (traced) slowly.emplace();
      auto fed = inBody(kStreamSearch, kSuccess);
      expectRefused(fed.raisedByOffer(plainHit("kept") + envelope(5, payload)), kShortHit);
      EXPECT_EQ(fed.hits(), (std::vector<Hit>{{idOfKey("kept"), 0}})) << "survives the failure";
      EXPECT_FALSE(fed.done);
    }
  }
}

TEST(DrestoPerfResponse, AScoreWithoutAKeyIsAHit) {
  auto fed = inBody(kStreamSearch, kSuccess);
  fed.offer(scoredHit(65535, "") + scoredHit(0, "") + endOfResults());
  EXPECT_EQ(fed.hits(), (std::vector<Hit>{{"base64:", 65.535}, {"base64:", 0.0}}));
}

TEST(DrestoPerfResponse, TheLongestPayloadIsAHit) {
  const std::string key(65535, '\xAB');
  auto fed = inBody(kStreamSearch, kSuccess);
  EXPECT_EQ(fed.offer(plainHit(key) + endOfResults()), 0);
  EXPECT_EQ(fed.hits(), (std::vector<Hit>{{idOfKey(key), 0}}));
}

TEST(DrestoPerfResponse, HitsOutliveTheBlockAndTheParser) {
  ClientResponse response;
  bool done = false;
  {
    DrestoPerfResponse parser(ClientRequest::STREAM_SEARCH, true);
    std::string block = word16(1);
    parser.parseMesg(block.data(), 2, response, done);
    block = scoredHit(1, "alpha") + scoredHit(2, "beta") + endOfResults();
    parser.parseMesg(block.data(), static_cast<int>(block.size()), response, done);
    std::fill(block.begin(), block.end(), 'X');
  }
  auto& held = response.getSearchResponse();
  EXPECT_EQ(utf8(held.getNext().getDocId()), idOfKey("alpha"));
  EXPECT_EQ(utf8(held.getNext().getDocId()), idOfKey("beta"));
}

// Parse results.

TEST(DrestoPerfResponse, AParseResultCarriesItsMessage) {
  auto fed = inBody(kParseResult, kSuccess);
  EXPECT_EQ(
      fed.offer(
          envelope(1,
                   record16({{"Doc", "d1"}, {"MsgId", "ZVK0017W"}, {"MsgText", "what language"}})) +
          envelope(1, row("d2")) + endOfResults()),
      0);
  EXPECT_TRUE(fed.done);
  EXPECT_EQ(fed.response.getResultCount(), 2);
  auto& rows = fed.response.getParseResponse();
  auto& first = rows.getNext();
  EXPECT_EQ(utf8(first.getDocument()), "d1");
  ASSERT_TRUE(first.hasMessage());
  EXPECT_EQ(utf8(first.getMessage().getMessageId()), "ZVK0017W");
  EXPECT_EQ(utf8(first.getMessage().getMessageText()), "what language");
  auto& second = rows.getNext();
  EXPECT_EQ(utf8(second.getDocument()), "d2");
  EXPECT_FALSE(second.hasMessage()) << "nothing is inherited from the record before";
}

TEST(DrestoPerfResponse, AnErrorAmongTheParseResultsIsDecodedAsOne) {
  auto fed = inBody(kParseResult, kSuccess);
  EXPECT_EQ(fed.offer(envelope(6, row("d1")) + envelope(77, row("d2")) + endOfResults()), 0);
  EXPECT_EQ(fed.documents(), (std::vector<std::string>{"d1", "d2"}));
}

TEST(DrestoPerfResponse, AParseResultFieldBeyondItsRecordIsNoReply) {
  const auto record = row("document");
  for (std::size_t length = 1; length < record.size(); ++length) {
    auto fed = inBody(kParseResult, kSuccess);
    SCOPED_TRACE(length);
    expectRefused(fed.raisedByOffer(envelope(1, row("kept")) +
                                    envelope(1, record.substr(0, length)) + endOfResults()),
                  kBadField);
    EXPECT_EQ(fed.documents(), std::vector<std::string>{"kept"});
    EXPECT_FALSE(fed.done);
  }
}

TEST(DrestoPerfResponse, AParseResultWithoutItsDocumentNamesTheMissingProperty) {
  for (const auto& payload : {record16({{"MsgId", "ZVK1"}, {"MsgText", "t"}}), std::string()}) {
    auto fed = inBody(kParseResult, kSuccess);
    try {
      fed.offer(envelope(6, payload));
      FAIL() << "a record without its document was taken";
    } catch (const tq::oss::NLSException& error) {
      ASSERT_FALSE(error.getMessageList().empty());
      const auto& arguments = error.getMessageList().front().getArguments();
      EXPECT_TRUE(std::any_of(arguments.begin(), arguments.end(),
                              [](const auto& argument) { return argument.indexOf(u"Doc") >= 0; }));
    }
  }
}

TEST(DrestoPerfResponse, ABlockThatEndsInAParseResultLeavesIt) {
  const auto whole = envelope(1, row("first")) + envelope(1, row("second"));
  const auto first = envelope(1, row("first")).size();
  for (std::size_t length = 1; length < whole.size(); ++length) {
    auto fed = inBody(kParseResult, kSuccess);
    EXPECT_EQ(fed.offer(whole.substr(0, length)),
              static_cast<int>(length < first ? length : length - first));
    EXPECT_FALSE(fed.done);
  }
}

// Estimates.

TEST(DrestoPerfResponse, AnEstimatesSecondAndThirdValueCross) {
  auto fed = inBody(kSelectivity, kSuccess);
  fed.offer(envelope(1, std::string("\0\0\0\x05\0\0\0\x07\0\0\0\x09", 12)) + endOfResults());
  EXPECT_TRUE(fed.done);
  EXPECT_EQ(fed.estimates(), (std::vector<std::uint64_t>{5, 9, 7}));
}

TEST(DrestoPerfResponse, EstimatesAreUnsigned) {
  auto fed = inBody(kSelectivity, kSuccess);
  fed.offer(envelope(1, estimate(0xFFFFFFFF, 0x80000000, 0xFFFFFFFE)));
  EXPECT_EQ(fed.estimates(), (std::vector<std::uint64_t>{0xFFFFFFFF, 0xFFFFFFFE, 0x80000000}));
}

TEST(DrestoPerfResponse, TheLastEstimateWins) {
  auto fed = inBody(kSelectivity, kSuccess);
  fed.offer(envelope(1, estimate(1, 2, 3)) + envelope(6, estimate(4, 5, 6)) +
            envelope(1, estimate(7, 8, 9)) + endOfResults());
  EXPECT_EQ(fed.estimates(), (std::vector<std::uint64_t>{7, 9, 8}));
  EXPECT_EQ(fed.response.getResultCount(), 0) << "an estimate is not counted";
}

TEST(DrestoPerfResponse, NoEstimateLeavesTheDefaults) {
  auto fed = inBody(kSelectivity, kSuccess);
  fed.offer(endOfResults());
  EXPECT_TRUE(fed.done);
  EXPECT_EQ(fed.estimates(), kNoEstimates);
}

TEST(DrestoPerfResponse, AnEstimateTooShortForItsValuesIsNoReply) {
  for (std::size_t length = 1; length < 12; ++length) {
    auto fed = inBody(kSelectivity, kSuccess);
    expectRefused(fed.raisedByOffer(envelope(1, estimate(5, 6, 7).substr(0, length))),
                  kShortEstimate);
    EXPECT_EQ(fed.estimates(), kNoEstimates);
  }
  auto empty = inBody(kSelectivity, kSuccess);
  expectRefused(empty.raisedByOffer(envelope(6, "")), kShortEstimate);
}

TEST(DrestoPerfResponse, ABlockThatEndsInAnEstimateLeavesIt) {
  const auto whole = envelope(1, estimate(1, 2, 3)) + envelope(1, estimate(4, 5, 6));
  for (std::size_t length = 1; length < whole.size(); ++length) {
    auto fed = inBody(kSelectivity, kSuccess);
    EXPECT_EQ(fed.offer(whole.substr(0, length)),
              static_cast<int>(length < 16 ? length : length - 16));
    EXPECT_FALSE(fed.done);
    EXPECT_EQ(fed.estimates(), length < 16 ? kNoEstimates : (std::vector<std::uint64_t>{1, 3, 2}));
  }
}

// The limit of what a record may announce.

TEST(DrestoPerfResponse, RefusesARecordBeyondTheLimit) {
  struct Case {
    int kind;
    unsigned int code;
    std::string payload;
    std::string body;
  };
  const auto error = record16({{"MsgId", "ZVK0404E"}, {"MsgText", "no"}});
  for (const auto& c : std::vector<Case>{
           {kStreamSearch, 1, "a key", plainHit("a key")},
           {kParseResult, 1, row("d"), envelope(1, row("d"))},
           {kSelectivity, 1, estimate(1, 2, 3), envelope(1, estimate(1, 2, 3))},
           {kGetServerVersion, 1, "12.1", envelope(1, "12.1")},
           {kGetStatus, 6, error, word16(static_cast<unsigned int>(error.size())) + error}}) {
    auto within = inBody(c.kind, c.code);
    within.parser.setMaxReplyBytes(c.payload.size());
    EXPECT_EQ(within.raisedByOffer(c.body), Raised()) << c.kind;
    auto beyond = inBody(c.kind, c.code);
    beyond.parser.setMaxReplyBytes(c.payload.size() - 1);
    SCOPED_TRACE(c.kind);
    expectRefused(beyond.raisedByOffer(c.body), kTooLong);
  }
}

// Content.

TEST(DrestoPerfResponse, ContentIsTextOfTheAnnouncedLength) {
  const std::string text("Corvane \xE2\x82\xAC\0 12.1", 17);
  auto fed = inBody(kGetServerVersion, kSuccess);
  EXPECT_EQ(fed.offer(envelope(1, text) + "behind"), 6);
  EXPECT_TRUE(fed.done);
  EXPECT_TRUE(fed.response.success());
  EXPECT_EQ(utf8(fed.response.getContent()), text) << "a zero byte does not end it";
}

TEST(DrestoPerfResponse, AnEmptyContentCompletes) {
  auto fed = inBody(kGetServerVersion, kSuccess);
  fed.response.setContent(u"old");
  EXPECT_EQ(fed.offer(envelope(1, "")), 0);
  EXPECT_TRUE(fed.done);
  EXPECT_TRUE(fed.response.getContent().isEmpty());
}

TEST(DrestoPerfResponse, TheLongestContentIsTaken) {
  auto fed = inBody(kGetServerVersion, kSuccess);
  EXPECT_EQ(fed.offer(envelope(1, std::string(65535, 'v'))), 0);
  EXPECT_EQ(fed.response.getContent().length(), 65535);
}

TEST(DrestoPerfResponse, AnIncompleteContentIsRefusedAndOver) {
  const auto whole = envelope(1, "text");
  for (std::size_t length = 1; length < whole.size(); ++length) {
    auto fed = inBody(kGetServerVersion, kSuccess);
    EXPECT_EQ(
        fed.raisedByOffer(whole.substr(0, length)),
        protocol(336, {"Invalid message envelope, status code not available in parseContent"}));
    EXPECT_TRUE(fed.done);
  }
  auto nine = inBody(kGetServerVersion, kSuccess);
  EXPECT_EQ(nine.raisedByOffer(envelope(9, "text")).front().line, 336U);
}

TEST(DrestoPerfResponse, AnErrorInPlaceOfTheContentIsTheServersMessage) {
  auto fed = inBody(kGetServerVersion, kSuccess);
  EXPECT_EQ(fed.raisedByOffer(
                envelope(6, errorRecord({{"MsgId", "ZVK0009I"}, {"MsgText", "no version"}}))),
            (Raised{{"ZVK0009I", "(null)", 0, {}, "no version", 8}}));
  EXPECT_TRUE(fed.done);
  auto unnamed = inBody(kGetServerVersion, kSuccess);
  EXPECT_EQ(unnamed.raisedByOffer(envelope(6, errorRecord({{"MsgText", "x"}}))),
            (Raised{{"ERR_SERVER_APP"}, {"ERR_SERVER_APP"}}));
  EXPECT_TRUE(unnamed.done);
}

TEST(DrestoPerfResponse, AnyOtherContentEnvelopeLosesItsHeaderAndNothingElseHappens) {
  auto fed = inBody(kGetServerVersion, kSuccess);
  EXPECT_EQ(fed.offer(envelope(2, "text")), 4);
  EXPECT_FALSE(fed.done);
  EXPECT_TRUE(fed.response.getContent().isEmpty());
  int need = 0;
  EXPECT_TRUE(fed.parser.parseDone(need));
}

// What a client asks to know where an error ends.

/// What a parser says of the bytes that a body begins with.
struct Unit {
  bool error;
  bool whole;
  int errorLength;
  bool operator==(const Unit&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Unit& unit) {
  return out << (unit.error ? "an error, " : "no error, ") << (unit.whole ? "whole, " : "in part, ")
             << unit.errorLength;
}

Unit unitOf(const DrestoPerfResponse& parser, const std::string& bytes) {
  const std::vector<char> exact(bytes.begin(), bytes.end());
  const auto size = static_cast<int>(exact.size());
  return {parser.beginsWithError(exact.data(), size), parser.holdsWholeUnit(exact.data(), size),
          parser.errorLength(exact.data(), size)};
}

TEST(DrestoPerfResponse, TellsWhereTheErrorInPlaceOfAVersionEnds) {
  const auto error = envelope(6, errorRecord({{"MsgId", "ZVK0009I"}, {"MsgText", "no version"}}));
  const auto fed = inBody(kGetServerVersion, kSuccess);
  const auto size = static_cast<int>(error.size());
  for (int length = 0; length < size; ++length) {
    EXPECT_EQ(unitOf(fed.parser, error.substr(0, static_cast<std::size_t>(length))),
              (Unit{length >= 2, false, length}));
  }
  EXPECT_EQ(unitOf(fed.parser, error), (Unit{true, true, size}));
  EXPECT_EQ(unitOf(fed.parser, error + "behind"), (Unit{true, true, size}));
}

TEST(DrestoPerfResponse, TellsWhereAnErrorRecordEnds) {
  const auto error = errorRecord({{"MsgId", "ZVK0009I"}, {"MsgText", "no"}});
  const auto size = static_cast<int>(error.size());
  for (const int kind : {kCreateCollection, kStreamSearch, kGetServerVersion}) {
    const auto fed = inBody(kind, 6);
    for (int length = 0; length < size; ++length) {
      EXPECT_EQ(unitOf(fed.parser, error.substr(0, static_cast<std::size_t>(length))),
                (Unit{true, false, length}));
    }
    EXPECT_EQ(unitOf(fed.parser, error + "behind"), (Unit{true, true, size}));
  }
}

TEST(DrestoPerfResponse, WhereNoResultsAreExpectedAnyBytesAreWhole) {
  auto fed = inBody(kCreateCollection, kSuccess);
  EXPECT_TRUE(fed.parser.holdsWholeUnit("", 0));
  EXPECT_FALSE(inBody(kStreamSearch, kSuccess).parser.holdsWholeUnit("", 0));
}

TEST(DrestoPerfResponse, TakesNothingElseForAnErrorOfTheServer) {
  const auto text = inBody(kGetServerVersion, kSuccess);
  EXPECT_FALSE(unitOf(text.parser, envelope(1, "12.1")).error);
  EXPECT_FALSE(unitOf(text.parser, envelope(0x0600, "12.1")).error);
  // Among results an envelope with the status of an error is a result.
  for (const int kind : {kStreamSearch, kParseResult, kSelectivity}) {
    EXPECT_FALSE(unitOf(inBody(kind, kSuccess).parser, envelope(6, "payload")).error) << kind;
  }
  for (const unsigned int code : {3U, 5U, 401U}) {
    EXPECT_FALSE(unitOf(inBody(kGetServerVersion, code).parser, envelope(6, "payload")).error);
  }
}

// Blocks however they are cut.

TEST(DrestoPerfResponse, TheSameResultsComeOfEveryPairOfBlocks) {
  const std::string body = plainHit("one") + scoredHit(7, "two") + envelope(2, "") + endOfResults();
  for (std::size_t cut = 1; cut < body.size(); ++cut) {
    auto fed = inBody(kStreamSearch, kSuccess);
    const auto left = static_cast<std::size_t>(fed.offer(body.substr(0, cut)));
    ASSERT_LE(left, cut);
    if (!fed.done) fed.again(body.substr(cut - left));
    EXPECT_TRUE(fed.done) << cut;
    std::vector<std::string> ids;
    for (const auto& hit : fed.hits()) ids.push_back(hit.id);
    EXPECT_EQ(ids, (std::vector<std::string>{idOfKey("one"), idOfKey("two"), "base64:"})) << cut;
  }
}

TEST(DrestoPerfResponse, OneByteMoreAtATimeBringsEachHitOnce) {
  const auto reply = longSearch(kStreamSearch, 30);
  auto fed = inBody(kStreamSearch, kSuccess);
  std::string carried;
  std::vector<Hit> taken;
  for (std::size_t at = 2; at < reply.text.size(); ++at) {
    carried += reply.text[at];
    const auto left = static_cast<std::size_t>(fed.again(carried));
    carried = carried.substr(carried.size() - left);
    for (auto& hit : fed.hits()) taken.push_back(hit);
    fed.response.getSearchResponse().init();
    ASSERT_EQ(fed.done, at + 1 == reply.text.size());
  }
  EXPECT_EQ(taken, reply.expected.seen.hits);
}

// The shape of the class.

/// A parser of an application's own.
class CountingResponse : public DrestoPerfResponse {
 public:
  using DrestoPerfResponse::DrestoPerfResponse;
  int parseHeaders(const char* buffer, int length) override {
    ++headers;
    return DrestoPerfResponse::parseHeaders(buffer, length);
  }
  int headers = 0;
};

TEST(DrestoPerfResponse, CanBeDerivedFrom) {
  CountingResponse parser(ClientRequest::STREAM_SEARCH, true);
  ClientResponse response;
  bool done = false;
  EXPECT_EQ(parser.parseMesg(word16(1).data(), 2, response, done), 0);
  EXPECT_EQ(parser.headers, 1);
}

TEST(DrestoPerfResponse, ItsOperationsCanBeBoundAsOnesOfAnObjectThatMayChange) {
  bool (DrestoPerfResponse::*parseDone)(int&) = &DrestoPerfResponse::parseDone;
  void (DrestoPerfResponse::*printState)(icu::UnicodeString) = &DrestoPerfResponse::printState;
  DrestoPerfResponse parser(ClientRequest::STREAM_SEARCH, true);
  int need = 0;
  EXPECT_FALSE((parser.*parseDone)(need));
  EXPECT_EQ(need, 2);
  testing::internal::CaptureStderr();
  (parser.*printState)(u"bound");
  EXPECT_NE(testing::internal::GetCapturedStderr().find("bound"), std::string::npos);
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

TEST(DrestoPerfResponse, ItsOperationsAreTraced) {
  namespace trace = tq::comm::trace;
  TracedIds traced;
  DrestoPerfResponse parser(ClientRequest::STREAM_SEARCH, true);
  int position = 0;
  int need = 0;
  unsigned short status = 0;
  parser.initState(true);
  parser.parseDone(need);
  parser.getShort("abcd", position = 0);
  parser.getInt("abcd", position = 0);
  parser.validateRespEnv("abcd", 4, position = 0, status);
  testing::internal::CaptureStderr();
  parser.printState(u"traced");
  testing::internal::GetCapturedStderr();
  for (const unsigned int id :
       {trace::DrestoPerfResponseConstruct, trace::DrestoPerfResponseParseDone,
        trace::DrestoPerfResponseGetShort, trace::DrestoPerfResponseGetInt,
        trace::DrestoPerfResponseValidateRespEnv, trace::DrestoPerfResponsePrintState}) {
    EXPECT_EQ(traced.entries.count(id), 1U) << std::hex << id;
  }
  // The constructor begins a reply by it too.
  EXPECT_EQ(traced.entries.count(trace::DrestoPerfResponseInitState), 2U);
  EXPECT_EQ(traced.entries, traced.exits);
}

TEST(DrestoPerfResponse, AHostThatTracesSeesEachRecordOfABlockDecodedByItself) {
  namespace trace = tq::comm::trace;
  const struct {
    int kind;
    std::string block;
    unsigned int step;
    std::size_t steps;
  } cases[] = {
      {kStreamSearch, scoredHit(1500, "a") + plainHit("b"), trace::SearchResultParseRecordNew, 2},
      {kParseResult, envelope(1, row("a")) + envelope(1, row("b")) + envelope(1, row("c")),
       trace::GenRespRecordParseRecordIntoPropsNew, 3}};
  for (const auto& c : cases) {
    TracedIds traced;
    auto fed = inBody(c.kind, kSuccess);
    fed.offer(c.block + endOfResults());
    EXPECT_EQ(traced.entries.count(c.step), c.steps) << c.kind;
    EXPECT_EQ(fed.hits().size() + fed.documents().size(), c.steps) << c.kind;
  }
}

// The diagnostic.

TEST(DrestoPerfResponse, PrintsItsStateInOneLine) {
  auto fed = inBody(kStreamSearch, 6);
  EXPECT_EQ(fed.raisedByOffer("abc").front().id, "ERR_SERVER_APP");
  std::ostringstream text;
  auto* before = std::cerr.rdbuf(text.rdbuf());
  fed.parser.printState(u"here");
  std::cerr.rdbuf(before);
  EXPECT_EQ(text.str(),
            " <Printing State for context  here Req : 8 response StatCode : 6 << ResultsExpected : "
            "1 Resp State=: 3 ResultsExpected:1  Content Len 3***>>\n");
}

}  // namespace
