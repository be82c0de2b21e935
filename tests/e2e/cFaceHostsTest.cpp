// Hosts that use the C face, and the real server: who they are, and what they are told of.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "capi/kru.h"
#include "tests/support/corvanedProcess.h"
#include "tests/support/temporaryDirectory.h"

namespace tq::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::uint32_t lengthOf(const std::string& text) { return static_cast<std::uint32_t>(text.size()); }

/// What a program shows a server that has the token's account.
std::string newToken(const std::string& users) {
  CorvanedProgram program({"token", "host", "--users", users, "--allow", "admin:*"});
  const std::string output = program.rest();
  EXPECT_EQ(program.wait(), 0) << output;
  return "Bearer " + output.substr(0, output.find('\n'));
}

/// One host with its client.
class Host {
 public:
  Host(bool binary, const CorvanedProcess& server) {
    error_.size = sizeof error_;
    EXPECT_EQ(
        kru_client_create(binary ? KRU_BINARY : KRU_HTTP, "127.0.0.1", 9,
                          binary ? server.binaryPort() : server.httpPort(), &client_, &error_),
        KRU_OK);
    kru_client_set(client_, KRU_DEADLINE, 60000, nullptr);
  }
  ~Host() { kru_client_destroy(client_); }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  void give(std::int32_t setting, const std::string& text) {
    EXPECT_EQ(kru_client_set_text(client_, setting, text.data(), lengthOf(text), &error_), KRU_OK)
        << error_.message;
  }
  std::int32_t create() { return kru_create_collection(client_, "c", 1, nullptr, &error_); }
  std::int32_t update() { return kru_update_index(client_, "c", 1, nullptr, &error_); }
  std::int32_t add(const std::string& key) {
    return kru_add_document(client_, "c", 1, key.data(), lengthOf(key), "red fox", 7, nullptr, 0,
                            nullptr, &error_);
  }
  void queue(const std::string& key) {
    EXPECT_EQ(kru_queue_document(client_, "c", 1, key.data(), lengthOf(key), "red fox", 7, nullptr,
                                 0, nullptr, &error_),
              KRU_OK);
    EXPECT_EQ(kru_end_queue(client_, "c", 1, nullptr, &error_), KRU_OK);
  }
  std::int32_t search(std::vector<std::string>& keys) {
    kru_cursor* cursor = nullptr;
    std::int32_t code = kru_search(client_, "c", 1, "fox", 3, nullptr, nullptr, &cursor, &error_);
    kru_hit hit{};
    hit.size = sizeof hit;
    while (code == KRU_OK && (code = kru_cursor_next(cursor, &hit, &error_)) == KRU_OK) {
      keys.emplace_back(static_cast<const char*>(hit.key), hit.key_length);
    }
    kru_cursor_close(cursor);
    return code;
  }
  /// The keys of the documents that the host is told of.
  std::vector<std::string> told(std::int32_t end = KRU_END) {
    kru_cursor* cursor = nullptr;
    std::int32_t code = kru_ask_outcomes(client_, "c", 1, nullptr, &cursor, &error_);
    std::vector<std::string> keys;
    kru_outcome outcome{};
    outcome.size = sizeof outcome;
    while (code == KRU_OK &&
           (code = kru_cursor_next_outcome(cursor, &outcome, &error_)) == KRU_OK) {
      keys.emplace_back(static_cast<const char*>(outcome.key), outcome.key_length);
    }
    EXPECT_EQ(code, end) << error_.message;
    kru_cursor_close(cursor);
    return keys;
  }
  const kru_error& error() const { return error_; }

 private:
  kru_client* client_ = nullptr;
  kru_error error_{};
};

class CFaceHosts : public ::testing::TestWithParam<bool> {};

TEST_P(CFaceHosts, AreServedWithTheCredentialsOfAnAccount) {
  const TemporaryDirectory directory;
  const std::string users = (directory.path() / "users").string();
  const std::string token = newToken(users);
  const CorvanedProcess server({"--users", users});
  Host host(GetParam(), server);
  const auto expectUnknown = [&] {
    EXPECT_EQ(host.create(), KRU_UNAUTHORIZED);
    EXPECT_EQ(host.error().outcome, KRU_REJECTED);
    EXPECT_EQ(host.error().retry, KRU_RETRY_USELESS);
    EXPECT_EQ(host.error().connection, KRU_CONNECTION_KEPT);
    host.queue("dropped");
    EXPECT_THAT(host.told(KRU_UNAUTHORIZED), IsEmpty());
  };
  expectUnknown();
  host.give(KRU_CREDENTIALS, "Bearer host.wrong");
  expectUnknown();
  host.give(KRU_CREDENTIALS, token);
  EXPECT_EQ(host.create(), KRU_OK) << host.error().message;
  EXPECT_EQ(host.add("k1"), KRU_OK) << host.error().message;
  host.queue("k2");
  EXPECT_THAT(host.told(), ElementsAre("k2"));
  EXPECT_EQ(host.update(), KRU_OK) << host.error().message;
  std::vector<std::string> keys;
  EXPECT_EQ(host.search(keys), KRU_END) << host.error().message;
  EXPECT_THAT(keys, ::testing::UnorderedElementsAre("k1", "k2"));
  host.give(KRU_CREDENTIALS, "");
  EXPECT_EQ(host.update(), KRU_UNAUTHORIZED);
}

TEST_P(CFaceHosts, AreToldTheOutcomesOfTheirOwnDocuments) {
  const CorvanedProcess server;
  Host ada(GetParam(), server);
  Host ben(GetParam(), server);
  Host nobody(GetParam(), server);
  ada.give(KRU_CLIENT_NAME, "ada");
  ben.give(KRU_CLIENT_NAME, "ben");
  ASSERT_EQ(ada.create(), KRU_OK) << ada.error().message;
  ada.queue("a");
  ben.queue("b");
  nobody.queue("n");
  EXPECT_THAT(ada.told(), ElementsAre("a"));
  EXPECT_THAT(ada.told(), IsEmpty());
  EXPECT_THAT(nobody.told(), ElementsAre("n"));
  // What was queued has no answer; one that comes behind it says that the server has read it.
  std::vector<std::string> keys;
  ASSERT_EQ(ben.search(keys), KRU_END) << ben.error().message;
  Host later(GetParam(), server);
  later.give(KRU_CLIENT_NAME, "ben");
  EXPECT_THAT(later.told(), ElementsAre("b")) << "the name counts, not the connection";
}

INSTANTIATE_TEST_SUITE_P(Over, CFaceHosts, ::testing::Bool(), [](const auto& over) {
  return std::string(over.param ? "Binary" : "Http");
});

}  // namespace
}  // namespace tq::test
