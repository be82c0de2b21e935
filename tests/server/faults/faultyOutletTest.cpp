// Each fault as a client sees it: over a plain socket, and with the library's clients.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "comm/kruDrestoPerfClient.h"
#include "infra/util/kruExtendedProperties.h"
#include "server/faults/faultPlan.h"
#include "server/faults/faultyOutlet.h"
#include "server/front/server.h"
#include "server/store/localStore.h"
#include "tests/server/rawClient.h"
#include "tests/server/requestBytes.h"
#include "tests/support/exchange.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using test::binaryRequest;
using test::Headers;
using test::httpRequest;
using test::RawClient;
using ::testing::StartsWith;

constexpr int kDocuments = 700;

/// A server whose collection "c1" gives more hits than one portion holds.
class FaultyServer : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    shared_ = std::make_unique<Shared>();
    shared_->store.createCollection("c1", "en_us");
    for (int i = 0; i < kDocuments; ++i) {
      Document document;
      document.key = "a key of a length that fills portions " + std::to_string(i);
      document.content = "fox";
      shared_->store.addDocument("c1", document);
    }
    shared_->store.updateIndex("c1");
  }
  static void TearDownTestSuite() { shared_.reset(); }

  void start(const std::string& script) {
    server_.reset();
    ServerOptions options;
    options.httpPort = 0;
    options.binaryPort = 0;
    // Replies that are held back are not waited for when the next script starts.
    options.stopTimeout = std::chrono::milliseconds(20);
    // Clients that end their sending get their replies however long these take.
    options.hangupGrace = std::chrono::minutes(5);
    plan_ = std::make_shared<FaultPlan>(parseFaultScript(script));
    options.outlets = faultyOutlets(plan_);
    server_.emplace(shared_->dispatcher, options);
    server_->start();
    http_ = server_->listeners().at(0).port;
    binary_ = server_->listeners().at(1).port;
  }

  struct Shared {
    tq::test::TemporaryDirectory directory;
    LocalStore store{directory.path() / "data", StoreLimits{}};
    Dispatcher dispatcher{store, "1.2.3"};
  };
  static std::unique_ptr<Shared> shared_;

  std::shared_ptr<FaultPlan> plan_;
  std::optional<Server> server_;
  std::uint16_t http_ = 0;
  std::uint16_t binary_ = 0;
};

std::unique_ptr<FaultyServer::Shared> FaultyServer::shared_;

const Headers kVersion{{"action", "getServerVersion"}};
const std::string kBinaryVersion = std::string("\0\1\0\1\0\5", 6) + "1.2.3";

// A pause without an end shows what came before it without a look at the clock: whatever a client
// gets when the server stops, another one has been answered meanwhile.
TEST_F(FaultyServer, DelayHoldsTheWholeReplyBack) {
  start("http: delay 3600000");
  RawClient client(http_);
  client.send(httpRequest(kVersion));
  RawClient other(binary_);
  other.send(binaryRequest(kVersion));
  EXPECT_EQ(other.receive(11), kBinaryVersion);
  server_->stop();
  EXPECT_EQ(client.receiveAll(), "");
}

TEST_F(FaultyServer, ReplyComesWholeBehindItsDelay) {
  start("all: delay 1");
  RawClient client(binary_);
  client.send(binaryRequest(kVersion));
  EXPECT_EQ(client.receive(11), kBinaryVersion);
}

TEST_F(FaultyServer, DripPausesBetweenThePieces) {
  start("all: drip 5 3600000");
  RawClient client(binary_);
  client.send(binaryRequest(kVersion));
  EXPECT_EQ(client.receive(5), kBinaryVersion.substr(0, 5));
  server_->stop();
  EXPECT_EQ(client.receiveAll(), "");
}

TEST_F(FaultyServer, ReplyComesWholeInDrips) {
  start("all: drip 5 1");
  RawClient client(binary_);
  client.send(binaryRequest(kVersion));
  EXPECT_EQ(client.receive(11), kBinaryVersion);
}

TEST_F(FaultyServer, SplitRepliesAreWhole) {
  start("all: split 1");
  RawClient client(binary_);
  client.send(binaryRequest(kVersion) + binaryRequest(kVersion));
  EXPECT_EQ(client.receive(22), kBinaryVersion + kBinaryVersion);
}

TEST_F(FaultyServer, DropEndsTheConnectionBehindThatManyBytes) {
  for (std::size_t bytes = 0; bytes <= 11; ++bytes) {
    start("all: drop " + std::to_string(bytes));
    RawClient client(binary_);
    client.send(binaryRequest(kVersion));
    EXPECT_EQ(client.receiveAll(), kBinaryVersion.substr(0, bytes));
  }
  start("all: drop 12");
  RawClient client(binary_);
  client.send(binaryRequest(kVersion) + binaryRequest(kVersion));
  EXPECT_EQ(client.receive(22), kBinaryVersion + kBinaryVersion);
}

