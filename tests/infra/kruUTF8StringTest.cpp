#include <gtest/gtest.h>

#include "infra/oss/kruNLSException.h"
#include "infra/oss/kruUTF8String.h"

namespace {

using tq::oss::UTF8String;

TEST(UTF8String, StartsEmptyAndTerminated) {
  const UTF8String text;
  EXPECT_TRUE(text.empty());
  EXPECT_EQ(text.length(), 0U);
  EXPECT_STREQ(text.c_str(), "");
}

TEST(UTF8String, HoldsTheBytesOfAText) {
  const UTF8String text(icu::UnicodeString(u"a\u00e4\u20ac\U0001F600"));
  EXPECT_EQ(text.view(), "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(text.length(), 10U);
}

TEST(UTF8String, AppendsBytesAndTexts) {
  UTF8String text("ab", 2);
  text.append("cdX", 2).append(icu::UnicodeString(u"\u00e9")).append(nullptr, 0);
  EXPECT_EQ(text.view(), "abcd\xC3\xA9");
  EXPECT_EQ(text.toUnicodeString(), u"abcd\u00e9");
}

TEST(UTF8String, RefusesNullWithALengthAndStaysAsItWas) {
  UTF8String text("ab", 2);
  try {
    text.append(nullptr, 3);
    FAIL() << "taken";
  } catch (const tq::oss::NLSException& e) {
    const tq::oss::Message& message = e.getMessageList().front();
    EXPECT_EQ(message.getMessageId(), u"TQ_ERR_NULL_BYTES");
    EXPECT_EQ(message.getMessageText(),
              u"the bytes of a text are null although they have a length");
    EXPECT_STREQ(message.getFileName(), "kruUTF8String");
    EXPECT_NE(message.getLineNumber(), 0U);
  }
  EXPECT_EQ(text.view(), "ab");
  EXPECT_THROW(UTF8String(nullptr, 1), tq::oss::NLSException);
}

TEST(UTF8String, KeepsZeroBytes) {
  const UTF8String text("a\0b", 3);
  EXPECT_EQ(text.length(), 3U);
  EXPECT_STREQ(text.c_str(), "a");
  EXPECT_EQ(text.toUnicodeString(), icu::UnicodeString(u"a\0b", 3));
}

TEST(UTF8String, ReplacesWhatIsNotUtf8) {
  EXPECT_EQ(UTF8String("a\xFFz", 3).toUnicodeString(), u"a\uFFFDz");
}

TEST(UTF8String, ClearLeavesNothing) {
  UTF8String text("ab", 2);
  text.clear();
  EXPECT_TRUE(text.empty());
}

TEST(UTF8String, ComparesByItsBytes) {
  EXPECT_EQ(UTF8String("ab", 2), UTF8String(icu::UnicodeString(u"ab")));
  EXPECT_FALSE(UTF8String("ab", 2) == UTF8String("abc", 3));
}

}  // namespace
