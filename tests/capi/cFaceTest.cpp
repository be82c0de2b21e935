// Every function of the C face, over both protocols, against a peer in memory: what comes out is a
// code and an error by value, whatever went wrong.

#include <gtest/gtest.h>
#include <poll.h>

#include <csetjmp>
#include <cstring>
#include <string>
#include <vector>

#include "capi/kru.h"
#include "comm/kruStaticDefs.h"
#include "comm/kruVersion.h"
#include "infra/oss/kruSystemCalls.h"
#include "tests/support/protocolReplies.h"
#include "tests/support/scriptedNetwork.h"

#if defined(__SANITIZE_ADDRESS__)
#define KRU_TEST_FINDS_LEAKS 1
#elif defined(__has_feature)
#define KRU_TEST_FINDS_LEAKS __has_feature(address_sanitizer)
#else
#define KRU_TEST_FINDS_LEAKS 0
#endif

namespace {

using namespace tq::test;

kru_error emptyError() {
  kru_error error{};
  error.size = sizeof error;
  return error;
}

std::uint32_t lengthOf(const std::string& text) { return static_cast<std::uint32_t>(text.size()); }

struct CFace : testing::TestWithParam<bool> {
  CFace() : replies(GetParam()) {}
  ~CFace() override { kru_client_destroy(client); }

  static bool binary() { return GetParam(); }

  void create() {
    const std::string host = "127.0.0.1";
    ASSERT_EQ(kru_client_create(binary() ? KRU_BINARY : KRU_HTTP, host.data(), lengthOf(host), 7,
                                &client, &error),
              KRU_OK)
        << error.message;
    ASSERT_NE(client, nullptr);
  }

  Script answers(const std::vector<std::string>& texts) const { return replies.answers(texts); }

  /// A search's reply that stops after its first hit until the network releases it.
  Script twoHitsWithAStallBetween() const {
    Script script;
    replies.expect(script);
    Script hits;
    replies.sendHits(hits, {"a1", "a2"});
    script.send(hits.steps().front().bytes).stall();
    for (std::size_t i = 1; i < hits.steps().size(); ++i) script.send(hits.steps()[i].bytes);
    return script;
  }

  std::int32_t status() {
    std::uint32_t number = 99;
    const std::int32_t code = kru_status(client, "c1", 2, nullptr, &number, &error);
    EXPECT_EQ(number, code == KRU_OK ? 0U : 99U);
    return code;
  }
  std::int32_t update() { return kru_update_index(client, "c1", 2, nullptr, &error); }
  std::int32_t queue(const std::string& key) {
    return kru_queue_document(client, "c1", 2, key.data(), lengthOf(key), "text", 4, nullptr, 0,
                              nullptr, &error);
  }
  std::int32_t search(kru_cursor** cursor, const std::string& query = "q") {
    return kru_search(client, "c1", 2, query.data(), lengthOf(query), nullptr, nullptr, cursor,
                      &error);
  }
  std::int32_t next(kru_cursor* cursor, std::string& key) {
    kru_hit hit{};
    hit.size = sizeof hit;
    const std::int32_t code = kru_cursor_next(cursor, &hit, &error);
    if (code == KRU_OK) {
      key.assign(static_cast<const char*>(hit.key), hit.key_length);
      EXPECT_EQ(hit.score, 0.5);
    }
    return code;
  }

