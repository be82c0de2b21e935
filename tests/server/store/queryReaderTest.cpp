#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/store/queryReader.h"
#include "tests/server/store/refusal.h"

namespace corvaned {
namespace {

using test::refusal;
using ::testing::HasSubstr;
using Cases = std::vector<std::pair<std::string, std::string>>;

constexpr const char* kFox = "\U0001F98A";

/// What the engine is asked for. Words keep their forms, and title, which is the field XAA, is the
/// only name that the documents have.
class QueryReaderTest : public ::testing::Test {
 protected:
  QueryReaderTest() { names_.prefixFor("title"); }

  std::string read(const std::string& query) const {
    std::string text = QueryReader(TextAnalysis(), names_, limits_).read(query).get_description();
    for (std::size_t at = 0; (at = text.find('@', at)) != std::string::npos;) {
      text.erase(at, text.find_first_not_of("0123456789", at + 1) - at);
    }
    return text;
  }

  void expectAll(const Cases& cases) const {
    for (const auto& [query, expected] : cases) {
      EXPECT_EQ(read(query), "Query(" + expected + ")") << query;
    }
  }

  void expectRefused(const Cases& cases) const {
    for (const auto& [text, reason] : cases) {
      const auto& query = text;
      EXPECT_THAT(refusal(ErrorKind::BadQuery, [&] { read(query); }), HasSubstr(reason)) << query;
    }
  }

