#pragma once

#include <mutex>
#include <string>
#include <utility>

namespace corvane {

/// What the program prints when a signal ends it: kept up to date by the command, read by the
/// thread that takes the signal.
class LastWords {
 public:
  struct Text {
    std::string out;  ///< for standard output
    std::string err;  ///< for standard error
  };

  void set(Text text) {
    const std::lock_guard lock(mutex_);
    text_ = std::move(text);
  }

  Text get() const {
    const std::lock_guard lock(mutex_);
    return text_;
  }

 private:
  mutable std::mutex mutex_;
  Text text_;
};

}  // namespace corvane
