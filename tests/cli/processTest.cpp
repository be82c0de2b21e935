#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/cli/childProcess.h"
#include "tests/cli/httpServer.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/corvanedProcess.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/scriptedServer.h"
#include "tests/support/temporaryDirectory.h"

using namespace corvane::test;
using namespace tq::test;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

const std::string kUninterpreted(4, '\0');
const std::string kEndMark(4, '\0');

std::string answer(const std::string& body) { return plain(Reply{"x", kGetStatus, 200, body}); }

std::vector<std::string> overHttp(const HttpServer& server,
                                  const std::vector<std::string>& arguments) {
  std::vector<std::string> command{CORVANE_PROGRAM, "--protocol", "http", "--port",
                                   std::to_string(server.port())};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

// A program that is started with these standard descriptors closed.
std::vector<std::string> withClosed(const std::string& redirections,
                                    const std::vector<std::string>& command) {
  std::vector<std::string> wrapped{"/bin/sh", "-c", "exec \"$@\" " + redirections, "sh"};
  wrapped.insert(wrapped.end(), command.begin(), command.end());
  return wrapped;
}

std::string numbered(std::string name, std::size_t number) {
  return name.append(std::to_string(number));
}

std::string documents(std::size_t count) {
  std::string lines;
  for (std::size_t i = 0; i < count; ++i) {
    lines += R"({"key":")" + numbered("k", i) + R"(","text":"x"})" + "\n";
  }
  return lines;
}

std::string outcomes(std::size_t count) {
  std::string body = kUninterpreted;
  for (std::size_t i = 0; i < count; ++i) body += enveloped(record({{"Doc", numbered("k", i)}}));
  return answer(body + kEndMark);
}

// More than a pipe holds.
std::string manyHits(std::size_t count) {
  Reply reply{"x", kStreamSearch, 200, kUninterpreted};
  std::vector<std::size_t> ends;
  for (std::size_t i = 0; i < count; ++i) {
    reply.body += enveloped(hitRecord(numbered("hit", i), "0.5"));
    if (i % 100 == 99) ends.push_back(reply.body.size());
  }
  reply.body += kEndMark;
  ends.push_back(reply.body.size());
  return chunkedAt(reply, ends, true).text;
}

TEST(Output, ThatNobodyReadsDoesNotKeepTheProgramFromTakingTheResult) {
  constexpr std::size_t kCount = 20000;
  HttpServer server(Script().expectRequest().send(manyHits(kCount)).awaitClose());
  Child child(overHttp(server, {"search", "books", "q"}), {}, Child::Output::Unread);
  // The program is done with its connection before anything of its output is read.
  server.awaitClientClose(0);
  const Finished finished = child.finish();
  EXPECT_EQ(finished.code, 0) << finished.err;
  EXPECT_EQ(static_cast<std::size_t>(std::count(finished.out.begin(), finished.out.end(), '\n')),
            kCount);
  EXPECT_THAT(finished.out, HasSubstr("20000    0.500  hit19999\n"));
}

TEST(Update, ShowsAtATerminalThatItIsAliveAndIsSilentElsewhere) {
  ScriptedServer server(Script().expectFramedRequest().stall().send(word16(1)));
  const std::vector<std::string> command{CORVANE_PROGRAM, "--port", std::to_string(server.port()),
                                         "update", "books"};
  // Has begun to wait a second earlier than what the other one shows last.
  Child silent(command);
  server.awaitRequests(0, 1);
  Terminal terminal;
  Child shown(command, terminal);
  terminal.await("the server is working, 1 second");
  terminal.await("the server is working, 2 seconds");
  server.release();
  for (Child* child : {&silent, &shown}) {
    const Finished finished = child->finish();
    EXPECT_EQ(finished.code, 0);
    EXPECT_EQ(finished.out, "updated books\n");
    EXPECT_EQ(finished.err, "");
  }
}

// The question how far the server is has a connection of its own, at a time that no test can tell.
bool asksForProgress(const std::string& request) {
  return request.find("report: collection\n") != std::string::npos;
}

TEST(Update, ShowsAtATerminalHowFarTheServerIs) {
  const std::string facts = "documents=1 pending=50000 bytes=2 language=en indexing=1200/50000";
  const std::string report =
      kUninterpreted + enveloped(record({{"Doc", "books"}, {"MsgId", "I"}, {"MsgText", facts}})) +
      kEndMark;
  HttpServer server(
      {Script().expectRequest().stall().send(answer(""))},
      {{asksForProgress, {Script().expectRequest().send(answer(report)).awaitClose()}}});
  std::vector<std::string> command{"/usr/bin/env", "CORVANE_CREDENTIALS=reader.secret"};
  for (const std::string& word : overHttp(server, {"update", "books"})) command.push_back(word);
  Terminal terminal;
  Child child(command, terminal);
  terminal.await("second");
  terminal.await("seconds, 1200 of 50000 changes are indexed");
  const ConnectionLog& questions = server.aside(0);
  EXPECT_GT(questions.requests(), 0U);
  for (std::size_t i = 0; i < questions.connections(); ++i) {
    EXPECT_THAT(questions.connection(i).received,
                HasSubstr("Authorization: Bearer reader.secret\n"));
  }
  server.release();
  const Finished finished = child.finish();
  EXPECT_EQ(finished.code, 0);
  EXPECT_EQ(finished.out, "updated books\n");
}

// Of an update over the binary protocol, where no watch has connections of its own.
class UpdateAtATerminal : public ::testing::Test {
 protected:
  static std::vector<std::string> update(const ScriptedServer& server) {
    return {CORVANE_PROGRAM, "--port", std::to_string(server.port()), "update", "books"};
  }

  const std::vector<Script> update_{Script().expectFramedRequest().stall().send(word16(1))};
  Terminal terminal_;
};

TEST_F(UpdateAtATerminal, ShowsHowFarTheServerIsWhenItAnswersALaterQuestion) {
  const std::string facts =
      word16(1) +
      envelope(1, record16({{"Doc", "books"},
                            {"MsgId", "ZVK0101I"},
                            {"MsgText", "documents=1 indexing=1200/50000"}})) +
      endOfResults();
  ScriptedServer server(update_, {{asksForProgress,
                                   {Script().expectFramedRequest().stall(),
                                    Script().expectFramedRequest().send(facts).awaitClose()}}});
  Child child(update(server), terminal_);
  terminal_.await("seconds, 1200 of 50000 changes are indexed");
  server.release();
  EXPECT_EQ(child.finish().out, "updated books\n");
}

TEST_F(UpdateAtATerminal, AsksNoMoreHowFarTheServerIsOnceItIsRefused) {
  constexpr unsigned int kMaxSeconds = 40;
  const std::string refusal =
      word16(6) + errorRecord({{"MsgId", "ZVK0023E"}, {"MsgText", "not permitted"}});
  Script refuse;
  for (unsigned int i = 0; i < kMaxSeconds; ++i) refuse.expectFramedRequest().send(refusal);
  ScriptedServer server(update_, {{asksForProgress, {refuse.awaitClose()}}});
  Child child(update(server), terminal_);
  // A refusal that comes too late for one question is seen by a later one. Were there one after
  // each second, there would be a further one after two, whenever within the second they are
  // counted.
  std::size_t before = 0, questions = 0;
  for (unsigned int second = 2; questions == 0 || questions != before; second += 2) {
    ASSERT_LT(second, kMaxSeconds) << "asks for ever";
    terminal_.await("the server is working, " + std::to_string(second) + " seconds");
    before = std::exchange(questions, server.aside(0).requests());
  }
  server.release();
  EXPECT_EQ(child.finish().out, "updated books\n");
}

/// The password of an account is asked for at a terminal.
class Password : public ::testing::Test {
 protected:
  std::vector<std::string> command() const {
    return {CORVANED_PROGRAM, "user",    "ada",           "--users", users_.string(),
            "--allow",        "admin:*", "--password-fd", "2"};
  }

  TemporaryDirectory directory_;
  const std::filesystem::path users_ = directory_.path() / "users";
  Terminal terminal_;
};

TEST_F(Password, IsNotShownAtTheTerminalAndWhatFollowsIs) {
  Child child(command(), terminal_);
  terminal_.await("Password: ");
  EXPECT_FALSE(terminal_.echoes());
  terminal_.type("correct horse\n");
  const Finished finished = child.finish();
  EXPECT_EQ(finished.code, 0);
  EXPECT_TRUE(std::filesystem::exists(users_));
  EXPECT_TRUE(terminal_.echoes());
  terminal_.type("end\n");
  terminal_.await("end");
  EXPECT_EQ(terminal_.shown().find("horse"), std::string::npos);
}

TEST_F(Password, IsNotSetWhenItsTypingIsInterruptedAndTheTerminalIsAsBefore) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    Terminal terminal;
    Child child(command(), terminal);
    terminal.await("Password: ");
    terminal.type("correct");
    child.signal(signal);
    EXPECT_EQ(child.finish().code, 1);
    terminal.await("\ncorvaned: interrupted");
    EXPECT_TRUE(terminal.echoes());
    EXPECT_FALSE(std::filesystem::exists(users_));
  }
}

