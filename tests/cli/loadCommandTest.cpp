#include <gtest/gtest.h>

#include <set>
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

const std::string kNextStep = "searches find the documents after 'corvane update books'\n";

TEST(Load, QueuesDocumentsAndReportsWhatTheServerTook) {
  Script script = loadOf(2, {{"a"}, {"b", "ZVK0012E", "too strange"}});
  script.expectRequest().send(refusal("ZVK0012E", "too strange"));
  HttpServer server(tellAtTheEnd(script));
  const Result result = load(server, documentLine("a", "x") + documentLine("b", "y"));
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_EQ(result.out, "loaded 1 document into books, 1 refused\n");
  EXPECT_EQ(result.err, "corvane: line 2, key \"b\": too strange (ZVK0012E)\n" + kNextStep);
  const auto requests = server.connection(0).requests;
  ASSERT_EQ(requests.size(), 7U);
  EXPECT_TRUE(contains(requests[0], "\naction: openCollection\n"));
  EXPECT_TRUE(contains(requests[1], enveloped("rowId") + enveloped("a")));
  EXPECT_EQ(requests[3].substr(requests[3].size() - 8), std::string(8, '\0'));
  EXPECT_TRUE(contains(requests[4], "\naction: getParseResult\n"));
}

std::string clientNamedIn(const std::string& request) {
  const std::string name = "\nclient: ";
  const std::size_t place = request.find(name);
  if (place == std::string::npos) return "none";
  const std::size_t begin = place + name.size();
  return request.substr(begin, request.find('\n', begin) - begin);
}

// Of one document, whose key is "a".
Script wholeLoadOfA(const std::vector<std::string>& outcome = {"a"}) {
  Script script = loadOf(1, {outcome});
  return tellAtTheEnd(script);
}

TEST(Load, AsksForItsOwnAnswersByANameThatNoOtherLoadHas) {
  std::set<std::string> names;
  for (int i = 0; i < 2; ++i) {
    HttpServer server(wholeLoadOfA());
    EXPECT_EQ(load(server, documentLine("a", "x")).code, ExitCode::Ok);
    const auto requests = server.connection(0).requests;
    ASSERT_EQ(requests.size(), 5U);
    const std::string name = clientNamedIn(requests[1]);
    EXPECT_EQ(name.substr(0, 5), "load-");
    for (const std::size_t place : {2U, 3U, 4U}) EXPECT_EQ(clientNamedIn(requests[place]), name);
    names.insert(name);
  }
  EXPECT_EQ(names.size(), 2U);
}

TEST(Load, GoesOnBehindLinesThatAreNoDocuments) {
  HttpServer server(wholeLoadOfA({"base64:YQ=="}));
  const Result result =
      load(server, "oops\n" + documentLine("a", "x") + "{\"key\":\"c\"}\n", {"--json"});
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_TRUE(contains(result.out, "{\"refused\":\"\",\"line\":1,\"reason\":\"not JSON: "));
  EXPECT_TRUE(contains(
      result.out, "{\"refused\":\"c\",\"line\":3,\"reason\":\"the object has no \\\"text\\\"\"}"));
  EXPECT_TRUE(contains(result.out, "{\"collection\":\"books\",\"loaded\":1,\"refused\":2}\n"));
  EXPECT_EQ(result.err, "");
}

TEST(Load, CountsADocumentWithAWarningAsLoaded) {
  HttpServer server(wholeLoadOfA({"a", "ZVK0100W", "language unknown"}));
  const Result result = load(server, documentLine("a", "x"));
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 1 document into books, 0 refused\n");
}

// What another client of the collection queued, or took, must not be counted as this load's.
Script loadOfTwoOfWhichOnlyTheFirstIsConfirmed(const std::string& answerToTheOther) {
  Script script = loadOf(2, {{"a"}, {"somebody else's"}, {"third", "ZVK0012E", "too strange"}});
  script.expectRequest().send(answerToTheOther);
  return tellAtTheEnd(script);
}

TEST(Load, AsksAboutADocumentThatNoResultNamesByAnAdditionOfItsOwn) {
  HttpServer server(loadOfTwoOfWhichOnlyTheFirstIsConfirmed(done()));
  const Result result = load(server, documentLine("a", "x") + documentLine("b", "y"));
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 2 documents into books, 0 refused\n");
  EXPECT_EQ(result.err, kNextStep);
  const auto requests = server.connection(0).requests;
  EXPECT_TRUE(contains(requests.at(5), "\naction: addDocument\n"));
  EXPECT_TRUE(contains(requests.at(5), enveloped("rowId") + enveloped("b")));
}

