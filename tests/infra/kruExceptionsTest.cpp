#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "infra/oss/kruBaseException.h"
#include "infra/oss/kruConverter.h"
#include "infra/oss/kruNLSException.h"
#include "infra/oss/kruSocketException.h"

namespace {

using tq::oss::BaseException;
using tq::oss::Message;
using tq::oss::MessageList;
using tq::oss::NLSException;
using tq::oss::SocketException;
using tq::oss::SocketTimeoutException;

MessageList oneMessage(const char16_t* id) {
  MessageList list;
  list.add(Message(id, u"text"));
  return list;
}

TEST(BaseException, NameAndWhatAreTheSame) {
  const BaseException exception;
  EXPECT_STREQ(exception.name(), "oss::BaseException");
  EXPECT_STREQ(exception.what(), "oss::BaseException");
  EXPECT_TRUE(exception.getMessageList().empty());
}

TEST(BaseException, CarriesItsMessages) {
  const BaseException exception(oneMessage(u"ID"));
  ASSERT_EQ(exception.getMessageList().size(), 1U);
  EXPECT_EQ(exception.getMessageList().front().getMessageId(), u"ID");
}

TEST(BaseException, CopiesShareNothing) {
  BaseException original(oneMessage(u"ID"));
  const BaseException copy(original);
  BaseException assigned;
  assigned = original;
  original.getMessageList().clear();
  EXPECT_EQ(copy.getMessageList().size(), 1U);
  EXPECT_EQ(assigned.getMessageList().size(), 1U);
}

TEST(BaseException, IsCaughtAsAStandardException) {
  try {
    throw BaseException(oneMessage(u"ID"));
  } catch (const std::exception& caught) {
    EXPECT_STREQ(caught.what(), "oss::BaseException");
  }
}

TEST(NLSException, HasItsOwnName) {
  const NLSException exception;
  EXPECT_STREQ(exception.name(), "oss::NLSException");
  EXPECT_STREQ(exception.what(), "oss::NLSException");
}

TEST(NLSException, IsBuiltFromAMessageOrAList) {
  EXPECT_EQ(NLSException(Message(u"A", u"")).getMessageList().front().getMessageId(), u"A");
  EXPECT_EQ(NLSException(oneMessage(u"B")).getMessageList().front().getMessageId(), u"B");
}

TEST(NLSException, CopiesShareNothing) {
  NLSException original(Message(u"A", u""));
  const NLSException copy(original);
  NLSException assigned;
  assigned = original;
  original.getMessageList().clear();
  EXPECT_EQ(copy.getMessageList().front().getMessageId(), u"A");
  EXPECT_EQ(assigned.getMessageList().front().getMessageId(), u"A");
}

TEST(NLSException, IsCaughtAsABaseExceptionWithItsName) {
  try {
    throw NLSException(Message(u"A", u""));
  } catch (const BaseException& caught) {
    EXPECT_STREQ(caught.what(), "oss::NLSException");
  }
}

TEST(SocketException, HasItsOwnName) {
  const SocketException exception;
  EXPECT_STREQ(exception.name(), "oss::SocketException");
  EXPECT_STREQ(exception.what(), "oss::SocketException");
  EXPECT_EQ(exception.getErrorNumber(), 0);
}

TEST(SocketException, CarriesTheSystemsWordsAndNumber) {
  const SocketException exception(u"connect to h port 1", ECONNREFUSED);
  EXPECT_EQ(exception.getErrorNumber(), ECONNREFUSED);
  ASSERT_EQ(exception.getMessageList().size(), 1U);
  const Message& message = exception.getMessageList().front();
  EXPECT_EQ(message.getMessageId(), u"TQ_ERR_SOCKET");
  EXPECT_STREQ(message.getFileName(), "kruSocket");
  EXPECT_EQ(tq::oss::Converter::toUTF8(message.getMessageText()), std::strerror(ECONNREFUSED));
  ASSERT_EQ(message.getArguments().size(), 2U);
  EXPECT_EQ(message.getArguments()[0], u"connect to h port 1");
  EXPECT_EQ(message.getArguments()[1], u"111");
}

TEST(SocketException, TakesWordsOfItsOwn) {
  const SocketException exception(u"resolve h port 1", -2, u"unknown name");
  EXPECT_EQ(exception.getErrorNumber(), -2);
  const Message& message = exception.getMessageList().front();
  EXPECT_EQ(message.getMessageText(), u"unknown name");
  EXPECT_EQ(message.getArguments()[1], u"-2");
}

TEST(SocketException, CopiesShareNothing) {
  SocketException original(u"what", EPIPE);
  const SocketException copy(original);
  SocketException assigned(oneMessage(u"ID"));
  EXPECT_EQ(assigned.getMessageList().front().getMessageId(), u"ID");
  assigned = original;
  original.getMessageList().clear();
  EXPECT_EQ(copy.getMessageList().size(), 1U);
  EXPECT_EQ(copy.getErrorNumber(), EPIPE);
  EXPECT_EQ(assigned.getErrorNumber(), EPIPE);
}

TEST(SocketTimeoutException, IsASocketExceptionThatSaysTimedOut) {
  try {
    throw SocketTimeoutException(u"receive from h port 1");
  } catch (const SocketException& caught) {
    EXPECT_STREQ(caught.name(), "oss::SocketTimeoutException");
    EXPECT_EQ(caught.getErrorNumber(), ETIMEDOUT);
  }
}

TEST(SocketTimeoutException, CopiesShareNothing) {
  SocketTimeoutException original(u"a");
  const SocketTimeoutException copy(original);
  SocketTimeoutException assigned(u"b");
  assigned = original;
  original.getMessageList().clear();
  EXPECT_EQ(copy.getMessageList().front().getArguments()[0], u"a");
  EXPECT_EQ(assigned.getMessageList().front().getArguments()[0], u"a");
}

}  // namespace
