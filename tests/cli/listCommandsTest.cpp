#include <gtest/gtest.h>

#include <string>

#include "tests/cli/scriptedRun.h"

using namespace corvane;
using namespace corvane::test;
using namespace tq::test;

namespace {

TEST(List, PrintsWhatTheServerTellsOfEachCollection) {
  ScriptedServer server(answers(
      {outcomes({{"books", "ZVK0101I",
                  "documents=1 pending=2 bytes=73801 language=de stemming=false stopWords=3 "
                  "refresh=immediate indexing=12/50 mark=ledger at x=1"},
                 {"my notes", "ZVK0014E", "the file is damaged"}}),
       outcomes({{"papers", "ZVK0101I",
                  "documents=0 pending=0 bytes=1 language=en_us refresh=manual mark=none"}}),
       outcomes({})}));
  const Result result = runAgainst(server, {"list"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out,
            "books: 1 document, 2 pending, 73801 bytes, language de, stemming false, stopWords 3, "
            "refresh immediate, indexing 12/50, mark ledger at x=1\n"
            "my notes: the file is damaged (ZVK0014E)\n"
            "papers: 0 documents, 0 pending, 1 byte, language en_us, refresh manual\n");
}

TEST(List, GoesOnBehindTheLastCollectionOfAPage) {
  ScriptedServer server(
      answers({outcomes({{"a", "ZVK0101I", "documents=0"}, {"b", "ZVK0101I", "documents=0"}}),
               outcomes({})}));
  EXPECT_EQ(runAgainst(server, {"list"}).out, "a: 0 documents\nb: 0 documents\n");
  const auto sent = server.connection(0).requests;
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_TRUE(contains(sent[0], "\nreport: collections\n")) << sent[0];
  EXPECT_FALSE(contains(sent[0], "\nafter: ")) << sent[0];
  EXPECT_TRUE(contains(sent[1], "\nafter: b\n")) << sent[1];
}

TEST(List, PrintsNumbersAndWordsAsJson) {
  ScriptedServer server(
      answers({outcomes({{"books", "ZVK0101I",
                          "documents=1 pending=2 bytes=3 language=de stopWords=4 refresh=500 "
                          "mark=ledger 1"},
                         {"notes", "ZVK0014E", "the file is damaged"}}),
               outcomes({})}));
  EXPECT_EQ(runAgainst(server, {"list", "--json"}).out,
            "{\"collection\":\"books\",\"documents\":1,\"pending\":2,\"bytes\":3,"
            "\"language\":\"de\",\"stopWords\":4,\"refresh\":\"500\",\"mark\":\"ledger 1\"}\n"
            "{\"collection\":\"notes\",\"error\":\"the file is damaged (ZVK0014E)\"}\n");
}

TEST(List, OfOneCollectionAsksForNoOther) {
  ScriptedServer server(answers({outcomes({{"books", "ZVK0101I", "documents=1"}})}));
  const Result result = runAgainst(server, {"list", "books"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "books: 1 document\n");
  const std::string sent = server.connection(0).requests.at(0);
  EXPECT_TRUE(contains(sent, "\nreport: collection\n")) << sent;
  EXPECT_TRUE(contains("\n" + sent, "\nindex: books\n")) << sent;
}

TEST(List, ThatIsEmptySaysSoToAPerson) {
  ScriptedServer server({answers({outcomes({})}), answers({outcomes({})})});
  EXPECT_EQ(runAgainst(server, {"list"}).err, "there are no collections\n");
  EXPECT_EQ(runAgainst(server, {"backups"}).err, "there are no backups\n");
}

TEST(List, ThatBreaksOffBetweenPagesIsCutOff) {
  ScriptedServer server(
      answers({outcomes({{"books", "ZVK0101I", "documents=1"}})}).expectRequest().stall());
  const Result result = runAgainst(server, {"list", "--json", "--timeout", "50"});
  EXPECT_EQ(result.code, ExitCode::Truncated);
  EXPECT_EQ(result.out, "{\"collection\":\"books\",\"documents\":1}\n");
  EXPECT_TRUE(contains(result.err, "was cut off after 1 collection (")) << result.err;
  EXPECT_TRUE(contains(result.err, "\"id\":\"TRUNCATED\"")) << result.err;
  EXPECT_TRUE(isOneLine(result.err)) << result.err;
}

TEST(List, EndsWhenTheServerTellsTheSamePageAgain) {
  const std::string page = outcomes({{"books", "ZVK0101I", "documents=1"}});
  ScriptedServer server(answers({page, page}));
  const Result result = runAgainst(server, {"list"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "lists \"books\" out of its order")) << result.err;
  EXPECT_TRUE(isOneLine(result.err)) << result.err;
}

TEST(List, ThatIsRefusedBeforeItsFirstLineFails) {
  ScriptedServer server(answers({refusal("ZVK0023E", "not permitted")}));
  const Result result = runAgainst(server, {"list"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "(ZVK0023E)")) << result.err;
}

TEST(List, CannotSteerTheTerminal) {
  ScriptedServer server(
      answers({outcomes({{"a\x1b[2J", "ZVK0101I", "documents=1 mark=\x1b[2J"}}), outcomes({})}));
  EXPECT_EQ(runAgainst(server, {"list"}).out, "a\\u{1b}[2J: 1 document, mark \\u{1b}[2J\n");
}

}  // namespace
