#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>

#include "comm/kruClientResponse.h"
#include "comm/kruConversionCache.h"
#include "comm/kruDrestoPerfResponse.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTMessage.h"
#include "comm/kruRESTResponse.h"
#include "infra/oss/kruNLSException.h"
#include "tests/comm/kruCommText.h"
#include "tests/comm/kruScarceMemory.h"
#include "tests/support/scarceTexts.h"

namespace tq::comm {
namespace {

// Runs `work` with 0, 1, 2... allocations granted until it gets through; each try before must end
// by bad_alloc and nothing else. Returns how many failed.
template <typename Work>
int triesUntilItSucceeds(Work work) {
  for (int granted = 0; granted < 1000; ++granted) {
    try {
      const test::RationedAllocations ration(granted);
      work();
      return granted;
    } catch (const std::bad_alloc&) {
      continue;
    }
  }
  ADD_FAILURE() << "never got through";
  return -1;
}

TEST(ScarceMemory, ARequestAndItsMessageEitherComeOffOrThrow) {
  RESTMessage::initUrls();
  const tq::util::ExtendedProperties props = test::properties({{"query", "x"}, {"a", "b"}});
  const std::list<KVPair> metadata{{u"a", u"b"}, {u"c", u"d"}};
  EXPECT_LT(2, triesUntilItSucceeds([&] {
              ClientRequest request;
              request.buildRequest(u"c1", ClientRequest::ADD_DOCUMENT, props);
              request.setDocKey("k", 1);
              request.setContent(metadata, "content", 7);
              RESTMessage message(u"server", request);
              message.getSerializedHeader();
            }));
}

int lookUpAndMeasureWithoutMemory() {
  const test::RationedAllocations ration(0);
  const bool found = ConversionCache::find(u"nobody has added this") != nullptr;
  return !found && ConversionCache::lengthOf(u"two") == 3 ? 0 : 1;
}

// In a process of its own, since only the first use could need memory.
TEST(ScarceMemoryDeathTest, TheFirstLookIntoTheConversionCacheTakesNone) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(std::exit(lookUpAndMeasureWithoutMemory()), testing::ExitedWithCode(0), "");
}

TEST(ScarceMemory, AHitThatCouldNotBeAddedIsNotCounted) {
  SearchResult hit(true);
  hit.parseRecordNew("key", 3, 1);
  ClientResponse response;
  EXPECT_LT(0, triesUntilItSucceeds([&] { response.addSearchResult(hit); }));
  EXPECT_EQ(1, response.getResultCount());
  EXPECT_EQ(1U, response.getSearchResponse().count());
  EXPECT_EQ("base64:a2V5", test::utf8(response.getSearchResponse().getNext().getDocId()));
}

TEST(ScarceMemory, AHitThatCouldNotBeParsedCanBeParsedAgain) {
  SearchResult hit(true);
  const std::string key(100, 'k');
  EXPECT_EQ(1, triesUntilItSucceeds([&] { hit.parseRecordNew(key.data(), 100, 1); }));
  EXPECT_EQ(key, std::string(hit.getKey(), hit.getKeyLen()));
}

TEST(ScarceMemory, ARecordThatCouldNotBeParsedCanBeParsedAgain) {
  const std::string bytes = test::record32({{"Doc", "k"}, {"MsgId", "ZVK1"}, {"MsgText", "text"}});
  ParseResult result(false);
  EXPECT_LT(2, triesUntilItSucceeds([&] {
              result.parseRecord(bytes.data(), static_cast<unsigned int>(bytes.size()));
            }));
  EXPECT_EQ("ZVK1", test::utf8(result.getMessage().getMessageId()));
}

// A record without an id leaves the general message; one that could not be decoded is none such.
TEST(ScarceMemory, AnErrorRecordThatCouldNotBeDecodedIsNotTakenForOneWithoutAnId) {
  const test::Fields fields{{"MsgId", "ZVK0001E"}, {"MsgText", std::string(1000, 't')}};
  const std::string wide = test::record32(fields);
  const std::string overHttp = test::word32(static_cast<std::uint32_t>(wide.size())) + wide;
  const std::string narrow = test::record16(fields);
  const std::string binary = test::word16(static_cast<std::uint16_t>(narrow.size())) + narrow;
  RESTResponse httpParser(ClientRequest::STREAM_SEARCH, false);
  DrestoPerfResponse binaryParser(ClientRequest::STREAM_SEARCH, true);
  RESTException error(true);
  const tq::test::ScarceTexts none;
  EXPECT_THROW(
      httpParser.parseErrorMessage(overHttp.data(), static_cast<int>(overHttp.size()), error),
      tq::oss::NLSException);
  EXPECT_THROW(
      binaryParser.parseErrorMessage(binary.data(), static_cast<int>(binary.size()), error),
      tq::oss::NLSException);
}

TEST(ScarceMemory, AnExceptionIsCopiedWholeOrNotAtAll) {
  RESTException error(true);
  error.getProperties()->putProperty(u"a", u"b");
  error.getMessageList().add(tq::oss::Message(u"id", u"text"));
  EXPECT_LT(1, triesUntilItSucceeds([&] {
              // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): copying is tested
              const RESTException copy(error);
              EXPECT_EQ(1U, copy.getMessageList().size());
            }));
}

}  // namespace
}  // namespace tq::comm
