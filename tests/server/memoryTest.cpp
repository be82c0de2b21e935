#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/server/rawClient.h"
#include "tests/server/requestBytes.h"
#include "tests/support/corvanedProcess.h"
#include "tests/support/sanitized.h"

// How much memory the program takes, whatever it is asked.
namespace corvaned {
namespace {

using test::documentBlock;
using test::httpRequest;
using test::RawClient;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr std::size_t kMiB = std::size_t{1} << 20U;
constexpr std::size_t kBudget = 96 * kMiB;
// The program itself, its threads' stacks and caches. A sanitizer keeps shadows of all memory, and
// what was freed for a while.
constexpr std::size_t kProgram = (tq::test::kSanitized ? 1500 : 96) * kMiB;

class MemoryTest : public ::testing::Test {
 protected:
  std::size_t bytesOf(const std::string& what) const {
    std::ifstream status("/proc/" + std::to_string(server_.id()) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with(what + ":")) return std::stoul(line.substr(what.size() + 1)) * 1024;
    }
    throw std::runtime_error("the system does not say " + what);
  }

  std::string ask(const test::Headers& headers, const std::string& body = {}) const {
    RawClient client(static_cast<std::uint16_t>(server_.httpPort()));
    client.send(httpRequest(headers, body));
    return client.receiveHttp();
  }

  std::string askToMatch(const std::string& documents) const {
    return ask({{"action", "search"}, {"index", "c"}, {"query", "fox"}, {"match", "documents"}},
               documentBlock("all", {}, documents));
  }

  // Asks from several clients at a time, which may be refused for want of memory, for the time
  // being or for good.
  template <typename Ask>
  void expectAll(const Ask& ask) const {
    std::vector<std::thread> clients;
    for (int i = 0; i < 12; ++i) {
      clients.emplace_back([&ask, i] {
        EXPECT_THAT(ask(i), AnyOf(StartsWith("HTTP/1.1 200"), HasSubstr("ZVK0016E"),
                                  HasSubstr("ZVK0002E")));
      });
    }
    for (std::thread& client : clients) client.join();
    EXPECT_LT(bytesOf("VmHWM"), kBudget + kProgram);
  }

  std::uint16_t http() const { return static_cast<std::uint16_t>(server_.httpPort()); }

  tq::test::CorvanedProcess server_{{"--max-memory", std::to_string(kBudget), "--max-document",
                                     std::to_string(16 * kMiB), "--search-threads", "12"}};
};

TEST_F(MemoryTest, LargeRequestsOfManyClientsStayWithinTheBudget) {
  ASSERT_THAT(ask({{"action", "createCollection"}, {"index", "c"}}), StartsWith("HTTP/1.1 200"));
  std::vector<std::thread> clients;
  for (int i = 0; i < 12; ++i) {
    clients.emplace_back([this, i] {
      // Bytes that are a great many empty pairs, and an ordinary document.
      std::string pairs("\0\0\0\0\0\xF0\0\0", 8);
      pairs.resize(pairs.size() + 0xF00000);
      const std::string body =
          i % 2 == 0 ? pairs
                     : documentBlock("k" + std::to_string(i), {}, std::string(15 * kMiB, 'x'));
      EXPECT_THAT(ask({{"action", "addDocument"}, {"index", "c"}}, body),
                  AnyOf(StartsWith("HTTP/1.1 200"), HasSubstr("ZVK0012E"), HasSubstr("ZVK0016E")));
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_LT(bytesOf("VmHWM"), kBudget + kProgram);
}

TEST_F(MemoryTest, TextsThatGrowInUtf8StayWithinTheBudget) {
  ASSERT_THAT(ask({{"action", "createCollection"}, {"index", "c"}}), StartsWith("HTTP/1.1 200"));
  // Each of these letters is three bytes of UTF-8.
  const std::string text(5 * kMiB, '\xA1');
  expectAll([&](int i) {
    return ask({{"action", "addDocument"}, {"index", "c"}, {"charset", "TIS-620"}},
               documentBlock("k" + std::to_string(i), {}, text));
  });
}

// The smallest documents take many times their bytes as soon as they are decoded.
TEST_F(MemoryTest, ManyDocumentsToMatchAreRefusedBeforeTheyAreDecoded) {
  ASSERT_THAT(ask({{"action", "createCollection"}, {"index", "c"}}), StartsWith("HTTP/1.1 200"));
  const std::string documents(6 * kMiB, '\0');
  EXPECT_THAT(askToMatch(documents), AllOf(HasSubstr("ZVK0002E"), HasSubstr("a request of 6")));
}

TEST_F(MemoryTest, TextsToMatchStayWithinTheBudget) {
  ASSERT_THAT(ask({{"action", "createCollection"}, {"index", "c"}}), StartsWith("HTTP/1.1 200"));
  std::string documents;
  for (int i = 0; documents.size() < kMiB; ++i) {
    std::string text;
    for (int word = 0; word < 80; ++word)
      text += "w" + std::to_string((i * 80 + word) % 5000) + " ";
    documents += documentBlock(std::to_string(i), {}, text);
  }
  expectAll([&](int) { return askToMatch(documents); });
}

// Small pieces of freed memory stay with a process that does not ask for them to be taken back. A
// sanitizer keeps what was freed.
TEST_F(MemoryTest, LargeDocumentLeavesLittleBehind) {
  ASSERT_THAT(ask({{"action", "createCollection"}, {"index", "c"}}), StartsWith("HTTP/1.1 200"));
  const std::size_t before = bytesOf("VmRSS");
  std::string text;
  for (std::uint32_t i = 0; i < 60000; ++i) text += std::to_string(i * 2654435761U) + "x ";
  ASSERT_THAT(ask({{"action", "addDocument"}, {"index", "c"}}, documentBlock("k", {}, text)),
              StartsWith("HTTP/1.1 200"));
  ASSERT_THAT(ask({{"action", "updateIndex"}, {"index", "c"}}), StartsWith("HTTP/1.1 200"));
  const std::size_t most = bytesOf("VmHWM");
  ASSERT_GT(most, before + 20 * kMiB) << "nothing large was freed";
  if (!tq::test::kSanitized) {
    EXPECT_LT(bytesOf("VmRSS"), before + (most - before) / 2);
  }
}

TEST_F(MemoryTest, AnnouncedContentTakesNoMemory) {
  std::vector<RawClient> clients;
  for (int i = 0; i < 50; ++i) {
    clients.emplace_back(http());
    clients.back().send("Content-Length  : 16000000\naction: addDocument\nindex: c\n\r\n");
  }
  EXPECT_THAT(ask({{"action", "getServerVersion"}}), StartsWith("HTTP/1.1 200"));
  EXPECT_LT(bytesOf("VmHWM"), kProgram);
}

}  // namespace
}  // namespace corvaned