  Replies replies;
  kru_client* client = nullptr;
  kru_error error = emptyError();
};

// Clients and their settings.

TEST_P(CFace, MakesNoClientOfWhatCannotBeOne) {
  kru_client* made = nullptr;
  const auto make = [&](std::int32_t protocol, const char* host, std::uint32_t length,
                        std::uint32_t port) {
    return kru_client_create(protocol, host, length, port, &made, &error);
  };
  EXPECT_EQ(make(3, "h", 1, 7), KRU_MISUSE);
  EXPECT_EQ(make(KRU_HTTP, nullptr, 1, 7), KRU_MISUSE);
  EXPECT_EQ(make(KRU_HTTP, "", 0, 7), KRU_MISUSE);
  EXPECT_EQ(make(KRU_HTTP, "a\nb", 3, 7), KRU_MISUSE);
  EXPECT_EQ(make(KRU_HTTP, "\xFF", 1, 7), KRU_MISUSE);
  EXPECT_STREQ(error.message, "the host is not UTF-8");
  EXPECT_STREQ(error.id, "KRU_MISUSE");
  EXPECT_EQ(make(KRU_HTTP, "h", 1, 0), KRU_MISUSE);
  EXPECT_EQ(make(KRU_HTTP, "h", 1, 65536), KRU_MISUSE);
  EXPECT_EQ(kru_client_create(KRU_HTTP, "h", 1, 7, nullptr, &error), KRU_MISUSE);
  EXPECT_EQ(made, nullptr);
  kru_client_destroy(nullptr);
  kru_cursor_close(nullptr);
}

TEST_P(CFace, TakesEverySettingAndNoOther) {
  create();
  for (std::int32_t setting = KRU_TIME_OUT; setting <= KRU_MAX_REPLY_BYTES; ++setting) {
    EXPECT_EQ(kru_client_set(client, setting, 1, &error), KRU_OK) << setting;
  }
  EXPECT_EQ(kru_client_set(client, 0, 1, &error), KRU_MISUSE);
  EXPECT_EQ(kru_client_set(client, KRU_MAX_REPLY_BYTES + 1, 1, &error), KRU_MISUSE);
  EXPECT_EQ(kru_client_set(client, KRU_QUEUE_ON_ONE_CONNECTION, 2, &error), KRU_MISUSE);
}

TEST_P(CFace, RefusesNullEverywhereAndSendsNothing) {
  ScriptedNetwork network(answers({}));
  EXPECT_EQ(kru_update_index(nullptr, "c1", 2, nullptr, &error), KRU_MISUSE);
  EXPECT_EQ(kru_client_set(nullptr, KRU_DEADLINE, 1, nullptr), KRU_MISUSE);
  EXPECT_EQ(kru_client_last_error(nullptr, &error), KRU_MISUSE);
  kru_hit hit{};
  hit.size = sizeof hit;
  EXPECT_EQ(kru_cursor_next(nullptr, &hit, &error), KRU_MISUSE);
  create();
  EXPECT_EQ(kru_update_index(client, nullptr, 2, nullptr, &error), KRU_MISUSE);
  EXPECT_EQ(kru_update_index(client, "c1", 0, nullptr, &error), KRU_MISUSE);
  EXPECT_EQ(kru_delete_document(client, "c1", 2, nullptr, 3, nullptr, &error), KRU_MISUSE);
  EXPECT_EQ(kru_delete_document(client, "c1", 2, "k", 0, nullptr, &error), KRU_MISUSE);
  const auto add = [&](const void* content, std::uint32_t length, const kru_pair* pairs,
                       std::uint32_t count) {
    return kru_add_document(client, "c1", 2, "k", 1, content, length, pairs, count, nullptr,
                            &error);
  };
  EXPECT_EQ(add(nullptr, 3, nullptr, 0), KRU_MISUSE);
  for (const std::uint32_t tooLong : {0x40000000U, 0x40000005U, UINT32_MAX}) {
    EXPECT_EQ(add("t", tooLong, nullptr, 0), KRU_MISUSE) << "of the content no byte is read";
  }
  EXPECT_EQ(add("t", 1, nullptr, 2), KRU_MISUSE);
  const kru_pair pair{nullptr, "v", 4, 1};
  EXPECT_EQ(add("t", 1, &pair, 1), KRU_MISUSE);
  EXPECT_EQ(kru_status(client, "c1", 2, nullptr, nullptr, &error), KRU_MISUSE);
  EXPECT_EQ(search(nullptr), KRU_MISUSE);
  EXPECT_EQ(kru_client_connection_number(client, nullptr, &error), KRU_MISUSE);
  EXPECT_EQ(kru_client_last_error(client, nullptr), KRU_MISUSE);
  EXPECT_EQ(error.outcome, KRU_NOT_SENT);
  EXPECT_EQ(network.connections(), 0U);
}

TEST_P(CFace, RefusesTextsThatWouldWriteAHeaderLine) {
  ScriptedNetwork network(answers({}));
  create();
  kru_cursor* cursor = nullptr;
  for (const std::string& bad : {std::string("a\nb"), std::string("a\rb"), std::string("a\0b", 3),
                                 std::string("\xC3"), std::string("\xED\xA0\x80"), std::string()}) {
    EXPECT_EQ(search(&cursor, bad), KRU_MISUSE) << bad;
    EXPECT_EQ(kru_drop_collection(client, bad.data(), lengthOf(bad), nullptr, &error), KRU_MISUSE);
    EXPECT_EQ(cursor, nullptr);
  }
  const std::string key(129, 'k');
  EXPECT_EQ(queue(key), KRU_MISUSE);
  EXPECT_STREQ(error.message, "the document's key is longer than 128 bytes");
  EXPECT_EQ(network.connections(), 0U);
}

TEST_P(CFace, ReadsRecordsByTheirSize) {
  ScriptedNetwork network(answers({replies.done(), replies.done()}));
  create();
  kru_error small{};
  small.code = 77;
  small.size = sizeof small - 1;
  EXPECT_EQ(kru_update_index(client, "c1", 2, nullptr, &small), KRU_MISUSE);
  EXPECT_EQ(small.code, 77) << "nothing is written where there may be no room";
  EXPECT_EQ(network.connections(), 0U);

  struct {
    kru_error error;
    char later[16];
  } large{};
  std::memset(large.later, 'x', sizeof large.later);
  large.error.size = sizeof large;
  EXPECT_EQ(kru_update_index(client, "c1", 2, nullptr, &large.error), KRU_OK);
  EXPECT_EQ(large.error.size, sizeof large);
  EXPECT_EQ(std::string(large.later, sizeof large.later), std::string(16, '\0'));

  struct {
    kru_limits limits;
    std::uint32_t later;
  } limits{{sizeof limits, 0, 0}, 0};
  EXPECT_EQ(kru_update_index(client, "c1", 2, &limits.limits, &error), KRU_OK);
  limits.later = 1;
  EXPECT_EQ(kru_update_index(client, "c1", 2, &limits.limits, &error), KRU_MISUSE);
  limits.limits.size = 4;
  EXPECT_EQ(kru_update_index(client, "c1", 2, &limits.limits, &error), KRU_MISUSE);
}

TEST_P(CFace, NamesItsCodesAndItsVersion) {
  EXPECT_STREQ(kru_code_name(KRU_OK), "KRU_OK");
  for (std::int32_t code = KRU_MISUSE; code <= KRU_UNSUPPORTED; ++code) {
    EXPECT_EQ(std::string(kru_code_name(code)).rfind("KRU_", 0), 0U) << code;
  }
  EXPECT_STREQ(kru_code_name(9), "");
  EXPECT_EQ(kru_version(), static_cast<std::uint32_t>(KRU_VERSION_NUMBER));
}

// Requests.

TEST_P(CFace, SendsEachRequestAndTakesItsAnswer) {
  ScriptedNetwork network(answers({replies.done(), replies.done(), replies.done(), "", "",
                                   replies.done(), replies.done(), replies.done()}));
  create();
  EXPECT_EQ(kru_create_collection(client, "c1", 2, nullptr, &error), KRU_OK);
  const std::string key("\0k\xFF", 3);
  const kru_pair pairs[] = {{"title", "T\xC3\xBC", 5, 3}};
  EXPECT_EQ(kru_add_document(client, "c1", 2, key.data(), 3, "text", 4, pairs, 1, nullptr, &error),
            KRU_OK);
  EXPECT_EQ(error.outcome, KRU_ANSWERED);
  EXPECT_EQ(
      kru_add_document(client, "c1", 2, key.data(), 3, nullptr, 0, nullptr, 0, nullptr, &error),
      KRU_OK);
  EXPECT_EQ(queue("k1"), KRU_OK);
  EXPECT_EQ(error.outcome, KRU_MAY_BE_APPLIED);
  EXPECT_EQ(kru_end_queue(client, "c1", 2, nullptr, &error), KRU_OK);
  EXPECT_EQ(update(), KRU_OK);
  EXPECT_EQ(kru_delete_document(client, "c1", 2, key.data(), 3, nullptr, &error), KRU_OK);
  EXPECT_EQ(kru_drop_collection(client, "c1", 2, nullptr, &error), KRU_OK);
  EXPECT_EQ(error.connection, KRU_CONNECTION_KEPT);
  EXPECT_EQ(network.connections(), 1U);
  const auto& requests = network.connection(0).requests;
  ASSERT_EQ(requests.size(), 8U);
  EXPECT_NE(requests[1].find("T\xC3\xBC"), std::string::npos);
  EXPECT_NE(requests[1].find(key), std::string::npos);
  EXPECT_NE(requests[2].find(key), std::string::npos) << "a pair was made for it";
}

TEST_P(CFace, TellsTheStatus) {
  const std::string reply =
      binary() ? replies.refusal("ZVK0001E", "shutting down")
               : plain(Reply{"", kGetStatus, 200,
                             std::string(4, '\0') + enveloped(record({{"STATUS_CODE", "2"}}))});
  ScriptedNetwork network(answers({replies.ready(), reply}));
  create();
  EXPECT_EQ(status(), KRU_OK);
  EXPECT_EQ(error.message_length, 0U);
  std::uint32_t number = 0;
  EXPECT_EQ(kru_status(client, nullptr, 0, nullptr, &number, &error), KRU_OK);
  EXPECT_EQ(number, 2U);
  EXPECT_STREQ(error.id, binary() ? "ZVK0001E" : "");
  EXPECT_STREQ(error.message, binary() ? "shutting down" : "");
}

TEST_P(CFace, EstimatesWhereTheProtocolCan) {
  ScriptedNetwork network(
      answers({word16(1) + envelope(1, tq::test::estimate(5, 9, 7)) + endOfResults()}));
  create();
  std::int64_t matching = -1;
  std::int64_t most = -1;
  std::int64_t documents = -1;
  const std::int32_t code =
      kru_estimate(client, "c1", 2, "q", 1, nullptr, &matching, &most, &documents, &error);
  if (binary()) {
    EXPECT_EQ(code, KRU_OK) << error.message;
    EXPECT_EQ(matching, 5);
    EXPECT_EQ(most, 7);
    EXPECT_EQ(documents, 9);
  } else {
    EXPECT_EQ(code, KRU_UNSUPPORTED);
    EXPECT_EQ(matching, -1) << "no number is invented";
    EXPECT_EQ(network.connections(), 0U);
  }
}

// Errors.

TEST_P(CFace, SaysWhatTheServerSaid) {
  ScriptedNetwork network(answers({replies.refusal("ZVK0404E",
                                                   "no coll\xC3\xA8"
                                                   "ction"),
                                   replies.ready()}));
  create();
  EXPECT_EQ(update(), KRU_REFUSED);
  EXPECT_STREQ(error.id, "ZVK0404E");
  EXPECT_STREQ(error.message,
               "no coll\xC3\xA8"
               "ction");
  EXPECT_EQ(error.message_length, std::strlen(error.message));
  EXPECT_STREQ(error.host, "127.0.0.1");
  EXPECT_EQ(error.port, 7U);
  EXPECT_EQ(error.outcome, KRU_REJECTED);
  EXPECT_EQ(error.retry, KRU_RETRY_USELESS);
  EXPECT_EQ(error.connection, KRU_CONNECTION_KEPT);
  kru_error last = emptyError();
  EXPECT_EQ(kru_client_last_error(client, &last), KRU_OK);
  EXPECT_EQ(std::memcmp(&last, &error, sizeof last), 0);
  EXPECT_EQ(status(), KRU_OK) << "and the client goes on";
  EXPECT_EQ(kru_client_last_error(client, &last), KRU_OK);
  EXPECT_EQ(last.code, KRU_OK);
  EXPECT_EQ(last.outcome, KRU_ANSWERED);
  EXPECT_EQ(network.connections(), 1U);
}

TEST_P(CFace, CutsALongTextAtACharacter) {
  std::string text = "x";
  while (text.size() < 2000) text += "\xE2\x82\xAC";
  const std::string id(100, 'I');
  ScriptedNetwork network(answers({replies.refusal(id, text)}));
  create();
  EXPECT_EQ(update(), KRU_REFUSED);
  EXPECT_EQ(error.id_length, sizeof error.id - 1);
  EXPECT_EQ(error.message_length, 1U + 340 * 3) << "1023 bytes, of which two would be half of one";
  EXPECT_EQ(std::string(error.message), text.substr(0, error.message_length));
}

TEST_P(CFace, TellsWhatATimeOutMeans) {
  Script silent;
  replies.expect(silent).stall();
  ScriptedNetwork network(silent);
  create();
  kru_client_set(client, KRU_RETRIES, 0, nullptr);
  kru_limits limits{sizeof limits, 20, 0};
  EXPECT_EQ(kru_update_index(client, "c1", 2, &limits, &error), KRU_TIMEOUT);
  EXPECT_STREQ(error.id, "ERR_SERVER_COMM_TIMEOUT");
  EXPECT_EQ(error.outcome, KRU_MAY_BE_APPLIED);
  EXPECT_EQ(error.retry, KRU_RETRY_SAFE);
  EXPECT_EQ(error.connection, KRU_CONNECTION_REPLACED);
  EXPECT_EQ(kru_create_collection(client, "c1", 2, &limits, &error), KRU_TIMEOUT);
  EXPECT_EQ(error.retry, KRU_RETRY_UNSAFE);
  EXPECT_EQ(network.connections(), 2U);
}

TEST_P(CFace, TellsThatNobodyIsThere) {
  ScriptedNetwork network(answers({}));
  network.failConnects(ECONNREFUSED);
  create();
  EXPECT_EQ(kru_create_collection(client, "c1", 2, nullptr, &error), KRU_CONNECT);
  EXPECT_STREQ(error.id, "ERR_CONNECT_SERVER");
  EXPECT_NE(error.message_length, 0U) << "what the system said";
  EXPECT_EQ(error.retry, KRU_RETRY_SAFE);
  EXPECT_EQ(error.connection, KRU_CONNECTION_NONE);
  EXPECT_EQ(error.outcome, KRU_NOT_SENT);
}

TEST_P(CFace, TellsThatAReplyIsNone) {
  ScriptedNetwork network(answers({"no reply of any protocol that anybody speaks\r\n\r\n"}));
  create();
  EXPECT_EQ(update(), KRU_PROTOCOL);
  EXPECT_EQ(error.connection, KRU_CONNECTION_REPLACED);
}

TEST_P(CFace, AQueueThatLosesItsConnectionSaysSo) {
  Script first;
  replies.expect(first);
  ScriptedNetwork network({first, answers({"", ""})});
  create();
  ASSERT_EQ(kru_client_set(client, KRU_QUEUE_ON_ONE_CONNECTION, 1, &error), KRU_OK);
  EXPECT_EQ(queue("k1"), KRU_OK);
  EXPECT_EQ(queue("k2"), KRU_SEND);
  EXPECT_EQ(error.retry, KRU_RETRY_QUEUE);
  EXPECT_EQ(kru_end_queue(client, "c1", 2, nullptr, &error), KRU_SEND);
  EXPECT_EQ(error.retry, KRU_RETRY_QUEUE);
  ASSERT_EQ(kru_client_set(client, KRU_QUEUE_ON_ONE_CONNECTION, 1, &error), KRU_OK);
  EXPECT_EQ(queue("k1"), KRU_OK);
  EXPECT_EQ(network.connection(1).requests.size(), 1U);
}

TEST_P(CFace, TheConnectionNumberChangesWithTheConnection) {
  ScriptedNetwork network(answers({replies.ready()}));
  create();
  std::uint64_t before = 1;
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  EXPECT_EQ(kru_client_connection_number(client, &before, &error), KRU_OK);
  EXPECT_EQ(before, 0U);
  EXPECT_EQ(status(), KRU_OK);
  EXPECT_EQ(kru_client_connection_number(client, &first, &error), KRU_OK);
  EXPECT_EQ(kru_client_disconnect(client, &error), KRU_OK);
  EXPECT_EQ(error.connection, KRU_CONNECTION_NONE);
  EXPECT_EQ(status(), KRU_OK);
  EXPECT_EQ(kru_client_connection_number(client, &second, &error), KRU_OK);
  EXPECT_NE(first, 0U);
  EXPECT_NE(second, first);
}

// Cursors.

TEST_P(CFace, HandsOutHitAfterHit) {
  const std::vector<std::string> keys = {"k1", std::string("\0\xFF", 2), "k3"};
  Script script;
  replies.sendHits(replies.expect(script), keys);
  replies.expect(script).send(replies.ready()).awaitClose();
  ScriptedNetwork network(script, ScriptedNetwork::Arrival::OnDemand);
  create();
  kru_cursor* cursor = nullptr;
  const kru_search_options options{sizeof options, 0, 2, 10};
  ASSERT_EQ(kru_search(client, "c1", 2, "q", 1, &options, nullptr, &cursor, &error), KRU_OK);
  const char* name = nullptr;
  std::uint32_t length = 0;
  EXPECT_EQ(kru_cursor_document(cursor, &name, &length, &error), KRU_MISUSE) << "no hit yet";
  for (const auto& key : keys) {
    std::string found;
    ASSERT_EQ(next(cursor, found), KRU_OK) << error.message;
    EXPECT_EQ(found, key);
    ASSERT_EQ(kru_cursor_document(cursor, &name, &length, &error), KRU_OK);
    EXPECT_EQ(std::string(name, length), idOfKey(key));
  }
  std::string none;
  EXPECT_EQ(next(cursor, none), KRU_END);
  EXPECT_EQ(next(cursor, none), KRU_END);
  EXPECT_EQ(kru_cursor_document(cursor, &name, &length, &error), KRU_MISUSE) << "no hit any more";
  kru_outcome outcome{};
  outcome.size = sizeof outcome;
  EXPECT_EQ(kru_cursor_next_outcome(cursor, &outcome, &error), KRU_MISUSE);
  EXPECT_EQ(kru_cursor_next(cursor, nullptr, &error), KRU_MISUSE);
  kru_cursor_close(cursor);
  EXPECT_EQ(status(), KRU_OK);
  EXPECT_EQ(network.connections(), 1U) << "after a whole reply the connection is kept";
  const std::string& sent = network.connection(0).requests.front();
  EXPECT_NE(sent.find(": 2"), std::string::npos);
  EXPECT_NE(sent.find(": 10"), std::string::npos);
}

TEST_P(CFace, AResultThatBreaksOffIsNeverTakenForAWholeOne) {
  Script script;
  replies.sendHits(replies.expect(script), {"k1", "k2"}, false);
  ScriptedNetwork network(script, ScriptedNetwork::Arrival::OnDemand);
  create();
  kru_client_set(client, KRU_RETRIES, 0, nullptr);
  kru_cursor* cursor = nullptr;
  ASSERT_EQ(search(&cursor), KRU_OK) << error.message;
  std::string key;
  EXPECT_EQ(next(cursor, key), KRU_OK);
  EXPECT_EQ(next(cursor, key), KRU_OK);
  const std::int32_t code = binary() ? KRU_RECEIVE : KRU_TRUNCATED;
  EXPECT_EQ(next(cursor, key), code);
  EXPECT_EQ(error.retry, KRU_RETRY_SAFE);
  EXPECT_EQ(next(cursor, key), code) << "it stays so";
  kru_cursor_close(cursor);
}

TEST_P(CFace, OfTwoCursorsTheFirstIsToldThatItIsLost) {
  Script script;
  replies.sendHits(replies.expect(script), {"a1", "a2"});
  script.stall();
  Script other;
  replies.sendHits(replies.expect(other), {"b1", "b2"});
  ScriptedNetwork network({script, other.awaitClose()}, ScriptedNetwork::Arrival::OnDemand);
  create();
  kru_cursor* first = nullptr;
  kru_cursor* second = nullptr;
  ASSERT_EQ(search(&first), KRU_OK);
  ASSERT_EQ(search(&second), KRU_OK) << error.message;
  std::string key;
  EXPECT_EQ(next(first, key), KRU_OK);
  EXPECT_EQ(key, "a1") << "what had arrived is still right";
  EXPECT_EQ(next(first, key), KRU_CURSOR_LOST);
  EXPECT_EQ(next(first, key), KRU_CURSOR_LOST);
  for (const auto* expected : {"b1", "b2"}) {
    EXPECT_EQ(next(second, key), KRU_OK);
    EXPECT_EQ(key, expected);
  }
  EXPECT_EQ(next(second, key), KRU_END);
  kru_cursor_close(first);
  kru_cursor_close(second);
}

TEST_P(CFace, ACursorWhoseReplyHasArrivedOutlivesTheNextRequest) {
  Script script;
  replies.expect(script).send(replies.hitsAtOnce({"a1", "a2"}));
  replies.expect(script).send(replies.ready()).awaitClose();
  ScriptedNetwork network(script);
  create();
  kru_cursor* cursor = nullptr;
  ASSERT_EQ(search(&cursor), KRU_OK);
  std::string key;
  EXPECT_EQ(next(cursor, key), KRU_OK);
  EXPECT_EQ(status(), KRU_OK);
  EXPECT_EQ(next(cursor, key), KRU_OK);
  EXPECT_EQ(key, "a2");
  EXPECT_EQ(next(cursor, key), KRU_END);
  kru_cursor_close(cursor);
}

TEST_P(CFace, ACursorOutlivesItsClientAndSaysSo) {
  Script script;
  replies.sendHits(replies.expect(script), {"a1", "a2"});
  ScriptedNetwork network(script.awaitClose());
  create();
  kru_cursor* cursor = nullptr;
  ASSERT_EQ(search(&cursor), KRU_OK);
  kru_client_destroy(client);
  client = nullptr;
  EXPECT_TRUE(network.connection(0).clientClosed);
  std::string key;
  EXPECT_EQ(next(cursor, key), KRU_CURSOR_LOST);
  EXPECT_STREQ(error.message, "the cursor's client was destroyed");
  kru_cursor_close(cursor);
}

TEST_P(CFace, ATimeOutOfACursorCanBeWaitedOut) {
  ScriptedNetwork network(twoHitsWithAStallBetween().awaitClose(),
                          ScriptedNetwork::Arrival::OnDemand);
  create();
  kru_client_set(client, KRU_DEADLINE, 50, nullptr);
  kru_cursor* cursor = nullptr;
  ASSERT_EQ(search(&cursor), KRU_OK);
  std::string key;
  EXPECT_EQ(next(cursor, key), KRU_OK);
  EXPECT_EQ(next(cursor, key), KRU_TIMEOUT);
  EXPECT_EQ(error.retry, KRU_RETRY_SAFE);
  network.release();
  EXPECT_EQ(next(cursor, key), KRU_OK) << error.message;
  EXPECT_EQ(key, "a2");
  EXPECT_EQ(next(cursor, key), KRU_END);
  kru_cursor_close(cursor);
}

TEST_P(CFace, TheLimitsOfASearchBoundEachFetchOfItsCursor) {
  Script script = twoHitsWithAStallBetween();
  ScriptedNetwork network(replies.expect(script).awaitClose(), ScriptedNetwork::Arrival::OnDemand);
  create();
  kru_client_set(client, KRU_DEADLINE, 5000, nullptr);
  kru_client_set(client, KRU_RETRIES, 0, nullptr);
  kru_limits limits{sizeof limits, 20, 0};
  kru_cursor* cursor = nullptr;
  ASSERT_EQ(kru_search(client, "c1", 2, "q", 1, nullptr, &limits, &cursor, &error), KRU_OK);
  std::string key;
  EXPECT_EQ(next(cursor, key), KRU_OK);
  for (std::uint64_t fetch = 1; fetch <= 2; ++fetch) {
    EXPECT_EQ(next(cursor, key), KRU_TIMEOUT);
    EXPECT_EQ(network.elapsedMillis(), 20 * fetch) << "each has the whole deadline";
  }
  network.release();
  EXPECT_EQ(next(cursor, key), KRU_OK) << error.message;
  EXPECT_EQ(next(cursor, key), KRU_END);
  kru_cursor_close(cursor);
  const std::uint64_t before = network.elapsedMillis();
  EXPECT_EQ(status(), KRU_TIMEOUT) << "the client's own deadline holds again";
  EXPECT_GE(network.elapsedMillis() - before, 5000U);
}

TEST_P(CFace, LimitsWithoutADeadlineLetTheCursorWait) {
  ScriptedNetwork network(twoHitsWithAStallBetween().awaitClose(),
                          ScriptedNetwork::Arrival::OnDemand);
  create();
  kru_client_set(client, KRU_DEADLINE, 20, nullptr);
  kru_limits limits{sizeof limits, 0, 0};
  kru_cursor* cursor = nullptr;
  ASSERT_EQ(kru_search(client, "c1", 2, "q", 1, nullptr, &limits, &cursor, &error), KRU_OK);
  std::string key;
  EXPECT_EQ(next(cursor, key), KRU_OK);
  EXPECT_FALSE(network.waitedForever());
  EXPECT_NE(next(cursor, key), KRU_TIMEOUT);
  EXPECT_TRUE(network.waitedForever());
  kru_cursor_close(cursor);
}

TEST_P(CFace, HandsOutOutcomes) {
  ScriptedNetwork network(answers({replies.outcomes()}));
  create();
  kru_cursor* cursor = nullptr;
  ASSERT_EQ(kru_ask_outcomes(client, "c1", 2, nullptr, &cursor, &error), KRU_OK) << error.message;
  kru_outcome outcome{};
  outcome.size = sizeof outcome;
  ASSERT_EQ(kru_cursor_next_outcome(cursor, &outcome, &error), KRU_OK);
  EXPECT_EQ(std::string(static_cast<const char*>(outcome.key), outcome.key_length), "k1");
  EXPECT_EQ(std::string(outcome.name, outcome.name_length), idOfKey("k1"));
  EXPECT_EQ(outcome.id, nullptr) << "stored";
  ASSERT_EQ(kru_cursor_next_outcome(cursor, &outcome, &error), KRU_OK);
  EXPECT_EQ(outcome.key, nullptr) << "a name that is no key";
  EXPECT_EQ(std::string(outcome.name, outcome.name_length), "k2");
  EXPECT_EQ(std::string(outcome.id, outcome.id_length), "ZVK0017E");
  EXPECT_EQ(std::string(outcome.message, outcome.message_length), "too long");
  EXPECT_EQ(outcome.level, 2);
  EXPECT_EQ(kru_cursor_next_outcome(cursor, &outcome, &error), KRU_END);
  kru_cursor_close(cursor);
}

// The wait hook.

struct Host {
  std::int32_t answer = KRU_WAIT_READY;
  std::size_t waits = 0;
  std::int32_t events = 0;
  kru_client* destroyed = nullptr;
  kru_client* called = nullptr;
  kru_cursor* read = nullptr;
  std::int32_t codeOfCall = -1;
  std::jmp_buf* jump = nullptr;
};

std::int32_t waitFor(void* host, std::int32_t fd, std::int32_t events, std::int32_t timeOut) {
  auto& self = *static_cast<Host*>(host);
  ++self.waits;
  self.events |= events;
  if (self.called != nullptr) {
    kru_error error = emptyError();
    self.codeOfCall = kru_update_index(self.called, "c1", 2, nullptr, &error);
  }
  if (self.read != nullptr) {
    kru_error error = emptyError();
    kru_hit hit{};
    hit.size = sizeof hit;
    self.codeOfCall = kru_cursor_next(self.read, &hit, &error);
  }
  if (self.destroyed != nullptr) kru_client_destroy(self.destroyed);
  self.destroyed = nullptr;
  if (self.jump != nullptr) std::longjmp(*self.jump, 1);
  if (self.answer != KRU_WAIT_READY) return self.answer;
  pollfd entry{fd, 0, 0};
  if ((events & KRU_WAIT_READ) != 0) entry.events = static_cast<short>(entry.events | POLLIN);
  if ((events & KRU_WAIT_WRITE) != 0) entry.events = static_cast<short>(entry.events | POLLOUT);
  const int ready = tq::oss::systemCalls().poll(&entry, fd < 0 ? 0U : 1U, timeOut);
  return ready > 0 ? KRU_WAIT_READY : KRU_WAIT_TIMED_OUT;
}

TEST_P(CFace, WaitsAsTheHostSays) {
  ScriptedNetwork network(answers({replies.ready()}), ScriptedNetwork::Arrival::OnDemand);
  create();
  Host host;
  ASSERT_EQ(kru_client_set_wait_hook(client, waitFor, &host, &error), KRU_OK);
  EXPECT_EQ(status(), KRU_OK);
  EXPECT_GT(host.waits, 0U);
  EXPECT_NE(host.events & KRU_WAIT_READ, 0);
}

TEST_P(CFace, GivingUpEndsTheCallAndNotTheClient) {
  for (const std::int32_t answer : {std::int32_t{KRU_WAIT_GIVE_UP}, -5, 3}) {
    ScriptedNetwork network(answers({replies.ready()}), ScriptedNetwork::Arrival::OnDemand);
    create();
    Host host;
    host.answer = answer;
    kru_client_set_wait_hook(client, waitFor, &host, nullptr);
    EXPECT_EQ(status(), KRU_CANCELLED);
    EXPECT_STREQ(error.id, "ERR_CLIENT_CANCELLED");
    EXPECT_EQ(error.retry, KRU_RETRY_USELESS);
    EXPECT_EQ(error.connection, KRU_CONNECTION_NONE);
    EXPECT_EQ(host.waits, 1U) << "nothing is repeated";
    kru_client_set_wait_hook(client, nullptr, nullptr, nullptr);
    EXPECT_EQ(status(), KRU_OK) << "and the next request is answered";
    kru_client_destroy(client);
    client = nullptr;
  }
}

TEST_P(CFace, AHookCannotUseItsOwnClient) {
  ScriptedNetwork network(answers({replies.ready()}), ScriptedNetwork::Arrival::OnDemand);
  create();
  Host host;
  host.called = client;
  kru_client_set_wait_hook(client, waitFor, &host, nullptr);
  EXPECT_EQ(status(), KRU_OK);
  EXPECT_EQ(host.codeOfCall, KRU_MISUSE);
  EXPECT_EQ(network.connection(0).requests.size(), 1U);
}

TEST_P(CFace, AHookCannotReadACursorOfItsOwnClientThoughThatHasFailedForGood) {
  Script script;
  replies.sendHits(replies.expect(script), {"k1"}, false);
  ScriptedNetwork network({script, answers({replies.ready()})}, ScriptedNetwork::Arrival::OnDemand);
  create();
  kru_client_set(client, KRU_RETRIES, 0, nullptr);
  kru_cursor* cursor = nullptr;
  ASSERT_EQ(search(&cursor), KRU_OK) << error.message;
  std::string key;
  EXPECT_EQ(next(cursor, key), KRU_OK);
  const std::int32_t failure = next(cursor, key);
  EXPECT_GT(failure, KRU_MISUSE);
  Host host;
  host.read = cursor;
  kru_client_set_wait_hook(client, waitFor, &host, nullptr);
  EXPECT_EQ(status(), KRU_OK);
  EXPECT_EQ(host.codeOfCall, KRU_MISUSE);
  EXPECT_EQ(next(cursor, key), failure) << "it stays so";
  kru_cursor_close(cursor);
}

TEST_P(CFace, AHookThatDestroysItsClientEndsTheCall) {
  ScriptedNetwork network(answers({replies.ready()}), ScriptedNetwork::Arrival::OnDemand);
  create();
  Host host;
  host.destroyed = client;
  kru_client_set_wait_hook(client, waitFor, &host, nullptr);
  EXPECT_EQ(status(), KRU_CANCELLED);
  client = nullptr;
  EXPECT_TRUE(network.connection(0).clientClosed);
}

// What a jump skips is never given back, which the leak detector would report.
#if !KRU_TEST_FINDS_LEAKS
TEST_P(CFace, AClientThatAHookJumpedOutOfRefusesEveryFurtherCall) {
  ScriptedNetwork network(answers({replies.ready()}), ScriptedNetwork::Arrival::OnDemand);
  create();
  static std::jmp_buf jump;
  static Host host;
  host = Host();
  host.jump = &jump;
  kru_client_set_wait_hook(client, waitFor, &host, nullptr);
  if (setjmp(jump) == 0) {
    status();
    FAIL() << "the hook did not jump";
  }
  EXPECT_EQ(status(), KRU_MISUSE);
  EXPECT_NE(std::string(error.message).find("jumped"), std::string::npos);
  EXPECT_EQ(kru_client_set_wait_hook(client, nullptr, nullptr, &error), KRU_MISUSE);
}
#endif

// As a host does it whose own errors are jumps: it catches them inside of the hook.
struct JumpingHost {
  std::jmp_buf handler;
  bool caught = false;
};

std::int32_t waitAndCatch(void* host, std::int32_t, std::int32_t, std::int32_t) {
  auto* self = static_cast<JumpingHost*>(host);
  if (setjmp(self->handler) != 0) return KRU_WAIT_GIVE_UP;
  self->caught = true;
  std::longjmp(self->handler, 1);
}

TEST_P(CFace, AHostCatchesItsJumpsInsideOfTheHook) {
  ScriptedNetwork network(answers({replies.ready()}), ScriptedNetwork::Arrival::OnDemand);
  create();
  static JumpingHost host;
  host.caught = false;
  for (int i = 0; i < 100; ++i) {
    kru_client_set_wait_hook(client, waitAndCatch, &host, nullptr);
    EXPECT_EQ(status(), KRU_CANCELLED);
    EXPECT_TRUE(host.caught);
    kru_client_set_wait_hook(client, nullptr, nullptr, nullptr);
    EXPECT_EQ(status(), KRU_OK);
  }
}

// Over the binary protocol each refusal has a code that says so.
struct CFaceOverHttp : CFace {};

TEST_P(CFaceOverHttp, ARefusalWithoutAWordIsARefusal) {
  const std::string busy = "HTTP/1.1 503 Busy\r\nContent-Length: 0\r\n\r\n";
  ScriptedNetwork network(answers({busy, busy, busy}));
  create();
  EXPECT_EQ(update(), KRU_REFUSED);
  EXPECT_EQ(error.outcome, KRU_REJECTED);
  EXPECT_EQ(error.retry, KRU_RETRY_USELESS);
  EXPECT_EQ(error.connection, KRU_CONNECTION_KEPT);
  EXPECT_STREQ(error.id, "KRU_REFUSED");
  EXPECT_STREQ(error.message, "the server refused the request without saying why");
  EXPECT_EQ(status(), KRU_REFUSED);
  kru_cursor* cursor = nullptr;
  EXPECT_EQ(search(&cursor), KRU_REFUSED);
  EXPECT_EQ(cursor, nullptr);
}

TEST_P(CFaceOverHttp, ARefusalWithAProxysTextIsARefusal) {
  const auto says = [](const std::string& status) {
    return "HTTP/1.1 " + status + "\r\nContent-Length: 4\r\n\r\nbusy";
  };
  ScriptedNetwork network(
      answers({says("503 Busy"), says("400 Bad"), says("404 None"), replies.ready()}));
  create();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(update(), KRU_REFUSED);
    EXPECT_EQ(error.outcome, KRU_REJECTED);
    EXPECT_EQ(error.retry, KRU_RETRY_USELESS);
    EXPECT_EQ(error.connection, KRU_CONNECTION_KEPT);
    EXPECT_STREQ(error.id, "ERR_SERVER_PROTOCOL") << "the library's id for it";
  }
  EXPECT_EQ(status(), KRU_OK);
  EXPECT_EQ(network.connections(), 1U);
}

