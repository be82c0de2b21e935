#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <streambuf>
#include <string>
#include <thread>

namespace corvane {

/// A stream buffer in front of a descriptor whose writing never waits for a reader: a thread of its
/// own writes what has been queued. A result is thereby taken from the server as fast as it comes,
/// and a pager that is left alone does not make the server give up. What its reader has not taken
/// is held in memory.
class QueuedOutput : public std::streambuf {
 public:
  explicit QueuedOutput(int descriptor);
  /// Writes what is left, however long that takes.
  ~QueuedOutput() override;

  /// Waits until everything is written or cannot be. Gives up when the descriptor has taken nothing
  /// for this long in all; the time that the writing thread waits for its turn does not count.
  void drain(std::chrono::milliseconds limit);

 protected:
  std::streamsize xsputn(const char* text, std::streamsize length) override;
  int_type overflow(int_type character) override;
  /// Waits until everything is written; -1 when it cannot be.
  int sync() override;

 private:
  void run();
  bool writeAll(const std::string& text);
  bool idle() const { return failed_ || (queue_.empty() && !writing_); }

  const int descriptor_;
  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_.
  std::string queue_;
  bool writing_ = false;
  bool failed_ = false;
  bool ended_ = false;

  std::thread writer_;
};

}  // namespace corvane
