// Replies with wrong length words. Whatever they say, an exchange ends with results or with an
// error of the library, and allocates little more than has arrived.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/comm/largestAllocation.h"
#include "tests/support/exchange.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/script.h"
#include "tests/support/scriptedNetwork.h"

namespace {

using namespace tq::test;
using tq::comm::CorvaneRESTClient;

// The receive buffer and the reply buffers; far below anything that a lying length word announces.
constexpr std::size_t kAllowance = std::size_t{1} << 20;

struct Field {
  std::size_t at;
  std::size_t length;
};

// Where the length words of the records and of their fields stand in the body.
std::vector<Field> lengthWords(const Reply& reply) {
  std::vector<Field> words;
  const auto read = [&](std::size_t at) {
    std::size_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
      value = value * 256 + static_cast<unsigned char>(reply.body[at + i]);
    }
    return value & 0x3FFFFFFF;
  };
  for (std::size_t i = 0; i + 1 < reply.recordStarts.size(); ++i) {
    std::size_t at = reply.recordStarts[i];
    words.push_back({at, 4});
    const auto end = at + 4 + read(at);
    at += 4;
    while (at < end) {
      words.push_back({at, 4});
      at += 4 + read(at);
    }
  }
  return words;
}

std::string flipped(std::string text, const Field& field, std::size_t bit) {
  const auto byte = field.at + bit / 8;
  text[byte] = static_cast<char>(static_cast<unsigned char>(text[byte]) ^ (1U << (bit % 8)));
  return text;
}

// Runs the exchange against a peer that closes after the reply.
void expectAnEnd(const Reply& reply, const std::string& text) {
  ScriptedNetwork network(Script().expectRequest().send(text));
  CorvaneRESTClient client(u"127.0.0.1", 7, true);
  largestAllocation() = 0;
  const auto outcome = runExchange(client, reply.kind);
  EXPECT_LT(largestAllocation().load(), kAllowance);
  EXPECT_FALSE(network.waitedForever());
  EXPECT_LE(network.requests(), 2U) << "one retry at most";
  EXPECT_LE(outcome.hits.size(), text.size() / 8) << "more hits than could have come";
  if (!outcome.errorId.empty()) {
    EXPECT_NE(outcome.errorId, "(no message)");
    EXPECT_NE(outcome.errorId, "ERR_CLIENT_INTERNAL");
  }
}

// Every pair of flipped bits of a field, a bit with itself standing for a single one.
void flipPairs(const Reply& reply, const std::string& text, const Field& field) {
  const auto bits = field.length * 8;
  for (std::size_t first = 0; first < bits; ++first) {
    for (std::size_t second = first; second < bits; ++second) {
      SCOPED_TRACE(reply.name + ", word at " + std::to_string(field.at) + ", bits " +
                   std::to_string(first) + " and " + std::to_string(second));
      auto lie = flipped(text, field, first);
      if (second != first) lie = flipped(lie, field, second);
      expectAnEnd(reply, lie);
      if (testing::Test::HasFailure()) return;
    }
  }
}

class LyingReply : public testing::TestWithParam<const char*> {};

TEST_P(LyingReply, InItsRecordsWithALengthEnds) {
  const auto& reply = replyNamed(GetParam());
  const auto text = plain(reply);
  const auto body = text.size() - reply.body.size();
  for (const auto& word : lengthWords(reply)) {
    flipPairs(reply, text, {body + word.at, word.length});
    if (HasFailure()) return;
  }
}

TEST_P(LyingReply, InItsRecordsInOneChunkEnds) {
  const auto& reply = replyNamed(GetParam());
  const auto form = chunked(reply, 0, true);
  for (const auto& word : lengthWords(reply)) {
    flipPairs(reply, form.text, {form.chunks[0].dataBegin + word.at, word.length});
    if (HasFailure()) return;
  }
}

TEST_P(LyingReply, InItsContentLengthEnds) {
  const auto& reply = replyNamed(GetParam());
  const auto text = plain(reply);
  const std::string name = "Content-Length: ";
  const auto at = text.find(name) + name.size();
  flipPairs(reply, text, {at, text.find("\r\n", at) - at});
}

TEST_P(LyingReply, InItsChunkSizesEnds) {
  const auto& reply = replyNamed(GetParam());
  const auto form = chunked(reply, 16, true);
  for (std::size_t i = 0; i < std::min<std::size_t>(form.chunks.size(), 3); ++i) {
    // The size line with its CR LF.
    const auto begin = form.chunks[i].dataBegin - 4;
    flipPairs(reply, form.text, {begin, 4});
    if (HasFailure()) return;
  }
}

TEST_P(LyingReply, InEachOfItsBitsEnds) {
  const auto& reply = replyNamed(GetParam());
  for (const auto& text : {plain(reply), chunked(reply, 16, true).text}) {
    for (std::size_t bit = 0; bit < text.size() * 8; ++bit) {
      SCOPED_TRACE(reply.name + ", bit " + std::to_string(bit));
      expectAnEnd(reply, flipped(text, {0, text.size()}, bit));
      if (HasFailure()) return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Corpus, LyingReply,
                         testing::Values("StreamSearchWithThreeHits", "ScalarSearchWithOneHit",
                                         "ParseResultWithThreeRows", "GetStatus", "Selectivity",
                                         "ServerErrorOnStreamSearch"),
                         [](const auto& test) { return std::string(test.param); });

TEST(HostileExchange, WithItsLengthRightALyingReplyEndsOnAnOpenConnectionToo) {
  for (const char* name : {"StreamSearchWithThreeHits", "ParseResultWithThreeRows", "GetStatus"}) {
    const auto& reply = replyNamed(name);
    const auto text = plain(reply);
    const auto body = text.size() - reply.body.size();
    for (const auto& word : lengthWords(reply)) {
      for (std::size_t bit = 0; bit < 32; ++bit) {
        SCOPED_TRACE(reply.name + ", word at " + std::to_string(word.at) + ", bit " +
                     std::to_string(bit));
        ScriptedNetwork network(
            Script().expectRequest().send(flipped(text, {body + word.at, 4}, bit)).awaitClose());
        CorvaneRESTClient client(u"127.0.0.1", 7, true);
        runExchange(client, reply.kind);
        ASSERT_FALSE(network.waitedForever());
        ASSERT_EQ(network.requests(), 1U);
      }
    }
  }
}

TEST(HostileExchange, AllocatesNothingForWhatIsOnlyAnnounced) {
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
    for (const int kind : {8, 11, 15, 20, 4}) {
      ScriptedNetwork network(Script().expectRequest().send(text));
      CorvaneRESTClient client(u"127.0.0.1", 7, true);
      largestAllocation() = 0;
      const auto outcome = runExchange(client, kind);
      EXPECT_LT(largestAllocation().load(), kAllowance) << text << kind;
      EXPECT_TRUE(outcome.hits.empty());
    }
  }
}

TEST(HostileExchange, MemoryGrowsWithTheBytesThatArrive) {
  // Three megabytes of one gigabyte come.
  const std::string text =
      "HTTP/1.1 200 OK\r\nContent-Length: 1000000000\r\n\r\n    " + std::string(3000000, 'x');
  ScriptedNetwork network(Script().expectRequest().send(text, 100000));
  CorvaneRESTClient client(u"127.0.0.1", 7, true);
  client.setNumRetries(0);
  largestAllocation() = 0;
  EXPECT_EQ(runExchange(client, kStreamSearch).errorId, "ERR_SERVER_COMM_RECV");
  EXPECT_LT(largestAllocation().load(), 4 * text.size());
}

}  // namespace
