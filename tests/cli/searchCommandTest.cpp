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

TEST(Search, PrintsRankScoreAndKey) {
  HttpServer server(
      answers({found({{"base64:Zm9v", "12.345"}, {"base64:AP8=", "0.5"}, {"plain", ""}})}));
  const Result result = runAgainst(server, {"search", "books", "whale ship"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out,
            "    1   12.345  foo\n"
            "    2    0.500  base64:AP8=\n"
            "    3    0.000  plain\n");
}

TEST(Search, PrintsJsonLines) {
  HttpServer server(answers({found({{"base64:Zm9v", "0.5"}, {"base64:AP8=", "0.25"}})}));
  const Result result = runAgainst(server, {"search", "books", "q", "--json"});
  EXPECT_EQ(result.out,
            "{\"rank\":1,\"score\":0.5,\"key\":\"foo\",\"docId\":\"base64:Zm9v\"}\n"
            "{\"rank\":2,\"score\":0.25,\"docId\":\"base64:AP8=\"}\n");
}

TEST(Search, SendsQueryStartAndLimitAndCountsRanksFromThere) {
  HttpServer server(answers({found({{"base64:Zm9v", "1"}})}));
  const Result result =
      runAgainst(server, {"search", "books", "a: b", "--start", "20", "--limit", "10"});
  EXPECT_EQ(result.out, "   21    1.000  foo\n");
  const std::string sent = server.connection(0).requests.at(0);
  for (const char* line : {"\nquery: a: b\n", "\nstart: 20\n", "\nsize: 10\n",
                           "\nmode: streaming\n", "\nscoreWanted: true\n"}) {
    EXPECT_TRUE(contains(sent, line)) << sent;
  }
}

TEST(Search, OfAPageWithoutHitsHasNoNextOne) {
  HttpServer server(answers({outcomes({{"books", "ZVK0108I", "rank=0 place=cDA="}}), found({})}));
  const Result result = runAgainst(server, {"search", "books", "q", "--limit", "0", "--pages"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(server.connection(0).requests.size(), 2U);
}

TEST(Search, InPagesTellsWhereTheNextOneBegins) {
  HttpServer server(answers({outcomes({{"books", "ZVK0108I", "rank=0 place=cDA="}}),
                             found({{"base64:Zm9v", "1"}, {"base64:Yg==", "0.5"}}),
                             outcomes({{"books", "ZVK0108I", "rank=2 place=cDI="}})}));
  const Result result = runAgainst(server, {"search", "books", "q", "--limit", "2", "--pages"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "    1    1.000  foo\n    2    0.500  b\nthe next page: --after cDI=\n");
  const auto sent = server.connection(0).requests;
  ASSERT_EQ(sent.size(), 3U);
  for (const char* line : {"\nreport: place\n", "\nsearchAfter: begin\n", "\nstart: 0\n"}) {
    EXPECT_TRUE(contains(sent[0], line)) << sent[0];
  }
  EXPECT_TRUE(contains(sent[1], "\nsearchAfter: cDA=\n")) << sent[1];
  for (const char* line : {"\nreport: place\n", "\nsearchAfter: cDA=\n", "\nstart: 2\n"}) {
    EXPECT_TRUE(contains(sent[2], line)) << sent[2];
  }
}

TEST(Search, InPagesAsksOnceMoreForAPlaceWhenTheConnectionBreaks) {
  const std::string begin = outcomes({{"books", "ZVK0108I", "rank=0 place=cDA="}});
  const std::string page = found({{"base64:Zm9v", "1"}, {"base64:Yg==", "0.5"}});
  HttpServer server({Script().expectRequest(), answers({begin, page}).expectRequest(),
                     answers({outcomes({{"books", "ZVK0108I", "rank=2 place=cDI="}})})});
  const Result result = runAgainst(server, {"search", "books", "q", "--limit", "2", "--pages"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "    1    1.000  foo\n    2    0.500  b\nthe next page: --after cDI=\n");
}

TEST(Search, InPagesBeginsAnewWhenTheStateHasGoneBeforeTheFirstPage) {
  HttpServer server(answers(
      {outcomes({{"books", "ZVK0108I", "rank=0 place=cDA="}}), refusal("ZVK0035E", "it has gone"),
       outcomes({{"books", "ZVK0108I", "rank=0 place=cDE="}}), found({{"base64:Zm9v", "1"}})}));
  const Result result = runAgainst(server, {"search", "books", "q", "--limit", "2", "--pages"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "    1    1.000  foo\n");
  EXPECT_TRUE(contains(server.connection(0).requests.at(3), "\nsearchAfter: cDE=\n"));
}

TEST(Search, InPagesGivesUpWhenNoStateLastsLongEnough) {
  constexpr int kBeginnings = 20;
  Script script;
  for (int i = 0; i < kBeginnings; ++i) {
    script.expectRequest().send(outcomes({{"books", "ZVK0108I", "rank=0 place=cDA="}}));
    script.expectRequest().send(refusal("ZVK0035E", "it has gone"));
  }
  HttpServer server(script);
  const Result result = runAgainst(server, {"search", "books", "q", "--limit", "2", "--pages"});
  EXPECT_NE(result.code, ExitCode::Ok);
  EXPECT_TRUE(contains(result.err, "ZVK0035E")) << result.err;
  EXPECT_EQ(server.connection(0).requests.size(), std::size_t{2} * kBeginnings);
}

TEST(Search, AfterAPlaceIsNotBegunAnew) {
  HttpServer server(answers({outcomes({{"books", "ZVK0108I", "rank=20 place=cDA="}}),
                             refusal("ZVK0035E", "it has gone")}));
  const Result result =
      runAgainst(server, {"search", "books", "q", "--limit", "2", "--after", "cDA=", "--pages"});
  EXPECT_TRUE(contains(result.err, "ZVK0035E")) << result.err;
  EXPECT_EQ(server.connection(0).requests.size(), 2U);
}

TEST(Search, GoesOnFromAPlaceAndCountsRanksFromThere) {
  HttpServer server(answers({outcomes({{"books", "ZVK0108I", "rank=20 place=cDA="}}),
                             found({{"base64:Zm9v", "1"}, {"base64:Yg==", "0.5"}}),
                             outcomes({{"books", "ZVK0108I", "rank=25 place=cDI="}})}));
  const Result result = runAgainst(server, {"search", "books", "q", "--limit", "2", "--start", "3",
                                            "--after", "cDA=", "--json"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out,
            "{\"rank\":24,\"score\":1.0,\"key\":\"foo\",\"docId\":\"base64:Zm9v\"}\n"
            "{\"rank\":25,\"score\":0.5,\"key\":\"b\",\"docId\":\"base64:Yg==\"}\n"
            "{\"next\":\"cDI=\"}\n");
  EXPECT_TRUE(contains(server.connection(0).requests.at(2), "\nstart: 5\n"));
}

TEST(Search, OnItsLastPageTellsNoNextOne) {
  HttpServer server(answers(
      {outcomes({{"books", "ZVK0108I", "rank=20 place=cDA="}}), found({{"base64:Zm9v", "1"}})}));
  const Result result =
      runAgainst(server, {"search", "books", "q", "--limit", "2", "--after", "cDA="});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "   21    1.000  foo\n");
}

TEST(Search, AfterThePlaceWhereTheResultEndsFindsNothing) {
  HttpServer server(answers({outcomes({{"books", "ZVK0108I", "rank=20 place=cDA="}}), found({})}));
  const Result result = runAgainst(server, {"search", "books", "q", "--after", "cDA="});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.err, "no hits are left after this place\n");
}

TEST(Search, FromAStateThatHasGoneIsRefusedInTheWordsOfTheServer) {
  HttpServer server(answers({refusal("ZVK0035E", "it has gone")}));
  const Result result = runAgainst(server, {"search", "books", "q", "--after", "cDA="});
  EXPECT_NE(result.code, ExitCode::Ok);
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(contains(result.err, "ZVK0035E")) << result.err;
}

TEST(Search, InSeveralCollectionsSaysWhichOneHasAHit) {
  const std::string reply =
      outcomes({{"base64:Zm9v", "ZVK0104I", "score=1.000 collection=papers"},
                {"base64:AP8=", "ZVK0104I", "score=0.532 collection=my notes"}});
  HttpServer server(answers({reply}));
  std::vector<std::string> arguments{"search", "books",  "whale",  "--limit", "2",       "--start",
                                     "20",     "--also", "papers", "--also",  "my notes"};
  const Result result = runAgainst(server, arguments);
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out,
            "   21    1.000  foo  (papers)\n"
            "   22    0.532  base64:AP8=  (my notes)\n");
  const std::string sent = server.connection(0).requests.at(0);
  for (const char* line : {"\nindex: books\n", "\nalsoIn: papers,my notes\n", "\nreport: hits\n",
                           "\nquery: whale\n", "\nsize: 2\n", "\nstart: 20\n"}) {
    EXPECT_TRUE(contains("\n" + sent, line)) << sent;
  }
}

TEST(Search, InSeveralCollectionsPrintsJsonLines) {
  HttpServer server(
      answers({outcomes({{"base64:Zm9v", "ZVK0104I", "score=0.532 collection=my notes"}})}));
  const Result result =
      runAgainst(server, {"search", "books", "q", "--limit", "2", "--also", "my notes", "--json"});
  EXPECT_EQ(result.out,
            "{\"rank\":1,\"score\":0.532,\"collection\":\"my notes\",\"key\":\"foo\","
            "\"docId\":\"base64:Zm9v\"}\n");
}

TEST(Search, InSeveralCollectionsThatFindNothingSaysSo) {
  HttpServer server(answers({outcomes({})}));
  const Result result =
      runAgainst(server, {"search", "books", "q", "--limit", "2", "--also", "papers"});
  EXPECT_EQ(result.code, ExitCode::Ok);
  EXPECT_EQ(result.err, "no document matches\n");
}

TEST(Search, InSeveralCollectionsRefusesWhatCannotBeAskedBeforeAnythingIsSent) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--limit", "101", "--also", "b"}, "with --also, --limit is at most 100"},
      {{"--limit", "1", "--also", "b,c"}, "the name after --also, 'b,c', has a comma"},
      {{"--limit", "1", "--also", ""}, "the name after --also"}};
  for (const auto& [options, expected] : cases) {
    std::vector<std::string> arguments{"--port", "1", "search", "books", "q"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const Result result = runProgram(arguments);
    EXPECT_EQ(result.code, ExitCode::Usage) << expected;
    EXPECT_TRUE(contains(result.err, expected)) << result.err;
  }
}

TEST(Search, TakesEveryPortionOfAStreamedReply) {
  Reply reply{"x", kStreamSearch, 200, hits({{"base64:YQ==", "3"}})};
  std::vector<std::size_t> ends{reply.body.size()};
  for (const char* id : {"base64:Yg==", "base64:Yw=="}) {
    reply.body += enveloped(hitRecord(id, "2"));
    ends.push_back(reply.body.size());
  }
  reply.body += kEndMark;
  ends.push_back(reply.body.size());
  HttpServer server(Script().expectRequest().send(chunkedAt(reply, ends, true).text, 16));
  const Result result = runAgainst(server, {"search", "books", "q"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "    1    3.000  a\n    2    2.000  b\n    3    2.000  c\n");
}

TEST(Search, ThatFindsNothingSaysSoAndSucceeds) {
  HttpServer server(answers({found({})}));
  const Result result = runAgainst(server, {"search", "books", "q"});
  EXPECT_EQ(result.code, ExitCode::Ok);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "no document matches\n");
}

TEST(Search, OfNoHitsSaysWhyThereAreNone) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--limit", "0"}, "no hits are shown, as --limit 0 asks\n"},
      {{"--start", "7"}, "no hits are left after the first 7\n"},
      {{"--start", "7", "--limit", "3"}, "no hits are left after the first 7\n"}};
  for (const auto& [options, note] : cases) {
    HttpServer server(answers({found({})}));
    std::vector<std::string> arguments{"search", "books", "q"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const Result result = runAgainst(server, arguments);
    EXPECT_EQ(result.code, ExitCode::Ok);
    EXPECT_EQ(result.err, note);
  }
}

TEST(Search, ThatIsCutOffShowsWhatCameAndExitsWithItsOwnCode) {
  Reply reply{"x", kStreamSearch, 200, hits({{"base64:YQ==", "3"}})};
  const auto first = reply.body.size();
  reply.body += enveloped(hitRecord("base64:Yg==", "2"));
  const auto whole = chunkedAt(reply, {first, reply.body.size()}, false);
  // The second chunk never comes to its end.
  HttpServer server(answers({whole.text.substr(0, whole.chunks.at(1).dataBegin + 5)}));
  const Result result = runAgainst(server, {"search", "books", "q"});
  EXPECT_EQ(result.code, ExitCode::Truncated);
  EXPECT_EQ(result.out, "    1    3.000  a\n");
  EXPECT_TRUE(contains(result.err, "was cut off after 1 hit (the server ended it early)"))
      << result.err;
  // The port was right: the hits came from it.
  EXPECT_FALSE(contains(result.err, "--port")) << result.err;
}

TEST(Search, ThatStopsInTheMiddleOfAStreamIsCutOffToo) {
  ScriptedNetwork network(
      Script().expectFramedRequest().send(word16(1) + scoredHit(3000, "a")).stall());
  const Result result = runInMemory({"search", "books", "q", "--timeout", "50"});
  EXPECT_EQ(result.code, ExitCode::Truncated);
  EXPECT_EQ(result.out, "    1    3.000  a\n");
  EXPECT_TRUE(contains(result.err, "within 50 ms")) << result.err;
}

TEST(Search, OverTheBinaryProtocolIsCutOffToo) {
  const std::string begin = word16(1) + scoredHit(3000, "a") + scoredHit(2000, "b");
  for (const std::string& end : {std::string(), scoredHit(1000, "c").substr(0, 5)}) {
    ScriptedServer server(Script().expectFramedRequest().send(begin + end));
    const Result result = runOverBinary(server, {"search", "books", "q"});
    EXPECT_NE(result.code, ExitCode::Ok);
    EXPECT_TRUE(result.out.empty() || result.code == ExitCode::Truncated) << result.out;
    EXPECT_TRUE(isOneLine(result.err)) << result.err;
  }
}

TEST(Search, OverTheBinaryProtocolPrintsScoresOfTheSameForm) {
  ScriptedServer server(Script().expectFramedRequest().send(
      word16(1) + scoredHit(12345, "foo") + scoredHit(500, "b") + endOfResults(), 3));
  const Result result = runOverBinary(server, {"search", "books", "q"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "    1   12.345  foo\n    2    0.500  b\n");
}

}  // namespace
