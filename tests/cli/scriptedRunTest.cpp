#include <gtest/gtest.h>

#include <sstream>
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

TEST(Failure, OfConnectingNamesHostPortCauseAndRemedyInOneLine) {
  const RefusedPort port;
  const std::string number = std::to_string(port.port());
  const Result result = runProgram({"status", "--port", number, "--protocol", "http"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "cannot connect to 127.0.0.1:" + number)) << result.err;
  EXPECT_TRUE(contains(result.err, "Connection refused")) << result.err;
  EXPECT_TRUE(contains(result.err, "check that corvaned runs there")) << result.err;
  EXPECT_TRUE(isOneLine(result.err)) << result.err;
  EXPECT_EQ(result.out, "");
}

TEST(Failure, IsAJsonObjectWithTheIdWhenJsonIsWanted) {
  const RefusedPort port;
  const Result result =
      runProgram({"status", "--json", "--port", std::to_string(port.port()), "--protocol", "http"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_EQ(result.err.rfind("{\"error\":\"cannot connect to 127.0.0.1:", 0), 0U) << result.err;
  EXPECT_TRUE(contains(result.err, "\"id\":\"ERR_CONNECT_SERVER\"}")) << result.err;
}

TEST(Failure, OfTheServerShowsItsTextItsIdAndItsAddress) {
  HttpServer server(answers({refusal("ZVK0007E", "no such collection")}));
  const Result result = runAgainst(server, {"update", "books"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_EQ(result.err, "corvane: the server at 127.0.0.1:" + std::to_string(server.port()) +
                            " says: no such collection (ZVK0007E)\n");
}

TEST(Failure, TextFromTheServerCannotSteerTheTerminal) {
  HttpServer server(answers({refusal("ZVK0007E", "\x1b[2Jgone\nnext")}));
  const Result result = runAgainst(server, {"update", "books"});
  EXPECT_TRUE(contains(result.err, "\\u{1b}[2Jgone\\u{a}next")) << result.err;
  EXPECT_TRUE(isOneLine(result.err)) << result.err;
}

TEST(Failure, OfASilentServerNamesTheTimeOut) {
  ScriptedNetwork network(Script().expectFramedRequest().stall());
  const Result result = runInMemory({"status", "--timeout", "50"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "gave no answer within 50 ms")) << result.err;
  EXPECT_TRUE(contains(result.err, "--timeout")) << result.err;
}

TEST(Failure, OfAServerThatClosesSuggestsTheOtherProtocol) {
  HttpServer server(Script().expectRequest());
  const Result result = runAgainst(server, {"status"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "closed the connection before its answer was complete"));
  EXPECT_TRUE(contains(result.err, "--protocol http")) << result.err;
}

TEST(Failure, OfAnotherKindOfServerIsNotTakenForAnAnswer) {
  HttpServer server(answers({answer(400, "?")}));
  const Result result = runAgainst(server, {"status"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "gave an answer that is not understood")) << result.err;
}

TEST(Failure, WithoutAnyReasonIsNotTakenForSuccess) {
  HttpServer server(answers({answer(404, "")}));
  const Result result = runAgainst(server, {"create", "books"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(contains(result.err, "without saying why")) << result.err;
}

TEST(Failure, OfStandardOutputIsNotSilent) {
  HttpServer server(answers({done()}));
  std::istringstream in;
  std::ostringstream out, err;
  out.setstate(std::ios::badbit);
  EXPECT_EQ(runOn({in, out, err}, {"create", "books", "--protocol", "http", "--port",
                                   std::to_string(server.port())}),
            ExitCode::Failed);
  EXPECT_TRUE(contains(err.str(), "standard output"));
}

// The peer reads the request and closes without an answer, on as many connections as there are.
TEST(Repeating, IsLeftOutWhereASecondRequestWouldFailForWhatTheFirstHasDone) {
  for (const auto& [command, doubt] : std::vector<std::pair<std::string, std::string>>{
           {"create", "created"}, {"drop", "deleted"}}) {
    HttpServer server(Script().expectRequest());
    const Result result = runAgainst(server, {command, "books"});
    EXPECT_EQ(result.code, ExitCode::Failed);
    EXPECT_TRUE(contains(result.err, "; the collection may have been " + doubt +
                                         " all the same (the request was not repeated), which "
                                         "'corvane status books' tells\n"))
        << result.err;
    EXPECT_TRUE(isOneLine(result.err)) << result.err;
    EXPECT_EQ(server.requests(), 1U);
  }
}

TEST(Repeating, HappensOnceWhereItDoesNoHarm) {
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {"add", "c", "k", "t"}, {"update", "c"}, {"delete", "c", "k"}}) {
    HttpServer server({Script().expectRequest(), answers({done()})});
    const Result result = runAgainst(server, arguments);
    EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  }
}

std::size_t timesSent(const std::string& action, const ScriptedServer& server) {
  std::size_t times = 0;
  for (std::size_t i = 0; i < server.connections(); ++i) {
    times += contains(server.connection(i).received, "action: " + action + "\n");
  }
  return times;
}

// As the manual and the help of each command say. The peer takes each request and gives no answer.
TEST(Repeating, HappensOnceOrNotAtAllAsTheCommandBearsIt) {
  struct Row {
    std::vector<std::string> arguments;
    const char* action;
    std::size_t sent;
  };
  const std::vector<Row> rows{
      {{"create", "c"}, "createCollection", 1},
      {{"configure", "c"}, "setConstructorConfiguration", 1},
      {{"drop", "c"}, "deleteCollection", 1},
      {{"add", "c", "k", "t"}, "addDocument", 2},
      {{"load", "c", "-"}, "openCollection", 2},
      {{"update", "c"}, "updateIndex", 2},
      {{"search", "c", "q"}, "search", 2},
      {{"search", "c", "q", "--limit", "2", "--pages"}, "getParseResult", 2},
      {{"search", "c", "q", "--after", "cDA="}, "getParseResult", 2},
      {{"search", "c", "q", "--limit", "2", "--also", "d"}, "getParseResult", 2},
      {{"delete", "c", "k"}, "deleteDocument", 2},
      {{"backup", "b"}, "backup", 1},
      {{"restore", "b"}, "restore", 1},
      {{"backups"}, "getParseResult", 1},
      {{"list"}, "getParseResult", 1},
      {{"list", "c"}, "getParseResult", 1},
      {{"keys", "c"}, "search", 2},
      {{"digest", "c"}, "getParseResult", 1},
      {{"status"}, "getStatus", 2},
      {{"status", "c"}, "getStatus", 2},
      {{"version"}, "getServerVersion", 2}};
  for (const auto& [arguments, action, sent] : rows) {
    HttpServer server(Script().expectRequest());
    const Result result = runAgainst(server, arguments);
    const std::string command = arguments.front() + " " + arguments.back();
    EXPECT_EQ(result.code, ExitCode::Failed) << command;
    EXPECT_EQ(timesSent(action, server), sent) << command << ": " << result.err;
  }
}

TEST(Repeating, HappensOnceForAnEstimate) {
  ScriptedServer server(Script().expectFramedRequest());
  EXPECT_EQ(runOverBinary(server, {"estimate", "c", "q"}).code, ExitCode::Failed);
  EXPECT_EQ(timesSent("selectivity", server), 2U);
}

TEST(Repeating, ThatDidNotHelpSaysWhatMayHaveBeenDone) {
  HttpServer server(Script().expectRequest());
  const Result result = runAgainst(server, {"add", "c", "k", "t"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(
      contains(result.err, "; the document may have been added; adding it again does no harm\n"))
      << result.err;
}

// A time-out for each attempt would make two of them, with a connection each.
TEST(TimeOut, CountsForTheRequestAndNotForEachAttempt) {
  ScriptedNetwork network(Script().expectFramedRequest().stall());
  const Result result = runInMemory({"update", "books", "--timeout", "50"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "gave no answer within 50 ms")) << result.err;
  EXPECT_TRUE(contains(result.err,
                       "; the server may still be updating, which "
                       "'corvane status books' tells\n"))
      << result.err;
  EXPECT_EQ(network.connections(), 1U);
  EXPECT_EQ(network.elapsedMillis(), 50U);
}

TEST(Refused, QueriesThatTheHeaderCannotHoldAreNeverSent) {
  ScriptedServer server(Script().awaitClose());
  for (const char* command : {"search", "estimate"}) {
    const Result result = runOverBinary(server, {command, "books", std::string(70000, 'q')});
    EXPECT_EQ(result.code, ExitCode::Usage);
    EXPECT_TRUE(contains(result.err, "the binary protocol takes 65535 of them")) << result.err;
    EXPECT_TRUE(isOneLine(result.err)) << result.err;
  }
  EXPECT_EQ(server.accepted(), 0U);
}

TEST(Refused, AnAdditionWithoutATextSendsNothingAndAnEmptyTextIsSent) {
  HttpServer server(answers({done()}));
  const Result refused = runAgainst(server, {"add", "books", "k"});
  EXPECT_EQ(refused.code, ExitCode::Usage);
  EXPECT_TRUE(contains(refused.err, "add needs TEXT or --file")) << refused.err;
  EXPECT_EQ(server.accepted(), 0U);
  EXPECT_EQ(runAgainst(server, {"add", "books", "k", ""}).code, ExitCode::Ok);
  EXPECT_EQ(server.requests(), 1U);
}

TEST(Refused, NamesOfFilesCannotSteerTheTerminal) {
  const Result result = runProgram({"load", "c", "/nonexistent\x1b[2J\xe2\x80\xae", "--port", "1"});
  EXPECT_TRUE(contains(result.err, "/nonexistent\\u{1b}[2J\\u{202e}")) << result.err;
}

TEST(Refused, ValuesThatWouldWriteHeaderLinesAreNeverSent) {
  HttpServer server(Script().awaitClose());
  const std::vector<std::vector<std::string>> commands = {{"create", "a\nb"},
                                                          {"drop", "a\rb"},
                                                          {"update", "a\r\nb"},
                                                          {"add", "a\nb", "k", "t"},
                                                          {"load", "a\nb", "-"},
                                                          {"search", "a\nb", "q"},
                                                          {"search", "c", "q\nx: y"},
                                                          {"estimate", "c", "q\r"},
                                                          {"estimate", "c\n", "q"},
                                                          {"delete", "c\n", "k"},
                                                          {"status", "c\n"},
                                                          {"search", "c", ""},
                                                          {"search", "c", "\xff"},
                                                          {"create", ""},
                                                          {"create", "c", "--refresh", ""},
                                                          {"create", "c", "--stop-words", "a\nb"},
                                                          {"create", "c", "--language", ""},
                                                          {"list", "c\n"},
                                                          {"list", ""}};
  for (const auto& command : commands) {
    const Result result = runAgainst(server, command);
    EXPECT_EQ(result.code, ExitCode::Usage) << command[0];
    EXPECT_TRUE(isOneLine(result.err)) << result.err;
    EXPECT_EQ(result.out, "");
  }
  EXPECT_EQ(server.accepted(), 0U);
}

TEST(Refused, KeysThatNoDocumentCanHaveAreNeverSent) {
  HttpServer server(Script().awaitClose());
  const std::string tooLong(129, 'k');
  EXPECT_EQ(runAgainst(server, {"add", "c", "", "t"}).code, ExitCode::Usage);
  EXPECT_EQ(runAgainst(server, {"add", "c", tooLong, "t"}).code, ExitCode::Usage);
  EXPECT_EQ(runAgainst(server, {"delete", "c", "k", tooLong}).code, ExitCode::Usage);
  EXPECT_EQ(runAgainst(server, {"delete", "c", "--base64", "?"}).code, ExitCode::Usage);
  EXPECT_EQ(runAgainst(server, {"add", "c", "k", "t", "--meta", "novalue"}).code, ExitCode::Usage);
  EXPECT_EQ(server.accepted(), 0U);
}

TEST(Refused, FilesThatCannotBeReadAreNamedAndNothingIsSent) {
  HttpServer server(Script().awaitClose());
  for (const char* path : {"/nonexistent/file.jsonl", "/"}) {
    for (const auto& command : std::vector<std::vector<std::string>>{
             {"load", "c", path}, {"add", "c", "k", "--file", path}}) {
      const Result result = runAgainst(server, command);
      EXPECT_EQ(result.code, ExitCode::Failed) << path;
      EXPECT_TRUE(contains(result.err, std::string("cannot read ") + path)) << result.err;
    }
  }
  EXPECT_EQ(server.accepted(), 0U);
}

TEST(Create, SendsEachOptionThatIsGivenAndNoOther) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> options = {
      {{"--refresh", "1000"}, "\nrefresh: 1000\n"},
      {{"--language", "de"}, "\ndocLang: de\n"},
      {{"--stop-words", "der,die"}, "\nstopWords: der,die\n"},
      {{"--without-text"}, "\nstoreText: false\n"},
      {{"--without-positions"}, "\nstorePositions: false\n"},
      {{"--without-stemming"}, "\nstemming: false\n"},
      {{"--marked-metadata"}, "\nsearchableMetadata: marked\n"}};
  for (const auto& [given, line] : options) {
    HttpServer server(answers({done()}));
    std::vector<std::string> arguments{"create", "books"};
    arguments.insert(arguments.end(), given.begin(), given.end());
    EXPECT_EQ(runAgainst(server, arguments).out, "created books\n");
    const std::string sent = server.connection(0).requests.at(0);
    for (const auto& [others, each] : options) {
      EXPECT_EQ(contains(sent, each), each == line) << given[0] << '\n' << sent;
    }
  }
}

TEST(Command, SendsItsCollectionAndSaysWhatItDid) {
  const std::vector<std::vector<std::string>> commands = {
      {"create", "createCollection", "created books\n"},
      {"drop", "deleteCollection", "dropped books\n"},
      {"update", "updateIndex", "updated books\n"}};
  for (const auto& command : commands) {
    HttpServer server(answers({done()}));
    const Result result = runAgainst(server, {command[0], "books"});
    EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
    EXPECT_EQ(result.out, command[2]);
    const std::string sent = server.connection(0).requests.at(0);
    EXPECT_TRUE(contains(sent, "\naction: " + command[1] + "\n")) << sent;
    EXPECT_TRUE(contains(sent, "\nindex: books\n")) << sent;
  }
}

TEST(Add, SendsKeyMetadataAndText) {
  HttpServer server(answers({done()}));
  const Result result = runAgainst(
      server, {"add", "books", "k1", "a\r\nb", "--meta", "author=W", "--meta", "year=1=8"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  const std::string sent = server.connection(0).requests.at(0);
  EXPECT_TRUE(contains(sent, enveloped("author") + enveloped("W") + enveloped("year") +
                                 enveloped("1=8") + enveloped("rowId") + enveloped("k1") +
                                 enveloped("data") + enveloped("a\r\nb")));
}

TEST(Add, GivesADocumentWithoutMetadataThePairOfItsKey) {
  HttpServer server(answers({done()}));
  EXPECT_EQ(runAgainst(server, {"add", "books", "k1", "t"}).code, ExitCode::Ok);
  EXPECT_TRUE(contains(server.connection(0).requests.at(0),
                       enveloped("key") + enveloped("k1") + enveloped("rowId") + enveloped("k1")));
}

TEST(Add, TakesTheTextFromStandardInput) {
  HttpServer server(answers({done()}));
  const std::string text("line\nNUL\0end", 12);
  EXPECT_EQ(runAgainst(server, {"add", "books", "k1", "--file", "-"}, text).code, ExitCode::Ok);
  EXPECT_TRUE(contains(server.connection(0).requests.at(0), enveloped("data") + enveloped(text)));
}

TEST(Add, SaysWhyStandardInputCannotBeRead) {
  struct FailingBuffer : std::streambuf {
    int_type underflow() override {
      throw std::ios_base::failure("read", std::make_error_code(std::errc::io_error));
    }
  };
  FailingBuffer buffer;
  std::istream in(&buffer);
  std::ostringstream out, err;
  EXPECT_EQ(runOn({in, out, err}, {"--port", "1", "add", "books", "k", "--file", "-"}),
            ExitCode::Failed);
  EXPECT_EQ(err.str(), "corvane: cannot read standard input: " +
                           std::make_error_code(std::errc::io_error).message() + "\n");
}

TEST(Delete, SendsEachKeyAsText) {
  HttpServer server(answers({done(), done()}));
  const Result result = runAgainst(server, {"delete", "books", "k1", "k2"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "deleted k1\ndeleted k2\n");
  EXPECT_TRUE(contains(server.connection(0).requests.at(1), enveloped("rowId") + enveloped("k2")));
}

TEST(Delete, SendsTheBytesThatBase64StandsFor) {
  HttpServer server(answers({done(), done()}));
  const Result result = runAgainst(server, {"delete", "books", "--base64", "base64:AP8=", "Zm9v"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  const auto connection = server.connection(0);
  EXPECT_TRUE(contains(connection.requests.at(0),
                       enveloped("rowId") + enveloped(std::string("\0\xff", 2))));
  EXPECT_TRUE(contains(connection.requests.at(1), enveloped("rowId") + enveloped("foo")));
}

TEST(Status, ExplainsTheServersCode) {
  const std::vector<std::pair<std::string, ExitCode>> codes = {
      {"0", ExitCode::Ok}, {"1", ExitCode::Ok}, {"2", ExitCode::Failed}, {"17", ExitCode::Failed}};
  for (const auto& [code, exit] : codes) {
    HttpServer server(
        answers({answer(200, kUninterpreted + enveloped(record({{"STATUS_CODE", code}})))}));
    const Result result = runAgainst(server, {"status"});
    EXPECT_EQ(result.code, exit) << code;
    EXPECT_TRUE(contains(result.out, " (" + code + ")\n")) << result.out;
  }
}

TEST(Version, SaysThatTheHttpReplyCarriesNone) {
  HttpServer server(answers({answer(200, "Corvane 1.0")}));
  const Result result = runAgainst(server, {"version"});
  EXPECT_EQ(result.code, ExitCode::Ok);
  EXPECT_TRUE(contains(result.out, "carries no version text")) << result.out;
}

TEST(Estimate, IsRefusedOverTheProtocolWhoseReplyCarriesNone) {
  HttpServer server(Script().awaitClose());
  const Result result = runAgainst(server, {"estimate", "books", "q"});
  EXPECT_EQ(result.code, ExitCode::Usage);
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(contains(result.err, "carries no estimate; use --protocol binary")) << result.err;
  EXPECT_EQ(server.accepted(), 0U);
}

TEST(Estimate, AgreesInNumber) {
  ScriptedServer server(Script().expectFramedRequest().send(
      word16(1) +
      envelope(1, word16(0) + word16(1) + word16(0) + word16(1) + word16(0) + word16(2)) +
      endOfResults()));
  const Result result = runOverBinary(server, {"estimate", "books", "q"});
  EXPECT_EQ(result.out, "about 1 hit, at most 2, of 1 document\n") << result.err;
}

}  // namespace
