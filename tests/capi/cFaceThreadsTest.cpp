// The C face over real sockets: waits that end by a cancelled thread, by the host, and by a call
// from another thread.

#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <semaphore>
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

/// A hook as a host writes it, in whose wait for the reply its thread is cancelled.
std::int32_t waitInPoll(void* host, std::int32_t fd, std::int32_t events, std::int32_t timeOut) {
  const bool reads = events == KRU_WAIT_READ;
  if (reads) static_cast<std::counting_semaphore<>*>(host)->release();
  pollfd entry{fd, static_cast<short>(reads ? POLLIN : POLLOUT), 0};
  return poll(&entry, 1, timeOut) > 0 ? KRU_WAIT_READY : KRU_WAIT_TIMED_OUT;
}

TEST_P(CFaceThreads, AThreadThatIsCancelledInItsHookUnwindsBehindIt) {
  Script late;
  replies.expect(late).stall().send(replies.done()).awaitClose();
  Script next;
  replies.expect(next).send(replies.done()).awaitClose();
  ScriptedServer server({late, next});
  kru_client* client = create(server.port());
  std::counting_semaphore<> waiting{0};
  kru_client_set_wait_hook(client, &waitInPoll, &waiting, nullptr);
  pthread_t thread{};
  const auto run = [](void* argument) -> void* {
    update(static_cast<kru_client*>(argument));
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, nullptr, run, client), 0);
  waiting.acquire();
  pthread_cancel(thread);
  server.release();
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

/// Lets a test know that a call of the face waits.
struct SignallingHost {
  std::binary_semaphore waits{0};
  std::atomic<bool> signalled{false};

  static std::int32_t wait(void* host, std::int32_t fd, std::int32_t, std::int32_t timeOut) {
    auto& self = *static_cast<SignallingHost*>(host);
    if (!self.signalled.exchange(true)) self.waits.release();
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, timeOut) > 0 ? KRU_WAIT_READY : KRU_WAIT_TIMED_OUT;
  }
};

TEST_P(CFaceThreads, ACursorIsUsedByOneThreadAtATime) {
  Script unfinished;
  replies.sendHits(replies.expect(unfinished), {"a1"}, false).stall();
  ScriptedServer server(unfinished);
  kru_client* client = create(server.port());
  kru_cursor* cursor = nullptr;
  ASSERT_EQ(kru_search(client, "c1", 2, "q", 1, nullptr, nullptr, &cursor, nullptr), KRU_OK);
  const auto next = [&](kru_error* error) {
    kru_hit hit{};
    hit.size = sizeof hit;
    return kru_cursor_next(cursor, &hit, error);
  };
  const auto emptyError = [] {
    kru_error error{};
    error.size = sizeof error;
    return error;
  };
  ASSERT_EQ(next(nullptr), KRU_OK);
  SignallingHost host;
  kru_client_set_wait_hook(client, SignallingHost::wait, &host, nullptr);
  kru_error failure = emptyError();
  std::thread fetching([&] { next(&failure); });
  host.waits.acquire();
  EXPECT_EQ(next(nullptr), KRU_MISUSE);
  server.release();
  // One of these calls meets the end of the fetch.
  kru_error seen = emptyError();
  do {
    seen = emptyError();
    next(&seen);
  } while (seen.code == KRU_MISUSE);
  fetching.join();
  EXPECT_GT(failure.code, KRU_MISUSE);
  EXPECT_EQ(seen.code, failure.code);
  EXPECT_STREQ(seen.message, failure.message);
  kru_cursor_close(cursor);
  kru_client_destroy(client);
}

INSTANTIATE_TEST_SUITE_P(Over, CFaceThreads, testing::Bool(), [](const auto& over) {
  return std::string(over.param ? "Binary" : "Http");
});

}  // namespace
