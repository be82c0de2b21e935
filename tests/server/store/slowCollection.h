#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

namespace corvaned::test {

template <typename Result>
bool isReady(const std::future<Result>& future) {
  return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

/// Whether the thread of this process waits for something.
inline bool sleeps(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string facts;
  std::getline(file, facts);
  const std::size_t name = facts.rfind(')');
  return name != std::string::npos && facts.substr(name + 1).starts_with(" S");
}

/// Tells when a file is opened.
class OpeningWatch {
 public:
  explicit OpeningWatch(const std::filesystem::path& file) : watch_(::inotify_init1(IN_CLOEXEC)) {
    if (::inotify_add_watch(watch_, file.c_str(), IN_OPEN) >= 0) return;
    ::close(watch_);
    throw std::runtime_error("the file cannot be watched");
  }
  ~OpeningWatch() { ::close(watch_); }
  OpeningWatch(const OpeningWatch&) = delete;
  OpeningWatch& operator=(const OpeningWatch&) = delete;

  /// True when it has been opened once; false if `isOver()` becomes true before.
  template <typename IsOver>
  [[nodiscard]] bool await(const IsOver& isOver) const {
    constexpr int kLookAgain = 10;  // ms
    pollfd event{watch_, POLLIN, 0};
    for (bool over = false; !over;) {
      // Asked first: it may be opened, and all over, in between.
      over = isOver();
      if (::poll(&event, 1, over ? 0 : kLookAgain) > 0) return true;
    }
    return false;
  }

 private:
  const int watch_;
};

/// Tells which of some files are opened, and in which order.
class OpeningOrder {
 public:
  OpeningOrder() : watch_(::inotify_init1(IN_CLOEXEC)) {}
  ~OpeningOrder() { ::close(watch_); }
  OpeningOrder(const OpeningOrder&) = delete;
  OpeningOrder& operator=(const OpeningOrder&) = delete;

  void add(const std::string& name, const std::filesystem::path& file) {
    const int number = ::inotify_add_watch(watch_, file.c_str(), IN_OPEN);
    if (number < 0) throw std::runtime_error("the file cannot be watched");
    names_[number] = name;
  }

  /// Waits until one is opened.
  std::string next() const {
    inotify_event event{};
    if (::read(watch_, &event, sizeof event) != sizeof event) {
      throw std::runtime_error("the files cannot be watched any more");
    }
    return names_.at(event.wd);
  }

 private:
  const int watch_;
  std::map<int, std::string> names_;
};

/// Makes the next opening of a closed collection, in this process or another one, take until it is
/// told to fail: the last part of its journal is a pipe that nobody writes into. The part before it
/// tells when it is being read.
class SlowCollection {
 public:
  explicit SlowCollection(const std::filesystem::path& collection)
      : part_(collection / "journal-0000000098"), pipe_(collection / "journal-0000000099") {
    std::ofstream(part_).flush();
    if (::mkfifo(pipe_.c_str(), 0600) != 0) {
      throw std::runtime_error("the collection cannot be made slow");
    }
    watch_.emplace(part_);
  }
  ~SlowCollection() {
    fail();
    if (end_ >= 0) ::close(end_);
  }
  SlowCollection(const SlowCollection&) = delete;
  SlowCollection& operator=(const SlowCollection&) = delete;

  /// True when the opening has begun; false if `isOver()` becomes true before.
  template <typename IsOver>
  [[nodiscard]] bool awaitOpening(const IsOver& isOver) const {
    return watch_->await(isOver);
  }

  /// Lets it fail; the next one succeeds.
  void fail() {
    // With both ends open here nobody waits for the other one.
    if (end_ < 0) end_ = ::open(pipe_.c_str(), O_RDWR | O_CLOEXEC);
    std::error_code ignored;
    std::filesystem::remove(pipe_, ignored);
    std::filesystem::remove(part_, ignored);
  }

 private:
  const std::filesystem::path part_;
  const std::filesystem::path pipe_;
  std::optional<OpeningWatch> watch_;
  int end_ = -1;
};

}  // namespace corvaned::test
