#include <gtest/gtest.h>

#include <exception>
#include <type_traits>

#include "comm/kruRESTException.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruNLSException.h"
#include "tests/comm/kruCommText.h"

namespace tq::comm {
namespace {

using test::record16;
using test::record32;
using test::utf8;

tq::oss::MessageList oneMessage(const char16_t* id) {
  tq::oss::MessageList messages;
  messages.add(tq::oss::Message(id, u"text"));
  return messages;
}

void parse(RESTException& error, const std::string& bytes) {
  error.parseRecord(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

std::string firstId(const tq::oss::BaseException& error) {
  return utf8(error.getMessageList().front().getMessageId());
}

TEST(RESTException, IsEmptyAndWithoutPropertiesByDefault) {
  const RESTException error;
  EXPECT_TRUE(error.getMessageList().empty());
  EXPECT_EQ(nullptr, error.getProperties());
  EXPECT_NE(nullptr, RESTException(true).getProperties());
  EXPECT_EQ(nullptr, RESTException(false).getProperties());
}

TEST(RESTException, NameAndWhatBothGiveTheNameOfTheBase) {
  const RESTException error(oneMessage(u"ERR_SERVER_APP"));
  EXPECT_STREQ("oss::BaseException", error.name());
  EXPECT_STREQ("oss::BaseException", error.what());
}

TEST(RESTException, IsCaughtAsEachOfItsBases) {
  EXPECT_THROW(throw RESTException(), std::exception);
  EXPECT_THROW(throw RESTException(), tq::oss::BaseException);
  EXPECT_THROW(throw RESTException(), GenRespRecord);
}

TEST(RESTException, CarriesACopyOfTheMessagesItWasGiven) {
  tq::oss::MessageList messages = oneMessage(u"A");
  const RESTException error(messages);
  messages.clear();
  EXPECT_EQ("A", firstId(error));
}

TEST(RESTException, AnErrorRecordReplacesTheMessageList) {
  RESTException error(true);
  error.getMessageList() = oneMessage(u"ERR_SERVER_APP");
  error.getMessageList().add(tq::oss::Message(u"second", u""));
  parse(error, record32({{"MsgId", "ZVK0007W"}, {"MsgText", "low on space"}}));
  ASSERT_EQ(1U, error.getMessageList().size());
  const tq::oss::Message& message = error.getMessageList().front();
  EXPECT_EQ("ZVK0007W", utf8(message.getMessageId()));
  EXPECT_EQ("low on space", utf8(message.getMessageText()));
  EXPECT_EQ(4, static_cast<int>(message.getLevel()));
  EXPECT_EQ(nullptr, message.getFileName());
  EXPECT_EQ(0U, message.getLineNumber());
}

TEST(RESTException, ACompactErrorRecordReplacesTheMessageListToo) {
  RESTException error(true);
  const std::string bytes = record16({{"MsgId", "ZVK1"}, {"MsgText", "no"}});
  EXPECT_EQ(static_cast<int>(bytes.size()),
            error.parseRecordNew(bytes.data(), static_cast<unsigned short>(bytes.size()), 1));
  EXPECT_EQ("ZVK1", firstId(error));
}

TEST(RESTException, AnEmptyMessageIdLeavesTheMessageListInPlace) {
  RESTException error(true);
  error.getMessageList() = oneMessage(u"ERR_SERVER_APP");
  parse(error, record32({{"MsgId", ""}, {"MsgText", "text"}}));
  EXPECT_EQ(1U, error.getMessageList().size());
  EXPECT_EQ("ERR_SERVER_APP", firstId(error));
}

TEST(RESTException, ARecordWithoutIdOrTextThrowsWhatTheLookUpThrows) {
  const std::pair<std::string, const char*> cases[] = {
      {record32({{"MsgText", "text"}}), "MsgId"},
      {record32({{"MsgId", "ZVK1"}}), "MsgText"},
      {"", "MsgId"},
  };
  for (const auto& [bytes, missing] : cases) {
    RESTException error(true);
    error.getMessageList() = oneMessage(u"ERR_SERVER_APP");
    try {
      parse(error, bytes);
      FAIL() << "no exception";
    } catch (const tq::oss::NLSException& failure) {
      EXPECT_EQ(missing, utf8(failure.getMessageList().front().getArguments().at(0)));
    }
    EXPECT_EQ("ERR_SERVER_APP", firstId(error));
  }
}

TEST(RESTException, ACallThroughTheRecordReachesTheSameReset) {
  RESTException error(true);
  GenRespRecord& record = error;
  record.getProperties()->putProperty(u"MsgId", u"ZVK1");
  record.getProperties()->putProperty(u"MsgText", u"");
  record.reset();
  EXPECT_EQ("ZVK1", firstId(error));
}

TEST(RESTException, CopiesShareNothing) {
  RESTException original(true);
  parse(original, record32({{"MsgId", "ZVK1"}, {"MsgText", "a"}}));
  RESTException copy(original);
  RESTException assigned;
  assigned = original;
  original.getMessageList().clear();
  original.getProperties()->clear();
  for (RESTException* error : {&copy, &assigned}) {
    EXPECT_EQ("ZVK1", firstId(*error));
    ASSERT_NE(nullptr, error->getProperties());
    EXPECT_EQ(2U, error->getProperties()->size());
  }
}

TEST(RESTException, AnAssignedOneHasPropertiesOnlyIfItsSourceHas) {
  RESTException target(true);
  target = RESTException(oneMessage(u"A"));
  EXPECT_EQ(nullptr, target.getProperties());
  EXPECT_EQ("A", firstId(target));
}

TEST(RESTException, SurvivesAssignmentToItself) {
  RESTException error(true);
  parse(error, record32({{"MsgId", "ZVK1"}, {"MsgText", "a"}}));
  const RESTException& same = error;
  error = same;
  EXPECT_EQ("ZVK1", firstId(error));
  EXPECT_EQ(2U, error.getProperties()->size());
}

}  // namespace
}  // namespace tq::comm
