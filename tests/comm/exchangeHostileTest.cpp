// Replies with wrong lengths, and bytes that are not a reply. Whatever they say, an exchange ends
// with results or with an error of the library, allocates little more than has arrived, and leaves
// nothing for the exchange after it.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "tests/comm/bothProtocols.h"
#include "tests/comm/largestAllocation.h"

namespace {

using namespace tq::test;
using tq::comm::CorvaneRESTClient;

/// What an exchange may take, whatever a length word announces.
struct Bounds {
  std::size_t allocation;
  std::size_t bytesOfAHit;  // no hit is shorter on the wire
};
// Over HTTP: the receive buffer and the reply buffers.
constexpr Bounds kHttpBounds{std::size_t{1} << 20, 8};
// Over binary: the receive buffer, the carry with its longest envelope, and the records of what has
// arrived.
constexpr Bounds kBinaryBounds{std::size_t{1} << 19, 4};

const Bounds& boundsOf(bool binary) { return binary ? kBinaryBounds : kHttpBounds; }

enum class Then { Close, Silence };

/// How a lying reply is taken, and what its peer does after it.
struct Manner {
  bool reassembly;
  Then then;
  unsigned int retries;
};

std::vector<Manner> mannersOf(bool binary) {
  if (!binary) return {{false, Then::Close, 1}, {false, Then::Silence, 0}};
  return {{false, Then::Close, 0},
          {false, Then::Silence, 0},
          {true, Then::Close, 0},
          {true, Then::Silence, 0}};
}

// A reply that is whole by accident keeps its connection; the next exchange is answered on the old
// connection and on a new one. An exchange that is repeated is told the same lie.
std::vector<Script> scripts(bool binary, const std::string& text, const Manner& manner) {
  const auto& next = nextOver(binary).text;
  auto first = answerTo(binary, text);
  if (manner.then == Then::Silence) {
    Replies(binary).expect(first).send(next).awaitClose();
  }
  if (manner.retries != 0) return {first};
  return {first, answerTo(binary, next).awaitClose()};
}

void expectTheNext(CorvaneRESTClient& client, bool binary) {
  const auto& next = nextOver(binary);
  auto outcome = runOver(client, next.kind);
  // What follows a chunked reply may lie too, and take the beginning of the next reply for its own.
  // The next exchange is refused then, and never given what is not its reply.
  if (!binary && outcome.seen.errorId == "ERR_CLIENT_RESP_PARSING") {
    outcome = runOver(client, next.kind);
  }
  EXPECT_EQ(outcome, next.expected) << "the next exchange";
}

void endure(bool binary, int kind, const std::string& text, const Manner& manner) {
  ScriptedNetwork network(scripts(binary, text, manner));
  const auto client = clientFor(binary, manner.reassembly);
  client->setNumRetries(manner.retries);
  client->setTimeOut(manner.then == Then::Silence ? 100 : 0);
  largestAllocation() = 0;
  const auto outcome = runOver(*client, kind).seen;
  EXPECT_LE(largestAllocation(), boundsOf(binary).allocation);
  EXPECT_LE(outcome.hits.size(), text.size() / boundsOf(binary).bytesOfAHit);
  EXPECT_LE(outcome.parsed.size(), text.size() / boundsOf(binary).bytesOfAHit);
  EXPECT_NE(outcome.errorId, "(no message)");
  // Over binary, a failure that has no id of its own is given this one.
  if (!binary) {
    EXPECT_NE(outcome.errorId, "ERR_CLIENT_INTERNAL");
  }
  EXPECT_FALSE(network.waitedForever());
  EXPECT_LE(network.elapsedMillis(), 200U);
  EXPECT_LE(network.requests(), manner.retries + 1);
  if (manner.retries == 0) expectTheNext(*client, binary);
}

void endureEveryWay(bool binary, int kind, const std::string& text) {
  for (const auto& manner : mannersOf(binary)) endure(binary, kind, text, manner);
}

/// Some bytes of a text that say how long something is.
struct Field {
  std::size_t at;
  std::size_t length;
};

/// A reply in one of its forms.
struct Form {
  std::string description;
  bool binary;
  int kind;
  std::string text;
  std::vector<Field> lengths;
};

std::size_t valueAt(const std::string& text, std::size_t at) {
  std::size_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    value = value * 256 + static_cast<unsigned char>(text[at + i]);
  }
  return value & 0x3FFFFFFF;
}

