#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/server/rawClient.h"
#include "tests/server/requestBytes.h"
#include "tests/support/corvanedProcess.h"
#include "tests/support/temporaryDirectory.h"

// The program itself, as a process of its own.
namespace corvaned {
namespace {

using test::binaryRequest;
using test::RawClient;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;
using tq::test::CorvanedProgram;

std::uint16_t portOf(const std::string& line) {
  return static_cast<std::uint16_t>(std::stoul(line.substr(line.rfind(':') + 1)));
}

class ProcessTest : public ::testing::Test {
 protected:
  std::vector<std::string> arguments() const {
    return {"--binary-port", "0", "--data", data_, "--log-level", "error"};
  }

  tq::test::TemporaryDirectory directory_;
  std::string data_ = (directory_.path() / "data").string();
};

TEST_F(ProcessTest, ReadyLinesNameTheListeners) {
  const std::string portFile = (directory_.path() / "ports").string();
  CorvanedProgram program({"--http-port", "0", "--binary-port", "0", "--data", data_, "--port-file",
                           portFile, "--log-level", "off"});
  const std::string http = program.line();
  const std::string binary = program.line();
  EXPECT_THAT(http, MatchesRegex("listening http 127\\.0\\.0\\.1:[0-9]+"));
  EXPECT_THAT(binary, MatchesRegex("listening binary 127\\.0\\.0\\.1:[0-9]+"));
  RawClient client(portOf(http));
  std::ifstream file(portFile);
  std::stringstream content;
  content << file.rdbuf();
  EXPECT_EQ(content.str(), http + "\n" + binary + "\n");
}

TEST_F(ProcessTest, StopSignalsEndItWithCodeZero) {
  for (const int number : {SIGTERM, SIGINT}) {
    CorvanedProgram program(arguments());
    RawClient client(portOf(program.line()));
    program.signal(number);
    EXPECT_EQ(program.wait(), 0);
    EXPECT_TRUE(client.ended());
  }
}

TEST_F(ProcessTest, StopDoesNotWaitForTheEndOfAnIndexUpdate) {
  constexpr int kDocuments = 40000;
  const std::string success("\0\1", 2);
  std::string requests;
  for (int i = 0; i < kDocuments; ++i) {
    requests += binaryRequest({{"action", "asyncAddDocument"}, {"index", "c"}},
                              test::documentBlock("k" + std::to_string(i), {}, "red fox"));
  }
  requests += binaryRequest({{"action", "updateIndex"}, {"index", "c"}});
  // On a busy machine an update may be over before the signal comes.
  for (bool stopped = false, isNew = true; !stopped; isNew = false) {
    CorvanedProgram program(arguments());
    RawClient client(portOf(program.line()));
    if (isNew) {
      client.send(binaryRequest({{"action", "createCollection"}, {"index", "c"}}));
      EXPECT_EQ(client.receive(2), success);
    }
    client.send(requests);
    while (!std::filesystem::exists(data_ + "/collections/c/index-sums-changing") &&
           !client.hasBytes()) {
      std::this_thread::yield();
    }
    program.signal(SIGTERM);
    const std::string reply = client.receive(2);
    if (reply != success) {
      stopped = true;
      EXPECT_EQ(reply, std::string("\0\6", 2)) << "refused";
      EXPECT_THAT(client.receiveAll(), HasSubstr("the server is stopping"));
    }
    EXPECT_EQ(program.wait(), 0);
  }
  CorvanedProgram program(arguments());
  RawClient client(portOf(program.line()));
  client.send(binaryRequest({{"action", "getStatus"}, {"index", "c"}}));
  EXPECT_EQ(client.receive(2), std::string("\0\5", 2)) << "changes wait";
  client.send(binaryRequest({{"action", "updateIndex"}, {"index", "c"}}));
  EXPECT_EQ(client.receive(2), success);
  client.send(binaryRequest({{"action", "selectivity"}, {"index", "c"}, {"query", "NOT hound"}}));
  EXPECT_EQ(client.receive(2), success);
  // After the envelope's head the estimate, the number of documents, and the upper bound.
  EXPECT_EQ(client.receive(16).substr(8, 4), test::bigEndian(kDocuments, 4));
}

TEST_F(ProcessTest, ClientsCannotTakeTheFilesThatCollectionsNeed) {
  std::vector<std::string> words = arguments();
  words.insert(words.end(), {"--max-open-files", "256"});
  CorvanedProgram program(words);
  std::string line = program.line();
  while (!line.starts_with("listening")) line = program.line();
  RawClient client(portOf(line));
  const std::string success("\0\1", 2);
  const auto ask = [&](test::Headers headers, const std::string& body = {}) {
    client.send(binaryRequest(headers, body));
    return client.receive(2);
  };
  std::vector<RawClient> others;
  for (int i = 0; i < 320; ++i) others.emplace_back(portOf(line));
  for (int i = 0; i < 60; ++i) {
    const std::string name = "c" + std::to_string(i);
    EXPECT_EQ(ask({{"action", "createCollection"}, {"index", name}}), success);
    EXPECT_EQ(
        ask({{"action", "addDocument"}, {"index", name}}, test::documentBlock("k", {}, "fox")),
        success);
    EXPECT_EQ(ask({{"action", "updateIndex"}, {"index", name}}), success);
    EXPECT_EQ(ask({{"action", "search"}, {"index", name}, {"query", "fox"}}), success);
    // The only hit, and the end.
    EXPECT_EQ(client.receive(9).size(), 9U);
  }
  for (int i = 0; i < 60; ++i) {
    EXPECT_EQ(ask({{"action", "getStatus"}, {"index", "c" + std::to_string(i)}}), success) << i;
  }
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 0);
}

// Its reply may be lost, and the server too.
TEST_F(ProcessTest, BatchThatIsSentAgainIsToldAgainWhatTheIndexLeftOut) {
  std::string tooManyWords;
  for (unsigned i = 0; i < 40000; ++i) tooManyWords += std::to_string(i * 2654435761U) + ' ';
  const std::string documents =
      test::documentBlock("good", {}, "fox") + test::documentBlock("large", {}, tooManyWords);
  const std::string content = test::documentBlock("batch", {}, documents);
  const test::Headers batch{{"action", "addDocument"}, {"index", "c"}, {"batch", "b1"}};
  const std::string refused = "1 document left out, all others are searchable: \"large\" (";
  std::string httpReply;
  std::string binaryReply;
  for (const int ending : {SIGKILL, SIGTERM, SIGTERM}) {
    CorvanedProgram program({"--http-port", "0", "--binary-port", "0", "--data", data_,
                             "--max-memory", "16777216", "--log-level", "off"});
    RawClient http(portOf(program.line()));
    RawClient binary(portOf(program.line()));
    if (httpReply.empty()) {
      binary.send(binaryRequest(
          {{"action", "createCollection"}, {"index", "c"}, {"refresh", "immediate"}}));
      EXPECT_EQ(binary.receive(2), std::string("\0\1", 2));
      http.send(test::httpRequest(batch, content));
      httpReply = http.receiveHttp();
      EXPECT_THAT(httpReply, AllOf(HasSubstr("ZVK0015E"), HasSubstr(refused)));
      binary.send(binaryRequest(batch, content));
      EXPECT_EQ(binary.receive(2), std::string("\0\6", 2));
      const std::string length = binary.receive(2);
      binaryReply = binary.receive(static_cast<unsigned char>(length[0]) * 256U +
                                   static_cast<unsigned char>(length[1]));
      EXPECT_THAT(binaryReply, AllOf(HasSubstr("ZVK0015E"), HasSubstr(refused)));
    } else {
      http.send(test::httpRequest(batch, content));
      EXPECT_EQ(http.receiveHttp(), httpReply);
      binary.send(binaryRequest(batch, content));
      EXPECT_EQ(binary.receive(4 + binaryReply.size()).substr(4), binaryReply);
    }
    program.signal(ending);
    program.wait();
  }
}

TEST_F(ProcessTest, LimitOfOpenFilesThatServesNobodyIsRefused) {
  std::vector<std::string> words = arguments();
  words.insert(words.end(), {"--max-open-files", "100"});
  CorvanedProgram program(words);
  EXPECT_THAT(program.rest(), HasSubstr("100 open files are too few"));
  EXPECT_EQ(program.wait(), 1);
}

TEST_F(ProcessTest, ClientsThatOpenFilesDoNotAllowAreSaidInTheLog) {
  std::vector<std::string> words = arguments();
  words.back() = "warn";
  words.insert(words.end(), {"--max-open-files", "260", "--max-connections", "51"});
  CorvanedProgram program(words);
  EXPECT_THAT(program.line(), StartsWith("listening binary"));
  EXPECT_THAT(program.line(), AllOf(HasSubstr("at most 50 clients"), HasSubstr("is 51")));
}

TEST_F(ProcessTest, SecondServerOnADirectoryIsRefused) {
  CorvanedProgram first(arguments());
  first.line();
  CorvanedProgram second(arguments());
  EXPECT_THAT(second.rest(), AllOf(HasSubstr(data_), HasSubstr("in use by another server")));
  EXPECT_EQ(second.wait(), 1);
}

TEST_F(ProcessTest, DirectoryIsFreeAtOnceAfterAKill) {
  CorvanedProgram first(arguments());
  first.line();
  first.signal(SIGKILL);
  EXPECT_EQ(first.wait(), 256 + SIGKILL);
  CorvanedProgram second(arguments());
  EXPECT_THAT(second.line(), StartsWith("listening binary"));
}

TEST_F(ProcessTest, ServerThatCannotStartSaysOneThing) {
  CorvanedProgram first(arguments());
  EXPECT_THAT(first.line(), StartsWith("listening binary"));
  // Too few files for that many clients.
  CorvanedProgram second({"--binary-port", "0", "--data", data_, "--max-open-files", "300",
                          "--max-connections", "9999"});
  const std::string said = second.rest();
  EXPECT_THAT(said, StartsWith("corvaned: "));
  EXPECT_EQ(said.find('\n'), said.size() - 1) << said;
  EXPECT_EQ(second.wait(), 1);
}

TEST_F(ProcessTest, CollectionsAreCheckedAndRepaired) {
  {
    CorvanedProgram server(arguments());
    RawClient client(portOf(server.line()));
    client.send(binaryRequest({{"action", "createCollection"}, {"index", "c"}}));
    EXPECT_EQ(client.receive(2), std::string("\0\1", 2));
    for (const char* key : {"first", "second"}) {
      client.send(binaryRequest({{"action", "addDocument"}, {"index", "c"}},
                                test::documentBlock(key, {}, "fox")));
      EXPECT_EQ(client.receive(2), std::string("\0\1", 2));
    }
    CorvanedProgram beside({"check", data_});
    EXPECT_THAT(beside.rest(), HasSubstr("in use by another server"));
    EXPECT_EQ(beside.wait(), 1);
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(), 0);
  }
  {
    CorvanedProgram check({"check", data_});
    EXPECT_EQ(check.rest(), "\"c\": sound, 2 changes wait for updateIndex\n");
    EXPECT_EQ(check.wait(), 0);
  }
  const std::string journal = data_ + "/collections/c/journal-0000000001";
  {
    std::fstream file(journal, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(40);
    file.put('~');
  }
  CorvanedProgram check({"check", "--json", data_, "c"});
  EXPECT_THAT(check.rest(), AllOf(StartsWith("[{\"collection\":\"c\",\"sound\":false,"),
                                  HasSubstr("\"file\":\"" + journal + "\",\"byte\":0,"),
                                  HasSubstr("\"firstLost\":1,\"lastLost\":1")));
  EXPECT_EQ(check.wait(), 3);
  CorvanedProgram repair({"repair", data_, "c"});
  EXPECT_THAT(
      repair.rest(),
      AllOf(HasSubstr(journal + " is damaged at byte 0: change 1 cannot be read"),
            HasSubstr("the collection is in " + data_ + "/before-repair/c.1\n"),
            HasSubstr("kept: 0 documents of the index, 1 changes"), HasSubstr("lost: change 1")));
  EXPECT_EQ(repair.wait(), 3);
  CorvanedProgram again({"repair", data_, "c"});
  EXPECT_EQ(again.rest(), "\"c\": sound, 1 changes wait for updateIndex\n");
  EXPECT_EQ(again.wait(), 0);
}

TEST_F(ProcessTest, CollectionHasAsManyDatabasesAsWereAskedFor) {
  std::vector<std::string> several = arguments();
  several.insert(several.end(), {"--shards-per-collection", "3"});
  {
    CorvanedProgram server(several);
    RawClient client(portOf(server.line()));
    client.send(binaryRequest({{"action", "createCollection"}, {"index", "c"}}));
    EXPECT_EQ(client.receive(2), std::string("\0\1", 2));
    for (const char* key : {"first", "second", "third", "fourth", "fifth"}) {
      client.send(binaryRequest({{"action", "addDocument"}, {"index", "c"}},
                                test::documentBlock(key, {}, "fox")));
      EXPECT_EQ(client.receive(2), std::string("\0\1", 2));
    }
    client.send(binaryRequest({{"action", "updateIndex"}, {"index", "c"}}));
    EXPECT_EQ(client.receive(2), std::string("\0\1", 2));
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(), 0);
  }
  const std::string index = data_ + "/collections/c/index/";
  EXPECT_TRUE(std::filesystem::exists(index + "part-2/iamglass"));
  EXPECT_FALSE(std::filesystem::exists(index + "part-3"));
  EXPECT_FALSE(std::filesystem::exists(index + "iamglass"));
  CorvanedProgram check({"check", data_});
  EXPECT_EQ(check.rest(), "\"c\": sound, 0 changes wait for updateIndex\n");
  EXPECT_EQ(check.wait(), 0);
  several.back() = "17";
  CorvanedProgram tooMany(several);
  EXPECT_THAT(tooMany.rest(), HasSubstr("--shards-per-collection"));
  EXPECT_EQ(tooMany.wait(), 2);
}