// A shell may make the terminal of a program that is stopped show again what is typed.
TEST_F(Password, IsNotExposedByAKeyThatStopsThePrograms) {
  Child child(command(), terminal_);
  terminal_.await("Password: ");
  EXPECT_FALSE(terminal_.stopsPrograms());
  terminal_.type("correct\x1ahorse\n");
  EXPECT_EQ(child.finish().code, 0);
  EXPECT_TRUE(terminal_.stopsPrograms());
}

bool hasPendingSignals(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("ShdPnd:")) return line.find_first_not_of("ShdPn:\t0") != line.npos;
  }
  throw std::runtime_error("no status of the program");
}

TEST_F(Password, IsAwaitedWhenSignalsThatAreIgnoredCome) {
  std::vector<std::string> ignoring{"/bin/sh", "-c", "trap '' HUP QUIT; exec \"$@\"", "sh"};
  for (const std::string& word : command()) ignoring.push_back(word);
  Child child(ignoring, terminal_);
  terminal_.await("Password: ");
  child.signal(SIGHUP);
  child.signal(SIGQUIT);
  // What is typed while one is pending would be read before it is noticed.
  while (hasPendingSignals(child.process())) std::this_thread::yield();
  terminal_.type("correct horse\n");
  EXPECT_EQ(child.finish().code, 0);
  EXPECT_TRUE(std::filesystem::exists(users_));
}

