#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

#include "tests/support/corpusFile.h"

namespace {

using tq::test::corpusFile;
using tq::test::parseCorpus;

TEST(CorpusFile, BytesAreHexadecimalPairsAndQuotedTexts) {
  const auto entries = parseCorpus(
      "reply Bytes\n"
      "  kind GET_STATUS\n"
      "  body 00 FF \"a\\r\\n\\\"\\\\\\x01\" \"xy\"*3\n"
      "  field 20\n",
      "text");
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].body, std::string("\0\xFF"
                                         "a\r\n\"\\\x01xyxyxy ",
                                         15));
  EXPECT_EQ(entries[0].kind, 15);
}

TEST(CorpusFile, RecordsEnvelopesAndLengthsAreMarkedWhereTheyStand) {
  const auto entries = parseCorpus(
      "reply Marks\n"
      "  kind PARSE_RESULT\n"
      "  body 00 01\n"
      "  envelope 00 01 ^00 02 \"ab\"\n"
      "  record 00\n",
      "text");
  EXPECT_EQ(entries.at(0).starts, (std::vector<std::size_t>{2, 8, 9}));
  EXPECT_EQ(entries.at(0).lengths, (std::vector<std::size_t>{4}));
}

TEST(CorpusFile, AStarInTheNameStandsForTheKind) {
  const auto entries = parseCorpus(
      "# a remark\n"
      "\n"
      "reply RefusedOn*\n"
      "  kind STREAM_SEARCH\n"
      "  kind OPEN_COLLECTION_ALT\n"
      "  status 500\n"
      "  gives up\n",
      "text");
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0].name, "RefusedOnStreamSearch");
  EXPECT_EQ(entries[0].kind, 8);
  EXPECT_EQ(entries[1].name, "RefusedOnOpenCollectionAlt");
  EXPECT_EQ(entries[1].kind, 21);
  for (const auto& entry : entries) {
    EXPECT_EQ(entry.status, 500);
    EXPECT_FALSE(entry.keepsConnection);
  }
}

TEST(CorpusFile, WhatACallerSeesIsSaidLineByLine) {
  const auto entries = parseCorpus(
      "reply All\n"
      "  kind PARSE_RESULT\n"
      "  before \"\\r\\n\"\n"
      "  header \"X-Long: \" \"x\"*3\n"
      "  in portions\n"
      "  in records\n"
      "  sees return 0\n"
      "  sees status 7\n"
      "  sees hit \"base64:\" 0.001\n"
      "  sees row \"d\" \"ZVK0001W\" \"why\" 4\n"
      "  sees row \"e\"\n"
      "  sees estimate 1 2 4294967295\n"
      "  sees content \"c\"\n"
      "  sees message \"id\" \"text\"\n"
      "  sees error ERR \"t\" from \"f\" level 2 line 9 argument \"a\" argument \"b\"\n"
      "  sees end\n",
      "text");
  ASSERT_EQ(entries.size(), 1U);
  const auto& entry = entries[0];
  EXPECT_EQ(entry.before, "\r\n");
  EXPECT_EQ(entry.headerLines, "X-Long: xxx\r\n");
  EXPECT_TRUE(entry.inPortions);
  EXPECT_TRUE(entry.inWholeRecords);
  tq::test::Outcome seen;
  seen.returnCode = 0;
  seen.statusCode = 7;
  seen.hits = {{"base64:", 0.001}};
  seen.parsed = {{"d", "ZVK0001W", "why", 4}, {"e", "", "", 0}};
  seen.selectivity = {1, 2, 4294967295U};
  seen.errorId = "ERR";
  seen.errorText = "t";
  seen.errorFile = "f";
  seen.errorLevel = 2;
  seen.errorArguments = {"a", "b"};
  seen.endOfStream = true;
  EXPECT_EQ(entry.expected, seen);
  EXPECT_EQ(entry.errorLine, 9U);
  EXPECT_EQ(entry.content, "c");
  EXPECT_EQ(entry.statusMessageId, "id");
  EXPECT_EQ(entry.statusMessageText, "text");
}

struct Wrong {
  const char* name;
  const char* line;
  const char* reason;
};

class WrongLine : public testing::TestWithParam<Wrong> {};

TEST_P(WrongLine, IsRefusedWithItsNumber) {
  const std::string text = std::string("reply R\n  kind GET_STATUS\n") + GetParam().line + "\n";
  try {
    parseCorpus(text, "file");
    FAIL() << "taken: " << GetParam().line;
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), std::string("file:3: ") + GetParam().reason);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Corpus, WrongLine,
    testing::Values(
        Wrong{"UnknownWord", "  bodi 00", "no line begins with \"bodi\""},
        Wrong{"UnknownKind", "  kind FLY", "no request kind is named FLY"},
        Wrong{"UnknownSight", "  sees stars", "nothing that a caller sees is named \"stars\""},
        Wrong{"SmallDigits", "  body ff", "a byte is two hexadecimal digits in capitals"},
        Wrong{"OddDigits", "  body 000", "a byte is two hexadecimal digits in capitals"},
        Wrong{"OpenText", "  body \"abc", "a text has no closing quote"},
        Wrong{"UnknownEscape", "  body \"\\q\"", "an escape is one of \\r \\n \\\" \\\\ \\xHH"},
        Wrong{"NumberWithMore", "  status 200x", "\"200x\" is not a number in range"},
        Wrong{"NumberTooLarge", "  sees status 4294967296",
              "\"4294967296\" is not a number in range"},
        Wrong{"MissingText", "  sees row", "a text in quotes is missing"},
        Wrong{"MissingWord", "  sees return", "a word is missing"},
        Wrong{"MoreThanExpected", "  sees end of it", "nothing is expected from \"of it\" on"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(CorpusFile, ALineOutsideOfAReplyIsRefused) {
  EXPECT_THROW(parseCorpus("  kind GET_STATUS\n", "file"), std::runtime_error);
}

TEST(CorpusFile, AReplyWithoutAKindIsRefused) {
  EXPECT_THROW(parseCorpus("reply R\n", "file"), std::runtime_error);
}

TEST(CorpusFile, AStarStandsForOneOfSeveralKindsAndForNothingElse) {
  EXPECT_THROW(parseCorpus("reply R\n  kind SHUTDOWN GET_STATUS\n", "file"), std::runtime_error);
  EXPECT_THROW(parseCorpus("reply R*\n  kind SHUTDOWN\n", "file"), std::runtime_error);
}

TEST(CorpusFile, AFileThatIsNotThereIsRefused) {
  EXPECT_THROW(corpusFile("noSuchFile.txt"), std::runtime_error);
}

TEST(CorpusFile, EveryReplyHasANameOfItsOwn) {
  for (const char* file : {"httpReplies.txt", "binaryReplies.txt"}) {
    std::set<std::string> names;
    for (const auto& entry : corpusFile(file)) {
      EXPECT_TRUE(names.insert(entry.name).second) << file << " has " << entry.name << " twice";
    }
    EXPECT_TRUE(names.contains("Next")) << file;
  }
}

}  // namespace
