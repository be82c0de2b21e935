#include "tests/support/corvanedProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace tq::test {

namespace {

using std::chrono::steady_clock;

// A loaded machine under a sanitizer takes seconds; a server that needs longer than this is broken.
constexpr std::chrono::seconds kPatience{60};

int millisLeft(steady_clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady_clock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

std::vector<char*> pointersTo(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

// The engine's own check of an index deletes a table by its base class, which has no virtual
// destructor. A program with the address sanitizer in it would end for that.
bool letTheEngineCheck() {
  const char* options = std::getenv("ASAN_OPTIONS");
  const std::string before = options == nullptr ? "" : std::string(options) + ":";
  return ::setenv("ASAN_OPTIONS", (before + "new_delete_type_mismatch=0").c_str(), 1) == 0;
}

}  // namespace

CorvanedProgram::CorvanedProgram(std::vector<std::string> arguments, Diagnostics diagnostics,
                                 Output output) {
  // Once, since other threads may look at the environment later.
  [[maybe_unused]] static const bool mayCheck = letTheEngineCheck();
  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  output_ = pipe[0];
  arguments.insert(arguments.begin(), CORVANED_PROGRAM);
  const std::vector<char*> argv = pointersTo(arguments);
  const pid_t parent = ::getpid();
  process_ = ::fork();
  if (process_ == 0) {
    // A test that is ended by its time limit must not leave a server behind.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const bool withErrors = diagnostics == Diagnostics::Read;
    if (::getppid() == parent && ::dup2(pipe[1], STDOUT_FILENO) >= 0 &&
        (!withErrors || ::dup2(pipe[1], STDERR_FILENO) >= 0)) {
      if (output != Output::Read) ::close(STDOUT_FILENO);
      // It gets the number that has become free.
      if (output == Output::Full) ::open("/dev/full", O_WRONLY);
      ::execv(argv[0], argv.data());
    }
    ::_exit(127);
  }
  ::close(pipe[1]);
  if (process_ > 0) return;
  ::close(output_);
  throw std::runtime_error("cannot start corvaned");
}

CorvanedProgram::~CorvanedProgram() {
  if (process_ > 0) {
    signal(SIGKILL);
    wait();
  }
  ::close(output_);
}

std::string CorvanedProgram::line() {
  const auto deadline = steady_clock::now() + kPatience;
  std::string line;
  for (;;) {
    pollfd waiting{output_, POLLIN, 0};
    const int ready = ::poll(&waiting, 1, millisLeft(deadline));
    if (ready < 0 && errno == EINTR) continue;
    char c = 0;
    if (ready <= 0 || ::read(output_, &c, 1) != 1 || c == '\n') return line;
    line += c;
  }
}

std::string CorvanedProgram::rest() {
  std::string text;
  std::array<char, 4096> buffer{};
  for (ssize_t n = 0; (n = ::read(output_, buffer.data(), buffer.size())) > 0;) {
    text.append(buffer.data(), static_cast<std::size_t>(n));
  }
  return text;
}

void CorvanedProgram::signal(int number) { ::kill(process_, number); }

int CorvanedProgram::wait() {
  int status = 0;
  while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) {
  }
  process_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
}

CorvanedProcess::CorvanedProcess(std::vector<std::string> options) : options_(std::move(options)) {
  start();
}

void CorvanedProcess::start() {
  if (program_) throw std::runtime_error("corvaned runs already");
  std::vector<std::string> words{"--http-port", "0",      "--binary-port",
                                 "0",           "--data", directory() / "data",
                                 "--log-level", "error"};
  words.insert(words.end(), options_.begin(), options_.end());
  program_.emplace(words, CorvanedProgram::Diagnostics::PassedOn);
  try {
    awaitPorts();
  } catch (...) {
    program_.reset();
    throw;
  }
}

int CorvanedProcess::stop() { return end(SIGTERM); }

void CorvanedProcess::kill() { end(SIGKILL); }

int CorvanedProcess::end(int signal) {
  program_->signal(signal);
  return awaitEnd();
}

int CorvanedProcess::awaitEnd() {
  const int code = program_->wait();
  program_.reset();
  return code;
}

void CorvanedProcess::awaitPorts() {
  for (const char* protocol : {"http", "binary"}) {
    const std::string line = program_->line();
    const std::string expected = std::string("listening ") + protocol + " 127.0.0.1:";
    if (!line.starts_with(expected)) {
      throw std::runtime_error("corvaned did not become ready; it said \"" + line + "\"");
    }
    unsigned int& port = *protocol == 'h' ? httpPort_ : binaryPort_;
    port = static_cast<unsigned int>(std::stoul(line.substr(expected.size())));
  }
}

}  // namespace tq::test
