#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <iomanip>
#include <ios>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <thread>
#include <utility>

#include "comm/kruDiagnostic.h"
#include "tests/support/forkedChild.h"

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

 private:
  std::streamsize xsputn(const char* text, std::streamsize length) override {
    const ssize_t written = ::write(end_, text, static_cast<std::size_t>(length));
    if (written < 0) error = errno;
    return written;
  }

  int end_;
};

bool isIn(const sigset_t& set) { return ::sigismember(&set, SIGPIPE) == 1; }

// Otherwise the signal ends this process.
TEST(Diagnostic, ToAReaderThatHasJustGoneRaisesNoSignalAndLeavesNonePending) {
  BrokenPipe broken;
  sigset_t before;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &before);
  {
    const ErrorsGoTo here(&broken);
    writeDiagnostic("lost\n");
  }
  sigset_t after;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &after);
  sigset_t pending;
  ::sigpending(&pending);
  EXPECT_EQ(broken.error, EPIPE);
  EXPECT_EQ(isIn(after), isIn(before));
  EXPECT_FALSE(isIn(pending));
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

TEST(Diagnostic, OfSeveralThreadsAreAllWrittenWhereNoneIsStuck) {
  InterruptedBuffer buffer({});
  const ErrorsGoTo here(&buffer);
  constexpr int kThreads = 4;
  constexpr int kEach = 50;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([] {
      for (int j = 0; j < kEach; ++j) writeDiagnostic("line\n");
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::count(buffer.text.begin(), buffer.text.end(), '\n'), kThreads * kEach);
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