TEST_F(ProcessTest, RestoredCollectionHasTheDigestOfTheOneThatWasBackedUp) {
  const std::string backups = (directory_.path() / "backups").string();
  const std::string success("\0\1", 2);
  std::vector<std::string> words = arguments();
  words.insert(words.end(), {"--backup-directory", backups});
  CorvanedProgram server(words);
  RawClient client(portOf(server.line()));
  const auto ask = [&](const test::Headers& headers, const std::string& body = {}) {
    client.send(binaryRequest(headers, body));
    return client.receive(2);
  };
  EXPECT_EQ(ask({{"action", "createCollection"}, {"index", "c"}}), success);
  for (int i = 0; i < 100; ++i) {
    const std::string number = std::to_string(i);
    EXPECT_EQ(ask({{"action", "addDocument"}, {"index", "c"}},
                  test::documentBlock("k" + number, {{"n", number}}, "fox " + number)),
              success);
    if (i == 60) {
      EXPECT_EQ(ask({{"action", "updateIndex"}, {"index", "c"}}), success);
    }
  }
  EXPECT_EQ(ask({{"action", "backup"}, {"backup", "b"}, {"index", "c"}}), success);
  EXPECT_EQ(ask({{"action", "restore"}, {"backup", "b"}, {"from", "c"}, {"index", "d"}}), success);
  const auto digest = [&](const std::string& name) {
    EXPECT_EQ(ask({{"action", "updateIndex"}, {"index", name}}), success);
    EXPECT_EQ(ask({{"action", "getParseResult"}, {"index", name}, {"report", "digest"}}), success);
    const std::string head = client.receive(4);
    return client.receive(static_cast<unsigned char>(head.back())) + client.receive(4);
  };
  const std::string wanted = digest("c");
  EXPECT_THAT(wanted, HasSubstr("documents=100 sha256="));
  EXPECT_EQ(digest("d"), wanted);
  CorvanedProgram check({"check", backups + "/b"});
  EXPECT_EQ(check.rest(), "\"c\": sound, 39 changes wait for updateIndex\n");
  EXPECT_EQ(check.wait(), 0);
  for (const char* changing : {"repair", "compact"}) {
    CorvanedProgram program({changing, backups + "/b", "c"});
    EXPECT_THAT(program.rest(), HasSubstr("is a backup"));
    EXPECT_EQ(program.wait(), 1);
  }
  CorvanedProgram inUse({"compact", data_, "c"});
  EXPECT_THAT(inUse.rest(), HasSubstr(data_));
  EXPECT_EQ(inUse.wait(), 1);
  server.signal(SIGTERM);
  EXPECT_EQ(server.wait(), 0);
  CorvanedProgram compact({"compact", "--json", data_, "c"});
  EXPECT_THAT(compact.rest(), StartsWith("{\"collection\":\"c\",\"bytesBefore\":"));
  EXPECT_EQ(compact.wait(), 0);
  CorvanedProgram said({"compact", data_, "c"});
  EXPECT_THAT(said.rest(), StartsWith("\"c\": the index took 0."));
  EXPECT_EQ(said.wait(), 0);
  words[3] = backups + "/b";
  CorvanedProgram onBackup(words);
  EXPECT_THAT(onBackup.rest(), HasSubstr("is a backup"));
  EXPECT_EQ(onBackup.wait(), 1);
}

