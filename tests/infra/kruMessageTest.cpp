#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "infra/oss/kruMessage.h"

namespace {

using tq::oss::Message;

TEST(Message, StartsEmptyWithTheLevelOfAnError) {
  const Message message;
  EXPECT_TRUE(message.getMessageId().isEmpty());
  EXPECT_TRUE(message.getMessageText().isEmpty());
  EXPECT_TRUE(message.getArguments().empty());
  EXPECT_EQ(message.getLevel(), 2);
  EXPECT_EQ(message.getFileName(), nullptr);
  EXPECT_EQ(message.getLineNumber(), 0U);
}

TEST(Message, LevelsHaveTheirFixedNumbers) {
  EXPECT_EQ(Message::LEVEL_SEVERE, 1);
  EXPECT_EQ(Message::LEVEL_ERROR, 2);
  EXPECT_EQ(Message::LEVEL_WARNING, 4);
  EXPECT_EQ(Message::LEVEL_INFO, 8);
}

TEST(Message, TakesIdTextAndLevelAtOnce) {
  const Message message(u"ID1", u"text", Message::LEVEL_WARNING);
  EXPECT_EQ(message.getMessageId(), u"ID1");
  EXPECT_EQ(message.getMessageText(), u"text");
  EXPECT_EQ(message.getLevel(), 4);
}

TEST(Message, KeepsWhatIsSet) {
  Message message;
  message.setMessageId(u"ID2");
  message.setMessageText(u"gr\u00fc\u00df");
  message.setLevel(Message::LEVEL_INFO);
  message.setLineNumber(77);
  EXPECT_EQ(message.getMessageId(), u"ID2");
  EXPECT_EQ(message.getMessageText(), u"gr\u00fc\u00df");
  EXPECT_EQ(message.getLevel(), 8);
  EXPECT_EQ(message.getLineNumber(), 77U);
}

TEST(Message, KeepsArgumentsInTheOrderOfTheirAddition) {
  Message message;
  message.addArgument(u"host");
  message.addArgument(8080UL);
  message.addArgument("name", "value");
  ASSERT_EQ(message.getArguments().size(), 3U);
  EXPECT_EQ(message.getArguments()[0], u"host");
  EXPECT_EQ(message.getArguments()[1], u"8080");
  EXPECT_EQ(message.getArguments()[2], u"name=value");
}

TEST(Message, WritesNumbersInPlainDigits) {
  Message message;
  message.addArgument(0UL);
  message.addArgument(18446744073709551615UL);
  EXPECT_EQ(message.getArguments()[0], u"0");
  EXPECT_EQ(message.getArguments()[1], u"18446744073709551615");
}

TEST(Message, ReadsNullInAPairAsEmpty) {
  Message message;
  message.addArgument("name", nullptr);
  message.addArgument(nullptr, "value");
  EXPECT_EQ(message.getArguments()[0], u"name=");
  EXPECT_EQ(message.getArguments()[1], u"=value");
}

TEST(Message, ReadsAPairAsUtf8) {
  Message message;
  message.addArgument(
      "stra\xC3\x9F"
      "e",
      "\xE2\x82\xAC");
  EXPECT_EQ(message.getArguments()[0], u"stra\u00dfe=\u20ac");
}

TEST(Message, CopiesTheFileName) {
  Message message;
  std::string name = "kruSocket";
  message.setFileName(name.c_str());
  name = "overwritten";
  EXPECT_STREQ(message.getFileName(), "kruSocket");
  message.setFileName(nullptr);
  EXPECT_EQ(message.getFileName(), nullptr);
}

TEST(Message, AnEmptyFileNameIsNotTheAbsenceOfOne) {
  Message message;
  message.setFileName("");
  EXPECT_STREQ(message.getFileName(), "");
}

Message full() {
  Message message(u"ID", u"text", Message::LEVEL_SEVERE);
  message.addArgument(u"one");
  message.setFileName("file");
  message.setLineNumber(5);
  return message;
}

void expectFull(const Message& message) {
  EXPECT_EQ(message.getMessageId(), u"ID");
  EXPECT_EQ(message.getMessageText(), u"text");
  EXPECT_EQ(message.getLevel(), 1);
  ASSERT_EQ(message.getArguments().size(), 1U);
  EXPECT_EQ(message.getArguments()[0], u"one");
  EXPECT_STREQ(message.getFileName(), "file");
  EXPECT_EQ(message.getLineNumber(), 5U);
}

TEST(Message, SetMessageTakesEverythingOver) {
  Message message(u"old", u"old");
  message.addArgument(u"old");
  message.setMessage(full());
  expectFull(message);
}

TEST(Message, SetToItselfStaysAsItIs) {
  Message message = full();
  message.setMessage(message);
  expectFull(message);
}

TEST(Message, CopiesShareNothing) {
  Message original = full();
  const Message copy = original;
  original.setMessageId(u"changed");
  original.addArgument(u"two");
  original.setFileName("changed");
  expectFull(copy);
}

TEST(Message, MovesWhole) {
  Message original = full();
  const Message moved = std::move(original);
  expectFull(moved);
  Message assigned;
  assigned = full();
  expectFull(assigned);
}

}  // namespace
