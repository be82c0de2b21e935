#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "comm/kruDiagnostic.h"

namespace {

constexpr std::size_t kThreads = 4;
constexpr int kOfEach = 2000;

// A string's buffer bears no two writers at a time, nor does that of standard error once the host
// has called `sync_with_stdio(false)`.
TEST(DiagnosticThreads, EachIsWrittenWholeOrNotAtAll) {
  std::stringbuf buffer;
  std::streambuf* const before = std::cerr.rdbuf(&buffer);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([line = std::string(50, static_cast<char>('a' + i)) + "\n"] {
      for (int n = 0; n < kOfEach; ++n) tq::comm::writeDiagnostic(line);
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::cerr.rdbuf(before);
  std::istringstream lines(buffer.str());
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    EXPECT_EQ(line, std::string(50, line.empty() ? '?' : line.front()));
  }
  EXPECT_GT(count, 0U);
  EXPECT_LE(count, kThreads * kOfEach);
}

}  // namespace