TEST_F(ProcessTest, WrongUseOfCheckAndRepairIsExplained) {
  for (const std::vector<std::string>& wrong : {std::vector<std::string>{"check"},
                                                {"repair", data_},
                                                {"compact", data_},
                                                {"check", data_, ""},
                                                {"repair", data_, ""},
                                                {"check", data_, "--what"}}) {
    CorvanedProgram program(wrong);
    EXPECT_THAT(program.rest(), HasSubstr("--help"));
    EXPECT_EQ(program.wait(), 2);
  }
  CorvanedProgram help({"repair", "--help"});
  EXPECT_THAT(help.rest(), AllOf(HasSubstr("COLLECTION"), HasSubstr("--json")));
  EXPECT_EQ(help.wait(), 0);
}

TEST_F(ProcessTest, UsageErrorsAreExplained) {
  CorvanedProgram none({"--data", data_});
  EXPECT_THAT(none.rest(), HasSubstr("port"));
  EXPECT_EQ(none.wait(), 2);
  CorvanedProgram negative({"--http-port", "0", "--data", data_, "--max-connections", "-1"});
  EXPECT_THAT(negative.rest(), HasSubstr("-1"));
  EXPECT_EQ(negative.wait(), 2);
  CorvanedProgram unwritable({"--http-port", "0", "--data", "/dev/null/x"});
  EXPECT_THAT(unwritable.rest(), HasSubstr("/dev/null/x"));
  EXPECT_EQ(unwritable.wait(), 1);
  CorvanedProgram nowhere(
      {"--http-port", "0", "--data", data_, "--listen", "example", "--open-to-everybody"});
  EXPECT_THAT(nowhere.rest(), HasSubstr("example"));
  EXPECT_EQ(nowhere.wait(), 1);
}

