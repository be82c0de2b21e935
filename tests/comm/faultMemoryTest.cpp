// Every allocation of an exchange fails: each one alone, and each one with all that follow.
// Whatever is thrown, the process goes on, nothing leaks and the next request gets its own answer.
// ICU has allocation functions of its own, and where they fail nothing is thrown: the text turns
// bogus and reads as an empty one, which must never be sent, nor taken for what the server said.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "comm/kruChunkTail.h"
#include "comm/kruClientResponse.h"
#include "comm/kruParseResult.h"
#include "comm/kruRESTException.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruNLSException.h"
#include "infra/util/kruExtendedProperties.h"
#include "tests/comm/faultExchange.h"
#include "tests/comm/faultNetwork.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/chunks.h"
#include "tests/support/countedMemory.h"
#include "tests/support/exchange.h"
#include "tests/support/replyCorpus.h"

namespace {

using namespace tq::test;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::RequestOutcome;

constexpr unsigned int kMark = 200;
constexpr unsigned int kNextMark = 300;
constexpr long kNever = 1000000000;

using Source = ScarceMemory::Of;

struct Seen {
  enum class End { Success, Library, BadAlloc, NoText, Other } end = End::Success;
  std::string errorId{};
  std::vector<std::string> hits{};
  long allocations = 0;
};

template <typename Operation>
bool guarded(Source source, Seen& seen, long failing, bool lasting, Operation operation) {
  try {
    const ScarceMemory scarcity(failing == 0 ? 0 : std::max(failing - seen.allocations, 1L),
                                lasting, source);
    struct Note {
      Seen& seen;
      const ScarceMemory& scarcity;
      ~Note() { seen.allocations += scarcity.count(); }
    } const note{seen, scarcity};
    operation();
    return true;
  } catch (const tq::comm::RESTException& error) {
    seen.end = Seen::End::Library;
    const auto& messages = error.getMessageList();
    if (!messages.empty()) seen.errorId = utf8(messages.front().getMessageId());
  } catch (const tq::oss::NLSException&) {
    seen.end = Seen::End::NoText;
  } catch (const std::bad_alloc&) {
    seen.end = Seen::End::BadAlloc;
  } catch (...) {
    seen.end = Seen::End::Other;
  }
  return false;
}

/// An allocation that has failed already does not fail again, unless all further ones fail.
long stillFailing(const Seen& seen, long failing, bool lasting) {
  return failing != 0 && seen.allocations >= failing && !lasting ? 0 : failing;
}

/// Takes one record after the other, until one cannot be had: its text is made when it is asked
/// for.
template <typename List, typename Text>
bool takeAll(List& list, Text textOf, Source source, long failing, bool lasting, Seen& seen) {
  while (list.hasMore()) {
    const icu::UnicodeString* text = nullptr;
    const bool taken = guarded(source, seen, stillFailing(seen, failing, lasting), lasting,
                               [&] { text = &textOf(list.getNext()); });
    if (!taken) return false;
    seen.hits.push_back(utf8(*text));
  }
  return true;
}

bool takeHits(ClientResponse& response, Source source, long failing, bool lasting, Seen& seen) {
  const auto idOf = [](const auto& hit) -> auto& { return hit.getDocId(); };
  const auto documentOf = [](const auto& row) -> auto& { return row.getDocument(); };
  return takeAll(response.getSearchResponse(), idOf, source, failing, lasting, seen) &&
         takeAll(response.getParseResponse(), documentOf, source, failing, lasting, seen);
}

/// Runs the exchange and all that follows it; the `failing`th allocation fails, 0 for none. A
/// request with long texts is built from them under the same conditions.
Seen run(CorvaneRESTClient& client, const MarkedRequest& marked, long failing, bool lasting) {
  Seen seen;
  const Source source = marked.longTexts ? Source::Texts : Source::Objects;
  std::optional<BuiltRequest> built;
  if (!marked.longTexts) {
    built.emplace(marked);
  } else if (!guarded(source, seen, failing, lasting, [&] { built.emplace(marked); })) {
    return seen;
  }
  ClientResponse response;
  bool goesOn = guarded(source, seen, stillFailing(seen, failing, lasting), lasting,
                        [&] { client.sendAndRecvMesg(built->request, response); });
  const bool grows = marked.kind == kScalarSearch;
  while (goesOn && isStreaming(marked.kind)) {
    if (!grows && !takeHits(response, source, failing, lasting, seen)) return seen;
    if (client.isEndOfStream()) break;
    goesOn = guarded(source, seen, stillFailing(seen, failing, lasting), lasting,
                     [&] { client.recv(response); });
  }
  takeHits(response, source, failing, lasting, seen);
  return seen;
}

FaultNetwork::Options optionsOf(Protocol protocol) {
  FaultNetwork::Options options;
  options.framed = protocol != Protocol::Http;
  return options;
}

void checkEnd(Protocol protocol, const MarkedRequest& marked, bool lasting, const Seen& seen) {
  EXPECT_NE(seen.end, Seen::End::Other);
  EXPECT_FALSE(seen.end == Seen::End::NoText && !marked.longTexts);
  const bool binary = protocol != Protocol::Http;
  // What cannot be built is the library's own exception: in its place comes the one it met.
  const bool mayPass = !binary || marked.refused || lasting;
  EXPECT_FALSE(seen.end == Seen::End::BadAlloc && !mayPass) << "passed through";
  if (seen.end != Seen::End::Library) return;
  const bool known = seen.errorId == "ERR_CLIENT_INTERNAL" ||
                     seen.errorId == "ERR_CONNECT_SERVER" ||
                     (marked.longTexts && seen.errorId == "TQ_ERR_OUT_OF_MEMORY");
  EXPECT_TRUE(known || (marked.refused && seen.errorId == "ZVK0404E")) << seen.errorId;
}

void checkHits(Protocol protocol, const MarkedRequest& marked, const Seen& seen, bool truncated) {
  if (!isStreaming(marked.kind) || marked.refused) return;
  const auto whole = resultsOf(protocol, marked);
  if (seen.end == Seen::End::Success && !truncated) {
    EXPECT_EQ(seen.hits, whole);
  } else {
    ASSERT_LE(seen.hits.size(), whole.size());
    EXPECT_TRUE(std::equal(seen.hits.begin(), seen.hits.end(), whole.begin()));
  }
}

void checkOutcome(const FaultNetwork& network, const MarkedRequest& marked,
                  RequestOutcome outcome) {
  // Over the binary protocol the status comes as an error.
  const bool mayBeRejected = marked.refused || marked.kind == kGetStatus;
  EXPECT_FALSE(outcome == RequestOutcome::Rejected && !mayBeRejected);
  const bool wasSeen = timesSeen(network.journal(), kMark) != 0;
  EXPECT_FALSE(wasSeen && outcome == RequestOutcome::NotSent);
  EXPECT_FALSE(!wasSeen &&
               (outcome == RequestOutcome::Answered || outcome == RequestOutcome::Rejected));
}

struct Setting {
  Protocol protocol;
  bool lasting;
  unsigned int retries;
};

/// How many runs the caller saw fail.
struct Tally {
  int runs = 0;
  int failed = 0;
};

/// Runs with the allocation failing; false when there is no such allocation.
bool checkFailure(const Setting& setting, const MarkedRequest& marked, long failing, Tally& tally) {
  const long before = liveBlocks();
  bool reached = false;
  {
    FaultNetwork network(optionsOf(setting.protocol), answererOf(setting.protocol));
    auto client = clientOf(setting.protocol);
    client->setDeadline(1000);
    client->setNumRetries(setting.retries);
    const auto seen = run(*client, marked, failing, setting.lasting);
    reached = seen.allocations >= failing;
    tally.runs += reached ? 1 : 0;
    tally.failed += reached && seen.end != Seen::End::Success ? 1 : 0;
    checkEnd(setting.protocol, marked, setting.lasting, seen);
    checkHits(setting.protocol, marked, seen, client->isTruncated());
    checkOutcome(network, marked, client->getRequestOutcome());
    // When only one allocation fails ICU may try again with less.
    EXPECT_FALSE(reached && setting.lasting && marked.longTexts && seen.end == Seen::End::Success);
    for (const auto& request : network.journal()) {
      EXPECT_TRUE(!marked.longTexts || hasItsLongTexts(request)) << request;
    }
    client->setNumRetries(0);
    const MarkedRequest next{kGetStatus, kNextMark};
    EXPECT_EQ(runMarked(*client, next).results, resultsOf(setting.protocol, next));
    client.reset();
    EXPECT_EQ(network.openDescriptors(), 0U);
    EXPECT_FALSE(network.waitedForever());
  }
  EXPECT_TRUE(liveBlocks() == before || failing == kNever) << "leaked";
  return reached;
}

/// What a test sends: every kind, some refused, and a document that a small buffer does not hold.
std::vector<MarkedRequest> requestsOf(bool longTexts) {
  std::vector<MarkedRequest> all;
  for (int kind = 1; kind <= 24; ++kind) {
    if (kind != 6) all.push_back({kind, kMark});
  }
  for (const int kind : {kUpdateIndex, kStreamSearch, kParseResult, kSelectivity, kScalarSearch})
    all.push_back({kind, kMark, true});
  all.push_back({kAddDocument, kMark, false, 25000});
  for (MarkedRequest& marked : all) marked.longTexts = longTexts;
  return all;
}

/// Fails each allocation of each request in turn.
void sweep(const Setting& setting, bool longTexts, Tally& tally) {
  for (const auto& marked : requestsOf(longTexts)) {
    // Once without a failure, so that what is built once for all is there.
    checkFailure(setting, marked, kNever, tally);
    for (long failing = 1;; ++failing) {
      SCOPED_TRACE("kind " + std::to_string(marked.kind) + (marked.refused ? " refused" : "") +
                   ", allocation " + std::to_string(failing));
      if (!checkFailure(setting, marked, failing, tally) || testing::Test::HasFailure()) break;
    }
    if (testing::Test::HasFailure()) return;
  }
}

class FaultMemory : public testing::TestWithParam<std::tuple<Protocol, bool, unsigned int>> {};

TEST_P(FaultMemory, EveryAllocationOfEveryExchangeMayFail) {
  const auto [protocol, lasting, retries] = GetParam();
  Tally tally;
  sweep({protocol, lasting, retries}, false, tally);
  RecordProperty("runs", tally.runs);
  RecordProperty("failed", tally.failed);
  // Few are left of each: those of the connection, the response and what the first request takes.
  EXPECT_GT(tally.runs, 3 * static_cast<int>(requestsOf(false).size()));
  EXPECT_GT(tally.failed, tally.runs / 2) << "a failing allocation that nobody notices";
}

TEST_P(FaultMemory, EveryTextOfEveryExchangeMayFail) {
  const auto [protocol, lasting, retries] = GetParam();
  Tally tally;
  sweep({protocol, lasting, retries}, true, tally);
  RecordProperty("runs", tally.runs);
  RecordProperty("failed", tally.failed);
  EXPECT_GT(tally.runs, 50);
  EXPECT_GT(tally.failed, tally.runs / 2) << "a text that could not be made and that nobody missed";
}

// A hit that its chunk cuts is kept for the next one, in memory of its own when it is long.
TEST(ScarceCarry, MakesOfASearchThatWasAnsweredNeitherARefusalNorAWholeResult) {
  const std::string body = std::string(4, '\0') +
                           enveloped(hitRecord(idOfKey(std::string(40000, 'k')), "1")) +
                           bigEndian(0);
  for (const bool inChunks : {true, false}) {
    SCOPED_TRACE(inChunks);
    const std::string half = body.substr(0, body.size() / 2);
    const std::string reply =
        inChunks ? kChunkedHead + chunk(half) + chunk(body.substr(half.size())) + "0\r\n\r\n"
                 : "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(half.size()) +
                       "\r\n\r\n" + half;
    bool failing = true;
    int failed = 0;
    for (long nth = 1; failing; ++nth) {
      FaultNetwork network({}, [&](const std::string&) { return Answer{{reply}}; });
      const auto client = clientOf(Protocol::Http);
      client->setNumRetries(0);
      BuiltRequest built({kScalarSearch});
      ClientResponse response;
      try {
        const ScarceMemory scarcity(nth, false, Source::Objects);
        client->sendAndRecvMesg(built.request, response);
        failing = scarcity.count() >= nth;
      } catch (const std::exception&) {
        ++failed;
        EXPECT_NE(client->getRequestOutcome(), RequestOutcome::Rejected) << nth;
        EXPECT_TRUE(client->isTruncated() || !client->isEndOfStream()) << nth;
      }
    }
    EXPECT_GT(failed, 0);
  }
}

TEST(FailedClose, IsSwallowedWithoutMemoryToo) {
  for (const auto protocol : {Protocol::Http, Protocol::Binary}) {
    SCOPED_TRACE(nameOf(protocol));
    FaultNetwork::Options options;
    options.framed = protocol != Protocol::Http;
    FaultNetwork network(options, answererOf(protocol));
    auto client = clientOf(protocol);
    for (const bool destroyed : {false, true}) {
      client->open();
      network.plan(Entry::Close, 1, {Fault::Kind::Error, EIO});
      const ScarceMemory none(1, true);
      if (destroyed) {
        client.reset();
      } else {
        EXPECT_NO_THROW(client->close());
      }
    }
    EXPECT_EQ(network.openDescriptors(), 0U);
  }
}

// What has been taken of a line cannot be taken a second time.
TEST(ChunkTail, ReadsASizeLineWithoutMemory) {
  tq::comm::ChunkTail tail;
  tail.startBehindData(100);
  const std::string line = "\r\n" + std::string(30, '0') + "a;" + std::string(80, 'x') + "\r\n";
  const std::string all = line + "0123456789\r\n0\r\n\r\n";
  std::size_t skipped = 0;
  {
    const ScarceMemory none(1, true);
    skipped = tail.skip(all.data(), all.size());
  }
  EXPECT_EQ(skipped, all.size());
  EXPECT_FALSE(tail.active());
  EXPECT_FALSE(tail.broken());
}

// Texts that are copied into memory of their own when the set takes them: the name, the value of a
// new name, and the value of one that is there.
TEST(TextMemoryOfProperties, ThatCannotBeHadLeavesTheSetAsItWas) {
  const icu::UnicodeString present(u"present");
  const icu::UnicodeString longer(true, u"a text that is longer than the room inside of an object",
                                  -1);
  for (const bool longName : {true, false}) {
    for (const auto* name : {&present, &longer}) {
      tq::util::ExtendedProperties properties;
      properties.putProperty(present, u"value");
      const icu::UnicodeString& value = longName && name == &longer ? present : longer;
      {
        const ScarceMemory scarcity(1, true, Source::Texts);
        EXPECT_THROW(properties.putProperty(*name, value), tq::oss::NLSException);
      }
      EXPECT_EQ(properties.size(), 1U);
      EXPECT_TRUE(properties.requireProperty(present) == u"value");
    }
  }
}

TEST(TextMemoryOfProperties, ThatCannotBeHadForALiteralLeavesTheSetAsItWas) {
  const char16_t* const longer = u"a text that is longer than the room inside of an object";
  const struct {
    const char16_t* name;
    const char16_t* value;
  } kCases[] = {{longer, u"value"}, {u"another", longer}, {u"present", longer}};
  for (const auto& c : kCases) {
    tq::util::ExtendedProperties properties;
    properties.putProperty(u"present", u"value");
    {
      const ScarceMemory scarcity(1, true, Source::Texts);
      EXPECT_THROW(properties.putProperty(c.name, c.value), tq::oss::NLSException);
    }
    EXPECT_EQ(properties.size(), 1U);
    EXPECT_TRUE(properties.requireProperty(u"present") == u"value");
  }
}

TEST(TextMemoryOfParseResults, ThatCannotBeHadIsToldAndLeavesTheResultAsItWas) {
  const icu::UnicodeString document(u"the name of a document that no object has room for");
  tq::comm::ParseResult result(true);
  result.getProperties()->putProperty(tq::comm::StaticDefs::DOC, document);
  tq::comm::ParseResult other(true);
  other.getProperties()->putProperty(tq::comm::StaticDefs::DOC, u"other");
  other.reset();
  {
    const ScarceMemory scarcity(1, true, Source::Texts);
    EXPECT_THROW(result.reset(), tq::oss::NLSException);
  }
  result.reset();
  {
    const ScarceMemory scarcity(1, true, Source::Texts);
    EXPECT_THROW(tq::comm::ParseResult(result).getDocument(), tq::oss::NLSException);
    EXPECT_THROW(other = result, tq::oss::NLSException);
  }
  EXPECT_TRUE(other.getDocument() == u"other");
  other = result;
  EXPECT_TRUE(other.getDocument() == document);
}

INSTANTIATE_TEST_SUITE_P(Matrix, FaultMemory,
                         testing::Combine(testing::Values(Protocol::Http, Protocol::Binary,
                                                          Protocol::BinaryReassembled),
                                          testing::Bool(), testing::Values(0U, 1U)),
                         [](const auto& test) {
                           return nameOf(std::get<0>(test.param)) +
                                  (std::get<1>(test.param) ? "AllFurther" : "One") + "Retries" +
                                  std::to_string(std::get<2>(test.param));
                         });

}  // namespace
