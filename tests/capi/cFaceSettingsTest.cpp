// What each setting of a client of the C face changes, and each limit and option of a call: one
// that did nothing, or what another one does, would be accepted as well.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "capi/kru.h"
#include "tests/support/protocolReplies.h"
#include "tests/support/scriptedNetwork.h"

namespace {

using namespace tq::test;
using testing::HasSubstr;
using testing::Not;

struct Closer {
  void operator()(kru_client* client) const { kru_client_destroy(client); }
};
using Client = std::unique_ptr<kru_client, Closer>;

std::uint32_t lengthOf(const std::string& text) { return static_cast<std::uint32_t>(text.size()); }

struct CFaceSettings : testing::TestWithParam<bool> {
  CFaceSettings() { error.size = sizeof error; }

  static bool binary() { return GetParam(); }

  Client create(std::initializer_list<std::pair<std::int32_t, std::uint32_t>> settings = {}) {
    kru_client* client = nullptr;
    EXPECT_EQ(
        kru_client_create(binary() ? KRU_BINARY : KRU_HTTP, "127.0.0.1", 9, 7, &client, &error),
        KRU_OK);
    for (const auto& [setting, value] : settings) {
      EXPECT_EQ(kru_client_set(client, setting, value, &error), KRU_OK) << setting;
    }
    return Client(client);
  }

  /// A peer that gives these answers in turn, none where one is empty, then waits for the close.
  Script answers(const std::vector<std::string>& texts) const {
    Script script;
    for (const auto& text : texts) {
      replies.expect(script);
      if (!text.empty()) script.send(text);
    }
    return script.awaitClose();
  }
  Script silent() const {
    Script script;
    return replies.expect(script).stall();
  }
  /// A peer that takes a request and closes.
  Script lost() const {
    Script script;
    return replies.expect(script);
  }

  std::int32_t update(const Client& client, const kru_limits* limits = nullptr) {
    return kru_update_index(client.get(), "c1", 2, limits, &error);
  }
  std::int32_t createCollection(const Client& client) {
    return kru_create_collection(client.get(), "c1", 2, nullptr, &error);
  }
  std::int32_t status(const Client& client) {
    std::uint32_t number = 0;
    return kru_status(client.get(), "c1", 2, nullptr, &number, &error);
  }
  std::int32_t queue(const Client& client, const std::string& key) {
    return kru_queue_document(client.get(), "c1", 2, key.data(), lengthOf(key), "text", 4, nullptr,
                              0, nullptr, &error);
  }
  std::int32_t endQueue(const Client& client) {
    return kru_end_queue(client.get(), "c1", 2, nullptr, &error);
  }
  /// Asks, takes all hits and returns what came first that is neither of KRU_OK and KRU_END.
  std::int32_t search(const Client& client, const kru_search_options* options = nullptr,
                      const kru_limits* limits = nullptr) {
    kru_cursor* cursor = nullptr;
    std::int32_t code = kru_search(client.get(), "c1", 2, "q", 1, options, limits, &cursor, &error);
    kru_hit hit{};
    hit.size = sizeof hit;
    while (code == KRU_OK) code = kru_cursor_next(cursor, &hit, &error);
    kru_cursor_close(cursor);
    return code == KRU_END ? KRU_OK : code;
  }
  std::int32_t askOutcomes(const Client& client) {
    kru_cursor* cursor = nullptr;
    const std::int32_t code = kru_ask_outcomes(client.get(), "c1", 2, nullptr, &cursor, &error);
    kru_cursor_close(cursor);
    return code;
  }

