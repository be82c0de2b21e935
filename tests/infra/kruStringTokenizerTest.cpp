#include <gtest/gtest.h>

#include <vector>

#include "infra/oss/kruNLSException.h"
#include "infra/oss/kruStringTokenizer.h"
#include "tests/support/scarceTexts.h"

namespace {

using tq::oss::StringTokenizer;
using Tokens = std::vector<icu::UnicodeString>;

Tokens split(const icu::UnicodeString& text, const icu::UnicodeString& delimiters) {
  Tokens tokens;
  for (StringTokenizer tokenizer(text, delimiters); tokenizer.hasMore();) {
    tokens.push_back(tokenizer.next());
  }
  return tokens;
}

TEST(StringTokenizer, SplitsAtDelimiters) {
  EXPECT_EQ(split(u"HTTP/1.1 200 OK", u" "), (Tokens{u"HTTP/1.1", u"200", u"OK"}));
  EXPECT_EQ(split(u"a\r\nb\r\n", u"\n"), (Tokens{u"a\r", u"b\r"}));
}

TEST(StringTokenizer, EachUnitOfTheDelimitersIsOne) {
  EXPECT_EQ(split(u"a:b,c", u",:"), (Tokens{u"a", u"b", u"c"}));
}

TEST(StringTokenizer, NoTokenIsEmpty) {
  EXPECT_EQ(split(u"  a   b ", u" "), (Tokens{u"a", u"b"}));
  EXPECT_EQ(split(u"   ", u" "), Tokens{});
  EXPECT_EQ(split(u"", u" "), Tokens{});
}

TEST(StringTokenizer, WithoutDelimitersTheTextIsOneToken) {
  EXPECT_EQ(split(u"a b", u""), Tokens{u"a b"});
  EXPECT_EQ(split(u"a b", u","), Tokens{u"a b"});
}

TEST(StringTokenizer, NextAtTheEndGivesAnEmptyText) {
  StringTokenizer tokenizer(u"a", u" ");
  EXPECT_EQ(tokenizer.next(), u"a");
  EXPECT_FALSE(tokenizer.hasMore());
  EXPECT_TRUE(tokenizer.next().isEmpty());
}

TEST(StringTokenizer, HoldsItsOwnText) {
  icu::UnicodeString text(u"one two");
  StringTokenizer tokenizer(text, u" ");
  text = u"changed";
  EXPECT_EQ(tokenizer.next(), u"one");
  EXPECT_EQ(tokenizer.next(), u"two");
}

TEST(StringTokenizer, ATokenWithoutMemoryIsAnError) {
  StringTokenizer tokenizer(icu::UnicodeString(60, u't', 60).append(u" u", -1), u" ");
  const tq::test::ScarceTexts none;
  try {
    tokenizer.next();
    FAIL() << "taken for a token";
  } catch (const tq::oss::NLSException& e) {
    EXPECT_EQ(e.getMessageList().front().getMessageId(), u"TQ_ERR_OUT_OF_MEMORY");
  }
}

}  // namespace