class Interrupted : public ::testing::TestWithParam<int> {};

TEST_P(Interrupted, LoadSaysWhatWasTakenAndWhatIsInDoubt) {
  Script script = Script().expectRequest().send(answer(""));
  for (int i = 0; i < 2002; ++i) script.expectRequest();
  script.send(outcomes(2000));
  for (int i = 0; i < 3; ++i) script.expectRequest();
  HttpServer server(script.stall());
  Child child(overHttp(server, {"load", "books", "-"}), documents(2001));
  server.awaitRequests(0, 1 + 2002 + 3);
  child.signal(GetParam());
  const Finished finished = child.finish();
  EXPECT_EQ(finished.code, 256 + GetParam());
  EXPECT_EQ(finished.out, "loaded 2000 documents into books, 0 refused\n");
  EXPECT_EQ(finished.err,
            "corvane: interrupted; 1 more document may be in the collection or not\n");
}

TEST_P(Interrupted, LoadSaysItInJsonToo) {
  Script script = Script().expectRequest().send(answer(""));
  for (int i = 0; i < 3; ++i) script.expectRequest();
  HttpServer server(script.stall());
  Child child(overHttp(server, {"--json", "load", "books", "-"}), documents(1));
  server.awaitRequests(0, 4);
  child.signal(GetParam());
  const Finished finished = child.finish();
  EXPECT_EQ(finished.out, R"({"collection":"books","loaded":0,"refused":0,"unconfirmed":1})"
                          "\n");
  EXPECT_EQ(finished.err,
            R"({"error":"interrupted; 1 more document may be in the collection or not",)"
            R"("id":"INTERRUPTED"})"
            "\n");
}

