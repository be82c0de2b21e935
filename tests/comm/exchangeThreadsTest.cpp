// Any number of clients side by side, from the first call of the process on.

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/exchange.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/script.h"
#include "tests/support/scriptedServer.h"

namespace {

using namespace tq::test;
using tq::comm::CorvaneRESTClient;

constexpr int kClients = 8;
constexpr int kRounds = 20;

void runTogether(const std::function<void(int)>& client) {
  std::barrier start(kClients);
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      client(i);
    });
  }
  for (auto& thread : threads) thread.join();
}

// In a process of its own, this is the first message that is ever built: all threads at once.
TEST(ExchangeThreads, TheFirstRequestsOfTheProcessMayRunTogether) {
  const auto& reply = replyNamed("StreamSearchWithThreeHits");
  ScriptedServer server(Script().expectRequest().send(chunked(reply, 16, true).text).awaitClose());
  std::atomic<int> right{0};
  runTogether([&](int) {
    CorvaneRESTClient client(u"127.0.0.1", server.port(), false);
    if (runExchange(client, reply.kind) == reply.expected) ++right;
  });
  EXPECT_EQ(right, kClients);
  EXPECT_EQ(server.requests(), static_cast<std::size_t>(kClients));
}

TEST(ExchangeThreads, EachClientGetsItsOwnResults) {
  const std::vector<const char*> names{"StreamSearchWithThreeHits", "ScalarSearchWithFortyHits",
                                       "ParseResultWithThreeRows", "GetStatus",
                                       "ServerErrorOnStreamSearch"};
  std::vector<std::unique_ptr<ScriptedServer>> servers;
  for (const char* name : names) {
    Script script;
    for (int i = 0; i < kRounds; ++i) script.expectRequest().send(plain(replyNamed(name)));
    servers.push_back(std::make_unique<ScriptedServer>(script.awaitClose()));
  }
  std::atomic<int> right{0};
  runTogether([&](int i) {
    const auto which = static_cast<std::size_t>(i) % names.size();
    const auto& reply = replyNamed(names[which]);
    CorvaneRESTClient client(u"127.0.0.1", servers[which]->port(), true);
    for (int round = 0; round < kRounds; ++round) {
      if (runExchange(client, reply.kind) == reply.expected) ++right;
    }
  });
  EXPECT_EQ(right, kClients * kRounds);
}

TEST(ExchangeThreads, FailingClientsDoNotDisturbTheOthers) {
  const auto& reply = replyNamed("ScalarSearchWithThreeHits");
  Script good;
  for (int i = 0; i < kRounds; ++i) good.expectRequest().send(plain(reply));
  ScriptedServer healthy(good.awaitClose());
  ScriptedServer closing(Script().expectRequest());
  std::atomic<int> right{0};
  runTogether([&](int i) {
    const bool fails = i % 2 == 1;
    CorvaneRESTClient client(u"127.0.0.1", (fails ? closing : healthy).port(), true);
    for (int round = 0; round < kRounds; ++round) {
      const auto outcome = runExchange(client, reply.kind);
      if (fails ? outcome.errorId == "ERR_SERVER_COMM_RECV" : outcome == reply.expected) ++right;
    }
  });
  EXPECT_EQ(right, kClients * kRounds);
}

}  // namespace