TEST(Load, QueuesManyDocumentsAgainWhileThatSettlesSomeOfThem) {
  std::string lines;
  for (char key = 'a'; key < 'a' + 12; ++key) {
    lines += documentLine(std::string(1, key), "x");
  }
  Script script = loadOf(12, {{"a"}});
  takeWindow(script, 11).send(outcomes({}));
  // That round settled nothing.
  for (int i = 0; i < 11; ++i) script.expectRequest().send(done());
  HttpServer server(tellAtTheEnd(script));
  const Result result = load(server, lines);
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 12 documents into books, 0 refused\n");
  EXPECT_EQ(server.requests(), 1U + 14 + 13 + 11 + 1);
}

TEST(Load, ReportsTheReasonThatTheAdditionIsGiven) {
  HttpServer server(loadOfTwoOfWhichOnlyTheFirstIsConfirmed(refusal("ZVK0013E", "too long")));
  const Result result = load(server, documentLine("a", "x") + documentLine("b", "y"));
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_EQ(result.out, "loaded 1 document into books, 1 refused\n");
  EXPECT_EQ(result.err, "corvane: line 2, key \"b\": too long (ZVK0013E)\n" + kNextStep);
}

TEST(Load, DoesNotTakeTheRefusalOfAnotherClientsDocumentWithTheSameKeyForItsOwn) {
  for (const auto& rows : std::vector<Outcomes>{{{"a", "ZVK0012E", "too strange"}},
                                                {{"a"}, {"a", "ZVK0012E", "too strange"}},
                                                {{"a", "ZVK0012E", "too strange"}, {"a"}}}) {
    Script script = loadOf(1, rows);
    script.expectRequest().send(done());
    HttpServer server(tellAtTheEnd(script));
    const Result result = load(server, documentLine("a", "x"));
    EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
    EXPECT_EQ(result.out, "loaded 1 document into books, 0 refused\n");
    EXPECT_TRUE(contains(server.connection(0).requests.at(4), "\naction: addDocument\n"));
  }
}

Script secondAttempt() {
  Script script;
  takeWindow(script, 1).send(outcomes({{"a"}}));
  return tellAtTheEnd(script);
}

TEST(Load, SendsTheWindowAgainWhenTheConnectionBreaks) {
  Script broken = answers({done()});
  takeWindow(broken, 1);
  HttpServer server({broken, secondAttempt()});
  const Result result = load(server, documentLine("a", "x"));
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 1 document into books, 0 refused\n");
}

