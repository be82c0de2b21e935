#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <semaphore>
#include <thread>

#include "comm/kruConversionCache.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruGenRespRecord.h"
#include "comm/kruMessageTables.h"
#include "comm/kruRESTMessage.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruTrace.h"
#include "tests/comm/kruCommText.h"
#include "tests/comm/kruScarceMemory.h"
#include "tests/support/forkedChild.h"

namespace tq::comm {
namespace {

using test::utf16;

// A host that asks the library for a word while the library builds its tables.
class CuriousHost : public tq::oss::TraceFacility {
 public:
  CuriousHost() { tq::oss::setTraceFacility(this); }
  ~CuriousHost() override { tq::oss::setTraceFacility(nullptr); }

  unsigned long getComponentTraceFlags(unsigned int) override { return 1; }
  void traceEntry(unsigned int functionId) override {
    if (functionId != trace::GenRespRecordAddStringToConversionCache) return;
    ++additions;
    if (asking_) return;
    asking_ = true;
    RESTMessage::initUrls();
    ++answers;
    asking_ = false;
  }
  void traceExit(unsigned int, long) override {}

  int answers = 0;
  int additions = 0;

 private:
  bool asking_ = false;
};

int fillTablesWithACuriousHost() {
  const CuriousHost host;
  RESTMessage::initUrls();
  const bool filled = RESTMessage::getAction(ClientRequest::STREAM_SEARCH) == u"search";
  // One for each text, "UTF-8" twice: as a frequent value and as a word of the protocol. A call
  // that had filled the tables once more would have added the texts again.
  return host.answers == host.additions && host.additions == 61 && filled ? 0 : 1;
}

// In a process of its own, since only the first use of the tables fills them.
TEST(MessageTablesDeathTest, ACallFromWithinTheFillingReturnsAtOnce) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(std::exit(fillTablesWithACuriousHost()), testing::ExitedWithCode(0), "");
}

// A host that forks while one of its threads makes its first message.
class StoppingHost : public tq::oss::TraceFacility {
 public:
  StoppingHost() { tq::oss::setTraceFacility(this); }
  ~StoppingHost() override { tq::oss::setTraceFacility(nullptr); }
  StoppingHost(const StoppingHost&) = delete;
  StoppingHost& operator=(const StoppingHost&) = delete;

  unsigned long getComponentTraceFlags(unsigned int) override { return 1; }
  void traceEntry(unsigned int functionId) override {
    if (functionId != trace::GenRespRecordAddStringToConversionCache || stopped_) return;
    stopped_ = true;
    inTheMiddle.release();
    goOn.acquire();
  }
  void traceExit(unsigned int, long) override {}

  std::binary_semaphore inTheMiddle{0};
  std::binary_semaphore goOn{0};

 private:
  std::atomic<bool> stopped_{false};
};

int forkInTheMiddleOfTheFilling() {
  StoppingHost host;
  std::thread filling([] { RESTMessage::initUrls(); });
  host.inTheMiddle.acquire();
  const bool filled = tq::test::holdsInChild([] {
    // A child that waits for a thread it does not have is ended.
    ::alarm(20);
    RESTMessage::initUrls();
    return RESTMessage::getAction(ClientRequest::STREAM_SEARCH) == u"search" &&
           ConversionCache::find(u"system") != nullptr;
  });
  host.goOn.release();
  filling.join();
  return filled && RESTMessage::getAction(ClientRequest::STREAM_SEARCH) == u"search" ? 0 : 1;
}

TEST(MessageTablesDeathTest, AChildThatIsForkedInTheMiddleOfTheFillingFillsItsOwn) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(std::exit(forkInTheMiddleOfTheFilling()), testing::ExitedWithCode(0), "");
}

int fillTablesWithTooLittleMemory() {
  int failures = 0;
  for (const long granted : {0L, 1L, 20L, 100L}) {
    try {
      const test::RationedAllocations ration(granted);
      RESTMessage::initUrls();
    } catch (const std::bad_alloc&) {
      ++failures;
    }
  }
  RESTMessage::initUrls();
  const bool filled =
      RESTMessage::getAction(ClientRequest::VERSIONS_VALIDATION) == u"versionsValidation" &&
      ConversionCache::find(u"system") != nullptr &&
      MessageTables::ensure().utf8DocData() == "data";
  return failures >= 3 && filled ? 0 : 1;
}

