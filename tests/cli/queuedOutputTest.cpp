#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <stdexcept>
#include <string>

#include "cli/queuedOutput.h"

namespace corvane {
namespace {

constexpr std::chrono::milliseconds kNoTime{0};

/// A pipe that holds this much, and what is written to it.
class QueuedOutputTest : public ::testing::Test {
 protected:
  QueuedOutputTest() {
    if (::pipe2(ends_.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    capacity_ = static_cast<std::size_t>(::fcntl(ends_[0], F_GETPIPE_SZ));
  }
  ~QueuedOutputTest() override {
    for (const int end : ends_) ::close(end);
  }

  std::size_t waiting() const {
    int bytes = 0;
    if (::ioctl(ends_[0], FIONREAD, &bytes) != 0) throw std::runtime_error("FIONREAD");
    return static_cast<std::size_t>(bytes);
  }
  void read(std::size_t count) const {
    std::string bytes(count, '\0');
    for (std::size_t done = 0; done < count;) {
      const ssize_t got = ::read(ends_[0], bytes.data(), count - done);
      if (got <= 0) throw std::runtime_error("read");
      done += static_cast<std::size_t>(got);
    }
  }

  static void put(QueuedOutput& out, std::size_t count) {
    const std::string text(count, 'x');
    out.sputn(text.data(), static_cast<std::streamsize>(count));
  }

  std::array<int, 2> ends_{};
  std::size_t capacity_ = 0;
};

TEST_F(QueuedOutputTest, DrainingWaitsForTheWritersTurnHoweverLittlePatienceThereIs) {
  QueuedOutput out(ends_[1]);
  for (int i = 0; i < 200; ++i) {
    put(out, capacity_ / 2);
    out.drain(kNoTime);
    ASSERT_EQ(waiting(), capacity_ / 2) << i;
    read(capacity_ / 2);
  }
}

TEST_F(QueuedOutputTest, DrainingEndsWhenTheReaderTakesNothing) {
  QueuedOutput out(ends_[1]);
  put(out, capacity_ + 1);
  out.drain(kNoTime);
  EXPECT_EQ(waiting(), capacity_);
  read(capacity_ + 1);
}

TEST_F(QueuedOutputTest, DrainingEndsWhenThereIsNothingToWrite) {
  QueuedOutput out(ends_[1]);
  out.drain(kNoTime);
  EXPECT_EQ(waiting(), 0U);
}

}  // namespace
}  // namespace corvane
