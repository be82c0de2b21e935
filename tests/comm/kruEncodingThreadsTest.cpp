#include <gtest/gtest.h>

#include <barrier>
#include <thread>

#include "comm/kruClientResponse.h"
#include "comm/kruConversionCache.h"
#include "comm/kruGenRespRecord.h"
#include "comm/kruRESTMessage.h"
#include "tests/comm/kruCommText.h"
#include "tests/support/slowHeader.h"

namespace tq::comm {
namespace {

constexpr int kThreads = 8;

// Runs `work(number)` on several threads that begin together.
template <typename Work>
void onThreads(Work work) {
  std::barrier start(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      work(i);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(EncodingThreads, TheFirstMessagesOfAProcessMayBeBuiltAtTheSameTime) {
  std::vector<std::string> headers(kThreads);
  onThreads([&](int i) {
    ClientRequest request;
    request.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, {});
    RESTMessage message(u"server", request);
    headers[static_cast<std::size_t>(i)] = message.getSerializedHeader();
  });
  for (const std::string& header : headers) {
    EXPECT_EQ(
        "Content-Length  : \naction: search\nactionType: select\nindex: c1\nmode: streaming\n"
        "ver: 1.1\n\r\n",
        header);
  }
}

TEST(EncodingThreads, OneRequestMayBeMadeIntoMessagesAndCopiedAtTheSameTime) {
  constexpr int kMessages = 50;
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, {});
  std::vector<int> wrong(kThreads, 0);
  onThreads([&](int i) {
    for (int n = 0; n < kMessages; ++n) {
      ClientRequest copy(request);
      RESTMessage message(u"server", i % 2 == 0 ? request : copy);
      const std::string header = message.getSerializedHeader();
      if (header != test::slowHeader(request, "")) ++wrong[static_cast<std::size_t>(i)];
    }
  });
  EXPECT_EQ(std::vector<int>(kThreads, 0), wrong);
}

TEST(EncodingThreads, PairsMayBeWrittenWhileTheCacheGrows) {
  const std::string expected = test::unhex("00 00 00 01 61 00 00 00 02 62 63");
  std::vector<int> wrong(kThreads, 0);
  onThreads([&](int i) {
    for (int n = 0; n < 500; ++n) {
      if (i % 2 == 0) {
        GenRespRecord::AddStringToConversionCache(test::utf16("text " + std::to_string(n)));
      }
      char out[32];
      unsigned int written = 0;
      GenRespRecord::serializeKVPair(out, {u"a", u"bc"}, written);
      if (std::string(out, written) != expected) ++wrong[static_cast<std::size_t>(i)];
    }
  });
  EXPECT_EQ(std::vector<int>(kThreads, 0), wrong);
  for (int n = 0; n < 500; ++n) {
    const std::string text = "text " + std::to_string(n);
    ASSERT_NE(nullptr, ConversionCache::find(test::utf16(text)));
    EXPECT_EQ(text, ConversionCache::find(test::utf16(text))->view());
  }
}

TEST(EncodingThreads, CopiesOfAHitMayBeReadOnOtherThreads) {
  SearchResult hit(true);
  hit.parseRecordNew("key", 3, 1);
  const std::vector<SearchResult> copies(kThreads, hit);
  std::vector<std::string> ids(kThreads);
  onThreads([&](int i) {
    const auto at = static_cast<std::size_t>(i);
    if (i == 0) {
      for (int n = 0; n < 1000; ++n) hit.parseRecordNew("another key", 11, 1);
    }
    ids[at] = test::utf8(copies[at].getDocId()) + std::string(copies[at].getKey(), 3);
  });
  for (const std::string& id : ids) EXPECT_EQ("base64:a2V5key", id);
}

}  // namespace
}  // namespace tq::comm