TEST(MessageTablesDeathTest, AFillingThatFailedIsDoneAgainByTheNextCall) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(std::exit(fillTablesWithTooLittleMemory()), testing::ExitedWithCode(0), "");
}

TEST(MessageTables, RegisterTheFrequentTextsWithTheConversionCache) {
  RESTMessage::initUrls();
  const char* const texts[] = {"text/plain",
                               "UTF-8",
                               "en_US",
                               "en",
                               "en-us",
                               "index",
                               "docId",
                               "rowId",
                               "data",
                               "collectionName",
                               "dataDir",
                               "action",
                               "actionType",
                               "conPersist",
                               "useQueue",
                               "mode",
                               "output",
                               "authToken",
                               "Authorization",
                               "docType",
                               "KnownContentType",
                               "opcode",
                               "scope",
                               "colConfig",
                               "colData",
                               "incremental",
                               "checkVersion",
                               "dbName",
                               "tabName",
                               "tabUID",
                               "tabPassword",
                               "dbHost",
                               "dbPort",
                               "ver",
                               "1.1",
                               "start",
                               "size",
                               "query",
                               "mimeType",
                               "docLang",
                               "fallbackLanguage",
                               "KnownLanguage",
                               "charset",
                               "KnownCharset",
                               "dataSourceType",
                               "dataSourceName",
                               "locale",
                               "queryLang",
                               "en_us",
                               "scoreType",
                               "resultLimit",
                               "scoreWanted",
                               "scalar",
                               "streaming",
                               "selectivity",
                               "rdx",
                               "Basic",
                               "collection",
                               "system"};
  for (const char* text : texts) {
    const tq::oss::UTF8String* cached = ConversionCache::find(utf16(text));
    ASSERT_NE(nullptr, cached) << text;
    EXPECT_EQ(text, cached->view());
  }
}

TEST(MessageTables, BothSpellingsOfTheDefaultLanguageAreRegistered) {
  RESTMessage::initUrls();
  EXPECT_NE(nullptr, ConversionCache::find(u"en_US"));
  EXPECT_NE(nullptr, ConversionCache::find(StaticDefs::PARAM_DEFAULT_LANGUAGE));
}

TEST(MessageTables, HoldTheTagsOfADocumentBlock) {
  EXPECT_EQ("rowId", MessageTables::ensure().utf8RowId());
  EXPECT_EQ("data", MessageTables::ensure().utf8DocData());
}

TEST(ConversionCache, GivesNothingForATextThatNobodyAdded) {
  EXPECT_EQ(nullptr, ConversionCache::find(u"never added"));
  EXPECT_EQ(11U, ConversionCache::lengthOf(u"never added"));
}

TEST(ConversionCache, KeepsTheFirstFormOfATextThatIsAddedAgain) {
  ConversionCache::add(u"twice \u20ac");
  const tq::oss::UTF8String* first = ConversionCache::find(u"twice \u20ac");
  ConversionCache::add(u"twice \u20ac");
  EXPECT_EQ(first, ConversionCache::find(u"twice \u20ac"));
  ASSERT_NE(nullptr, first);
  EXPECT_EQ("twice \xE2\x82\xAC", first->view());
  EXPECT_EQ(9U, ConversionCache::lengthOf(u"twice \u20ac"));
}

TEST(ConversionCache, TellsTextsApartThatShareLengthAndLetters) {
  ConversionCache::add(u"abcde");
  ConversionCache::add(u"aXcYe");
  ASSERT_NE(nullptr, ConversionCache::find(u"abcde"));
  ASSERT_NE(nullptr, ConversionCache::find(u"aXcYe"));
  EXPECT_EQ("abcde", ConversionCache::find(u"abcde")->view());
  EXPECT_EQ("aXcYe", ConversionCache::find(u"aXcYe")->view());
  EXPECT_EQ(nullptr, ConversionCache::find(u"aZcZe"));
}

TEST(ConversionCache, HoldsTheEmptyText) {
  ConversionCache::add(u"");
  ASSERT_NE(nullptr, ConversionCache::find(u""));
  EXPECT_EQ(0U, ConversionCache::find(u"")->length());
}

}  // namespace
}  // namespace tq::comm
