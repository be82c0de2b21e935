// What each setting of a client of the C face changes, and each limit and option of a call: one
// that did nothing, or what another one does, would be accepted as well.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "capi/kru.h"
#include "infra/oss/kruSystemCalls.h"
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

  Script answers(const std::vector<std::string>& texts) const { return replies.answers(texts); }
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
  std::int32_t setText(const Client& client, std::int32_t setting, const std::string& text) {
    return kru_client_set_text(client.get(), setting, text.data(), lengthOf(text), &error);
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

// Texts.

constexpr char kSecret[] = "Bearer host.c2VjcmV0";
constexpr char kAuthorization[] = "Authorization: Bearer host.c2VjcmV0\n";

TEST_P(CFaceSettings, SendsTheCredentialsWithEachRequest) {
  const std::string hits = replies.hitsAtOnce({"k1"});
  const std::string number = word16(1) + envelope(1, tq::test::estimate(5, 9, 7)) + endOfResults();
  const std::string done = replies.done();
  ScriptedNetwork network(
      answers({done, done, "", "", replies.outcomes(), done, replies.ready(), replies.ready(), hits,
               done, done, binary() ? number : replies.ready()}));
  const Client client = create();
  ASSERT_EQ(setText(client, KRU_CREDENTIALS, kSecret), KRU_OK) << error.message;
  EXPECT_EQ(createCollection(client), KRU_OK);
  EXPECT_EQ(kru_add_document(client.get(), "c1", 2, "k", 1, "t", 1, nullptr, 0, nullptr, &error),
            KRU_OK);
  EXPECT_EQ(queue(client, "k1"), KRU_OK);
  EXPECT_EQ(endQueue(client), KRU_OK);
  EXPECT_EQ(askOutcomes(client), KRU_OK);
  EXPECT_EQ(update(client), KRU_OK);
  EXPECT_EQ(status(client), KRU_OK);
  std::uint32_t ready = 9;
  EXPECT_EQ(kru_status(client.get(), nullptr, 0, nullptr, &ready, &error), KRU_OK);
  EXPECT_EQ(search(client), KRU_OK);
  EXPECT_EQ(kru_delete_document(client.get(), "c1", 2, "k", 1, nullptr, &error), KRU_OK);
  EXPECT_EQ(kru_drop_collection(client.get(), "c1", 2, nullptr, &error), KRU_OK);
  EXPECT_EQ(kru_estimate(client.get(), "c1", 2, "q", 1, nullptr, nullptr, nullptr, nullptr, &error),
            binary() ? KRU_OK : KRU_UNSUPPORTED);
  const auto& requests = network.connection(0).requests;
  ASSERT_EQ(requests.size(), binary() ? 12U : 11U);
  for (const std::string& request : requests) EXPECT_THAT(request, HasSubstr(kAuthorization));
}

TEST_P(CFaceSettings, QueuesAndAsksUnderItsName) {
  ScriptedNetwork network(answers({"", "", replies.outcomes(), replies.done(), replies.ready()}));
  const Client client = create();
  ASSERT_EQ(setText(client, KRU_CLIENT_NAME, "host-1"), KRU_OK) << error.message;
  EXPECT_EQ(queue(client, "k1"), KRU_OK);
  EXPECT_EQ(endQueue(client), KRU_OK);
  EXPECT_EQ(askOutcomes(client), KRU_OK);
  EXPECT_EQ(update(client), KRU_OK);
  EXPECT_EQ(status(client), KRU_OK);
  const auto& requests = network.connection(0).requests;
  ASSERT_EQ(requests.size(), 5U);
  for (std::size_t i = 0; i < requests.size(); ++i) {
    EXPECT_EQ(requests[i].find("client: host-1\n") != std::string::npos, i < 3) << requests[i];
  }
}

TEST_P(CFaceSettings, ATextIsCopiedAndStaysUntilItIsTakenAway) {
  ScriptedNetwork network(answers(std::vector<std::string>(4, replies.outcomes())));
  const Client client = create();
  std::string credentials = kSecret;
  std::string name = "host-1";
  ASSERT_EQ(setText(client, KRU_CREDENTIALS, credentials), KRU_OK);
  ASSERT_EQ(setText(client, KRU_CLIENT_NAME, name), KRU_OK);
  credentials.assign(credentials.size(), 'x');
  name.assign(name.size(), 'x');
  EXPECT_EQ(askOutcomes(client), KRU_OK);
  EXPECT_EQ(kru_client_disconnect(client.get(), nullptr), KRU_OK);
  EXPECT_EQ(askOutcomes(client), KRU_OK);
  EXPECT_EQ(kru_client_set_text(client.get(), KRU_CREDENTIALS, nullptr, 0, &error), KRU_OK);
  EXPECT_EQ(askOutcomes(client), KRU_OK);
  EXPECT_EQ(kru_client_set_text(client.get(), KRU_CLIENT_NAME, "unread", 0, &error), KRU_OK);
  EXPECT_EQ(askOutcomes(client), KRU_OK);
  ASSERT_EQ(network.connections(), 2U);
  for (const std::string& request :
       {network.connection(0).requests.at(0), network.connection(1).requests.at(0)}) {
    EXPECT_THAT(request, HasSubstr(kAuthorization));
    EXPECT_THAT(request, HasSubstr("client: host-1\n"));
  }
  EXPECT_THAT(network.connection(1).requests.at(1), Not(HasSubstr("Authorization")));
  EXPECT_THAT(network.connection(1).requests.at(1), HasSubstr("client: host-1\n"));
  EXPECT_THAT(network.connection(1).requests.at(2), Not(HasSubstr("client: ")));
}

TEST_P(CFaceSettings, ATextThatCannotBeOneChangesNothing) {
  ScriptedNetwork network(answers({replies.outcomes()}));
  const Client client = create();
  const std::string longest(128, 'n');
  ASSERT_EQ(setText(client, KRU_CREDENTIALS, kSecret), KRU_OK);
  ASSERT_EQ(setText(client, KRU_CLIENT_NAME, longest), KRU_OK);
  for (const std::int32_t setting : {KRU_CREDENTIALS, KRU_CLIENT_NAME}) {
    for (const std::string& bad :
         {std::string("hidden\nx"), std::string("hidden\r"), std::string("hidden\0", 7),
          std::string("hidden\xC3"), std::string("hidden\xED\xA0\x80")}) {
      EXPECT_EQ(setText(client, setting, bad), KRU_MISUSE) << bad;
      EXPECT_EQ(error.outcome, KRU_NOT_SENT);
      EXPECT_THAT(std::string(error.message), HasSubstr("the text of KRU_C"));
      EXPECT_THAT(std::string(error.message), Not(HasSubstr("hidden")));
    }
    EXPECT_EQ(kru_client_set_text(client.get(), setting, nullptr, 3, &error), KRU_MISUSE);
    EXPECT_EQ(kru_client_set(client.get(), setting, 1, &error), KRU_MISUSE);
  }
  EXPECT_EQ(setText(client, KRU_CLIENT_NAME, longest + 'n'), KRU_MISUSE);
  EXPECT_STREQ(error.message, "the text of KRU_CLIENT_NAME is longer than 128 bytes");
  EXPECT_EQ(setText(client, KRU_TIME_OUT, "x"), KRU_MISUSE);
  EXPECT_EQ(setText(client, KRU_CLIENT_NAME + 1, "x"), KRU_MISUSE);
  EXPECT_EQ(kru_client_set_text(nullptr, KRU_CREDENTIALS, "x", 1, &error), KRU_MISUSE);
  EXPECT_EQ(network.connections(), 0U);
  EXPECT_EQ(askOutcomes(client), KRU_OK);
  EXPECT_THAT(network.connection(0).requests.at(0), HasSubstr(kAuthorization));
  EXPECT_THAT(network.connection(0).requests.at(0), HasSubstr("client: " + longest + "\n"));
}

TEST_P(CFaceSettings, WhatIsHeldBackKeepsTheTextsThatItWasQueuedWith) {
  ScriptedNetwork network(answers({"", "", ""}));
  const Client client = create({{KRU_BATCHING, 1}});
  ASSERT_EQ(setText(client, KRU_CLIENT_NAME, "ada"), KRU_OK);
  EXPECT_EQ(queue(client, "k1"), KRU_OK);
  ASSERT_EQ(setText(client, KRU_CLIENT_NAME, "ben"), KRU_OK);
  EXPECT_EQ(queue(client, "k2"), KRU_OK);
  EXPECT_EQ(endQueue(client), KRU_OK);
  const auto& requests = network.connection(0).requests;
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_THAT(requests[0], HasSubstr("client: ada\n"));
  EXPECT_THAT(requests[1], HasSubstr("client: ben\n"));
}

TEST_P(CFaceSettings, NoErrorShowsTheCredentials) {
  const std::string unknown =
      binary() ? word16(401) : "HTTP/1.1 401 Who\r\nContent-Length: 6\r\n\r\nnobody";
  ScriptedNetwork network({answers({unknown}), lost(), silent()});
  const Client client = create({{KRU_RETRIES, 0}, {KRU_DEADLINE, 20}});
  ASSERT_EQ(setText(client, KRU_CREDENTIALS, kSecret), KRU_OK);
  const auto expectHidden = [&] {
    const std::string told(reinterpret_cast<const char*>(&error), sizeof error);
    EXPECT_THAT(told, Not(HasSubstr("host.c2VjcmV0")));
  };
  EXPECT_EQ(update(client), KRU_UNAUTHORIZED);
  expectHidden();
  EXPECT_EQ(kru_client_disconnect(client.get(), nullptr), KRU_OK);
  EXPECT_EQ(update(client), KRU_RECEIVE);
  expectHidden();
  EXPECT_EQ(update(client), KRU_TIMEOUT);
  expectHidden();
  const std::string endless = "Bearer " + std::string(70000, 's');
  ASSERT_EQ(setText(client, KRU_CREDENTIALS, endless), KRU_OK);
  EXPECT_NE(update(client), KRU_OK);
  EXPECT_THAT(std::string(error.message), Not(HasSubstr("sss")));
}

struct RenamingHost {
  kru_client* client;
  std::int32_t code = KRU_OK;
};

std::int32_t waitAndRename(void* host, std::int32_t fd, std::int32_t events, std::int32_t timeOut) {
  auto& self = *static_cast<RenamingHost*>(host);
  self.code = kru_client_set_text(self.client, KRU_CLIENT_NAME, "other", 5, nullptr);
  pollfd entry{fd, static_cast<short>((events & KRU_WAIT_READ) != 0 ? POLLIN : POLLOUT), 0};
  return tq::oss::systemCalls().poll(&entry, 1, timeOut) > 0 ? KRU_WAIT_READY : KRU_WAIT_TIMED_OUT;
}

TEST_P(CFaceSettings, ATextIsNotChangedWhileACallIsUnderWay) {
  ScriptedNetwork network(answers({replies.ready(), ""}), ScriptedNetwork::Arrival::OnDemand);
  const Client client = create();
  ASSERT_EQ(setText(client, KRU_CLIENT_NAME, "host-1"), KRU_OK);
  RenamingHost host{client.get()};
  ASSERT_EQ(kru_client_set_wait_hook(client.get(), &waitAndRename, &host, &error), KRU_OK);
  EXPECT_EQ(status(client), KRU_OK);
  EXPECT_EQ(host.code, KRU_MISUSE);
  EXPECT_EQ(queue(client, "k1"), KRU_OK);
  EXPECT_THAT(network.connection(0).requests.at(1), HasSubstr("client: host-1\n"));
}

INSTANTIATE_TEST_SUITE_P(Over, CFaceSettings, testing::Bool(), [](const auto& over) {
  return std::string(over.param ? "Binary" : "Http");
});

}  // namespace
