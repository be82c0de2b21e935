#include <gtest/gtest.h>

#include "comm/kruBytes.h"
#include "tests/comm/kruCommText.h"

namespace tq::comm::bytes {
namespace {

using test::hex;
using test::unhex;

TEST(Bytes, IntegersAreBigEndian) {
  const std::string data = unhex("01 02 03 04 fe ff");
  EXPECT_EQ(0x0102, loadShort(data.data()));
  EXPECT_EQ(0x01020304U, loadInt(data.data()));
  EXPECT_EQ(0xFEFF, loadShort(data.data() + 4));
  std::string out(6, '#');
  storeShort(out.data(), 0xFEFF);
  storeInt(out.data() + 2, 0x80FF0001);
  EXPECT_EQ("fe ff 80 ff 00 01", hex(out));
}

TEST(Bytes, AReaderAdvancesOverWhatItRead) {
  const std::string data = unhex("00 01 00 00 00 02 61 62");
  Reader reader(data.data(), data.size());
  std::uint16_t shortValue = 0;
  std::uint32_t intValue = 0;
  EXPECT_TRUE(reader.readShort(shortValue));
  EXPECT_TRUE(reader.readInt(intValue));
  EXPECT_EQ(1, shortValue);
  EXPECT_EQ(2U, intValue);
  EXPECT_EQ(data.data() + 6, reader.data());
  EXPECT_TRUE(reader.skip(2));
  EXPECT_EQ(0U, reader.remaining());
}

TEST(Bytes, AReaderNamesTheBytesThatItTakes) {
  const std::string data = unhex("61 62 63");
  Reader reader(data.data(), data.size());
  std::string_view taken;
  EXPECT_TRUE(reader.readBytes(2, taken));
  EXPECT_EQ("ab", taken);
  EXPECT_EQ(data.data(), taken.data());
  for (const std::size_t tooMany : {std::size_t{2}, static_cast<std::size_t>(-1)}) {
    EXPECT_FALSE(reader.readBytes(tooMany, taken));
    EXPECT_EQ(1U, reader.remaining());
    EXPECT_EQ("ab", taken);
  }
  EXPECT_TRUE(reader.readBytes(1, taken));
  EXPECT_EQ("c", taken);
  EXPECT_TRUE(reader.readBytes(0, taken));
  EXPECT_TRUE(taken.empty());
}

TEST(Bytes, AReaderThatHasTooLittleChangesNothing) {
  const std::string data = unhex("01 02 03");
  std::uint16_t shortValue = 7;
  std::uint32_t intValue = 7;
  Reader reader(data.data(), 3);
  EXPECT_FALSE(reader.readInt(intValue));
  EXPECT_FALSE(reader.skip(4));
  EXPECT_FALSE(reader.skip(static_cast<std::size_t>(-1)));
  EXPECT_EQ(3U, reader.remaining());
  EXPECT_TRUE(reader.skip(2));
  EXPECT_FALSE(reader.readShort(shortValue));
  EXPECT_EQ(1U, reader.remaining());
  EXPECT_EQ(7, shortValue);
  EXPECT_EQ(7U, intValue);
}

TEST(Bytes, AWriterCountsWhatItWroteAndWhatItHandedOut) {
  std::string out(12, '#');
  Writer writer(out.data());
  writer.putShort(1);
  writer.putInt(2);
  writer.putBytes("ab", 2);
  writer.putBytes(nullptr, 0);
  writer.claim(3)[0] = 'c';
  EXPECT_EQ(11U, writer.written());
  EXPECT_EQ(unhex("00 01 00 00 00 02") + "abc###", out);
}

}  // namespace
}  // namespace tq::comm::bytes
