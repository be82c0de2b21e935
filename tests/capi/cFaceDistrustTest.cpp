// The C face believes neither a size that nobody set nor a server that borrows the library's words.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "capi/kru.h"
#include "tests/support/protocolReplies.h"
#include "tests/support/scriptedNetwork.h"

namespace {

using namespace tq::test;

struct CFaceDistrust : testing::TestWithParam<bool> {
  CFaceDistrust() {
    error.size = sizeof error;
    EXPECT_EQ(
        kru_client_create(GetParam() ? KRU_BINARY : KRU_HTTP, "127.0.0.1", 9, 7, &client, nullptr),
        KRU_OK);
  }
  ~CFaceDistrust() override { kru_client_destroy(client); }

  Script answers(const std::vector<std::string>& texts) const {
    Script script;
    for (const auto& text : texts) replies.expect(script).send(text);
    return script.awaitClose();
  }

  std::int32_t update(kru_error& report) {
    return kru_update_index(client, "c1", 2, nullptr, &report);
  }

  Replies replies{GetParam()};
  kru_client* client = nullptr;
  kru_error error{};
};

TEST_P(CFaceDistrust, OfASizeThatWasNeverSetWritesNothing) {
  ScriptedNetwork network(answers({replies.done()}));
  kru_error forgotten;
  std::memset(&forgotten, 0xA5, sizeof forgotten);
  const kru_error before = forgotten;
  EXPECT_EQ(update(forgotten), KRU_MISUSE);
  EXPECT_EQ(std::memcmp(&forgotten, &before, sizeof before), 0);
  EXPECT_EQ(kru_update_index(nullptr, "c1", 2, nullptr, &forgotten), KRU_MISUSE);
  EXPECT_EQ(kru_client_last_error(client, &forgotten), KRU_MISUSE);
  kru_limits limits{0xA5A5A5A5, 0, 0};
  EXPECT_EQ(kru_update_index(client, "c1", 2, &limits, &error), KRU_MISUSE);
  EXPECT_EQ(network.connections(), 0U);
}

TEST_P(CFaceDistrust, OfSizesTakesThoseUpTo64KiB) {
  ScriptedNetwork network(answers({replies.done()}));
  std::vector<char> room(65537, 'x');
  kru_error& large = *reinterpret_cast<kru_error*>(room.data());
  large.size = 65537;
  EXPECT_EQ(update(large), KRU_MISUSE);
  EXPECT_EQ(room.back(), 'x');
  large.size = 65536;
  EXPECT_EQ(update(large), KRU_OK);
  EXPECT_EQ(room[65535], '\0');
  EXPECT_EQ(room[65536], 'x');
}

TEST_P(CFaceDistrust, OfAServerThatBorrowsTheLibrarysWordsSaysThatItRefused) {
  for (const char* id : {"ERR_INVALID_STATE", "ERR_CLIENT_CANCELLED", "ERR_CLIENT_INTERNAL",
                         "ERR_CONNECT_SERVER", "ERR_CLIENT_RESP_PARSING", "ERR_SERVER_PROTOCOL",
                         "ERR_SERVER_COMM_SEND", "ERR_SERVER_COMM_RECV", "ERR_SERVER_COMM_TIMEOUT",
                         "TQ_ERR_OUT_OF_MEMORY", "TQ_ERR_PROPERTY_MISSING", "TQ_ERR_SOCKET"}) {
    SCOPED_TRACE(id);
    ScriptedNetwork network(answers({replies.refusal(id, "so it says"), replies.done()}));
    kru_client_set(client, KRU_RETRIES, 0, nullptr);
    EXPECT_EQ(update(error), KRU_REFUSED);
    EXPECT_STREQ(error.id, id);
    EXPECT_STREQ(error.message, "so it says");
    EXPECT_EQ(error.outcome, KRU_REJECTED);
    EXPECT_EQ(error.retry, KRU_RETRY_USELESS);
    EXPECT_EQ(error.connection, KRU_CONNECTION_KEPT);
    EXPECT_EQ(update(error), KRU_OK);
    EXPECT_EQ(network.connections(), 1U);
    kru_client_disconnect(client, nullptr);
  }
}

// What an earlier attempt may have done stays open; that this one was refused does not.
TEST_P(CFaceDistrust, OfBorrowedWordsInTheReplyToARepetitionSaysThatItRefused) {
  for (const char* id : {"ERR_CLIENT_RESP_PARSING", "ERR_SERVER_PROTOCOL"}) {
    SCOPED_TRACE(id);
    Script lost;
    replies.expect(lost).reset();
    ScriptedNetwork network({lost, answers({replies.refusal(id, "so it says")})});
    kru_client_set(client, KRU_RETRIES, 1, nullptr);
    EXPECT_EQ(update(error), KRU_REFUSED);
    EXPECT_STREQ(error.message, "so it says");
    EXPECT_EQ(error.outcome, KRU_MAY_BE_APPLIED);
    EXPECT_EQ(network.connections(), 2U);
    kru_client_disconnect(client, nullptr);
  }
}

INSTANTIATE_TEST_SUITE_P(Over, CFaceDistrust, testing::Bool(), [](const auto& over) {
  return std::string(over.param ? "Binary" : "Http");
});

}  // namespace