TEST_F(ProcessTest, HelpAndVersionAreThere) {
  CorvanedProgram help({"--help"});
  EXPECT_THAT(help.rest(), AllOf(HasSubstr("--http-port"), HasSubstr("--binary-port"),
                                 HasSubstr("--data"), HasSubstr("--listen")));
  EXPECT_EQ(help.wait(), 0);
  CorvanedProgram version({"--version"});
  EXPECT_THAT(version.rest(), StartsWith("corvaned "));
  EXPECT_EQ(version.wait(), 0);
}

TEST_F(ProcessTest, WrongFaultScriptEndsItWithCodeTwoAndNamesTheLine) {
  const std::string script = (directory_.path() / "script").string();
  std::ofstream(script) << "all: delay 1\nall: dorp 1\n";
  CorvanedProgram program({"--http-port", "0", "--data", data_, "--fault", script});
  EXPECT_THAT(program.rest(), AllOf(HasSubstr(script), HasSubstr("line 2: there is no fault")));
  EXPECT_EQ(program.wait(), 2);
}

TEST_F(ProcessTest, FaultScriptOfTheCommandLineIsCarriedOut) {
  CorvanedProgram program(
      {"--binary-port", "0", "--data", data_, "--log-level", "off", "--fault", "reply 1: drop 1"});
  RawClient client(portOf(program.line()));
  client.send(binaryRequest({{"action", "getStatus"}}));
  EXPECT_EQ(client.receiveAll(), std::string("\0", 1));
}

