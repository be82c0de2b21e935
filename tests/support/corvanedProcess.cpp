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
#include <stdexcept>
#include <system_error>
#include <utility>

namespace tq::test {

namespace {

using std::chrono::steady_clock;

// A loaded machine under a sanitizer takes seconds; a server that needs longer than this is broken.
constexpr std::chrono::seconds kPatience{60};

std::filesystem::path newDirectory() {
  // The servers sync every change; on a disk the tests would do little but wait for it.
  const char* memory = "/dev/shm";
  const bool inMemory = ::access(memory, W_OK | X_OK) == 0;
  const std::filesystem::path parent =
      inMemory ? std::filesystem::path(memory) : std::filesystem::temp_directory_path();
  std::string pattern = (parent / "corvaned-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory");
  return pattern;
}

int millisLeft(steady_clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady_clock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

/// One line of the descriptor; what was there before the deadline or the end when it is not whole.
std::string readLine(int descriptor, steady_clock::time_point deadline) {
  std::string line;
  for (;;) {
    pollfd waiting{descriptor, POLLIN, 0};
    const int ready = ::poll(&waiting, 1, millisLeft(deadline));
    if (ready < 0 && errno == EINTR) continue;
    char c = 0;
    if (ready <= 0 || ::read(descriptor, &c, 1) != 1 || c == '\n') return line;
    line += c;
  }
}

}  // namespace

CorvanedProcess::CorvanedProcess(std::vector<std::string> options)
    : options_(std::move(options)), directory_(newDirectory()) {
  start();
}

CorvanedProcess::~CorvanedProcess() {
  if (process_ > 0) {
    ::kill(process_, SIGKILL);
    awaitEnd();
  }
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

void CorvanedProcess::start() {
  if (process_ > 0) throw std::runtime_error("corvaned runs already");
  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  spawn(pipe[1]);
  ::close(pipe[1]);
  try {
    awaitPorts(pipe[0], steady_clock::now() + kPatience);
  } catch (...) {
    ::close(pipe[0]);
    kill();
    throw;
  }
  ::close(pipe[0]);
}

int CorvanedProcess::stop() {
  ::kill(process_, SIGTERM);
  return awaitEnd();
}

void CorvanedProcess::kill() {
  ::kill(process_, SIGKILL);
  awaitEnd();
}

void CorvanedProcess::spawn(int output) {
  std::vector<std::string> words{CORVANED_PROGRAM,    "--http-port", "0",
                                 "--binary-port",     "0",           "--data",
                                 directory_ / "data", "--log-level", "error"};
  words.insert(words.end(), options_.begin(), options_.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const pid_t parent = ::getpid();
  process_ = ::fork();
  if (process_ < 0) throw std::runtime_error("cannot start corvaned");
  if (process_ > 0) return;
  // A test that is ended by its time limit must not leave a server behind.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() == parent && ::dup2(output, STDOUT_FILENO) >= 0) ::execv(argv[0], argv.data());
  ::_exit(127);
}

void CorvanedProcess::awaitPorts(int output, Deadline deadline) {
  for (const char* protocol : {"http", "binary"}) {
    const std::string line = readLine(output, deadline);
    const std::string expected = std::string("listening ") + protocol + " 127.0.0.1:";
    if (!line.starts_with(expected)) {
      throw std::runtime_error("corvaned did not become ready; it said \"" + line + "\"");
    }
    unsigned int& port = *protocol == 'h' ? httpPort_ : binaryPort_;
    port = static_cast<unsigned int>(std::stoul(line.substr(expected.size())));
  }
}

int CorvanedProcess::awaitEnd() {
  int status = 0;
  while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) {
  }
  process_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
}

}  // namespace tq::test
