#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/server/rawClient.h"
#include "tests/server/requestBytes.h"
#include "tests/support/temporaryDirectory.h"

// The program itself, as a process of its own.
namespace corvaned {
namespace {

using test::binaryRequest;
using test::RawClient;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

/// One run of the program, its output readable line by line. Killed when the object goes.
class Program {
 public:
  explicit Program(std::vector<std::string> arguments) {
    std::array<int, 2> pipe{};
    if (::pipe2(pipe.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDERR_FILENO);
    arguments.insert(arguments.begin(), CORVANED_PROGRAM);
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const int error =
        ::posix_spawn(&process_, CORVANED_PROGRAM, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipe[1]);
    output_ = pipe[0];
    if (error != 0) throw std::runtime_error("posix_spawn");
  }
  ~Program() {
    if (process_ > 0) {
      ::kill(process_, SIGKILL);
      wait();
    }
    ::close(output_);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  std::string line() {
    std::string text;
    char c = 0;
    while (::read(output_, &c, 1) == 1 && c != '\n') text += c;
    return text;
  }

  std::string rest() {
    std::string text;
    std::array<char, 4096> buffer{};
    for (ssize_t n = 0; (n = ::read(output_, buffer.data(), buffer.size())) > 0;) {
      text.append(buffer.data(), static_cast<std::size_t>(n));
    }
    return text;
  }

  void signal(int number) { ::kill(process_, number); }

  /// The exit code, 256 and the signal when one ended it.
  int wait() {
    int status = 0;
    ::waitpid(process_, &status, 0);
    process_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
  }

 private:
  pid_t process_ = -1;
  int output_ = -1;
};

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
  Program program({"--http-port", "0", "--binary-port", "0", "--data", data_, "--port-file",
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
    Program program(arguments());
    RawClient client(portOf(program.line()));
    program.signal(number);
    EXPECT_EQ(program.wait(), 0);
    EXPECT_TRUE(client.ended());
  }
}

TEST_F(ProcessTest, SecondServerOnADirectoryIsRefused) {
  Program first(arguments());
  first.line();
  Program second(arguments());
  EXPECT_THAT(second.rest(), AllOf(HasSubstr(data_), HasSubstr("in use by another server")));
  EXPECT_EQ(second.wait(), 1);
}

TEST_F(ProcessTest, DirectoryIsFreeAtOnceAfterAKill) {
  Program first(arguments());
  first.line();
  first.signal(SIGKILL);
  EXPECT_EQ(first.wait(), 256 + SIGKILL);
  Program second(arguments());
  EXPECT_THAT(second.line(), StartsWith("listening binary"));
}

TEST_F(ProcessTest, UsageErrorsAreExplained) {
  Program none({"--data", data_});
  EXPECT_THAT(none.rest(), HasSubstr("port"));
  EXPECT_NE(none.wait(), 0);
  Program unwritable({"--http-port", "0", "--data", "/dev/null/x"});
  EXPECT_THAT(unwritable.rest(), HasSubstr("/dev/null/x"));
  EXPECT_EQ(unwritable.wait(), 1);
  Program nowhere({"--http-port", "0", "--data", data_, "--listen", "example"});
  EXPECT_THAT(nowhere.rest(), HasSubstr("example"));
  EXPECT_EQ(nowhere.wait(), 1);
}

TEST_F(ProcessTest, HelpAndVersionAreThere) {
  Program help({"--help"});
  EXPECT_THAT(help.rest(), AllOf(HasSubstr("--http-port"), HasSubstr("--binary-port"),
                                 HasSubstr("--data"), HasSubstr("--listen")));
  EXPECT_EQ(help.wait(), 0);
  Program version({"--version"});
  EXPECT_THAT(version.rest(), StartsWith("corvaned "));
  EXPECT_EQ(version.wait(), 0);
}

TEST_F(ProcessTest, WrongFaultScriptEndsItWithCodeTwoAndNamesTheLine) {
  const std::string script = (directory_.path() / "script").string();
  std::ofstream(script) << "all: delay 1\nall: dorp 1\n";
  Program program({"--http-port", "0", "--data", data_, "--fault", script});
  EXPECT_THAT(program.rest(), AllOf(HasSubstr(script), HasSubstr("line 2: there is no fault")));
  EXPECT_EQ(program.wait(), 2);
}

TEST_F(ProcessTest, FaultScriptOfTheCommandLineIsCarriedOut) {
  Program program(
      {"--binary-port", "0", "--data", data_, "--log-level", "off", "--fault", "reply 1: drop 1"});
  RawClient client(portOf(program.line()));
  client.send(binaryRequest({{"action", "getStatus"}}));
  EXPECT_EQ(client.receiveAll(), std::string("\0", 1));
}

}  // namespace
}  // namespace corvaned