  IndexNames names_;
  IndexLimits limits_;
};

TEST_F(QueryReaderTest, OperatorsBindAsTheyAlwaysDo) {
  expectAll({{"a b", "(a AND b)"},
             {"a OR b c OR d", "(a OR (b AND c) OR d)"},
             {"a OR b XOR c AND d", "(a OR (b XOR (c AND d)))"},
             {"a AND b OR c NOT d", "((a AND b) OR (c AND_NOT d))"},
             {"a NOT b AND c", "((a AND c) AND_NOT b)"},
             {"a NOT b NOT c AND -d", "(a AND_NOT (b OR c OR d))"},
             {"(a OR b) c", "((a OR b) AND c)"},
             {"NOT a b", "(<alldocuments> AND_NOT (a AND b))"},
             {"a AND NOT b", "(a AND_NOT b)"},
             {"a OR NOT b", "(a OR (<alldocuments> AND_NOT b))"},
             {"NOT NOT a", "(<alldocuments> AND_NOT (<alldocuments> AND_NOT a))"},
             {"a AND -b", "(a AND_NOT b)"},
             {"a -b -c", "(a AND_NOT (b OR c))"},
             {"-b a OR c", "((a AND_NOT b) OR c)"},
             {"a -(b c) +d", "((a AND d) AND_NOT (b AND c))"},
             {"a -\"b c\"", "(a AND_NOT (b PHRASE 2 c))"}});
}

TEST_F(QueryReaderTest, NearnessJoinsTheWordsBesideItAndNoOthers) {
  expectAll({{"a NEAR b", "(a NEAR 11 b)"},
             {"a NEAR/3 b c d", "((a NEAR 4 b) AND c AND d)"},
             {"c a ADJ/2 b d", "(c AND (a PHRASE 3 b) AND d)"},
             {"a NEAR/2 b NEAR/5 c", "(a NEAR 7 b NEAR 7 c)"},
             {"d -a NEAR/2 b c", "((d AND c) AND_NOT (a NEAR 3 b))"},
             {"-a NEAR b c", "(c AND_NOT (a NEAR 11 b))"},
             {"title:a NEAR title:b", "(XAAa NEAR 11 XAAb)"},
             {"C++ NEAR/2 U.S.", "(c++ NEAR 3 us)"}});
  expectRefused({{"a NEAR b ADJ c", "the \"ADJ\" at character 10 has no word before it"},
                 {"a NEAR -b", "the \"NEAR\" at character 3 has no word behind it"},
                 {"(a) NEAR b", "the \"NEAR\" at character 5 has no word before it"},
                 {"a NEAR (b)", "the \"NEAR\" at character 3 has no word behind it"},
                 {"a-b NEAR/2 c", "the \"NEAR/2\" at character 5 has no word before it"},
                 {"a NEAR/2 b NEAR c-d", "the \"NEAR\" at character 12 has no word behind it"},
                 {"a* ADJ b", "the \"ADJ\" at character 4 has no word before it"}});
}

TEST_F(QueryReaderTest, OperatorsAreCapitalsThatStandAlone) {
  expectAll({{"a near b and not or", "(a AND near AND b AND and AND not AND or)"},
             {"NOT-word a", "((not PHRASE 2 word) AND a)"},
             {"a AND, b", "(a AND and AND b)"},
             {"\"a AND b\"", "(a PHRASE 3 and PHRASE 3 b)"},
             {"a OR\"b c\"NOT(d)", "(a OR ((b PHRASE 2 c) AND_NOT d))"},
             {"NEAR/x ADJ/ a", "((near PHRASE 2 x) AND adj AND a)"}});
}

TEST_F(QueryReaderTest, SignsStandInFrontOfAWordBehindABlankOrABracket) {
  expectAll({{"input -output", "(input AND_NOT output)"},
             {"(input -output)", "(input AND_NOT output)"},
             {"input -> output", "(input AND output)"},
             {"input -, output", "(input AND output)"},
             {"(input)-output", "(input AND output)"},
             {"\"input\"-output", "(input AND output)"},
             {"input,-output", "(input AND output)"},
             {"input --output", "(input AND output)"},
             {"a+b +c", "(a AND b AND c)"},
             {"a -title:red", "(a AND_NOT XAAred)"}});
}

TEST_F(QueryReaderTest, WhatMeansNothingPartsWords) {
  expectAll({{"f(x) -red", "((f AND x) AND_NOT red)"},
             {"Windows(R)(TM)", "(windows AND r AND tm)"},
             {"a[b] c=d <e>", "(a AND b AND c AND d AND e)"},
             {"app*e red^3 apple~2", "(app AND e AND red AND 3 AND apple AND 2)"},
             {"fox () (...) \"...\"", "fox"},
             {std::string(kFox) + "/" + kFox + "@a", "(xemoji129418 AND xemoji129418 AND a)"},
             {"(((a))) (b)", "(a AND b)"},
             {"- + * \" \" .. ()", ""}});
  expectRefused({{"fox AND (..)", "the \"AND\" at character 5 has nothing behind it"},
                 {"fox OR \"!\"", "the \"OR\" at character 5 has nothing behind it"}});
}

TEST_F(QueryReaderTest, SignsWithinAWordAreOfItOrJoinIt) {
  expectAll({{"don't AT&T x_y", "(don't AND at&t AND x_y)"},
             {"C++ C# A+ c++-x", "(c++ AND c# AND a+ AND (c++ PHRASE 2 x))"},
             {"con\u2027cept C#\U0001F98A", "(con\u2027cept AND (c# AND xemoji129418))"},
             {"3.14 1,000 1;2", "(3.14 AND 1,000 AND 1;2)"},
             {"a.b a..b a::b a/-b",
              "((a PHRASE 2 b) AND (a PHRASE 2 b) AND (a PHRASE 2 b) AND "
              "(a PHRASE 2 b))"},
             {"nosuch:apple", "(nosuch PHRASE 2 apple)"}});
}

TEST_F(QueryReaderTest, InitialsAreOneWordIfTheyAreCapitals) {
  expectAll({{"U.S.A. army", "((usa OR (u PHRASE 3 s PHRASE 3 a)) AND army)"},
             {"-J.R. tolkien", "(tolkien AND_NOT (jr OR (j PHRASE 2 r)))"},
             {"\"the U.S. army\"", "(the PHRASE 3 us PHRASE 3 army)"},
             {"title:U.S", "(XAAus OR (XAAu PHRASE 2 XAAs))"},
             {"u.s. A. A.b", "((u PHRASE 2 s) AND a AND (a PHRASE 2 b))"},
             {"U.S.Army XU.S.", "((u PHRASE 3 s PHRASE 3 army) AND (xu PHRASE 2 s))"}});
}

TEST_F(QueryReaderTest, NamesOfMetadataHoldForAllThatTheyStandBefore) {
  expectAll({{"title:iPhone手机 手", "((XAAiphone AND (XAA手 AND XAA手机 AND XAA机)) AND 手)"},
             {"title:\"x y\" z", "((XAAx PHRASE 2 XAAy) AND z)"},
             {"title:(a OR b -c) d", "((XAAa OR (XAAb AND_NOT XAAc)) AND d)"},
             {"title:(a (b)) c", "((XAAa AND XAAb) AND c)"},
             {"Title:a", "(title PHRASE 2 a)"},
             {"title: a", "(title AND a)"},
             {"title:(..) a", "a"}});
}

TEST_F(QueryReaderTest, QuotationMarksOfAllKindsPair) {
  expectAll({{"\u201cred fox\u201d hen", "((red PHRASE 2 fox) AND hen)"},
             {"\u201ered fox\u201c and \u201egrey mouse\u201c",
              "((red PHRASE 2 fox) AND and AND (grey PHRASE 2 mouse))"},
             {"\u201c手机\u201d手", "((手 PHRASE 2 机) AND 手)"}});
}

TEST_F(QueryReaderTest, TextWithoutBlanksIsAllOfItsWords) {
  expectAll({{"手机 red 手", "((手 AND 手机 AND 机) AND red AND 手)"},
             {"red -手机b", "(red AND_NOT (手 AND 手机 AND 机 AND b))"},
             {std::string(kFox) + kFox + " -" + kFox + "fox",
              "((xemoji129418 AND xemoji129418) AND_NOT (xemoji129418 AND fox))"},
             {std::string(kFox) + "手机f", "(xemoji129418 AND (手 AND 手机 AND 机 AND f))"},
             {"-\u0E20\u0E32\u0E29\u0E32\u0E44\u0E17\u0E22 a",
              "(a AND_NOT (\u0E20\u0E32\u0E29\u0E32 AND \u0E44\u0E17\u0E22))"}});
}

TEST_F(QueryReaderTest, AsteriskStandsBehindAWord) {
  expectAll({{"fo* ho*", "(WILDCARD SYNONYM fo AND WILDCARD SYNONYM ho)"},
             {"title:fo*", "WILDCARD SYNONYM XAAfo"},
             {"\"red fo*\"", "(red PHRASE 2 fo)"}});
  expectRefused({{"e-mail*", "the \"*\" at character 7 stands behind words with a sign"}});
}

TEST_F(QueryReaderTest, LettersAreSmallAsInDocuments) {
  expectAll({{"ΤΗΣ", "τησ"}, {"İZMİR", "izmir"}, {"GRÖSSE ﬁsh", "(grösse AND fish)"}});
}

TEST_F(QueryReaderTest, DeepBracketsAreRefusedBeforeTheyTakeTheStack) {
  const auto within = [](const std::string& open, const std::string& close, int times) {
    std::string query = "a";
    for (int i = 0; i < times; ++i) query = open + query + close;
    return query;
  };
  expectAll({{within("(", ")", 100), "a"}});
  expectRefused({{within("(", ")", 101), "more than 100 deep"},
                 {within("(", ")", 8000), "more than 100 deep"},
                 {within("NOT ", "", 4000), "more than 100 deep"},
                 {within("(a OR ", ")", 1500), "more than 100 deep"}});
  limits_.queryTerms = 10000;
  for (const char* joining : {" AND ", " NOT ", " OR ", " XOR ", " NEAR ", " ", " -"}) {
    EXPECT_THAT(read(within(std::string("a") + joining, "", 1500)), HasSubstr("a")) << joining;
  }
}

}  // namespace
}  // namespace corvaned
