#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <xapian.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "server/access/accessControl.h"
#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/front/outlet.h"
#include "server/front/server.h"
#include "server/store/indexReaders.h"
#include "server/store/localStore.h"
#include "tests/server/logLines.h"
#include "tests/server/rawClient.h"
#include "tests/server/requestBytes.h"
#include "tests/server/store/slowCollection.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using test::binaryRequest;
using test::documentBlock;
using test::Headers;
using test::httpRequest;
using test::RawClient;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

const std::string kDone = "HTTP/1.1 200 OK\n";
const std::string kSuccess("\0\1", 2);
const std::string kEnd("\0\1\0\0", 4);

/// A store that holds its callers until it is told to let them go.
class Gate {
 public:
  void pass() {
    std::unique_lock lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [&] { return open_; });
  }
  void awaitWaiting(int count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return waiting_ >= count; });
  }
  void open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int waiting_ = 0;
  bool open_ = false;
};

class EndlessHits : public HitSource {
 public:
  explicit EndlessHits(std::uint64_t count) : left_(count) {}
  bool next(Hit& hit) override {
    if (left_ == 0) return false;
    --left_;
    hit.key = "a key of some length";
    return true;
  }

 private:
  std::uint64_t left_;
};

/// The real store, with an update that can be held and a query with any number of hits.
class TestStore : public LocalStore {
 public:
  using LocalStore::LocalStore;

  void open(const std::string& name, Opened opened) override {
    LocalStore::open(name, std::move(opened));
    ++openCalls;
    openCalls.notify_all();
  }
  // Calls that have returned: with the collection open, or to be told when it is.
  void awaitOpenCalls(int count) const {
    for (int seen = openCalls; seen < count; seen = openCalls) openCalls.wait(seen);
  }

  void updateIndex(const std::string& name) override {
    if (name == "held") return gate.pass();
    LocalStore::updateIndex(name);
  }

  void deleteCollection(const std::string& name) override {
    if (name == "held") return gate.pass();
    LocalStore::deleteCollection(name);
  }

  void deleteDocument(const std::string& name, const std::string& key, bool mustExist) override {
    if (name == "held") return gate.pass();
    LocalStore::deleteDocument(name, key, mustExist);
  }

  BatchOutcome apply(const std::string& name, Batch batch) override {
    if (name.starts_with("held")) gate.pass();
    return LocalStore::apply(name, std::move(batch));
  }

  std::unique_ptr<HitSource> search(const std::string& name, const SearchQuery& query) override {
    if (name == "many") return std::make_unique<EndlessHits>(std::stoull(query.text));
    if (name == "held") {
      gate.pass();
      return std::make_unique<EndlessHits>(0);
    }
    if (name == "endless") searchUntilStopped();
    return LocalStore::search(name, query);
  }

  Gate gate;
  std::atomic<int> searching = 0;
  std::atomic<int> openCalls = 0;

 private:
  [[noreturn]] void searchUntilStopped() {
    ++searching;
    try {
      for (;;) RequestContext::current()->spend(1);
    } catch (...) {
      --searching;
      throw;
    }
  }
};

/// Holds the commits of an index up, as a search does that they have overtaken too often: each
/// waits a second. The collection must have as many documents as a search is overtaken, and one
/// more.
class HeldCommits {
 public:
  static constexpr int kDocuments = IndexReaders::kFreeAttempts + 1;

  HeldCommits(Store& store, const std::string& name) {
    std::promise<void> holds;
    thread_ = std::thread([&store, &holds, name, ended = ended_.get_future()] {
      SearchQuery everything;
      everything.everything = true;
      everything.order = HitOrder::Key;
      everything.size = kDocuments;
      int seen = 0;
      store.visit(name, everything, [&](const Document&) {
        if (++seen < kDocuments) throw Xapian::DatabaseModifiedError("overtaken");
        holds.set_value();
        ended.wait();
      });
    });
    holds.get_future().wait();
  }
  ~HeldCommits() {
    ended_.set_value();
    thread_.join();
  }
  HeldCommits(const HeldCommits&) = delete;
  HeldCommits& operator=(const HeldCommits&) = delete;

 private:
  std::promise<void> ended_;
  std::thread thread_;
};

class FrontTest : public ::testing::Test {
 protected:
  FrontTest() : FrontTest(false) {}
  explicit FrontTest(bool keepsBackups)
      : store_(directory_.path() / "data", limits(),
               keepsBackups ? std::optional(directory_.path() / "backups") : std::nullopt) {
    options_.httpPort = 0;
    options_.binaryPort = 0;
  }

  void SetUp() override { start(); }
  void TearDown() override { store_.gate.open(); }

  void start() {
    server_.reset();
    server_.emplace(dispatcher_, options_);
    server_->start();
    http_ = server_->listeners().at(0).port;
    binary_ = server_->listeners().at(1).port;
  }

  static std::string httpAsk(RawClient& client, const Headers& headers,
                             const std::string& body = {}) {
    EXPECT_TRUE(client.send(httpRequest(headers, body)));
    return client.receiveHttp();
  }

  static std::string binaryAsk(RawClient& client, std::size_t replyBytes, const Headers& headers,
                               const std::string& body = {}) {
    EXPECT_TRUE(client.send(binaryRequest(headers, body)));
    return client.receive(replyBytes);
  }

  void expectServing() {
    RawClient client(http_);
    EXPECT_THAT(httpAsk(client, {{"action", "getServerVersion"}}), EndsWith("1.2.3"));
    RawClient other(binary_);
    EXPECT_EQ(binaryAsk(other, 2, {{"action", "getStatus"}}), kSuccess);
  }

  tq::test::TemporaryDirectory directory_;
  // Updates of many steps.
  static StoreLimits limits() {
    StoreLimits limits;
    limits.index.batchChanges = 5;
    return limits;
  }
  TestStore store_;
  Dispatcher dispatcher_{store_, "1.2.3"};
  ServerOptions options_;
  std::optional<Server> server_;
  std::uint16_t http_ = 0;
  std::uint16_t binary_ = 0;
};

const std::string kDocument = documentBlock("k1", {{"title", "About"}}, "the quick fox");

TEST_F(FrontTest, EveryActionOverHttp) {
  RawClient client(http_);
  const auto ask = [&](Headers headers, const std::string& body = {}) {
    headers.try_emplace("index", "c");
    return httpAsk(client, headers, body);
  };
  EXPECT_EQ(ask({{"action", "createCollection"}}), kDone);
  EXPECT_EQ(ask({{"action", "openCollection"}}), kDone);
  EXPECT_EQ(ask({{"action", "addDocument"}}, kDocument), kDone);
  EXPECT_THAT(ask({{"action", "getStatus"}}), EndsWith("1"));
  EXPECT_TRUE(client.send(
      httpRequest({{"action", "asyncAddDocument"}, {"index", "c"}},
                  documentBlock("k2", {{"a", "b"}}, "another fox")) +
      httpRequest({{"action", "asyncAddDocument"}, {"index", "c"}}, test::terminateRecord())));
  EXPECT_THAT(ask({{"action", "getParseResult"}}), HasSubstr("base64:azI="));
  EXPECT_EQ(ask({{"action", "updateIndex"}}), kDone);
  EXPECT_THAT(ask({{"action", "getStatus"}}), EndsWith("0"));
  const std::string streamed =
      ask({{"action", "search"}, {"query", "fox"}, {"mode", "streaming"}, {"scoreWanted", "true"}});
  EXPECT_THAT(streamed, HasSubstr("base64:azI="));
  EXPECT_THAT(streamed, HasSubstr("base64:azE="));
  EXPECT_THAT(streamed, HasSubstr("1.000"));
  EXPECT_EQ(
      ask({{"action", "search"}, {"query", "fox"}, {"mode", "scalar"}, {"scoreWanted", "true"}}),
      streamed);
  EXPECT_THAT(ask({{"action", "selectivity"}, {"query", "fox"}}), HasSubstr("ESTIMATE"));
  EXPECT_EQ(ask({{"action", "deleteDocument"}}, kDocument), kDone);
  EXPECT_THAT(ask({{"action", "search"}, {"query", "quick"}}), Not(HasSubstr("base64:")));
  EXPECT_THAT(ask({{"action", "getServerVersion"}}), EndsWith("1.2.3"));
  EXPECT_EQ(ask({{"action", "closeCollection"}}), kDone);
  EXPECT_EQ(ask({{"action", "deleteCollection"}}), kDone);
  EXPECT_THAT(ask({{"action", "updateIndex"}}), HasSubstr("ZVK0007E"));
  EXPECT_THAT(ask({{"action", "backup"}, {"backup", "b"}}), HasSubstr("ZVK0004E"));
}

