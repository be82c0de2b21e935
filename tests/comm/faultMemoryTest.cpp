// Every allocation of an exchange fails: each one alone, and each one with all that follow.
// Whatever is thrown, the process goes on, nothing leaks and the next request gets its own answer.
// ICU has allocation functions of its own, and where they fail nothing is thrown: the text turns
// bogus and reads as an empty one, which must never be sent, nor taken for what the server said.

#include <gtest/gtest.h>
#include <unicode/uclean.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruRESTException.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruNLSException.h"
#include "infra/util/kruExtendedProperties.h"
#include "tests/comm/faultExchange.h"
#include "tests/comm/faultNetwork.h"
#include "tests/support/exchange.h"

namespace {

enum class Source { Objects, Texts };

// Which allocation of this thread fails, counted from 1 while counting is on.
struct Memory {
  bool counting = false;
  Source source = Source::Objects;
  bool lasting = false;  // all further ones fail, too
  long failing = 0;      // none
  long count = 0;
  long live = 0;
};
thread_local Memory memory;

bool mustFail(Source source) noexcept {
  if (!memory.counting || source != memory.source) return false;
  const long at = ++memory.count;
  return memory.failing != 0 && (at == memory.failing || (memory.lasting && at > memory.failing));
}

void* allocate(std::size_t size, std::size_t alignment) noexcept {
  if (mustFail(Source::Objects)) return nullptr;
  void* block = alignment == 0
                    ? std::malloc(size != 0 ? size : 1)
                    : std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
  if (block != nullptr) ++memory.live;
  return block;
}

void* allocateOrThrow(std::size_t size, std::size_t alignment) {
  void* block = allocate(size, alignment);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void release(void* block) noexcept {
  if (block != nullptr) --memory.live;
  std::free(block);
}

void* allocateText(const void*, std::size_t size) noexcept {
  if (mustFail(Source::Texts)) return nullptr;
  void* block = std::malloc(size);
  if (block != nullptr) ++memory.live;
  return block;
}

void* reallocateText(const void*, void* block, std::size_t size) noexcept {
  if (mustFail(Source::Texts)) return nullptr;
  void* moved = std::realloc(block, size);
  if (block == nullptr && moved != nullptr) ++memory.live;
  return moved;
}

void releaseText(const void*, void* block) noexcept {
  if (block != nullptr) --memory.live;
  std::free(block);
}

// Before anything else uses ICU, so that each of its blocks is released by the function above.
[[gnu::init_priority(101)]] const struct TextMemory {
  TextMemory() {
    UErrorCode status = U_ZERO_ERROR;
    u_setMemoryFunctions(nullptr, allocateText, reallocateText, releaseText, &status);
    if (U_FAILURE(status)) std::abort();
  }
} textMemory;

std::size_t unitOf(std::align_val_t alignment) { return static_cast<std::size_t>(alignment); }

}  // namespace

void* operator new(std::size_t size) { return allocateOrThrow(size, 0); }
void* operator new[](std::size_t size) { return allocateOrThrow(size, 0); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size, 0); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size, 0); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return allocateOrThrow(size, unitOf(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return allocateOrThrow(size, unitOf(alignment));
}
void operator delete(void* block) noexcept { release(block); }
void operator delete[](void* block) noexcept { release(block); }
void operator delete(void* block, std::size_t) noexcept { release(block); }
void operator delete[](void* block, std::size_t) noexcept { release(block); }
void operator delete(void* block, std::align_val_t) noexcept { release(block); }
void operator delete[](void* block, std::align_val_t) noexcept { release(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { release(block); }
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept { release(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { release(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { release(block); }

namespace {

using namespace tq::test;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::RequestOutcome;

constexpr unsigned int kMark = 200;
constexpr unsigned int kNextMark = 300;
constexpr long kNever = 1000000000;

/// Allocations count, and may fail, while one lives.
class Scarcity {
 public:
  Scarcity(Source source, long failing, bool lasting) {
    memory.source = source;
    memory.failing = failing;
    memory.lasting = lasting;
    memory.count = 0;
    memory.counting = true;
    FaultNetwork::tellOfWork([](bool begins) { memory.counting = !begins; });
  }
  ~Scarcity() {
    memory.counting = false;
    FaultNetwork::tellOfWork(nullptr);
  }
  Scarcity(const Scarcity&) = delete;
  Scarcity& operator=(const Scarcity&) = delete;
};

struct Seen {
  enum class End { Success, Library, BadAlloc, NoText, Other } end = End::Success;
  std::string errorId{};
  std::vector<std::string> hits{};
  long allocations = 0;
};

bool isSearchKind(int kind) { return kind == kStreamSearch || kind == kScalarSearch; }
bool isStreamKind(int kind) { return isSearchKind(kind) || kind == kParseResult; }

void takeHits(ClientResponse& response, Seen& seen) {
  auto& list = response.getSearchResponse();
  while (list.hasMore()) seen.hits.push_back(utf8(list.getNext().getDocId()));
  auto& rows = response.getParseResponse();
  while (rows.hasMore()) seen.hits.push_back(utf8(rows.getNext().getDocument()));
}

template <typename Operation>
bool guarded(Source source, Seen& seen, long failing, bool lasting, Operation operation) {
  try {
    const Scarcity scarcity(source, failing == 0 ? 0 : std::max(failing - seen.allocations, 1L),
                            lasting);
    struct Note {
      Seen& seen;
      ~Note() { seen.allocations += memory.count; }
    } const note{seen};
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
  while (goesOn && isStreamKind(marked.kind)) {
    if (!grows) takeHits(response, seen);
    if (client.isEndOfStream()) break;
    goesOn = guarded(source, seen, stillFailing(seen, failing, lasting), lasting,
                     [&] { client.recv(response); });
  }
  takeHits(response, seen);
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
  if (!isStreamKind(marked.kind) || marked.refused) return;
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
  const long before = memory.live;
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
  EXPECT_TRUE(memory.live == before || failing == kNever) << "leaked";
  return reached;
}

/// What a test sends: every kind, some refused, and a document that a small buffer does not hold.
std::vector<MarkedRequest> requestsOf(bool longTexts) {
  std::vector<MarkedRequest> all;
  for (int kind = 1; kind <= 24; ++kind) {
    if (kind != 6) all.push_back({kind, kMark});
  }
  for (const int kind : {4, 8, 11, 14, 20}) all.push_back({kind, kMark, true});
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
        const Scarcity scarcity(Source::Texts, 1, true);
        EXPECT_THROW(properties.putProperty(*name, value), tq::oss::NLSException);
      }
      EXPECT_EQ(properties.size(), 1U);
      EXPECT_TRUE(properties.requireProperty(present) == u"value");
    }
  }
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
