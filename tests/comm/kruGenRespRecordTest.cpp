#include <gtest/gtest.h>

#include <type_traits>

#include "comm/kruConversionCache.h"
#include "comm/kruGenRespRecord.h"
#include "comm/kruKVPair.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruNLSException.h"
#include "tests/comm/kruCommText.h"

namespace tq::comm {
namespace {

using test::hex;
using test::listed;
using test::record16;
using test::record32;
using test::unhex;
using test::utf8;
using Listed = std::vector<std::string>;

class Record : public GenRespRecord {
 public:
  explicit Record(bool withProperties) : GenRespRecord(withProperties) {}
  Record() = default;
  void reset() override { ++resets; }

  int resets = 0;
};

int parse(Record& record, const std::string& bytes) {
  return record.parseRecord(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

int parseNew(Record& record, const std::string& bytes) {
  return record.parseRecordNew(bytes.data(), static_cast<unsigned short>(bytes.size()), 1);
}

TEST(GenRespRecord, HasAPropertySetOnlyWhenItIsAskedFor) {
  EXPECT_EQ(nullptr, Record().getProperties());
  EXPECT_EQ(nullptr, Record(false).getProperties());
  ASSERT_NE(nullptr, Record(true).getProperties());
  EXPECT_EQ(0U, Record(true).getProperties()->size());
}

TEST(GenRespRecord, CanBeBegunAnewFromOutside) {
  Record record(true);
  record.getProperties()->putProperty(u"name", u"value");
  record.init(true);
  ASSERT_NE(nullptr, record.getProperties());
  EXPECT_EQ(0U, record.getProperties()->size());
  record.init(false);
  EXPECT_EQ(nullptr, record.getProperties());
}

TEST(GenRespRecord, PutsEveryFieldOfARecordAndResetsOnce) {
  const test::Fields fields{{"URI", "a"}, {"SCORE", ""}, {"", "x"}};
  Record wide(true);
  EXPECT_EQ(8 * 3 + 4 + 5 + 1, parse(wide, record32(fields)));
  EXPECT_EQ((Listed{"=x", "SCORE=", "URI=a"}), listed(*wide.getProperties()));
  EXPECT_EQ(1, wide.resets);

  Record narrow(true);
  EXPECT_EQ(4 * 3 + 4 + 5 + 1, parseNew(narrow, record16(fields)));
  EXPECT_EQ((Listed{"=x", "SCORE=", "URI=a"}), listed(*narrow.getProperties()));
  EXPECT_EQ(1, narrow.resets);
}

TEST(GenRespRecord, AnotherRecordAddsToThePropertiesOfTheFirst) {
  for (const bool wide : {true, false}) {
    Record record(true);
    for (const test::Fields& fields : {test::Fields{{"a", "1"}, {"b", "1"}}, {{"b", "2"}}}) {
      wide ? parse(record, record32(fields)) : parseNew(record, record16(fields));
    }
    EXPECT_EQ((Listed{"a=1", "b=2"}), listed(*record.getProperties())) << wide;
  }
}

TEST(GenRespRecord, TheHighestBitsOfAKeysLengthAreIgnored) {
  for (const char* top : {"40", "80", "c0"}) {
    Record record(true);
    EXPECT_EQ(10, parse(record, unhex(std::string(top) + " 00 00 01 6b 00 00 00 01 76")));
    EXPECT_EQ((Listed{"k=v"}), listed(*record.getProperties())) << top;
  }
}

TEST(GenRespRecord, ARecordOfLengthZeroHasNoFieldsButIsReset) {
  Record wide(true);
  EXPECT_EQ(0, wide.parseRecord(nullptr, 0));
  EXPECT_EQ(0U, wide.getProperties()->size());
  EXPECT_EQ(1, wide.resets);

  Record narrow(true);
  EXPECT_EQ(0, narrow.parseRecordNew(nullptr, 0, 1));
  EXPECT_EQ(0U, narrow.getProperties()->size());
  EXPECT_EQ(1, narrow.resets);
}

TEST(GenRespRecord, TheTypeTagOfAValueIsReadAndIgnored) {
  for (const char* tag : {"00", "40", "80", "c0"}) {
    Record record(true);
    EXPECT_EQ(11, parse(record, unhex(std::string("00 00 00 01 61 ") + tag + " 00 00 02 62 63")));
    EXPECT_EQ(Listed{"a=bc"}, listed(*record.getProperties())) << tag;
  }
}

TEST(GenRespRecord, TheTopBitsOfAKeysLengthAreIgnored) {
  Record record(true);
  EXPECT_EQ(11, parse(record, unhex("c0 00 00 01 61 00 00 00 02 62 63")));
  EXPECT_EQ(Listed{"a=bc"}, listed(*record.getProperties()));
}

TEST(GenRespRecord, AFieldThatRunsPastTheLengthIsReadWhole) {
  const std::string wide = record32({{"a", "b"}, {"c", "defg"}});
  Record record(true);
  EXPECT_EQ(static_cast<int>(wide.size()), record.parseRecord(wide.data(), 11));
  EXPECT_EQ((Listed{"a=b", "c=defg"}), listed(*record.getProperties()));

  const std::string narrow = record16({{"a", "b"}, {"c", "defg"}});
  Record narrowRecord(true);
  EXPECT_EQ(static_cast<int>(narrow.size()), narrowRecord.parseRecordNew(narrow.data(), 7, 1));
  EXPECT_EQ((Listed{"a=b", "c=defg"}), listed(*narrowRecord.getProperties()));
}

TEST(GenRespRecord, ANarrowRecordIsReadAtLeastOnce) {
  const std::string bytes = record16({{"key", "value"}});
  Record record(true);
  EXPECT_EQ(12, record.parseRecordNew(bytes.data(), 1, 1));
  EXPECT_EQ(Listed{"key=value"}, listed(*record.getProperties()));
}

TEST(GenRespRecord, TextsEndAtAZeroByteButAreConsumedWhole) {
  using namespace std::string_literals;
  const test::Fields fields{{"k\0x"s, "v\0y"s}, {"\0"s, "\0z"s}};
  Record wide(true);
  EXPECT_EQ(16 + 9, parse(wide, record32(fields)));
  EXPECT_EQ((Listed{"=", "k=v"}), listed(*wide.getProperties()));
  Record narrow(true);
  EXPECT_EQ(8 + 9, parseNew(narrow, record16(fields)));
  EXPECT_EQ((Listed{"=", "k=v"}), listed(*narrow.getProperties()));
}

TEST(GenRespRecord, BytesThatAreNotUtf8BecomeReplacementCharacters) {
  Record record(true);
  parse(record, record32({{"a\xFF", "\xC3("}}));
  EXPECT_EQ(Listed{"a\xEF\xBF\xBD=\xEF\xBF\xBD("}, listed(*record.getProperties()));
}

TEST(GenRespRecord, TextsOfAllLengthsAndScriptsAreDecoded) {
  const std::string texts[] = {std::string(300, 'a'), "grüße, ende", "\xF0\x9F\x98\x80",
                               std::string(63, 'x') + "\xE2\x82\xAC"};
  for (const std::string& text : texts) {
    Record record(true);
    parse(record, record32({{"k", text}}));
    EXPECT_EQ(Listed{"k=" + text}, listed(*record.getProperties()));
  }
}

TEST(GenRespRecord, ParsingAgainPutsIntoTheSameProperties) {
  Record record(true);
  parse(record, record32({{"a", "1"}, {"b", "2"}}));
  parseNew(record, record16({{"b", "3"}}));
  EXPECT_EQ((Listed{"a=1", "b=3"}), listed(*record.getProperties()));
  EXPECT_EQ(2, record.resets);
}

TEST(GenRespRecord, ARecordWithoutAPropertySetGetsOneWhenItIsParsed) {
  Record wide;
  parse(wide, record32({{"a", "1"}}));
  ASSERT_NE(nullptr, wide.getProperties());
  EXPECT_EQ(Listed{"a=1"}, listed(*wide.getProperties()));
  Record narrow;
  parseNew(narrow, record16({{"a", "1"}}));
  EXPECT_EQ(Listed{"a=1"}, listed(*narrow.getProperties()));
}

TEST(GenRespRecord, CanParseIntoForeignPropertiesWithoutReset) {
  tq::util::ExtendedProperties props;
  Record record;
  const std::string wide = record32({{"a", "1"}});
  const std::string narrow = record16({{"b", "2"}});
  EXPECT_EQ(10, record.parseRecordIntoProps(wide.data(), 10, &props));
  EXPECT_EQ(6, record.parseRecordIntoPropsNew(narrow.data(), 6, &props));
  EXPECT_EQ(0, record.parseRecordIntoPropsNew(nullptr, 0, &props));
  EXPECT_EQ((Listed{"a=1", "b=2"}), listed(props));
  EXPECT_EQ(0, record.resets);
  EXPECT_EQ(nullptr, record.getProperties());
}

TEST(GenRespRecord, ReadsTheKeyOfAFieldAndTheTagOfItsValue) {
  Record record;
  icu::UnicodeString key;
  int size = 0;
  const std::string bytes = unhex("00 00 00 02 6b 31 80 00 00 01 76");
  EXPECT_EQ(2, record.parseKeyField(bytes.data(), key, size));
  EXPECT_EQ("k1", utf8(key));
  EXPECT_EQ(6, size);
  EXPECT_EQ("v", utf8(record.getStringValue(bytes.data() + size, size)));
  EXPECT_EQ(5, size);
}

TEST(GenRespRecord, ReadsNarrowKeysAndValuesFromAPosition) {
  Record record;
  icu::UnicodeString key;
  const std::string bytes = "??" + record16({{"k1", "val"}});
  int pos = 2;
  EXPECT_EQ(0, record.parseKeyFieldNew(bytes.data(), key, pos));
  EXPECT_EQ("k1", utf8(key));
  EXPECT_EQ(6, pos);
  EXPECT_EQ("val", utf8(record.getStringValueNew(bytes.data(), pos)));
  EXPECT_EQ(11, pos);
}

TEST(GenRespRecord, ReadsIntegersInNetworkOrder) {
  Record record;
  const std::string bytes = unhex("00 01 02 03 04 ff fe fd fc fb");
  int pos = 1;
  EXPECT_EQ(0x01020304, record.getInt(bytes.data(), pos));
  EXPECT_EQ(5, pos);
  EXPECT_EQ(static_cast<int>(0xFFFEFDFCU), record.getInt(bytes.data(), pos));
  pos = 0;
  EXPECT_EQ(0x0001, record.getShort(bytes.data(), pos));
  EXPECT_EQ(2, pos);
  pos = 5;
  EXPECT_EQ(0xFFFE, record.getShort(bytes.data(), pos));
}

struct LevelCase {
  const char* id;
  int level;
};

const LevelCase kLevels[] = {
    {"ZVK0001W", 4}, {"ZVK0001I", 8}, {"ZVK0001S", 1}, {"ZVK0001E", 2},
    {"ZVK0001w", 2}, {"ABC0001W", 2}, {"ABC0001I", 2}, {"zvk0001S", 2},
    {"ZVK", 2},      {"ZVW", 2},      {"W", 2},        {"xZVK0001W", 2},
};

TEST(GenRespRecord, TheLevelOfAMessageFollowsTheIdsLastLetterOnlyBehindItsPrefix) {
  for (const LevelCase& test : kLevels) {
    Record record(true);
    parse(record, record32({{"MsgId", test.id}, {"MsgText", "text"}}));
    tq::oss::Message message;
    EXPECT_TRUE(record.parseMessage(message, true)) << test.id;
    EXPECT_EQ(test.id, utf8(message.getMessageId()));
    EXPECT_EQ("text", utf8(message.getMessageText()));
    EXPECT_EQ(test.level, static_cast<int>(message.getLevel())) << test.id;
  }
}

TEST(GenRespRecord, AnEmptyMessageIdLeavesTheMessageAsItWas) {
  for (const bool required : {false, true}) {
    Record record(true);
    parse(record, record32({{"MsgId", ""}}));
    tq::oss::Message message(u"old", u"text", tq::oss::Message::LEVEL_INFO);
    EXPECT_FALSE(record.parseMessage(message, required));
    EXPECT_EQ("old", utf8(message.getMessageId()));
    EXPECT_EQ("text", utf8(message.getMessageText()));
    EXPECT_EQ(tq::oss::Message::LEVEL_INFO, message.getLevel());
  }
}

TEST(GenRespRecord, AMissingMessageIdIsAnErrorOnlyWhenItIsRequired) {
  Record record(true);
  parse(record, record32({{"MsgText", "text"}}));
  tq::oss::Message message(u"old", u"text");
  EXPECT_FALSE(record.parseMessage(message, false));
  EXPECT_EQ("old", utf8(message.getMessageId()));
  try {
    record.parseMessage(message, true);
    FAIL() << "no exception";
  } catch (const tq::oss::NLSException& error) {
    EXPECT_EQ("MsgId", utf8(error.getMessageList().front().getArguments().at(0)));
  }
}

TEST(GenRespRecord, AnIdWithoutATextIsAlwaysAnErrorAndLeavesTheMessageAsItWas) {
  for (const bool required : {false, true}) {
    Record record(true);
    parse(record, record32({{"MsgId", "ZVK0001E"}}));
    tq::oss::Message message(u"old", u"text");
    try {
      record.parseMessage(message, required);
      FAIL() << "no exception";
    } catch (const tq::oss::NLSException& error) {
      EXPECT_EQ("MsgText", utf8(error.getMessageList().front().getArguments().at(0)));
    }
    EXPECT_EQ("old", utf8(message.getMessageId()));
  }
}

TEST(GenRespRecord, AMessageIsNotFoundWhereThereAreNoProperties) {
  Record record;
  tq::oss::Message message;
  EXPECT_FALSE(record.parseMessage(message, false));
  EXPECT_THROW(record.parseMessage(message, true), tq::oss::NLSException);
}

struct PairCase {
  KVPair pair;
  const char* bytes;
};

const PairCase kPairs[] = {
    {{u"a", u"bc"}, "00 00 00 01 61 00 00 00 02 62 63"},
    {{u"a", u"bc", 0, 7}, "00 00 00 01 61 00 00 00 02 62 63 00 00 00 07"},
    {{u"a", u"bc", 9, 0}, "00 00 00 01 61 00 00 00 02 62 63"},
    {{u"a", u"bc", 9, 0xFFFFFFFF}, "00 00 00 01 61 00 00 00 02 62 63 ff ff ff ff"},
    {{u"", u""}, "00 00 00 00 00 00 00 00"},
    {{u"\u00e9", u"\u20ac"}, "00 00 00 02 c3 a9 00 00 00 03 e2 82 ac"},
    {{u"k", u"\U0001F600"}, "00 00 00 01 6b 00 00 00 04 f0 9f 98 80"},
};

TEST(GenRespRecord, APairIsWrittenByteForByteWithItsSecondAttributeLast) {
  for (const PairCase& test : kPairs) {
    std::string out(100, '#');
    unsigned int written = 0;
    GenRespRecord::serializeKVPair(out.data(), test.pair, written);
    EXPECT_EQ(test.bytes, hex(out.substr(0, written)));
    EXPECT_EQ('#', out[written]);
  }
}

TEST(GenRespRecord, ThePairLengthIsEightMoreThanWhatIsWritten) {
  for (const PairCase& test : kPairs) {
    std::string out(100, '#');
    unsigned int written = 0;
    GenRespRecord::serializeKVPair(out.data(), test.pair, written);
    EXPECT_EQ(static_cast<int>(written) + 8, GenRespRecord::getSerializeKVPairLength(test.pair));
  }
  EXPECT_EQ(19, GenRespRecord::getSerializeKVPairLength({u"a", u"bc"}));
  EXPECT_EQ(23, GenRespRecord::getSerializeKVPairLength({u"a", u"bc", 0, 7}));
}

TEST(GenRespRecord, TheLengthOfATextIsItsUtf8BytesPlusFour) {
  EXPECT_EQ(4, GenRespRecord::getNumberOfBytesOfSerialized(u""));
  EXPECT_EQ(9, GenRespRecord::getNumberOfBytesOfSerialized(u"index"));
  EXPECT_EQ(7, GenRespRecord::getNumberOfBytesOfSerialized(u"\u20ac"));
}

TEST(GenRespRecord, APairIsWrittenTheSameFromTheCache) {
  const KVPair pair(u"cached key \u20ac", u"cached value");
  std::string before(100, '\0');
  std::string after(100, '\0');
  unsigned int written = 0;
  GenRespRecord::serializeKVPair(before.data(), pair, written);
  GenRespRecord::AddStringToConversionCache(pair.key);
  GenRespRecord::AddStringToConversionCache(pair.value);
  ASSERT_NE(nullptr, ConversionCache::find(pair.key));
  GenRespRecord::serializeKVPair(after.data(), pair, written);
  EXPECT_EQ(hex(before), hex(after));
  EXPECT_EQ(14 + 12 + 16, GenRespRecord::getSerializeKVPairLength(pair));
}

TEST(ConversionCache, FindsEachOfManyTextsAndNoOther) {
  const auto numbered = [](int i) { return "frequent text " + std::to_string(i); };
  for (int i = 0; i < 2000; ++i) {
    GenRespRecord::AddStringToConversionCache(test::utf16(numbered(i)));
  }
  for (int i = 0; i < 2000; ++i) {
    const auto* const found = ConversionCache::find(test::utf16(numbered(i)));
    ASSERT_NE(nullptr, found) << i;
    EXPECT_EQ(numbered(i), found->view());
    EXPECT_EQ(nullptr, ConversionCache::find(test::utf16(numbered(i) + "x"))) << i;
  }
}

// The texts of one letter have hashes of every remainder.
TEST(ConversionCache, FindsTextsOfEveryHash) {
  constexpr char16_t kFirst = 0x100;
  constexpr char16_t kLast = 0x300;
  for (char16_t unit = kFirst; unit < kLast; ++unit) {
    GenRespRecord::AddStringToConversionCache(icu::UnicodeString(unit));
  }
  for (char16_t unit = kFirst; unit < kLast; ++unit) {
    const icu::UnicodeString text(unit);
    const auto* const found = ConversionCache::find(text);
    ASSERT_NE(nullptr, found) << unsigned{unit};
    EXPECT_EQ(utf8(text), found->view());
  }
}

TEST(GenRespRecord, WritingAPairAddsNothingToTheCache) {
  std::string out(100, '\0');
  unsigned int written = 0;
  GenRespRecord::serializeKVPair(out.data(), {u"only looked up", u"as is this"}, written);
  GenRespRecord::getSerializeKVPairLength({u"only looked up", u"as is this"});
  EXPECT_EQ(nullptr, ConversionCache::find(u"only looked up"));
  EXPECT_EQ(nullptr, ConversionCache::find(u"as is this"));
}

TEST(GenRespRecord, ACopyHasNoPropertiesAndAnAssignmentKeepsTheTargets) {
  Record record(true);
  parse(record, record32({{"a", "1"}}));
  const Record copy(record);
  EXPECT_EQ(nullptr, copy.getProperties());
  Record target(true);
  parse(target, record32({{"b", "2"}}));
  target = record;
  EXPECT_EQ(Listed{"b=2"}, listed(*target.getProperties()));
}

TEST(GenRespRecord, IsDestroyedThroughItsBase) {
  EXPECT_TRUE(std::has_virtual_destructor_v<GenRespRecord>);
}

}  // namespace
}  // namespace tq::comm
