#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/cli/scriptedRun.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/scriptedNetwork.h"

using namespace corvane;
using namespace corvane::test;
using namespace tq::test;

namespace {

TEST(List, PrintsWhatTheServerTellsOfEachCollection) {
  HttpServer server(answers(
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
  HttpServer server(
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
  HttpServer server(
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
  HttpServer server(answers({outcomes({{"books", "ZVK0101I", "documents=1"}})}));
  const Result result = runAgainst(server, {"list", "books"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "books: 1 document\n");
  const std::string sent = server.connection(0).requests.at(0);
  EXPECT_TRUE(contains(sent, "\nreport: collection\n")) << sent;
  EXPECT_TRUE(contains("\n" + sent, "\nindex: books\n")) << sent;
}

TEST(List, OfOneCollectionThatIsNotCompleteIsCutOff) {
  Reply reply{
      "x", kParseResult, 200,
      kUninterpreted +
          enveloped(record({{"Doc", "books"}, {"MsgId", "ZVK0101I"}, {"MsgText", "documents=1"}}))};
  const auto first = reply.body.size();
  reply.body += kEndMark;
  const auto whole = chunkedAt(reply, {first, reply.body.size()}, false);
  HttpServer server(answers({whole.text.substr(0, whole.chunks.at(1).dataBegin)}));
  const Result result = runAgainst(server, {"list", "books"});
  EXPECT_EQ(result.code, ExitCode::Truncated);
  EXPECT_EQ(result.out, "books: 1 document\n");
  EXPECT_TRUE(isOneLine(result.err)) << result.err;
}

TEST(List, ThatIsEmptySaysSoToAPerson) {
  HttpServer server({answers({outcomes({})}), answers({outcomes({})})});
  EXPECT_EQ(runAgainst(server, {"list"}).err, "there are no collections\n");
  EXPECT_EQ(runAgainst(server, {"backups"}).err, "there are no backups\n");
}

TEST(List, ThatBreaksOffBetweenPagesIsCutOff) {
  const std::string page =
      word16(1) +
      envelope(1, record16({{"Doc", "books"}, {"MsgId", "ZVK0101I"}, {"MsgText", "documents=1"}})) +
      endOfResults();
  ScriptedNetwork network(Script().expectFramedRequest().send(page).expectFramedRequest().stall());
  const Result result = runInMemory({"list", "--json", "--timeout", "50"});
  EXPECT_EQ(result.code, ExitCode::Truncated);
  EXPECT_EQ(result.out, "{\"collection\":\"books\",\"documents\":1}\n");
  EXPECT_TRUE(contains(result.err, "was cut off after 1 collection (")) << result.err;
  EXPECT_TRUE(contains(result.err, "\"id\":\"TRUNCATED\"")) << result.err;
  EXPECT_TRUE(isOneLine(result.err)) << result.err;
}

TEST(List, EndsWhenTheServerTellsTheSamePageAgain) {
  const std::string page = outcomes({{"books", "ZVK0101I", "documents=1"}});
  HttpServer server(answers({page, page}));
  const Result result = runAgainst(server, {"list"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "tells the same part of the list again behind \"books\""))
      << result.err;
  EXPECT_TRUE(isOneLine(result.err)) << result.err;
}

TEST(List, ThatIsRefusedBeforeItsFirstLineFails) {
  HttpServer server(answers({refusal("ZVK0023E", "not permitted")}));
  const Result result = runAgainst(server, {"list"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "(ZVK0023E)")) << result.err;
}

TEST(List, CannotSteerTheTerminal) {
  HttpServer server(
      answers({outcomes({{"a\x1b[2J", "ZVK0101I", "documents=1 mark=\x1b[2J"}}), outcomes({})}));
  EXPECT_EQ(runAgainst(server, {"list"}).out, "a\\u{1b}[2J: 1 document, mark \\u{1b}[2J\n");
}

TEST(Keys, AreThoseOfTheRangeInItsOrder) {
  HttpServer server(answers({found({{"base64:Zm9v", ""}, {"base64:AP8=", ""}})}));
  const Result result =
      runAgainst(server, {"keys", "books", "--after", "bar", "--upto", "zoo", "--limit", "7"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "foo\nbase64:AP8=\n");
  const std::string sent = server.connection(0).requests.at(0);
  for (const char* line :
       {"\nsortField: KEY\n", "\nafter: base64:YmFy\n", "\nupTo: base64:em9v\n", "\nsize: 7\n"}) {
    EXPECT_TRUE(contains(sent, line)) << sent;
  }
  EXPECT_FALSE(contains(sent, "\nquery: ")) << sent;
}

TEST(Keys, AreTakenInBase64WhenTheCommandLineSaysSo) {
  HttpServer server(answers({found({{"base64:Zm9v", ""}, {"base64:AP8=", ""}})}));
  const Result result = runAgainst(
      server, {"keys", "books", "--json", "--base64", "--after", "base64:AA==", "--upto", "AP8="});
  EXPECT_EQ(result.out,
            "{\"key\":\"foo\",\"docId\":\"base64:Zm9v\"}\n{\"docId\":\"base64:AP8=\"}\n");
  const std::string sent = server.connection(0).requests.at(0);
  EXPECT_TRUE(contains(sent, "\nafter: base64:AA==\n")) << sent;
  EXPECT_TRUE(contains(sent, "\nupTo: base64:AP8=\n")) << sent;
}

TEST(Keys, OfAnEmptyRangeSaySo) {
  HttpServer server({answers({found({})}), answers({found({})})});
  EXPECT_EQ(runAgainst(server, {"keys", "books"}).err, "searches find no document in this range\n");
  EXPECT_EQ(runAgainst(server, {"keys", "books", "--limit", "0"}).err,
            "no keys are shown, as --limit 0 asks\n");
}

TEST(Keys, ThatStopInTheMiddleOfAStreamAreCutOff) {
  ScriptedNetwork network(Script().expectFramedRequest().send(word16(1) + plainHit("a")).stall());
  const Result result = runInMemory({"keys", "books", "--timeout", "50"});
  EXPECT_EQ(result.code, ExitCode::Truncated);
  EXPECT_EQ(result.out, "a\n");
  EXPECT_TRUE(contains(result.err, "was cut off after 1 key (")) << result.err;
  EXPECT_TRUE(isOneLine(result.err)) << result.err;
}

TEST(Digest, IsToldWithTheNumberOfDocumentsAndTheLastKey) {
  const std::string reply = outcomes({{"base64:Zm9v", "ZVK0103I", "documents=12 sha256=00ff"}});
  HttpServer server({answers({reply}), answers({reply})});
  const Result result = runAgainst(server, {"digest", "books", "--after", "a"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "00ff      12  foo\n");
  const std::string sent = server.connection(0).requests.at(0);
  for (const char* line : {"\nreport: digest\n", "\nafter: base64:YQ==\n"}) {
    EXPECT_TRUE(contains(sent, line)) << sent;
  }
  EXPECT_FALSE(contains(sent, "\nevery: ")) << sent;
  EXPECT_FALSE(contains(sent, "\nsize: ")) << sent;
  EXPECT_EQ(runAgainst(server, {"digest", "books", "--json"}).out,
            "{\"sha256\":\"00ff\",\"documents\":12,\"key\":\"foo\",\"docId\":\"base64:Zm9v\"}\n");
}

TEST(Digest, OfEverySoManyDocumentsGoesOnBehindTheLastOne) {
  HttpServer server(
      answers({outcomes({{"base64:YQ==", "ZVK0103I", "documents=6000 sha256=0a"}}),
               outcomes({{"base64:Yg==", "ZVK0103I", "documents=6000 sha256=0b"}}), outcomes({})}));
  const Result result = runAgainst(server, {"digest", "books", "--every", "6000", "--upto", "zoo"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "0a    6000  a\n0b    6000  b\n");
  const auto sent = server.connection(0).requests;
  ASSERT_EQ(sent.size(), 3U);
  for (const std::string& each : sent) {
    EXPECT_TRUE(contains(each, "\nevery: 6000\n")) << each;
    EXPECT_TRUE(contains(each, "\nsize: 1\n")) << each;
    EXPECT_TRUE(contains(each, "\nupTo: base64:em9v\n")) << each;
  }
  EXPECT_TRUE(contains(sent[1], "\nafter: base64:YQ==\n")) << sent[1];
  EXPECT_TRUE(contains(sent[2], "\nafter: base64:Yg==\n")) << sent[2];
}

TEST(Digest, EndsWhenTheServerTellsTheSamePageAgain) {
  const std::string page = outcomes({{"base64:YQ==", "ZVK0103I", "documents=6000 sha256=0a"}});
  HttpServer server(answers({page, page}));
  const Result result = runAgainst(server, {"digest", "books", "--every", "6000"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "again behind \"a\"")) << result.err;
}

TEST(Range, WithAKeyThatNoDocumentCanHaveIsNeverSent) {
  HttpServer server(Script().awaitClose());
  const std::vector<std::vector<std::string>> ranges = {
      {"--after", ""}, {"--upto", std::string(129, 'k')}, {"--base64", "--after", "?"}};
  for (const auto& range : ranges) {
    for (const char* command : {"keys", "digest"}) {
      std::vector<std::string> arguments{command, "books"};
      arguments.insert(arguments.end(), range.begin(), range.end());
      const Result result = runAgainst(server, arguments);
      EXPECT_EQ(result.code, ExitCode::Usage) << command;
      EXPECT_TRUE(isOneLine(result.err)) << result.err;
    }
  }
  EXPECT_EQ(server.accepted(), 0U);
}

}  // namespace
