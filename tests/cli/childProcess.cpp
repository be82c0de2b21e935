#include "tests/cli/childProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <stdexcept>

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

Finished runToEnd(const std::vector<std::string>& command, const std::string& input) {
  ScratchFile in(input), out, err;
  const pid_t process = spawn(command, in.descriptor(), out.descriptor(), err.descriptor());
  Finished finished;
  finished.code = awaitEnd(process);
  finished.out = out.contents();
  finished.err = err.contents();
  return finished;
}

}  // namespace corvane::test
