#include <gtest/gtest.h>

#include "cli/errors.h"
#include "cli/text.h"

using namespace corvane;

namespace {

std::string refusalOf(std::string_view value) {
  try {
    headerValue("the query", value);
  } catch (const UsageError& error) {
    return error.what();
  }
  return "accepted";
}

TEST(HeaderValue, PassesOrdinaryAndForeignTextUnchanged) {
  EXPECT_EQ(headerValue("x", "lighthouse: keeper"), u"lighthouse: keeper");
  EXPECT_EQ(headerValue("x", "caf\xc3\xa9 \xf0\x9f\x98\x80"), u"caf\u00e9 \U0001F600");
}

TEST(HeaderValue, RefusesEveryCharacterThatEndsAHeaderLine) {
  const std::string_view bad[] = {"a\nb", "a\rb", "a\r\nb", "\n", std::string_view("a\0b", 3)};
  for (const auto value : bad) {
    EXPECT_NE(refusalOf(value).find("the query holds a line break or a NUL"), std::string::npos);
  }
}

TEST(HeaderValue, RefusesEmptyText) { EXPECT_EQ(refusalOf(""), "the query is empty"); }

TEST(HeaderValue, RefusesBytesThatAreNotUtf8) {
  for (const char* value : {"\xff", "a\xc3", "\xed\xa0\x80", "\xc0\xaf", "\xf4\x90\x80\x80"}) {
    EXPECT_EQ(refusalOf(value), "the query is not valid UTF-8");
  }
}

TEST(Key, MayHaveOneToAHundredAndTwentyEightBytes) {
  EXPECT_FALSE(whyNoKey("k"));
  EXPECT_FALSE(whyNoKey(std::string(128, 'k')));
  EXPECT_EQ(whyNoKey(""), "the key is empty");
  EXPECT_EQ(whyNoKey(std::string(129, 'k')), "the key has 129 bytes; a key has at most 128");
}

TEST(Key, IsCountedInBytesAndNotInCharacters) {
  std::string key;
  for (int i = 0; i < 65; ++i) key += "\xc3\xa9";
  EXPECT_EQ(whyNoKey(key), "the key has 130 bytes; a key has at most 128");
}

TEST(Base64, DecodesEachPadding) {
  EXPECT_EQ(decodeBase64(""), "");
  EXPECT_EQ(decodeBase64("Zg=="), "f");
  EXPECT_EQ(decodeBase64("Zm8="), "fo");
  EXPECT_EQ(decodeBase64("Zm9v"), "foo");
  EXPECT_EQ(decodeBase64("Zm9vYmFy"), "foobar");
  EXPECT_EQ(decodeBase64("AP/+"), std::string("\0\xff\xfe", 3));
}

TEST(Base64, RefusesWhatNoEncoderWrites) {
  for (const char* text : {"Z", "Zg", "Zg=", "Zg===", "=", "====", "Z===", "Zg==Zg==", "Zm9v\n",
                           "Zm 9", "Zh==", "Zm9=", "Zm-_", "=m9v"}) {
    EXPECT_FALSE(decodeBase64(text)) << text;
  }
}

TEST(DocumentId, NamesItsKeyOnlyBehindThePrefix) {
  EXPECT_EQ(keyOfDocId(u"base64:Zm9v"), "foo");
  EXPECT_EQ(keyOfDocId(u"base64:"), "");
  EXPECT_FALSE(keyOfDocId(u"Zm9v"));
  EXPECT_FALSE(keyOfDocId(u"BASE64:Zm9v"));
  EXPECT_FALSE(keyOfDocId(u"base64:?"));
  EXPECT_FALSE(keyOfDocId(u""));
}

TEST(Printable, ShowsControlAndFormatCharactersByTheirNumber) {
  EXPECT_EQ(printable(icu::UnicodeString(u"a\u001b[2Jb")), "a\\u{1b}[2Jb");
  EXPECT_EQ(printable(icu::UnicodeString(u"a\u202eb")), "a\\u{202e}b");
  EXPECT_EQ(printable(icu::UnicodeString(u"caf\u00e9 \U0001F600")), "caf\xc3\xa9 \xf0\x9f\x98\x80");
}

TEST(Counted, AgreesInNumber) {
  EXPECT_EQ(counted(0, "document"), "0 documents");
  EXPECT_EQ(counted(1, "document"), "1 document");
  EXPECT_EQ(counted(2, "document"), "2 documents");
}

TEST(Printable, IsTrueOfTextThatATerminalShowsAsItIs) {
  EXPECT_TRUE(isPrintable(u"caf\u00e9 \U0001F600 x"));
  EXPECT_FALSE(isPrintable(u"a\tb"));
  EXPECT_FALSE(isPrintable(u"a\u202eb"));
  EXPECT_FALSE(isPrintable(icu::UnicodeString(static_cast<char16_t>(0xD800))));
}

}  // namespace
