// A portion for which there was no memory: its results are handed out once or not at all. A look at
// the connection for which there was none: it costs the connection and no request.

#include <gtest/gtest.h>

#include <functional>
#include <memory_resource>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruResultMemory.h"
#include "tests/comm/faultExchange.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/chunks.h"
#include "tests/support/exchange.h"
#include "tests/support/failingMemory.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/script.h"
#include "tests/support/scriptedNetwork.h"

namespace {

using namespace tq::test;
using tq::comm::ClientResponse;

/// The memory of the lists that are made during its life, until it runs out.
class ScarceLists : public std::pmr::memory_resource {
 public:
  static constexpr int kPlenty = 1000000;

  ScarceLists() : before_(tq::comm::replaceMemoryOfResults(this)) {}
  ~ScarceLists() override { tq::comm::replaceMemoryOfResults(before_); }
  /// This many blocks are left.
  void leave(int blocks) { left_ = blocks; }

 private:
  void* do_allocate(std::size_t bytes, std::size_t alignment) override {
    if (left_-- <= 0) throw std::bad_alloc();
    return before_->allocate(bytes, alignment);
  }
  void do_deallocate(void* p, std::size_t bytes, std::size_t alignment) override {
    before_->deallocate(p, bytes, alignment);
  }
  bool do_is_equal(const memory_resource& other) const noexcept override { return this == &other; }

  std::pmr::memory_resource* before_;
  int left_ = kPlenty;
};

class ScarcePortion : public testing::TestWithParam<Protocol> {
 protected:
  static bool binary() { return GetParam() != Protocol::Http; }

  static std::string hit(const std::string& key) {
    return binary() ? plainHit(key) : enveloped(hitRecord(idOfKey(key), "1"));
  }
  static std::string manyHits(const std::string& prefix) {
    std::string all;
    for (int i = 0; i < 200; ++i) all += hit(prefix + std::to_string(i));
    return all;
  }
  /// The first portion of a reply, and a further one.
  static std::string begin(const std::string& hits) {
    return binary() ? word16(1) + hits : kChunkedHead + chunk(std::string(4, '\0') + hits);
  }
  static std::string portion(const std::string& hits) { return binary() ? hits : chunk(hits); }
  static std::string end() { return binary() ? endOfResults() : chunk(bigEndian(0)) + "0\r\n\r\n"; }

  /// A peer that sends these portions one after the other.
  static Script answers(const std::vector<std::string>& portions) {
    Script script;
    binary() ? script.expectFramedRequest() : script.expectRequest();
    for (const std::string& bytes : portions) script.send(bytes);
    return script.awaitClose();
  }

  /// Over HTTP the exception passes through; the binary client makes it one of its own.
  static void expectNoMemory(const std::function<void()>& call) {
    if (binary()) {
      EXPECT_EQ(errorOf(call).errorId, "ERR_CLIENT_INTERNAL");
    } else {
      EXPECT_THROW(call(), std::bad_alloc);
    }
  }

  static std::vector<std::string> idsOf(ClientResponse& response) {
    std::vector<std::string> ids;
    auto& hits = response.getSearchResponse();
    while (hits.hasMore()) ids.push_back(utf8(hits.getNext().getDocId()));
    const std::set<std::string> different(ids.begin(), ids.end());
    EXPECT_EQ(different.size(), ids.size());
    return ids;
  }

  ScarceLists memory_;
};

TEST_P(ScarcePortion, IsNotHandedOutTwice) {
  ScriptedNetwork network(
      answers({begin(hit("first")), portion(manyHits("second")), portion(hit("third")) + end()}),
      ScriptedNetwork::Arrival::OnDemand);
  const auto client = clientOf(GetParam());
  auto request = requestFor(kScalarSearch);
  ClientResponse response;
  client->sendAndRecvMesg(request, response);

  memory_.leave(0);
  expectNoMemory([&] { client->recv(response); });
  memory_.leave(ScarceLists::kPlenty);
  EXPECT_TRUE(client->isEndOfStream());
  EXPECT_TRUE(client->isTruncated());
  EXPECT_GE(idsOf(response).size(), 1U);
}

// The binary client refuses a receive after an exchange that failed.
TEST_P(ScarcePortion, ThatIsTheFirstIsNotReadAgain) {
  ScriptedNetwork network(answers({begin(manyHits("first")), portion(hit("second")) + end()}),
                          ScriptedNetwork::Arrival::OnDemand);
  const auto client = clientOf(GetParam());
  auto request = requestFor(kScalarSearch);
  ClientResponse response;
  memory_.leave(1);
  expectNoMemory([&] { client->sendAndRecvMesg(request, response); });
  memory_.leave(ScarceLists::kPlenty);
  if (binary()) {
    EXPECT_EQ(errorOf([&] { client->recv(response); }).errorId, "ERR_INVALID_STATE");
    idsOf(response);
    return;
  }
  client->recv(response);
  const auto ids = idsOf(response);
  ASSERT_GE(ids.size(), 2U);
  EXPECT_EQ(ids.back(), idOfKey("second"));
}

INSTANTIATE_TEST_SUITE_P(Over, ScarcePortion,
                         testing::Values(Protocol::Http, Protocol::Binary,
                                         Protocol::BinaryReassembled),
                         [](const auto& test) { return nameOf(test.param); });

TEST(ScarceBuffer, OfAConnectionThatCannotBeLookedAtCostsTheConnectionAlone) {
  // A receive buffer of more than a megabyte is given back. The status line that follows the old
  // reply then arrives byte by byte, and cannot be put back when it is recognised.
  const std::string body(std::size_t{1280} * 1024, 'v');
  const std::string large = chunk(body);
  ScriptedNetwork network({Script()
                               .expectRequest()
                               .send(kChunkedHead + large.substr(0, large.size() - 2))
                               .send("\r\n0\r\nHTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")
                               .awaitClose(),
                           Script().expectRequest().awaitClose()});
  const auto client = clientOf(Protocol::Http);
  EXPECT_EQ(runExchange(*client, kGetServerVersion).errorId, "");
  {
    const tq::test::OutOfMemory none;
    EXPECT_EQ(runExchange(*client, kAsynchAddDocument).errorId, "");
  }
  EXPECT_EQ(network.connections(), 2U);
  EXPECT_EQ(network.connection(1).requests.size(), 1U);
}

}  // namespace
