#include "tests/cli/childProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace corvane::test {

namespace {

// A file without a name: it needs no reader at work while the program writes.
class ScratchFile {
 public:
  explicit ScratchFile(const std::string& contents = {}) : file_(std::tmpfile()) {
    if (file_ == nullptr) throw std::runtime_error("no temporary file");
    ::fcntl(descriptor(), F_SETFD, FD_CLOEXEC);
    if (std::fwrite(contents.data(), 1, contents.size(), file_) != contents.size()) {
      throw std::runtime_error("cannot write a temporary file");
    }
    std::rewind(file_);
  }
  ~ScratchFile() { std::fclose(file_); }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  int descriptor() const { return ::fileno(file_); }

  std::string contents() {
    std::rewind(file_);
    std::string text;
    std::array<char, 4096> buffer{};
    while (const std::size_t n = std::fread(buffer.data(), 1, buffer.size(), file_)) {
      text.append(buffer.data(), n);
    }
    return text;
  }

 private:
  std::FILE* file_;
};

pid_t spawn(const std::vector<std::string>& command, int in, int out, int err) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
  std::vector<std::string> words = command;
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t process = -1;
  const int error = ::posix_spawn(&process, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot start " + command.front());
  return process;
}

int awaitEnd(pid_t process) {
  int status = 0;
  ::waitpid(process, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
}

}  // namespace

Terminal::Terminal() : outer_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
  std::array<char, 64> name{};
  if (outer_ < 0 || ::grantpt(outer_) != 0 || ::unlockpt(outer_) != 0 ||
      ::ptsname_r(outer_, name.data(), name.size()) != 0) {
    throw std::runtime_error("no terminal");
  }
  inner_ = ::open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  const winsize size{.ws_row = 24, .ws_col = 80, .ws_xpixel = 0, .ws_ypixel = 0};
  if (inner_ < 0 || ::ioctl(inner_, TIOCSWINSZ, &size) != 0) {
    throw std::runtime_error("no terminal");
  }
}

Terminal::~Terminal() {
  ::close(inner_);
  ::close(outer_);
}

void Terminal::await(const std::string& text) {
  std::array<char, 4096> buffer{};
  while (written_.find(text) == std::string::npos) {
    const ssize_t count = ::read(outer_, buffer.data(), buffer.size());
    if (count <= 0) throw std::runtime_error("the terminal shows only: " + written_);
    written_.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

void Terminal::type(const std::string& text) const {
  if (::write(outer_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("nothing can be typed");
  }
}

bool Terminal::echoes() const { return (settings().c_lflag & ECHO) != 0; }

bool Terminal::stopsPrograms() const { return settings().c_cc[VSUSP] != _POSIX_VDISABLE; }

termios Terminal::settings() const {
  termios now{};
  if (::tcgetattr(inner_, &now) != 0) throw std::runtime_error("no terminal");
  return now;
}

struct Child::Files {
  explicit Files(const std::string& input) : in(input) {}
  ScratchFile in, out{}, err{};
  // Both -1 unless the output is a pipe.
  std::array<int, 2> pipe{-1, -1};
};

Child::Child(const std::vector<std::string>& command, const std::string& input, Output output)
    : files_(std::make_unique<Files>(input)) {
  auto& pipe = files_->pipe;
  if (output == Output::Unread && ::pipe2(pipe.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  const int out = output == Output::Unread ? pipe[1] : files_->out.descriptor();
  process_ = spawn(command, files_->in.descriptor(), out, files_->err.descriptor());
  if (output == Output::Unread) ::close(pipe[1]);
}

Child::Child(const std::vector<std::string>& command, const Terminal& errors)
    : files_(std::make_unique<Files>(std::string())),
      process_(
          spawn(command, files_->in.descriptor(), files_->out.descriptor(), errors.descriptor())) {}

Child::~Child() {
  if (process_ > 0) {
    signal(SIGKILL);
    awaitEnd(process_);
  }
  if (files_->pipe[0] >= 0) ::close(files_->pipe[0]);
}

void Child::signal(int number) const { ::kill(process_, number); }

Finished Child::finish() {
  Finished finished;
  std::array<char, 4096> buffer{};
  const int pipe = files_->pipe[0];
  for (ssize_t count = 1; pipe >= 0 && count > 0;) {
    count = ::read(pipe, buffer.data(), buffer.size());
    if (count > 0) finished.out.append(buffer.data(), static_cast<std::size_t>(count));
  }
  finished.code = awaitEnd(std::exchange(process_, -1));
  if (pipe < 0) finished.out = files_->out.contents();
  finished.err = files_->err.contents();
  return finished;
}

Finished runToEnd(const std::vector<std::string>& command, const std::string& input) {
  return Child(command, input).finish();
}

}  // namespace corvane::test