// Where the length words of the records and of their fields stand in the text of which the body
// begins at `body`.
std::vector<Field> lengthWords(const Reply& reply, std::size_t body) {
  std::vector<Field> words;
  for (std::size_t i = 0; i + 1 < reply.recordStarts.size(); ++i) {
    std::size_t at = reply.recordStarts[i];
    words.push_back({body + at, 4});
    const auto end = at + 4 + valueAt(reply.body, at);
    at += 4;
    while (at < end) {
      words.push_back({body + at, 4});
      at += 4 + valueAt(reply.body, at);
    }
  }
  return words;
}

Form withItsLength(const Reply& reply) {
  const auto text = plain(reply);
  const std::string name = "Content-Length: ";
  const auto at = text.find(name) + name.size();
  auto lengths = lengthWords(reply, text.size() - reply.body.size());
  lengths.push_back({at, text.find("\r\n", at) - at});
  return {reply.name, false, reply.kind, text, lengths};
}

Form inOneChunk(const Reply& reply) {
  const auto form = chunked(reply, 0, true);
  return {reply.name + " in one chunk", false, reply.kind, form.text,
          lengthWords(reply, form.chunks[0].dataBegin)};
}

Form inSmallChunks(const Reply& reply) {
  const auto form = chunked(reply, 16, true);
  std::vector<Field> sizeLines;
  for (std::size_t i = 0; i < std::min<std::size_t>(form.chunks.size(), 3); ++i) {
    // Two digits with their CR LF.
    sizeLines.push_back({form.chunks[i].dataBegin - 4, 4});
  }
  return {reply.name + " in chunks of 16", false, reply.kind, form.text, sizeLines};
}

std::vector<Form> formsOf(const Reply& reply) {
  return {withItsLength(reply), inOneChunk(reply), inSmallChunks(reply)};
}

std::vector<Form> formsOf(const BinaryReply& reply) {
  std::vector<Field> lengths;
  for (const auto at : reply.lengths) lengths.push_back({at, 2});
  return {{reply.name, true, reply.kind, reply.text, lengths}};
}

std::vector<Form> formsOf(const EitherReply& reply) {
  return reply.visit([](const auto& one) { return formsOf(one); });
}

std::string flipped(std::string text, std::size_t bit) {
  text[bit / 8] = static_cast<char>(static_cast<unsigned char>(text[bit / 8]) ^ (1U << (bit % 8)));
  return text;
}

// Every pair of flipped bits of a field, a bit with itself standing for a single one.
void flipPairs(const Form& form, const Field& field) {
  const auto end = (field.at + field.length) * 8;
  for (std::size_t first = field.at * 8; first < end; ++first) {
    for (std::size_t second = first; second < end; ++second) {
      SCOPED_TRACE(form.description + ", bits " + std::to_string(first) + " and " +
                   std::to_string(second));
      auto lie = flipped(form.text, first);
      if (second != first) lie = flipped(lie, second);
      endureEveryWay(form.binary, form.kind, lie);
      if (testing::Test::HasFailure()) return;
    }
  }
}

class LyingReply : public testing::TestWithParam<EitherReply> {};

TEST_P(LyingReply, InAnyTwoBitsOfALengthEnds) {
  for (const auto& form : formsOf(GetParam())) {
    for (const auto& field : form.lengths) {
      flipPairs(form, field);
      if (HasFailure()) return;
    }
  }
}

TEST_P(LyingReply, InAnyOfItsBitsEnds) {
  for (const auto& form : formsOf(GetParam())) {
    for (std::size_t bit = 0; bit < form.text.size() * 8; ++bit) {
      SCOPED_TRACE(form.description + ", bit " + std::to_string(bit));
      endureEveryWay(form.binary, form.kind, flipped(form.text, bit));
      if (HasFailure()) return;
    }
  }
}

