// Every allocation of calls of the C face fails, each alone and each with all that follow: a code
// comes out, nothing leaks, and the client answers the next call.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "capi/kru.h"
#include "tests/support/countedMemory.h"
#include "tests/support/protocolReplies.h"
#include "tests/support/scriptedNetwork.h"

namespace {

using namespace tq::test;

struct Closer {
  void operator()(kru_client* client) const { kru_client_destroy(client); }
};
using Client = std::unique_ptr<kru_client, Closer>;

// Longer than a text holds without memory of its own.
const std::string kCollection = "a-collection-whose-name-needs-memory-of-its-own";
const std::string kQuery = "a query of more letters than a text holds without any memory";
const std::string kRefusal = "a reason that takes some words to say, so that it needs memory";

std::uint32_t lengthOf(const std::string& text) { return static_cast<std::uint32_t>(text.size()); }

class CFaceMemory : public testing::TestWithParam<std::tuple<bool, bool>> {
 protected:
  static bool binary() { return std::get<0>(GetParam()); }
  static bool lasting() { return std::get<1>(GetParam()); }

  Client create(std::int32_t& code, kru_error& error) {
    kru_client* client = nullptr;
    const std::string host = "127.0.0.1";
    code = kru_client_create(binary() ? KRU_BINARY : KRU_HTTP, host.data(), lengthOf(host), 7,
                             &client, &error);
    return Client(client);
  }

  /// Fails the first allocation of the call, the second and so on until there is no such one, each
  /// time with a client and a peer of its own. `call` returns the code that came out. What belongs
  /// to the network is released in the end.
  template <typename Call>
  int sweep(const Script& script, std::int32_t expected, Call call) {
    int runs = 0;
    run(script, call, 1000000, expected, expected);
    for (long failing = 1;; ++failing) {
      SCOPED_TRACE(failing);
      const long before = liveBlocks();
      const bool reached = run(script, call, failing, expected, -1);
      EXPECT_EQ(liveBlocks(), before) << "leaked";
      if (!reached || testing::Test::HasFailure()) return runs;
      ++runs;
    }
  }

  Replies replies{binary()};

 private:
  template <typename Call>
  bool run(const Script& script, Call call, long failing, std::int32_t expected,
           std::int32_t only) {
    ScriptedNetwork network({script, statusScript()});
    kru_error error{};
    error.size = sizeof error;
    std::int32_t code = -1;
    long count = 0;
    Client client = create(code, error);
    kru_client_set(client.get(), KRU_RETRIES, 0, nullptr);
    {
      const ScarceMemory scarcity(failing, lasting());
      code = call(client.get(), error);
      count = scarcity.count();
    }
    EXPECT_EQ(error.code, code);
    EXPECT_TRUE(code == expected || code == KRU_OUT_OF_MEMORY || code == KRU_INTERNAL ||
                code == KRU_CONNECT)
        << kru_code_name(code);
    EXPECT_TRUE(only == -1 || code == only) << error.message;
    EXPECT_FALSE(count >= failing && lasting() && code == KRU_OK);
    std::uint32_t status = 9;
    // The second connection is the one whose peer knows the status.
    if (network.connections() == 0) {
      kru_status(client.get(), nullptr, 0, nullptr, &status, nullptr);
    }
    kru_client_disconnect(client.get(), nullptr);
    EXPECT_EQ(kru_status(client.get(), nullptr, 0, nullptr, &status, &error), KRU_OK)
        << error.message;
    EXPECT_EQ(status, 0U);
    return count >= failing;
  }