TEST_P(CFaceOverHttp, ARefusalWhoseTextNothingMeasuresIsARefusal) {
  ScriptedNetwork network(answers({"HTTP/1.0 503 Busy\r\nConnection: close\r\n\r\nbusy"}));
  create();
  for (unsigned int i = 1; i < 3; ++i) {
    EXPECT_EQ(update(), KRU_REFUSED);
    EXPECT_EQ(error.outcome, KRU_REJECTED);
    EXPECT_EQ(error.retry, KRU_RETRY_USELESS);
    EXPECT_STREQ(error.id, "ERR_SERVER_PROTOCOL");
    EXPECT_EQ(network.connections(), i) << "each time another one";
  }
}

TEST_P(CFaceOverHttp, AReplyThatLeavesTheRequestOpenIsNoRefusal) {
  const std::pair<const char*, const char*> cases[] = {
      {"103 Early Hints\r\nContent-Length: 0\r\n\r\n", "KRU_PROTOCOL"},
      {"103 Early Hints\r\nContent-Length: 5\r\n\r\nhello", "ERR_SERVER_PROTOCOL"},
      {"204 No Content\r\n\r\n", "KRU_PROTOCOL"},
      {"504 Gateway Timeout\r\n\r\n", "ERR_SERVER_PROTOCOL"}};
  for (const auto& [reply, id] : cases) {
    SCOPED_TRACE(reply);
    ScriptedNetwork network(answers({std::string("HTTP/1.1 ") + reply}));
    create();
    EXPECT_EQ(update(), KRU_PROTOCOL);
    EXPECT_EQ(error.outcome, KRU_MAY_BE_APPLIED);
    EXPECT_EQ(error.retry, KRU_RETRY_USELESS);
    EXPECT_EQ(error.connection, KRU_CONNECTION_REPLACED);
    EXPECT_STREQ(error.id, id);
    kru_client_destroy(client);
    client = nullptr;
  }
}