/// The output of one run that ends by itself, and its exit code.
std::pair<std::string, int> outcomeOf(const std::vector<std::string>& arguments) {
  CorvanedProgram program(arguments);
  std::string output = program.rest();
  return {output, program.wait()};
}

TEST_F(ProcessTest, ServerForOtherMachinesNeedsToKnowWhoMayDoWhat) {
  for (const char* address : {"0.0.0.0", "::"}) {
    const auto [output, code] =
        outcomeOf({"--http-port", "0", "--data", data_, "--listen", address});
    EXPECT_EQ(code, 2);
    EXPECT_THAT(output, AllOf(HasSubstr("--users"), HasSubstr("--open-to-everybody")));
  }
  EXPECT_FALSE(std::filesystem::exists(data_));
}

TEST_F(ProcessTest, WhatIsStoredIsClosedToOthers) {
  std::filesystem::create_directory(data_);
  std::filesystem::permissions(data_, std::filesystem::perms::all);
  CorvanedProgram program(arguments());
  RawClient client(portOf(program.line()));
  client.send(binaryRequest({{"action", "createCollection"}, {"index", "c"}}) +
              binaryRequest({{"action", "addDocument"}, {"index", "c"}},
                            test::documentBlock("k", {}, "x")) +
              binaryRequest({{"action", "updateIndex"}, {"index", "c"}}));
  EXPECT_EQ(client.receive(6), std::string("\0\1\0\1\0\1", 6));
  using std::filesystem::perms;
  EXPECT_EQ(std::filesystem::status(data_).permissions(), perms::owner_all);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(data_)) {
    EXPECT_EQ(entry.status().permissions() & (perms::group_all | perms::others_all), perms::none)
        << entry.path();
  }
}