TEST_F(FrontTest, EveryActionOverTheBinaryProtocol) {
  RawClient client(binary_);
  const auto ask = [&](std::size_t bytes, Headers headers, const std::string& body = {}) {
    headers.try_emplace("index", "c");
    return binaryAsk(client, bytes, headers, body);
  };
  EXPECT_EQ(ask(2, {{"action", "createCollection"}}), kSuccess);
  EXPECT_EQ(ask(2, {{"action", "openCollection"}}), kSuccess);
  EXPECT_EQ(ask(2, {{"action", "addDocument"}}, kDocument), kSuccess);
  EXPECT_EQ(ask(2, {{"action", "getStatus"}}), std::string("\0\5", 2));
  EXPECT_TRUE(client.send(
      binaryRequest({{"action", "asyncAddDocument"}, {"index", "c"}},
                    documentBlock("k2", {{"a", "b"}}, "")) +
      binaryRequest({{"action", "asyncAddDocument"}, {"index", "c"}}, test::terminateRecord())));
  EXPECT_EQ(ask(26, {{"action", "getParseResult"}}), kSuccess + std::string("\0\1\0\x12\0\3", 6) +
                                                         "Doc" + std::string("\0\xB", 2) +
                                                         "base64:azI=" + kEnd.substr(0, 2));
  EXPECT_EQ(client.receive(2), kEnd.substr(2));
  EXPECT_EQ(ask(2, {{"action", "updateIndex"}}), kSuccess);
  EXPECT_EQ(ask(2, {{"action", "getStatus"}}), kSuccess);
  EXPECT_EQ(
      ask(14,
          {{"action", "search"}, {"query", "fox"}, {"mode", "streaming"}, {"scoreWanted", "true"}}),
      kSuccess + std::string("\0\5\0\4\3\xE8", 6) + "k1" + kEnd);
  EXPECT_EQ(ask(12, {{"action", "search"}, {"query", "fox"}, {"mode", "scalar"}}),
            kSuccess + std::string("\0\1\0\2", 4) + "k1" + kEnd);
  EXPECT_EQ(ask(22, {{"action", "selectivity"}, {"query", "fox"}}),
            kSuccess + std::string("\0\1\0\xC\0\0\0\1\0\0\0\2\0\0\0\1", 16) + kEnd);
  EXPECT_EQ(ask(2, {{"action", "deleteDocument"}}, kDocument), kSuccess);
  EXPECT_EQ(ask(6, {{"action", "search"}, {"query", "fox"}}), kSuccess + kEnd);
  EXPECT_EQ(ask(11, {{"action", "getServerVersion"}}),
            kSuccess + std::string("\0\1\0\5", 4) + "1.2.3");
  EXPECT_EQ(ask(2, {{"action", "closeCollection"}}), kSuccess);
  EXPECT_EQ(ask(2, {{"action", "deleteCollection"}}), kSuccess);
  EXPECT_EQ(ask(2, {{"action", "getStatus"}}), std::string("\0\6", 2));
}

TEST_F(FrontTest, RequestsOfOneSegmentAreServedInOrder) {
  RawClient client(binary_);
  std::string batch = binaryRequest({{"action", "createCollection"}, {"index", "c"}});
  for (int i = 0; i < 200; ++i) {
    batch += binaryRequest({{"action", "asyncAddDocument"}, {"index", "c"}},
                           documentBlock("k" + std::to_string(i), {{"a", "b"}}, "fox"));
  }
  batch += binaryRequest({{"action", "updateIndex"}, {"index", "c"}});
  batch += binaryRequest({{"action", "search"}, {"index", "c"}, {"query", "fox"}, {"size", "1"}});
  batch += binaryRequest({{"action", "getServerVersion"}});
  batch += binaryRequest({{"action", "deleteCollection"}, {"index", "c"}});
  EXPECT_TRUE(client.send(batch));
  EXPECT_EQ(client.receive(2 + 2 + 12 + 11 + 2),
            kSuccess + kSuccess + kSuccess + std::string("\0\1\0\2", 4) + "k0" + kEnd + kSuccess +
                std::string("\0\1\0\5", 4) + "1.2.3" + kSuccess);
}

TEST_F(FrontTest, RequestThatComesByteByByteIsServed) {
  RawClient client(http_);
  for (const char c : httpRequest({{"action", "createCollection"}, {"index", "c"}})) {
    EXPECT_TRUE(client.send(std::string(1, c)));
  }
  EXPECT_EQ(client.receiveHttp(), kDone);
  for (const char c : httpRequest({{"action", "addDocument"}, {"index", "c"}}, kDocument)) {
    EXPECT_TRUE(client.send(std::string(1, c)));
  }
  EXPECT_EQ(client.receiveHttp(), kDone);
}

TEST_F(FrontTest, RefusedRequestLeavesItsConnectionUsable) {
  RawClient client(http_);
  EXPECT_THAT(httpAsk(client, {{"action", "search"}, {"index", "nope"}, {"query", "x"}}),
              HasSubstr("ZVK0007E"));
  EXPECT_THAT(httpAsk(client, {{"action", "addDocument"}, {"index", "nope"}}, "rubbish"),
              HasSubstr("ZVK0012E"));
  EXPECT_THAT(httpAsk(client, {{"action", "a\nb"}}), HasSubstr("ZVK0001E"));
  EXPECT_THAT(httpAsk(client, {{"action", "getServerVersion"}}), EndsWith("1.2.3"));
}

TEST_F(FrontTest, GarbageIsAnsweredWithAnErrorAndTheConnectionEnds) {
  const std::vector<std::string> cases{"Content-Length  : many\n\r\n", std::string(2U << 20U, 'x'),
                                       "Content-Length  : 4294967296\n\r\nstart of it"};
  for (const std::string& garbage : cases) {
    RawClient client(http_);
    client.send(garbage);
    const std::string reply = client.receiveAll();
    EXPECT_THAT(reply, StartsWith("HTTP/1.1 500 "));
    EXPECT_THAT(reply, HasSubstr("ZVK000"));
  }
  for (const std::string& garbage :
       {std::string("\0\0", 2), std::string("\0\5hello", 7), std::string(70000, '\x0F')}) {
    RawClient client(binary_);
    client.send(garbage);
    const std::string reply = client.receiveAll();
    EXPECT_THAT(reply, StartsWith(std::string("\0\6", 2)));
    EXPECT_THAT(reply, HasSubstr("ZVK0001E"));
  }
  expectServing();
}

/// Logs every connection on the network thread that accepts it. The thread of the binary connection
/// waits until the other network thread has logged the HTTP connection. The flags are relaxed: but
/// for them the two threads know nothing of each other meanwhile.
class LoggingOutlets : public OutletFactory {
 public:
  std::unique_ptr<Outlet> make(ClientSocket& socket, Framing framing) override {
    const bool binary = framing == Framing::Binary;
    if (binary) binaryWaits_.store(true, std::memory_order_relaxed);
    const std::atomic<bool>& turn = binary ? httpLogged_ : binaryWaits_;
    while (!turn.load(std::memory_order_relaxed)) std::this_thread::yield();
    spdlog::warn("a connection");
    httpLogged_.store(true, std::memory_order_relaxed);
    return plainOutlet(socket);
  }

 private:
  std::atomic<bool> binaryWaits_ = false;
  std::atomic<bool> httpLogged_ = false;
};

// That one thread uses a log which the other one has just created is seen by the thread sanitizer
// alone; without it this shows that both threads get on.
TEST_F(FrontTest, NetworkThreadsThatLogFirstFindTheLogCreated) {
  options_.outlets = std::make_shared<LoggingOutlets>();
  start();
  RawClient http(http_);
  RawClient binary(binary_);
  EXPECT_THAT(httpAsk(http, {{"action", "getServerVersion"}}), EndsWith("1.2.3"));
  EXPECT_EQ(binaryAsk(binary, 2, {{"action", "getStatus"}}), kSuccess);
}

TEST_F(FrontTest, FourGigabytesThatAreOnlyAnnouncedAreRefusedInBothProtocols) {
  const Headers headers{{"action", "addDocument"}, {"Content-Length  ", "4294967295"}};
  RawClient http(http_);
  http.send(httpRequest(headers));
  EXPECT_THAT(http.receiveAll(), HasSubstr("ZVK0002E"));
  RawClient binary(binary_);
  binary.send(binaryRequest(headers));
  EXPECT_THAT(binary.receiveAll(), HasSubstr("ZVK0002E"));
  expectServing();
}

