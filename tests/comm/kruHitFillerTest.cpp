// Hits are made in their list without a record for each. Whatever arrives, they are those that
// decoding record by record gives, and so is every other thing that a caller sees.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfResponse.h"
#include "comm/kruHitFiller.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTResponse.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"
#include "infra/util/kruExtendedProperties.h"
#include "tests/comm/kruCommText.h"
#include "tests/support/recordByRecord.h"

namespace tq::comm {
namespace {

using test::utf8;
using test::word16;
using tq::test::RecordByRecord;

/// A hit as a caller sees it. A copy of it is read too, because that takes its share of the key.
std::string seen(const SearchResult& hit) {
  std::uint64_t score = 0;
  const double value = hit.getScore();
  std::memcpy(&score, &value, sizeof score);
  std::string text = std::to_string(score) + ' ' + std::to_string(hit.getKeyLen()) + ' ';
  text += hit.getKey() != nullptr ? test::hex({hit.getKey(), hit.getKeyLen()}) : "no key";
  text += ' ' + utf8(hit.getDocId());
  return text += hit.getProperties() != nullptr ? " with properties" : "";
}

std::string seenTwice(const SearchResult& hit) {
  const SearchResult copy(hit);  // NOLINT(performance-unnecessary-copy-initialization): is tested
  SearchResult assigned(false);
  assigned = copy;
  return seen(hit) + " | " + seen(copy) + " | " + seen(assigned);
}

/// Everything that offering one portion after another shows to a caller.
using Portions = std::vector<std::string>;
using Feed = std::function<int(const std::string& portion, ClientResponse&, bool& done)>;

std::string transcriptOf(const Portions& portions, const Feed& feed) {
  ClientResponse response;
  std::string text;
  for (const std::string& portion : portions) {
    bool done = false;
    response.resetResultCount();
    response.getSearchResponse().init();
    try {
      text += "left " + std::to_string(feed(portion, response, done));
    } catch (const tq::oss::BaseException& e) {
      const tq::oss::Message& message = e.getMessageList().front();
      text += utf8(message.getMessageId()) + ": " + utf8(message.getMessageText());
    }
    text += " done " + std::to_string(done);
    text += " count " + std::to_string(response.getResultCount()) + '\n';
    auto& hits = response.getSearchResponse();
    while (hits.hasMore()) text += seenTwice(hits.getNext()) + '\n';
  }
  return text;
}

void expectTheSame(const Portions& portions, const Feed& feed) {
  const std::string filled = transcriptOf(portions, feed);
  const RecordByRecord slowly;
  ASSERT_EQ(transcriptOf(portions, feed), filled);
}

int feedBinary(const std::string& portion, ClientResponse& response, bool& done) {
  DrestoPerfResponse parser(ClientRequest::STREAM_SEARCH, true);
  parser.setMaxReplyBytes(3000);
  // In memory of exactly its size, so that a sanitizer sees a read beyond the end.
  const std::vector<char> exact(portion.begin(), portion.end());
  return parser.parseStreamSearchResponse(exact.data(), static_cast<int>(exact.size()), response,
                                          done);
}

std::string envelope(std::uint16_t status, const std::string& payload) {
  return word16(status) + word16(static_cast<std::uint16_t>(payload.size())) + payload;
}

class Dice {
 public:
  explicit Dice(unsigned int seed) : engine_(seed) {}
  std::size_t below(std::size_t bound) { return engine_() % bound; }
  bool oneOf(std::size_t chances) { return below(chances) == 0; }
  std::string bytes(std::size_t count) {
    std::string out;
    while (out.size() < count) out.push_back(static_cast<char>(engine_() & 0xFF));
    return out;
  }