TEST_F(FaultyServer, ResetEndsTheConnectionBehindThatManyBytes) {
  start("all: reset 4");
  RawClient client(binary_);
  client.send(binaryRequest(kVersion));
  EXPECT_EQ(client.receive(4), kBinaryVersion.substr(0, 4));
  EXPECT_TRUE(client.wasReset());
}

TEST_F(FaultyServer, LengthsLie) {
  start("all: length +3");
  RawClient http(http_);
  http.send(httpRequest(kVersion));
  EXPECT_THAT(http.receive(41), StartsWith("HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\n"));
  RawClient binary(binary_);
  binary.send(binaryRequest(kVersion));
  EXPECT_EQ(binary.receive(11), std::string("\0\1\0\1\0\x8", 6) + "1.2.3");
}

TEST_F(FaultyServer, RecordsAndEndsLie) {
  const std::string end("\0\1\0\0", 4);
  const Headers search{{"action", "search"}, {"index", "c1"}, {"query", "fox"}, {"size", "1"}};
  const std::string key = "a key of a length that fills portions 0";
  const std::string hit = std::string("\0\1\0", 3) + static_cast<char>(key.size()) + key;
  const std::vector<std::pair<std::string, std::string>> cases{{"record missing", end},
                                                               {"record extra", hit + hit + end},
                                                               {"end extra", hit + end + end},
                                                               {"end missing", hit}};
  for (const auto& [fault, expected] : cases) {
    start("action search: " + fault);
    RawClient client(binary_);
    client.send(binaryRequest(search));
    client.endSending();
    EXPECT_EQ(client.receiveAll(), std::string("\0\1", 2) + expected) << fault;
  }
}

TEST_F(FaultyServer, OnlyThePickedReplyIsHarmed) {
  start("reply 2: drop 3");
  RawClient client(binary_);
  for (const std::size_t bytes : {11U, 3U}) {
    client.send(binaryRequest(kVersion));
    EXPECT_EQ(client.receive(bytes).size(), bytes);
  }
  EXPECT_TRUE(client.ended());
  RawClient other(binary_);
  other.send(binaryRequest(kVersion));
  EXPECT_EQ(other.receive(11), kBinaryVersion);
}

TEST_F(FaultyServer, RequestsWithoutAReplyAreNotCounted) {
  start("reply 1: drop 0");
  RawClient client(binary_);
  client.send(binaryRequest({{"action", "asyncAddDocument"}, {"index", "nowhere"}}) +
              binaryRequest(kVersion));
  EXPECT_EQ(client.receiveAll(), "");
}

TEST_F(FaultyServer, RefusalsOfGarbageCanBeHarmedToo) {
  start("all: drop 5");
  RawClient client(binary_);
  client.send(std::string("\0\0", 2));
  EXPECT_EQ(client.receiveAll().size(), 5U);
}

TEST_F(FaultyServer, StopDoesNotWaitForRepliesThatAreHeldBack) {
  ServerOptions options;
  options.binaryPort = 0;
  options.stopTimeout = std::chrono::milliseconds(20);
  options.stallTimeout = std::chrono::milliseconds(0);
  options.outlets = faultyOutlets(
      std::make_shared<FaultPlan>(parseFaultScript("reply 1: delay 3600000; all: drip 1 3600000")));
  Server server(shared_->dispatcher, options);
  server.start();
  RawClient delayed(server.listeners().at(0).port);
  delayed.send(binaryRequest(kVersion));
  RawClient dripping(server.listeners().at(0).port);
  dripping.send(binaryRequest(kVersion));
  server.stop();
  EXPECT_LE(delayed.receiveAll().size() + dripping.receiveAll().size(), 1U);
}

TEST_F(FaultyServer, ClientThatLeavesDuringAFaultDoesNoHarm) {
  start("every 2: drip 1 1; all: delay 5");
  for (int i = 0; i < 20; ++i) {
    RawClient client(binary_);
    client.send(binaryRequest(kVersion));
    if (i % 3 == 0) client.reset();
  }
  RawClient client(binary_);
  client.send(binaryRequest(kVersion));
  EXPECT_EQ(client.receive(11), kBinaryVersion);
}

// ---- The library's clients

using tq::test::Outcome;

enum class Protocol { Http, Binary, Reassembling };

struct Fault {
  std::string text;
  // Nothing of what a client sees is wrong, only late or in pieces.
  bool harmless = false;
  // The lie cannot be told from a true reply: what stands there is what the client hands out.
  bool believable = false;
  // Some client waits for what never comes, or comes very slowly.
  bool lasting = false;
};
void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.text; }

