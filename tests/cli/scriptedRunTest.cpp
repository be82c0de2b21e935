#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "cli/run.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/scriptedServer.h"

using namespace corvane;
using namespace tq::test;

namespace {

struct Result {
  ExitCode code;
  std::string out, err;
};

Result runProgram(std::vector<std::string> arguments, const std::string& input = {}) {
  arguments.insert(arguments.begin(), "corvane");
  std::vector<const char*> pointers;
  for (const auto& argument : arguments) pointers.push_back(argument.c_str());
  std::istringstream in(input);
  std::ostringstream out, err;
  const ExitCode code = run(static_cast<int>(pointers.size()), pointers.data(), {in, out, err});
  return {code, out.str(), err.str()};
}

// The whole program against a server that follows the scripts, over the HTTP-style protocol.
Result runAgainst(const ScriptedServer& server, std::vector<std::string> arguments,
                  const std::string& input = {}) {
  arguments.insert(arguments.end(),
                   {"--protocol", "http", "--port", std::to_string(server.port())});
  return runProgram(std::move(arguments), input);
}

const std::string kUninterpreted(4, '\0');
const std::string kEndMark(4, '\0');

std::string answer(int status, const std::string& body) {
  Reply reply{"x", kGetStatus, status, body};
  return plain(reply);
}

std::string done() { return answer(200, ""); }

std::string refusal(const std::string& id, const std::string& text) {
  return answer(500, kUninterpreted + enveloped(record({{"MsgId", id}, {"MsgText", text}})));
}

std::string hits(const std::vector<std::pair<std::string, std::string>>& idsAndScores) {
  std::string body = kUninterpreted;
  for (const auto& [id, score] : idsAndScores) body += enveloped(hitRecord(id, score));
  return body;
}

std::string outcomes(const std::vector<std::vector<std::string>>& rows) {
  std::string body = kUninterpreted;
  for (const auto& row : rows) {
    std::vector<std::pair<std::string, std::string>> fields{{"Doc", row[0]}};
    if (row.size() > 1) fields.insert(fields.end(), {{"MsgId", row[1]}, {"MsgText", row[2]}});
    body += enveloped(record(fields));
  }
  return answer(200, body + kEndMark);
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

bool isOneLine(const std::string& text) {
  return !text.empty() && text.find('\n') == text.size() - 1;
}

std::string documentLine(const std::string& key, const std::string& text) {
  return R"({"key":")" + key + R"(","text":")" + text + "\"}\n";
}

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
  ScriptedServer server(Script().expectRequest().send(refusal("ZVK0007E", "no such collection")));
  const Result result = runAgainst(server, {"update", "books"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_EQ(result.err, "corvane: the server at 127.0.0.1:" + std::to_string(server.port()) +
                            " says: no such collection (ZVK0007E)\n");
}

TEST(Failure, TextFromTheServerCannotSteerTheTerminal) {
  ScriptedServer server(Script().expectRequest().send(refusal("ZVK0007E", "\x1b[2Jgone\nnext")));
  const Result result = runAgainst(server, {"update", "books"});
  EXPECT_TRUE(contains(result.err, "\\u{1b}[2Jgone\\u{a}next")) << result.err;
  EXPECT_TRUE(isOneLine(result.err)) << result.err;
}

TEST(Failure, OfASilentServerNamesTheTimeOut) {
  ScriptedServer server(Script().expectRequest().stall());
  const Result result = runAgainst(server, {"status", "--timeout", "50"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "gave no answer within 50 ms")) << result.err;
  EXPECT_TRUE(contains(result.err, "--timeout")) << result.err;
}

TEST(Failure, OfAServerThatClosesSuggestsTheOtherProtocol) {
  ScriptedServer server(Script().expectRequest());
  const Result result = runAgainst(server, {"status"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "closed the connection before its answer was complete"));
  EXPECT_TRUE(contains(result.err, "--protocol http")) << result.err;
}

TEST(Failure, OfAnotherKindOfServerIsNotTakenForAnAnswer) {
  ScriptedServer server(Script().expectRequest().send(answer(400, "?")));
  const Result result = runAgainst(server, {"status"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "gave an answer that is not understood")) << result.err;
}

TEST(Failure, WithoutAnyReasonIsNotTakenForSuccess) {
  ScriptedServer server(Script().expectRequest().send(answer(404, "")));
  const Result result = runAgainst(server, {"create", "books"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(contains(result.err, "without saying why")) << result.err;
}

TEST(Failure, OfStandardOutputIsNotSilent) {
  ScriptedServer server(Script().expectRequest().send(done()));
  const std::string port = std::to_string(server.port());
  const std::vector<const char*> arguments = {"corvane",    "create",     "books", "--port",
                                              port.c_str(), "--protocol", "http"};
  std::istringstream in;
  std::ostringstream out, err;
  out.setstate(std::ios::badbit);
  EXPECT_EQ(run(static_cast<int>(arguments.size()), arguments.data(), {in, out, err}),
            ExitCode::Failed);
  EXPECT_TRUE(contains(err.str(), "standard output"));
}

// The peer reads the request and closes without an answer, on as many connections as there are.
TEST(Repeating, IsLeftOutWhereASecondRequestWouldFailForWhatTheFirstHasDone) {
  for (const auto& [command, doubt] : std::vector<std::pair<std::string, std::string>>{
           {"create", "created"}, {"drop", "deleted"}}) {
    ScriptedServer server(Script().expectRequest());
    const Result result = runAgainst(server, {command, "books"});
    EXPECT_EQ(result.code, ExitCode::Failed);
    EXPECT_TRUE(contains(result.err, "; the collection may have been " + doubt +
                                         " all the same (the request was not repeated), which "
                                         "'corvane status books' tells\n"))
        << result.err;
    EXPECT_TRUE(isOneLine(result.err)) << result.err;
    // Beside it at most a question in the other protocol, which carries no such action.
    std::size_t sent = 0;
    for (std::size_t i = 0; i < server.connections(); ++i) {
      sent += contains(server.connection(i).received, "Collection\n");
    }
    EXPECT_EQ(sent, 1U);
  }
}

TEST(Repeating, HappensOnceWhereItDoesNoHarm) {
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {"add", "c", "k", "t"}, {"update", "c"}, {"delete", "c", "k"}}) {
    ScriptedServer server({Script().expectRequest(), Script().expectRequest().send(done())});
    const Result result = runAgainst(server, arguments);
    EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  }
}

TEST(Repeating, ThatDidNotHelpSaysWhatMayHaveBeenDone) {
  ScriptedServer server(Script().expectRequest());
  const Result result = runAgainst(server, {"add", "c", "k", "t"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(
      contains(result.err, "; the document may have been added; adding it again does no harm\n"))
      << result.err;
}

// A time-out for each attempt would make two of them, with a connection each.
TEST(TimeOut, CountsForTheRequestAndNotForEachAttempt) {
  ScriptedServer server(Script().expectRequest().stall());
  const Result result = runAgainst(server, {"update", "books", "--timeout", "50"});
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "gave no answer within 50 ms")) << result.err;
  EXPECT_TRUE(contains(result.err,
                       "; the server may still be updating, which "
                       "'corvane status books' tells\n"))
      << result.err;
  EXPECT_EQ(server.connections(), 1U);
}

TEST(Refused, QueriesThatTheHeaderCannotHoldAreNeverSent) {
  ScriptedServer server(Script().awaitClose());
  for (const char* command : {"search", "estimate"}) {
    const Result result = runProgram(
        {command, "books", std::string(70000, 'q'), "--port", std::to_string(server.port())});
    EXPECT_EQ(result.code, ExitCode::Usage);
    EXPECT_TRUE(contains(result.err, "the binary protocol takes 65535 of them")) << result.err;
    EXPECT_TRUE(isOneLine(result.err)) << result.err;
  }
  EXPECT_EQ(server.connections(), 0U);
}

TEST(Refused, AnAdditionWithoutATextSendsNothingAndAnEmptyTextIsSent) {
  ScriptedServer server(Script().expectRequest().send(done()));
  const Result refused = runAgainst(server, {"add", "books", "k"});
  EXPECT_EQ(refused.code, ExitCode::Usage);
  EXPECT_TRUE(contains(refused.err, "add needs TEXT or --file")) << refused.err;
  EXPECT_EQ(server.connections(), 0U);
  EXPECT_EQ(runAgainst(server, {"add", "books", "k", ""}).code, ExitCode::Ok);
  EXPECT_EQ(server.requests(), 1U);
}

TEST(Refused, NamesOfFilesCannotSteerTheTerminal) {
  const Result result = runProgram({"load", "c", "/nonexistent\x1b[2J\xe2\x80\xae", "--port", "1"});
  EXPECT_TRUE(contains(result.err, "/nonexistent\\u{1b}[2J\\u{202e}")) << result.err;
}

TEST(Refused, ValuesThatWouldWriteHeaderLinesAreNeverSent) {
  ScriptedServer server(Script().awaitClose());
  const std::vector<std::vector<std::string>> commands = {
      {"create", "a\nb"},         {"drop", "a\rb"},
      {"update", "a\r\nb"},       {"add", "a\nb", "k", "t"},
      {"load", "a\nb", "-"},      {"search", "a\nb", "q"},
      {"search", "c", "q\nx: y"}, {"estimate", "c", "q\r"},
      {"estimate", "c\n", "q"},   {"delete", "c\n", "k"},
      {"status", "c\n"},          {"search", "c", ""},
      {"search", "c", "\xff"},    {"create", ""}};
  for (const auto& command : commands) {
    const Result result = runAgainst(server, command);
    EXPECT_EQ(result.code, ExitCode::Usage) << command[0];
    EXPECT_TRUE(isOneLine(result.err)) << result.err;
    EXPECT_EQ(result.out, "");
  }
  EXPECT_EQ(server.connections(), 0U);
}

TEST(Refused, KeysThatNoDocumentCanHaveAreNeverSent) {
  ScriptedServer server(Script().awaitClose());
  const std::string tooLong(129, 'k');
  EXPECT_EQ(runAgainst(server, {"add", "c", "", "t"}).code, ExitCode::Usage);
  EXPECT_EQ(runAgainst(server, {"add", "c", tooLong, "t"}).code, ExitCode::Usage);
  EXPECT_EQ(runAgainst(server, {"delete", "c", "k", tooLong}).code, ExitCode::Usage);
  EXPECT_EQ(runAgainst(server, {"delete", "c", "--base64", "?"}).code, ExitCode::Usage);
  EXPECT_EQ(runAgainst(server, {"add", "c", "k", "t", "--meta", "novalue"}).code, ExitCode::Usage);
  EXPECT_EQ(server.connections(), 0U);
}

TEST(Refused, FilesThatCannotBeReadAreNamedAndNothingIsSent) {
  ScriptedServer server(Script().awaitClose());
  for (const char* path : {"/nonexistent/file.jsonl", "/"}) {
    for (const auto& command : std::vector<std::vector<std::string>>{
             {"load", "c", path}, {"add", "c", "k", "--file", path}}) {
      const Result result = runAgainst(server, command);
      EXPECT_EQ(result.code, ExitCode::Failed) << path;
      EXPECT_TRUE(contains(result.err, std::string("cannot read ") + path)) << result.err;
    }
  }
  EXPECT_EQ(server.connections(), 0U);
}

TEST(Command, SendsItsCollectionAndSaysWhatItDid) {
  const std::vector<std::vector<std::string>> commands = {
      {"create", "createCollection", "created books\n"},
      {"drop", "deleteCollection", "dropped books\n"},
      {"update", "updateIndex", "updated books\n"}};
  for (const auto& command : commands) {
    ScriptedServer server(Script().expectRequest().send(done()));
    const Result result = runAgainst(server, {command[0], "books"});
    EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
    EXPECT_EQ(result.out, command[2]);
    const std::string sent = server.connection(0).requests.at(0);
    EXPECT_TRUE(contains(sent, "\naction: " + command[1] + "\n")) << sent;
    EXPECT_TRUE(contains(sent, "\nindex: books\n")) << sent;
  }
}

TEST(Add, SendsKeyMetadataAndText) {
  ScriptedServer server(Script().expectRequest().send(done()));
  const Result result = runAgainst(
      server, {"add", "books", "k1", "a\r\nb", "--meta", "author=W", "--meta", "year=1=8"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  const std::string sent = server.connection(0).requests.at(0);
  EXPECT_TRUE(contains(sent, enveloped("author") + enveloped("W") + enveloped("year") +
                                 enveloped("1=8") + enveloped("rowId") + enveloped("k1") +
                                 enveloped("data") + enveloped("a\r\nb")));
}

TEST(Add, GivesADocumentWithoutMetadataThePairOfItsKey) {
  ScriptedServer server(Script().expectRequest().send(done()));
  EXPECT_EQ(runAgainst(server, {"add", "books", "k1", "t"}).code, ExitCode::Ok);
  EXPECT_TRUE(contains(server.connection(0).requests.at(0),
                       enveloped("key") + enveloped("k1") + enveloped("rowId") + enveloped("k1")));
}

TEST(Add, TakesTheTextFromStandardInput) {
  ScriptedServer server(Script().expectRequest().send(done()));
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
  const std::vector<const char*> words{"corvane", "--port", "1",      "add",
                                       "books",   "k",      "--file", "-"};
  EXPECT_EQ(run(static_cast<int>(words.size()), words.data(), {in, out, err}), ExitCode::Failed);
  EXPECT_EQ(err.str(), "corvane: cannot read standard input: " +
                           std::make_error_code(std::errc::io_error).message() + "\n");
}

TEST(Delete, SendsEachKeyAsText) {
  ScriptedServer server(Script().expectRequest().send(done()).expectRequest().send(done()));
  const Result result = runAgainst(server, {"delete", "books", "k1", "k2"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "deleted k1\ndeleted k2\n");
  EXPECT_TRUE(contains(server.connection(0).requests.at(1), enveloped("rowId") + enveloped("k2")));
}

TEST(Delete, SendsTheBytesThatBase64StandsFor) {
  ScriptedServer server(Script().expectRequest().send(done()).expectRequest().send(done()));
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
    ScriptedServer server(Script().expectRequest().send(
        answer(200, kUninterpreted + enveloped(record({{"STATUS_CODE", code}})))));
    const Result result = runAgainst(server, {"status"});
    EXPECT_EQ(result.code, exit) << code;
    EXPECT_TRUE(contains(result.out, " (" + code + ")\n")) << result.out;
  }
}

TEST(Version, SaysThatTheHttpReplyCarriesNone) {
  ScriptedServer server(Script().expectRequest().send(answer(200, "Corvane 1.0")));
  const Result result = runAgainst(server, {"version"});
  EXPECT_EQ(result.code, ExitCode::Ok);
  EXPECT_TRUE(contains(result.out, "carries no version text")) << result.out;
}

TEST(Estimate, IsRefusedOverTheProtocolWhoseReplyCarriesNone) {
  ScriptedServer server(Script().awaitClose());
  const Result result = runAgainst(server, {"estimate", "books", "q"});
  EXPECT_EQ(result.code, ExitCode::Usage);
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(contains(result.err, "carries no estimate; use --protocol binary")) << result.err;
  EXPECT_EQ(server.connections(), 0U);
}

TEST(Estimate, AgreesInNumber) {
  ScriptedServer server(Script().expectFramedRequest().send(
      word16(1) +
      envelope(1, word16(0) + word16(1) + word16(0) + word16(1) + word16(0) + word16(2)) +
      endOfResults()));
  const Result result =
      runProgram({"estimate", "books", "q", "--port", std::to_string(server.port())});
  EXPECT_EQ(result.out, "about 1 hit, at most 2, of 1 document\n") << result.err;
}

TEST(Search, PrintsRankScoreAndKey) {
  ScriptedServer server(Script().expectRequest().send(answer(
      200, hits({{"base64:Zm9v", "12.345"}, {"base64:AP8=", "0.5"}, {"plain", ""}}) + kEndMark)));
  const Result result = runAgainst(server, {"search", "books", "whale ship"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out,
            "    1   12.345  foo\n"
            "    2    0.500  base64:AP8=\n"
            "    3    0.000  plain\n");
}

TEST(Search, PrintsJsonLines) {
  ScriptedServer server(Script().expectRequest().send(
      answer(200, hits({{"base64:Zm9v", "0.5"}, {"base64:AP8=", "0.25"}}) + kEndMark)));
  const Result result = runAgainst(server, {"search", "books", "q", "--json"});
  EXPECT_EQ(result.out,
            "{\"rank\":1,\"score\":0.5,\"key\":\"foo\",\"docId\":\"base64:Zm9v\"}\n"
            "{\"rank\":2,\"score\":0.25,\"docId\":\"base64:AP8=\"}\n");
}

TEST(Search, SendsQueryStartAndLimitAndCountsRanksFromThere) {
  ScriptedServer server(
      Script().expectRequest().send(answer(200, hits({{"base64:Zm9v", "1"}}) + kEndMark)));
  const Result result =
      runAgainst(server, {"search", "books", "a: b", "--start", "20", "--limit", "10"});
  EXPECT_EQ(result.out, "   21    1.000  foo\n");
  const std::string sent = server.connection(0).requests.at(0);
  for (const char* line : {"\nquery: a: b\n", "\nstart: 20\n", "\nsize: 10\n",
                           "\nmode: streaming\n", "\nscoreWanted: true\n"}) {
    EXPECT_TRUE(contains(sent, line)) << sent;
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
  ScriptedServer server(Script().expectRequest().send(chunkedAt(reply, ends, true).text, 16));
  const Result result = runAgainst(server, {"search", "books", "q"});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "    1    3.000  a\n    2    2.000  b\n    3    2.000  c\n");
}

TEST(Search, ThatFindsNothingSaysSoAndSucceeds) {
  ScriptedServer server(Script().expectRequest().send(answer(200, kUninterpreted + kEndMark)));
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
    ScriptedServer server(Script().expectRequest().send(answer(200, kUninterpreted + kEndMark)));
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
  ScriptedServer server(
      Script().expectRequest().send(whole.text.substr(0, whole.chunks.at(1).dataBegin + 5)));
  const Result result = runAgainst(server, {"search", "books", "q"});
  EXPECT_EQ(result.code, ExitCode::Truncated);
  EXPECT_EQ(result.out, "    1    3.000  a\n");
  EXPECT_TRUE(contains(result.err, "was cut off after 1 hit (the server ended it early)"))
      << result.err;
  // The port was right: the hits came from it.
  EXPECT_FALSE(contains(result.err, "--port")) << result.err;
}

TEST(Search, ThatStopsInTheMiddleOfAStreamIsCutOffToo) {
  Reply reply{"x", kStreamSearch, 200, hits({{"base64:YQ==", "3"}})};
  const auto text = chunkedAt(reply, {reply.body.size()}, false).text;
  ScriptedServer server(Script().expectRequest().send(text).stall());
  const Result result = runAgainst(server, {"search", "books", "q", "--timeout", "50"});
  EXPECT_EQ(result.code, ExitCode::Truncated);
  EXPECT_EQ(result.out, "    1    3.000  a\n");
  EXPECT_TRUE(contains(result.err, "within 50 ms")) << result.err;
}

TEST(Search, OverTheBinaryProtocolIsCutOffToo) {
  const std::string begin = word16(1) + scoredHit(3000, "a") + scoredHit(2000, "b");
  for (const std::string& end : {std::string(), scoredHit(1000, "c").substr(0, 5)}) {
    ScriptedServer server(Script().expectFramedRequest().send(begin + end));
    const Result result =
        runProgram({"search", "books", "q", "--port", std::to_string(server.port())});
    EXPECT_NE(result.code, ExitCode::Ok);
    EXPECT_TRUE(result.out.empty() || result.code == ExitCode::Truncated) << result.out;
    EXPECT_TRUE(isOneLine(result.err)) << result.err;
  }
}

TEST(Search, OverTheBinaryProtocolPrintsScoresOfTheSameForm) {
  ScriptedServer server(Script().expectFramedRequest().send(
      word16(1) + scoredHit(12345, "foo") + scoredHit(500, "b") + endOfResults(), 3));
  const Result result =
      runProgram({"search", "books", "q", "--port", std::to_string(server.port())});
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "    1   12.345  foo\n    2    0.500  b\n");
}

const std::string nextStep = "searches find the documents after 'corvane update books'\n";

TEST(Load, QueuesDocumentsAndReportsWhatTheServerTook) {
  ScriptedServer server(Script()
                            .expectRequest()
                            .send(done())
                            .expectRequest()
                            .expectRequest()
                            .expectRequest()
                            .expectRequest()
                            .send(outcomes({{"a"}, {"b", "ZVK0012E", "too strange"}}))
                            .expectRequest()
                            .send(refusal("ZVK0012E", "too strange")));
  const Result result =
      runAgainst(server, {"load", "books", "-"}, documentLine("a", "x") + documentLine("b", "y"));
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_EQ(result.out, "loaded 1 document into books, 1 refused\n");
  EXPECT_EQ(result.err, "corvane: line 2, key \"b\": too strange (ZVK0012E)\n" + nextStep);
  const auto requests = server.connection(0).requests;
  ASSERT_EQ(requests.size(), 6U);
  EXPECT_TRUE(contains(requests[0], "\naction: openCollection\n"));
  EXPECT_TRUE(contains(requests[1], enveloped("rowId") + enveloped("a")));
  EXPECT_EQ(requests[3].substr(requests[3].size() - 8), std::string(8, '\0'));
  EXPECT_TRUE(contains(requests[4], "\naction: getParseResult\n"));
}

TEST(Load, GoesOnBehindLinesThatAreNoDocuments) {
  ScriptedServer server(
      Script().expectRequest().send(done()).expectRequest().expectRequest().expectRequest().send(
          outcomes({{"base64:YQ=="}})));
  const Result result = runAgainst(server, {"load", "books", "-", "--json"},
                                   "oops\n" + documentLine("a", "x") + "{\"key\":\"c\"}\n");
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_TRUE(contains(result.out, "{\"refused\":\"\",\"line\":1,\"reason\":\"not JSON: "));
  EXPECT_TRUE(contains(
      result.out, "{\"refused\":\"c\",\"line\":3,\"reason\":\"the object has no \\\"text\\\"\"}"));
  EXPECT_TRUE(contains(result.out, "{\"collection\":\"books\",\"loaded\":1,\"refused\":2}\n"));
  EXPECT_EQ(result.err, "");
}

TEST(Load, CountsADocumentWithAWarningAsLoaded) {
  ScriptedServer server(
      Script().expectRequest().send(done()).expectRequest().expectRequest().expectRequest().send(
          outcomes({{"a", "ZVK0100W", "language unknown"}})));
  const Result result = runAgainst(server, {"load", "books", "-"}, documentLine("a", "x"));
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 1 document into books, 0 refused\n");
}

// What another client of the collection queued, or took, must not be counted as this load's.
Script loadOfTwoOfWhichOnlyTheFirstIsConfirmed() {
  return Script()
      .expectRequest()
      .send(done())
      .expectRequest()
      .expectRequest()
      .expectRequest()
      .expectRequest()
      .send(outcomes({{"a"}, {"somebody else's"}, {"third", "ZVK0012E", "too strange"}}))
      .expectRequest();
}

TEST(Load, AsksAboutADocumentThatNoResultNamesByAnAdditionOfItsOwn) {
  ScriptedServer server(loadOfTwoOfWhichOnlyTheFirstIsConfirmed().send(done()));
  const Result result =
      runAgainst(server, {"load", "books", "-"}, documentLine("a", "x") + documentLine("b", "y"));
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 2 documents into books, 0 refused\n");
  EXPECT_EQ(result.err, nextStep);
  const auto requests = server.connection(0).requests;
  EXPECT_TRUE(contains(requests.at(5), "\naction: addDocument\n"));
  EXPECT_TRUE(contains(requests.at(5), enveloped("rowId") + enveloped("b")));
}

TEST(Load, QueuesManyDocumentsAgainWhileThatSettlesSomeOfThem) {
  std::string lines;
  for (char key = 'a'; key < 'a' + 12; ++key) {
    lines += documentLine(std::string(1, key), "x");
  }
  const auto round = [](Script& script, std::size_t queued, const std::string& results) {
    for (std::size_t i = 0; i < queued + 2; ++i) script.expectRequest();
    script.send(results);
  };
  Script script = Script().expectRequest().send(done());
  round(script, 12, outcomes({{"a"}}));
  round(script, 11, outcomes({}));
  // That round settled nothing.
  for (int i = 0; i < 11; ++i) script.expectRequest().send(done());
  ScriptedServer server(script);
  const Result result = runAgainst(server, {"load", "books", "-"}, lines);
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 12 documents into books, 0 refused\n");
  EXPECT_EQ(server.requests(), 1U + 14 + 13 + 11);
}

TEST(Load, ReportsTheReasonThatTheAdditionIsGiven) {
  ScriptedServer server(
      loadOfTwoOfWhichOnlyTheFirstIsConfirmed().send(refusal("ZVK0013E", "too long")));
  const Result result =
      runAgainst(server, {"load", "books", "-"}, documentLine("a", "x") + documentLine("b", "y"));
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_EQ(result.out, "loaded 1 document into books, 1 refused\n");
  EXPECT_EQ(result.err, "corvane: line 2, key \"b\": too long (ZVK0013E)\n" + nextStep);
}

TEST(Load, DoesNotTakeTheRefusalOfAnotherClientsDocumentWithTheSameKeyForItsOwn) {
  for (const auto& rows : std::vector<std::vector<std::vector<std::string>>>{
           {{"a", "ZVK0012E", "too strange"}},
           {{"a"}, {"a", "ZVK0012E", "too strange"}},
           {{"a", "ZVK0012E", "too strange"}, {"a"}}}) {
    ScriptedServer server(Script()
                              .expectRequest()
                              .send(done())
                              .expectRequest()
                              .expectRequest()
                              .expectRequest()
                              .send(outcomes(rows))
                              .expectRequest()
                              .send(done()));
    const Result result = runAgainst(server, {"load", "books", "-"}, documentLine("a", "x"));
    EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
    EXPECT_EQ(result.out, "loaded 1 document into books, 0 refused\n");
    EXPECT_TRUE(contains(server.connection(0).requests.at(4), "\naction: addDocument\n"));
  }
}

TEST(Load, SendsTheWindowAgainWhenTheConnectionBreaks) {
  const Script broken =
      Script().expectRequest().send(done()).expectRequest().expectRequest().expectRequest();
  const Script whole =
      Script().expectRequest().expectRequest().expectRequest().send(outcomes({{"a"}}));
  ScriptedServer server({broken, whole});
  const Result result = runAgainst(server, {"load", "books", "-"}, documentLine("a", "x"));
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 1 document into books, 0 refused\n");
}

TEST(Load, StopsAtTheNumberOfRefusalsThatIsAllowed) {
  ScriptedServer server(
      Script().expectRequest().send(done()).expectRequest().expectRequest().expectRequest().send(
          outcomes({{"a"}})));
  const Result result = runAgainst(server, {"load", "books", "-", "--max-errors", "2"},
                                   "bad\n" + documentLine("a", "x") + "bad\nbad\n");
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_EQ(result.out, "loaded 1 document into books, 2 refused\n");
  EXPECT_TRUE(contains(result.err, "corvane: line 3: not JSON")) << result.err;
  EXPECT_FALSE(contains(result.err, "line 4")) << result.err;
  EXPECT_TRUE(contains(result.err, "stopped after line 3, because of --max-errors 2\n"));
}

TEST(Load, MakesTheDocumentsSearchableWhenAsked) {
  ScriptedServer server(Script()
                            .expectRequest()
                            .send(done())
                            .expectRequest()
                            .expectRequest()
                            .expectRequest()
                            .send(outcomes({{"a"}}))
                            .expectRequest()
                            .send(done()));
  const Result result =
      runAgainst(server, {"load", "books", "-", "--update"}, documentLine("a", "x"));
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 1 document into books, 0 refused\nupdated books\n");
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(contains(server.connection(0).requests.at(4), "\naction: updateIndex\n"));
}

const std::string leftOut = "2 documents cannot be indexed";

TEST(Update, ListsWhatTheIndexLeftOut) {
  ScriptedServer server(Script()
                            .expectRequest()
                            .send(refusal("ZVK0015E", leftOut))
                            .expectRequest()
                            .send(outcomes({{"stored"},
                                            {"base64:YQ==", "ZVK0015E", "term too long"},
                                            {"warned", "ZVK0100W", "language unknown"},
                                            {"base64:/w==", "ZVK0015E", "a\x1b[2J"}})));
  const Result result = runAgainst(server, {"update", "books"});
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "corvane: the server at 127.0.0.1:" + std::to_string(server.port()) +
                            " says: " + leftOut +
                            " (ZVK0015E)\n"
                            "corvane: key \"a\": term too long (ZVK0015E)\n"
                            "corvane: key \"base64:/w==\": a\\u{1b}[2J (ZVK0015E)\n");
  EXPECT_TRUE(contains(server.connection(0).requests.at(1), "\naction: getParseResult\n"));
  EXPECT_TRUE(contains(server.connection(0).requests.at(1), "\nindex: books\n"));
}

TEST(Update, ListsWhatTheIndexLeftOutInJsonToo) {
  ScriptedServer server(Script()
                            .expectRequest()
                            .send(refusal("ZVK0015E", leftOut))
                            .expectRequest()
                            .send(outcomes({{"base64:YQ==", "ZVK0015E", "term too long"}})));
  const Result result = runAgainst(server, {"--json", "update", "books"});
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_EQ(result.out, "{\"refused\":\"a\",\"reason\":\"term too long (ZVK0015E)\"}\n");
  EXPECT_TRUE(contains(result.err, R"(,"id":"ZVK0015E"})")) << result.err;
}

TEST(Update, SaysWhenTheListIsCutOff) {
  Reply list{"x", kParseResult, 200, kUninterpreted};
  list.body += enveloped(record({{"Doc", "a"}, {"MsgId", "ZVK0015E"}, {"MsgText", "no"}}));
  ScriptedServer server(Script()
                            .expectRequest()
                            .send(refusal("ZVK0015E", leftOut))
                            .expectRequest()
                            .send(chunked(list, 0, false).text));
  const Result result = runAgainst(server, {"update", "books"});
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_TRUE(contains(result.err,
                       "corvane: key \"a\": no (ZVK0015E)\n"
                       "corvane: the server broke off the list of these documents\n"))
      << result.err;
}

TEST(Update, ThatFailsOtherwiseAsksForNoList) {
  ScriptedServer server(Script().expectRequest().send(refusal("ZVK0014E", "disk full")));
  EXPECT_EQ(runAgainst(server, {"update", "books"}).code, ExitCode::Failed);
  EXPECT_EQ(server.requests(), 1U);
}

TEST(Load, ThatUpdatesListsWhatTheIndexLeftOut) {
  ScriptedServer server(Script()
                            .expectRequest()
                            .send(done())
                            .expectRequest()
                            .expectRequest()
                            .expectRequest()
                            .send(outcomes({{"a"}}))
                            .expectRequest()
                            .send(refusal("ZVK0015E", leftOut))
                            .expectRequest()
                            .send(outcomes({{"a", "ZVK0015E", "term too long"}})));
  const Result result =
      runAgainst(server, {"load", "books", "-", "--update"}, documentLine("a", "x"));
  EXPECT_EQ(result.code, ExitCode::PartlyLoaded);
  EXPECT_EQ(result.out, "loaded 1 document into books, 0 refused\n");
  EXPECT_TRUE(contains(result.err, "\ncorvane: key \"a\": term too long (ZVK0015E)\n"));
}

TEST(Load, SendsTheWindowAgainWhenAWriteFails) {
  const Script broken = Script().expectRequest().send(done()).expectBytes(1000).reset();
  const Script whole =
      Script().expectRequest().expectRequest().expectRequest().send(outcomes({{"a"}}));
  ScriptedServer server({broken, whole});
  // More than the system holds for a peer that does not read.
  const std::string text(std::size_t{16} << 20, 'x');
  const Result result = runAgainst(server, {"load", "books", "-"}, documentLine("a", text));
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 1 document into books, 0 refused\n");
}

TEST(Load, OfACollectionThatIsNotThereSendsNoDocument) {
  ScriptedServer server(Script().expectRequest().send(refusal("ZVK0007E", "unknown collection")));
  const Result result = runAgainst(server, {"load", "books", "-"}, documentLine("a", "x"));
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_TRUE(contains(result.err, "unknown collection")) << result.err;
  EXPECT_EQ(server.requests(), 1U);
}

TEST(Load, ThatBreaksSaysHowFarItCame) {
  ScriptedServer server(
      {Script().expectRequest().send(done()).expectRequest().expectRequest().expectRequest().send(
           refusal("ZVK0014E", "disk full")),
       Script().awaitClose()});
  const Result result = runAgainst(server, {"load", "books", "-"}, documentLine("a", "x"));
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_EQ(result.out, "loaded 0 documents into books, 0 refused\n");
  EXPECT_TRUE(contains(result.err, "1 more document may be in the collection or not"));
  EXPECT_TRUE(contains(result.err, "disk full")) << result.err;
}

TEST(Load, ThatBreaksSaysInJsonToo) {
  ScriptedServer server(
      {Script().expectRequest().send(done()).expectRequest().expectRequest().expectRequest().send(
           refusal("ZVK0014E", "disk full")),
       Script().awaitClose()});
  const Result result =
      runAgainst(server, {"--json", "load", "books", "-"}, documentLine("a", "x"));
  EXPECT_EQ(result.code, ExitCode::Failed);
  EXPECT_EQ(result.out, R"({"collection":"books","loaded":0,"refused":0,"unconfirmed":1})"
                        "\n");
}

TEST(Load, SendsTheSecondOfTwoDocumentsWithOneKeyInALaterWindow) {
  ScriptedServer server(Script()
                            .expectRequest()
                            .send(done())
                            .expectRequest()
                            .expectRequest()
                            .expectRequest()
                            .send(outcomes({{"a"}}))
                            .expectRequest()
                            .expectRequest()
                            .expectRequest()
                            .send(outcomes({{"a"}})));
  const Result result = runAgainst(server, {"load", "books", "-"},
                                   documentLine("a", "first") + documentLine("a", "second"));
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 2 documents into books, 0 refused\n");
  EXPECT_TRUE(contains(server.connection(0).requests.at(1), "first"));
  EXPECT_TRUE(contains(server.connection(0).requests.at(4), "second"));
}

TEST(Load, OfNothingAsksForNothing) {
  ScriptedServer server(Script().expectRequest().send(done()));
  const Result result = runAgainst(server, {"load", "books", "-"}, "\n\n");
  EXPECT_EQ(result.code, ExitCode::Ok) << result.err;
  EXPECT_EQ(result.out, "loaded 0 documents into books, 0 refused\n");
  EXPECT_EQ(server.requests(), 1U);
}

}  // namespace
