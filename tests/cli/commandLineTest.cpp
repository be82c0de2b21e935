#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <vector>

#include "cli/commandLine.h"

using namespace corvane;

namespace {

struct Parse {
  explicit Parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "corvane");
    std::istringstream in;
    std::ostringstream outStream, errStream;
    result = parseCommandLine(static_cast<int>(arguments.size()), arguments.data(),
                              {in, outStream, errStream});
    out = outStream.str();
    err = errStream.str();
  }

  ParsedCommandLine result;
  std::string out, err;
};

TEST(CommandLine, TakesGeneralOptionsOnBothSidesOfTheCommand) {
  const Parse parse({"--host", "::1", "search", "c", "q", "--port", "4480", "--timeout", "9",
                     "--json", "--protocol", "http"});
  ASSERT_FALSE(parse.result.exit) << parse.err;
  const auto& line = parse.result.commandLine;
  EXPECT_EQ(line.settings.host, "::1");
  EXPECT_EQ(line.settings.port, 4480U);
  EXPECT_EQ(line.settings.timeOut, 9U);
  EXPECT_EQ(line.settings.protocol, Protocol::Http);
  EXPECT_TRUE(line.json);
  EXPECT_TRUE(line.command);
}

TEST(CommandLine, HasDefaults) {
  const Parse parse({"--port", "1", "status"});
  ASSERT_FALSE(parse.result.exit) << parse.err;
  EXPECT_EQ(parse.result.commandLine.settings.host, "127.0.0.1");
  EXPECT_EQ(parse.result.commandLine.settings.timeOut, 300000U);
  EXPECT_EQ(parse.result.commandLine.settings.protocol, Protocol::Binary);
  EXPECT_FALSE(parse.result.commandLine.json);
}

TEST(CommandLine, KnowsEveryCommand) {
  const std::vector<std::vector<const char*>> commands = {{"create", "c"},
                                                          {"create", "c", "--without-text"},
                                                          {"create", "c", "--refresh", "1000"},
                                                          {"configure", "c"},
                                                          {"configure", "c", "--type", "html"},
                                                          {"drop", "c"},
                                                          {"add", "c", "k", "text"},
                                                          {"load", "c", "-"},
                                                          {"update", "c"},
                                                          {"search", "c", "q"},
                                                          {"estimate", "c", "q"},
                                                          {"delete", "c", "k", "l"},
                                                          {"backup", "b"},
                                                          {"backup", "b", "c"},
                                                          {"backups"},
                                                          {"restore", "b"},
                                                          {"restore", "b", "c", "--replace"},
                                                          {"restore", "b", "c", "--from", "d"},
                                                          {"list"},
                                                          {"list", "c"},
                                                          {"keys", "c"},
                                                          {"keys", "c", "--upto", "k"},
                                                          {"digest", "c"},
                                                          {"digest", "c", "--after", "k"},
                                                          {"status"},
                                                          {"status", "c"},
                                                          {"version"}};
  for (auto arguments : commands) {
    const std::string name = arguments.front();
    arguments.insert(arguments.end(), {"--port", "1"});
    const Parse parse(arguments);
    EXPECT_FALSE(parse.result.exit) << name << ": " << parse.err;
    EXPECT_TRUE(parse.result.commandLine.command) << name;
  }
}

