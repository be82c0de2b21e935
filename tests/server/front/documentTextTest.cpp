#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>
#include <unicode/unistr.h>

#include <string>
#include <tuple>
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

// Charsets that documents declare.

TEST(DeclaredCharset, IsFoundWhereDocumentsSayIt) {
  using namespace std::string_literals;
  const std::vector<std::tuple<TextType, std::string, std::string>> cases{
      {TextType::Xml, "<a/>", ""},
      {TextType::Xml, "<?xml version='1.0'?><a/>", ""},
      {TextType::Xml, "<?xml version='1.0' encoding='ISO-8859-1'?><a/>", "ISO-8859-1"},
      {TextType::Xml, "<?xml version=\"1.0\" encoding = \"Shift_JIS\" ?>", "Shift_JIS"},
      {TextType::Xml, "<?xml version='1.0'?><a encoding='latin1'/>", ""},
      {TextType::Xml, "<?xml version='1.0' encoding='UTF-16'?><a/>", "UTF-8"},
      {TextType::Xml, "<meta charset=latin1>", ""},
      {TextType::Xml, "\xEF\xBB\xBF<?xml version='1.0' encoding='latin1'?>", "UTF-8"},
      {TextType::Xml, "\xFF\xFE<\0"s, "UTF-16LE"},
      {TextType::Xml, "\xFE\xFF\0<"s, "UTF-16BE"},
      {TextType::Xml, "<\0?\0x\0"s, "UTF-16LE"},
      {TextType::Xml, "\0<\0?\0x"s, "UTF-16BE"},
      {TextType::Html, "", ""},
      {TextType::Html, "<meta charset=koi8-r>", "koi8-r"},
      {TextType::Html, "<META CHARSET = 'KOI8-R'/>", "koi8-r"},
      {TextType::Html, "<meta http-equiv=content-type content=\"text/html; charset=koi8-r\">",
       "koi8-r"},
      {TextType::Html, "<meta name=x><meta charset=\"koi8-r\">", "koi8-r"},
      {TextType::Html, "<!-- <meta charset=latin2> --><meta charset=koi8-r>", "koi8-r"},
      {TextType::Html, "<!-- <meta charset=latin2>", ""},
      {TextType::Html, "<p>charset=koi8-r", ""},
      {TextType::Html, "<meta charset", ""},
      {TextType::Html, "<meta charset=", ""},
      {TextType::Html, "<meta charset=utf-16>", "UTF-8"},
      {TextType::Html, "<meta charset=iso-8859-1>", "windows-1252"},
      {TextType::Html, "<?xml version='1.0' encoding='koi8-r'?><html>", "koi8-r"},
      {TextType::Html, std::string(5000, ' ') + "<meta charset=koi8-r>", ""},
  };
  for (const auto& [type, bytes, charset] : cases) {
    EXPECT_EQ(declaredCharset(bytes, type), charset) << bytes;
  }
}

TEST(DeclaredCharset, ThatDoesNotExistIsRefused) {
  try {
    declaredCharset("<meta charset=klingon>", TextType::Html);
    ADD_FAILURE() << "not refused";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::BadDocument);
    EXPECT_THAT(error.what(), HasSubstr("\"klingon\""));
  }
}

Document prepared(const std::string& content, TextType type, const std::string& charset = {}) {
  Document document{"k", {{"a", "b"}}, content};
  prepare(document, {{type, {}}, charset});
  return document;
}

TEST(PreparedDocument, IsInUtf8WhateverItSays) {
  EXPECT_EQ(prepared("caf\xE9", TextType::Plain, "latin1").content, "caf\u00e9");
  EXPECT_EQ(prepared("<meta charset=latin1>caf\xE9", TextType::Html).content,
            "<meta charset=latin1>caf\u00e9");
  EXPECT_EQ(prepared("<meta charset=latin1>caf\u00e9", TextType::Html, "UTF-8").content,
            "<meta charset=latin1>caf\u00e9");
  EXPECT_EQ(prepared("<?xml version='1.0' encoding='latin1'?><a>\xE9</a>", TextType::Xml).content,
            "<?xml version='1.0' encoding='latin1'?><a>\u00e9</a>");
  EXPECT_EQ(prepared(std::string("\xFF\xFE<\0a\0/\0>\0", 10), TextType::Xml).content, "<a/>");
  EXPECT_EQ(prepared("\xEF\xBB\xBF<p>", TextType::Html).content, "<p>");
  EXPECT_EQ(prepared("\xEF\xBB\xBF.", TextType::Plain).content, "\xEF\xBB\xBF.");
}

TEST(PreparedDocument, KnowsItsForm) {
  EXPECT_EQ(formNotedIn(prepared("<p>", TextType::Html).metadata).type, TextType::Html);
  EXPECT_EQ(prepared("x", TextType::Plain).metadata.size(), 1U);
}

TEST(PreparedDocument, IsRefusedIfItCannotBeRead) {
  EXPECT_THROW(prepared("<p>", TextType::Xml), ServerError);
  EXPECT_THROW(prepared("\xFF", TextType::Plain, "ascii"), ServerError);
  const std::string wide("\xFF\xFE<\0a\0/\0>\0", 10);
  EXPECT_THROW(prepared(wide, TextType::Xml, "UTF-8"), ServerError);
  EXPECT_EQ(prepared(wide, TextType::Xml, "UTF-16").content, "<a/>");
  Document document{"k", {{std::string("\0docType", 8), "xml"}}, "<a/>"};
  EXPECT_THROW(prepare(document, {}), ServerError);
}

}  // namespace
}  // namespace corvaned