  Script statusScript() const {
    Script script;
    return replies.expect(script).send(replies.ready()).awaitClose();
  }
};

TEST_P(CFaceMemory, OfMakingAClientMayFail) {
  for (long failing = 1;; ++failing) {
    const long before = liveBlocks();
    long count = 0;
    std::int32_t code = -1;
    kru_error error{};
    error.size = sizeof error;
    {
      const ScarceMemory scarcity(failing, lasting());
      const Client client = create(code, error);
      count = scarcity.count();
      EXPECT_EQ(client == nullptr, code != KRU_OK);
    }
    EXPECT_EQ(liveBlocks(), before);
    if (count < failing) {
      EXPECT_EQ(code, KRU_OK);
      EXPECT_GT(failing, 2);
      break;
    }
    EXPECT_EQ(code, KRU_OUT_OF_MEMORY);
    EXPECT_EQ(error.code, code);
  }
}

TEST_P(CFaceMemory, OfARefusalMayFail) {
  Script script;
  replies.expect(script).send(replies.refusal("ZVK0404E", kRefusal)).awaitClose();
  EXPECT_GT(sweep(script, KRU_REFUSED,
                  [](kru_client* client, kru_error& error) {
                    return kru_update_index(client, kCollection.data(), lengthOf(kCollection),
                                            nullptr, &error);
                  }),
            10);
}

TEST_P(CFaceMemory, OfADocumentMayFail) {
  Script script;
  replies.expect(script).send(replies.done()).awaitClose();
  EXPECT_GT(sweep(script, KRU_OK,
                  [](kru_client* client, kru_error& error) {
                    const kru_pair pair{kQuery.data(), kRefusal.data(), lengthOf(kQuery),
                                        lengthOf(kRefusal)};
                    return kru_add_document(client, kCollection.data(), lengthOf(kCollection), "k",
                                            1, "text", 4, &pair, 1, nullptr, &error);
                  }),
            10);
}

// Of taking the text and of sending it.
TEST_P(CFaceMemory, OfCredentialsMayFail) {
  Script script;
  replies.expect(script).send(replies.done()).awaitClose();
  EXPECT_GT(sweep(script, KRU_OK,
                  [](kru_client* client, kru_error& error) {
                    const std::int32_t code = kru_client_set_text(
                        client, KRU_CREDENTIALS, kQuery.data(), lengthOf(kQuery), &error);
                    if (code != KRU_OK) return code;
                    return kru_update_index(client, kCollection.data(), lengthOf(kCollection),
                                            nullptr, &error);
                  }),
            5);
}

std::int32_t searchAll(kru_client* client, kru_error& error, std::size_t& hits) {
  kru_cursor* cursor = nullptr;
  std::int32_t code = kru_search(client, kCollection.data(), lengthOf(kCollection), kQuery.data(),
                                 lengthOf(kQuery), nullptr, nullptr, &cursor, &error);
  EXPECT_EQ(cursor == nullptr, code != KRU_OK);
  kru_hit hit{};
  hit.size = sizeof hit;
  while (code == KRU_OK) {
    const char* name = nullptr;
    std::uint32_t length = 0;
    code = kru_cursor_next(cursor, &hit, &error);
    if (code == KRU_OK) ++hits;
    if (code == KRU_OK) code = kru_cursor_document(cursor, &name, &length, &error);
  }
  kru_cursor_close(cursor);
  return code;
}

TEST_P(CFaceMemory, OfASearchMayFail) {
  Script script;
  replies.sendHits(replies.expect(script), {"a key of some length, number one of two", "another"});
  script.awaitClose();
  EXPECT_GT(sweep(script, KRU_END,
                  [](kru_client* client, kru_error& error) {
                    std::size_t hits = 0;
                    const std::int32_t code = searchAll(client, error, hits);
                    EXPECT_TRUE(code != KRU_END || hits == 2) << "half of it taken for all";
                    // Over HTTP a portion that could not be kept ends the stream.
                    return code == KRU_TRUNCATED ? KRU_OUT_OF_MEMORY : code;
                  }),
            10);
}

INSTANTIATE_TEST_SUITE_P(Over, CFaceMemory, testing::Combine(testing::Bool(), testing::Bool()),
                         [](const auto& over) {
                           return std::string(std::get<0>(over.param) ? "Binary" : "Http") +
                                  (std::get<1>(over.param) ? "AllFurther" : "One");
                         });

}  // namespace
