#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "server/base/htmlCharacters.h"
#include "server/base/htmlText.h"

namespace corvaned {
namespace {

// Its words, one blank apart.
std::string wordsOf(const std::string& html) {
  std::istringstream text(textOfHtml(html));
  std::string words;
  for (std::string word; text >> word;) words += (words.empty() ? "" : " ") + word;
  return words;
}

std::string repeated(const std::string& text, std::size_t count) {
  std::string result;
  result.reserve(text.size() * count);
  for (std::size_t i = 0; i < count; ++i) result += text;
  return result;
}

TEST(HtmlText, IsWhatAReaderSees) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"", ""},
      {"red fox", "red fox"},
      {"<p>red</p><p>fox</p>", "red fox"},
      {"<P CLASS=x>red<BR>fox", "red fox"},
      {"<td>1</td><td>2</td>", "1 2"},
      {"a<b>bc</b>d<i>e</i>", "abcde"},
      {"<a href=\"x.html\">link</a>ed", "linked"},
      {"<img alt='a > b' src=x>seen", "seen"},
      {"<img alt=\"a > b\">seen", "seen"},
      {"<x a='\"'>one<x b=\"'\">two", "one two"},
      {"<x a = 'one > two' >three", "three"},
      {"<x a=b'c>one'>two", "one'>two"},
      {"<x =\"a>b\">c", "b\">c"},
      {"<x/>one<x / >two", "one two"},
      {"<x\n\ty='1'\r>one", "one"},
      {"<!-- no <b>no</b> -->yes", "yes"},
      {"<!--> a --> b", "a --> b"},
      {"<!DOCTYPE html><p>yes", "yes"},
      {"<?php no ?>yes", "yes"},
      {"<![CDATA[no]]>yes", "yes"},
      {"</ no>yes</>!", "yes!"},
      {"a < b, b<3 and 1<2", "a < b, b<3 and 1<2"},
      {"a <", "a <"},
      {"a </", "a </"},
      {"a & b &", "a & b &"},
      {"<title>T<b>&amp;</title>x", "T<b>& x"},
      {"<textarea>a</b></textareax></TextArea >b", "a</b></textareax> b"},
      {"<script>if (a<b) no('</b>')</script>yes", "yes"},
      {"<SCRIPT src=x>no</script >yes", "yes"},
      {"<script>no</scripture>no</script>yes", "yes"},
      {"<style>p { no: 1 }</style/>yes", "yes"},
      {"<noscript>yes</noscript>", "yes"},
  };
  for (const auto& [html, words] : cases) EXPECT_EQ(wordsOf(html), words) << html;
}

TEST(HtmlText, ThatIsNeverClosedEndsThere) {
  for (const char* tail :
       {"<", "<p", "<p ", "<p a", "<p a=", "<p a='no", "<p a=\"no", "<!--", "<!-- no", "<!no",
        "<script>no", "<script>no</script", "<style>no</", "</", "</p", "&", "&am", "&#", "&#x"}) {
    const std::string words = wordsOf(std::string("seen ") + tail);
    EXPECT_TRUE(words.starts_with("seen")) << tail;
    EXPECT_EQ(words.find("no"), std::string::npos) << tail << ": " << words;
  }
}

TEST(HtmlText, HasCharactersForReferences) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"caf&eacute;", "caf\u00e9"},
      {"caf&eacute s", "caf\u00e9 s"},
      {"&amp;lt;", "&lt;"},
      {"&lt;b&gt;", "<b>"},
      {"&Eacute;&eacute;", "\u00c9\u00e9"},
      {"&EACUTE;", "&EACUTE;"},
      {"&nosuch;", "&nosuch;"},
      {"&;", "&;"},
      {"&#233;&#xe9;&#XE9", "\u00e9\u00e9\u00e9"},
      {"&#128512;", "\U0001F600"},
      {"&#150;&#x80;", "\u2013\u20ac"},
      {"&#0;", "\ufffd"},
      {"&#xD800;", "\ufffd"},
      {"&#x110000;", "\ufffd"},
      {"&#99999999999999999999;", "\ufffd"},
      {"&#x;&#;&#g;", "&#x;&#;&#g;"},
      {"<x a='&quot;'>&quot;", "\""},
  };
  for (const auto& [html, words] : cases) EXPECT_EQ(wordsOf(html), words) << html;
}

TEST(HtmlText, KnowsTheNamesOfCharacters) {
  EXPECT_EQ(htmlCharacter("AElig"), 0xC6U);
  EXPECT_EQ(htmlCharacter("zwnj"), 0x200CU);
  EXPECT_EQ(htmlCharacter("alpha"), 0x3B1U);
  EXPECT_EQ(htmlCharacter("Alpha"), 0x391U);
  EXPECT_EQ(htmlCharacter("apos"), U'\'');
  EXPECT_FALSE(htmlCharacter(""));
  EXPECT_FALSE(htmlCharacter("alph"));
  EXPECT_FALSE(htmlCharacter("zzz"));
}

// A reader that looked back for what each tag closes, or ahead for what closes it, would take
// hours.
TEST(HtmlText, OfHostileDocumentsIsReadInOnePass) {
  constexpr std::size_t kMany = 300000;
  EXPECT_EQ(wordsOf(repeated("<b>", kMany) + repeated("</i>", kMany) + "end"), "end");
  EXPECT_EQ(wordsOf(repeated("<div>", kMany) + "end"), "end");
  EXPECT_EQ(wordsOf(repeated("<a b='", kMany)), "");
  EXPECT_EQ(wordsOf("<script>" + repeated("</", kMany)), "");
  EXPECT_EQ(wordsOf("<title>" + repeated("</titl", kMany)).size(), 6 * kMany);
  EXPECT_EQ(wordsOf(repeated("<!--", kMany)), "");
  EXPECT_EQ(wordsOf(repeated("&", kMany)).size(), kMany);
  EXPECT_EQ(wordsOf("&" + std::string(kMany, 'a')).size(), kMany + 1);
  EXPECT_EQ(wordsOf("<x " + repeated("a ", kMany) + ">end"), "end");
}

TEST(HtmlText, OfAnyBytesIsNoLongerThanThese) {
  std::string bytes;
  std::uint32_t state = 1;
  for (int i = 0; i < 200000; ++i) {
    state = state * 1664525U + 1013904223U;
    constexpr std::string_view kPieces = "<>/!-&#;=x'\" abt\0\xFF\xC3p";
    bytes += kPieces[(state >> 16U) % kPieces.size()];
  }
  EXPECT_LE(textOfHtml(bytes).size(), bytes.size());
}

}  // namespace
}  // namespace corvaned
