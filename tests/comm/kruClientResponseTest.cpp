#include <gtest/gtest.h>

#include <limits>

#include "comm/kruClientResponse.h"
#include "tests/comm/kruCommText.h"

namespace tq::comm {
namespace {

using test::utf8;

ClientRequest::REQUEST kindOf(int number) { return static_cast<ClientRequest::REQUEST>(number); }

TEST(ClientResponse, ThatNoReplyHasFilledIsNotASuccess) {
  ClientResponse response;
  EXPECT_FALSE(response.success());
  EXPECT_EQ(-1, response.getReturnCode());
  EXPECT_EQ(0, response.getResultCount());
  EXPECT_EQ(0U, response.getStatusCode());
  EXPECT_TRUE(response.getText().isEmpty());
  EXPECT_TRUE(response.getContent().isEmpty());
  EXPECT_TRUE(response.getUtf8Buffer().empty());
  EXPECT_TRUE(response.getStatusMessage().getMessageId().isEmpty());
  EXPECT_FALSE(response.getSearchResponse().hasMore());
  EXPECT_FALSE(response.getParseResponse().hasMore());
  EXPECT_EQ(100, response.getSelectivityInfo().getThird());
}

TEST(ClientResponse, IsASuccessExactlyWhenTheReturnCodeIsZero) {
  ClientResponse response;
  for (const int code : {1, -1, std::numeric_limits<int>::min()}) {
    response.setReturnCode(code);
    EXPECT_FALSE(response.success()) << code;
  }
  response.setReturnCode(0);
  EXPECT_TRUE(response.success());
}

TEST(ClientResponse, CanBeMadeFromATextAndACode) {
  ClientResponse failed(u"text", 7);
  EXPECT_EQ("text", utf8(failed.getText()));
  EXPECT_EQ(7, failed.getReturnCode());
  EXPECT_EQ(0, failed.getResultCount());
  EXPECT_EQ(0U, failed.getStatusCode());
  EXPECT_TRUE(ClientResponse(u"", 0).success());
}

TEST(ClientResponse, TextAndBufferAreThereForTheCaller) {
  ClientResponse response;
  response.getText() = u"mine";
  response.getUtf8Buffer().append("abc", 3);
  response.initId();
  EXPECT_EQ("mine", utf8(response.getText()));
  EXPECT_EQ("abc", response.getUtf8Buffer().view());
}

TEST(ClientResponse, HoldsStatusAndContent) {
  ClientResponse response;
  response.setGetStatusCode(4294967295U);
  response.setContent(u"1.2.3");
  tq::oss::Message message(u"ZVK1", u"busy");
  response.setStatusMessage(message);
  message.setMessageId(u"changed");
  EXPECT_EQ(4294967295U, response.getStatusCode());
  EXPECT_EQ("1.2.3", utf8(response.getContent()));
  EXPECT_EQ("ZVK1", utf8(response.getStatusMessage().getMessageId()));
  EXPECT_EQ("busy", utf8(response.getStatusMessage().getMessageText()));
}

TEST(ClientResponse, TakesTheStatusMessageWhole) {
  tq::oss::Message message(u"ZVK1W", u"busy", tq::oss::Message::LEVEL_WARNING);
  message.addArgument(u"argument");
  message.setFileName("file");
  message.setLineNumber(7);
  ClientResponse response;
  response.setStatusMessage(message);
  const tq::oss::Message kept = response.getStatusMessage();
  EXPECT_EQ("ZVK1W", utf8(kept.getMessageId()));
  EXPECT_EQ(tq::oss::Message::LEVEL_WARNING, kept.getLevel());
  ASSERT_EQ(1U, kept.getArguments().size());
  EXPECT_EQ("argument", utf8(kept.getArguments()[0]));
  EXPECT_STREQ("file", kept.getFileName());
  EXPECT_EQ(7U, kept.getLineNumber());

  response.setStatusMessage(tq::oss::Message());
  EXPECT_TRUE(response.getStatusMessage().getMessageId().isEmpty()) << "replaced by an empty one";
  EXPECT_TRUE(response.getStatusMessage().getMessageText().isEmpty());
  EXPECT_TRUE(response.getStatusMessage().getArguments().empty());
  EXPECT_EQ(tq::oss::Message::LEVEL_ERROR, response.getStatusMessage().getLevel());
}

TEST(ClientResponse, CountsTheResultsOfBothKinds) {
  ClientResponse response;
  response.addSearchResult(SearchResult(false));
  response.addSearchResult(SearchResult(false));
  response.addParseResult(ParseResult(false));
  EXPECT_EQ(3, response.getResultCount());
  EXPECT_EQ(2U, response.getSearchResponse().count());
  EXPECT_EQ(1U, response.getParseResponse().count());
  response.resetResultCount();
  EXPECT_EQ(0, response.getResultCount());
  EXPECT_EQ(2U, response.getSearchResponse().count());
}

TEST(ClientResponse, ReplacesWholeResultsWithoutCounting) {
  ClientResponse response;
  SearchResponse hits;
  hits.addResult(SearchResult(false));
  ParseResponse parsed;
  parsed.addResult(ParseResult(false));
  SelectivityInfo info(false);
  info.parseRecordNew("\0\0\0\5\0\0\0\7\0\0\0\11", 12, 1);
  response.setSearchResponse(hits);
  response.setParseResponse(parsed);
  response.setSelectivityInfo(info);
  EXPECT_EQ(1U, response.getSearchResponse().count());
  EXPECT_EQ(1U, response.getParseResponse().count());
  EXPECT_EQ(5, response.getSelectivityInfo().getFirst());
  EXPECT_EQ(0, response.getResultCount());
  response.setSearchResponse(SearchResponse());
  EXPECT_EQ(0U, response.getSearchResponse().count());
}

struct Rules {
  int kind;
  bool required;
  bool streaming;
  bool results;
  bool multiple;
};

const Rules kRules[] = {
    {0, true, false, false, false},   {1, true, false, false, false},
    {2, true, false, false, false},   {3, true, false, false, false},
    {4, true, false, false, false},   {5, true, false, false, false},
    {6, true, false, false, false},   {7, true, false, false, false},
    {8, true, true, true, false},     {9, false, false, false, false},
    {10, false, false, false, false}, {11, true, true, true, true},
    {12, true, false, false, false},  {13, true, false, false, false},
    {14, true, true, true, false},    {15, true, false, false, false},
    {16, true, false, false, false},  {17, true, false, false, false},
    {18, true, false, false, false},  {19, true, false, false, false},
    {20, true, true, true, false},    {21, true, false, false, false},
    {22, true, false, true, false},   {23, true, false, false, false},
    {24, true, false, false, false},  {25, true, false, false, false},
    {63, true, false, false, false},
};

TEST(ClientResponse, KnowsHowTheReplyOfEachKindIsShaped) {
  for (const Rules& rules : kRules) {
    const auto kind = kindOf(rules.kind);
    EXPECT_EQ(rules.required, ClientResponse::isRespReqd(kind)) << rules.kind;
    EXPECT_EQ(rules.streaming, ClientResponse::isStreaming(kind)) << rules.kind;
    EXPECT_EQ(rules.results, ClientResponse::resultsExpected(kind)) << rules.kind;
    EXPECT_EQ(rules.multiple, ClientResponse::isMultiResp(kind)) << rules.kind;
  }
}

TEST(ClientResponse, AKindOutsideTheSetsOnlyRequiresAReply) {
  // 72, 73 and 75 would alias 8, 9 and 11 if the number were not compared first.
  for (const int number : {-1, -56, 64, 65, 72, 73, 74, 75, 78, 84, 86, 128, 136,
                           std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
    const auto kind = kindOf(number);
    EXPECT_TRUE(ClientResponse::isRespReqd(kind)) << number;
    EXPECT_FALSE(ClientResponse::isStreaming(kind)) << number;
    EXPECT_FALSE(ClientResponse::resultsExpected(kind)) << number;
    EXPECT_FALSE(ClientResponse::isMultiResp(kind)) << number;
  }
}

TEST(ClientResponse, TheServersVersionIsAResultThatDoesNotStream) {
  EXPECT_TRUE(ClientResponse::resultsExpected(ClientRequest::GET_SERVER_VERSION));
  EXPECT_FALSE(ClientResponse::isStreaming(ClientRequest::GET_SERVER_VERSION));
}

}  // namespace
}  // namespace tq::comm