  Replies replies{GetParam()};
  kru_error error{};
};

// How long, and how often.

TEST_P(CFaceSettings, AtFirstNothingBoundsAWait) {
  ScriptedNetwork network(silent());
  const Client client = create();
  EXPECT_NE(update(client), KRU_TIMEOUT);
  EXPECT_TRUE(network.waitedForever());
}

TEST_P(CFaceSettings, TheTimeOutBoundsEachAttempt) {
  ScriptedNetwork network(silent());
  const Client client = create({{KRU_TIME_OUT, 30}});
  EXPECT_EQ(update(client), KRU_TIMEOUT);
  EXPECT_EQ(network.elapsedMillis(), 60U);
  EXPECT_EQ(network.connections(), 2U);
}

TEST_P(CFaceSettings, TheDeadlineBoundsAllAttemptsTogether) {
  ScriptedNetwork network(silent());
  const Client client = create({{KRU_DEADLINE, 30}, {KRU_RETRIES, 5}});
  EXPECT_EQ(update(client), KRU_TIMEOUT);
  EXPECT_EQ(network.elapsedMillis(), 30U);
  EXPECT_EQ(network.connections(), 1U);
}

TEST_P(CFaceSettings, RetriesAreCountedAndAtFirstOne) {
  for (const std::uint32_t retries : {0U, 1U, 3U}) {
    ScriptedNetwork network(lost());
    const Client client = create({{KRU_RETRIES, retries}});
    EXPECT_EQ(update(client), KRU_RECEIVE);
    EXPECT_EQ(network.connections(), retries + 1);
  }
  ScriptedNetwork network(lost());
  const Client client = create();
  EXPECT_EQ(update(client), KRU_RECEIVE);
  EXPECT_EQ(network.connections(), 2U);
}

TEST_P(CFaceSettings, TheRetriesOfACallTakeThePlaceOfTheClients) {
  ScriptedNetwork network(lost());
  const Client client = create({{KRU_RETRIES, 4}});
  const kru_limits twice{sizeof twice, 0, 2};
  EXPECT_EQ(update(client, &twice), KRU_RECEIVE);
  EXPECT_EQ(network.connections(), 3U);
  EXPECT_EQ(search(client, nullptr, &twice), KRU_RECEIVE);
  EXPECT_EQ(network.connections(), 6U);
  const kru_limits never{sizeof never, 0, 0};
  EXPECT_EQ(update(client, &never), KRU_RECEIVE);
  EXPECT_EQ(network.connections(), 7U);
  EXPECT_EQ(update(client), KRU_RECEIVE);
  EXPECT_EQ(network.connections(), 12U) << "of that call alone";
}

TEST_P(CFaceSettings, WhatMayHaveBeenDoneIsRepeatedUnlessItDoesNotBearIt) {
  for (const bool unsafe : {true, false}) {
    ScriptedNetwork network(lost());
    const Client client =
        unsafe ? create() : create({{KRU_RETRY_UNSAFE_KINDS, 0}, {KRU_RETRIES, 1}});
    EXPECT_EQ(createCollection(client), KRU_RECEIVE);
    EXPECT_EQ(error.outcome, KRU_MAY_BE_APPLIED);
    EXPECT_EQ(network.connections(), unsafe ? 2U : 1U);
    EXPECT_EQ(update(client), KRU_RECEIVE);
    EXPECT_EQ(network.connections(), unsafe ? 4U : 3U) << "twice does no harm";
    EXPECT_EQ(kru_client_set(client.get(), KRU_RETRY_UNSAFE_KINDS, 1, &error), KRU_OK);
    EXPECT_EQ(createCollection(client), KRU_RECEIVE);
    EXPECT_EQ(network.connections(), unsafe ? 6U : 5U);
  }
}

TEST_P(CFaceSettings, PausesBetweenAttemptsGrowUpToTheMost) {
  const auto paused = [&](std::initializer_list<std::pair<std::int32_t, std::uint32_t>> settings) {
    ScriptedNetwork network(lost());
    const Client client = create(settings);
    kru_client_set(client.get(), KRU_RETRIES, 3, nullptr);
    EXPECT_EQ(update(client), KRU_RECEIVE);
    return network.elapsedMillis();
  };
  // Each is at random between half and all of what it has grown to; a wait ends on a millisecond.
  constexpr std::uint64_t kRounding = 3;
  const auto isBetween = [&](std::uint64_t millis, std::uint64_t least, std::uint64_t most) {
    EXPECT_GE(millis, least);
    EXPECT_LE(millis, most + kRounding);
  };
  EXPECT_EQ(paused({}), 0U);
  EXPECT_EQ(paused({{KRU_RETRY_PAUSE_MOST, 1600}}), 0U) << "of none nothing grows";
  isBetween(paused({{KRU_RETRY_PAUSE, 400}}), 200 + 200 + 200, 400 + 400 + 400);
  isBetween(paused({{KRU_RETRY_PAUSE, 400}, {KRU_RETRY_PAUSE_MOST, 1600}}), 200 + 400 + 800,
            400 + 800 + 1600);
  isBetween(paused({{KRU_RETRY_PAUSE_MOST, 1600}, {KRU_RETRY_PAUSE, 400}}), 200 + 400 + 800,
            400 + 800 + 1600);
}

// Replies.

TEST_P(CFaceSettings, ReassemblyIsOnAtFirstAndLetsAFirstPortionBeCutAnywhere) {
  const auto searchWith = [&](const Client& client) {
    Script script;
    replies.expect(script).send(replies.hitsAtOnce({"k1", "k2"}), 5).awaitClose();
    ScriptedNetwork network(script, ScriptedNetwork::Arrival::OnDemand);
    const std::int32_t code = search(client);
    kru_client_disconnect(client.get(), nullptr);
    return code;
  };
  EXPECT_EQ(searchWith(create()), KRU_OK);
  EXPECT_EQ(searchWith(create({{KRU_REASSEMBLY, 0}})), binary() ? KRU_PROTOCOL : KRU_OK);
  EXPECT_EQ(searchWith(create({{KRU_REASSEMBLY, 0}, {KRU_REASSEMBLY, 1}})), KRU_OK);
}

TEST_P(CFaceSettings, AReplyThatAnnouncesMoreThanTheMostIsRefused) {
  const auto askWith = [&](std::initializer_list<std::pair<std::int32_t, std::uint32_t>> settings) {
    ScriptedNetwork network(answers({replies.outcomes()}));
    return askOutcomes(create(settings));
  };
  EXPECT_EQ(askWith({}), KRU_OK);
  EXPECT_EQ(askWith({{KRU_MAX_REPLY_BYTES, 1000}}), KRU_OK);
  EXPECT_EQ(askWith({{KRU_MAX_REPLY_BYTES, 10}}), KRU_PROTOCOL);
}

// Queued documents.

TEST_P(CFaceSettings, BatchingHoldsQueuedDocumentsBackUntilSomethingElseGoesOut) {
  ScriptedNetwork network(answers({"", "", "", "", replies.ready()}));
  const Client client = create();
  EXPECT_EQ(queue(client, "k1"), KRU_OK);
  EXPECT_EQ(error.outcome, KRU_MAY_BE_APPLIED) << "off at first";
  EXPECT_EQ(network.requests(), 1U);
  EXPECT_EQ(kru_client_set(client.get(), KRU_BATCHING, 1, &error), KRU_OK);
  EXPECT_EQ(queue(client, "k2"), KRU_OK);
  EXPECT_EQ(error.outcome, binary() ? KRU_NOT_SENT : KRU_MAY_BE_APPLIED);
  EXPECT_EQ(network.requests(), binary() ? 1U : 2U);
  EXPECT_EQ(endQueue(client), KRU_OK);
  EXPECT_EQ(error.outcome, KRU_MAY_BE_APPLIED);
  EXPECT_EQ(network.requests(), 3U);
  EXPECT_EQ(queue(client, "k3"), KRU_OK);
  EXPECT_EQ(network.requests(), binary() ? 3U : 4U);
  EXPECT_EQ(status(client), KRU_OK);
  EXPECT_EQ(network.requests(), 5U);
  EXPECT_EQ(network.connections(), 1U);
}

TEST_P(CFaceSettings, WhatBatchingHoldsBackOutlivesTheConnectionAndNotTheClient) {
  ScriptedNetwork network(answers({"", "", ""}));
  Client client = create({{KRU_BATCHING, 1}});
  EXPECT_EQ(queue(client, "k1"), KRU_OK);
  EXPECT_EQ(kru_client_disconnect(client.get(), &error), KRU_OK);
  EXPECT_EQ(endQueue(client), KRU_OK);
  EXPECT_EQ(network.connections(), 2U);
  EXPECT_EQ(network.connection(1).requests.size(), binary() ? 2U : 1U);
  EXPECT_EQ(queue(client, "k2"), KRU_OK);
  client.reset();
  EXPECT_EQ(network.connection(1).requests.size(), 2U) << "over HTTP nothing is held back";
  EXPECT_TRUE(network.connection(1).clientClosed);
}

TEST_P(CFaceSettings, AQueueMayChangeItsConnectionUnlessItIsKeptOnOne) {
  for (const std::uint32_t onOne : {0U, 1U}) {
    ScriptedNetwork network({lost(), answers({"", ""})});
    const Client client =
        onOne == 0 ? create() : create({{KRU_QUEUE_ON_ONE_CONNECTION, 1}, {KRU_RETRIES, 3}});
    EXPECT_EQ(queue(client, "k1"), KRU_OK);
    EXPECT_EQ(queue(client, "k2"), onOne == 0 ? KRU_OK : KRU_SEND);
    EXPECT_EQ(kru_client_set(client.get(), KRU_QUEUE_ON_ONE_CONNECTION, 0, &error), KRU_OK);
    EXPECT_EQ(endQueue(client), KRU_OK);
    EXPECT_EQ(network.connections(), 2U);
    EXPECT_EQ(network.connection(1).requests.size(), onOne == 0 ? 2U : 1U);
  }
}

TEST_P(CFaceSettings, ASwitchIsZeroOrOne) {
  const Client client = create();
  for (const std::int32_t setting :
       {KRU_RETRY_UNSAFE_KINDS, KRU_REASSEMBLY, KRU_BATCHING, KRU_QUEUE_ON_ONE_CONNECTION}) {
    EXPECT_EQ(kru_client_set(client.get(), setting, 2, &error), KRU_MISUSE) << setting;
    EXPECT_STREQ(error.message, "the value of a switch is neither 0 nor 1");
  }
}

// Options of a search.

TEST_P(CFaceSettings, ASearchAsksForScoresUnlessItsCallerDoesWithout) {
  const std::string hits = replies.hitsAtOnce({"k1"});
  ScriptedNetwork network(answers({hits, hits, hits}));
  const Client client = create();
  EXPECT_EQ(search(client), KRU_OK);
  const kru_search_options some{sizeof some, 0, 2, 10};
  EXPECT_EQ(search(client, &some), KRU_OK);
  const kru_search_options unscored{sizeof unscored, 1, 0, 0};
  EXPECT_EQ(search(client, &unscored), KRU_OK);
  const auto& requests = network.connection(0).requests;
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_THAT(requests[0], HasSubstr("scoreWanted: true\n"));
  EXPECT_THAT(requests[0], Not(HasSubstr("start: ")));
  EXPECT_THAT(requests[0], Not(HasSubstr("size: ")));
  EXPECT_THAT(requests[1], HasSubstr("scoreWanted: true\n"));
  EXPECT_THAT(requests[1], HasSubstr("start: 2\n"));
  EXPECT_THAT(requests[1], HasSubstr("size: 10\n"));
  EXPECT_THAT(requests[2], Not(HasSubstr("scoreWanted")));
}

INSTANTIATE_TEST_SUITE_P(Over, CFaceSettings, testing::Bool(), [](const auto& over) {
  return std::string(over.param ? "Binary" : "Http");
});

}  // namespace
