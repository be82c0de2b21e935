#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "comm/kruRESTException.h"
#include "comm/kruRaise.h"
#include "tests/comm/kruCommText.h"

namespace tq::comm {
namespace {

using test::utf8;

constexpr Raiser fail("kruSomeSource");

template <typename Raising>
tq::oss::MessageList messagesOf(Raising raising) {
  try {
    raising();
  } catch (const RESTException& error) {
    return error.getMessageList();
  }
  return {};
}

tq::oss::Message onlyMessage(const tq::oss::MessageList& messages) {
  EXPECT_EQ(1U, messages.size());
  return messages.empty() ? tq::oss::Message() : messages.front();
}

std::vector<std::string> argumentsOf(const tq::oss::Message& message) {
  std::vector<std::string> arguments;
  for (const auto& argument : message.getArguments()) arguments.push_back(utf8(argument));
  return arguments;
}

TEST(Raiser, NamesTheFileAndTheLineOfEachRaiseSite) {
  const unsigned long before = __LINE__;
  const auto first = onlyMessage(messagesOf([] { fail(u"ERR_A"); }));
  const auto second = onlyMessage(messagesOf([] { fail(u"ERR_A"); }));
  EXPECT_EQ("ERR_A", utf8(first.getMessageId()));
  EXPECT_STREQ("kruSomeSource", first.getFileName());
  EXPECT_EQ(before + 1, first.getLineNumber());
  EXPECT_EQ(before + 2, second.getLineNumber());
  EXPECT_TRUE(first.getMessageText().isEmpty());
  EXPECT_TRUE(first.getArguments().empty());
  EXPECT_EQ(tq::oss::Message::LEVEL_ERROR, first.getLevel());
}

TEST(Raiser, TakesALineThatNeverChanges) {
  EXPECT_EQ(171U, onlyMessage(messagesOf([] { fail(u"ERR_A", {}, 171); })).getLineNumber());
}

TEST(Raiser, PutsTheReasonIntoTheTextAndLeavesTheArgumentsAlone) {
  const auto message =
      onlyMessage(messagesOf([] { fail(u"ERR_A", Details(u"too long").server(u"host", 4711)); }));
  EXPECT_EQ("too long", utf8(message.getMessageText()));
  EXPECT_EQ((std::vector<std::string>{"host", "4711"}), argumentsOf(message));
}

TEST(Raiser, TakesAReasonWithoutDetails) {
  const auto message = onlyMessage(messagesOf([] { fail(u"ERR_A", u"too long"); }));
  EXPECT_EQ("too long", utf8(message.getMessageText()));
  EXPECT_TRUE(message.getArguments().empty());
}

TEST(Raiser, TakesArgumentsInTheirOrder) {
  const auto message =
      onlyMessage(messagesOf([] { fail(u"ERR_A", Details().argument(u"one").argument(u"two")); }));
  EXPECT_EQ((std::vector<std::string>{"one", "two"}), argumentsOf(message));
}

TEST(Raiser, LetsTheFirstMessageOfTheCauseFollow) {
  tq::oss::MessageList causes;
  causes.add(tq::oss::Message(u"CAUSE", u"why"));
  causes.add(tq::oss::Message(u"OTHER", u"what else"));
  const auto messages = messagesOf([&] { fail(u"ERR_A", Details().cause(causes)); });
  ASSERT_EQ(2U, messages.size());
  EXPECT_EQ("ERR_A", utf8(messages.front().getMessageId()));
  EXPECT_EQ("CAUSE", utf8(std::next(messages.begin())->getMessageId()));
  EXPECT_EQ(1U, messagesOf([] { fail(u"ERR_A", Details().cause({})); }).size());
}

TEST(Raiser, WithoutAFileNamesNoLineEither) {
  const auto message = onlyMessage(messagesOf([] { Raiser(nullptr)(u"ERR_A", u"out of place"); }));
  EXPECT_EQ(nullptr, message.getFileName());
  EXPECT_EQ(0U, message.getLineNumber());
  EXPECT_EQ("out of place", utf8(message.getMessageText()));
}

TEST(Rethrow, CarriesTheSameMessagesAndNothingElse) {
  tq::oss::MessageList messages;
  messages.add(tq::oss::Message(u"A", u"one"));
  messages.add(tq::oss::Message(u"B", u"two"));
  try {
    rethrow(messages);
    FAIL() << "returned";
  } catch (const RESTException& error) {
    ASSERT_EQ(2U, error.getMessageList().size());
    EXPECT_EQ("A", utf8(error.getMessageList().front().getMessageId()));
    EXPECT_EQ("B", utf8(std::next(error.getMessageList().begin())->getMessageId()));
    EXPECT_EQ(nullptr, error.getProperties());
  }
}

}  // namespace
}  // namespace tq::comm