TEST_F(ProcessTest, TokenIsMadeReadAgainOnSignalAndTakenAway) {
  const std::string users = (directory_.path() / "users").string();
  const auto put = [&] {
    const auto [output, code] = outcomeOf({"token", "t", "--users", users, "--allow", "admin:*"});
    EXPECT_EQ(code, 0) << output;
    return "Bearer " + output.substr(0, output.size() - 1);
  };
  const std::string first = put();
  std::vector<std::string> words = arguments();
  words.back() = "info";
  words.insert(words.end(), {"--users", users});
  CorvanedProgram program(words);
  std::string line = program.line();
  while (!line.starts_with("listening")) line = program.line();
  RawClient client(portOf(line));
  const auto ask = [&](const std::string& who) {
    client.send(binaryRequest({{"action", "getStatus"}, {"Authorization", who}}));
    return client.receive(2);
  };
  EXPECT_EQ(ask(first), std::string("\0\1", 2));
  const std::string second = put();
  program.signal(SIGHUP);
  while (line.find("again") == std::string::npos) line = program.line();
  EXPECT_EQ(ask(first), std::string("\1\x91", 2));
  EXPECT_EQ(ask(second), std::string("\0\1", 2));
  program.signal(SIGTERM);
  const std::string log = program.rest();
  EXPECT_EQ(log.find(first.substr(9)), std::string::npos);
  EXPECT_EQ(program.wait(), 0);
}

TEST_F(ProcessTest, ResultThatCannotBePrintedIsAFailure) {
  const std::string users = (directory_.path() / "users").string();
  {
    CorvanedProgram server(arguments());
    RawClient client(portOf(server.line()));
    client.send(binaryRequest({{"action", "createCollection"}, {"index", "c"}}));
    EXPECT_EQ(client.receive(2), std::string("\0\1", 2));
  }
  const auto content = [&] {
    std::ifstream file(users);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
  };
  const std::vector<std::string> token{"token", "t", "--users", users};
  ASSERT_EQ(outcomeOf(token).second, 0);
  const std::string before = content();
  for (const auto output : {CorvanedProgram::Output::Full, CorvanedProgram::Output::Closed}) {
    for (const std::vector<std::string>& words : {token,
                                                  {"check", data_},
                                                  {"check", "--json", data_},
                                                  {"repair", data_, "c"},
                                                  {"compact", data_, "c"}}) {
      CorvanedProgram program(words, CorvanedProgram::Diagnostics::Read, output);
      EXPECT_THAT(program.rest(), HasSubstr("cannot write the result to standard output"));
      EXPECT_EQ(program.wait(), 1) << words.front();
    }
  }
  EXPECT_EQ(content(), before) << "the token that somebody has";
}

TEST_F(ProcessTest, AccountsThatCannotBePutAreExplained) {
  const std::string users = (directory_.path() / "users").string();
  EXPECT_EQ(outcomeOf({"token", "a b", "--users", users}).second, 2);
  EXPECT_EQ(outcomeOf({"token", "t", "--users", users, "--allow", "own:*"}).second, 2);
  EXPECT_EQ(outcomeOf({"token", "t"}).second, 2);
  EXPECT_EQ(outcomeOf({"token", "t", "--users", users + "/in/none"}).second, 1);
  EXPECT_EQ(outcomeOf({"user", "t", "--users", users, "--password-fd", "99"}).second, 1);
  EXPECT_FALSE(std::filesystem::exists(users));
}

