#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "server/front/dispatcher.h"
#include "server/front/server.h"
#include "server/store/localStore.h"
#include "tests/server/rawClient.h"
#include "tests/server/requestBytes.h"
#include "tests/support/countedMemory.h"
#include "tests/support/temporaryDirectory.h"

// Memory is out while a request goes from one thread to another. Its client gets an answer, or the
// end of its connection, and the server goes on and can be stopped.
namespace corvaned {
namespace {

using test::binaryRequest;
using test::RawClient;
using tq::test::ScarceMemory;

// More than is allocated for a request.
constexpr long kMost = 300;

/// Lets an allocation of the thread that serves a request fail, also after the store has returned.
class ScarceStore : public LocalStore {
 public:
  using LocalStore::LocalStore;

  bool isOpen(const std::string& name) override {
    if (name != "held") makeScarce();
    return LocalStore::isOpen(name);
  }

  void open(const std::string& name, Opened opened) override {
    LocalStore::open(name, [this, opened](const std::optional<ServerError>& failure) {
      makeScarce();
      opened(failure);
    });
  }

  void updateIndex(const std::string& name) override {
    if (name != "held") return LocalStore::updateIndex(name);
    makeScarce();
    ++waiting;
    RequestContext::await(held);
  }

  /// Counted from 1; 0: none fails.
  std::atomic<long> failing = 0;
  /// What updates of "held" wait for, and how many do.
  std::shared_ptr<Ticket> held = std::make_shared<Ticket>();
  std::atomic<int> waiting = 0;

 private:
  void makeScarce() const {
    thread_local std::optional<ScarceMemory> scarce;
    scarce.reset();
    if (failing > 0) scarce.emplace(failing, false, ScarceMemory::Of::Objects);
  }
};

class ScarceFrontTest : public ::testing::Test {
 protected:
  ScarceFrontTest() {
    for (const char* name : {"c", "held"}) store_.createCollection(name, "en");
    options_.binaryPort = 0;
    server_.emplace(dispatcher_, options_);
    server_->start();
  }

  std::uint16_t port() const { return server_->listeners().at(0).port; }

  void expectServing() {
    store_.failing = 0;
    RawClient client(port());
    client.send(binaryRequest({{"action", "updateIndex"}, {"index", "c"}}));
    EXPECT_EQ(client.receive(2), std::string("\0\1", 2));
  }

  tq::test::TemporaryDirectory directory_;
  ScarceStore store_{directory_.path() / "data", StoreLimits{}};
  Dispatcher dispatcher_{store_, "1.2.3"};
  ServerOptions options_;
  std::optional<Server> server_;
};

TEST_F(ScarceFrontTest, RequestThatWaitsForACollectionIsAnsweredOrItsConnectionEnds) {
  for (long failing = 1; failing < kMost; ++failing) {
    store_.failing = 0;
    store_.closeCollection("c");
    std::vector<RawClient> clients;
    for (int i = 0; i < 2; ++i) clients.emplace_back(port());
    store_.failing = failing;
    for (RawClient& client : clients) {
      client.send(binaryRequest({{"action", "openCollection"}, {"index", "c"}}));
    }
    for (RawClient& client : clients) {
      const std::string code = client.receive(2);
      EXPECT_TRUE(code.size() == 2 || client.ended()) << failing;
    }
  }
  expectServing();
  server_->stop();
}

TEST_F(ScarceFrontTest, RequestsThatWaitForTheSameWorkAreAllAnsweredOrTheirConnectionsEnd) {
  constexpr int kClients = 4;
  for (long failing = 1; failing < 60; ++failing) {
    store_.held = std::make_shared<Ticket>();
    store_.waiting = 0;
    store_.failing = failing;
    std::atomic<int> over = 0;
    std::vector<std::jthread> clients;
    for (int i = 0; i < kClients; ++i) {
      clients.emplace_back([&] {
        RawClient client(port());
        client.send(binaryRequest({{"action", "updateIndex"}, {"index", "held"}}));
        const std::string code = client.receive(2);
        ++over;
        EXPECT_TRUE(code.size() == 2 || client.ended()) << failing;
      });
    }
    // Some have no memory to wait.
    while (store_.waiting + over < kClients) std::this_thread::yield();
    {
      const ScarceMemory scarce(1, true);
      store_.held->finish();
    }
  }
  expectServing();
  server_->stop();
}

}  // namespace
}  // namespace corvaned
