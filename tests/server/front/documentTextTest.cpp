#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>
#include <unicode/unistr.h>

#include <string>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/front/documentText.h"

namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

std::string refusal(const std::string& bytes, const std::string& charset) {
  try {
    return "taken as " + toUtf8(bytes, charset);
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::BadDocument);
    return error.what();
  }
}

// Leaves out what the charset cannot write.
std::string written(const icu::UnicodeString& text, const char* charset) {
  UErrorCode error = U_ZERO_ERROR;
  UConverter* converter = ucnv_open(charset, &error);
  ucnv_setFromUCallBack(converter, UCNV_FROM_U_CALLBACK_SKIP, nullptr, nullptr, nullptr, &error);
  std::string bytes(static_cast<std::size_t>(text.length()) * 16 + 16, '\0');
  const std::int32_t length =
      ucnv_fromUChars(converter, bytes.data(), static_cast<std::int32_t>(bytes.size()),
                      text.getBuffer(), text.length(), &error);
  ucnv_close(converter);
  EXPECT_TRUE(U_SUCCESS(error)) << charset;
  bytes.resize(static_cast<std::size_t>(length));
  return bytes;
}

icu::UnicodeString repeated(UChar32 character, int count) {
  icu::UnicodeString text;
  for (int i = 0; i < count; ++i) text.append(character);
  return text;
}

TEST(DocumentText, IsConvertedWhateverTheNumberOfPieces) {
  // Each size moves the borders of the pieces to another place in the text.
  for (int count = 1020; count < 1030; ++count) {
    icu::UnicodeString text = repeated(u'x', count);
    for (int i = 0; i < 3000; ++i) text.append(UChar32{0x1F600}).append(u"\u5168e\u0301");
    std::string expected;
    text.toUTF8String(expected);
    for (const char* charset :
         {"UTF-16", "UTF-16LE", "UTF-32", "UTF-7", "SCSU", "BOCU-1", "GB18030", "CESU-8"}) {
      EXPECT_EQ(toUtf8(written(text, charset), charset), expected) << charset;
    }
  }
}

TEST(DocumentText, OfACharsetWithStatesIsConverted) {
  EXPECT_EQ(toUtf8("\x1B$B$\"\x1B(B.", "ISO-2022-JP"), "\u3042.");
  EXPECT_EQ(toUtf8("~{<:Ky2;~}.", "HZ-GB-2312"), "\u5df1\u6240\u4e0d.");
  EXPECT_EQ(toUtf8("", "ISO-2022-JP"), "");
}

TEST(DocumentText, ThatIsNoneInItsCharsetIsRefused) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"Shift_JIS", "fox \x81"},          // the second byte is missing
      {"ISO-2022-JP", "\x1B$B$"},         // the same after an escape
      {"ISO-2022-JP", "\x1B$Z"},          // no such escape
      {"EUC-JP", "\xFF"},                 //
      {"UTF-16BE", std::string("x", 1)},  // half a unit
      {"UTF-16BE", "\xD8\x3D"},           // half a character at the end
      {"UTF-16BE", "\xDE\x3D!!"},         // and in the middle
      {"UTF-7", "+2D0-"},                 //
      {"UTF-7", "+2D0-x"},                //
      {"UTF-32BE", "\xFF\xFF\xFF\xFF"},   //
      {"CESU-8", "\xED\xA0\xBD"},         //
      {"ibm-1208", "\xC3("},              // another name of UTF-8
  };
  for (const auto& [charset, bytes] : cases) {
    EXPECT_THAT(refusal(bytes, charset), AllOf(HasSubstr("no text"), HasSubstr(charset)));
  }
}

TEST(DocumentText, IsTakenAsItIsInUtf8) {
  for (const char* name : {"UTF-8", "utf8", "Utf_8"}) {
    EXPECT_TRUE(isCharset(name));
    EXPECT_EQ(toUtf8("\xFF", name), "\xFF");
    EXPECT_EQ(growthInUtf8(name), 1U);
  }
}

TEST(DocumentText, HasNoCharsetWhoseNameOnlyBeginsLikeOne) {
  EXPECT_TRUE(isCharset("latin1"));
  EXPECT_FALSE(isCharset(std::string("latin1\0x", 8)));
  EXPECT_FALSE(isCharset(std::string("latin1\0", 7)));
  EXPECT_FALSE(isCharset(std::string(10000, 'x')));
  EXPECT_FALSE(isCharset(""));
}

// What a converter writes and does not read back says nothing of growth.
std::size_t sizeInUtf8(const std::string& bytes, const std::string& charset) {
  try {
    return toUtf8(bytes, charset).size();
  } catch (const ServerError&) {
    return 0;
  }
}

TEST(DocumentText, GrowsByNoMoreThanIsSaidBefore) {
  icu::UnicodeString all;
  for (UChar32 c = 0xA0; c < 0x3000; ++c) all.append(c);
  int texts = 0;
  for (std::int32_t i = 0; i < ucnv_countAvailable(); ++i) {
    const std::string charset = ucnv_getAvailableName(i);
    for (const icu::UnicodeString& text :
         {all, repeated(0x1F600, 500), repeated(0x5168, 500), repeated(0xE01, 500)}) {
      const std::string bytes = written(text, charset.c_str());
      const std::size_t size = sizeInUtf8(bytes, charset);
      EXPECT_LE(size, bytes.size() * growthInUtf8(charset)) << charset;
      if (size > 0) ++texts;
    }
  }
  EXPECT_GT(texts, ucnv_countAvailable());
}

}  // namespace
}  // namespace corvaned
