#include "cli/queuedOutput.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace corvane {

QueuedOutput::QueuedOutput(int descriptor) : descriptor_(descriptor), writer_([this] { run(); }) {}

QueuedOutput::~QueuedOutput() {
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
  }
  changed_.notify_all();
  writer_.join();
}

void QueuedOutput::drain(std::chrono::milliseconds limit) {
  constexpr std::chrono::milliseconds kTurn{10};
  std::unique_lock lock(mutex_);
  while (!changed_.wait_for(lock, kTurn, [this] { return idle(); })) {
    lock.unlock();
    const auto start = std::chrono::steady_clock::now();
    pollfd waiting{descriptor_, POLLOUT, 0};
    if (::poll(&waiting, 1, std::max(0, static_cast<int>(limit.count()))) <= 0) return;
    limit -= std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    lock.lock();
  }
}

std::streamsize QueuedOutput::xsputn(const char* text, std::streamsize length) {
  {
    const std::lock_guard lock(mutex_);
    if (failed_) return 0;
    queue_.append(text, static_cast<std::size_t>(length));
  }
  changed_.notify_all();
  return length;
}

QueuedOutput::int_type QueuedOutput::overflow(int_type character) {
  if (traits_type::eq_int_type(character, traits_type::eof()))
    return traits_type::not_eof(character);
  const char text = traits_type::to_char_type(character);
  return xsputn(&text, 1) == 1 ? character : traits_type::eof();
}

int QueuedOutput::sync() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return idle(); });
  return failed_ ? -1 : 0;
}

void QueuedOutput::run() {
  std::string batch;
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return ended_ || !queue_.empty(); });
    if (queue_.empty()) return;
    batch.swap(queue_);
    writing_ = true;
    lock.unlock();
    const bool written = writeAll(batch);
    batch.clear();
    lock.lock();
    writing_ = false;
    if (!written) {
      failed_ = true;
      queue_.clear();
    }
    changed_.notify_all();
  }
}

bool QueuedOutput::writeAll(const std::string& text) {
  for (std::size_t written = 0; written < text.size();) {
    const ssize_t count = ::write(descriptor_, text.data() + written, text.size() - written);
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) written += static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace corvane
