#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/base/xmlText.h"

namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

std::string wordsOf(const std::string& xml) {
  std::istringstream text(textOfXml(xml));
  std::string words;
  for (std::string word; text >> word;) words += (words.empty() ? "" : " ") + word;
  return words;
}

std::string refusal(const std::string& xml) {
  try {
    return "taken as " + textOfXml(xml);
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::BadDocument);
    return error.what();
  }
}

std::string repeated(const std::string& text, std::size_t count) {
  std::string result;
  result.reserve(text.size() * count);
  for (std::size_t i = 0; i < count; ++i) result += text;
  return result;
}

TEST(XmlText, IsWhatStandsBetweenTheTags) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"<a>fox</a>", "fox"},
      {"<a/>", ""},
      {"<a b='no'><c>red</c><c d=\"no\">fox</c></a>", "red fox"},
      {"<a>red<b/>fox</a>", "red fox"},
      {"<?xml version='1.0' encoding='UTF-16'?>\n<a>f\u00f6x</a>", "f\u00f6x"},
      {"<?xml version='1.0' encoding='nonsense'?><a>fox</a>", "fox"},
      {"<a><!-- no --><?no no?>fox</a>", "fox"},
      {"<a><![CDATA[a < b & c]]></a>", "a < b & c"},
      {"<a>&lt;&amp;&#233;&#x1F600;</a>", "<&\u00e9\U0001F600"},
      {"<!DOCTYPE a SYSTEM 'http://127.0.0.1:1/a.dtd'><a>fox</a>", "fox"},
      {"<!DOCTYPE a [<!ELEMENT a (#PCDATA)><!ATTLIST a b CDATA 'no'>]><a>fox</a>", "fox"},
      {"<!DOCTYPE html PUBLIC 'x' 'y'><html>caf&eacute;</html>", "caf\u00e9"},
      {"<x:a xmlns:x='y'>fox</x:a>", "fox"},
      {"<script>seen</script>", "seen"},
  };
  for (const auto& [xml, words] : cases) EXPECT_EQ(wordsOf(xml), words) << xml;
}

TEST(XmlText, ThatIsNotWellFormedIsRefusedWithItsPlace) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"", "line 1, column 1"},
      {"fox", "line 1, column 1"},
      {"<a>\n  <b></a>", "line 2, column 8"},
      {"<a>fox", "line 1"},
      {"<a>1 < 2</a>", "line 1, column 7"},
      {"<a/><b/>", "line 1, column 5"},
      {"<a b=c/>", "line 1, column 6"},
      {"<a b='1' b='2'/>", "duplicate attribute"},
      {"<a>&nbsp;</a>", "undefined entity"},
      {"<!DOCTYPE a SYSTEM 'x'><a>&nosuch;</a>", "unknown entity"},
      {"<a>\xFF</a>", "line 1, column 4"},
      {std::string("<a>\0</a>", 8), "line 1, column 4"},
      {"\xFE\xFF<a/>", "UTF-16"},
      {"\xFF\xFE<a/>", "UTF-16"},
      {std::string("<\0a\0/\0>\0", 8), "UTF-16"},
      {std::string("\0<\0a\0/\0>", 8), "UTF-16"},
  };
  for (const auto& [xml, part] : cases) {
    EXPECT_THAT(refusal(xml), AllOf(HasSubstr("no XML"), HasSubstr(part))) << xml;
  }
}

TEST(XmlText, ThatDeclaresEntitiesIsRefused) {
  for (const char* xml :
       {"<!DOCTYPE a [<!ENTITY b 'c'>]><a>&b;</a>",
        "<!DOCTYPE a [<!ENTITY b SYSTEM 'file:///etc/passwd'>]><a>&b;</a>",
        "<!DOCTYPE a [<!ENTITY % b SYSTEM 'http://127.0.0.1:1/'> %b;]><a/>",
        "<!DOCTYPE a [<!ENTITY b '1234567890'><!ENTITY c '&b;&b;'>]><a d='&c;'/>"}) {
    EXPECT_THAT(refusal(xml), HasSubstr("declares entities")) << xml;
  }
}

// The parser goes through all of them at each element.
TEST(XmlText, ThatDeclaresManyDefaultsIsRefused) {
  const auto declaring = [](std::size_t count, const std::string& value) {
    std::string xml = "<!DOCTYPE a [<!ATTLIST a";
    for (std::size_t i = 0; i < count; ++i) xml += " b" + std::to_string(i) + " CDATA " + value;
    return xml + ">]><a>fox</a>";
  };
  EXPECT_EQ(wordsOf(declaring(100, "''")), "fox");
  EXPECT_EQ(wordsOf(declaring(1000, "#IMPLIED")), "fox");
  EXPECT_THAT(refusal(declaring(101, "''")), HasSubstr("default value"));
}

TEST(XmlText, OfHostileDocumentsTakesNoMoreThanItsShare) {
  constexpr std::size_t kMany = 1000000;
  EXPECT_EQ(wordsOf(repeated("<a>", 10000) + "fox" + repeated("</a>", 10000)), "fox");
  EXPECT_THAT(refusal(repeated("<a>", kMany)), HasSubstr("nested too deep"));
  EXPECT_EQ(wordsOf("<a>" + repeated("<b/>", kMany) + "fox</a>"), "fox");
  std::string names = "<a ";
  std::string elements = "<a>";
  for (std::size_t i = 0; i < kMany; ++i) {
    names += "a" + std::to_string(i) + "='' ";
    elements += "<b" + std::to_string(i) + "/>";
  }
  EXPECT_THAT(refusal(names + "/>"), HasSubstr("memory"));
  EXPECT_THAT(refusal(elements + "</a>"), HasSubstr("memory"));
  EXPECT_EQ(wordsOf("<a b='" + std::string(kMany, 'x') + "'>fox</a>"), "fox");
  EXPECT_EQ(wordsOf("<a><!--" + std::string(kMany, 'x') + "-->fox</a>"), "fox");
  EXPECT_EQ(wordsOf("<a>" + std::string(kMany, 'x') + "</a>").size(), kMany);
}

}  // namespace
}  // namespace corvaned