TEST(Load, StopsAtTheNumberOfRefusalsThatIsAllowed) {
  HttpServer server(wholeLoadOfA());
  const Result result =
      load(server, "bad\n" + documentLine("a", "x") + "bad\nbad\n", {"--max-errors", "2"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_EQ(result.out, "loaded 1 document into books, 2 refused\n");
  EXPECT_TRUE(contains(result.err, "corvane: line 3: not JSON")) << result.err;
  EXPECT_FALSE(contains(result.err, "line 4")) << result.err;
  EXPECT_TRUE(contains(result.err, "stopped after line 3, because of --max-errors 2\n"));
}

TEST(Load, MakesTheDocumentsSearchableWhenAsked) {
  HttpServer server(wholeLoadOfA().expectRequest().send(done()));
  const Result result = load(server, documentLine("a", "x"), {"--update"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 1 document into books, 0 refused\nupdated books\n");
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(contains(server.connection(0).requests.at(5), "\naction: updateIndex\n"));
}

TEST(Load, SendsTheWindowAgainWhenAWriteFails) {
  const Script broken = answers({done()}).expectBytes(1000).reset();
  HttpServer server({broken, secondAttempt()});
  // More than the system holds for a peer that does not read.
  const std::string text(std::size_t{16} << 20, 'x');
  const Result result = load(server, documentLine("a", text));
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 1 document into books, 0 refused\n");
}

TEST(Load, OfACollectionThatIsNotThereSendsNoDocument) {
  HttpServer server(answers({refusal("ZVK0007E", "unknown collection")}));
  const Result result = load(server, documentLine("a", "x"));
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "unknown collection")) << result.err;
  EXPECT_EQ(server.requests(), 1U);
}

Script loadThatBreaks() {
  Script script = answers({done()});
  return takeWindow(script, 1).send(refusal("ZVK0014E", "disk full"));
}

TEST(Load, ThatBreaksSaysHowFarItCame) {
  HttpServer server({loadThatBreaks(), Script().awaitClose()});
  const Result result = load(server, documentLine("a", "x"));
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_EQ(result.out, "loaded 0 documents into books, 0 refused\n");
  EXPECT_TRUE(contains(result.err, "1 more document may be in the collection or not"));
  EXPECT_TRUE(contains(result.err, "disk full")) << result.err;
}

TEST(Load, ThatBreaksSaysInJsonToo) {
  HttpServer server({loadThatBreaks(), Script().awaitClose()});
  const Result result =
      runAgainst(server, {"--json", "load", "books", "-"}, documentLine("a", "x"));
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_EQ(result.out, R"({"collection":"books","loaded":0,"refused":0,"unconfirmed":1})"
                        "\n");
}

TEST(Load, SendsTheSecondOfTwoDocumentsWithOneKeyInALaterWindow) {
  Script script = loadOf(1, {{"a"}});
  takeWindow(script, 1).send(outcomes({{"a"}}));
  HttpServer server(tellAtTheEnd(script));
  const Result result = load(server, documentLine("a", "first") + documentLine("a", "second"));
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 2 documents into books, 0 refused\n");
  EXPECT_TRUE(contains(server.connection(0).requests.at(1), "first"));
  EXPECT_TRUE(contains(server.connection(0).requests.at(4), "second"));
}

// Once more with the same time-out would take as long again.
TEST(Load, IntoASilentServerEndsWhenItsTimeIsOver) {
  ScriptedNetwork network(
      Script().expectFramedRequest().send(word16(1)).expectFramedRequest().stall());
  const Result result =
      runInMemory({"load", "books", "-", "--timeout", "50"}, documentLine("a", "x"));
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_EQ(result.out, "loaded 0 documents into books, 0 refused\n");
  EXPECT_TRUE(contains(result.err, "gave no answer within 50 ms")) << result.err;
  EXPECT_EQ(network.connections(), 1U);
  EXPECT_EQ(network.elapsedMillis(), 50U);
}

TEST(Load, OfNothingAsksForNothing) {
  HttpServer server(answers({done()}));
  const Result result = load(server, "\n\n");
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 0 documents into books, 0 refused\n");
  EXPECT_EQ(server.requests(), 1U);
}

const std::string kLeftOut = "2 documents cannot be indexed";

TEST(Update, ListsWhatTheIndexLeftOut) {
  HttpServer server(answers(
      {refusal("ZVK0015E", kLeftOut), outcomes({{"stored"},
                                                {"base64:YQ==", "ZVK0015E", "term too long"},
                                                {"warned", "ZVK0100W", "language unknown"},
                                                {"base64:/w==", "ZVK0015E", "a\x1b[2J"}})}));
  const Result result = runAgainst(server, {"update", "books"});
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "corvane: the server at 127.0.0.1:" + std::to_string(server.port()) +
                            " says: " + kLeftOut +
                            " (ZVK0015E)\n"
                            "corvane: key \"a\": term too long (ZVK0015E)\n"
                            "corvane: key \"base64:/w==\": a\\u{1b}[2J (ZVK0015E)\n");
  EXPECT_TRUE(contains(server.connection(0).requests.at(1), "\naction: getParseResult\n"));
  EXPECT_TRUE(contains(server.connection(0).requests.at(1), "\nindex: books\n"));
}

TEST(Update, ListsWhatTheIndexLeftOutInJsonToo) {
  HttpServer server(answers(
      {refusal("ZVK0015E", kLeftOut), outcomes({{"base64:YQ==", "ZVK0015E", "term too long"}})}));
  const Result result = runAgainst(server, {"--json", "update", "books"});
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_EQ(result.out, "{\"refused\":\"a\",\"reason\":\"term too long (ZVK0015E)\"}\n");
  EXPECT_TRUE(contains(result.err, R"(,"id":"ZVK0015E"})")) << result.err;
}

TEST(Update, SaysWhenTheListIsCutOff) {
  Reply list{"x", kParseResult, 200, kUninterpreted};
  list.body += enveloped(record({{"Doc", "a"}, {"MsgId", "ZVK0015E"}, {"MsgText", "no"}}));
  HttpServer server(answers({refusal("ZVK0015E", kLeftOut), chunked(list, 0, false).text}));
  const Result result = runAgainst(server, {"update", "books"});
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_TRUE(contains(result.err,
                       "corvane: key \"a\": no (ZVK0015E)\n"
                       "corvane: the server broke off the list of these documents\n"))
      << result.err;
}

TEST(Update, ThatFailsOtherwiseAsksForNoList) {
  HttpServer server(answers({refusal("ZVK0014E", "disk full")}));
  EXPECT_EQ(runAgainst(server, {"update", "books"}).code, ExitCode::Failed);
  EXPECT_EQ(server.requests(), 1U);
}

TEST(Load, ThatUpdatesListsWhatTheIndexLeftOut) {
  Script script = wholeLoadOfA();
  script.expectRequest().send(refusal("ZVK0015E", kLeftOut));
  script.expectRequest().send(outcomes({{"stored"}, {"a", "ZVK0015E", "term too long"}}));
  script.expectRequest().send(outcomes({{"b", "ZVK0015E", "too many words"}}));
  HttpServer server(script);
  const Result result = load(server, documentLine("a", "x"), {"--update"});
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_EQ(result.out, "loaded 1 document into books, 0 refused\n");
  EXPECT_TRUE(contains(result.err,
                       "\ncorvane: key \"a\": term too long (ZVK0015E)\n"
                       "corvane: key \"b\": too many words (ZVK0015E)\n"))
      << result.err;
  // The server tells what a client has queued to that client alone.
  const auto requests = server.connection(0).requests;
  ASSERT_EQ(requests.size(), 8U);
  EXPECT_EQ(clientNamedIn(requests.at(6)), clientNamedIn(requests.at(1)));
  EXPECT_EQ(clientNamedIn(requests.at(7)), "none");
}

// The index is updated while the load goes on.
TEST(Load, ReportsWhatTheIndexRefusesOfAnyWindow) {
  const std::string window(std::size_t{8} << 20, 'x');
  // The last as if the document had been taken twice.
  for (const std::string told : {"first", "second", "end", "first second end"}) {
    const auto with = [&](const char* when, Outcomes rows) {
      if (contains(told, when)) rows.push_back({"base64:YQ==", "ZVK0015E", "term too long"});
      return rows;
    };
    Script script = loadOf(1, with("first", {{"a"}}));
    takeWindow(script, 1).send(outcomes(with("second", {{"b"}})));
    HttpServer server(tellAtTheEnd(script, with("end", {})));
    const Result result = load(server, documentLine("a", window) + documentLine("b", "y"));
    EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
    EXPECT_EQ(result.out, "loaded 1 document into books, 1 refused\n");
    EXPECT_EQ(result.err, "corvane: key \"a\": term too long (ZVK0015E)\n" + kNextStep);
  }
}

TEST(Load, CountsEachVersionOfADocumentThatTheIndexRefuses) {
  const std::vector<std::string> refused{"base64:YQ==", "ZVK0015E", "term too long"};
  Script script = loadOf(2, {{"a"}, {"b"}, refused});
  takeWindow(script, 2).send(outcomes({{"a"}, refused, {"c"}}));
  HttpServer server(tellAtTheEnd(script));
  const Result result = load(server, documentLine("a", "x") + documentLine("b", "x") +
                                         documentLine("a", "y") + documentLine("c", "y"));
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_EQ(result.out, "loaded 2 documents into books, 2 refused\n");
  const std::string line = "corvane: key \"a\": term too long (ZVK0015E)\n";
  EXPECT_EQ(result.err, line + line + kNextStep);
}

// The result that it was stored has been lost, so that it is sent once more.
TEST(Load, CountsADocumentOnceThatTheIndexRefusesBeforeItIsKnownToBeTaken) {
  const std::vector<std::string> refused{"base64:YQ==", "ZVK0015E", "term too long"};
  for (const bool isRefusedAgain : {false, true}) {
    for (const bool isToldBefore : {false, true}) {
      if (!isRefusedAgain && !isToldBefore) continue;
      Script script = loadOf(2, isToldBefore ? Outcomes{refused, {"b"}} : Outcomes{{"b"}});
      script.expectRequest().send(isRefusedAgain ? refusal("ZVK0015E", "term too long") : done());
      HttpServer server(tellAtTheEnd(script, {refused}));
      const Result result = load(server, documentLine("a", "x") + documentLine("b", "x"));
      EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
      EXPECT_EQ(result.out, "loaded 1 document into books, 1 refused\n");
    }
  }
}

TEST(Load, TakesNoMoreFromItsSumThanItHasLoaded) {
  Script script = loadOf(1, {{"a"}, {"b", "ZVK0015E", "no"}, {"c", "ZVK0015E", "no"}});
  HttpServer server(tellAtTheEnd(script));
  EXPECT_EQ(load(server, documentLine("a", "x")).out, "loaded 0 documents into books, 2 refused\n");
}

TEST(Load, CannotTellWhatTheIndexRefusesWithoutAnAnswerAtItsEnd) {
  HttpServer server(loadOf(1, {{"a"}}).expectRequest());
  const Result result = load(server, documentLine("a", "x"));
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_EQ(result.out, "loaded 1 document into books, 0 refused\n");
  EXPECT_TRUE(contains(result.err, "closed the connection")) << result.err;
  EXPECT_EQ(server.connections(), 1U) << "the first answer may have told it";
}

}  // namespace