std::vector<EitherReply> binaryRepliesWithLengths() {
  std::vector<EitherReply> some;
  for (const auto& reply : binaryReplies()) {
    if (!reply.lengths.empty()) some.emplace_back(reply);
  }
  return some;
}

INSTANTIATE_TEST_SUITE_P(Http, LyingReply,
                         testing::ValuesIn(httpNamed({"StreamSearchWithThreeHits",
                                                      "ScalarSearchWithOneHit",
                                                      "ParseResultWithThreeRows", "GetStatus",
                                                      "Selectivity", "ServerErrorOnStreamSearch"})),
                         testNameOf);
INSTANTIATE_TEST_SUITE_P(Binary, LyingReply, testing::ValuesIn(binaryRepliesWithLengths()),
                         testNameOf);

// Bytes that are no reply.

class Noise : public testing::TestWithParam<bool> {
 protected:
  /// Pieces of replies in any order.
  static std::string httpNoise(std::minstd_rand& random) {
    static const std::vector<std::string> kPieces{"HTTP/1.1 200 OK\r\n",
                                                  "HTTP/1.1 500 No\r\n",
                                                  "Content-Length: ",
                                                  "0",
                                                  "8\r\n",
                                                  "1f",
                                                  "\r\n",
                                                  "\r\n\r\n",
                                                  "Transfer-Encoding: chunked\r\n\r\n"};
    std::string text = random() % 2 == 0 ? kPieces[0] : "";
    for (auto left = random() % 20; left > 0; --left) {
      switch (random() % 3) {
        case 0:
          text += bigEndian(static_cast<std::uint32_t>(random() % 12));
          break;
        case 1:
          text += static_cast<char>(random() % 256);
          break;
        default:
          text += kPieces[random() % kPieces.size()];
      }
    }
    return text;
  }

  /// Mostly small numbers, which statuses and lengths are made of.
  static std::string binaryNoise(unsigned int seed, std::minstd_rand& random) {
    std::string text;
    const auto length = random() % 120;
    for (std::size_t i = 0; i < length; ++i) {
      const auto choice = random() % 4;
      text += static_cast<char>(choice == 0   ? random() % 256
                                : choice == 1 ? random() % 16
                                              : random() % 2);
    }
    if (seed % 2 == 0 && text.size() > 2) text.replace(0, 2, word16(seed % 10 == 0 ? 6 : 1));
    return text;
  }

  static std::string noise(unsigned int seed) {
    std::minstd_rand random(seed);
    return GetParam() ? binaryNoise(seed, random) : httpNoise(random);
  }
};