TEST_P(Interrupted, CreateSaysThatItMayHaveHappened) {
  HttpServer server(Script().expectRequest().stall());
  Child child(overHttp(server, {"create", "books"}));
  server.awaitRequests(0, 1);
  child.signal(GetParam());
  const Finished finished = child.finish();
  EXPECT_EQ(finished.code, 256 + GetParam());
  EXPECT_THAT(finished.err,
              HasSubstr("corvane: interrupted; the collection may have been created"));
}

INSTANTIATE_TEST_SUITE_P(By, Interrupted, ::testing::Values(SIGINT, SIGTERM),
                         [](const auto& test) { return test.param == SIGINT ? "INT" : "TERM"; });

// In the background of a shell without job control it is ignored.
TEST(Interruption, ThatIsIgnoredStaysSo) {
  HttpServer server(Script().expectRequest().stall().send(answer("")));
  std::vector<std::string> command{"/bin/sh", "-c", "trap '' INT; exec \"$@\"", "sh"};
  for (const std::string& word : overHttp(server, {"create", "books"})) command.push_back(word);
  Child child(command);
  server.awaitRequests(0, 1);
  child.signal(SIGINT);
  server.release();
  const Finished finished = child.finish();
  EXPECT_EQ(finished.code, 0) << finished.err;
  EXPECT_EQ(finished.out, "created books\n");
}

TEST(Interruption, ThatCannotComeDoesNotKeepTheProgram) {
  HttpServer server(Script().expectRequest().send(answer("")));
  std::vector<std::string> command{"/bin/sh", "-c", "trap '' INT TERM; exec \"$@\"", "sh"};
  for (const std::string& word : overHttp(server, {"create", "books"})) command.push_back(word);
  const Finished finished = runToEnd(command);
  EXPECT_EQ(finished.code, 0) << finished.err;
  EXPECT_EQ(finished.out, "created books\n");
}

TEST(ClosedDescriptors, AreNotTakenByTheConnection) {
  CorvanedProcess server;
  const std::vector<std::string> command{CORVANE_PROGRAM, "--port",
                                         std::to_string(server.binaryPort())};
  const auto run = [&](const std::string& closed, const std::vector<std::string>& arguments) {
    std::vector<std::string> words = command;
    words.insert(words.end(), arguments.begin(), arguments.end());
    return runToEnd(withClosed(closed, words));
  };
  const Finished noInput = run("<&-", {"create", "c"});
  EXPECT_EQ(noInput.code, 0) << noInput.err;
  EXPECT_EQ(noInput.out, "created c\n");
  const Finished unreadable = run("<&-", {"add", "c", "k", "--file", "-"});
  EXPECT_EQ(unreadable.code, 1);
  EXPECT_THAT(unreadable.err, HasSubstr("cannot read standard input"));
  const Finished noOutput = run(">&-", {"status"});
  EXPECT_EQ(noOutput.code, 1);
  EXPECT_EQ(noOutput.err, "corvane: cannot write the result to standard output\n");
  const Finished noErrors = run("2>&-", {"status"});
  EXPECT_EQ(noErrors.code, 0);
  EXPECT_EQ(noErrors.out, "ready, every change is searchable (0)\n");
  EXPECT_EQ(run("<&- >&- 2>&-", {"status"}).code, 1);
}

TEST(ClosedDescriptors, AreNotTakenByTheServersFiles) {
  const TemporaryDirectory directory;
  const auto ports = directory.path() / "ports";
  Child server(withClosed("<&- >&- 2>&-",
                          {CORVANED_PROGRAM, "--binary-port", "0", "--data",
                           (directory.path() / "data").string(), "--port-file", ports.string()}));
  // It has opened its files, in the order of the free numbers, when this one is there.
  while (!std::filesystem::exists(ports)) std::this_thread::yield();
  const auto open = std::filesystem::path("/proc") / std::to_string(server.process()) / "fd";
  for (const char* descriptor : {"0", "1", "2"}) {
    EXPECT_EQ(std::filesystem::read_symlink(open / descriptor), "/dev/null") << descriptor;
  }
  server.signal(SIGTERM);
  EXPECT_EQ(server.finish().code, 0);
}

