#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <iomanip>
#include <ios>
#include <iostream>
#include <semaphore>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "comm/kruDiagnostic.h"
#include "tests/support/endedThread.h"
#include "tests/support/forkedChild.h"

namespace {

// What the calling thread does when it gives up the processor for the first time.
thread_local const std::function<void()>* whenYielding = nullptr;

}  // namespace

// In the place of the C library's.
extern "C" int sched_yield() noexcept {
  if (const auto* act = std::exchange(whenYielding, nullptr)) (*act)();
  return static_cast<int>(::syscall(SYS_sched_yield));
}

namespace tq::comm {
namespace {

/// Gives standard error another buffer for as long as it lives, and its state back in the end.
class ErrorsGoTo {
 public:
  explicit ErrorsGoTo(std::streambuf* buffer) : before_(std::cerr.rdbuf(buffer)) {
    format_.copyfmt(std::cerr);
  }
  ~ErrorsGoTo() {
    std::cerr.exceptions(std::ios_base::goodbit);
    std::cerr.rdbuf(before_);
    std::cerr.copyfmt(format_);
  }
  ErrorsGoTo(const ErrorsGoTo&) = delete;
  ErrorsGoTo& operator=(const ErrorsGoTo&) = delete;

 private:
  std::streambuf* before_;
  std::ios format_{nullptr};
};

class FullBuffer : public std::streambuf {};

class ThrowingBuffer : public std::streambuf {
  std::streamsize xsputn(const char*, std::streamsize) override {
    throw std::runtime_error("the host's own");
  }
};

sigset_t blockedSignals() {
  sigset_t blocked;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  return blocked;
}

std::vector<int> numbersIn(const sigset_t& set) {
  std::vector<int> numbers;
  for (int number = 1; number < NSIG; ++number) {
    if (::sigismember(&set, number) == 1) numbers.push_back(number);
  }
  return numbers;
}

bool pipeSignalIsPending() {
  sigset_t pending;
  ::sigpending(&pending);
  return ::sigismember(&pending, SIGPIPE) == 1;
}

/// Leads into a pipe whose reader goes once standard error has been looked at.
class BrokenPipe : public std::streambuf {
 public:
  BrokenPipe() {
    int ends[2] = {-1, -1};
    if (::pipe(ends) != 0) throw std::runtime_error("no pipe");
    ::close(ends[0]);
    end_ = ends[1];
  }
  ~BrokenPipe() override { ::close(end_); }

  int error = 0;
  sigset_t blocked = blockedSignals();

 private:
  std::streamsize xsputn(const char* text, std::streamsize length) override {
    blocked = blockedSignals();
    const ssize_t written = ::write(end_, text, static_cast<std::size_t>(length));
    if (written < 0) error = errno;
    return written;
  }