TEST_P(Noise, Ends) {
  for (unsigned int seed = 1; seed <= 1500; ++seed) {
    for (const int kind : {kCreateCollection, kStreamSearch, kParseResult, kSelectivity, kGetStatus,
                           kScalarSearch, kGetServerVersion}) {
      SCOPED_TRACE("seed " + std::to_string(seed) + ", kind " + std::to_string(kind));
      endureEveryWay(GetParam(), kind, noise(seed));
      ASSERT_FALSE(HasFailure());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Over, Noise, testing::Bool(), [](const auto& over) {
  return std::string(over.param ? "Binary" : "Http");
});

// One protocol's own.

TEST(HostileExchange, OverHttpWithItsLengthRightALyingReplyEndsOnAnOpenConnectionToo) {
  for (const char* name : {"StreamSearchWithThreeHits", "ParseResultWithThreeRows", "GetStatus"}) {
    const auto& reply = replyNamed(name);
    const auto text = plain(reply);
    for (const auto& word : lengthWords(reply, text.size() - reply.body.size())) {
      for (std::size_t bit = word.at * 8; bit < (word.at + word.length) * 8; ++bit) {
        SCOPED_TRACE(reply.name + ", bit " + std::to_string(bit));
        ScriptedNetwork network(answerTo(false, flipped(text, bit)).awaitClose());
        const auto client = clientFor(false);
        runExchange(*client, reply.kind);
        ASSERT_FALSE(network.waitedForever());
        ASSERT_EQ(network.requests(), 1U);
      }
    }
  }
}

TEST(HostileExchange, OverHttpAllocatesNothingForWhatIsOnlyAnnounced) {
  const std::string start = "HTTP/1.1 200 OK\r\n";
  const std::string first = "    " + bigEndian(900000000);
  const std::vector<std::string> announcements{
      start + "Content-Length: 1073741824\r\n\r\n",
      start + "Content-Length: 1073741824\r\n\r\n" + first,
      start + "Transfer-Encoding: chunked\r\n\r\n40000000\r\n",
      start + "Transfer-Encoding: chunked\r\n\r\n40000000\r\n" + first,
      start + "Transfer-Encoding: chunked\r\n\r\n8\r\n" + first,
      start + "Transfer-Encoding: chunked\r\n\r\n8\r\n" + first + "\r\n40000000\r\nabc",
  };
  for (const auto& text : announcements) {
    for (const int kind : {kStreamSearch, kParseResult, kGetStatus, kScalarSearch, kUpdateIndex}) {
      ScriptedNetwork network(answerTo(false, text));
      const auto client = clientFor(false);
      largestAllocation() = 0;
      const auto outcome = runExchange(*client, kind);
      EXPECT_LT(largestAllocation().load(), kHttpBounds.allocation) << text << kind;
      EXPECT_TRUE(outcome.hits.empty());
    }
  }
}

TEST(HostileExchange, OverHttpMemoryGrowsWithTheBytesThatArrive) {
  // Three megabytes of one gigabyte come.
  const std::string text =
      "HTTP/1.1 200 OK\r\nContent-Length: 1000000000\r\n\r\n    " + std::string(3000000, 'x');
  ScriptedNetwork network(answerTo(false, text, 100000));
  const auto client = clientFor(false);
  client->setNumRetries(0);
  largestAllocation() = 0;
  EXPECT_EQ(runExchange(*client, kStreamSearch).errorId, "ERR_SERVER_COMM_RECV");
  EXPECT_LT(largestAllocation().load(), 4 * text.size());
}

TEST(HostileExchange, AnEndlessBinaryStreamOfNothingIsRefusedAndNotHoarded) {
  // Nothing of it can be taken: an envelope that never becomes whole, because it says so itself.
  std::string nothing;
  for (int i = 0; i < 100000; ++i) nothing += envelope(9, "");
  for (const int kind : {kStreamSearch, kSelectivity}) {
    for (const bool reassembly : {false, true}) {
      SCOPED_TRACE(kind);
      const std::string record =
          kind == kSelectivity ? envelope(1, estimate(1, 2, 3)) : plainHit("hit");
      ScriptedNetwork network(answerTo(true, kOk + record + nothing, 16384));
      const auto client = clientFor(true, reassembly);
      largestAllocation() = 0;
      const auto outcome = runOver(*client, kind);
      EXPECT_LE(largestAllocation(), kBinaryBounds.allocation);
      EXPECT_EQ(outcome.seen.errorId, "ERR_CLIENT_RESP_PARSING");
      EXPECT_EQ(outcome.seen.hits.size(), kind == kSelectivity ? 0U : 1U);
      EXPECT_FALSE(network.waitedForever());
    }
  }
}

TEST(HostileExchange, AnAnswerOfTheHttpProtocolIsRefusedOverBinary) {
  for (const int kind : {kCreateCollection, kStreamSearch, kParseResult, kSelectivity, kGetStatus,
                         kScalarSearch, kGetServerVersion}) {
    ScriptedNetwork network(answerTo(true, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
    const auto client = clientFor(true);
    const auto outcome = runOver(*client, kind);
    EXPECT_EQ(outcome.seen.errorId, "ERR_SERVER_PROTOCOL");
    EXPECT_EQ(outcome.errorLine, 272U);
    EXPECT_EQ(network.requests(), 1U);
  }
}

}  // namespace