TEST_F(FrontTest, HttpRequestOfABrowserIsAnsweredWithAnError) {
  RawClient client(http_);
  EXPECT_TRUE(client.send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"));
  EXPECT_THAT(client.receiveHttp(), HasSubstr("ZVK0001E"));
}

TEST_F(FrontTest, RepliesBeforeGarbageStillArrive) {
  RawClient client(binary_);
  client.send(binaryRequest({{"action", "getStatus"}}) + std::string("\0\0", 2));
  const std::string reply = client.receiveAll();
  EXPECT_THAT(reply, StartsWith(kSuccess + std::string("\0\6", 2)));
}

TEST_F(FrontTest, ClientThatEndsItsSideStillGetsItsReplies) {
  RawClient client(binary_);
  client.send(binaryRequest({{"action", "getStatus"}}) +
              binaryRequest({{"action", "getServerVersion"}}) + "half a request");
  client.endSending();
  EXPECT_EQ(client.receiveAll(), kSuccess + kSuccess + std::string("\0\1\0\5", 4) + "1.2.3");
}

TEST_F(FrontTest, ClientsThatVanishAtAnyMomentDoNoHarm) {
  const std::string request = httpRequest(
      {{"action", "search"}, {"index", "many"}, {"query", "100000"}, {"mode", "streaming"}});
  for (std::size_t length = 0; length <= request.size(); length += 5) {
    RawClient client(http_);
    client.send(request.substr(0, length));
    if (length % 2 == 0) client.reset();
  }
  RawClient client(http_);
  client.send(request);
  EXPECT_EQ(client.receive(100).size(), 100U);
  client.reset();
  expectServing();
}

TEST_F(FrontTest, SlowReadersHoldUpNobody) {
  options_.stopTimeout = std::chrono::milliseconds(100);
  start();
  std::vector<RawClient> slow;
  // More than the server has threads. Each costs the time to fill its socket's buffer.
  for (int i = 0; i < 20; ++i) {
    slow.emplace_back(i % 2 == 0 ? http_ : binary_, 4096);
    const Headers headers{
        {"action", "search"}, {"index", "many"}, {"query", "1000000"}, {"mode", "streaming"}};
    slow.back().send(i % 2 == 0 ? httpRequest(headers) : binaryRequest(headers));
  }
  for (int i = 0; i < 20; ++i) expectServing();
  EXPECT_EQ(slow[1].receive(2), kSuccess);
  server_->stop();
}

TEST_F(FrontTest, LongResultArrivesWholeAtAReaderThatTakesItsTime) {
  RawClient client(binary_, 4096);
  client.send(binaryRequest({{"action", "search"}, {"index", "many"}, {"query", "100000"}}));
  EXPECT_EQ(client.receive(2), kSuccess);
  const std::string envelope = std::string("\0\1\0\x14", 4) + "a key of some length";
  for (int i = 0; i < 100000; ++i) ASSERT_EQ(client.receive(envelope.size()), envelope) << i;
  EXPECT_EQ(client.receive(4), kEnd);
}

TEST_F(FrontTest, ClientThatSendsWithoutReadingIsHeldBack) {
  RawClient client(binary_, 4096);
  const std::string request =
      binaryRequest({{"action", "search"}, {"index", "many"}, {"query", "1000"}});
  std::string batch;
  while (batch.size() < (1U << 20U)) batch += request;
  client.send(request);
  EXPECT_EQ(client.receive(2), kSuccess);
  // The kernel's buffers on both sides and a megabyte or so in the server, however much is offered.
  std::size_t taken = 0;
  for (int refusals = 0; refusals < 50 && taken < (256U << 20U);) {
    const std::size_t part = client.sendSome(batch);
    taken += part;
    if (part > 0) continue;
    expectServing();
    ++refusals;
  }
  EXPECT_LT(taken, 64U << 20U);
}

TEST_F(FrontTest, UpdatesThatTakeTimeHoldUpNeitherSearchesNorDocuments) {
  RawClient setup(http_);
  EXPECT_EQ(httpAsk(setup, {{"action", "createCollection"}, {"index", "c"}}), kDone);
  std::vector<RawClient> updating;
  for (int i = 0; i < 20; ++i) {
    updating.emplace_back(http_);
    updating.back().send(httpRequest({{"action", "updateIndex"}, {"index", "held"}}));
  }
  store_.gate.awaitWaiting(2);
  EXPECT_EQ(httpAsk(setup, {{"action", "addDocument"}, {"index", "c"}}, kDocument), kDone);
  EXPECT_THAT(httpAsk(setup, {{"action", "search"}, {"index", "c"}, {"query", "x"}}),
              StartsWith(kDone));
  store_.gate.open();
  for (RawClient& client : updating) EXPECT_EQ(client.receiveHttp(), kDone);
}

// What they look up takes long where there are many keys.
TEST_F(FrontTest, ChangesThatLookKeysUpHoldUpNoOthers) {
  RawClient setup(http_);
  for (const char* name : {"c", "held"}) {
    EXPECT_EQ(httpAsk(setup, {{"action", "createCollection"}, {"index", name}}), kDone);
  }
  const std::string none = documentBlock("any", {}, test::terminateRecord());
  const std::string key = documentBlock("k1", {}, {});
  std::vector<RawClient> http;
  std::vector<RawClient> binary;
  for (unsigned i = 0; i < options_.writeThreads; ++i) {
    http.emplace_back(http_);
    http.back().send(httpRequest(
        {{"action", "addDocument"}, {"index", "held"}, {"batch", "b" + std::to_string(i)}}, none));
    binary.emplace_back(binary_);
    binary.back().send(binaryRequest(
        {{"action", "deleteDocument"}, {"index", "held"}, {"mustExist", "true"}}, key));
  }
  store_.gate.awaitWaiting(static_cast<int>(options_.lookUpThreads / 2));
  EXPECT_EQ(httpAsk(setup, {{"action", "addDocument"}, {"index", "c"}}, kDocument), kDone);
  EXPECT_EQ(httpAsk(setup, {{"action", "deleteDocument"}, {"index", "c"}}, key), kDone);
  store_.gate.open();
  for (RawClient& client : http) EXPECT_THAT(client.receiveHttp(), StartsWith(kDone));
  for (RawClient& client : binary) EXPECT_EQ(client.receive(2), kSuccess);
}

TEST_F(FrontTest, BatchesThatAreStuckInFourCollectionsHoldUpNoneOfAnother) {
  RawClient setup(http_);
  const std::vector<std::string> held{"held", "held2", "held3", "held4"};
  EXPECT_EQ(httpAsk(setup, {{"action", "createCollection"}, {"index", "c"}}), kDone);
  for (const std::string& name : held) {
    EXPECT_EQ(httpAsk(setup, {{"action", "createCollection"}, {"index", name}}), kDone);
  }
  const std::string none = documentBlock("any", {}, test::terminateRecord());
  const auto batch = [](const std::string& collection, unsigned number) {
    return Headers{
        {"action", "addDocument"}, {"index", collection}, {"batch", "b" + std::to_string(number)}};
  };
  std::vector<RawClient> stuck;
  // The first one takes all that it gets before the next ones come.
  int waiting = static_cast<int>(options_.lookUpThreads / 2);
  for (const std::string& name : held) {
    for (unsigned i = 0; i < 2 * options_.lookUpThreads; ++i) {
      stuck.emplace_back(http_);
      stuck.back().send(httpRequest(batch(name, i), none));
    }
    store_.gate.awaitWaiting(waiting++);
  }
  for (unsigned i = 0; i < 3; ++i)
    EXPECT_THAT(httpAsk(setup, batch("c", i), none), StartsWith(kDone));
  const Headers deletion{{"action", "deleteDocument"}, {"index", "c"}, {"mustExist", "true"}};
  EXPECT_THAT(httpAsk(setup, deletion, documentBlock("k1", {}, {})), HasSubstr("ZVK0034E"));
  store_.gate.open();
  for (RawClient& client : stuck) EXPECT_THAT(client.receiveHttp(), StartsWith(kDone));
}

TEST_F(FrontTest, ChangesAreSearchableWhenAcknowledgedWhereThatIsWanted) {
  RawClient http(http_);
  EXPECT_THAT(httpAsk(http, {{"action", "createCollection"}, {"index", "h"}, {"refresh", "soon"}}),
              AllOf(HasSubstr("ZVK0006E"), HasSubstr("refresh")));
  const auto create = [](const char* name) {
    return Headers{{"action", "createCollection"}, {"index", name}, {"refresh", "immediate"}};
  };
  EXPECT_EQ(httpAsk(http, create("h")), kDone);
  EXPECT_EQ(httpAsk(http, {{"action", "addDocument"}, {"index", "h"}}, kDocument), kDone);
  EXPECT_THAT(httpAsk(http, {{"action", "getStatus"}, {"index", "h"}}), EndsWith("0"));
  RawClient binary(binary_);
  EXPECT_EQ(binaryAsk(binary, 2, create("b")), kSuccess);
  const Headers add{{"action", "addDocument"}, {"index", "b"}};
  EXPECT_EQ(binaryAsk(binary, 2, add, documentBlock("k", {}, "fox")), kSuccess);
  const Headers search{{"action", "search"}, {"index", "b"}, {"query", "fox"}};
  // The key, and the end.
  EXPECT_EQ(binaryAsk(binary, 11, search), kSuccess + std::string("\0\1\0\1k", 5) + kEnd);
  // More clients than workers share the same few transactions.
  std::vector<RawClient> clients;
  for (int i = 0; i < 40; ++i) {
    clients.emplace_back(binary_);
    clients.back().send(binaryRequest(add, documentBlock("k" + std::to_string(i), {}, "hound")));
  }
  for (RawClient& client : clients) EXPECT_EQ(client.receive(2), kSuccess);
  EXPECT_THAT(httpAsk(http, {{"action", "selectivity"}, {"index", "b"}, {"query", "hound"}}),
              HasSubstr("40"));
}

TEST_F(FrontTest, DeletionsThatWaitTakeNoWorkerFromUpdates) {
  RawClient setup(http_);
  for (const char* name : {"c", "d"}) {
    EXPECT_EQ(httpAsk(setup, {{"action", "createCollection"}, {"index", name}}), kDone);
  }
  std::vector<RawClient> deleting;
  for (unsigned i = 0; i < options_.indexThreads; ++i) {
    deleting.emplace_back(http_);
    deleting.back().send(httpRequest({{"action", "deleteCollection"}, {"index", "held"}}));
  }
  store_.gate.awaitWaiting(static_cast<int>(options_.indexThreads));
  EXPECT_EQ(httpAsk(setup, {{"action", "addDocument"}, {"index", "c"}}, kDocument), kDone);
  EXPECT_EQ(httpAsk(setup, {{"action", "updateIndex"}, {"index", "c"}}), kDone);
  EXPECT_EQ(httpAsk(setup, {{"action", "deleteCollection"}, {"index", "d"}}), kDone);
  store_.gate.open();
  for (RawClient& client : deleting) EXPECT_EQ(client.receiveHttp(), kDone);
}

class BackupFrontTest : public FrontTest {
 protected:
  BackupFrontTest() : FrontTest(true) {}
};

TEST_F(BackupFrontTest, BackupsThatWaitForEachOtherTakeNoWorker) {
  RawClient setup(http_);
  for (const char* name : {"c", "slow"}) {
    EXPECT_EQ(httpAsk(setup, {{"action", "createCollection"}, {"index", name}}), kDone);
  }
  test::SlowCollection slow(directory_.path() / "data/collections/slow");
  RawClient first(http_);
  first.send(httpRequest({{"action", "backup"}, {"backup", "b"}, {"index", "slow"}}));
  ASSERT_TRUE(slow.awaitOpening([&] { return store_.isOpen("slow"); }));
  std::vector<RawClient> others;
  for (int i = 0; i < 12; ++i) {
    others.emplace_back(http_);
    const std::string name = "b" + std::to_string(i);
    others.back().send(httpRequest({{"action", "backup"}, {"backup", name}, {"index", "c"}}));
  }
  expectServing();
  EXPECT_EQ(httpAsk(setup, {{"action", "addDocument"}, {"index", "c"}}, kDocument), kDone);
  EXPECT_EQ(httpAsk(setup, {{"action", "updateIndex"}, {"index", "c"}}), kDone);
  slow.fail();
  EXPECT_THAT(first.receiveHttp(), HasSubstr("ZVK0014E"));
  for (RawClient& client : others) EXPECT_EQ(client.receiveHttp(), kDone);
}

TEST_F(FrontTest, UpdatesThatAreAwaitedTakeNoWorkerFromTheOthers) {
  RawClient setup(http_);
  for (const char* name : {"c", "large"}) {
    EXPECT_EQ(httpAsk(setup, {{"action", "createCollection"}, {"index", name}}), kDone);
  }
  const auto addToLarge = [&](int from, int to) {
    std::string documents;
    for (int i = from; i < to; ++i) {
      documents += httpRequest({{"action", "asyncAddDocument"}, {"index", "large"}},
                               documentBlock("k" + std::to_string(i), {}, "fox"));
    }
    EXPECT_TRUE(setup.send(documents));
    EXPECT_THAT(httpAsk(setup, {{"action", "getParseResult"}, {"index", "large"}}),
                StartsWith(kDone));
  };
  addToLarge(0, HeldCommits::kDocuments);
  EXPECT_EQ(httpAsk(setup, {{"action", "updateIndex"}, {"index", "large"}}), kDone);
  addToLarge(HeldCommits::kDocuments, 3000);
  const HeldCommits held(store_, "large");
  std::vector<RawClient> http;
  std::vector<RawClient> binary;
  const Headers update{{"action", "updateIndex"}, {"index", "large"}};
  for (int i = 0; i < 20; ++i) {
    http.emplace_back(http_);
    http.back().send(httpRequest(update));
    binary.emplace_back(binary_);
    binary.back().send(binaryRequest(update));
  }
  EXPECT_EQ(httpAsk(setup, {{"action", "addDocument"}, {"index", "c"}}, kDocument), kDone);
  EXPECT_EQ(httpAsk(setup, {{"action", "updateIndex"}, {"index", "c"}}), kDone);
  EXPECT_THAT(httpAsk(setup, {{"action", "getStatus"}, {"index", "large"}}), EndsWith("1"));
  // A stop ends what takes long, and whoever waits for it is told.
  store_.stop();
  for (RawClient& client : http) {
    EXPECT_THAT(client.receiveHttp(), HasSubstr("the server is stopping"));
  }
  for (RawClient& client : binary) EXPECT_EQ(client.receive(2), std::string("\0\6", 2));
}

TEST_F(FrontTest, OpeningOneCollectionTakesNoWorkerFromTheOthers) {
  RawClient setup(http_);
  for (const char* name : {"c", "slow"}) {
    EXPECT_EQ(httpAsk(setup, {{"action", "createCollection"}, {"index", name}}), kDone);
  }
  test::SlowCollection slow(directory_.path() / "data/collections/slow");
  const int callsBefore = store_.openCalls;
  const std::vector<std::string> actions{"search", "addDocument", "getStatus", "updateIndex",
                                         "openCollection"};
  std::vector<RawClient> http;
  std::vector<RawClient> binary;
  for (int round = 0; round < 12; ++round) {
    for (const std::string& action : actions) {
      Headers headers{{"action", action}, {"index", "slow"}};
      if (action == "search") headers.emplace("query", "x");
      const std::string body = action == "addDocument" ? kDocument : "";
      http.emplace_back(http_);
      http.back().send(httpRequest(headers, body));
      binary.emplace_back(binary_);
      binary.back().send(binaryRequest(headers, body));
    }
  }
  ASSERT_TRUE(slow.awaitOpening([&] { return store_.isOpen("slow"); }));
  // Whoever came after the failure would open it anew.
  store_.awaitOpenCalls(callsBefore + static_cast<int>(http.size() + binary.size()));
  expectServing();
  EXPECT_EQ(httpAsk(setup, {{"action", "addDocument"}, {"index", "c"}}, kDocument), kDone);
  EXPECT_EQ(httpAsk(setup, {{"action", "updateIndex"}, {"index", "c"}}), kDone);
  EXPECT_THAT(httpAsk(setup, {{"action", "search"}, {"index", "c"}, {"query", "x"}}),
              StartsWith(kDone));
  EXPECT_THAT(httpAsk(setup, {{"action", "getStatus"}, {"index", "c"}}), EndsWith("0"));
  slow.fail();
  for (std::size_t i = 0; i < http.size(); ++i) {
    const bool isStatus = actions[i % actions.size()] == "getStatus";
    const std::string reply = http[i].receiveHttp();
    if (isStatus) {
      EXPECT_THAT(reply, EndsWith("2"));
    } else {
      EXPECT_THAT(reply, HasSubstr("ZVK0014E"));
    }
    EXPECT_EQ(binary[i].receive(2), std::string("\0\6", 2));
  }
  EXPECT_EQ(httpAsk(setup, {{"action", "updateIndex"}, {"index", "slow"}}), kDone);
}

// Smaller ones must not wait for them.
TEST_F(FrontTest, CollectionsThatTakeLongToOpenHoldUpNoneThatTakesLittle) {
  const std::filesystem::path collections = directory_.path() / "data/collections";
  RawClient setup(http_);
  std::vector<std::unique_ptr<test::SlowCollection>> slow;
  std::vector<RawClient> clients;
  for (const char* name : {"s1", "s2", "s3"}) {
    EXPECT_EQ(httpAsk(setup, {{"action", "createCollection"}, {"index", name}}), kDone);
    slow.push_back(std::make_unique<test::SlowCollection>(collections / name));
    clients.emplace_back(http_);
    clients.back().send(httpRequest({{"action", "openCollection"}, {"index", name}}));
    // The third waits until the others are open. Sent with them it might be served before one.
    if (slow.size() < 3) {
      ASSERT_TRUE(slow.back()->awaitOpening([&] { return store_.isOpen(name); }));
    }
  }
  EXPECT_EQ(httpAsk(setup, {{"action", "createCollection"}, {"index", "c"}}), kDone);
  EXPECT_EQ(httpAsk(setup, {{"action", "closeCollection"}, {"index", "c"}}), kDone);
  std::ofstream(collections / "c" / "note").flush();
  std::filesystem::resize_file(collections / "c" / "note", std::size_t{5} << 20U);
  EXPECT_EQ(httpAsk(setup, {{"action", "addDocument"}, {"index", "c"}}, kDocument), kDone);
  for (const auto& each : slow) each->fail();
  for (RawClient& client : clients) {
    EXPECT_THAT(client.receiveHttp(), AnyOf(kDone, HasSubstr("ZVK0014E")));
  }
}

TEST_F(FrontTest, WhoeverMakesDropsOrClosesACollectionThatIsBeingOpenedTakesNoWorker) {
  RawClient setup(http_);
  const std::filesystem::path collections = directory_.path() / "data/collections";
  const std::vector<std::string> actions{"createCollection", "deleteCollection", "closeCollection"};
  for (const std::string& name : actions) {
    EXPECT_EQ(httpAsk(setup, {{"action", "createCollection"}, {"index", name}}), kDone);
  }
  EXPECT_EQ(httpAsk(setup, {{"action", "createCollection"}, {"index", "c"}}), kDone);
  for (const std::string& action : actions) {
    test::SlowCollection slow(collections / action);
    RawClient opening(http_);
    opening.send(httpRequest({{"action", "openCollection"}, {"index", action}}));
    ASSERT_TRUE(slow.awaitOpening([&] { return store_.isOpen(action); }));
    std::vector<RawClient> clients;
    for (int i = 0; i < 12; ++i) {
      clients.emplace_back(http_);
      clients.back().send(httpRequest({{"action", action}, {"index", action}}));
    }
    expectServing();
    EXPECT_EQ(httpAsk(setup, {{"action", "addDocument"}, {"index", "c"}}, kDocument), kDone);
    EXPECT_EQ(httpAsk(setup, {{"action", "updateIndex"}, {"index", "c"}}), kDone);
    slow.fail();
    EXPECT_THAT(opening.receiveHttp(), HasSubstr("ZVK0014E"));
    std::multiset<std::string> replies;
    for (RawClient& client : clients) {
      const std::string reply = client.receiveHttp();
      const std::size_t id = reply.find("ZVK");
      replies.insert(id == std::string::npos ? "done" : reply.substr(id, 8));
    }
    const bool drops = action == "deleteCollection";
    EXPECT_EQ(replies.count("done"), drops ? 1U : action == "closeCollection" ? 12U : 0U);
    EXPECT_EQ(replies.count("ZVK0007E"), drops ? 11U : 0U);
    EXPECT_EQ(replies.count("ZVK0008E"), action == "createCollection" ? 12U : 0U);
  }
}

TEST_F(FrontTest, QueuedDocumentOfACollectionThatCannotBeOpenedIsAmongTheOutcomes) {
  RawClient client(http_);
  EXPECT_EQ(httpAsk(client, {{"action", "createCollection"}, {"index", "slow"}}), kDone);
  test::SlowCollection slow(directory_.path() / "data/collections/slow");
  client.send(httpRequest({{"action", "asyncAddDocument"}, {"index", "slow"}}, kDocument));
  ASSERT_TRUE(slow.awaitOpening([&] { return store_.isOpen("slow"); }));
  slow.fail();
  const std::string outcomes = httpAsk(client, {{"action", "getParseResult"}, {"index", "slow"}});
  EXPECT_THAT(outcomes, AllOf(StartsWith(kDone), HasSubstr("ZVK0014E")));
}

TEST_F(FrontTest, ReportsThatOpenCollectionsTakeNoWorkerFromSearches) {
  RawClient setup(http_);
  for (const char* name : {"c", "slow"}) {
    EXPECT_EQ(httpAsk(setup, {{"action", "createCollection"}, {"index", name}}), kDone);
  }
  test::SlowCollection slow(directory_.path() / "data/collections/slow");
  std::vector<RawClient> clients;
  for (unsigned i = 0; i < options_.readThreads * 2; ++i) {
    clients.emplace_back(http_);
    clients.back().send(httpRequest({{"action", "getParseResult"}, {"report", "collections"}}));
  }
  ASSERT_TRUE(slow.awaitOpening([&] { return store_.isOpen("slow"); }));
  expectServing();
  EXPECT_THAT(httpAsk(setup, {{"action", "search"}, {"index", "c"}, {"query", "x"}}),
              StartsWith(kDone));
  slow.fail();
  for (RawClient& client : clients) EXPECT_THAT(client.receiveHttp(), HasSubstr("ZVK0101I"));
}

TEST_F(FrontTest, StatusIsAnsweredWhileEverySearchThreadIsBusy) {
  std::vector<RawClient> searching;
  for (unsigned i = 0; i < options_.readThreads * 3; ++i) {
    searching.emplace_back(http_);
    searching.back().send(httpRequest({{"action", "search"}, {"index", "held"}, {"query", "x"}}));
  }
  store_.gate.awaitWaiting(static_cast<int>(options_.readThreads));
  expectServing();
  RawClient client(http_);
  EXPECT_THAT(httpAsk(client, {{"action", "getStatus"}}), EndsWith("0"));
  store_.gate.open();
  for (RawClient& each : searching) EXPECT_THAT(each.receiveHttp(), StartsWith(kDone));
}

TEST_F(FrontTest, SearchesOfClientsThatHaveGoneStop) {
  options_.hangupGrace = std::chrono::milliseconds(1);
  options_.searchTimeout = std::chrono::milliseconds(0);
  start();
  const Headers headers{{"action", "search"}, {"index", "endless"}, {"query", "x"}};
  for (const bool abrupt : {false, true}) {
    std::vector<RawClient> clients;
    for (unsigned i = 0; i < options_.readThreads * 2; ++i) {
      clients.emplace_back(i % 2 == 0 ? http_ : binary_);
      clients.back().send(i % 2 == 0 ? httpRequest(headers) : binaryRequest(headers));
    }
    while (store_.searching < static_cast<int>(options_.readThreads)) std::this_thread::yield();
    if (abrupt) {
      for (RawClient& client : clients) client.reset();
    }
    clients.clear();
    // Whoever asks next gets a thread again.
    RawClient client(http_);
    EXPECT_THAT(httpAsk(client, {{"action", "search"}, {"index", "many"}, {"query", "0"}}),
                StartsWith(kDone));
  }
  while (store_.searching > 0) std::this_thread::yield();
}

TEST_F(FrontTest, SearchOfAClientThatSendsAheadStopsWhenTheClientIsReset) {
  options_.searchTimeout = std::chrono::milliseconds(0);
  start();
  RawClient client(http_);
  client.send(httpRequest({{"action", "search"}, {"index", "endless"}, {"query", "x"}}) +
              httpRequest({{"action", "getStatus"}}));
  while (store_.searching == 0) std::this_thread::yield();
  client.reset();
  while (store_.searching > 0) std::this_thread::yield();
  expectServing();
}

TEST_F(FrontTest, SearchThatTakesTooLongIsRefusedAndItsConnectionGoesOn) {
  options_.searchTimeout = std::chrono::milliseconds(20);
  start();
  {
    const Headers headers{{"action", "search"}, {"index", "endless"}, {"query", "x"}};
    RawClient http(http_);
    EXPECT_THAT(httpAsk(http, headers),
                AllOf(HasSubstr("ZVK0021E"), HasSubstr("--search-timeout")));
    EXPECT_THAT(httpAsk(http, {{"action", "getServerVersion"}}), EndsWith("1.2.3"));
    RawClient binary(binary_);
    EXPECT_EQ(binaryAsk(binary, 2, headers), std::string("\0\6", 2));
  }
}

TEST_F(FrontTest, SearchThatLooksAtTooMuchIsRefused) {
  options_.searchCost = 1000;
  options_.searchTimeout = std::chrono::milliseconds(0);
  start();
  RawClient client(http_);
  EXPECT_THAT(httpAsk(client, {{"action", "search"}, {"index", "endless"}, {"query", "x"}}),
              AllOf(HasSubstr("ZVK0011E"), HasSubstr("--max-search-cost")));
}

TEST_F(FrontTest, RequestMustBeCompleteInTime) {
  options_.requestTimeout = std::chrono::milliseconds(50);
  start();
  RawClient http(http_);
  http.send("Content-Length  : 10\naction: addDocument\n\r\n12345");
  EXPECT_THAT(http.receiveAll(), AllOf(HasSubstr("ZVK0021E"), HasSubstr("--request-timeout")));
  RawClient binary(binary_);
  binary.send(std::string("\0\5act", 5));
  EXPECT_THAT(binary.receiveAll(), HasSubstr("ZVK0021E"));
  RawClient idle(http_);
  EXPECT_THAT(httpAsk(idle, {{"action", "getServerVersion"}}), EndsWith("1.2.3"));
}

TEST_F(FrontTest, AcceptedConnectionsAreKeptAlive) {
  RawClient client(http_);
  EXPECT_THAT(httpAsk(client, {{"action", "getServerVersion"}}), EndsWith("1.2.3"));
  const std::string local = fmt::format(":{:04X} ", http_);
  const auto timer = [&] {
    std::ifstream table("/proc/net/tcp");
    for (std::string line; std::getline(table, line);) {
      const std::size_t at = line.find(local);
      // The local address comes first; 01 is an established connection.
      if (at == std::string::npos || at > 20 || line.substr(at + 20, 2) != "01") continue;
      // After the state the two queues, of eight digits each.
      return line.substr(at + 41, 2);
    }
    return std::string();
  };
  // Until the reply has been acknowledged: 01 is the timer that sends it again.
  while (timer() == "01") std::this_thread::yield();
  EXPECT_EQ(timer(), "02") << "the timer of a keepalive";
}

TEST_F(FrontTest, ThousandsOfConnectionsAreServed) {
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  ASSERT_GE(limit.rlim_cur, 4200U) << "both ends of each connection are in this process";
  std::vector<RawClient> clients;
  for (int i = 0; i < 2000; ++i) clients.emplace_back(i % 2 == 0 ? http_ : binary_);
  for (std::size_t i = 0; i < clients.size(); ++i) {
    const Headers headers{{"action", "getServerVersion"}};
    EXPECT_TRUE(clients[i].send(i % 2 == 0 ? httpRequest(headers) : binaryRequest(headers)));
  }
  for (std::size_t i = 0; i < clients.size(); ++i) {
    if (i % 2 == 0) {
      EXPECT_THAT(clients[i].receiveHttp(), EndsWith("1.2.3"));
    } else {
      EXPECT_THAT(clients[i].receive(11), EndsWith("1.2.3"));
    }
  }
}

TEST_F(FrontTest, StopEndsIdleConnectionsAndFinishesWhatIsBeingServed) {
  options_.stopTimeout = std::chrono::minutes(5);
  start();
  RawClient idle(http_);
  EXPECT_THAT(httpAsk(idle, {{"action", "getServerVersion"}}), EndsWith("1.2.3"));
  RawClient half(http_);
  half.send("action: sea");
  RawClient busy(http_);
  busy.send(httpRequest({{"action", "updateIndex"}, {"index", "held"}}));
  store_.gate.awaitWaiting(1);
  std::thread stopper([&] { server_->stop(); });
  EXPECT_TRUE(idle.ended());
  EXPECT_TRUE(half.ended());
  store_.gate.open();
  EXPECT_EQ(busy.receiveHttp(), kDone);
  EXPECT_TRUE(busy.ended());
  stopper.join();
  EXPECT_THROW(RawClient{http_}, std::runtime_error);
}

class ImpatientFrontTest : public FrontTest {
 protected:
  ImpatientFrontTest() {
    options_.stallTimeout = std::chrono::milliseconds(50);
    options_.stopTimeout = std::chrono::milliseconds(50);
    options_.connections = 20;
    options_.limits.contentBytes = 1000;
  }

  /// Whether the server takes one more connection.
  bool hasPlace() const {
    RawClient client(binary_);
    client.send(binaryRequest({{"action", "getStatus"}}));
    return client.receive(2) == kSuccess;
  }
};

TEST_F(ImpatientFrontTest, ClientThatStallsInsideARequestIsCutOff) {
  RawClient client(http_);
  client.send("action: search");
  EXPECT_TRUE(client.ended());
  RawClient other(binary_);
  other.send(std::string("\0", 1));
  EXPECT_TRUE(other.ended());
}

TEST_F(ImpatientFrontTest, ClientThatStallsInsideAReplyIsCutOffWithoutAnEndMark) {
  options_.connections = 1;
  start();
  RawClient client(binary_);
  client.send(binaryRequest({{"action", "search"}, {"index", "many"}, {"query", "10000000"}}));
  EXPECT_EQ(client.receive(2), kSuccess);
  // Nothing more is read until the server has given up and with it the only place. Reading any
  // earlier would set its clock back.
  while (!hasPlace()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  const std::string rest = client.receiveAll();
  EXPECT_LT(rest.size(), 10000000U * 24);
  EXPECT_THAT(rest, Not(EndsWith(kEnd)));
}

TEST_F(ImpatientFrontTest, IdleClientIsNotCutOff) {
  RawClient idle(http_);
  RawClient witness(http_);
  witness.send("action: search");
  EXPECT_TRUE(witness.ended());
  EXPECT_THAT(httpAsk(idle, {{"action", "getServerVersion"}}), EndsWith("1.2.3"));
}

TEST_F(ImpatientFrontTest, ConnectionsBeyondTheLimitAreEndedAndTheOthersServed) {
  options_.stallTimeout = std::chrono::minutes(5);
  start();
  std::vector<RawClient> clients;
  for (int i = 0; i < 20; ++i) {
    clients.emplace_back(http_);
    EXPECT_THAT(httpAsk(clients.back(), {{"action", "getServerVersion"}}), EndsWith("1.2.3"));
  }
  RawClient http(http_);
  EXPECT_THAT(http.receiveAll(), AllOf(HasSubstr("ZVK0016E"), HasSubstr("20 connections")));
  RawClient binary(binary_);
  EXPECT_THAT(binary.receiveAll(),
              AllOf(StartsWith(std::string("\0\6", 2)), HasSubstr("ZVK0016E")));
  EXPECT_THAT(httpAsk(clients.front(), {{"action", "getServerVersion"}}), EndsWith("1.2.3"));
}

TEST_F(ImpatientFrontTest, StopDoesNotWaitForReadersThatTakeNothing) {
  RawClient client(binary_, 4096);
  client.send(binaryRequest({{"action", "search"}, {"index", "many"}, {"query", "100000000"}}));
  EXPECT_EQ(client.receive(2), kSuccess);
  server_->stop();
}

TEST_F(ImpatientFrontTest, ContentBeyondTheLimitIsRefusedBeforeItArrives) {
  RawClient client(http_);
  client.send("Content-Length  : 1001\n\r\n");
  EXPECT_THAT(client.receiveAll(), HasSubstr("ZVK0002E"));
}

// Some are refused by the network's thread, and some by a worker.
TEST_F(ImpatientFrontTest, RequestsThatCannotBeDecodedAreCountedAndLogged) {
  server_.reset();
  const test::LogLines log;
  spdlog::default_logger()->set_level(spdlog::level::debug);
  options_.stallTimeout = std::chrono::minutes(5);
  start();
  std::string lines;
  for (int i = 0; i < 1001; ++i) lines += "a: b\n";
  const auto ask = [&](const std::string& bytes) {
    RawClient client(http_);
    client.send(bytes);
    return client.receiveAll();
  };
  EXPECT_THAT(ask("Content-Length  : 100000000\naction: asyncAddDocument\n\r\n"),
              HasSubstr("ZVK0002E"));
  EXPECT_THAT(ask(lines + "\r\n"), HasSubstr("ZVK0002E"));
  EXPECT_THAT(ask("a: " + std::string(70000, 'y')), HasSubstr("ZVK0002E"));
  EXPECT_THAT(ask("Content-Length  : many\n\r\n"), HasSubstr("ZVK0001E"));
  options_.requestTimeout = std::chrono::milliseconds(50);
  start();
  EXPECT_THAT(ask("action: get"), HasSubstr("ZVK0021E"));
  server_.reset();
  const std::string metrics = dispatcher_.metrics().text();
  const std::string name = "corvaned_requests_total{action=\"unknown\",error=\"";
  EXPECT_THAT(metrics,
              AllOf(HasSubstr(name + "ZVK0001E\"} 1\n"), HasSubstr(name + "ZVK0002E\"} 3\n"),
                    HasSubstr(name + "ZVK0021E\"} 1\n")));
  EXPECT_EQ(log.with("debug refused: ").size(), 5U);
}

TEST_F(ImpatientFrontTest, ClientsThatAreTurnedAwayAreNoRequests) {
  options_.stallTimeout = std::chrono::minutes(5);
  options_.connections = 1;
  start();
  RawClient client(http_);
  EXPECT_THAT(httpAsk(client, {{"action", "getServerVersion"}}), EndsWith("1.2.3"));
  EXPECT_THAT(RawClient(http_).receiveAll(), HasSubstr("ZVK0016E"));
  EXPECT_THAT(dispatcher_.metrics().text(), Not(HasSubstr("ZVK0016E")));
}

/// A request needs four times the memory that its content has, and large ones share 7 MiB.
class FrugalFrontTest : public FrontTest {
 protected:
  FrugalFrontTest() {
    options_.memory = memory_;
    options_.memoryTimeout = std::chrono::milliseconds(50);
  }

  static std::string announced(std::size_t bytes) {
    return "Content-Length  : " + std::to_string(bytes) +
           "\naction: addDocument\nindex: nope\n\r\n";
  }

  /// Returns once a request that is being received has its memory.
  void awaitUse(std::size_t bytes) const {
    while (memory_->used() < bytes) std::this_thread::yield();
  }

  /// Of the documents in the collection "c".
  static void setCharset(RawClient& client, const std::string& charset) {
    EXPECT_EQ(
        httpAsk(client,
                {{"action", "setConstructorConfiguration"}, {"index", "c"}, {"charset", charset}}),
        kDone);
  }

  static constexpr std::size_t kMiB = std::size_t{1} << 20U;
  std::shared_ptr<MemoryBudget> memory_ = std::make_shared<MemoryBudget>(8 * kMiB);
};

TEST_F(FrugalFrontTest, RequestThatCanNeverFitIsRefusedAndItsConnectionGoesOn) {
  const Headers headers{{"action", "addDocument"}, {"index", "nope"}};
  RawClient http(http_);
  EXPECT_THAT(httpAsk(http, headers, std::string(2 * kMiB, 'x')),
              AllOf(HasSubstr("ZVK0002E"), HasSubstr("--max-memory")));
  EXPECT_THAT(httpAsk(http, {{"action", "getServerVersion"}}), EndsWith("1.2.3"));
  RawClient binary(binary_);
  EXPECT_EQ(binaryAsk(binary, 2, headers, std::string(2 * kMiB, 'x')), std::string("\0\6", 2));
  const std::string length = binary.receive(2);
  EXPECT_THAT(binary.receive(static_cast<unsigned char>(length[0]) * 256U +
                             static_cast<unsigned char>(length[1])),
              AllOf(HasSubstr("ZVK0002E"), HasSubstr("--max-memory")));
  EXPECT_EQ(binaryAsk(binary, 2, {{"action", "getStatus"}}), kSuccess);
}

// The reader of XML takes memory for names, in whatever charset they come.
TEST_F(FrugalFrontTest, DocumentNeedsTheMemoryThatItsFormMayTake) {
  const std::string content = documentBlock("k", {}, std::string(kMiB / 2, 'x'));
  RawClient client(http_);
  const auto ask = [&](Headers form) {
    form.insert({{"action", "addDocument"}, {"index", "nope"}});
    return httpAsk(client, form, content);
  };
  const std::vector<Headers> modest{{},
                                    {{"charset", "UTF-8"}},
                                    {{"docType", "html"}, {"charset", "UTF-8"}},
                                    {{"docType", "text"}}};
  for (const Headers& form : modest) EXPECT_THAT(ask(form), HasSubstr("ZVK0007E"));
  const std::vector<Headers> greedy{{{"charset", "latin1"}},
                                    {{"docType", "html"}},
                                    {{"docType", "xml"}},
                                    {{"docType", "xml"}, {"charset", "UTF-8"}},
                                    {{"mimeType", "text/xml"}, {"charset", "UTF-8"}},
                                    {{"mimeType", "application/xml"}, {"charset", "UTF-8"}}};
  for (const Headers& form : greedy) EXPECT_THAT(ask(form), HasSubstr("ZVK0002E"));
}

// What a collection says of its documents is known only when it is open.
TEST_F(FrugalFrontTest, DocumentNeedsTheMemoryThatItsCollectionHasItTake) {
  const std::string content = documentBlock("k", {}, std::string(kMiB / 2, 'x'));
  RawClient client(http_);
  EXPECT_EQ(httpAsk(client, {{"action", "createCollection"}, {"index", "c"}}), kDone);
  const auto configure = [&](Headers defaults) {
    defaults.insert({{"action", "setConstructorConfiguration"}, {"index", "c"}});
    EXPECT_EQ(httpAsk(client, defaults), kDone);
  };
  const auto ask = [&](Headers said) {
    said.insert({{"action", "addDocument"}, {"index", "c"}});
    return httpAsk(client, said, content);
  };
  const Headers modest{{"charset", "UTF-8"}};
  for (const Headers& greedy : std::vector<Headers>{{{"charset", "latin1"}},
                                                    {{"docType", "html"}},
                                                    {{"docType", "html"}, {"charset", "latin1"}}}) {
    configure(greedy);
    EXPECT_THAT(ask({}), AllOf(HasSubstr("ZVK0002E"), HasSubstr("--max-memory")));
    EXPECT_EQ(ask(modest), kDone);
  }
  configure({{"docType", "xml"}});
  EXPECT_THAT(ask(modest), HasSubstr("ZVK0002E"));
  EXPECT_EQ(ask({{"docType", "text"}}), kDone);
  configure({{"docType", "html"}, {"charset", "UTF-8"}});
  EXPECT_EQ(ask({}), kDone);
  EXPECT_THAT(ask({{"docType", "xml"}}), HasSubstr("ZVK0002E"));
  configure({});
  EXPECT_EQ(ask({}), kDone);
}

// Its collection is opened before it waits: nobody is told that a queued document is lost.
TEST_F(FrugalFrontTest, DocumentThatItsCollectionMakesLargeWaitsForMemoryThatOthersHold) {
  options_.memoryTimeout = std::chrono::minutes(5);
  start();
  const std::string content = documentBlock("k", {}, std::string(kMiB / 4, 'x'));
  RawClient client(http_);
  EXPECT_EQ(httpAsk(client, {{"action", "createCollection"}, {"index", "c"}}), kDone);
  setCharset(client, "latin1");
  for (const bool isOpen : {true, false}) {
    if (!isOpen) {
      EXPECT_EQ(httpAsk(client, {{"action", "closeCollection"}, {"index", "c"}}), kDone);
    }
    RawClient other(http_);
    other.send(announced(kMiB));
    awaitUse(4 * kMiB);
    client.send(httpRequest({{"action", "asyncAddDocument"}, {"index", "c"}}, content));
    RawClient another(http_);
    another.send(httpRequest({{"action", "addDocument"}, {"index", "c"}}, content));
    for (int i = 0; i < 10; ++i) expectServing();
    other.send(std::string(kMiB, 'x'));
    EXPECT_THAT(other.receiveHttp(), HasSubstr("ZVK0012E"));
    EXPECT_EQ(another.receiveHttp(), kDone) << isOpen;
    EXPECT_THAT(httpAsk(client, {{"action", "getParseResult"}, {"index", "c"}}),
                AllOf(HasSubstr("Doc"), Not(HasSubstr("ZVK0016E"))))
        << isOpen;
  }
}

TEST_F(FrugalFrontTest, DocumentThatGetsLargeWhileItArrivesIsRefusedIfOthersHoldTheMemory) {
  const std::string content = documentBlock("k", {}, std::string(kMiB / 4, 'x'));
  const std::string add = httpRequest({{"action", "addDocument"}, {"index", "c"}}, content);
  RawClient client(http_);
  EXPECT_EQ(httpAsk(client, {{"action", "createCollection"}, {"index", "c"}}), kDone);
  client.send(add.substr(0, add.size() - 1));
  awaitUse(kMiB);
  RawClient other(http_);
  setCharset(other, "latin1");
  other.send(announced(kMiB));
  awaitUse(5 * kMiB);
  client.send(add.substr(add.size() - 1));
  EXPECT_THAT(client.receiveHttp(), AllOf(HasSubstr("ZVK0016E"), HasSubstr("--max-memory")));
  other.send(std::string(kMiB, 'x'));
  EXPECT_THAT(other.receiveHttp(), HasSubstr("ZVK0012E"));
  client.send(add);
  EXPECT_EQ(client.receiveHttp(), kDone);
}

TEST_F(FrugalFrontTest, RequestWaitsForMemoryThatAnotherOneHolds) {
  options_.memoryTimeout = std::chrono::minutes(5);
  start();
  RawClient first(http_);
  first.send(announced(kMiB));
  awaitUse(4 * kMiB);
  RawClient second(http_);
  second.send(announced(kMiB) + std::string(kMiB, 'x'));
  expectServing();
  first.send(std::string(kMiB, 'x'));
  EXPECT_THAT(first.receiveHttp(), HasSubstr("ZVK0012E"));
  EXPECT_THAT(second.receiveHttp(), HasSubstr("ZVK0012E"));
}

TEST_F(FrugalFrontTest, RequestThatWaitsTooLongForMemoryIsRefused) {
  RawClient first(http_);
  first.send(announced(kMiB));
  awaitUse(4 * kMiB);
  RawClient second(http_);
  second.send(announced(kMiB) + std::string(kMiB, 'x'));
  EXPECT_THAT(second.receiveHttp(), AllOf(HasSubstr("ZVK0016E"), HasSubstr("--max-memory")));
  EXPECT_THAT(httpAsk(second, {{"action", "getServerVersion"}}), EndsWith("1.2.3"));
  first.send(std::string(kMiB, 'x'));
  EXPECT_THAT(first.receiveHttp(), HasSubstr("ZVK0012E"));
}

TEST_F(FrugalFrontTest, MemoryOfClientsThatVanishComesBack) {
  std::vector<RawClient> clients;
  for (int i = 0; i < 10; ++i) {
    clients.emplace_back(i % 2 == 0 ? http_ : binary_);
    clients.back().send(announced(kMiB) + std::string(1000U * static_cast<unsigned>(i), 'x'));
  }
  clients.clear();
  server_->stop();
  EXPECT_EQ(memory_->used(), 0U);
}

TEST_F(FrugalFrontTest, QueuedDocumentWithoutMemoryIsAmongTheOutcomes) {
  RawClient client(http_);
  EXPECT_EQ(httpAsk(client, {{"action", "createCollection"}, {"index", "c"}}), kDone);
  client.send(httpRequest({{"action", "asyncAddDocument"}, {"index", "c"}},
                          documentBlock("k", {}, std::string(2 * kMiB, 'x'))));
  EXPECT_THAT(httpAsk(client, {{"action", "getParseResult"}, {"index", "c"}}),
              AllOf(HasSubstr("ZVK0002E"), HasSubstr("--max-memory")));
}

/// Two who may do different things, and a collection each of them may see.
class GuardedFrontTest : public FrontTest {
 protected:
  GuardedFrontTest() {
    putAccount(users_, false, "ada", "pass", {{Right::Admin, "*"}});
    putAccount(users_, true, "reader", "secret", {{Right::Read, "books-*"}});
    options_.access = std::make_shared<AccessControl>(users_);
    store_.createCollection("books-a", "en");
    store_.createCollection("films", "en");
  }

  static Headers as(const std::string& who, Headers headers) {
    headers.try_emplace("Authorization", who);
    return headers;
  }

  const std::string ada_ = "Basic YWRhOnBhc3M=";
  const std::string reader_ = "Bearer reader.secret";
  const std::string unauthorized_ = std::string("\1\x91", 2);
  std::filesystem::path users_ = directory_.path() / "users";
};

TEST_F(GuardedFrontTest, NobodyIsServedWithoutSayingWhoItIs) {
  const std::vector<Headers> requests{
      {{"action", "getServerVersion"}},
      {{"action", "getStatus"}},
      {{"action", "nonsense"}},
      as("Basic YWRhOndyb25n", {{"action", "getStatus"}}),
      as("Bearer reader.wrong", {{"action", "search"}, {"index", "books-a"}, {"query", "x"}}),
      as("rubbish", {{"action", "deleteCollection"}, {"index", "films"}})};
  RawClient http(http_);
  RawClient binary(binary_);
  for (const Headers& headers : requests) {
    EXPECT_THAT(httpAsk(http, headers), AllOf(StartsWith("HTTP/1.1 401 "), HasSubstr("ZVK0022E")));
    EXPECT_EQ(binaryAsk(binary, 2, headers), unauthorized_);
  }
  EXPECT_EQ(httpAsk(http, as(ada_, {{"action", "openCollection"}, {"index", "films"}})), kDone);
  EXPECT_EQ(binaryAsk(binary, 2, as(reader_, {{"action", "getStatus"}})), kSuccess);
}

TEST_F(GuardedFrontTest, RefusalDoesNotWaitForTheBatchesOfItsCollection) {
  store_.createCollection("held", "en");
  const Headers batch{{"action", "addDocument"}, {"index", "held"}};
  const std::string none = documentBlock("any", {}, test::terminateRecord());
  std::vector<RawClient> stuck;
  for (unsigned i = 0; i < options_.lookUpThreads; ++i) {
    Headers headers = as(ada_, batch);
    headers["batch"] = "b" + std::to_string(i);
    stuck.emplace_back(http_);
    stuck.back().send(httpRequest(headers, none));
  }
  store_.gate.awaitWaiting(static_cast<int>(options_.lookUpThreads / 2));
  Headers stranger = batch;
  stranger["batch"] = "b";
  RawClient client(http_);
  EXPECT_THAT(httpAsk(client, stranger, none), StartsWith("HTTP/1.1 401 "));
  store_.gate.open();
  for (RawClient& each : stuck) EXPECT_THAT(each.receiveHttp(), StartsWith(kDone));
}

TEST_F(GuardedFrontTest, ContentOfARefusedRequestIsDiscardedAndTheConnectionGoesOn) {
  const Headers headers{{"action", "addDocument"}, {"index", "films"}};
  const std::string large = documentBlock("k", {}, std::string(1000000, 'x'));
  RawClient http(http_);
  EXPECT_THAT(httpAsk(http, headers, large), StartsWith("HTTP/1.1 401 "));
  EXPECT_EQ(httpAsk(http, as(ada_, headers), large), kDone);
  RawClient binary(binary_);
  EXPECT_EQ(binaryAsk(binary, 2, headers, large), unauthorized_);
  EXPECT_EQ(binaryAsk(binary, 2, as(ada_, headers), large), kSuccess);
}

TEST_F(GuardedFrontTest, RefusalComesBeforeTheContentOfItsRequest) {
  const std::string block = documentBlock("k", {}, std::string(1000000, 'x'));
  for (const std::string& who : {std::string("Bearer reader.wrong"), reader_, std::string()}) {
    const Headers headers = as(who, {{"action", "addDocument"}, {"index", "books-a"}});
    const std::string request = httpRequest(headers, block);
    RawClient http(http_);
    EXPECT_TRUE(http.send(request.substr(0, request.size() - block.size())));
    EXPECT_THAT(http.receiveHttp(), HasSubstr(who == reader_ ? "ZVK0023E" : "ZVK0022E"));
    EXPECT_TRUE(http.send(block));
    EXPECT_THAT(httpAsk(http, as(ada_, {{"action", "getStatus"}})), EndsWith("0"));
    const std::string sameRequest = binaryRequest(headers, block);
    RawClient binary(binary_);
    EXPECT_TRUE(binary.send(sameRequest.substr(0, sameRequest.size() - block.size())));
    if (who != reader_) {
      EXPECT_EQ(binary.receive(2), unauthorized_);
      EXPECT_TRUE(binary.send(block));
      EXPECT_EQ(binaryAsk(binary, 2, as(ada_, {{"action", "getStatus"}})), kSuccess);
    } else {
      EXPECT_EQ(binary.receive(2), std::string("\0\6", 2));
    }
  }
}

TEST_F(GuardedFrontTest, StrangerWhoGoesOnSendingIsCutOff) {
  options_.discardTimeout = std::chrono::milliseconds(50);
  start();
  const std::string header = "action: addDocument\nContent-Length  : 60000000\n\r\n";
  RawClient http(http_);
  http.send(header);
  EXPECT_THAT(http.receiveHttp(), StartsWith("HTTP/1.1 401 "));
  EXPECT_TRUE(http.ended());
  RawClient binary(binary_);
  binary.send(test::bigEndian(header.size(), 2) + header);
  EXPECT_EQ(binary.receive(2), unauthorized_);
  EXPECT_TRUE(binary.ended());
}

TEST_F(GuardedFrontTest, RightsHoldForTheCollectionsOfTheirPattern) {
  RawClient client(http_);
  const auto ask = [&](const char* action, const char* collection, const std::string& body = {}) {
    return httpAsk(client, as(reader_, {{"action", action}, {"index", collection}}), body);
  };
  for (const char* action : {"search", "selectivity"}) {
    const Headers query{{"action", action}, {"index", "books-a"}, {"query", "x"}};
    EXPECT_THAT(httpAsk(client, as(reader_, query)), StartsWith(kDone));
  }
  EXPECT_THAT(ask("getStatus", "books-a"), EndsWith("0"));
  for (const char* action :
       {"addDocument", "deleteDocument", "updateIndex", "getParseResult", "createCollection",
        "deleteCollection", "setConstructorConfiguration"}) {
    EXPECT_THAT(ask(action, "books-a", kDocument),
                AllOf(HasSubstr("ZVK0023E"), HasSubstr("reader"), HasSubstr(action)));
  }
  for (const char* action : {"search", "getStatus", "openCollection", "closeCollection"}) {
    EXPECT_THAT(ask(action, "films"), AllOf(HasSubstr("ZVK0023E"), HasSubstr("films"))) << action;
  }
  EXPECT_THAT(httpAsk(client, as(reader_, {{"action", "shutdown"}})), HasSubstr("ZVK0023E"));
  EXPECT_THAT(
      httpAsk(client,
              as(reader_, {{"action", "search"}, {"collectionName", "films"}, {"query", "x"}})),
      HasSubstr("ZVK0023E"));
}

TEST_F(GuardedFrontTest, NothingIsToldOfCollectionsBesideThatOneMayNotRead) {
  // Clients that end their sending are answered however long that takes.
  options_.hangupGrace = std::chrono::minutes(5);
  start();
  store_.createCollection("books-b", "en");
  for (const char* name : {"books-a", "books-b", "films"}) {
    store_.addDocument(name, {"k", {}, "fox"});
    store_.updateIndex(name);
    // As the front has to find it.
    store_.closeCollection(name);
  }
  const auto together = [&](const std::string& index, const std::string& alsoIn) {
    return as(reader_, {{"action", "getParseResult"},
                        {"report", "hits"},
                        {"index", index},
                        {"alsoIn", alsoIn},
                        {"query", "fox"}});
  };
  const auto overHttp = [&](const std::string& index, const std::string& alsoIn) {
    RawClient client(http_);
    return httpAsk(client, together(index, alsoIn));
  };
  const auto overBinary = [&](const std::string& index, const std::string& alsoIn) {
    RawClient client(binary_);
    client.send(binaryRequest(together(index, alsoIn)));
    client.endSending();
    return client.receiveAll();
  };
  const auto expectGuarded = [](const auto& ask) {
    EXPECT_THAT(ask("books-a", "books-b"),
                AllOf(HasSubstr("collection=books-a"), HasSubstr("collection=books-b")));
    for (const char* forbidden : {"films", "nowhere"}) {
      const std::string refusal = ask("books-a", forbidden);
      EXPECT_THAT(refusal, AllOf(HasSubstr("ZVK0023E"), HasSubstr(forbidden)));
      EXPECT_EQ(ask(forbidden, ""), refusal) << "as if it were the only one";
    }
  };
  expectGuarded(overHttp);
  expectGuarded(overBinary);
}

TEST_F(GuardedFrontTest, QueuedDocumentOfAStrangerIsDroppedWithoutAReply) {
  for (const Headers& who :
       {Headers{}, Headers{{"Authorization", reader_}}, Headers{{"Authorization", "Basic x"}}}) {
    Headers queue{{"action", "asyncAddDocument"}, {"index", "films"}};
    queue.insert(who.begin(), who.end());
    RawClient client(http_);
    client.send(httpRequest(queue, kDocument));
    EXPECT_THAT(httpAsk(client, as(ada_, {{"action", "getStatus"}, {"index", "films"}})),
                EndsWith("0"));
    EXPECT_THAT(httpAsk(client, as(ada_, {{"action", "getParseResult"}, {"index", "films"}})),
                Not(HasSubstr("Doc")));
  }
}

TEST_F(GuardedFrontTest, MalformedHeaderDoesNotRepeatASecret) {
  RawClient client(http_);
  EXPECT_TRUE(client.send("action: getStatus\nAuthorization:Basic c2VjcmV0\n\r\n"));
  EXPECT_THAT(client.receiveHttp(), Not(HasSubstr("c2VjcmV0")));
}

TEST(Server, AddressThatCannotBeHadIsNamed) {
  tq::test::TemporaryDirectory directory;
  LocalStore store(directory.path(), {});
  Dispatcher dispatcher(store, "1");
  ServerOptions options;
  options.httpPort = 0;
  Server first(dispatcher, options);
  first.start();
  options.httpPort = first.listeners().front().port;
  Server second(dispatcher, options);
  try {
    second.start();
    FAIL() << "two servers on one port";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("127.0.0.1 port " + std::to_string(*options.httpPort)));
  }
}

}  // namespace
}  // namespace corvaned
