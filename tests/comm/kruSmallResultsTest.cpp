#include <gtest/gtest.h>

#include "comm/kruOpenResult.h"
#include "comm/kruParseResult.h"
#include "comm/kruSelectivityInfo.h"
#include "infra/oss/kruNLSException.h"
#include "tests/comm/kruCommText.h"

namespace tq::comm {
namespace {

using test::record16;
using test::record32;
using test::utf8;

template <typename Result>
void parse(Result& result, const test::Fields& fields) {
  const std::string bytes = record32(fields);
  result.parseRecord(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

template <typename Result>
void parseNew(Result& result, const std::string& bytes) {
  result.parseRecordNew(bytes.data(), static_cast<unsigned short>(bytes.size()), 1);
}

TEST(ParseResult, IsEmptyAtFirst) {
  const ParseResult result(true);
  EXPECT_TRUE(result.getDocument().isEmpty());
  EXPECT_FALSE(result.hasMessage());
  EXPECT_TRUE(result.getMessage().getMessageId().isEmpty());
}

TEST(ParseResult, TakesDocumentAndMessage) {
  ParseResult result(true);
  parse(result, {{"Doc", "key1"}, {"MsgId", "ZVK0003W"}, {"MsgText", "odd bytes"}});
  EXPECT_EQ("key1", utf8(result.getDocument()));
  EXPECT_TRUE(result.hasMessage());
  EXPECT_EQ("ZVK0003W", utf8(result.getMessage().getMessageId()));
  EXPECT_EQ("odd bytes", utf8(result.getMessage().getMessageText()));
  EXPECT_EQ(4, static_cast<int>(result.getMessage().getLevel()));
}

TEST(ParseResult, TakesACompactRecordTheSameWay) {
  ParseResult result(true);
  parseNew(result, record16({{"Doc", "key1"}, {"MsgId", "E1"}, {"MsgText", "no"}}));
  EXPECT_EQ("key1", utf8(result.getDocument()));
  EXPECT_TRUE(result.hasMessage());
  EXPECT_EQ("E1", utf8(result.getMessage().getMessageId()));
}

TEST(ParseResult, WithoutAMessageIdHasAnEmptyMessage) {
  for (const test::Fields& fields :
       {test::Fields{{"Doc", "k"}}, test::Fields{{"Doc", "k"}, {"MsgId", ""}, {"MsgText", "t"}}}) {
    ParseResult result(true);
    parse(result, fields);
    EXPECT_FALSE(result.hasMessage());
    EXPECT_TRUE(result.getMessage().getMessageId().isEmpty());
    EXPECT_TRUE(result.getMessage().getMessageText().isEmpty());
  }
}

TEST(ParseResult, NothingOfARecordReachesTheNext) {
  ParseResult result(true);
  parse(result, {{"Doc", "k1"}, {"MsgId", "E1"}, {"MsgText", "no"}});
  parse(result, {{"Doc", "k2"}});
  EXPECT_EQ("k2", utf8(result.getDocument()));
  EXPECT_FALSE(result.hasMessage());
  EXPECT_TRUE(result.getMessage().getMessageId().isEmpty());
  parseNew(result, record16({{"Doc", "k3"}, {"MsgId", "E3"}, {"MsgText", "no"}}));
  parseNew(result, record16({{"Doc", "k4"}}));
  EXPECT_FALSE(result.hasMessage());
  EXPECT_EQ(1U, result.getProperties()->size());
}

TEST(ParseResult, ARecordAfterABrokenOneIsReadAfresh) {
  ParseResult result(true);
  EXPECT_THROW(parse(result, {{"MsgId", "E1"}, {"MsgText", "no"}}), tq::oss::NLSException);
  parse(result, {{"Doc", "k2"}});
  EXPECT_FALSE(result.hasMessage());
}

TEST(ParseResult, ResetEmptiesTheMessage) {
  ParseResult result(true);
  parse(result, {{"Doc", "k1"}, {"MsgId", "E1"}, {"MsgText", "no"}});
  result.getProperties()->putProperty(u"MsgId", u"");
  result.reset();
  EXPECT_FALSE(result.hasMessage());
  EXPECT_TRUE(result.getMessage().getMessageText().isEmpty());
}

TEST(ParseResult, WithoutADocumentIsAnError) {
  ParseResult result(true);
  try {
    parse(result, {{"MsgId", "E1"}, {"MsgText", "no"}});
    FAIL() << "no exception";
  } catch (const tq::oss::NLSException& error) {
    EXPECT_EQ("Doc", utf8(error.getMessageList().front().getArguments().at(0)));
  }
  EXPECT_THROW(ParseResult(false).reset(), tq::oss::NLSException);
}

TEST(ParseResult, AMessageIdWithoutATextIsAnError) {
  ParseResult result(true);
  EXPECT_THROW(parse(result, {{"Doc", "k"}, {"MsgId", "E1"}}), tq::oss::NLSException);
  EXPECT_FALSE(result.hasMessage());
}

TEST(ParseResult, CopiesHaveTheMembersButNoProperties) {
  ParseResult result(true);
  parse(result, {{"Doc", "k1"}, {"MsgId", "E1"}, {"MsgText", "no"}});
  const ParseResult copy(result);
  ParseResult assigned(true);
  assigned = result;
  EXPECT_EQ(nullptr, copy.getProperties());
  EXPECT_EQ(0U, assigned.getProperties()->size());
  for (const ParseResult* one : {&copy, const_cast<const ParseResult*>(&assigned)}) {
    EXPECT_EQ("k1", utf8(one->getDocument()));
    EXPECT_TRUE(one->hasMessage());
    EXPECT_EQ("E1", utf8(one->getMessage().getMessageId()));
  }
}

std::vector<std::int64_t> valuesOf(const SelectivityInfo& info) {
  return {info.getFirst(), info.getSecond(), info.getThird()};
}
using Values = std::vector<std::int64_t>;

TEST(SelectivityInfo, HoldsOneOneAndAHundredByDefault) {
  EXPECT_EQ((Values{1, 1, 100}), valuesOf(SelectivityInfo(false)));
  EXPECT_EQ((Values{1, 1, 100}), valuesOf(SelectivityInfo(true)));
}

TEST(SelectivityInfo, ACompactRecordBringsTheThirdValueBeforeTheSecond) {
  SelectivityInfo info(false);
  const std::string bytes = test::unhex("00 00 00 05 00 00 00 07 00 00 00 09");
  EXPECT_EQ(0, info.parseRecordNew(bytes.data(), 12, 1));
  EXPECT_EQ((Values{5, 9, 7}), valuesOf(info));
}

TEST(SelectivityInfo, ValuesAreReadAsUnsigned) {
  SelectivityInfo info(false);
  const std::string bytes = test::unhex("ff ff ff ff 80 00 00 00 7f ff ff ff");
  info.parseRecordNew(bytes.data(), 12, 1);
  EXPECT_EQ((Values{4294967295, 2147483647, 2147483648}), valuesOf(info));
}

TEST(SelectivityInfo, NeitherLengthNorTypeIsConsulted) {
  const std::string bytes = test::unhex("00 00 00 05 00 00 00 07 00 00 00 09");
  for (const int number : {0, 4, 100}) {
    const auto length = static_cast<unsigned short>(number);
    SelectivityInfo info(false);
    EXPECT_EQ(0, info.parseRecordNew(bytes.data(), length, length));
    EXPECT_EQ((Values{5, 9, 7}), valuesOf(info));
  }
}

TEST(SelectivityInfo, ARecordOfPropertiesLeavesTheValuesAlone) {
  SelectivityInfo info(true);
  parse(info, {{"first", "5"}, {"1", "7"}});
  EXPECT_EQ((Values{1, 1, 100}), valuesOf(info));
  EXPECT_EQ(2U, info.getProperties()->size());
}

TEST(SelectivityInfo, CopiesHaveTheValuesAndTheirOwnProperties) {
  SelectivityInfo info(true);
  const std::string bytes = test::unhex("00 00 00 05 00 00 00 07 00 00 00 09");
  info.parseRecordNew(bytes.data(), 12, 1);
  info.getProperties()->putProperty(u"a", u"b");
  const SelectivityInfo copy(info);
  EXPECT_EQ((Values{5, 9, 7}), valuesOf(copy));
  EXPECT_EQ(nullptr, copy.getProperties());
  SelectivityInfo assigned(true);
  assigned = info;
  EXPECT_EQ((Values{5, 9, 7}), valuesOf(assigned));
  EXPECT_EQ(0U, assigned.getProperties()->size());
}

TEST(OpenResult, TakesThePortFromItsLeadingDigits) {
  const std::pair<const char*, int> cases[] = {
      {"8191", 8191},   {"8191/tcp", 8191},
      {"12 34", 12},    {"0", 0},
      {"", 0},          {"tcp8191", 0},
      {"/1", 0},        {"007", 7},
      {"65536", 65536}, {"99999999999999999999", 2147483647},
  };
  for (const auto& [text, port] : cases) {
    OpenResult result(true);
    parse(result, {{"port", text}});
    EXPECT_EQ(port, result.getPort()) << text;
    EXPECT_TRUE(result.getText().isEmpty());
  }
}

TEST(OpenResult, ReadsThePortAsAtoiDoes) {
  OpenResult result(true);
  parse(result, {{"port", "010"}});
  EXPECT_EQ(10, result.getPort()) << "decimal, whatever it begins with";
  parse(result, {{"port", "0x10"}});
  EXPECT_EQ(0, result.getPort());
  parse(result, {{"port", " 80"}});
  EXPECT_EQ(80, result.getPort());
  parse(result, {{"port", "-80"}});
  EXPECT_EQ(-80, result.getPort());
}

TEST(OpenResult, WithoutAPortIsAnErrorThatLeavesTheOldOne) {
  OpenResult result(true);
  EXPECT_EQ(0, result.getPort());
  try {
    parse(result, {{"host", "a"}});
    FAIL() << "no exception";
  } catch (const tq::oss::NLSException& error) {
    EXPECT_EQ("port", utf8(error.getMessageList().front().getArguments().at(0)));
  }
  EXPECT_EQ(0, result.getPort());
  EXPECT_THROW(OpenResult(false).reset(), tq::oss::NLSException);
}

TEST(OpenResult, CopiesHaveThePortButNoProperties) {
  OpenResult result(true);
  parse(result, {{"port", "8191"}});
  const OpenResult copy(result);
  OpenResult assigned(true);
  assigned = result;
  EXPECT_EQ(8191, copy.getPort());
  EXPECT_EQ(nullptr, copy.getProperties());
  EXPECT_EQ(8191, assigned.getPort());
  EXPECT_EQ(0U, assigned.getProperties()->size());
}

}  // namespace
}  // namespace tq::comm
