#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace tq::test {

/// corvaned as a process of its own, on free ports, with a data directory of its own that lies in
/// memory where the machine has room for files there. Process and directory go away with the
/// object, the process also when the thread that started it ends for whatever reason.
/// Every operation throws std::runtime_error when the server does not do what it should in time.
class CorvanedProcess {
 public:
  /// `options` come behind those for the ports, the directory and the log.
  explicit CorvanedProcess(std::vector<std::string> options = {});
  ~CorvanedProcess();
  CorvanedProcess(const CorvanedProcess&) = delete;
  CorvanedProcess& operator=(const CorvanedProcess&) = delete;

  unsigned int httpPort() const { return httpPort_; }
  unsigned int binaryPort() const { return binaryPort_; }
  const std::filesystem::path& directory() const { return directory_; }

  /// Ends it as a user would and returns its exit code, 256 and the signal when one ended it.
  int stop();
  /// Ends it as a power cut would.
  void kill();
  /// Starts it again on the same data and other ports, when it has been ended.
  void start();

 private:
  using Deadline = std::chrono::steady_clock::time_point;

  void spawn(int output);
  void awaitPorts(int output, Deadline deadline);
  int awaitEnd();

  std::vector<std::string> options_;
  std::filesystem::path directory_;
  pid_t process_ = -1;
  unsigned int httpPort_ = 0;
  unsigned int binaryPort_ = 0;
};

}  // namespace tq::test