class FaultyExchange : public FaultyServer,
                       public ::testing::WithParamInterface<std::tuple<Protocol, bool, Fault>> {
 protected:
  std::unique_ptr<tq::comm::CorvaneRESTClient> client() {
    const auto [protocol, persistent, fault] = GetParam();
    std::unique_ptr<tq::comm::CorvaneRESTClient> client;
    if (protocol == Protocol::Http) {
      client = std::make_unique<tq::comm::CorvaneRESTClient>(u"127.0.0.1", http_, persistent);
    } else {
      auto binary = std::make_unique<tq::comm::DrestoPerfClient>(u"127.0.0.1", binary_);
      binary->setReassembly(protocol == Protocol::Reassembling);
      binary->usePeristentConnection(persistent);
      client = std::move(binary);
    }
    client->setDeadline(kPatience);
    // A repeated exchange would hide what the harmed one came to.
    client->setNumRetries(0);
    return client;
  }

  static Outcome askForStatus(tq::comm::CorvaneRESTClient& client) {
    tq::comm::ClientRequest request;
    request.buildRequest(u"c1", tq::comm::ClientRequest::GET_STATUS,
                         tq::util::ExtendedProperties());
    return tq::test::runExchange(client, request);
  }

  static Outcome search(tq::comm::CorvaneRESTClient& client, int kind) {
    tq::util::ExtendedProperties properties;
    properties.putProperty(u"query", u"fox");
    properties.putProperty(u"scoreWanted", u"true");
    tq::comm::ClientRequest request;
    request.buildRequest(u"c1", static_cast<tq::comm::ClientRequest::REQUEST>(kind), properties);
    return tq::test::runExchange(client, request);
  }

  void judge(const Outcome& outcome, const Outcome& truth) const {
    const Fault& fault = std::get<2>(GetParam());
    if (fault.harmless) {
      EXPECT_EQ(outcome, truth);
    }
    if (fault.believable) return;
    // Whatever came is right, in place and there once.
    ASSERT_LE(outcome.hits.size(), truth.hits.size());
    for (std::size_t i = 0; i < outcome.hits.size(); ++i) {
      ASSERT_EQ(outcome.hits[i], truth.hits[i]) << i;
    }
    if (outcome.hits.size() < truth.hits.size()) {
      EXPECT_TRUE(outcome.truncated || !outcome.errorId.empty()) << outcome;
    }
  }

  // What would not end by itself is given up soon; everything else has time, also under a
  // sanitizer.
  static unsigned int harmedDeadline() { return std::get<2>(GetParam()).lasting ? 200 : kPatience; }

  // The second exchange. The reply may begin after it was given up, and the next one must not be
  // taken for it.
  template <typename Exchange>
  Outcome harmed(tq::comm::CorvaneRESTClient& client, const Exchange& exchange) const {
    client.setDeadline(harmedDeadline());
    Outcome outcome = exchange();
    // On a busy machine the time may have passed before the request was written.
    while (client.getRequestOutcome() == tq::comm::RequestOutcome::NotSent) outcome = exchange();
    while (plan_->begun() < 2) std::this_thread::yield();
    client.setDeadline(kPatience);
    return outcome;
  }

  static constexpr unsigned int kPatience = 20000;
};

TEST_P(FaultyExchange, EndsInTimeIsNeverWrongAndLeavesTheClientUsable) {
  const Fault& fault = std::get<2>(GetParam());
  for (const int kind : {tq::test::kStreamSearch, tq::test::kScalarSearch}) {
    start("reply 2: " + fault.text);
    const auto asking = client();
    const Outcome truth = search(*asking, kind);
    ASSERT_EQ(truth.errorId, "");
    ASSERT_EQ(truth.hits.size(), static_cast<std::size_t>(kDocuments));
    judge(harmed(*asking, [&] { return search(*asking, kind); }), truth);
    EXPECT_EQ(search(*asking, kind), truth) << "the exchange behind the fault";
  }
}

TEST_P(FaultyExchange, SmallRepliesNeitherHangNorHarmTheNext) {
  start("reply 2: " + std::get<2>(GetParam()).text);
  const auto asking = client();
  const Outcome truth = askForStatus(*asking);
  ASSERT_EQ(truth.errorId, "");
  const Outcome outcome = harmed(*asking, [&] { return askForStatus(*asking); });
  if (std::get<2>(GetParam()).harmless) {
    EXPECT_EQ(outcome, truth);
  }
  EXPECT_EQ(askForStatus(*asking), truth);
}

INSTANTIATE_TEST_SUITE_P(
    EveryFault, FaultyExchange,
    ::testing::Combine(
        ::testing::Values(Protocol::Http, Protocol::Binary, Protocol::Reassembling),
        ::testing::Bool(),
        ::testing::Values(
            Fault{"delay 30", true}, Fault{"delay 3600000", false, false, true}, Fault{"split 97"},
            Fault{"split 4096"}, Fault{"drip 1 200", false, false, true}, Fault{"drip 3000 1"},
            Fault{"drop 0"}, Fault{"drop 1"}, Fault{"drop 100"}, Fault{"drop 20000"},
            Fault{"reset 0"}, Fault{"reset 100"}, Fault{"reset 20000"},
            Fault{"length +1", false, true, true}, Fault{"length -1", false, true, true},
            Fault{"length +70000", false, true, true}, Fault{"length -100000", false, true, true},
            Fault{"end missing", false, false, true}, Fault{"end extra"},
            Fault{"record missing", false, true}, Fault{"record extra", false, true},
            Fault{"end missing, drop 30000"})));

}  // namespace
}  // namespace corvaned
