#pragma once

#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <system_error>

#include "server/base/errors.h"
#include "server/store/files.h"

namespace corvaned::test {

/// The process can open this many more files while the object lives; one at most. A sanitizer
/// opens a pipe for its first look at an object of each class, and takes it for damaged when it
/// cannot: what is to fail must have been done once before.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t more) {
    // What every failure meets: the errors, what gives them their text, and the log.
    std::generic_category().message(0);
    meet(ServerError(ErrorKind::StorageFailed, "an error for a test"));
    meet(ShortageError("descriptors run out for a test"));
    const int lowestFree = ::dup(STDERR_FILENO);
    if (lowestFree < 0) throw std::runtime_error("dup");
    ::close(lowestFree);
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit limit{static_cast<rlim_t>(lowestFree) + more, before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  template <typename Error>
  static void meet(const Error& met) {
    try {
      throw met;
    } catch (const ServerError& error) {
      spdlog::warn("{} {} {}", std::string("now"), static_cast<int>(error.kind()), error.what());
    }
  }

  rlimit before_{};
};

}  // namespace corvaned::test