TEST_F(ProcessTest, MonitorTellsAToolWhatWasServed) {
  std::vector<std::string> words = arguments();
  words.insert(words.end(), {"--monitor-port", "0", "--max-memory", "100000000"});
  CorvanedProgram program(words);
  RawClient client(portOf(program.line()));
  const std::string line = program.line();
  EXPECT_THAT(line, MatchesRegex("listening monitor 127\\.0\\.0\\.1:[0-9]+"));
  client.send(binaryRequest({{"action", "getStatus"}}));
  EXPECT_EQ(client.receive(2), std::string("\0\1", 2));
  RawClient tool(portOf(line));
  tool.send("GET /metrics HTTP/1.1\r\n\r\n");
  EXPECT_THAT(tool.receiveAll(),
              AllOf(StartsWith("HTTP/1.1 200 OK"), HasSubstr("corvaned_connections 1\n"),
                    HasSubstr("corvaned_requests_total{action=\"getStatus\",error=\"\"} 1\n"),
                    HasSubstr("corvaned_memory_budget_bytes 100000000\n")));
  RawClient probe(portOf(line));
  probe.send("GET /ready HTTP/1.1\r\n\r\n");
  EXPECT_THAT(probe.receiveAll(), StartsWith("HTTP/1.1 200 OK"));
}

TEST_F(ProcessTest, ConfigurationFileIsReadAndItsLogLevelAgainOnSignal) {
  const std::string config = (directory_.path() / "corvaned.conf").string();
  const auto write = [&](const std::string& level) {
    std::ofstream(config) << "# a comment\nbinary-port = 0\ndata = \"" << data_
                          << "\"\nlog-level = \"" << level << "\"\n";
  };
  write("error");
  CorvanedProgram program({"--config", config});
  RawClient client(portOf(program.line()));
  write("debug");
  program.signal(SIGHUP);
  EXPECT_THAT(program.line(), HasSubstr("read again"));
  client.send(binaryRequest({{"action", "updateIndex"}, {"index", "nope"}}));
  EXPECT_THAT(program.line(), AllOf(HasSubstr(" debug "), HasSubstr("collection=\"nope\""),
                                    HasSubstr("error=ZVK0007E")));
  std::ofstream(config) << "log-level = \"loud\"\n";
  program.signal(SIGHUP);
  EXPECT_THAT(program.line(), AllOf(HasSubstr(" error "), HasSubstr("old settings stay")));
  EXPECT_EQ(outcomeOf({"--config", config}).second, 2);
  EXPECT_EQ(outcomeOf({"--config", config + ".none", "--data", data_}).second, 2);
}

TEST_F(ProcessTest, WhatAConfigurationFileSaysAndNobodyKnowsIsAnErrorThatNamesIt) {
  const std::string config = (directory_.path() / "corvaned.conf").string();
  const std::string good = "binary-port = 0\ndata = \"" + data_ + "\"\n";
  const std::vector<std::pair<std::string, std::string>> cases{
      {good + "user = \"" + data_ + "/users\"\n", "the option \"user\""},
      {good + "max-connectoins = 5\n", "the option \"max-connectoins\""},
      {good + "[limits]\nmax-memory = 100000000\n", "the section [limits]"},
      {good + "[limits]\n", "the section [limits]"},
      {good + "max-memory = 4GiB\n", "--max-memory: '4GiB' is not a number from 16777216 to "},
  };
  for (const auto& [text, reason] : cases) {
    std::ofstream(config) << text;
    const auto [output, code] = outcomeOf({"--config", config});
    EXPECT_EQ(code, 2);
    EXPECT_THAT(output, AllOf(HasSubstr(reason), HasSubstr(config)));
  }
  EXPECT_FALSE(std::filesystem::exists(data_));
}

TEST_F(ProcessTest, NumbersThatNoServerCanWorkWithAreRefused) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"--max-memory", "1000"},     {"--max-document", "18446744073709551615"},
      {"--search-threads", "0"},    {"--search-threads", "100000"},
      {"--stall-timeout", "-1"},    {"--monitor-port", "65536"},
      {"--max-open-files", "many"},
  };
  for (const auto& [option, value] : cases) {
    std::vector<std::string> words = arguments();
    words.insert(words.end(), {option, value});
    const auto [output, code] = outcomeOf(words);
    EXPECT_EQ(code, 2) << option;
    EXPECT_THAT(output, HasSubstr(option + ": '" + value + "' is not a number from "));
  }
}

