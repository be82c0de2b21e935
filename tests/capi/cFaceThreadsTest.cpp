// The C face over real sockets: waits that end by a cancelled thread, by the host, and by a call
// from another thread.

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "capi/kru.h"
#include "tests/support/protocolReplies.h"
#include "tests/support/scriptedServer.h"

namespace {

using namespace tq::test;

class CFaceThreads : public testing::TestWithParam<bool> {
 protected:
  kru_client* create(unsigned int port) const {
    kru_client* client = nullptr;
    EXPECT_EQ(kru_client_create(GetParam() ? KRU_BINARY : KRU_HTTP, "127.0.0.1", 9, port, &client,
                                nullptr),
              KRU_OK);
    kru_client_set(client, KRU_RETRIES, 0, nullptr);
    return client;
  }

  static std::int32_t update(kru_client* client) {
    return kru_update_index(client, "c1", 2, nullptr, nullptr);
  }

  Replies replies{GetParam()};
};

TEST_P(CFaceThreads, ACancelledThreadUnwindsThroughACall) {
  Script silent;
  replies.expect(silent).stall();
  Script next;
  replies.expect(next).send(replies.done()).awaitClose();
  ScriptedServer server({silent, next});
  kru_client* client = create(server.port());
  pthread_t thread{};
  const auto run = [](void* argument) -> void* {
    update(static_cast<kru_client*>(argument));
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, nullptr, run, client), 0);
  server.awaitRequests(0, 1);
  pthread_cancel(thread);
  void* result = nullptr;
  pthread_join(thread, &result);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  server.awaitClientClose(0);
  EXPECT_EQ(update(client), KRU_OK) << "the client was given back";
  kru_client_destroy(client);
}

TEST_P(CFaceThreads, ACallOfAnotherThreadIsRefused) {
  Script silent;
  replies.expect(silent).stall().send(replies.done()).awaitClose();
  ScriptedServer server(silent);
  kru_client* client = create(server.port());
  std::int32_t first = -1;
  std::thread other([&] { first = update(client); });
  server.awaitRequests(0, 1);
  EXPECT_EQ(update(client), KRU_MISUSE);
  server.release();
  other.join();
  EXPECT_EQ(first, KRU_OK);
  kru_client_destroy(client);
}

INSTANTIATE_TEST_SUITE_P(Over, CFaceThreads, testing::Bool(), [](const auto& over) {
  return std::string(over.param ? "Binary" : "Http");
});

}  // namespace