TEST(CommandLine, RefusesWrongUseWithOneLineAndTheUsageCode) {
  const std::vector<std::vector<const char*>> wrong = {
      {},
      {"--port", "1"},
      {"--port", "1", "frobnicate"},
      {"search", "c", "q"},
      {"--port", "0", "status"},
      {"--port", "65536", "status"},
      {"--port", "x", "status"},
      {"--port", "1", "search", "c"},
      {"--port", "1", "search", "c", "q", "--limit", "-1"},
      {"--port", "1", "search", "c", "q", "--limit", "x"},
      {"--port", "1", "search", "c", "q", "--start", "-1"},
      {"--port", "1", "search", "c", "q", "--pages"},
      {"--port", "1", "search", "c", "q", "--also", "d"},
      {"--port", "1", "search", "c", "q", "--limit", "1", "--pages", "--also", "d"},
      {"--port", "1", "search", "c", "q", "--limit", "1", "--after", "x", "--also", "d"},
      {"--port", "1", "search", "c", "q", "--limit", "18446744073709551616"},
      {"--port", "1", "create"},
      {"--port", "1", "create", "c", "--refresh"},
      {"--port", "1", "drop", "c", "--without-text"},
      {"--port", "1", "backup"},
      {"--port", "1", "restore"},
      {"--port", "1", "restore", "b", "--from", "c"},
      {"--port", "1", "backup", "b", "c", "--replace"},
      {"--port", "1", "keys"},
      {"--port", "1", "keys", "c", "k"},
      {"--port", "1", "keys", "c", "--limit", "-1"},
      {"--port", "1", "digest"},
      {"--port", "1", "digest", "c", "--every", "0"},
      {"--port", "1", "digest", "c", "--limit", "1"},
      {"--port", "1", "add", "c"},
      {"--port", "1", "add", "c", "k", "text", "--file", "f"},
      {"--port", "1", "--protocol", "smoke", "status"},
      {"--port", "1", "--timeout", "-5", "status"},
      {"--port", "1", "status", "create", "c"}};
  for (const auto& arguments : wrong) {
    const Parse parse(arguments);
    std::string shown;
    for (const char* argument : arguments) shown += std::string(argument) + " ";
    ASSERT_EQ(parse.result.exit, ExitCode::Usage) << shown;
    EXPECT_EQ(parse.err.rfind("corvane: ", 0), 0U) << shown << parse.err;
    EXPECT_EQ(parse.err.find('\n'), parse.err.size() - 1) << shown << parse.err;
    EXPECT_EQ(parse.out, "") << shown;
  }
}

TEST(CommandLine, SaysWhatIsWrongAndWhatWasProbablyMeant) {
  const std::vector<std::pair<std::vector<const char*>, std::string>> cases = {
      {{"serch", "c", "q"}, "unknown command 'serch', did you mean 'search'?"},
      {{"--port", "1", "updaet", "c"}, "unknown command 'updaet', did you mean 'update'?"},
      {{"--host", "search", "lod"}, "unknown command 'lod', did you mean 'load'?"},
      {{"xyzzy"}, "unknown command 'xyzzy'; see corvane --help"},
      {{""}, "unknown command ''; see corvane --help"},
      {{}, "no command is given; see corvane --help"},
      {{"--prt", "1", "status"}, "unknown option --prt, did you mean '--port'?"},
      {{"search", "c", "q", "--limt", "5"}, "unknown option --limt, did you mean '--limit'?"},
      {{"search", "c", "red", "fox"},
       "search takes no further argument 'fox'; put a query of several words in quotes: 'red fox'"},
      {{"estimate", "c", "red", "fox"}, "put a query of several words in quotes"},
      {{"add", "c", "k", "red", "fox"}, "put a text of several words in quotes"},
      {{"create", "a", "b"}, "create takes no further argument 'b'"},
      {{"status"}, "--port, or CORVANE_PORT, is required; see corvane status --help"},
      {{"--port", "1", "add", "c", "k"},
       "add needs TEXT or --file; to empty the document, give '' as its text"},
      {{"--port", "65536", "status"}, "--port: '65536' is not a number from 1 to 65535"},
      {{"--port", "1", "--protocol", "htp", "status"},
       "--protocol: 'htp' is not a protocol; there are binary and http"},
      {{"--port", "1", "--credentials", "", "status"},
       "--credentials: an empty text is no file's name"},
      {{"--port", "1", "add", "c", "k", "--file", ""}, "--file: an empty text is no file's name"},
      {{"--port", "1", "load", "c", "-", "--max-errors", "0"}, "--max-errors: '0' is not a number"},
      {{"--port", "1\x1b[31m", "status"}, "'1\\u{1b}[31m' is not a number"},
      {{"--port", "1", "status", "c", "\xe2\x80\xaeop"}, "argument '\\u{202e}op'"}};
  for (const auto& [arguments, message] : cases) {
    const Parse parse(arguments);
    ASSERT_EQ(parse.result.exit, ExitCode::Usage) << message;
    EXPECT_EQ(parse.err.find("corvane: "), 0U) << parse.err;
    EXPECT_NE(parse.err.find(message), std::string::npos) << parse.err;
    EXPECT_EQ(parse.err.find('\n'), parse.err.size() - 1) << parse.err;
  }
}