TEST_F(ProcessTest, SettingsThatCannotAllBeReadAgainAllStay) {
  const std::string users = (directory_.path() / "users").string();
  const std::string config = (directory_.path() / "corvaned.conf").string();
  ASSERT_EQ(outcomeOf({"token", "t", "--users", users, "--allow", "read:*"}).second, 0);
  const auto write = [&](const std::string& level) {
    std::ofstream(config) << "binary-port = 0\ndata = \"" << data_ << "\"\nusers = \"" << users
                          << "\"\nlog-level = \"" << level << "\"\n";
  };
  write("warn");
  CorvanedProgram program({"--config", config});
  while (!program.line().starts_with("listening")) {
  }
  write("info");
  std::ofstream(users) << "nonsense\n";
  program.signal(SIGHUP);
  EXPECT_THAT(program.line(), HasSubstr("old settings stay"));
  program.signal(SIGTERM);
  EXPECT_THAT(program.rest(), Not(HasSubstr(" info "))) << "the level has changed";
  EXPECT_EQ(program.wait(), 0);
}

TEST_F(ProcessTest, CheckGoesOnPastWhatItCannotCheck) {
  const std::string collections = data_ + "/collections/";
  {
    CorvanedProgram server(arguments());
    RawClient client(portOf(server.line()));
    for (const char* name : {"a", "m", "z"}) {
      client.send(binaryRequest({{"action", "createCollection"}, {"index", name}}));
      EXPECT_EQ(client.receive(2), std::string("\0\1", 2));
    }
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(), 0);
  }
  std::filesystem::create_directory(collections + "foo.bar");
  std::ofstream(collections + "notes.txt") << "mine";
  std::filesystem::remove(collections + "a/journal-0000000001");
  std::filesystem::create_directory(collections + "a/journal-0000000001");
  {
    CorvanedProgram check({"check", data_});
    const std::string said = check.rest();
    EXPECT_THAT(said, AllOf(StartsWith("\"a\": cannot be checked: "), HasSubstr("\"m\": sound"),
                            HasSubstr("\"z\": sound")));
    EXPECT_EQ(check.wait(), 1) << said;
  }
  std::ofstream(collections + "z/index/iamglass") << "damaged";
  CorvanedProgram check({"check", data_});
  EXPECT_THAT(check.rest(), AllOf(HasSubstr("\"m\": sound"), HasSubstr("\"z\": damaged")));
  EXPECT_EQ(check.wait(), 3);
  CorvanedProgram json({"check", "--json", data_});
  EXPECT_THAT(json.rest(),
              MatchesRegex("\\[\\{\"collection\":\"a\",\"sound\":false,\"unchecked\":\"[^\"]*\"\\},"
                           "\\{\"collection\":\"m\",\"sound\":true,.*\\},"
                           "\\{\"collection\":\"z\",\"sound\":false,.*\\}\\]\n"));
  EXPECT_EQ(json.wait(), 3);
}

TEST_F(ProcessTest, StorageFailureIsOneLineOfTheLogAndToldByTheMonitor) {
  {
    CorvanedProgram program(arguments());
    RawClient client(portOf(program.line()));
    client.send(binaryRequest({{"action", "createCollection"}, {"index", "c"}}));
    EXPECT_EQ(client.receive(2), std::string("\0\1", 2));
  }
  std::ofstream(data_ + "/collections/c/index/iamglass") << "damaged";
  std::vector<std::string> words = arguments();
  words.insert(words.end(), {"--monitor-port", "0"});
  CorvanedProgram program(words);
  RawClient client(portOf(program.line()));
  const std::string monitor = program.line();
  for (int i = 0; i < 3; ++i) {
    client.send(binaryRequest({{"action", "search"}, {"index", "c"}, {"query", "x"}}));
    EXPECT_EQ(client.receive(2), std::string("\0\6", 2));
    const std::string length = client.receive(2);
    client.receive(static_cast<unsigned char>(length[0]) * 256U +
                   static_cast<unsigned char>(length[1]));
  }
  const auto told = [&](const std::string& path) {
    RawClient tool(portOf(monitor));
    tool.send("GET " + path + " HTTP/1.1\r\n\r\n");
    return tool.receiveAll();
  };
  EXPECT_THAT(told("/metrics"), HasSubstr("corvaned_collections{condition=\"not_opened\"} 1\n"));
  EXPECT_THAT(told("/ready"), AllOf(StartsWith("HTTP/1.1 200 OK"), HasSubstr("not_opened=1")));
  program.signal(SIGTERM);
  const std::string log = program.rest();
  const std::string line = "failure: action=\"search\" collection=\"c\" error=ZVK0014E reason=";
  EXPECT_THAT(log, HasSubstr(line));
  EXPECT_EQ(log.find(line, log.find(line) + 1), std::string::npos) << log;
}

}  // namespace
}  // namespace corvaned