std::string speaksTheBinaryProtocol(const std::string& port) {
  return "corvane: 127.0.0.1:" + port +
         " speaks the binary protocol; use --protocol binary, or the server's port for http\n";
}

TEST(WrongPort, IsFoundOutWhenTheServerRefusesTheRequest) {
  CorvanedProcess server;
  const std::string port = std::to_string(server.binaryPort());
  const Finished finished =
      runToEnd({CORVANE_PROGRAM, "--protocol", "http", "--port", port, "create", "c"});
  EXPECT_EQ(finished.code, 1);
  EXPECT_EQ(finished.out, "");
  EXPECT_EQ(finished.err, speaksTheBinaryProtocol(port));
}

// A server may take the first two letters of an HTTP-style request for a length, and be silent.
TEST(WrongPort, IsFoundOutAlthoughTheServerIsSilent) {
  const Script ready = Script().expectFramedRequest().send(word16(1)).awaitClose();
  HttpServer server({Script().awaitClose()}, {{HttpServer::isBinary, {ready}}});
  const Finished finished = runToEnd(overHttp(server, {"create", "c"}));
  EXPECT_EQ(finished.code, 1);
  EXPECT_EQ(finished.out, "");
  EXPECT_EQ(finished.err, speaksTheBinaryProtocol(std::to_string(server.port())));
}

// One that is busy may leave a look without an answer as well.
TEST(WrongPort, IsFoundOutByALaterLookWhenTheFirstHasNoAnswer) {
  const Script ready = Script().expectFramedRequest().send(word16(1)).awaitClose();
  HttpServer server({Script().awaitClose()},
                    {{HttpServer::isBinary, {Script().awaitClose(), ready}}});
  const Finished finished = runToEnd(overHttp(server, {"create", "c"}));
  EXPECT_EQ(finished.code, 1);
  EXPECT_EQ(finished.out, "");
  EXPECT_EQ(finished.err, speaksTheBinaryProtocol(std::to_string(server.port())));
}

// A server on its right port may refuse a request as unreadable; the other protocol is not spoken
// there just because it is refused as well.
TEST(WrongPort, IsNotTheVerdictOnARequestThatTheServerCannotRead) {
  const Reply refusal = [] {
    Reply reply{"x", kGetStatus, 500};
    reply.body = kUninterpreted + enveloped(record({{"MsgId", "ZVK0001E"}, {"MsgText", "no"}}));
    return reply;
  }();
  const std::string refused =
      word16(6) + errorRecord({{"MsgId", "ZVK0001E"}, {"MsgText", "other port"}});
  HttpServer server(
      {Script().expectRequest().send(plain(refusal)).awaitClose()},
      {{HttpServer::isBinary, {Script().expectFramedRequest().send(refused).awaitClose()}}});
  const Finished finished = runToEnd(overHttp(server, {"create", "c"}));
  EXPECT_EQ(finished.code, 1);
  EXPECT_EQ(finished.err, "corvane: the server at 127.0.0.1:" + std::to_string(server.port()) +
                              " says: no (ZVK0001E)\n");
}

// A server that takes longer than the watch waits is asked again and left to its work.
TEST(WrongPort, IsNotTheVerdictOnASlowServer) {
  HttpServer server({Script().expectRequest().stall().send(answer(""))},
                    {{HttpServer::isBinary, {Script().awaitClose()}}});
  Child child(overHttp(server, {"create", "books"}));
  // Two questions in the other protocol have come and were given up.
  const ConnectionLog& questions = server.aside(0);
  questions.awaitClientClose(0);
  questions.awaitClientClose(1);
  server.release();
  const Finished finished = child.finish();
  EXPECT_EQ(finished.code, 0) << finished.err;
  EXPECT_EQ(finished.out, "created books\n");
  EXPECT_EQ(server.requests(), 1U);
  for (std::size_t i = 0; i < questions.connections(); ++i) {
    EXPECT_THAT(questions.connection(i).received, Not(HasSubstr("createCollection")));
  }
}

}  // namespace
