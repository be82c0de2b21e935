#include <gtest/gtest.h>

#include <memory>

#include "comm/kruRecordBounds.h"
#include "comm/kruRecordLengths.h"
#include "tests/comm/kruCommText.h"

namespace tq::comm {
namespace {

using test::record16;
using test::record32;
using test::unhex;

// In memory of exactly the record's size, so that reading past it is seen.
bool fits(const std::string& bytes) {
  const std::unique_ptr<char[]> exact(new char[bytes.size()]);
  bytes.copy(exact.get(), bytes.size());
  return fieldsFit(exact.get(), static_cast<std::uint32_t>(bytes.size()));
}

bool fitsNew(const std::string& bytes) {
  const std::unique_ptr<char[]> exact(new char[bytes.size()]);
  bytes.copy(exact.get(), bytes.size());
  return fieldsFitNew(exact.get(), static_cast<std::uint16_t>(bytes.size()));
}

const test::Fields kFields{{"URI", "base64:YQ=="}, {"SCORE", "0.5"}};

TEST(RecordBounds, AcceptWholeRecords) {
  EXPECT_TRUE(fits(""));
  EXPECT_TRUE(fits(record32({{"", ""}})));
  EXPECT_TRUE(fits(record32(kFields)));
  EXPECT_TRUE(fitsNew(""));
  EXPECT_TRUE(fitsNew(record16({{"", ""}})));
  EXPECT_TRUE(fitsNew(record16(kFields)));
}

TEST(RecordBounds, IgnoreTheTwoTopBitsOfALength) {
  EXPECT_TRUE(fits(unhex("c0 00 00 01 61 40 00 00 02 62 63")));
}

TEST(RecordBounds, RefuseEveryRecordThatIsCutInsideAField) {
  const std::string wide = record32(kFields);
  const std::size_t firstField = record32({kFields[0]}).size();
  for (std::size_t n = 1; n < wide.size(); ++n) {
    EXPECT_EQ(n == firstField, fits(wide.substr(0, n))) << n;
  }
  const std::string narrow = record16(kFields);
  const std::size_t firstNarrow = record16({kFields[0]}).size();
  for (std::size_t n = 1; n < narrow.size(); ++n) {
    EXPECT_EQ(n == firstNarrow, fitsNew(narrow.substr(0, n))) << n;
  }
}

TEST(RecordBounds, RefuseLengthsThatWouldOverflow) {
  EXPECT_FALSE(fits(unhex("3f ff ff ff 61 00 00 00 00")));
  EXPECT_FALSE(fits(unhex("ff ff ff ff 61 00 00 00 00")));
  EXPECT_FALSE(fits(unhex("00 00 00 00 3f ff ff ff 61")));
  EXPECT_FALSE(fitsNew(unhex("ff ff 61 00 00")));
  EXPECT_FALSE(fitsNew(unhex("00 00 ff ff 61")));
}

// Texts of these lengths do not fit a test's memory, so the words are looked at alone.
TEST(LengthWords, KeepTheirHighestBitsFree) {
  struct Case {
    std::size_t length;
    std::uint32_t word, key, attributedKey;
  };
  constexpr Case kCases[] = {{0, 0, 0, 0},
                             {5, 5, 5, 5},
                             {0x3FFFFFFF, 0x3FFFFFFF, 0x3FFFFFFF, 0x3FFFFFFF},
                             {0x40000003, 3, 3, 0x40000003},
                             {0x7FFFFFFF, 0x3FFFFFFF, 0x3FFFFFFF, 0x7FFFFFFF},
                             {0x80000007, 7, 7, 7},
                             {0xFFFFFFFF, 0x3FFFFFFF, 0x3FFFFFFF, 0x7FFFFFFF},
                             {0x100000009, 9, 9, 9}};
  for (const Case& c : kCases) {
    EXPECT_EQ(c.word, lengthWord(c.length)) << c.length;
    EXPECT_EQ(c.key, keyLengthWord(c.length, false)) << c.length;
    EXPECT_EQ(c.attributedKey, keyLengthWord(c.length, true)) << c.length;
  }
}

}  // namespace
}  // namespace tq::comm
