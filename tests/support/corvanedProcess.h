#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/temporaryDirectory.h"

namespace tq::test {

/// One run of corvaned, its output readable line by line. Killed when the object goes, and also
/// when the thread that started it ends for whatever reason.
class CorvanedProgram {
 public:
  enum class Diagnostics {
    /// Standard error is read with standard output.
    Read,
    /// It goes where the test's own goes.
    PassedOn,
  };

  enum class Output {
    Read,
    /// Standard output is a device that has no room for anything.
    Full,
    /// It has none.
    Closed,
  };

  explicit CorvanedProgram(std::vector<std::string> arguments,
                           Diagnostics diagnostics = Diagnostics::Read,
                           Output output = Output::Read);
  ~CorvanedProgram();
  CorvanedProgram(const CorvanedProgram&) = delete;
  CorvanedProgram& operator=(const CorvanedProgram&) = delete;

  /// The next line; what there is of it when the output ends, or when it takes a minute.
  std::string line();
  /// Everything up to the end of the output.
  std::string rest();

  pid_t id() const { return process_; }
  void signal(int number);
  /// The exit code, 256 and the signal when one ended it.
  int wait();

 private:
  pid_t process_ = -1;
  int output_ = -1;
};

/// corvaned on free ports, with a data directory of its own. Process and directory go away with the
/// object. Every operation throws std::runtime_error when the server does not do what it should in
/// time.
class CorvanedProcess {
 public:
  /// `options` come behind those for the ports, the directory and the log.
  explicit CorvanedProcess(std::vector<std::string> options = {});

  unsigned int httpPort() const { return httpPort_; }
  unsigned int binaryPort() const { return binaryPort_; }
  const std::filesystem::path& directory() const { return directory_.path(); }

  pid_t id() const { return program_->id(); }

  /// Ends it as a user would and returns its exit code, 256 and the signal when one ended it.
  int stop();
  /// Ends it as a power cut would.
  void kill();
  /// Returns its exit code once it has ended by itself.
  int awaitEnd();
  /// Starts it again on the same data and other ports, when it has been ended.
  void start();

 private:
  int end(int signal);
  void awaitPorts();

  std::vector<std::string> options_;
  TemporaryDirectory directory_;
  std::optional<CorvanedProgram> program_;
  unsigned int httpPort_ = 0;
  unsigned int binaryPort_ = 0;
};

}  // namespace tq::test
