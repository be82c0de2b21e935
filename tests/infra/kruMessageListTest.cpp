#include <gtest/gtest.h>

#include <utility>

#include "infra/oss/kruMessageList.h"

namespace {

using tq::oss::Message;
using tq::oss::MessageList;

MessageList listOf(std::initializer_list<const char16_t*> ids) {
  MessageList list;
  for (const char16_t* id : ids) list.add(Message(id, u""));
  return list;
}

icu::UnicodeString idsOf(const MessageList& list) {
  icu::UnicodeString ids;
  for (const Message& message : list) ids.append(message.getMessageId()).append(u' ');
  return ids;
}

TEST(MessageList, StartsEmpty) {
  const MessageList list;
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(list.size(), 0U);
  EXPECT_TRUE(list.begin() == list.end());
}

TEST(MessageList, KeepsTheOrderOfAddition) {
  const MessageList list = listOf({u"a", u"b", u"c"});
  EXPECT_FALSE(list.empty());
  EXPECT_EQ(list.size(), 3U);
  EXPECT_EQ(list.front().getMessageId(), u"a");
  EXPECT_EQ(idsOf(list), u"a b c ");
}

TEST(MessageList, JoinAppendsCopies) {
  MessageList list = listOf({u"a"});
  MessageList other = listOf({u"b", u"c"});
  list.join(other);
  other.begin()->setMessageId(u"changed");
  EXPECT_EQ(idsOf(list), u"a b c ");
  EXPECT_EQ(other.size(), 2U);
}

TEST(MessageList, JoinedWithItselfDoubles) {
  MessageList list = listOf({u"a", u"b"});
  list.join(list);
  EXPECT_EQ(idsOf(list), u"a b a b ");
}

TEST(MessageList, ClearLeavesNothing) {
  MessageList list = listOf({u"a", u"b"});
  list.clear();
  EXPECT_TRUE(list.empty());
  list.add(Message(u"c", u""));
  EXPECT_EQ(idsOf(list), u"c ");
}

TEST(MessageList, TheFrontOfAnEmptyListIsAnEmptyMessage) {
  const MessageList list;
  EXPECT_TRUE(list.front().getMessageId().isEmpty());
  EXPECT_EQ(list.front().getLevel(), 2);
}

TEST(MessageList, CopiesShareNothing) {
  MessageList list = listOf({u"a"});
  const MessageList copy = list;
  MessageList assigned;
  assigned = list;
  list.begin()->setMessageId(u"changed");
  list.add(Message(u"b", u""));
  EXPECT_EQ(idsOf(copy), u"a ");
  EXPECT_EQ(idsOf(assigned), u"a ");
}

TEST(MessageList, MovesWhole) {
  MessageList list = listOf({u"a", u"b"});
  MessageList moved = std::move(list);
  EXPECT_EQ(idsOf(moved), u"a b ");
  MessageList assigned;
  assigned = std::move(moved);
  EXPECT_EQ(idsOf(assigned), u"a b ");
}

}  // namespace