  int end_;
};

/// Leaves bytes of this value where what is called next has its variables.
[[gnu::noinline]] void fillStack(unsigned char value) {
  volatile unsigned char bytes[4096];
  for (volatile unsigned char& byte : bytes) byte = value;
}

constexpr unsigned char kRemains[] = {0x00, 0xFF};

// Otherwise the signal ends this process.
TEST(Diagnostic, ToAReaderThatHasJustGoneRaisesNoSignalAndLeavesNonePending) {
  for (const unsigned char remains : kRemains) {
    BrokenPipe broken;
    const std::vector<int> before = numbersIn(blockedSignals());
    {
      const ErrorsGoTo here(&broken);
      fillStack(remains);
      writeDiagnostic("lost\n");
    }
    EXPECT_EQ(broken.error, EPIPE);
    EXPECT_EQ(numbersIn(blockedSignals()), before);
    EXPECT_FALSE(pipeSignalIsPending());
  }
}

TEST(Diagnostic, LeavesTheHostTheSignalOfAnotherPipeThatIsPending) {
  sigset_t pipe;
  ::sigemptyset(&pipe);
  ::sigaddset(&pipe, SIGPIPE);
  sigset_t before;
  ::pthread_sigmask(SIG_BLOCK, &pipe, &before);
  for (const unsigned char remains : kRemains) {
    BrokenPipe broken;
    ::pthread_kill(::pthread_self(), SIGPIPE);
    {
      const ErrorsGoTo here(&broken);
      fillStack(remains);
      writeDiagnostic("lost\n");
    }
    EXPECT_EQ(broken.error, EPIPE);
    EXPECT_TRUE(pipeSignalIsPending());
  }
  const timespec atOnce{};
  ::sigtimedwait(&pipe, nullptr, &atOnce);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(Diagnostic, HoldsBackNoSignalButThatOfAPipe) {
  for (const unsigned char remains : kRemains) {
    BrokenPipe broken;
    std::vector<int> expected = numbersIn(blockedSignals());
    if (!std::binary_search(expected.begin(), expected.end(), SIGPIPE)) {
      expected.insert(std::lower_bound(expected.begin(), expected.end(), SIGPIPE), SIGPIPE);
    }
    {
      const ErrorsGoTo here(&broken);
      fillStack(remains);
      writeDiagnostic("lost\n");
    }
    EXPECT_EQ(numbersIn(broken.blocked), expected);
  }
}

/// Writing to it may cancel a thread, as writing to a file may.
class CancellableBuffer : public std::streambuf {
 public:
  std::string text;

 private:
  std::streamsize xsputn(const char* bytes, std::streamsize length) override {
    ::pthread_testcancel();
    text.append(bytes, static_cast<std::size_t>(length));
    return length;
  }
};

TEST(Diagnostic, IsWrittenWholeBeforeItsThreadIsCancelled) {
  CancellableBuffer buffer;
  const ErrorsGoTo here(&buffer);
  bool isDone = false;
  EXPECT_TRUE(tq::test::endsItsThread([&] {
    ::pthread_cancel(::pthread_self());
    writeDiagnostic("whole\n");
    isDone = true;
    ::pthread_testcancel();
  }));
  EXPECT_TRUE(isDone);
  EXPECT_EQ(buffer.text, "whole\n");
}

/// Keeps what it is given until it is flushed.
class HoldingBuffer : public std::stringbuf {
 public:
  std::string flushed;

 private:
  int sync() override {
    flushed += str();
    str({});
    return 0;
  }
};

TEST(Diagnostic, IsFlushed) {
  HoldingBuffer buffer;
  const ErrorsGoTo here(&buffer);
  writeDiagnostic("line\n");
  EXPECT_EQ(buffer.flushed, "line\n");
}

TEST(Diagnostic, IsWrittenInAProcessThatMayOpenNothing) {
  EXPECT_TRUE(tq::test::holdsInChild([] {
    std::stringbuf text;
    // Once before: a sanitizer opens a pipe for its first look at an object of each class.
    const auto write = [&] {
      const ErrorsGoTo here(&text);
      writeDiagnostic("line\n");
    };
    write();
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const rlimit nothing{1, before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &nothing);
    write();
    ::setrlimit(RLIMIT_NOFILE, &before);
    return text.str() == "line\nline\n";
  }));
}

/// How often this thread has gone to sleep.
long timesAsleep() {
  rusage usage{};
  ::getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nvcsw;
}

TEST(Diagnostic, IsLostWithoutASleepWhereStandardErrorIsFull) {
  EXPECT_TRUE(tq::test::holdsInChild([] {
    // What waits for ever is ended.
    ::alarm(60);
    int ends[2] = {-1, -1};
    if (::pipe(ends) != 0) return false;
    ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
    const std::string page(4096, 'x');
    while (::write(ends[1], page.data(), page.size()) > 0) {
    }
    ::fcntl(ends[1], F_SETFL, 0);
    ::dup2(ends[1], STDERR_FILENO);
    // Whatever the first call has to fetch does not count.
    writeDiagnostic("lost\n");
    constexpr int kLines = 100;
    const long before = timesAsleep();
    for (int line = 0; line < kLines; ++line) writeDiagnostic("lost\n");
    return timesAsleep() - before < kLines;
  }));
}

TEST(Diagnostic, IsWrittenAsItIsWhateverTheFormatOfTheHost) {
  std::stringbuf text;
  const ErrorsGoTo here(&text);
  std::cerr << std::setw(10) << std::setfill('*');
  writeDiagnostic("state 12\n");
  EXPECT_EQ(text.str(), "state 12\n");
  EXPECT_EQ(std::cerr.width(), 10) << "for what the host writes next";
}

TEST(Diagnostic, ThatCannotBeWrittenLeavesTheStreamOfTheHostInOrder) {
  FullBuffer full;
  const ErrorsGoTo here(&full);
  std::cerr.exceptions(std::ios_base::badbit | std::ios_base::failbit);
  writeDiagnostic("lost\n");
  EXPECT_TRUE(std::cerr.good());
}

TEST(Diagnostic, IsLostWhereTheHostHasNoBufferOrOneThatThrows) {
  ThrowingBuffer throwing;
  {
    const ErrorsGoTo here(&throwing);
    writeDiagnostic("lost\n");
    EXPECT_TRUE(std::cerr.good());
  }
  const ErrorsGoTo nowhere(nullptr);
  writeDiagnostic("lost\n");
}

/// While it is written to, another diagnostic is begun: by a thread that is waited for, or in a
/// forked child.
class InterruptedBuffer : public std::streambuf {
 public:
  explicit InterruptedBuffer(std::function<void()> meanwhile) : meanwhile_(std::move(meanwhile)) {}

  std::string text;

 private:
  std::streamsize xsputn(const char* bytes, std::streamsize length) override {
    if (const auto meanwhile = std::exchange(meanwhile_, nullptr)) meanwhile();
    text.append(bytes, static_cast<std::size_t>(length));
    return length;
  }

  std::function<void()> meanwhile_;
};

TEST(Diagnostic, IsLostWhileAnotherThreadWritesOneAndWaitsForNothing) {
  InterruptedBuffer buffer([] { std::thread([] { writeDiagnostic("lost\n"); }).join(); });
  const ErrorsGoTo here(&buffer);
  writeDiagnostic("first\n");
  EXPECT_EQ(buffer.text, "first\n");
  writeDiagnostic("next\n");
  EXPECT_EQ(buffer.text, "first\nnext\n");
}

TEST(Diagnostic, IsWrittenOnceTheThreadThatWasWritingOneIsDone) {
  std::binary_semaphore secondWaits{0};
  std::binary_semaphore firstIsDone{0};
  const std::function<void()> letTheFirstGoOn = [&] {
    secondWaits.release();
    firstIsDone.acquire();
  };
  std::thread second;
  InterruptedBuffer buffer([&] {
    second = std::thread([&] {
      whenYielding = &letTheFirstGoOn;
      writeDiagnostic("second\n");
      if (std::exchange(whenYielding, nullptr) != nullptr) secondWaits.release();
    });
    secondWaits.acquire();
  });
  const ErrorsGoTo here(&buffer);
  writeDiagnostic("first\n");
  firstIsDone.release();
  second.join();
  EXPECT_EQ(buffer.text, "first\nsecond\n");
}

TEST(Diagnostic, OfAChildIsWrittenAlthoughItsParentWasWritingOne) {
  bool written = false;
  InterruptedBuffer* inUse = nullptr;
  InterruptedBuffer buffer([&] {
    written = tq::test::holdsInChild([&] {
      writeDiagnostic("the child's\n");
      return inUse->text == "the child's\n";
    });
  });
  inUse = &buffer;
  const ErrorsGoTo here(&buffer);
  writeDiagnostic("the parent's\n");
  EXPECT_TRUE(written);
  EXPECT_EQ(buffer.text, "the parent's\n");
}

}  // namespace
}  // namespace tq::comm