TEST_P(CFaceOverHttp, AServerErrorIsARefusalWhateverIsLegibleOfIt) {
  const auto says = [](const std::string& status, const std::string& body) {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
  };
  struct Case {
    std::string reply;
    std::int32_t code;
    const char* id;
    const char* message;
  };
  const Case cases[] = {
      {replies.refusal("ZVK0500E", "disk full"), KRU_REFUSED, "ZVK0500E", "disk full"},
      {says("500 Error", "disk full"), KRU_REFUSED, "ERR_SERVER_APP", ""},
      {says("500 Error", ""), KRU_REFUSED, "KRU_REFUSED",
       "the server refused the request without saying why"},
      {says("401 Who", "nobody"), KRU_UNAUTHORIZED, "ERR_SERVER_INVALID_AUTH", ""},
  };
  for (const Case& c : cases) {
    ScriptedNetwork network(answers({c.reply, replies.ready()}));
    create();
    EXPECT_EQ(update(), c.code) << c.reply;
    EXPECT_STREQ(error.id, c.id) << c.reply;
    EXPECT_STREQ(error.message, c.message) << c.reply;
    EXPECT_EQ(error.outcome, KRU_REJECTED) << c.reply;
    EXPECT_EQ(error.retry, KRU_RETRY_USELESS) << c.reply;
    EXPECT_EQ(error.connection, KRU_CONNECTION_KEPT) << c.reply;
    EXPECT_EQ(status(), KRU_OK);
    EXPECT_EQ(network.connections(), 1U) << c.reply;
    kru_client_destroy(client);
    client = nullptr;
  }
}