TEST(CommandLine, TakesAnEmptyTextThatIsGiven) {
  const Parse parse({"--port", "1", "add", "c", "k", ""});
  EXPECT_FALSE(parse.result.exit) << parse.err;
}

TEST(CommandLine, RefusesWrongUseInJsonWhenItIsWanted) {
  const Parse parse({"--port", "x", "status", "--json"});
  EXPECT_EQ(parse.result.exit, ExitCode::Usage);
  EXPECT_EQ(parse.err.rfind("{\"error\":\"--port: ", 0), 0U) << parse.err;
  EXPECT_EQ(parse.err.find('\n'), parse.err.size() - 1) << parse.err;
}

TEST(CommandLine, ExplainsItself) {
  const Parse general({"--help"});
  EXPECT_EQ(general.result.exit, ExitCode::Ok);
  for (const char* word : {"create", "load", "search", "--port", "Exit codes", "--json"}) {
    EXPECT_NE(general.out.find(word), std::string::npos) << word;
  }
  const Parse load({"load", "--help"});
  EXPECT_EQ(load.result.exit, ExitCode::Ok);
  EXPECT_NE(load.out.find("metadata"), std::string::npos);
}

TEST(CommandLine, EveryCommandExplainsItselfAndSpeaksJson) {
  const std::vector<std::vector<const char*>> commands = {{"create", "c"},
                                                          {"configure", "c"},
                                                          {"drop", "c"},
                                                          {"add", "c", "k", "text"},
                                                          {"load", "c", "-"},
                                                          {"update", "c"},
                                                          {"search", "c", "q"},
                                                          {"estimate", "c", "q"},
                                                          {"delete", "c", "k"},
                                                          {"backup", "b"},
                                                          {"backups"},
                                                          {"restore", "b"},
                                                          {"list"},
                                                          {"keys", "c"},
                                                          {"digest", "c"},
                                                          {"status"},
                                                          {"version"}};
  for (const auto& command : commands) {
    const std::string name = command.front();
    const Parse help({command.front(), "--help"});
    EXPECT_EQ(help.result.exit, ExitCode::Ok) << name;
    EXPECT_NE(help.out.find(name), std::string::npos) << name;
    EXPECT_EQ(help.err, "") << name;
    for (const char* common : {"--host HOST", "--port PORT", "--timeout MS", "--protocol NAME",
                               "--credentials FILE", "--json", "Exit codes"}) {
      EXPECT_NE(help.out.find(common), std::string::npos) << name << " " << common;
    }
    // Whether a request is repeated is part of what a command does.
    const std::regex repeating(
        "(request(\\s+for[^.]*)?|on\\s+its\\s+way,\\s+it)\\s+is\\s+(not\\s+)?repeated|sent\\s+"
        "again");
    EXPECT_TRUE(std::regex_search(help.out, repeating)) << help.out;
    EXPECT_EQ(help.out.find_first_of("{}>"), std::string::npos) << help.out;
    std::istringstream lines(help.out);
    for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 80U) << line;
    auto arguments = command;
    arguments.insert(arguments.end(), {"--port", "1"});
    EXPECT_FALSE(Parse(arguments).result.commandLine.json) << name;
    arguments.push_back("--json");
    const Parse json(arguments);
    EXPECT_FALSE(json.result.exit) << name << ": " << json.err;
    EXPECT_TRUE(json.result.commandLine.json) << name;
  }
}

TEST(CommandLine, PrintsItsOwnVersion) {
  const Parse parse({"--version"});
  EXPECT_EQ(parse.result.exit, ExitCode::Ok);
  EXPECT_EQ(parse.out.rfind("corvane ", 0), 0U);
}

}  // namespace
