#include <gtest/gtest.h>

#include "comm/kruClientResponse.h"
#include "comm/kruHitFiller.h"
#include "comm/kruRESTException.h"
#include "comm/kruSearchResult.h"
#include "infra/oss/kruNLSException.h"
#include "infra/util/kruBase64.h"
#include "tests/comm/kruCommText.h"

namespace tq::comm {
namespace {

using test::record32;
using test::utf8;

std::string keyOf(const SearchResult& hit) { return {hit.getKey(), hit.getKeyLen()}; }

int parseCompact(SearchResult& hit, const std::string& bytes, unsigned short type) {
  return hit.parseRecordNew(bytes.data(), static_cast<unsigned short>(bytes.size()), type);
}

void parseNamed(SearchResult& hit, const test::Fields& fields) {
  const std::string bytes = record32(fields);
  hit.parseRecord(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

std::string idOf(const std::string& key) {
  std::string encoded(tq::util::Base64::encodeSize(key.size()), '\0');
  tq::util::Base64::encode(key.data(), key.size(), encoded.data());
  return "base64:" + encoded;
}

TEST(SearchResult, HasNoKeyNoIdAndNoScoreAtFirst) {
  const SearchResult hit(true);
  EXPECT_EQ(nullptr, hit.getKey());
  EXPECT_EQ(0U, hit.getKeyLen());
  EXPECT_EQ(0.0, hit.getScore());
  EXPECT_TRUE(hit.getDocId().isEmpty());
  EXPECT_NE(nullptr, hit.getProperties());
  EXPECT_EQ(nullptr, SearchResult(false).getProperties());
}

TEST(SearchResult, ACompactHitHasAScoreInThousandthsAndTheRestAsItsKey) {
  const std::pair<const char*, double> scores[] = {
      {"00 00 6b 31", 0.0}, {"00 01 6b 31", 0.001}, {"03 e8 6b 31", 1.0}, {"ff ff 6b 31", 65.535}};
  for (const auto& [bytes, score] : scores) {
    SearchResult hit(true);
    EXPECT_EQ(0, parseCompact(hit, test::unhex(bytes), 5));
    EXPECT_DOUBLE_EQ(score, hit.getScore());
    EXPECT_EQ("k1", keyOf(hit));
    EXPECT_EQ("base64:azE=", utf8(hit.getDocId()));
  }
}

TEST(SearchResult, ACompactHitOfTwoBytesHasAnEmptyKey) {
  SearchResult hit(true);
  parseCompact(hit, test::unhex("01 f4"), 5);
  EXPECT_DOUBLE_EQ(0.5, hit.getScore());
  EXPECT_EQ(0U, hit.getKeyLen());
  EXPECT_NE(nullptr, hit.getKey());
  EXPECT_EQ("base64:", utf8(hit.getDocId()));
}

TEST(SearchResult, ACompactHitTooShortForItsScoreKeepsTheOldOne) {
  SearchResult hit(true);
  parseCompact(hit, test::unhex("03 e8 6b"), 5);
  for (const char* bytes : {"", "01"}) {
    EXPECT_EQ(0, parseCompact(hit, test::unhex(bytes), 5));
    EXPECT_DOUBLE_EQ(1.0, hit.getScore());
    EXPECT_EQ("base64:", utf8(hit.getDocId()));
  }
}

TEST(SearchResult, AnyOtherTypeIsAllKeyAndLeavesTheScoreOfTheHitBefore) {
  SearchResult hit(true);
  parseCompact(hit, test::unhex("03 e8 6b"), 5);
  for (const int number : {0, 1, 4, 6, 9, 65535}) {
    const auto type = static_cast<unsigned short>(number);
    EXPECT_EQ(0, parseCompact(hit, test::unhex("00 05 6b"), type));
    EXPECT_EQ(test::unhex("00 05 6b"), keyOf(hit)) << type;
    EXPECT_DOUBLE_EQ(1.0, hit.getScore()) << type;
  }
}

TEST(SearchResult, ACompactHitIsNotTakenFromTheProperties) {
  SearchResult hit(true);
  hit.getProperties()->putProperty(u"URI", u"from the properties");
  parseCompact(hit, "k", 1);
  EXPECT_EQ("base64:aw==", utf8(hit.getDocId()));
}

TEST(SearchResult, KeysOfEveryLengthHaveTheirIdWhateverRoomItNeeds) {
  SearchResult hit(true);
  for (const std::size_t length :
       {0U, 1U, 2U, 3U, 16U, 128U, 384U, 385U, 386U, 387U, 1000U, 65535U}) {
    std::string key(length, '\0');
    for (std::size_t i = 0; i < length; ++i) key[i] = static_cast<char>((i * 7) & 0xFF);
    parseCompact(hit, key, 1);
    EXPECT_EQ(key, keyOf(hit)) << length;
    EXPECT_EQ(idOf(key), utf8(hit.getDocId())) << length;
  }
}

TEST(SearchResult, ABogusTextBecomesValidWhenAnIdIsMade) {
  icu::UnicodeString out(u"old");
  out.setToBogus();
  SearchResult::docIdToB64("abc", 3, out);
  EXPECT_FALSE(out.isBogus());
  EXPECT_EQ("base64:YWJj", utf8(out));
}

TEST(SearchResult, AnIdReplacesTheWholeText) {
  icu::UnicodeString out(u"a text that is longer than the id");
  SearchResult::docIdToB64("", 0, out);
  EXPECT_EQ("base64:", utf8(out));
}

TEST(SearchResult, AnIdLongerThanAnyTextIsRefusedBeforeTheKeyIsRead) {
  // The second gives a length that an int holds and a text does not.
  for (const unsigned int length : {0xFFFFFFFFU, 1610612730U}) {
    icu::UnicodeString out;
    EXPECT_THROW(SearchResult::docIdToB64("x", length, out), tq::oss::NLSException) << length;
  }
}

TEST(SearchResult, ANamedHitTakesIdAndScoreAndHasNoKey) {
  SearchResult hit(true);
  hit.setKey("old", 3);
  parseNamed(hit, {{"URI", "base64:YQ=="}, {"SCORE", "12.5"}});
  EXPECT_EQ("base64:YQ==", utf8(hit.getDocId()));
  EXPECT_DOUBLE_EQ(12.5, hit.getScore());
  EXPECT_EQ(nullptr, hit.getKey());
}

TEST(SearchResult, AScoreThatIsAbsentOrEmptyIsZero) {
  SearchResult absent(true);
  parseNamed(absent, {{"URI", "a"}});
  EXPECT_EQ(0.0, absent.getScore());
  SearchResult empty(true);
  parseCompact(empty, test::unhex("03 e8 6b"), 5);
  parseNamed(empty, {{"URI", "a"}, {"SCORE", ""}});
  EXPECT_EQ(0.0, empty.getScore());
}

TEST(SearchResult, ANamedHitWithoutAnIdIsAnError) {
  SearchResult hit(true);
  try {
    parseNamed(hit, {{"SCORE", "1"}});
    FAIL() << "no exception";
  } catch (const tq::oss::NLSException& error) {
    EXPECT_EQ("URI", utf8(error.getMessageList().front().getArguments().at(0)));
  }
}

TEST(SearchResult, ResetWithoutPropertiesIsAnErrorToo) {
  SearchResult hit(false);
  EXPECT_THROW(hit.reset(), tq::oss::NLSException);
}

TEST(SearchResult, ANamedHitReplacesTheIdOfACompactOne) {
  SearchResult hit(true);
  parseCompact(hit, "k", 1);
  parseNamed(hit, {{"URI", "named"}});
  EXPECT_EQ("named", utf8(hit.getDocId()));
  parseCompact(hit, "k", 1);
  EXPECT_EQ("base64:aw==", utf8(hit.getDocId()));
}

TEST(SearchResult, CopiesShareTheKeyAndHaveNoProperties) {
  SearchResult hit(true);
  parseCompact(hit, test::unhex("03 e8 6b 65 79"), 5);
  const SearchResult copy(hit);
  SearchResult assigned(false);
  assigned = hit;
  for (const SearchResult* one : {&copy, const_cast<const SearchResult*>(&assigned)}) {
    EXPECT_EQ(hit.getKey(), one->getKey());
    EXPECT_EQ(3U, one->getKeyLen());
    EXPECT_DOUBLE_EQ(1.0, one->getScore());
    EXPECT_EQ("base64:a2V5", utf8(one->getDocId()));
    EXPECT_EQ(nullptr, one->getProperties());
  }
}

TEST(SearchResult, CopiesOfANamedHitHaveItsId) {
  SearchResult hit(true);
  parseNamed(hit, {{"URI", "named"}});
  const SearchResult copy(hit);
  SearchResult assigned(false);
  assigned = hit;
  EXPECT_EQ("named", utf8(copy.getDocId()));
  EXPECT_EQ("named", utf8(assigned.getDocId()));
}

TEST(SearchResult, FreeingAKeyLeavesCopiesTheirKeyAndEverybodyTheirId) {
  SearchResult hit(true);
  parseCompact(hit, test::unhex("03 e8 6b 65 79"), 5);
  const SearchResult copy(hit);
  hit.freeKey();
  EXPECT_EQ(nullptr, hit.getKey());
  EXPECT_EQ("base64:a2V5", utf8(hit.getDocId()));
  EXPECT_EQ("key", keyOf(copy));
  EXPECT_EQ("base64:a2V5", utf8(copy.getDocId()));
  hit.freeKey();
  EXPECT_EQ(nullptr, hit.getKey());
}

TEST(SearchResult, ANewKeyLeavesCopiesTheOldOne) {
  SearchResult hit(false);
  hit.setKey("first", 5);
  const SearchResult copy(hit);
  hit.setKey("second", 6);
  EXPECT_EQ("first", keyOf(copy));
  EXPECT_EQ("second", keyOf(hit));
}

TEST(SearchResult, ACopyOutlivesTheHitItWasMadeFrom) {
  SearchResult copy(false);
  {
    SearchResult hit(true);
    parseCompact(hit, "key", 1);
    copy = hit;
  }
  EXPECT_EQ("key", keyOf(copy));
  EXPECT_EQ("base64:a2V5", utf8(copy.getDocId()));
}

TEST(SearchResult, ANullKeyHasNoLength) {
  SearchResult hit(true);
  parseCompact(hit, "key", 1);
  hit.freeKey();
  EXPECT_EQ(nullptr, hit.getKey());
  EXPECT_EQ(0U, hit.getKeyLen());
  EXPECT_EQ(0U, SearchResult(hit).getKeyLen());
  EXPECT_EQ("base64:a2V5", utf8(hit.getDocId())) << "the id has the length that the key had";
  parseCompact(hit, "other", 1);
  EXPECT_EQ(5U, hit.getKeyLen());
  hit.getProperties()->putProperty(u"URI", u"named");
  hit.reset();
  EXPECT_EQ(nullptr, hit.getKey());
  EXPECT_EQ(0U, hit.getKeyLen());
}

TEST(SearchResult, ACopyThatGetsAKeyOfItsOwnLeavesTheOriginalsAlone) {
  SearchResult hit(true);
  parseCompact(hit, "key", 1);
  SearchResult copy(hit);
  copy.setKey("new", 3);
  copy.setKey("", 0);
  parseCompact(hit, "other", 1);
  EXPECT_EQ("other", keyOf(hit));
  EXPECT_EQ(0U, copy.getKeyLen());
  EXPECT_EQ("base64:a2V5", utf8(copy.getDocId()));
}

TEST(SearchResult, AnAssignedHitThatGetsAKeyOfItsOwnLeavesTheOriginalsAlone) {
  for (const std::string key : {"n", "new"}) {
    for (const bool hadOne : {false, true}) {
      SearchResult hit(true);
      parseCompact(hit, "key", 1);
      SearchResult assigned(false);
      if (hadOne) assigned.setKey("p", 1);
      assigned = hit;
      assigned.setKey(key.data(), static_cast<unsigned int>(key.size()));
      EXPECT_EQ("key", keyOf(hit));
      EXPECT_EQ(key, keyOf(assigned));
    }
  }
}

/// Writes over memory that was given back.
void reuseMemory() {
  std::vector<SearchResult> others(20, SearchResult(false));
  const std::string key(64, 'x');
  for (SearchResult& other : others) other.setKey(key.data(), 64);
}

/// A hit as an exchange fills them, many keys in one piece of memory.
SearchResult& filledInto(ClientResponse& response, const std::string& key) {
  HitFiller(response, key).addKeyed(0.5, key);
  return response.getSearchResponse().getNext();
}

TEST(SearchResult, OfAReplyKeepsTheKeyThatItIsGivenForItsCopies) {
  SearchResult copy(false);
  {
    ClientResponse response;
    SearchResult& hit = filledInto(response, "filled");
    hit.setKey("given", 5);
    copy = hit;
  }
  reuseMemory();
  EXPECT_EQ("given", keyOf(copy));
}

TEST(SearchResult, OfAReplyKeepsTheKeyOfTheHitThatItIsAssignedForItsCopies) {
  SearchResult copy(false);
  {
    ClientResponse response;
    SearchResult& hit = filledInto(response, "filled");
    SearchResult own(false);
    own.setKey("own", 3);
    hit = own;
    copy = hit;
  }
  reuseMemory();
  EXPECT_EQ("own", keyOf(copy));
}

TEST(SearchResult, SettingAKeyLeavesTheDocumentIdAlone) {
  SearchResult hit(true);
  parseCompact(hit, "key", 1);
  hit.setKey("other", 5);
  EXPECT_EQ("base64:a2V5", utf8(hit.getDocId()));
}

TEST(SearchResult, AForeignKeyIsStoredAsGivenAndNeverFreed) {
  const std::string foreign = "foreign";
  SearchResult hit(true);
  parseCompact(hit, "key", 1);
  hit.copyKey(foreign.data(), 7);
  EXPECT_EQ(foreign.data(), hit.getKey());
  EXPECT_EQ(7U, hit.getKeyLen());
  EXPECT_EQ("base64:a2V5", utf8(hit.getDocId()));
  const SearchResult copy(hit);
  EXPECT_EQ(foreign.data(), copy.getKey());
  hit.freeKey();
  EXPECT_EQ(nullptr, hit.getKey());
  EXPECT_EQ("foreign", foreign);
}

TEST(SearchResult, SurvivesAssignmentToItself) {
  SearchResult hit(true);
  parseCompact(hit, "key", 1);
  const SearchResult& same = hit;
  hit = same;
  EXPECT_EQ("key", keyOf(hit));
  EXPECT_EQ("base64:a2V5", utf8(hit.getDocId()));
}

TEST(SearchResult, OneObjectServesAWholeStreamWhileTheCopiesStayWhole) {
  SearchResult hit(true);
  std::vector<SearchResult> kept;
  std::vector<std::string> keys;
  for (int i = 0; i < 5000; ++i) {
    keys.push_back("key" + std::to_string(i) + std::string(static_cast<std::size_t>(i % 97), 'x'));
    parseCompact(hit, keys.back(), 1);
    kept.push_back(hit);
    hit.freeKey();
  }
  for (std::size_t i = 0; i < kept.size(); ++i) {
    EXPECT_EQ(keys[i], keyOf(kept[i]));
    EXPECT_EQ(idOf(keys[i]), utf8(kept[i].getDocId()));
  }
}

// A key of its own, and how much of it is taken; lengths at which the room for keys is replaced.
TEST(SearchResult, CanBeGivenAPartOfItsOwnKey) {
  for (const unsigned int length : {40U, 64U, 65U, 4096U, 60000U}) {
    for (const unsigned int from : {0U, 1U, 39U}) {
      std::string key(length, 'k');
      key[from] = 'f';
      SearchResult hit(false);
      hit.setKey(key.data(), length);
      for (int round = 0; round < 3; ++round) {
        hit.setKey(hit.getKey(), hit.getKeyLen());
        ASSERT_EQ(key, keyOf(hit)) << length;
      }
      hit.setKey(hit.getKey() + from, length - from);
      EXPECT_EQ(key.substr(from), keyOf(hit)) << length;
    }
  }
}

TEST(SearchResult, CanParseItsOwnKey) {
  for (const unsigned int length : {40U, 64U, 65U, 4096U, 60000U}) {
    const std::string record = std::string("\0\x64", 2) + std::string(length, 'k');
    SearchResult hit(false);
    hit.setKey(record.data(), static_cast<unsigned int>(record.size()));
    hit.parseRecordNew(hit.getKey(), static_cast<unsigned short>(record.size()), 5);
    EXPECT_EQ(record.substr(2), keyOf(hit)) << length;
    EXPECT_DOUBLE_EQ(0.1, hit.getScore());
  }
}

std::string refusalOf(const RESTException& e) {
  const tq::oss::Message& message = e.getMessageList().front();
  EXPECT_STREQ("kruSearchResult", message.getFileName());
  return utf8(message.getMessageId()) + ": " + utf8(message.getMessageText());
}

TEST(SearchResult, RefusesNullWithALengthAndStaysAsItWas) {
  const std::string refusal =
      "ERR_CLIENT_INTERNAL: the document's key is null although it has a length";
  SearchResult hit(false);
  hit.setKey("key", 3);
  try {
    hit.setKey(nullptr, 5);
    FAIL() << "taken as a key";
  } catch (const RESTException& e) {
    EXPECT_EQ(refusal, refusalOf(e));
  }
  EXPECT_EQ("key", keyOf(hit));
  icu::UnicodeString text(u"kept");
  try {
    SearchResult::docIdToB64(nullptr, 5, text);
    FAIL() << "encoded";
  } catch (const RESTException& e) {
    EXPECT_EQ(refusal, refusalOf(e));
  }
  EXPECT_TRUE(text == u"kept");
  hit.setKey(nullptr, 0);
  EXPECT_EQ(0U, hit.getKeyLen());
  SearchResult::docIdToB64(nullptr, 0, text);
  EXPECT_TRUE(text == u"base64:");
}

}  // namespace
}  // namespace tq::comm