TEST_P(CFaceOverHttp, AFailedWriteCostsTheConnection) {
  ScriptedNetwork network(answers({replies.ready()}));
  create();
  network.failNextWrite(EPIPE);
  EXPECT_EQ(update(), KRU_INTERNAL);
  EXPECT_EQ(error.outcome, KRU_NOT_SENT);
  EXPECT_EQ(error.connection, KRU_CONNECTION_REPLACED);
  EXPECT_EQ(status(), KRU_OK);
  EXPECT_EQ(network.connections(), 2U);
}

INSTANTIATE_TEST_SUITE_P(With, CFaceOverHttp, testing::Values(false));

struct CFaceOverBinary : CFace {};

TEST_P(CFaceOverBinary, EachStatusOfAReplyHasACodeAndAnIdOfItsOwn) {
  struct Case {
    std::string reply;
    std::int32_t code;
    const char* id;
    const char* message;
    std::int32_t outcome;
    std::size_t connections;  // that two requests take
  };
  const Case cases[] = {
      {replies.refusal("ZVK0500E", "disk full"), KRU_REFUSED, "ZVK0500E", "disk full", KRU_REJECTED,
       1},
      {word16(6) + errorRecord({{"Other", "x"}}), KRU_REFUSED, "ERR_SERVER_APP", "", KRU_REJECTED,
       1},
      {word16(401), KRU_UNAUTHORIZED, "ERR_SERVER_INVALID_AUTH", "", KRU_REJECTED, 1},
      {word16(7), KRU_PROTOCOL, "ERR_SERVER_PROTOCOL", "", KRU_MAY_BE_APPLIED, 2},
  };
  for (const Case& c : cases) {
    ScriptedNetwork network({answers({c.reply, replies.ready()}), answers({replies.ready()})});
    create();
    EXPECT_EQ(update(), c.code) << c.id;
    EXPECT_STREQ(error.id, c.id);
    EXPECT_STREQ(error.message, c.message);
    EXPECT_EQ(error.outcome, c.outcome) << c.id;
    EXPECT_EQ(error.connection, c.connections == 1 ? KRU_CONNECTION_KEPT : KRU_CONNECTION_REPLACED)
        << c.id;
    EXPECT_EQ(status(), KRU_OK);
    EXPECT_EQ(network.connections(), c.connections) << c.id;
    kru_client_destroy(client);
    client = nullptr;
  }
}

INSTANTIATE_TEST_SUITE_P(With, CFaceOverBinary, testing::Values(true));

INSTANTIATE_TEST_SUITE_P(Over, CFace, testing::Bool(), [](const auto& over) {
  return std::string(over.param ? "Binary" : "Http");
});

}  // namespace