 private:
  std::mt19937 engine_;
};

std::string binaryPortion(Dice& dice) {
  std::string portion;
  const bool mixed = dice.oneOf(3);
  for (std::size_t left = dice.below(40); left > 0; --left) {
    static constexpr std::uint16_t kRare[] = {1, 5, 6, 9, 0, 401};
    const std::uint16_t status = mixed ? kRare[dice.below(std::size(kRare))] : 5;
    static constexpr std::size_t kLengths[] = {18, 18, 18, 2, 3, 0, 1, 400, 3001, 9000};
    const std::size_t most = dice.oneOf(20) ? std::size(kLengths) : 4;
    portion += envelope(status, dice.bytes(kLengths[dice.below(most)]));
  }
  if (dice.oneOf(4)) portion += envelope(1, "");
  if (dice.oneOf(3)) portion.resize(dice.below(portion.size() + 1));
  return portion;
}

TEST(HitFiller, MakesTheHitsOfAnyEnvelopesAsRecordsDo) {
  for (unsigned int seed = 0; seed < 1500; ++seed) {
    Dice dice(seed);
    Portions portions(1 + dice.below(4));
    for (std::string& portion : portions) portion = binaryPortion(dice);
    SCOPED_TRACE(seed);
    expectTheSame(portions, feedBinary);
    if (HasFatalFailure()) return;
  }
}

TEST(HitFiller, MakesTheHitsOfAReplyCutAnywhereAsRecordsDo) {
  std::string reply;
  for (int i = 0; i < 12; ++i) reply += envelope(5, word16(static_cast<std::uint16_t>(i)) + "key");
  reply += envelope(1, "unscored") + envelope(1, "");
  for (std::size_t length = 0; length <= reply.size(); ++length) {
    SCOPED_TRACE(length);
    expectTheSame({reply.substr(0, length), reply}, feedBinary);
    if (HasFatalFailure()) return;
  }
}

int feedHttp(const std::string& portion, ClientResponse& response, bool& done) {
  RESTResponse parser(ClientRequest::STREAM_SEARCH, true);
  parser.setMaxReplyBytes(3000);
  const std::vector<char> exact(portion.begin(), portion.end());
  return parser.parseStreamSearchResponse(exact.data(), static_cast<int>(exact.size()), response,
                                          done);
}

std::string textOf(Dice& dice) {
  static const std::string kTexts[] = {"base64:AAECAwQFBgcICQoLDA0ODw==",
                                       "",
                                       "k",
                                       "sixteen bytes ..",
                                       "a text of thirty-two characters!",
                                       std::string("cut\0here", 8),
                                       std::string("\0", 1),
                                       "gr\xC3\xBC\xC3\xA9, behind sixteen ASCII bytes",
                                       "no UTF-8 \xFF\xC3 at all, neither here: \x80",
                                       std::string(300, 'x'),
                                       std::string(2500, 'y')};
  return dice.oneOf(3) ? dice.bytes(dice.below(40)) : kTexts[dice.below(std::size(kTexts))];
}

std::string scoreText(Dice& dice) {
  static const std::string kScores[] = {
      "12.345", "0",     "",   "65.535", "1e3", "-4.5", " 7",    "+2",
      "nan",    "1.2.3", ".5", "5.",     "1,5", "12.x", "1e999", "0.1234567890123456789"};
  if (dice.oneOf(10)) return textOf(dice);
  if (dice.oneOf(3)) return kScores[dice.below(std::size(kScores))];
  return std::to_string(dice.below(100)) + '.' + std::to_string(dice.below(1000000));
}

std::string namedRecord(Dice& dice) {
  if (dice.oneOf(15)) return dice.bytes(dice.below(30));
  static const std::string kNames[] = {"URI", "SCORE", "SCORES", "UR", std::string("URI\0x", 5),
                                       ""};
  test::Fields fields;
  for (std::size_t left = dice.oneOf(6) ? dice.below(5) : 2; left > 0; --left) {
    const std::size_t name = dice.oneOf(6) ? dice.below(std::size(kNames)) : left % 2;
    fields.emplace_back(kNames[name], name == 1 ? scoreText(dice) : textOf(dice));
  }
  std::string record = test::record32(fields);
  // The two top bits of a length have no effect; any other bit has.
  if (!record.empty() && dice.oneOf(8)) record[0] = static_cast<char>(record[0] ^ 0x40);
  if (!record.empty() && dice.oneOf(15)) record[dice.below(record.size())] ^= 0x10;
  if (dice.oneOf(15)) record.resize(dice.below(record.size() + 1));
  return record;
}

std::string httpPortion(Dice& dice) {
  std::string portion;
  for (std::size_t left = dice.below(25); left > 0; --left) {
    const std::string record = namedRecord(dice);
    portion += test::word32(static_cast<std::uint32_t>(record.size())) + record;
  }
  if (dice.oneOf(4)) portion += test::word32(0);
  if (dice.oneOf(3)) portion.resize(dice.below(portion.size() + 1));
  return portion.empty() ? test::word32(0) : portion;
}

TEST(HitFiller, MakesTheHitsOfAnyNamedRecordsAsTheCodecDoes) {
  for (unsigned int seed = 0; seed < 3000; ++seed) {
    Dice dice(seed);
    Portions portions(1 + dice.below(4));
    for (std::string& portion : portions) portion = httpPortion(dice);
    SCOPED_TRACE(seed);
    expectTheSame(portions, feedHttp);
    if (HasFatalFailure()) return;
  }
}

TEST(HitFiller, GoesOnBehindARecordWithAFieldThatNoHitHas) {
  const auto framed = [](const test::Fields& fields) {
    const std::string record = test::record32(fields);
    return test::word32(static_cast<std::uint32_t>(record.size())) + record;
  };
  const std::string portion = framed({{"URI", "first"}, {"SCORE", "1.5"}}) +
                              framed({{"URI", "second"}, {"TITLE", "t"}, {"SCORE", "2.5"}}) +
                              framed({{"SCORE", "3.5"}, {"URI", "third"}});
  ClientResponse response;
  bool done = false;
  EXPECT_EQ(0, feedHttp(portion, response, done));
  EXPECT_EQ(3, response.getResultCount());
  auto& hits = response.getSearchResponse();
  for (const auto& [id, score] :
       {std::pair("first", 1.5), std::pair("second", 2.5), std::pair("third", 3.5)}) {
    const SearchResult& hit = hits.getNext();
    EXPECT_EQ(id, utf8(hit.getDocId()));
    EXPECT_EQ(score, hit.getScore());
    EXPECT_EQ(nullptr, hit.getKey());
  }
  EXPECT_FALSE(hits.hasMore());
}

TEST(HitFiller, AnIdThatACallerKeepsIsNotWrittenOver) {
  const auto portionOf = [](const std::string& id) {
    const std::string record = test::record32({{"URI", id}});
    return test::word32(static_cast<std::uint32_t>(record.size())) + record;
  };
  ClientResponse response;
  bool done = false;
  feedHttp(portionOf(std::string(60, 'a')), response, done);
  const icu::UnicodeString kept = response.getSearchResponse().getNext().getDocId();
  response.getSearchResponse().init();
  feedHttp(portionOf(std::string(60, 'b')), response, done);
  EXPECT_EQ(std::string(60, 'a'), utf8(kept));
  EXPECT_EQ(std::string(60, 'b'), utf8(response.getSearchResponse().getNext().getDocId()));
}

/// A response with this many hits of one portion, keyed "key 0", "key 1" and so on.
void fillBinary(ClientResponse& response, int hits, const std::string& prefix = "key ") {
  std::string portion;
  for (int i = 0; i < hits; ++i) {
    portion += envelope(5, word16(static_cast<std::uint16_t>(i)) + prefix + std::to_string(i));
  }
  response.getSearchResponse().init();
  bool done = false;
  const int left = hits == 0 ? 0 : feedBinary(portion, response, done);
  EXPECT_EQ(0, left);
}

std::string keyOf(const SearchResult& hit) { return {hit.getKey(), hit.getKeyLen()}; }

TEST(HitFiller, ACopyKeepsItsKeyAndItsIdWhenTheNextPortionComes) {
  ClientResponse response;
  fillBinary(response, 3);
  auto& hits = response.getSearchResponse();
  hits.getNext();
  auto copy = std::make_unique<SearchResult>(hits.getNext());
  SearchResult assigned(true);
  assigned = hits.getNext();
  fillBinary(response, 500, "another ");
  EXPECT_EQ("key 1", keyOf(*copy));
  EXPECT_EQ("key 2", keyOf(assigned));
  const SearchResult second(*copy);
  copy.reset();
  fillBinary(response, 0);
  EXPECT_EQ("key 1", keyOf(second));
  EXPECT_EQ("base64:a2V5IDE=", utf8(second.getDocId()));
  EXPECT_EQ("base64:a2V5IDI=", utf8(assigned.getDocId()));
}

TEST(HitFiller, ACopyOfTheListOutlivesTheResponse) {
  std::optional<SearchResponse> copy;
  {
    ClientResponse response;
    fillBinary(response, 400);
    copy = response.getSearchResponse();
  }
  for (int i = 0; i < 400; ++i) EXPECT_EQ("key " + std::to_string(i), keyOf(copy->getNext()));
  EXPECT_FALSE(copy->hasMore());
}

TEST(HitFiller, AHitOfAListTakesAnotherKeyAndItsCopiesFollow) {
  ClientResponse response;
  fillBinary(response, 2);
  SearchResult& hit = response.getSearchResponse().getNext();
  const SearchResult before(hit);
  hit.setKey(hit.getKey() + 1, 3);
  const SearchResult after(hit);
  fillBinary(response, 2, "next ");
  EXPECT_EQ("key 0", keyOf(before));
  EXPECT_EQ("ey ", keyOf(after));
  EXPECT_EQ("base64:a2V5IDA=", utf8(after.getDocId()));
}

TEST(HitFiller, WhatACallerMadeOfAHitDoesNotReachTheNextPortion) {
  ClientResponse response;
  fillBinary(response, 3);
  auto& hits = response.getSearchResponse();
  SearchResult& named = hits.getNext();
  named.init(true);
  named.getProperties()->putProperty(u"URI", u"of the caller");
  named.getProperties()->putProperty(u"SCORE", u"7");
  named.reset();
  hits.getNext().setKey("the caller's", 12);
  SearchResult other(false);
  other.setKey("another's", 9);
  hits.getNext() = other;
  fillBinary(response, 3, "next ");
  for (int i = 0; i < 3; ++i) {
    const SearchResult& hit = hits.getNext();
    EXPECT_EQ(nullptr, hit.getProperties());
    EXPECT_EQ("next " + std::to_string(i), keyOf(hit));
    EXPECT_EQ(i / 1000.0, hit.getScore());
    EXPECT_TRUE(utf8(hit.getDocId()).starts_with("base64:bmV4dCA"));
  }
}

TEST(HitFiller, AHitThatIsFilledBesideOthersLeavesThemWhereTheyAre) {
  ClientResponse response;
  fillBinary(response, 1);
  SearchResult& first = response.getSearchResponse().getNext();
  bool done = false;
  for (int i = 0; i < 1000; ++i) feedBinary(envelope(1, "more"), response, done);
  SearchResult plain(false);
  plain.setKey("added", 5);
  response.addSearchResult(plain);
  EXPECT_EQ("key 0", keyOf(first));
  EXPECT_EQ(1002, response.getResultCount());
  // The first hit was taken and nothing else was there, so the cursor went back to it.
  EXPECT_EQ(&first, &response.getSearchResponse().getNext());
  for (int i = 0; i < 1000; ++i) EXPECT_EQ("more", keyOf(response.getSearchResponse().getNext()));
  EXPECT_EQ("added", keyOf(response.getSearchResponse().getNext()));
  EXPECT_FALSE(response.getSearchResponse().hasMore());
}

// Which records are read without the general way, which would hide that they are not.

/// What was read of a record, or that nothing was.
std::string readOf(const std::string& record) {
  NamedHit hit;
  if (!readNamedHit(record, hit)) return "refused";
  return std::string(hit.uri) + " scores " + std::string(hit.score);
}

TEST(NamedHit, IsReadFromItsTwoFieldsInAnyOrder) {
  const std::pair<test::Fields, std::string> cases[] = {
      {{{"URI", "a"}}, "a scores "},
      {{{"URI", "a"}, {"SCORE", "0.5"}}, "a scores 0.5"},
      {{{"SCORE", "0.5"}, {"URI", "a"}}, "a scores 0.5"},
      {{{"URI", ""}}, " scores "},
      {{{"URI", "a"}, {"URI", "b"}}, "b scores "},
      {{{"SCORE", "1"}, {"URI", "a"}, {"SCORE", "2"}}, "a scores 2"},
      {{{"URI", std::string("a\0b", 3)}}, "a scores "},
      {{}, "refused"},
      {{{"SCORE", "0.5"}}, "refused"},
      {{{"URI", "a"}, {"LANG", "de"}}, "refused"},
      {{{"uri", "a"}}, "refused"},
  };
  for (const auto& [fields, read] : cases) {
    EXPECT_EQ(readOf(test::record32(fields)), read) << test::hex(test::record32(fields));
  }
}

TEST(NamedHit, IsNotReadFromAPartOfItsRecord) {
  const std::size_t uri = test::record32({{"URI", "a"}}).size();
  const std::string whole = test::record32({{"URI", "a"}, {"SCORE", "0.5"}});
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_EQ(readOf(whole.substr(0, length)), length == uri ? "a scores " : "refused") << length;
  }
}

}  // namespace
}  // namespace tq::comm
